// Registers the i.MX stand-in elements.
#include "standins.h"

#include "imx_ipu_video_sink.h"
#include "imx_ipu_video_transform.h"
#include "imx_v4l2_video_src.h"
#include "imx_vpu_dec.h"
#include "imx_vpu_enc_h264.h"
#include "imx_vpu_enc_mjpeg.h"

gboolean RegisterImxElements(GstPlugin* plugin)
{
    return GST_ELEMENT_REGISTER(imxv4l2videosrc, plugin) && GST_ELEMENT_REGISTER(imxipuvideotransform, plugin)
        && GST_ELEMENT_REGISTER(imxipuvideosink, plugin) && GST_ELEMENT_REGISTER(imxvpuenc_h264, plugin)
        && GST_ELEMENT_REGISTER(imxvpuenc_mjpeg, plugin) && GST_ELEMENT_REGISTER(imxvpudec, plugin);
}
