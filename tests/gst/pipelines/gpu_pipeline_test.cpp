// GpuPipeline: range checks, log texts, the element asymmetries, the signal relays and real zoom.
#include "pipelines/gpu_pipeline.h"

#include <array>
#include <cstdlib>
#include <functional>
#include <thread>

#include "interpipe_frames.h"
#include "log_capture.h"
#include "pipeline_harness.h"

using PipelineHarness::PropertyOf;
using PipelineHarness::RunMainLoopFor;
using PipelineHarness::RunMainLoopUntil;
using VideoDaemon::GpuPipeline;
using VideoDaemon::Log::kError;
using VideoDaemon::Log::kInfo;
using VideoDaemon::Log::kWarning;

namespace
{

class GpuPipelineTest : public ::testing::Test
{
protected:
    void Launch() { ASSERT_TRUE(gpu.Launch(false, false, false)); }

    // A new reference to an element of the launched pipeline.
    GstElement* Element(const char* name) { return gst_bin_get_by_name(GST_BIN(gpu.GetPipeline()), name); }

    GpuPipeline gpu;
    LogCapture log;
};

} // namespace

// Before the launch every setter fails with the missing pipeline's message; a description without a
// pipeline or without the levelling element cannot launch; launched, the probe's pad exists.
TEST_F(GpuPipelineTest, ConnectsItsEndsAndWatchesItsQueuesAndOutputButNeedsAPipelineAndALevellingElement)
{
    EXPECT_EQ(gpu.GetSourceName(), "gpu_source");
    EXPECT_EQ(gpu.GetSinkName(), "gpu_sink");
    const auto& queues = gpu.GetQueueStates();
    EXPECT_EQ(queues.size(), 2u);
    EXPECT_EQ(queues.count("gpu_input_queue") + queues.count("gpu_output_queue"), 2u);

    EXPECT_EQ(gpu.SetZoom(2.0), -1);
    EXPECT_TRUE(
        log.Contains(kError, "int VideoDaemon::GpuPipeline::SetZoom(double): pipeline == NULL (gpu)"));
    gpu.SetRotationSteps(1);
    EXPECT_TRUE(log.Contains(
        kError, "void VideoDaemon::GpuPipeline::SetRotationSteps(uint32_t): pipeline == NULL (dsl)"));
    gpu.SetRollFilterCoeffs("1 2 1");
    EXPECT_TRUE(log.Contains(kError,
        "void VideoDaemon::GpuPipeline::SetRollFilterCoeffs(const string&): pipeline == NULL "
        "(motion_filter)"));
    EXPECT_EQ(gpu.GetZoom(), 0.0);
    EXPECT_TRUE(log.Contains(kError, "double VideoDaemon::GpuPipeline::GetZoom(): pipeline == NULL (gpu)"));
    // The sharpening setters name the levelling element in their second line even though they write to the
    // tiling element.
    log.Clear();
    EXPECT_EQ(gpu.SetImageSharpen(true), -1);
    const std::vector<std::pair<int, std::string>> expected {
        { kInfo, "[GPU pipeline] Set 'Sharpen': [Enabled]" },
        { kError, "int VideoDaemon::GpuPipeline::SetImageSharpen(bool): pipeline == NULL (gpu)" },
        { kError, "[GPU pipeline] Somehow DSL plugin is NULL" },
    };
    EXPECT_EQ(log.Lines(), expected);
    EXPECT_EQ(gpu.SetPlumblineEnabled(false), -1);
    EXPECT_TRUE(log.Contains(kInfo, "[GPU pipeline] Set 'Plumbline': [Disabled]"));
    EXPECT_EQ(gpu.SetImageSharpenAmount(0.5), -1);
    EXPECT_EQ(gpu.SetDslAutoZoomOverride(true), -1);
    EXPECT_EQ(log.Count(kError, "[GPU pipeline] Somehow DSL plugin is NULL"), 4u);
    EXPECT_FALSE(gpu.EnablePlumblineSignals(true));
    EXPECT_FALSE(gpu.SetDslAnimationDuration(100));
    EXPECT_FALSE(gpu.SetDslBackgroundMode(1));
    EXPECT_FALSE(gpu.SetMaxTiltAngle(30));
    EXPECT_EQ(gpu.SetPanX(0.1), -1);
    EXPECT_EQ(gpu.SetDslHysteresis(3), -1);
    EXPECT_FALSE(gpu.GetRotationEnabled());

    PipelineHarness::WithDescription<GpuPipeline> broken("no_such_element_anywhere");
    EXPECT_FALSE(broken.Launch(false, false, false));
    EXPECT_TRUE(
        log.Contains(kError, "virtual bool VideoDaemon::GpuPipeline::Launch(bool, bool, bool): !pipeline"));
    PipelineHarness::WithDescription<GpuPipeline> without_dsl(
        "videotestsrc ! tarnwell-tiling name=gpu ! fakesink");
    EXPECT_FALSE(without_dsl.Launch(false, false, false));
    EXPECT_TRUE(log.Contains(
        kError, "virtual bool VideoDaemon::GpuPipeline::Launch(bool, bool, bool): element == NULL (dsl)"));
    EXPECT_EQ(
        log.Lines().back(), std::make_pair(int(kError), std::string("[GPU Pipeline]: DSL plugin is NULL")));

    Launch();
    EXPECT_EQ(gpu.AttachProbes(), 0) << "the probe's pad exists";
    EXPECT_EQ(gpu.GetProbeRates().count("gpu"), 1u);
}

