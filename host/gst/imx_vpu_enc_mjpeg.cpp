// imxvpuenc_mjpeg: real JPEG, one picture per frame, through the packaged
// jpegenc held inside this bin. "quality-factor" (1 to 100) is the JPEG
// quality.
//
// Example: gst-launch-1.0 videotestsrc num-buffers=1 ! video/x-raw,format=I420 !
//   imxvpuenc_mjpeg quality-factor=85 ! filesink location=picture.jpg
#include "imx_vpu_enc_mjpeg.h"

GST_DEBUG_CATEGORY_STATIC(imx_vpu_enc_mjpeg_debug);
#define GST_CAT_DEFAULT imx_vpu_enc_mjpeg_debug

namespace
{

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS(
        "video/x-raw, format=(string){ I420, NV12, YV12, Y42B, Y444, UYVY, YUY2, GRAY8, RGB, BGR, "
        "RGBx, BGRx, xRGB, xBGR }, width=(int)[16, 8192], height=(int)[16, 8192], "
        "framerate=(fraction)[0/1, MAX]"));
GstStaticPadTemplate src_template
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));

enum {
    PROP_0,
    PROP_QUALITY_FACTOR,
};

constexpr guint kDefaultQuality = 85;

} // namespace

struct _ImxVpuEncMjpeg {
    GstBin parent;
    GstElement* jpegenc; // owned by the bin
    guint quality;
};

G_DEFINE_TYPE(ImxVpuEncMjpeg, imx_vpu_enc_mjpeg, GST_TYPE_BIN);
GST_ELEMENT_REGISTER_DEFINE(imxvpuenc_mjpeg, "imxvpuenc_mjpeg", GST_RANK_NONE, IMX_TYPE_VPU_ENC_MJPEG);

namespace
{

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    auto* self = IMX_VPU_ENC_MJPEG(object);
    switch (id) {
    case PROP_QUALITY_FACTOR:
        GST_OBJECT_LOCK(self);
        self->quality = g_value_get_uint(value);
        GST_OBJECT_UNLOCK(self);
        if (self->jpegenc)
            g_object_set(self->jpegenc, "quality", static_cast<gint>(g_value_get_uint(value)), nullptr);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    auto* self = IMX_VPU_ENC_MJPEG(object);
    switch (id) {
    case PROP_QUALITY_FACTOR:
        GST_OBJECT_LOCK(self);
        g_value_set_uint(value, self->quality);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

void AddGhostPad(GstElement* bin, GstElement* inner, const char* name, GstStaticPadTemplate* templ)
{
    g_autoptr(GstPad) target = gst_element_get_static_pad(inner, name);
    g_autoptr(GstPadTemplate) pad_template = gst_static_pad_template_get(templ);
    gst_element_add_pad(bin, gst_ghost_pad_new_from_template(name, target, pad_template));
}

} // namespace

static void imx_vpu_enc_mjpeg_class_init(ImxVpuEncMjpegClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(imx_vpu_enc_mjpeg_debug, "imxvpuenc_mjpeg", 0, "i.MX VPU JPEG encoder stand-in");
    auto* gobject_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    gobject_class->set_property = SetProperty;
    gobject_class->get_property = GetProperty;

    g_object_class_install_property(gobject_class, PROP_QUALITY_FACTOR,
        g_param_spec_uint("quality-factor", "Quality factor", "JPEG quality, 1 (smallest) to 100 (best)", 1,
            100, kDefaultQuality,
            static_cast<GParamFlags>(
                G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "i.MX VPU JPEG encoder (stand-in)",
        "Codec/Encoder/Image", "JPEG pictures through the packaged jpegenc", "videod");
}

static void imx_vpu_enc_mjpeg_init(ImxVpuEncMjpeg* self)
{
    self->quality = kDefaultQuality;
    self->jpegenc = gst_element_factory_make("jpegenc", "jpegenc");
    if (!self->jpegenc) {
        GST_ERROR_OBJECT(self, "jpegenc is not installed");
        return;
    }
    g_object_set(self->jpegenc, "quality", static_cast<gint>(kDefaultQuality), nullptr);
    gst_bin_add(GST_BIN(self), self->jpegenc);
    AddGhostPad(GST_ELEMENT(self), self->jpegenc, "sink", &sink_template);
    AddGhostPad(GST_ELEMENT(self), self->jpegenc, "src", &src_template);
}
