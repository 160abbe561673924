// Owning handles for the C objects the i.MX stand-ins keep between calls.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>

#include <memory>

namespace ImxStandIn
{

struct ConverterFree {
    void operator()(GstVideoConverter* converter) const { gst_video_converter_free(converter); }
};
using ConverterPtr = std::unique_ptr<GstVideoConverter, ConverterFree>;

struct SampleUnref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
using SamplePtr = std::unique_ptr<GstSample, SampleUnref>;

struct BufferUnref {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
};
using BufferPtr = std::unique_ptr<GstBuffer, BufferUnref>;

struct ObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
using ClockPtr = std::unique_ptr<GstClock, ObjectUnref>;

struct ClockIdUnref {
    void operator()(GstClockID id) const { gst_clock_id_unref(id); }
};
using ClockIdPtr = std::unique_ptr<void, ClockIdUnref>;

// A mapped video frame, unmapped when the handle goes out of scope.
class MappedFrame
{
public:
    MappedFrame(const GstVideoInfo* info, GstBuffer* buffer, GstMapFlags flags)
        : _Mapped(gst_video_frame_map(&_Frame, info, buffer, flags) != FALSE)
    {
    }
    ~MappedFrame()
    {
        if (_Mapped)
            gst_video_frame_unmap(&_Frame);
    }
    MappedFrame(const MappedFrame&) = delete;
    MappedFrame& operator=(const MappedFrame&) = delete;

    bool Ok() const { return _Mapped; }
    GstVideoFrame* Get() { return &_Frame; }

private:
    GstVideoFrame _Frame {};
    bool _Mapped;
};

} // namespace ImxStandIn
