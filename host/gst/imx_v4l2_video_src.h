// imxv4l2videosrc: stand-in for the i.MX V4L2 capture source (a live moving test picture).
#pragma once

#include <gst/base/gstpushsrc.h>

G_BEGIN_DECLS

#define IMX_TYPE_V4L2_VIDEO_SRC (imx_v4l2_video_src_get_type())
G_DECLARE_FINAL_TYPE(ImxV4l2VideoSrc, imx_v4l2_video_src, IMX, V4L2_VIDEO_SRC, GstPushSrc)

GST_ELEMENT_REGISTER_DECLARE(imxv4l2videosrc);

G_END_DECLS
