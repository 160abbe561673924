// The "interpipesrc" element: plays, in its own pipeline, the stream of the interpipesink named by
// "listen-to".
#pragma once

#include <gst/app/gstappsrc.h>

G_BEGIN_DECLS

#define INTERPIPE_TYPE_SRC (interpipe_src_get_type())
G_DECLARE_FINAL_TYPE(InterpipeSrc, interpipe_src, INTERPIPE, SRC, GstAppSrc)

GST_ELEMENT_REGISTER_DECLARE(interpipesrc);

// Where a buffer comes from: what the listener needs to move its timestamps
// into its own pipeline's time.
typedef struct {
    GstClockTime baseTime;
    const GstSegment* segment;
    // Sink-side bound for listeners without their own limit; 0 = none.
    guint maxBuffers;
} InterpipeOrigin;

// Called by the producing sink on its streaming thread, under its listener lock.
void interpipe_src_receive(InterpipeSrc* src, GstBuffer* buffer, const InterpipeOrigin* origin);
void interpipe_src_producer_caps(InterpipeSrc* src, GstCaps* caps, const gchar* sink_name);
void interpipe_src_forward_event(InterpipeSrc* src, GstEvent* event);
void interpipe_src_end_of_stream(InterpipeSrc* src);
// A new producer took over (attach, switch, or the sink reappeared).
void interpipe_src_producer_changed(InterpipeSrc* src);

G_END_DECLS
