// rsvgoverlaytarnwell: stand-in for the unit's SVG overlay element.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define RSVG_TYPE_OVERLAY_TARNWELL (rsvg_overlay_tarnwell_get_type())
G_DECLARE_FINAL_TYPE(RsvgOverlayTarnwell, rsvg_overlay_tarnwell, RSVG, OVERLAY_TARNWELL, GstElement)

GST_ELEMENT_REGISTER_DECLARE(rsvgoverlaytarnwell);

G_END_DECLS
