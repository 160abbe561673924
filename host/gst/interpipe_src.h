// The "interpipesrc" element: an appsrc that plays, in its own pipeline, the stream of the interpipesink
// named by "listen-to".
#pragma once

#include <gst/app/gstappsrc.h>

G_BEGIN_DECLS

#define INTERPIPE_TYPE_SRC (interpipe_src_get_type())
G_DECLARE_FINAL_TYPE(InterpipeSrc, interpipe_src, INTERPIPE, SRC, GstAppSrc)

GST_ELEMENT_REGISTER_DECLARE(interpipesrc);

// The listener side, called by the sink it is attached to.
//
// The caps this listener can take: its negotiated caps when it may not
// renegotiate, else what its downstream accepts. `negotiated` tells whether it has caps already.
GstCaps* interpipe_src_listener_caps(InterpipeSrc* src, gboolean* negotiated);
// Takes the producer's caps; false (quietly) when it has caps and may not renegotiate.
gboolean interpipe_src_take_caps(InterpipeSrc* src, GstCaps* caps);
// A buffer of the producer, whose pipeline runs on `node_base_time` (the buffer is not taken over).
void interpipe_src_push_buffer(InterpipeSrc* src, GstBuffer* buffer, GstClockTime node_base_time);
// A downstream event of the producer (not taken over).
void interpipe_src_push_event(InterpipeSrc* src, GstEvent* event);
void interpipe_src_end_of_stream(InterpipeSrc* src);

G_END_DECLS
