// The "tarnwell-static-jpeg" element: puts one JPEG picture into a stream in place of its frames.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define STATIC_TYPE_JPEG (static_jpeg_get_type())
G_DECLARE_FINAL_TYPE(StaticJpeg, static_jpeg, STATIC, JPEG, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(tarnwell_static_jpeg);

G_END_DECLS
