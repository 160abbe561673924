// imxvpudec: decodes JPEG and H.264 with the packaged decoders, which a
// decodebin inside this bin picks from the stream's caps. A videoconvert after
// it turns the decoded picture into whatever raw format downstream asks for
// (the VPU hands out I420).
//
// Example: gst-launch-1.0 filesrc location=picture.jpg ! jpegparse ! imxvpudec !
//   video/x-raw,format=I420 ! fakesink
#include "imx_vpu_dec.h"

GST_DEBUG_CATEGORY_STATIC(imx_vpu_dec_debug);
#define GST_CAT_DEFAULT imx_vpu_dec_debug

namespace
{

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg; video/x-h264"));
GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS(
        "video/x-raw, format=(string){ I420, NV12, YV12, Y42B, Y444, UYVY, YUY2, GRAY8, RGBA, BGRA, "
        "RGBx, BGRx }"));

} // namespace

struct _ImxVpuDec {
    GstBin parent;
    GstElement* convert; // owned by the bin
};

G_DEFINE_TYPE(ImxVpuDec, imx_vpu_dec, GST_TYPE_BIN);
GST_ELEMENT_REGISTER_DEFINE(imxvpudec, "imxvpudec", GST_RANK_NONE, IMX_TYPE_VPU_DEC);

namespace
{

void OnDecodedPad(GstElement* /*decodebin*/, GstPad* pad, gpointer user_data)
{
    auto* self = IMX_VPU_DEC(user_data);
    g_autoptr(GstPad) sink = gst_element_get_static_pad(self->convert, "sink");
    if (gst_pad_is_linked(sink))
        return;
    if (gst_pad_link(pad, sink) != GST_PAD_LINK_OK)
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("Could not link the decoded stream"), (nullptr));
}

void AddGhostPad(GstElement* bin, GstElement* inner, const char* name, GstStaticPadTemplate* templ)
{
    g_autoptr(GstPad) target = gst_element_get_static_pad(inner, name);
    g_autoptr(GstPadTemplate) pad_template = gst_static_pad_template_get(templ);
    gst_element_add_pad(bin, gst_ghost_pad_new_from_template(name, target, pad_template));
}

} // namespace

static void imx_vpu_dec_class_init(ImxVpuDecClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(imx_vpu_dec_debug, "imxvpudec", 0, "i.MX VPU decoder stand-in");
    auto* element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "i.MX VPU decoder (stand-in)", "Codec/Decoder/Video",
        "JPEG and H.264 through the packaged decoders", "videod");
}

static void imx_vpu_dec_init(ImxVpuDec* self)
{
    GstElement* decodebin = gst_element_factory_make("decodebin", "decoder");
    GstElement* convert = gst_element_factory_make("videoconvert", "convert");
    // Once added, the bin owns the elements.
    if (decodebin)
        gst_bin_add(GST_BIN(self), decodebin);
    if (convert)
        gst_bin_add(GST_BIN(self), convert);
    if (!decodebin || !convert) {
        GST_ERROR_OBJECT(self, "decodebin or videoconvert is not installed");
        return;
    }
    self->convert = convert;
    g_signal_connect(decodebin, "pad-added", G_CALLBACK(OnDecodedPad), self);
    AddGhostPad(GST_ELEMENT(self), decodebin, "sink", &sink_template);
    AddGhostPad(GST_ELEMENT(self), convert, "src", &src_template);
}
