// Owning handles for gst-video objects: converters, codec states and frames, mapped frames.
#pragma once

#include <gst/video/gstvideoencoder.h>
#include <gst/video/video.h>

#include <memory>

namespace VideoDaemon
{

struct GstVideoConverterFree {
    void operator()(GstVideoConverter* converter) const { gst_video_converter_free(converter); }
};
struct GstVideoCodecStateUnref {
    void operator()(GstVideoCodecState* state) const { gst_video_codec_state_unref(state); }
};
struct GstVideoCodecFrameUnref {
    void operator()(GstVideoCodecFrame* frame) const { gst_video_codec_frame_unref(frame); }
};

using GstVideoConverterPtr = std::unique_ptr<GstVideoConverter, GstVideoConverterFree>;
using GstVideoCodecStatePtr = std::unique_ptr<GstVideoCodecState, GstVideoCodecStateUnref>;
using GstVideoCodecFramePtr = std::unique_ptr<GstVideoCodecFrame, GstVideoCodecFrameUnref>;

// A mapped video frame, unmapped when the handle goes out of scope.
class MappedVideoFrame
{
public:
    MappedVideoFrame(const GstVideoInfo* info, GstBuffer* buffer, GstMapFlags flags)
        : _Mapped(gst_video_frame_map(&_Frame, info, buffer, flags) != FALSE)
    {
    }
    ~MappedVideoFrame()
    {
        if (_Mapped)
            gst_video_frame_unmap(&_Frame);
    }
    MappedVideoFrame(const MappedVideoFrame&) = delete;
    MappedVideoFrame& operator=(const MappedVideoFrame&) = delete;

    bool Ok() const { return _Mapped; }
    GstVideoFrame* Get() { return &_Frame; }

private:
    GstVideoFrame _Frame {};
    bool _Mapped;
};

} // namespace VideoDaemon
