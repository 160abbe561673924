// OverlayPipeline: names per instance, the SVG queue of two, the render thread and real drawing.
#include "pipelines/overlay_pipeline.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "interpipe_frames.h"
#include "log_capture.h"
#include "pipeline_harness.h"
#include "support/death_test_style.h"

using VideoDaemon::OverlayPipeline;
using VideoDaemon::Log::kError;
using VideoDaemon::Log::kWarning;

namespace
{

constexpr int kWidth = 64;
constexpr int kHeight = 48;

std::string FilledSvg(const char* colour)
{
    return std::string("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"10\" height=\"10\">"
                       "<rect x=\"0\" y=\"0\" width=\"10\" height=\"10\" fill=\"")
        + colour + "\"/></svg>";
}

// Holds the render thread inside its first "data" update until opened, and
// records every document the element receives.
struct RenderGate {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = false;
    std::vector<std::string> documents;

    static void OnData(GObject* element, GParamSpec*, gpointer user_data)
    {
        auto* gate = static_cast<RenderGate*>(user_data);
        g_autofree gchar* data = nullptr;
        g_object_get(element, "data", &data, nullptr);
        std::unique_lock<std::mutex> lock(gate->mutex);
        gate->documents.emplace_back(data ? data : "");
        gate->changed.notify_all();
        gate->changed.wait(lock, [gate] { return gate->open; });
    }
    template <typename Predicate> bool WaitUntil(Predicate predicate)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(5), [&] { return predicate(documents); });
    }
    void Open()
    {
        std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
};

struct GateOpener {
    RenderGate& gate;
    ~GateOpener() { gate.Open(); }
};

class OverlayPipelineTest : public ::testing::Test
{
protected:
    LogCapture log;
};

} // namespace

