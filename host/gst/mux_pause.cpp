// The "muxpause" element: cuts a paused stretch out of a stream and closes the gap in its timeline.
//
// Writing "pause" drops every buffer until "resume" is written; the time
// between the two on the element's clock is added to "pause_length", and
// every buffer from then on is moved earlier by "pause_length", so the
// output runs on without a gap. The audio and video elements of one file
// are paused and resumed together, so both streams move by the same time
// and stay in step, whatever each one lost while waiting (video resumes on
// its next IDR frame). A buffer that would land before the end of the last
// one let through was queued before the pause and is dropped; a first
// buffer that would overlap by less than half its duration (clock jitter)
// shortens the pause instead. "reset" forgets the pause state and the
// length. Writing "pause_length" sets the shift directly, which keeps the
// audio and video elements of one file aligned across pauses.
//
//   gst-launch-1.0 audiotestsrc is-live=true ! avenc_aac ! muxpause name=p ! mp4mux ! filesink location=a.mp4
#include "mux_pause.h"

#include "common/gst_ptr.h"

GST_DEBUG_CATEGORY_STATIC(mux_pause_debug);
#define GST_CAT_DEFAULT mux_pause_debug

struct _MuxPause {
    GstBaseTransform parent;
    gboolean paused;
    gboolean resumed; // no buffer let through since the last resume
    GstClockTime pausedAt; // clock time of the last pause
    guint64 pauseLength;
    GstClockTime lastPosition; // output time of the last buffer let through
    GstClockTime lastEnd; // output time where that buffer ends
};

enum { PROP_0, PROP_PAUSE, PROP_RESUME, PROP_RESET, PROP_PAUSE_LENGTH };

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

