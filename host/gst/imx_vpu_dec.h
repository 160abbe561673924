// imxvpudec: stand-in for the i.MX VPU decoder.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define IMX_TYPE_VPU_DEC (imx_vpu_dec_get_type())
G_DECLARE_FINAL_TYPE(ImxVpuDec, imx_vpu_dec, IMX, VPU_DEC, GstBin)

GST_ELEMENT_REGISTER_DECLARE(imxvpudec);

G_END_DECLS
