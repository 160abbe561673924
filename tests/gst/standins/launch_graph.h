// Runs the daemon's launch descriptions, taken from its pipeline classes, on
// the stand-in elements and counts the buffers each stage passes.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/input_mux_pipeline.h"
#include "pipelines/jpeg_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "pipelines/mjpeg_encode_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/overlay_pipeline.h"
#include "pipelines/pal_camera_input_pipeline.h"
#include "pipelines/playback_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "pipelines/snapvoice_pipeline.h"
#include "pipelines/tcp_client_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"
#include "pipelines/test_input_pipeline.h"

namespace LaunchGraph
{

using namespace GstTest;
using namespace VideoDaemon;

// A description exactly as the daemon's pipeline class writes it.
template <typename Daemon, typename... Args> std::string DescriptionOf(Args&&... args)
{
    gst_init(nullptr, nullptr);
    Daemon pipeline(std::forward<Args>(args)...);
    return pipeline.GetDescription();
}

class LaunchDescriptions : public ::testing::Test
{
protected:
    // Counts the buffers entering a child's sink pad; `most` caps what a wait asks of this pad.
    void Count(const TestPipeline& pipeline, const char* child, unsigned most = UINT_MAX)
    {
        GstPtr<GstElement> element = pipeline.Element(child);
        ASSERT_TRUE(element) << "no element " << child;
        _Counters.push_back({ &pipeline, child, std::make_unique<BufferCount>(element.get(), "sink"), most });
    }

    template <typename T>
    void Set(const TestPipeline& pipeline, const char* child, const char* property, T value)
    {
        GstPtr<GstElement> element = pipeline.Element(child);
        ASSERT_TRUE(element) << "no element " << child;
        g_object_set(element.get(), property, value, nullptr);
    }

    unsigned Counted(const char* child) const
    {
        for (const Counter& counter : _Counters)
            if (counter.child == child)
                return counter.count->Value();
        return 0;
    }

    // Runs until every counter of the pipelines has seen `minimum` buffers, a bus error appears, or the
    // time runs out.
    void RunUntilCounted(const std::vector<const TestPipeline*>& graph, unsigned minimum, int seconds)
    {
        std::string report;
        const gint64 deadline = g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND;
        while (g_get_monotonic_time() < deadline) {
            bool done = true;
            report.clear();
            for (const Counter& counter : _Counters) {
                if (std::find(graph.begin(), graph.end(), counter.pipeline) == graph.end())
                    continue;
                report += counter.child + "=" + std::to_string(counter.count->Value()) + " ";
                done = done && counter.count->Value() >= std::min(minimum, counter.most);
            }
            for (const TestPipeline* pipeline : graph) {
                GstMessagePtr error = pipeline->WaitFor(GST_MESSAGE_ERROR, 0);
                ASSERT_FALSE(error) << ErrorText(error.get()) << "; counted: " << report;
            }
            if (done)
                return;
            g_usleep(50000);
        }
        FAIL() << "not every stage passed " << minimum << " buffers: " << report;
    }

    struct Counter {
        const TestPipeline* pipeline;
        std::string child;
        std::unique_ptr<BufferCount> count;
        unsigned most;
    };
    std::vector<Counter> _Counters;
    TempDir _Dir;
};

} // namespace LaunchGraph
