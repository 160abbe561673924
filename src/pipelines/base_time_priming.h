// Gives every element of a pipeline that is about to start a base time of
// "now" on the clock the pipeline would choose.
//
// Going to PLAYING, a pipeline hands its clock to all its elements first and
// then sets their base time one by one, sinks before sources. A source that
// stamps buffers from the clock ("do-timestamp") and already streams in PAUSED
// can stamp a buffer in between, against a base time of 0 (first start) or of
// the previous run: the buffer then carries an absolute clock time, and a
// syncing sink waits on it for hours. With base times primed to "now", such a
// buffer is at worst a few milliseconds off; the pipeline still sets the real
// base time on every element as it goes to PLAYING.
#pragma once

#include <gst/gst.h>

#include "common/gst_ptr.h"

namespace VideoDaemon
{

inline void PrimeBaseTimes(GstElement* pipeline)
{
    GstPtr<GstClock> clock(GST_IS_PIPELINE(pipeline) ? gst_pipeline_get_pipeline_clock(GST_PIPELINE(pipeline))
                                                     : gst_system_clock_obtain());
    GstClockTime now = gst_clock_get_time(clock.get());
    gst_element_set_base_time(pipeline, now);
    if (!GST_IS_BIN(pipeline))
        return;
    GstIteratorPtr elements(gst_bin_iterate_recurse(GST_BIN(pipeline)));
    gst_iterator_foreach(
        elements.get(),
        [](const GValue* item, gpointer time) {
            gst_element_set_base_time(
                GST_ELEMENT(g_value_get_object(item)), *static_cast<GstClockTime*>(time));
        },
        &now);
}

// Primes the base times when `pipeline` is asked to play from below PAUSED.
inline void PrimeBaseTimesForStart(GstElement* pipeline, GstState target)
{
    if (target != GST_STATE_PLAYING)
        return;
    GstState current = GST_STATE_VOID_PENDING;
    gst_element_get_state(pipeline, &current, nullptr, 0);
    if (current < GST_STATE_PAUSED)
        PrimeBaseTimes(pipeline);
}

} // namespace VideoDaemon
