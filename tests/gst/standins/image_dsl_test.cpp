// The levelling stand-in passes frames through and fires its signals.
#include <array>

#include "image_frame_harness.h"

namespace
{

class TarnwellDslTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        gst_init(nullptr, nullptr);
        dsl_ = gst_element_factory_make("tarnwell-dsl", "dsl");
        ASSERT_NE(dsl_, nullptr);
        gst_object_ref_sink(dsl_);
    }
    void TearDown() override { g_clear_object(&dsl_); }

    double GetDouble(const char* name)
    {
        double value = 0;
        g_object_get(dsl_, name, &value, nullptr);
        return value;
    }

    GstElement* dsl_ = nullptr;
};

void OnRoll(GstElement*, double roll, gpointer data)
{
    static_cast<std::vector<double>*>(data)->push_back(roll);
}

void OnPlumbline(GstElement*, double a, double b, double c, double d, double e, gpointer data)
{
    static_cast<std::vector<std::array<double, 5>>*>(data)->push_back({ a, b, c, d, e });
}

} // namespace

TEST_F(TarnwellDslTest, ASimulatedRollFiresCameraRollChangedAndUpdatesTheAngles)
{
    std::vector<double> rolls;
    g_signal_connect(dsl_, "camera-roll-changed", G_CALLBACK(OnRoll), &rolls);

    g_signal_emit_by_name(dsl_, "simulate-camera-angles", 12.5, -3.0);
    ASSERT_EQ(rolls.size(), 1u);
    EXPECT_DOUBLE_EQ(rolls[0], 12.5);
    EXPECT_DOUBLE_EQ(GetDouble("camera-roll"), 12.5);
    EXPECT_DOUBLE_EQ(GetDouble("camera-tilt"), -3.0);
    EXPECT_DOUBLE_EQ(GetDouble("display-roll"), 0.0) << "levelling is off";

    g_object_set(dsl_, "dsl-enabled", TRUE, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble("display-roll"), 12.5);

    // Only a change of roll is reported.
    g_signal_emit_by_name(dsl_, "simulate-camera-angles", 12.5, 8.0);
    EXPECT_EQ(rolls.size(), 1u);
    EXPECT_DOUBLE_EQ(GetDouble("camera-tilt"), 8.0);
    g_signal_emit_by_name(dsl_, "simulate-camera-angles", -40.0, 8.0);
    ASSERT_EQ(rolls.size(), 2u);
    EXPECT_DOUBLE_EQ(rolls[1], -40.0);
}

TEST_F(TarnwellDslTest, SimulatedPlumblineDataArrivesInOrder)
{
    std::vector<std::array<double, 5>> data;
    g_signal_connect(dsl_, "plumbline-data", G_CALLBACK(OnPlumbline), &data);
    g_signal_emit_by_name(dsl_, "simulate-plumbline-data", 1.0, -2.0, 3.5, 4.25, 0.0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_EQ(data[0], (std::array<double, 5> { 1.0, -2.0, 3.5, 4.25, 0.0 }));
}

TEST_F(TarnwellDslTest, OffersThePropertiesTheGpuPipelineUses)
{
    GObject* object = G_OBJECT(dsl_);
    ExpectProperty(object, "silent", G_TYPE_BOOLEAN);
    ExpectProperty(object, "dsl-enabled", G_TYPE_BOOLEAN);
    ExpectProperty(object, "plumbline-enabled", G_TYPE_BOOLEAN);
    ExpectProperty(object, "rotation-steps", G_TYPE_UINT);
    ExpectProperty(object, "rotation-threshold", G_TYPE_UINT);
    ExpectProperty(object, "rotation-frames-trigger", G_TYPE_UINT);
    ExpectProperty(object, "rotation-override", G_TYPE_INT);
    ExpectProperty(object, "animation-duration", G_TYPE_UINT);
    ExpectProperty(object, "max-tilt-angle", G_TYPE_INT);
    ExpectProperty(object, "sharpen", G_TYPE_DOUBLE);
    ExpectProperty(object, "sharpen-amount", G_TYPE_DOUBLE);
    ExpectProperty(object, "dsl-auto-zoom-override", G_TYPE_BOOLEAN);
    ExpectProperty(object, "camera-roll", G_TYPE_DOUBLE, true);
    ExpectProperty(object, "camera-tilt", G_TYPE_DOUBLE, true);
    ExpectProperty(object, "display-roll", G_TYPE_DOUBLE, true);

    // The largest values the daemon accepts are within the element's range.
    GParamSpecUInt* threshold
        = G_PARAM_SPEC_UINT(g_object_class_find_property(G_OBJECT_GET_CLASS(object), "rotation-threshold"));
    GParamSpecUInt* frames = G_PARAM_SPEC_UINT(
        g_object_class_find_property(G_OBJECT_GET_CLASS(object), "rotation-frames-trigger"));
    GParamSpecUInt* steps
        = G_PARAM_SPEC_UINT(g_object_class_find_property(G_OBJECT_GET_CLASS(object), "rotation-steps"));
    EXPECT_EQ(threshold->maximum, 30u);
    EXPECT_EQ(frames->maximum, 240u);
    EXPECT_EQ(steps->maximum, 2u);
}

TEST(TarnwellDsl, PassesFramesThroughUnchangedWhilePlaying)
{
    FrameHarness harness("video/x-raw,format=RGBA,width=8,height=4,framerate=30/1",
        "tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false "
        "rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15");
    ASSERT_TRUE(harness.Ok());
    std::vector<uint8_t> frame(8 * 4 * 4);
    for (size_t i = 0; i < frame.size(); i++) {
        frame[i] = static_cast<uint8_t>(i * 7);
    }
    EXPECT_EQ(harness.Run(frame), frame);
    g_autoptr(GstElement) dsl = harness.Element("dsl");
    g_object_set(dsl, "dsl-enabled", TRUE, nullptr);
    EXPECT_EQ(harness.Run(frame), frame);
}
