// imxipuvideosink: stand-in for the i.MX IPU display sink.
#pragma once

#include <gst/base/gstbasesink.h>

G_BEGIN_DECLS

#define IMX_TYPE_IPU_VIDEO_SINK (imx_ipu_video_sink_get_type())
G_DECLARE_FINAL_TYPE(ImxIpuVideoSink, imx_ipu_video_sink, IMX, IPU_VIDEO_SINK, GstBaseSink)

GST_ELEMENT_REGISTER_DECLARE(imxipuvideosink);

G_END_DECLS