// Each setter reaches its element within its range; sharpening is written to the tiling element but read
// from the levelling one; every launch applies the default zoom.
TEST_F(GpuPipelineTest, SettersReachTheirElementsWithinTheirRanges)
{
    gpu.SetZoomLevels({ 2.0f, 1.0f, 4.0f });
    Launch();
    EXPECT_DOUBLE_EQ(gpu.GetZoom(), 2.0);
    ASSERT_EQ(gpu.SetZoom(3.0), 0);
    Launch();
    EXPECT_DOUBLE_EQ(gpu.GetZoom(), 2.0) << "a relaunch applies the default zoom";

    // The levelling zoom accepts down to 0.95 though its message names .99.
    const struct {
        int (GpuPipeline::*set)(double);
        double value;
        const char* warning;
    } zooms[] = {
        { &GpuPipeline::SetZoom, 1.0, nullptr },
        { &GpuPipeline::SetZoom, 0.99, "Zoom value of 0.990000 is out of range (1.000000 - 4.000000)" },
        { &GpuPipeline::SetZoom, 4.01, "Zoom value of 4.010000 is out of range (1.000000 - 4.000000)" },
        { &GpuPipeline::SetZoom, 4.0, nullptr },
        { &GpuPipeline::SetDslMaxZoomIn, 0.96, nullptr },
        { &GpuPipeline::SetDslMaxZoomIn, 0.94, "Zoom value of 0.940000 is out of range (.99 - 1.75)" },
        { &GpuPipeline::SetDslMaxZoomIn, 1.76, "Zoom value of 1.760000 is out of range (.99 - 1.75)" },
        { &GpuPipeline::SetDslMaxZoomIn, 1.75, nullptr },
    };
    for (const auto& row : zooms) {
        log.Clear();
        EXPECT_EQ((gpu.*row.set)(row.value), row.warning ? -1 : 0) << row.value;
        EXPECT_TRUE(!row.warning || log.Contains(kWarning, row.warning)) << row.value;
        if (row.set == &GpuPipeline::SetDslMaxZoomIn && !row.warning) {
            EXPECT_DOUBLE_EQ(PropertyOf<double>(gpu, "gpu", "max-dsl-zoom-in"), row.value);
            // Read back through the limit in effect, not the written property.
            EXPECT_DOUBLE_EQ(gpu.GetDslMaxZoomIn(), row.value);
        }
    }
    EXPECT_DOUBLE_EQ(gpu.GetZoom(), 4.0);
    EXPECT_DOUBLE_EQ(gpu.GetDslMaxZoomIn(), 1.75);
    EXPECT_DOUBLE_EQ(gpu.GetZoomMin(), 1.0);
    EXPECT_DOUBLE_EQ(gpu.GetZoomMax(), 4.0);

    // Zoom levels need exactly three values.
    log.Clear();
    gpu.SetZoomLevels({ 1.5f, 1.0f });
    gpu.SetZoomLevels({ 1.5f, 1.0f, 4.0f, 5.0f });
    EXPECT_DOUBLE_EQ(gpu.GetZoom(), 4.0);
    EXPECT_DOUBLE_EQ(gpu.GetZoomMax(), 4.0);
    EXPECT_TRUE(log.Lines().empty());
    gpu.SetZoomLevels({ 1.5f, 1.25f, 8.0f });
    EXPECT_DOUBLE_EQ(gpu.GetZoom(), 1.5);
    EXPECT_DOUBLE_EQ(gpu.GetZoomMin(), 1.25);
    EXPECT_DOUBLE_EQ(gpu.GetZoomMax(), 8.0);
    EXPECT_EQ(gpu.SetZoom(6.0), 0);
    EXPECT_EQ(gpu.SetZoom(1.0), -1);

    // Rotation settings beyond their limits change nothing.
    log.Clear();
    for (guint over : { 0u, 1u }) {
        gpu.SetRotationSteps(2 + over);
        gpu.SetRotationThreshold(30 + over);
        gpu.SetRotationNumFrames(240 + over);
        EXPECT_EQ(gpu.GetRotationSteps(), 2u);
        EXPECT_EQ(PropertyOf<guint>(gpu, "dsl", "rotation-threshold"), 30u);
        EXPECT_EQ(PropertyOf<guint>(gpu, "dsl", "rotation-frames-trigger"), 240u);
    }
    const std::vector<std::pair<int, std::string>> warnings {
        { kWarning, "Invalid rotations steps mode:3" },
        { kWarning, "Rotation is limited to 30 degrees, attempted to set:31" },
        { kWarning, "Rotation num frames has max value 240, attempted to set:241" },
    };
    EXPECT_EQ(log.Lines(), warnings);

    gpu.SetRotationEnabled(true);
    EXPECT_TRUE(gpu.GetRotationEnabled());
    gpu.SetRotationOverrideAngle(-90);
    EXPECT_EQ(gpu.GetRotationOverrideAngle(), -90);
    gpu.SetRollFilterCoeffs("1 2 1");
    gpu.SetRollFilterCoeffs("");
    EXPECT_TRUE(log.Contains(kWarning, "Roll filter coefficients string empty"));
    g_autofree gchar* coeffs = PropertyOf<gchar*>(gpu, "motion_filter", "roll-filter-coeffs");
    EXPECT_STREQ(coeffs, "1 2 1");
    // Every property here is a 32-bit integer or boolean.
    const struct {
        std::function<bool()> set;
        const char* element;
        const char* property;
        guint value;
    } rows[] = {
        { [this] { return gpu.SetDslZoomPeriod(700) == 0; }, "gpu", "dsl-zoom-period", 700 },
        { [this] { return gpu.SetDslZoomDelay(300) == 0; }, "gpu", "dsl-zoom-delay", 300 },
        { [this] { return gpu.SetDslHysteresis(5) == 0; }, "gpu", "dsl-hysteresis", 5 },
        { [this] { return gpu.SetPlumblineEnabled(true) == 0; }, "dsl", "plumbline-enabled", TRUE },
        { [this] { return gpu.SetDslAnimationDuration(250); }, "dsl", "animation-duration", 250 },
        { [this] { return gpu.SetDslBackgroundMode(1); }, "gpu", "background-mode", 1 },
        { [this] { return gpu.SetMaxTiltAngle(35); }, "dsl", "max-tilt-angle", 35 },
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(row.set()) << row.property;
        EXPECT_EQ(PropertyOf<guint>(gpu, row.element, row.property), row.value) << row.property;
    }
    EXPECT_TRUE(log.Contains(kInfo, "[GPU pipeline] Set 'Plumbline': [Enabled]"));

    EXPECT_EQ(gpu.SetImageSharpen(true), 0);
    EXPECT_EQ(gpu.SetImageSharpenAmount(2.5), 0);
    EXPECT_EQ(gpu.SetDslAutoZoomOverride(true), 0);
    EXPECT_TRUE(log.Contains(kInfo, "[GPU pipeline] Set 'Sharpen': [Enabled]"));
    EXPECT_TRUE(log.Contains(kInfo, "[GPU pipeline] Set 'Sharpen Amount': [2.500000]"));
    EXPECT_TRUE(log.Contains(kInfo, "[GPU pipeline] Set 'DSL Auto Zoom Override': [true]"));
    EXPECT_TRUE(PropertyOf<gboolean>(gpu, "gpu", "sharpen"));
    EXPECT_DOUBLE_EQ(PropertyOf<double>(gpu, "gpu", "sharpen-amount"), 2.5);
    EXPECT_TRUE(PropertyOf<gboolean>(gpu, "gpu", "dsl-auto-zoom-override"));
    EXPECT_DOUBLE_EQ(gpu.GetImageSharpen(), 0.0);
    EXPECT_DOUBLE_EQ(gpu.GetImageSharpenAmount(), PropertyOf<double>(gpu, "dsl", "sharpen-amount"));
    EXPECT_FALSE(gpu.GetDslAutoZoomOverride());
    g_autoptr(GstElement) dsl = Element("dsl");
    g_object_set(dsl, "sharpen", 1.0, "sharpen-amount", 4.0, "dsl-auto-zoom-override", TRUE, nullptr);
    EXPECT_DOUBLE_EQ(gpu.GetImageSharpen(), 1.0);
    EXPECT_DOUBLE_EQ(gpu.GetImageSharpenAmount(), 4.0);
    EXPECT_TRUE(gpu.GetDslAutoZoomOverride());
}

