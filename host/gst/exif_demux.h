// The "tarnwellexifdemux" element: takes the EXIF APP1 segment off each JPEG frame.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define EXIF_TYPE_DEMUX (exif_demux_get_type())
G_DECLARE_FINAL_TYPE(ExifDemux, exif_demux, EXIF, DEMUX, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(tarnwellexifdemux);

G_END_DECLS
