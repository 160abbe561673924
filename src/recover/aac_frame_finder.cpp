// Finds where a raw AAC frame ends. Raw frames carry no length, so the finder asks a decoder: the shortest
// prefix that decodes to a frame is the frame, as a frame cut short never reaches its end element.
#include "recover/aac_frame_finder.h"

#include <algorithm>

namespace VideoDaemon
{

namespace
{

// A frame closes with the end element (three 1 bits) and zero bits up to the byte boundary, so its last
// byte is not 0 and its lowest 1 bits, with the byte before, read 111.
bool EndsLikeAFrame(const std::vector<std::uint8_t>& data, std::size_t length)
{
    if (length < 2)
        return false;
    const unsigned last = data[length - 1];
    const unsigned before = data[length - 2];
    if (last == 0)
        return false;
    unsigned zeros = 0;
    while (((last >> zeros) & 1) == 0)
        ++zeros;
    if (zeros <= 5)
        return ((last >> zeros) & 7) == 7;
    if (zeros == 6)
        return (last >> 6) == 3 && (before & 1) == 1;
    return (before & 3) == 3; // last == 0x80
}

} // namespace

AacFrameFinder::AacFrameFinder(
    const std::vector<std::uint8_t>& config, unsigned sample_rate, unsigned channels)
    : _MaxFrameSize(768 * (channels == 0 ? 2 : channels))
{
    GstElement* decoder = gst_element_factory_make("avdec_aac", nullptr);
    if (!decoder)
        return;
    _Decoder.reset(GST_ELEMENT(gst_object_ref_sink(decoder)));
    _Feed.reset(GST_PAD(gst_object_ref_sink(gst_pad_new("feed", GST_PAD_SRC))));
    _Output.reset(GST_PAD(gst_object_ref_sink(gst_pad_new("output", GST_PAD_SINK))));
    gst_pad_set_element_private(_Output.get(), this);
    gst_pad_set_chain_function(_Output.get(), &AacFrameFinder::OnDecoded);
    gst_pad_set_event_function(_Output.get(), &AacFrameFinder::OnEvent);

    GstPtr<GstPad> decoder_sink(gst_element_get_static_pad(_Decoder.get(), "sink"));
    GstPtr<GstPad> decoder_source(gst_element_get_static_pad(_Decoder.get(), "src"));
    if (!decoder_sink || !decoder_source || gst_pad_link(_Feed.get(), decoder_sink.get()) != GST_PAD_LINK_OK
        || gst_pad_link(decoder_source.get(), _Output.get()) != GST_PAD_LINK_OK)
        return;
    gst_pad_set_active(_Feed.get(), TRUE);
    gst_pad_set_active(_Output.get(), TRUE);
    if (gst_element_set_state(_Decoder.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        return;

    GstBufferPtr codec_data(gst_buffer_new_memdup(config.data(), config.size()));
    GstCapsPtr caps(gst_caps_new_simple("audio/mpeg", "mpegversion", G_TYPE_INT, 4, "stream-format",
        G_TYPE_STRING, "raw", "codec_data", GST_TYPE_BUFFER, codec_data.get(), "rate", G_TYPE_INT,
        static_cast<int>(sample_rate), "channels", G_TYPE_INT, static_cast<int>(channels), nullptr));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    _Ready = gst_pad_push_event(_Feed.get(), gst_event_new_stream_start("recovery"))
        && gst_pad_push_event(_Feed.get(), gst_event_new_caps(caps.get()))
        && gst_pad_push_event(_Feed.get(), gst_event_new_segment(&segment));
}

AacFrameFinder::~AacFrameFinder()
{
    if (_Decoder)
        gst_element_set_state(_Decoder.get(), GST_STATE_NULL);
    if (_Feed)
        gst_pad_set_active(_Feed.get(), FALSE);
    if (_Output)
        gst_pad_set_active(_Output.get(), FALSE);
}

GstFlowReturn AacFrameFinder::OnDecoded(GstPad* pad, GstObject*, GstBuffer* buffer)
{
    auto* finder = static_cast<AacFrameFinder*>(gst_pad_get_element_private(pad));
    GstBufferPtr decoded(buffer);
    ++finder->_Decoded;
    return GST_FLOW_OK;
}

gboolean AacFrameFinder::OnEvent(GstPad*, GstObject*, GstEvent* event)
{
    GstEventPtr consumed(event);
    return TRUE;
}

bool AacFrameFinder::Decodes(const std::vector<std::uint8_t>& data, std::size_t length)
{
    const std::size_t before = _Decoded;
    GstBuffer* buffer = gst_buffer_new_memdup(data.data(), length);
    const GstFlowReturn result = gst_pad_push(_Feed.get(), buffer);
    return result == GST_FLOW_OK && _Decoded > before;
}

std::size_t AacFrameFinder::FrameLength(const std::vector<std::uint8_t>& data)
{
    if (!_Ready)
        return 0;
    const std::size_t longest = std::min(data.size(), _MaxFrameSize);
    for (std::size_t length = 2; length <= longest; ++length)
        if (EndsLikeAFrame(data, length) && Decodes(data, length))
            return length;
    return 0;
}

} // namespace VideoDaemon