TEST_F(OverlayPipelineTest, KeepsAtMostTwoDocumentsAndDropsTheOldestAndLogsAMissingPipelineOnTheRenderThread)
{
    RenderGate gate;
    OverlayPipeline overlay("display");
    GateOpener opener { gate };
    ASSERT_TRUE(overlay.Launch(false, false, false));
    g_autoptr(GstElement) element = gst_bin_get_by_name(GST_BIN(overlay.GetPipeline()), "svg_overlay");
    g_signal_connect(element, "notify::data", G_CALLBACK(&RenderGate::OnData), &gate);

    std::string busy = FilledSvg("#000000");
    overlay.UpdateSvgData(busy);
    ASSERT_TRUE(gate.WaitUntil([](const auto& documents) { return documents.size() == 1; }))
        << "the render thread took the first document";

    std::string queued[] = { FilledSvg("#ff0000"), FilledSvg("#00ff00"), FilledSvg("#0000ff") };
    overlay.UpdateSvgData(queued[0]);
    overlay.UpdateSvgData(queued[1]);
    EXPECT_TRUE(log.Lines().empty());
    overlay.UpdateSvgData(queued[2]);
    EXPECT_EQ(log.Count(kWarning,
                  "void VideoDaemon::OverlayPipeline::UpdateSvgData(std::__cxx11::string&): "
                  "Reached maximum SVG buffers, drop svg"),
        1u);

    gate.Open();
    ASSERT_TRUE(gate.WaitUntil([](const auto& documents) { return documents.size() == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    {
        std::lock_guard<std::mutex> lock(gate.mutex);
        EXPECT_EQ(gate.documents,
            (std::vector<std::string> { FilledSvg("#000000"), FilledSvg("#00ff00"), FilledSvg("#0000ff") }));
    }

    // Without a pipeline the render thread logs the failed lookup.
    PipelineHarness::WithDescription<OverlayPipeline> broken("no_such_element_anywhere", "display");
    EXPECT_FALSE(broken.Launch(false, false, false));
    std::string svg = FilledSvg("#ff0000");
    broken.UpdateSvgData(svg);
    EXPECT_TRUE(PipelineHarness::RunMainLoopUntil([&] {
        return log.Contains(kError,
            "static void VideoDaemon::OverlayPipeline::RenderTask(VideoDaemon::OverlayPipeline*): "
            "pipeline == NULL (svg_overlay)");
    }));
}

TEST_F(OverlayPipelineTest, ASecondLaunchTerminatesTheProcess)
{
    GstTest::UseFreshProcessDeathTests();
    EXPECT_DEATH(
        {
            PipelineHarness::WithDescription<OverlayPipeline> overlay("fakesrc ! fakesink", "display");
            overlay.Launch(false, false, false);
            overlay.Launch(false, false, false);
        },
        "terminate called without an active exception");
}

TEST_F(OverlayPipelineTest, TwoInstancesWithDisjointNamesDrawTheirOwnDocuments)
{
    FrameProducer input("overlay_test_input", kWidth, kHeight);
    OverlayPipeline display("display");
    OverlayPipeline recording("recording");
    EXPECT_FALSE(display.EnableOverlay(false));
    EXPECT_TRUE(log.Contains(
        kError, "bool VideoDaemon::OverlayPipeline::EnableOverlay(bool): pipeline == NULL (svg_overlay)"));
    // The instance's name goes into its interpipe ends, its queue and its probe.
    EXPECT_EQ(display.GetSourceName(), "svg_overlay_source_display");
    EXPECT_EQ(display.GetSinkName(), "svg_overlay_sink_first_display");
    EXPECT_EQ(recording.GetSourceName(), "svg_overlay_source_recording");
    EXPECT_EQ(recording.GetSinkName(), "svg_overlay_sink_first_recording");
    FrameConsumer display_output(display.GetSinkName());
    FrameConsumer recording_output(recording.GetSinkName());
    for (OverlayPipeline* overlay : { &display, &recording }) {
        ASSERT_TRUE(overlay->Launch(false, false, false));
        EXPECT_EQ(overlay->AttachProbes(), 0);
        g_autoptr(GstElement) source
            = gst_bin_get_by_name(GST_BIN(overlay->GetPipeline()), overlay->GetSourceName().c_str());
        ASSERT_NE(source, nullptr);
        g_object_set(source, "listen-to", "overlay_test_input", nullptr);
        ASSERT_EQ(overlay->SetState(GST_STATE_PLAYING), 0);
    }
    EXPECT_EQ(display.GetProbeRates().count("overlay_display"), 1u);
    EXPECT_EQ(recording.GetProbeRates().count("overlay_recording"), 1u);
    g_autoptr(GstElement) queue
        = gst_bin_get_by_name(GST_BIN(recording.GetPipeline()), "recording_overlay_queue");
    EXPECT_NE(queue, nullptr);
    std::string red = FilledSvg("#ff0000");
    std::string blue = FilledSvg("#0000ff");
    display.UpdateSvgData(red);
    recording.UpdateSvgData(blue);

    const std::vector<uint8_t> picture = QuadrantFrame(kWidth, kHeight);
    // Waits for a frame whose four corners all have the overlay's colour.
    auto covered_in = [&](FrameConsumer& output, int r, int g, int b) {
        return WaitForFrame(input, output, picture, [&](const std::vector<uint8_t>& f) {
            const std::pair<int, int> corners[]
                = { { 1, 1 }, { kWidth - 2, 1 }, { 1, kHeight - 2 }, { kWidth - 2, kHeight - 2 } };
            for (const auto& [x, y] : corners) {
                const Rgba p = PixelAt(f, kWidth, x, y);
                if (std::abs(p.r - r) > 10 || std::abs(p.g - g) > 10 || std::abs(p.b - b) > 10)
                    return false;
            }
            return true;
        });
    };
    EXPECT_TRUE(covered_in(display_output, 255, 0, 0)) << "the display overlay covers the frame in red";
    EXPECT_TRUE(covered_in(recording_output, 0, 0, 255)) << "the recording overlay covers it in blue";

    // Switching an overlay off and on again is checked on frames by the overlay model's tests.
    EXPECT_TRUE(display.EnableOverlay(false));
    display.SetState(GST_STATE_NULL);
    recording.SetState(GST_STATE_NULL);
}
