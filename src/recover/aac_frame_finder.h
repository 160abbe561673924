// Finds where a raw AAC frame ends. Raw frames carry no length, so the finder asks a decoder: the shortest
// prefix that decodes to a frame is the frame, as a frame cut short never reaches its end element.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <vector>

#include "common/gst_ptr.h"

namespace VideoDaemon
{

class AacFrameFinder
{
public:
    // `config` is the stream's AudioSpecificConfig.
    AacFrameFinder(const std::vector<std::uint8_t>& config, unsigned sample_rate, unsigned channels);
    ~AacFrameFinder();
    AacFrameFinder(const AacFrameFinder&) = delete;
    AacFrameFinder& operator=(const AacFrameFinder&) = delete;

    // False when no AAC decoder is installed.
    bool Ready() const { return _Ready; }
    // The most bytes a frame can take: 6144 bits per channel.
    std::size_t MaxFrameSize() const { return _MaxFrameSize; }
    // The length of the frame at the start of `data`, 0 when no whole frame starts there.
    std::size_t FrameLength(const std::vector<std::uint8_t>& data);

private:
    // Whether `length` bytes decode to at least one frame.
    bool Decodes(const std::vector<std::uint8_t>& data, std::size_t length);
    static GstFlowReturn OnDecoded(GstPad* pad, GstObject* parent, GstBuffer* buffer);
    static gboolean OnEvent(GstPad* pad, GstObject* parent, GstEvent* event);

    GstPtr<GstElement> _Decoder;
    GstPtr<GstPad> _Feed;
    GstPtr<GstPad> _Output;
    std::size_t _MaxFrameSize;
    std::size_t _Decoded = 0;
    bool _Ready = false;
};

} // namespace VideoDaemon