TEST_F(GpuPipelineTest, LevellingSignalsAreRelayedOnTheMainLoopAndThePlumblineIsNeverDisconnected)
{
    const std::thread::id main_thread = std::this_thread::get_id();
    std::vector<double> rolls;
    gpu.signal_camera_roll.connect([&](double roll) {
        EXPECT_EQ(std::this_thread::get_id(), main_thread);
        rolls.push_back(roll);
    });
    std::vector<std::array<double, 5>> data;
    gpu.signal_plumbline_data.connect([&](double a, double b, double c, double d, double e) {
        EXPECT_EQ(std::this_thread::get_id(), main_thread);
        data.push_back({ a, b, c, d, e });
    });
    Launch();
    Launch(); // a relaunch connects the new element once
    g_autoptr(GstElement) dsl = Element("dsl");
    // The element signals on its streaming thread.
    auto emit_from_stream = [&](const char* signal, auto... values) {
        std::thread([&] { g_signal_emit_by_name(dsl, signal, values...); }).join();
    };
    emit_from_stream("simulate-camera-angles", 17.5, -4.0);
    EXPECT_TRUE(rolls.empty());
    EXPECT_TRUE(RunMainLoopUntil([&] { return !rolls.empty(); }));
    RunMainLoopFor(50);
    EXPECT_EQ(rolls, std::vector<double> { 17.5 });
    EXPECT_DOUBLE_EQ(gpu.GetCameraRoll(), 17.5);
    EXPECT_DOUBLE_EQ(gpu.GetCameraTilt(), -4.0);
    EXPECT_DOUBLE_EQ(gpu.GetDisplayRoll(), 0.0);
    gpu.SetRotationEnabled(true);
    EXPECT_DOUBLE_EQ(gpu.GetDisplayRoll(), 17.5);

    // Every enable connects the relay once more, and a disable does not undo it.
    const struct {
        int enable; // -1: leave as it is
        size_t reports;
    } rows[] = { { -1, 0 }, { 1, 1 }, { 0, 2 }, { 1, 4 } };
    for (const auto& row : rows) {
        EXPECT_TRUE(row.enable < 0 || gpu.EnablePlumblineSignals(row.enable == 1));
        emit_from_stream("simulate-plumbline-data", 1.0, 2.0, 3.0, 4.0, 5.0);
        RunMainLoopUntil([&] { return data.size() >= row.reports; });
        RunMainLoopFor(50);
        EXPECT_EQ(data.size(), row.reports) << "enable " << row.enable;
    }
    EXPECT_EQ(data.at(0), (std::array<double, 5> { 1.0, 2.0, 3.0, 4.0, 5.0 }));
}

