// tarnwell-tiling: stand-in for the zoom, pan and sharpening element.
#pragma once

#include <gst/video/gstvideofilter.h>

G_BEGIN_DECLS

#define TARNWELL_TYPE_TILING (tarnwell_tiling_get_type())
G_DECLARE_FINAL_TYPE(TarnwellTiling, tarnwell_tiling, TARNWELL, TILING, GstVideoFilter)

GST_ELEMENT_REGISTER_DECLARE(tarnwell_tiling);

G_END_DECLS
