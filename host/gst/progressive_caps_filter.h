// The "progressive-caps-filter" element: declares deinterlaced video progressive in its caps.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define PROGRESSIVE_TYPE_CAPS_FILTER (progressive_caps_filter_get_type())
G_DECLARE_FINAL_TYPE(
    ProgressiveCapsFilter, progressive_caps_filter, PROGRESSIVE, CAPS_FILTER, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(progressive_caps_filter);

G_END_DECLS
