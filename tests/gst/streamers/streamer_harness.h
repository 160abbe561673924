// Drives an OrbStreamer on the host stand-ins and records what it reports upward.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "streamers/orb_streamer.h"
#include "support/main_loop_wait.h"

namespace StreamerHarness
{

using TestSupport::RunMainLoopFor;
using TestSupport::RunMainLoopUntil;
using namespace VideoDaemon;

// One property announcement: the names and whether it waits for the next
// turn of the loop.
using Announcement = std::pair<std::vector<std::string>, bool>;

// The lines of one priority that begin with `prefix`, in the order written.
inline std::vector<std::string> LinesStartingWith(
    const LogCapture& log, int priority, const std::string& prefix)
{
    std::vector<std::string> lines;
    for (const auto& [line_priority, line] : log.Lines())
        if (line_priority == priority && line.compare(0, prefix.size(), prefix) == 0)
            lines.push_back(line);
    return lines;
}

// What interpipesrc `element` of a launched pipeline listens to ("" for nothing).
inline std::string ListeningTo(Pipeline& pipeline, const std::string& element)
{
    std::string node;
    EXPECT_TRUE(pipeline.GetElementProperty(VIDEOD_FUNCTION, element, "listen-to", node)) << element;
    return node;
}

// A streamer with the log captured and its announcements recorded; the
// metrics flags, the decoder's standard file and the settings client as
// given.
class StreamerFixture
{
public:
    explicit StreamerFixture(OrbStreamer::DebugMetrics metrics = OrbStreamer::DebugMetrics(),
        std::string camera_standard_path = OrbStreamer::kCameraStandardPath,
        std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> settings = nullptr)
        : streamer(metrics, std::move(camera_standard_path), std::move(settings))
    {
        streamer.signal_properties_changed.connect([this](std::vector<std::string> names, bool deferred) {
            announced.emplace_back(names, deferred);
        });
    }

    Pipeline& At(int index) { return *streamer.GetPipeline(index); }
    int State(const std::string& name) { return streamer.State().Get(name); }

    // Launches the pipelines and runs the live picture: the test input
    // through the GPU to the display.
    ::testing::AssertionResult StartLivePicture()
    {
        streamer.InitializePipelines();
        streamer.ListenToInput(0);
        if (At(kTestInputIndex).SetState(GST_STATE_PLAYING) != 0)
            return ::testing::AssertionFailure() << "the test input does not start";
        streamer.StartVideoPipelines();
        return AllPlaying({ kGpuIndex, kDisplayIndex });
    }

    // Waits (bounded) until every pipeline of `indexes` is PLAYING; names
    // those that are not.
    ::testing::AssertionResult AllPlaying(std::initializer_list<int> indexes)
    {
        auto lagging = [&] {
            std::string names;
            for (int index : indexes)
                if (At(index).GetState() != GST_STATE_PLAYING)
                    names += " " + std::to_string(index) + ":"
                        + gst_element_state_get_name(At(index).GetState());
            return names;
        };
        if (RunMainLoopUntil([&] { return lagging().empty(); }, 10000))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "not PLAYING:" << lagging();
    }

    LogCapture log;
    std::vector<Announcement> announced;
    OrbStreamer streamer;
};

} // namespace StreamerHarness
