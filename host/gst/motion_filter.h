// The "tarnwell-motion-filter" element: smooths the camera's roll readings, passing frames through.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define MOTION_TYPE_FILTER (motion_filter_get_type())
G_DECLARE_FINAL_TYPE(MotionFilter, motion_filter, MOTION, FILTER, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(tarnwell_motion_filter);

G_END_DECLS
