// Registers the interpipe stand-in elements.
#include "standins.h"

#include "interpipe_sink.h"
#include "interpipe_src.h"

gboolean RegisterInterpipeElements(GstPlugin* plugin)
{
    return GST_ELEMENT_REGISTER(interpipesink, plugin) && GST_ELEMENT_REGISTER(interpipesrc, plugin);
}
