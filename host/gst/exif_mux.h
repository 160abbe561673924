// The "tarnwellexif" element: tags each JPEG frame with an EXIF APP1 segment.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define EXIF_TYPE_MUX (exif_mux_get_type())
G_DECLARE_FINAL_TYPE(ExifMux, exif_mux, EXIF, MUX, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(tarnwellexif);

G_END_DECLS
