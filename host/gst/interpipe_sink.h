// The "interpipesink" element: an appsink that publishes its stream, under its name, to every listening
// interpipesrc.
#pragma once

#include <gst/app/gstappsink.h>

G_BEGIN_DECLS

#define INTERPIPE_TYPE_SINK (interpipe_sink_get_type())
G_DECLARE_FINAL_TYPE(InterpipeSink, interpipe_sink, INTERPIPE, SINK, GstAppSink)

GST_ELEMENT_REGISTER_DECLARE(interpipesink);

typedef struct _InterpipeSrc InterpipeSrc;

// Called by the registry, under its lock. Adding checks the listener's caps
// against the sink's and fails when they cannot be made to agree.
gboolean interpipe_sink_add_listener(InterpipeSink* sink, InterpipeSrc* src);
void interpipe_sink_remove_listener(InterpipeSink* sink, InterpipeSrc* src);
// The registry published the sink under `name` (at once, or when the name's holder went).
void interpipe_sink_published(InterpipeSink* sink, const gchar* name);
// An upstream event from a listener; it reaches the producer only when that listener is the only one.
gboolean interpipe_sink_receive_event(InterpipeSink* sink, GstEvent* event);

G_END_DECLS
