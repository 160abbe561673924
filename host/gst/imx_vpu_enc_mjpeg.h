// imxvpuenc_mjpeg: stand-in for the i.MX VPU JPEG encoder.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define IMX_TYPE_VPU_ENC_MJPEG (imx_vpu_enc_mjpeg_get_type())
G_DECLARE_FINAL_TYPE(ImxVpuEncMjpeg, imx_vpu_enc_mjpeg, IMX, VPU_ENC_MJPEG, GstBin)

GST_ELEMENT_REGISTER_DECLARE(imxvpuenc_mjpeg);

G_END_DECLS
