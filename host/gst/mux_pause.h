// The "muxpause" element: cuts a paused stretch out of a stream and closes the gap in its timeline.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define MUX_TYPE_PAUSE (mux_pause_get_type())
G_DECLARE_FINAL_TYPE(MuxPause, mux_pause, MUX, PAUSE, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(muxpause);

G_END_DECLS
