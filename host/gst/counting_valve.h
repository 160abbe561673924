// The "tarnwell-valve" element: lets a counted number of buffers through, then drops.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define COUNTING_TYPE_VALVE (counting_valve_get_type())
G_DECLARE_FINAL_TYPE(CountingValve, counting_valve, COUNTING, VALVE, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(tarnwell_valve);

G_END_DECLS
