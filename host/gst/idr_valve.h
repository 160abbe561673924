// The "idrvalve" element: holds H.264 back, and once opened passes from the next IDR frame on.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define IDR_TYPE_VALVE (idr_valve_get_type())
G_DECLARE_FINAL_TYPE(IdrValve, idr_valve, IDR, VALVE, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(idrvalve);

G_END_DECLS
