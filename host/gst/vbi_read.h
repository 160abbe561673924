// The "vbiread" element: the analogue capture's vertical-blanking reader, passing frames through.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define VBI_TYPE_READ (vbi_read_get_type())
G_DECLARE_FINAL_TYPE(VbiRead, vbi_read, VBI, READ, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(vbiread);

G_END_DECLS