TEST_F(GpuPipelineTest, ZoomAndPanCropTheLivePicture)
{
    constexpr int kWidth = 64;
    constexpr int kHeight = 48;
    FrameProducer input("gpu_test_input", kWidth, kHeight);
    FrameConsumer output("gpu_sink");
    Launch();
    g_autoptr(GstElement) source = Element("gpu_source");
    g_object_set(source, "listen-to", "gpu_test_input", nullptr);
    // Not live: it prerolls on the first frame pushed below.
    ASSERT_EQ(gpu.SetState(GST_STATE_PLAYING, 0), 0);
    const std::vector<uint8_t> quadrants = QuadrantFrame(kWidth, kHeight);

    auto corner_colours_are = [](const std::vector<uint8_t>& frame, int expected_red, int expected_green) {
        const Rgba top_left = PixelAt(frame, kWidth, 1, 1);
        return std::abs(top_left.r - expected_red) < 30 && std::abs(top_left.g - expected_green) < 30;
    };
    EXPECT_TRUE(WaitForFrame(input, output, quadrants, [&](const std::vector<uint8_t>& f) {
        return corner_colours_are(f, 255, 0);
    })) << "the unzoomed picture shows red at the top left";

    // The element clamps the pan to the range of the zoom.
    ASSERT_EQ(gpu.SetZoom(2.0), 0);
    EXPECT_DOUBLE_EQ(gpu.GetPanXMin(), -0.25);
    EXPECT_DOUBLE_EQ(gpu.GetPanXMax(), 0.25);
    EXPECT_DOUBLE_EQ(gpu.GetPanYMax(), 0.25);
    ASSERT_EQ(gpu.SetPanX(9.0), 0);
    EXPECT_DOUBLE_EQ(gpu.GetPanX(), 0.25);
    ASSERT_EQ(gpu.SetPanY(-0.1), 0);
    EXPECT_DOUBLE_EQ(gpu.GetPanY(), -0.1);
    ASSERT_EQ(gpu.SetPanY(gpu.GetPanYMin()), 0);
    EXPECT_TRUE(WaitForFrame(input, output, quadrants, [&](const std::vector<uint8_t>& f) {
        return corner_colours_are(f, 0, 255) && PixelAt(f, kWidth, kWidth - 2, kHeight - 2).g > 225
            && PixelAt(f, kWidth, kWidth - 2, kHeight - 2).r < 30;
    })) << "zoomed into the top-right quadrant, the whole frame is green";
    EXPECT_EQ(gpu.SetState(GST_STATE_NULL), 0);
}
