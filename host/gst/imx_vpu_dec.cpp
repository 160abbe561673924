// imxvpudec: decodes JPEG and H.264 as the VPU does, handing out the raw
// format the stream itself is coded in (I420 for 4:2:0, Y42B for 4:2:2,
// Y444, GRAY8) and nothing else: like the VPU it cannot convert, so a
// downstream that refuses that format fails negotiation with an error.
// Inside the bin, decodebin is offered only a parser and then libav's
// decoder (avdec_mjpeg, avdec_h264), which output only the coded format;
// jpegdec, which would convert on demand, is kept out.
//
// Example: gst-launch-1.0 filesrc location=picture.jpg ! jpegparse ! imxvpudec !
//   video/x-raw,format=I420 ! fakesink
#include "imx_vpu_dec.h"

#include "common/gst_ptr.h"

GST_DEBUG_CATEGORY_STATIC(imx_vpu_dec_debug);
#define GST_CAT_DEFAULT imx_vpu_dec_debug

namespace
{

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg; video/x-h264"));
GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string){ I420, Y42B, Y444, GRAY8 }"));

// Per coded format: the parser, and the decoder once the stream is parsed.
struct Chain {
    const char* media;
    const char* parser;
    const char* decoder;
};
constexpr Chain kChains[] = {
    { "image/jpeg", "jpegparse", "avdec_mjpeg" },
    { "video/x-h264", "h264parse", "avdec_h264" },
};

} // namespace

struct _ImxVpuDec {
    GstBin parent;
    GstPad* src; // the ghost source pad, owned by the element
};

G_DEFINE_TYPE(ImxVpuDec, imx_vpu_dec, GST_TYPE_BIN);
GST_ELEMENT_REGISTER_DEFINE(imxvpudec, "imxvpudec", GST_RANK_NONE, IMX_TYPE_VPU_DEC);

namespace
{

// decodebin asks which factories may take a stream of these caps; the
// answer is one at most, so nothing else (jpegdec above all) is plugged.
G_GNUC_BEGIN_IGNORE_DEPRECATIONS
GValueArray* OnAutoplugFactories(
    GstElement* /*decodebin*/, GstPad* /*pad*/, GstCaps* caps, gpointer /*user_data*/)
{
    GValueArray* factories = g_value_array_new(1);
    if (gst_caps_is_empty(caps) || gst_caps_is_any(caps))
        return factories;
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    gboolean parsed = FALSE;
    gst_structure_get_boolean(structure, "parsed", &parsed);
    for (const Chain& chain : kChains) {
        if (!gst_structure_has_name(structure, chain.media))
            continue;
        VideoDaemon::GstPtr<GstElementFactory> factory(
            gst_element_factory_find(parsed ? chain.decoder : chain.parser));
        if (factory) {
            GValue value = G_VALUE_INIT;
            g_value_init(&value, GST_TYPE_ELEMENT_FACTORY);
            g_value_set_object(&value, factory.get());
            g_value_array_append(factories, &value);
            g_value_unset(&value);
        }
    }
    return factories;
}
G_GNUC_END_IGNORE_DEPRECATIONS

void OnDecodedPad(GstElement* /*decodebin*/, GstPad* pad, gpointer user_data)
{
    auto* self = IMX_VPU_DEC(user_data);
    VideoDaemon::GstPtr<GstPad> target(gst_ghost_pad_get_target(GST_GHOST_PAD(self->src)));
    if (target)
        return;
    if (!gst_ghost_pad_set_target(GST_GHOST_PAD(self->src), pad))
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("Could not expose the decoded stream"), (nullptr));
}

} // namespace

static void imx_vpu_dec_class_init(ImxVpuDecClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(imx_vpu_dec_debug, "imxvpudec", 0, "i.MX VPU decoder stand-in");
    auto* element_class = GST_ELEMENT_CLASS(klass);
    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "i.MX VPU decoder (stand-in)", "Codec/Decoder/Video",
        "JPEG and H.264 to the stream's own raw format through libav's decoders", "videod");
}

static void imx_vpu_dec_init(ImxVpuDec* self)
{
    VideoDaemon::GstPtr<GstPadTemplate> src_pad_template(gst_static_pad_template_get(&src_template));
    self->src = gst_ghost_pad_new_no_target_from_template("src", src_pad_template.get());
    gst_element_add_pad(GST_ELEMENT(self), self->src);

    GstElement* decodebin = gst_element_factory_make("decodebin", "decoder");
    if (!decodebin) {
        GST_ERROR_OBJECT(self, "decodebin is not installed");
        return;
    }
    // Once added, the bin owns it.
    gst_bin_add(GST_BIN(self), decodebin);
    g_signal_connect(decodebin, "autoplug-factories", G_CALLBACK(OnAutoplugFactories), nullptr);
    g_signal_connect(decodebin, "pad-added", G_CALLBACK(OnDecodedPad), self);
    VideoDaemon::GstPtr<GstPad> sink_target(gst_element_get_static_pad(decodebin, "sink"));
    VideoDaemon::GstPtr<GstPadTemplate> sink_pad_template(gst_static_pad_template_get(&sink_template));
    gst_element_add_pad(GST_ELEMENT(self),
        gst_ghost_pad_new_from_template("sink", sink_target.get(), sink_pad_template.get()));
}
