// imxipuvideotransform: stand-in for the i.MX IPU colour converter and scaler.
#pragma once

#include <gst/video/gstvideofilter.h>

G_BEGIN_DECLS

#define IMX_TYPE_IPU_VIDEO_TRANSFORM (imx_ipu_video_transform_get_type())
G_DECLARE_FINAL_TYPE(ImxIpuVideoTransform, imx_ipu_video_transform, IMX, IPU_VIDEO_TRANSFORM, GstVideoFilter)

GST_ELEMENT_REGISTER_DECLARE(imxipuvideotransform);

G_END_DECLS
