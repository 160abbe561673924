// The streamer's debug metrics: frame rates of the probed pipelines every second and the queue
// notifications, as signals, only when the development flags ask for them.
#include <map>
#include <set>

#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

// A streamer with the flags given and its metrics signals recorded.
class OrbStreamerMetrics : public StreamerFixture
{
public:
    OrbStreamerMetrics(bool fps_probes, bool queue_signals)
        : StreamerFixture(OrbStreamer::DebugMetrics { fps_probes, queue_signals })
    {
        streamer.signal_metrics_probe_fps.connect([this](std::string name, int32_t fps) {
            if (fps > 0)
                running_rates[name] = fps;
            reported.insert(name);
            ++reports[name];
        });
        streamer.signal_metrics_underrun.connect([this](std::string queue) { underruns.insert(queue); });
        streamer.signal_metrics_running.connect([this](std::string queue) { runnings.insert(queue); });
        streamer.signal_metrics_overrun.connect([this](std::string queue) { overruns.insert(queue); });
    }

    std::map<std::string, int32_t> running_rates;
    std::set<std::string> reported;
    std::map<std::string, int> reports;
    std::set<std::string> underruns, runnings, overruns;
};

TEST(OrbStreamerMetrics, FpsProbesReportTheFrameRateOfEveryProbedPipeline)
{
    OrbStreamerMetrics metrics(true, false);
    EXPECT_TRUE(metrics.log.Contains(
        LOG_WARNING, "Activating FPS probes [This should be active only in DEBUG system]"));
    ASSERT_TRUE(metrics.StartLivePicture());

    std::vector<std::string> activated;
    for (int index = 0; index < static_cast<int>(PipelineGraph::kPipelineCount); ++index)
        if (index != kNtscCameraIndex && index != kPalCameraIndex && index != kInputMuxIndex)
            activated.push_back("Activate FPS probe for " + metrics.At(index).GetName() + " pipeline");
    EXPECT_EQ(activated, LinesStartingWith(metrics.log, LOG_INFO, "Activate FPS probe for "));

    // The GPU, both overlays and the display carry the picture.
    ASSERT_TRUE(RunMainLoopUntil(
        [&] {
            return metrics.running_rates.count("GpuPipeline")
                && metrics.running_rates.count("OverlayPipeline")
                && metrics.running_rates.count("DisplayPipeline");
        },
        10000));
    // Reported by pipeline name, only for pipelines that hold a probe: the
    // MJPEG encoder's, idle here, reports 0.
    EXPECT_EQ((std::set<std::string> {
                  "GpuPipeline", "OverlayPipeline", "DisplayPipeline", "MjpegEncodePipeline" }),
        metrics.reported);
    EXPECT_EQ(0u, metrics.running_rates.count("MjpegEncodePipeline"));
    // The timer repeats: one figure per probe on every tick.
    ASSERT_TRUE(RunMainLoopUntil([&] { return metrics.reports["GpuPipeline"] >= 2; }, 5000));
    EXPECT_EQ(2 * metrics.reports["GpuPipeline"], metrics.reports["OverlayPipeline"]);
}

TEST(OrbStreamerMetrics, QueueNotificationsArePassedOnWhenAskedFor)
{
    OrbStreamerMetrics metrics(false, true);
    EXPECT_TRUE(metrics.log.Contains(
        LOG_WARNING, "Enabling Queue status signals [This should be active only in DEBUG system]"));
    ASSERT_TRUE(metrics.StartLivePicture());
    // A queue that passes frames one by one runs dry between them.
    ASSERT_TRUE(
        RunMainLoopUntil([&] { return !metrics.underruns.empty() && !metrics.runnings.empty(); }, 10000));
    // Every started pipeline's queues may run dry (the live ones and the
    // H.264 encoder behind its closed valve); each is reported by its name.
    for (const std::string& queue : metrics.underruns)
        EXPECT_NE(std::string::npos, queue.find("queue")) << queue;
    EXPECT_TRUE(metrics.reported.empty());
}

TEST(OrbStreamerMetrics, WithoutTheFlagsNothingIsReported)
{
    OrbStreamerMetrics metrics(false, false);
    ASSERT_TRUE(metrics.StartLivePicture());
    // Long enough for a report and for queues to change: 1.5 s of picture.
    RunMainLoopFor(1500);
    EXPECT_TRUE(metrics.reported.empty());
    EXPECT_TRUE(metrics.underruns.empty() && metrics.runnings.empty() && metrics.overruns.empty());
    EXPECT_FALSE(metrics.log.ContainsText("Activate FPS probe"));
}

} // namespace
