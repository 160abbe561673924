// Counts the buffers passing a pad and gives the frames seen in the last second.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>

#include "pipelines/probe.h"

namespace VideoDaemon
{

class FramerateProbe : public Probe
{
public:
    FramerateProbe() = default;

    // Counts buffers (and buffer lists) on the given pad from now on.
    int Attach(const Pipeline& pipeline, const std::string& element_name, const std::string& pad_name);

    // Buffers that passed the pad during the last second; 0 once the flow stops.
    unsigned GetFramesPerSecond();

    // Counts one buffer at `now_us` (monotonic microseconds).
    void Count(int64_t now_us, unsigned buffers = 1);
    unsigned GetFramesPerSecond(int64_t now_us);

private:
    static GstPadProbeReturn OnBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer user_data);
    void Prune(int64_t now_us);

    // Written on the streaming thread, read on the main loop.
    std::mutex mutex_;
    std::deque<int64_t> stamps_;
};

} // namespace VideoDaemon
