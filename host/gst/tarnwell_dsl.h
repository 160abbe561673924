// tarnwell-dsl: stand-in for the digital self-levelling element.
#pragma once

#include <gst/video/gstvideofilter.h>

G_BEGIN_DECLS

#define TARNWELL_TYPE_DSL (tarnwell_dsl_get_type())
G_DECLARE_FINAL_TYPE(TarnwellDsl, tarnwell_dsl, TARNWELL, DSL, GstVideoFilter)

GST_ELEMENT_REGISTER_DECLARE(tarnwell_dsl);

G_END_DECLS
