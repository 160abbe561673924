// The "interpipesink" element: publishes its stream under its name to every interpipesrc listening to it.
#pragma once

#include <gst/base/gstbasesink.h>

G_BEGIN_DECLS

#define INTERPIPE_TYPE_SINK (interpipe_sink_get_type())
G_DECLARE_FINAL_TYPE(InterpipeSink, interpipe_sink, INTERPIPE, SINK, GstBaseSink)

GST_ELEMENT_REGISTER_DECLARE(interpipesink);

typedef struct _InterpipeSrc InterpipeSrc;

// Called by the registry (under its lock) to change the set of listeners.
void interpipe_sink_attach(InterpipeSink* sink, InterpipeSrc* src);
void interpipe_sink_detach(InterpipeSink* sink, InterpipeSrc* src);
void interpipe_sink_detach_all(InterpipeSink* sink);

G_END_DECLS
