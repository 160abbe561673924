// Counts the buffers passing a pad and gives the frames seen in the last second.
#include "pipelines/framerate_probe.h"

namespace VideoDaemon
{

namespace
{
constexpr int64_t kWindowUs = G_USEC_PER_SEC;
}

int FramerateProbe::Attach(
    const Pipeline& pipeline, const std::string& element_name, const std::string& pad_name)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stamps_.clear();
    }
    auto type = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
    return Probe::Attach(pipeline, element_name, pad_name, type, &FramerateProbe::OnBuffer, this);
}

GstPadProbeReturn FramerateProbe::OnBuffer(GstPad*, GstPadProbeInfo* info, gpointer user_data)
{
    unsigned buffers = 1;
    if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER_LIST)
        buffers = gst_buffer_list_length(GST_PAD_PROBE_INFO_BUFFER_LIST(info));
    static_cast<FramerateProbe*>(user_data)->Count(g_get_monotonic_time(), buffers);
    return GST_PAD_PROBE_OK;
}

void FramerateProbe::Count(int64_t now_us, unsigned buffers)
{
    std::lock_guard<std::mutex> lock(mutex_);
    Prune(now_us);
    for (unsigned i = 0; i < buffers; ++i)
        stamps_.push_back(now_us);
}

unsigned FramerateProbe::GetFramesPerSecond()
{
    return GetFramesPerSecond(g_get_monotonic_time());
}

unsigned FramerateProbe::GetFramesPerSecond(int64_t now_us)
{
    std::lock_guard<std::mutex> lock(mutex_);
    Prune(now_us);
    return static_cast<unsigned>(stamps_.size());
}

void FramerateProbe::Prune(int64_t now_us)
{
    while (!stamps_.empty() && now_us - stamps_.front() >= kWindowUs)
        stamps_.pop_front();
}

} // namespace VideoDaemon
