// Counts the buffers that cross one pad of a launched pipeline, and the loudest 16-bit sample among them.
#pragma once

#include <gst/gst.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "pipeline_harness.h"

namespace PipelineHarness
{

class PadWatch
{
public:
    PadWatch(VideoDaemon::Pipeline& pipeline, const std::string& element, const char* pad_name)
    {
        VideoDaemon::GstPtr<GstElement> owner = ElementOf(pipeline, element);
        if (owner)
            pad_.reset(gst_element_get_static_pad(owner.get(), pad_name));
        if (pad_)
            probe_ = gst_pad_add_probe(
                pad_.get(), GST_PAD_PROBE_TYPE_BUFFER, &PadWatch::OnBuffer, this, nullptr);
    }
    ~PadWatch()
    {
        if (pad_ && probe_)
            gst_pad_remove_probe(pad_.get(), probe_);
    }
    PadWatch(const PadWatch&) = delete;
    PadWatch& operator=(const PadWatch&) = delete;

    bool Attached() const { return probe_ != 0; }
    int Buffers() const { return buffers_; }
    // Loudest sample seen since the last Reset, reading the data as signed 16-bit.
    int Peak() const { return peak_; }
    void Reset()
    {
        buffers_ = 0;
        peak_ = 0;
    }

private:
    static GstPadProbeReturn OnBuffer(GstPad*, GstPadProbeInfo* info, gpointer data)
    {
        auto* self = static_cast<PadWatch*>(data);
        GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        GstMapInfo map;
        if (buffer && gst_buffer_map(buffer, &map, GST_MAP_READ)) {
            int peak = 0;
            for (size_t i = 0; i + 1 < map.size; i += 2) {
                int16_t sample = static_cast<int16_t>(map.data[i] | (map.data[i + 1] << 8));
                peak = std::max(peak, std::abs(static_cast<int>(sample)));
            }
            gst_buffer_unmap(buffer, &map);
            int seen = self->peak_;
            while (peak > seen && !self->peak_.compare_exchange_weak(seen, peak)) { }
        }
        ++self->buffers_;
        return GST_PAD_PROBE_OK;
    }

    VideoDaemon::GstPtr<GstPad> pad_;
    gulong probe_ = 0;
    std::atomic<int> buffers_ { 0 };
    std::atomic<int> peak_ { 0 };
};

} // namespace PipelineHarness
