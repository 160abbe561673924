// The levelling stand-in passes frames through and fires its signals.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

void OnRoll(GstElement*, double roll, gpointer data)
{
    static_cast<std::vector<double>*>(data)->push_back(roll);
}

void OnPlumbline(GstElement*, double a, double b, double c, double d, double e, gpointer data)
{
    static_cast<std::vector<std::array<double, 5>>*>(data)->push_back({ a, b, c, d, e });
}

} // namespace

TEST(TarnwellDsl, PassesFramesThroughUnchangedAndSimulatedAnglesAndPlumblineDataFireItsSignals)
{
    TestPipeline harness(FrameLoop("video/x-raw,format=RGBA,width=8,height=4,framerate=30/1",
        "tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false "
        "rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    std::vector<uint8_t> frame(8 * 4 * 4);
    for (size_t i = 0; i < frame.size(); i++)
        frame[i] = static_cast<uint8_t>(i * 7);
    EXPECT_EQ(harness.PushFrame(frame), frame);

    ObjectPtr<GstElement> dsl = harness.Element("dsl");
    auto get = [&](const char* name) {
        double value = 0;
        g_object_get(dsl.get(), name, &value, nullptr);
        return value;
    };
    std::vector<double> rolls;
    g_signal_connect(dsl.get(), "camera-roll-changed", G_CALLBACK(OnRoll), &rolls);
    g_signal_emit_by_name(dsl.get(), "simulate-camera-angles", 12.5, -3.0);
    EXPECT_EQ(rolls, std::vector<double> { 12.5 });
    EXPECT_DOUBLE_EQ(get("camera-roll"), 12.5);
    EXPECT_DOUBLE_EQ(get("camera-tilt"), -3.0);
    EXPECT_DOUBLE_EQ(get("display-roll"), 0.0) << "levelling is off";
    g_object_set(dsl.get(), "dsl-enabled", TRUE, nullptr);
    EXPECT_DOUBLE_EQ(get("display-roll"), 12.5);
    EXPECT_EQ(harness.PushFrame(frame), frame) << "levelling on";

    // Only a change of roll is reported.
    g_signal_emit_by_name(dsl.get(), "simulate-camera-angles", 12.5, 8.0);
    EXPECT_DOUBLE_EQ(get("camera-tilt"), 8.0);
    g_signal_emit_by_name(dsl.get(), "simulate-camera-angles", -40.0, 8.0);
    EXPECT_EQ(rolls, (std::vector<double> { 12.5, -40.0 }));

    std::vector<std::array<double, 5>> plumbline;
    g_signal_connect(dsl.get(), "plumbline-data", G_CALLBACK(OnPlumbline), &plumbline);
    g_signal_emit_by_name(dsl.get(), "simulate-plumbline-data", 1.0, -2.0, 3.5, 4.25, 0.0);
    EXPECT_EQ(plumbline, (std::vector<std::array<double, 5>> { { 1.0, -2.0, 3.5, 4.25, 0.0 } }));
}
