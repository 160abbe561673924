// imxvpuenc_h264: stand-in for the i.MX VPU H.264 encoder.
#pragma once

#include <gst/video/gstvideoencoder.h>

G_BEGIN_DECLS

#define IMX_TYPE_VPU_ENC_H264 (imx_vpu_enc_h264_get_type())
G_DECLARE_FINAL_TYPE(ImxVpuEncH264, imx_vpu_enc_h264, IMX, VPU_ENC_H264, GstVideoEncoder)

GST_ELEMENT_REGISTER_DECLARE(imxvpuenc_h264);

G_END_DECLS
