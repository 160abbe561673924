// Helpers shared by the pipeline tests: GStreamer start-up, main-loop turns, probe pipelines.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "described_pipeline.h"
#include "log.h"
#include "pipelines/pipeline.h"
#include "support/gst_test_pipeline.h"
#include "support/main_loop_wait.h"

namespace PipelineHarness
{

class GstEnvironment : public ::testing::Environment
{
public:
    void SetUp() override { gst_init(nullptr, nullptr); }
};

// Registered once per test executable.
inline ::testing::Environment* const gst_environment
    = ::testing::AddGlobalTestEnvironment(new GstEnvironment);

using TestSupport::RunMainLoopFor;
using TestSupport::RunMainLoopUntil;

// An element of a launched pipeline, looked up by name (owned reference).
inline VideoDaemon::GstPtr<GstElement> ElementOf(VideoDaemon::Pipeline& pipeline, const std::string& name)
{
    if (!pipeline.GetPipeline())
        return nullptr;
    return VideoDaemon::GstPtr<GstElement>(
        gst_bin_get_by_name(GST_BIN(pipeline.GetPipeline()), name.c_str()));
}

// A property of a named element of a launched pipeline; strings and caps come owned.
template <typename T>
T PropertyOf(VideoDaemon::Pipeline& pipeline, const std::string& element, const char* property)
{
    T value {};
    g_object_get(ElementOf(pipeline, element).get(), property, &value, nullptr);
    return value;
}

// A pipeline class with its description replaced, to reach the paths where elements are missing.
template <typename Base> class WithDescription : public Base
{
public:
    template <typename... Args>
    explicit WithDescription(std::string text, Args&&... args)
        : Base(std::forward<Args>(args)...)
        , text_(std::move(text))
    {
    }
    std::string GetDescription() override { return text_; }

private:
    std::string text_;
};

// A consumer that listens to one interpipesink and hands its buffers to an
// appsink named "out", so a test can look at what a producer publishes.
class Consumer : public DescribedPipeline
{
public:
    explicit Consumer(const std::string& source_name, const std::string& extra = "")
        : DescribedPipeline("interpipesrc name=" + source_name + " is-live=true " + extra
                + " ! appsink name=out sync=false max-buffers=4 drop=true emit-signals=false",
            "", source_name)
    {
    }

    // The next sample within `timeout_ms`, or null.
    GstSample* Pull(int timeout_ms = 3000)
    {
        VideoDaemon::GstPtr<GstElement> sink = ElementOf(*this, "out");
        if (!sink)
            return nullptr;
        return gst_app_sink_try_pull_sample(
            GST_APP_SINK(sink.get()), static_cast<GstClockTime>(timeout_ms) * GST_MSECOND);
    }
};

using VideoDaemon::GstSamplePtr;

// Width, height and format of a sample's video caps.
struct VideoFormat {
    int width = 0;
    int height = 0;
    std::string format;
};

inline VideoFormat FormatOf(GstSample* sample)
{
    VideoFormat result;
    GstCaps* caps = sample ? gst_sample_get_caps(sample) : nullptr;
    if (!caps || gst_caps_get_size(caps) == 0)
        return result;
    const GstStructure* s = gst_caps_get_structure(caps, 0);
    gst_structure_get_int(s, "width", &result.width);
    gst_structure_get_int(s, "height", &result.height);
    if (const char* format = gst_structure_get_string(s, "format"))
        result.format = format;
    return result;
}

// Mirrors the daemon's log on standard error, so a death test can match the
// lines written before the process ends.
inline void LogToStderr()
{
    VideoDaemon::Log::SetHook(
        [](int priority, const std::string& line) { fprintf(stderr, "<%d>%s\n", priority, line.c_str()); });
}

// Mean of the first three bytes of every pixel of an RGBA sample.
inline double MeanColour(GstSample* sample)
{
    GstBuffer* buffer = sample ? gst_sample_get_buffer(sample) : nullptr;
    GstMapInfo map;
    if (!buffer || !gst_buffer_map(buffer, &map, GST_MAP_READ))
        return -1;
    double sum = 0;
    size_t count = 0;
    for (size_t i = 0; i + 3 < map.size; i += 4) {
        sum += map.data[i] + map.data[i + 1] + map.data[i + 2];
        count += 3;
    }
    gst_buffer_unmap(buffer, &map);
    return count ? sum / static_cast<double>(count) : -1;
}

} // namespace PipelineHarness