G_DEFINE_TYPE(MuxPause, mux_pause, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(muxpause, "muxpause", GST_RANK_NONE, MUX_TYPE_PAUSE)

// The time on the element's clock (the system clock before it has one).
static GstClockTime mux_pause_now(MuxPause* self)
{
    VideoDaemon::GstPtr<GstClock> clock(gst_element_get_clock(GST_ELEMENT(self)));
    if (!clock)
        clock.reset(gst_system_clock_obtain());
    return gst_clock_get_time(clock.get());
}

// Caller holds the object lock.
static void mux_pause_clear(MuxPause* self)
{
    self->paused = FALSE;
    self->resumed = FALSE;
    self->pausedAt = GST_CLOCK_TIME_NONE;
    self->pauseLength = 0;
    self->lastPosition = GST_CLOCK_TIME_NONE;
    self->lastEnd = GST_CLOCK_TIME_NONE;
}

static void mux_pause_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    MuxPause* self = MUX_PAUSE(object);
    const GstClockTime now
        = id == PROP_PAUSE || id == PROP_RESUME ? mux_pause_now(self) : GST_CLOCK_TIME_NONE;
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_PAUSE:
        if (g_value_get_boolean(value) && !self->paused) {
            self->paused = TRUE;
            self->pausedAt = now;
            GST_INFO_OBJECT(self, "paused");
        }
        break;
    case PROP_RESUME:
        if (g_value_get_boolean(value) && self->paused) {
            self->paused = FALSE;
            self->resumed = TRUE;
            if (GST_CLOCK_TIME_IS_VALID(self->pausedAt) && now > self->pausedAt)
                self->pauseLength += now - self->pausedAt;
            GST_INFO_OBJECT(
                self, "resumed, pause length now %" GST_TIME_FORMAT, GST_TIME_ARGS(self->pauseLength));
        }
        break;
    case PROP_RESET:
        if (g_value_get_boolean(value)) {
            mux_pause_clear(self);
            GST_INFO_OBJECT(self, "reset");
        }
        break;
    case PROP_PAUSE_LENGTH:
        self->pauseLength = g_value_get_uint64(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void mux_pause_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    MuxPause* self = MUX_PAUSE(object);
    switch (id) {
    case PROP_PAUSE_LENGTH:
        GST_OBJECT_LOCK(self);
        g_value_set_uint64(value, self->pauseLength);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static GstClockTime mux_pause_shifted(GstClockTime time, guint64 shift)
{
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return time;
    return time > shift ? time - shift : 0;
}

static GstFlowReturn mux_pause_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    MuxPause* self = MUX_PAUSE(trans);
    // Decode time is monotonic even with reordered frames; fall back to presentation time.
    const GstClockTime input
        = GST_BUFFER_DTS_IS_VALID(buffer) ? GST_BUFFER_DTS(buffer) : GST_BUFFER_PTS(buffer);

    GST_OBJECT_LOCK(self);
    if (self->paused) {
        GST_OBJECT_UNLOCK(self);
        return GST_BASE_TRANSFORM_FLOW_DROPPED;
    }
    GstClockTime duration = GST_BUFFER_DURATION(buffer);
    if (GST_CLOCK_TIME_IS_VALID(input)) {
        GstClockTime position = mux_pause_shifted(input, self->pauseLength);
        // Right after a resume: buffers queued before the pause, or clock jitter.
        if (self->resumed && GST_CLOCK_TIME_IS_VALID(self->lastEnd) && position < self->lastEnd) {
            const GstClockTime overlap = self->lastEnd - position;
            const GstClockTime slack = GST_CLOCK_TIME_IS_VALID(duration) ? duration / 2 : 10 * GST_MSECOND;
            if (overlap > slack || overlap > self->pauseLength) {
                GST_OBJECT_UNLOCK(self);
                GST_LOG_OBJECT(self, "buffer from before the pause dropped");
                return GST_BASE_TRANSFORM_FLOW_DROPPED;
            }
            self->pauseLength -= overlap;
            position += overlap;
        }
        if (!GST_CLOCK_TIME_IS_VALID(duration)) {
            // Without a duration, expect the same spacing as between the last two buffers.
            const bool spaced = GST_CLOCK_TIME_IS_VALID(self->lastPosition) && position > self->lastPosition;
            duration = spaced ? position - self->lastPosition : 0;
        }
        self->lastPosition = position;
        self->lastEnd = position + duration;
        self->resumed = FALSE;
    }
    const guint64 shift = self->pauseLength;
    GST_OBJECT_UNLOCK(self);

    if (shift > 0) {
        GST_BUFFER_PTS(buffer) = mux_pause_shifted(GST_BUFFER_PTS(buffer), shift);
        GST_BUFFER_DTS(buffer) = mux_pause_shifted(GST_BUFFER_DTS(buffer), shift);
    }
    return GST_FLOW_OK;
}

static gboolean mux_pause_start(GstBaseTransform* trans)
{
    MuxPause* self = MUX_PAUSE(trans);
    // A new run has a new timeline: only the shift set by the owner is kept.
    GST_OBJECT_LOCK(self);
    self->resumed = FALSE;
    self->lastPosition = GST_CLOCK_TIME_NONE;
    self->lastEnd = GST_CLOCK_TIME_NONE;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static void mux_pause_class_init(MuxPauseClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(mux_pause_debug, "muxpause", 0, "Gap-free pause of a stream");

    gobjectClass->set_property = mux_pause_set_property;
    gobjectClass->get_property = mux_pause_get_property;
    const auto trigger
        = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(gobjectClass, PROP_PAUSE,
        g_param_spec_boolean(
            "pause", "Pause", "Writing true drops buffers from now on until resumed", FALSE, trigger));
    g_object_class_install_property(gobjectClass, PROP_RESUME,
        g_param_spec_boolean("resume", "Resume",
            "Writing true lets buffers through again, moved back by the time spent paused", FALSE, trigger));
    g_object_class_install_property(gobjectClass, PROP_RESET,
        g_param_spec_boolean(
            "reset", "Reset", "Writing true leaves pause and sets the pause length to 0", FALSE, trigger));
    g_object_class_install_property(gobjectClass, PROP_PAUSE_LENGTH,
        g_param_spec_uint64("pause_length", "Pause length",
            "Total paused time in nanoseconds, subtracted from every timestamp", 0, G_MAXUINT64, 0,
            // GLib stores the name as "pause-length"; both spellings find it.
            static_cast<GParamFlags>(
                G_PARAM_READWRITE | G_PARAM_STATIC_NICK | G_PARAM_STATIC_BLURB | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Mux pause (stand-in)", "Filter",
        "Drops buffers while paused and removes the paused time from "
        "the timestamps after resuming",
        "videod");

    transClass->start = GST_DEBUG_FUNCPTR(mux_pause_start);
    transClass->transform_ip = GST_DEBUG_FUNCPTR(mux_pause_transform_ip);
}

static void mux_pause_init(MuxPause* self)
{
    mux_pause_clear(self);
    // Timestamps are rewritten in place, so buffers must be writable.
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
