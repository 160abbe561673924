// Registers the image stand-in elements: levelling, zoom and pan, SVG overlay.
#include "rsvg_overlay_tarnwell.h"
#include "standins.h"
#include "tarnwell_dsl.h"
#include "tarnwell_tiling.h"

gboolean RegisterImageElements(GstPlugin* plugin)
{
    gboolean ok = GST_ELEMENT_REGISTER(tarnwell_dsl, plugin);
    ok &= GST_ELEMENT_REGISTER(tarnwell_tiling, plugin);
    ok &= GST_ELEMENT_REGISTER(rsvgoverlaytarnwell, plugin);
    return ok;
}
