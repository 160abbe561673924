// The levelling stand-in turns the picture by the roll it reports and fires its signals.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

constexpr int kSize = 64;
constexpr double kMarkerDistance = 20.0;

void OnRoll(GstElement*, double roll, gpointer data)
{
    static_cast<std::vector<double>*>(data)->push_back(roll);
}

void OnPlumbline(GstElement*, double a, double b, double c, double d, double e, gpointer data)
{
    static_cast<std::vector<std::array<double, 5>>*>(data)->push_back({ a, b, c, d, e });
}

// A black square RGBA picture with a white 6x6 marker `kMarkerDistance` pixels right of the centre.
std::vector<guint8> MarkedPicture()
{
    std::vector<guint8> frame(kSize * kSize * 4, 0);
    const int centre_x = kSize / 2 + static_cast<int>(kMarkerDistance);
    for (int y = kSize / 2 - 3; y < kSize / 2 + 3; ++y) {
        for (int x = centre_x - 3; x < centre_x + 3; ++x) {
            guint8* pixel = &frame[(static_cast<size_t>(y) * kSize + x) * 4];
            pixel[0] = pixel[1] = pixel[2] = 255;
        }
    }
    for (size_t i = 3; i < frame.size(); i += 4)
        frame[i] = 255;
    return frame;
}

// Where the marker is, as the clockwise angle in degrees from "right of the centre" (y points down),
// and its distance from the centre.
std::pair<double, double> MarkerPosition(const std::vector<guint8>& frame)
{
    double sum_x = 0, sum_y = 0, count = 0;
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x) {
            if (frame.at((static_cast<size_t>(y) * kSize + x) * 4) > 128) {
                sum_x += x + 0.5;
                sum_y += y + 0.5;
                ++count;
            }
        }
    }
    if (count == 0)
        return { NAN, 0.0 };
    const double dx = sum_x / count - kSize / 2.0, dy = sum_y / count - kSize / 2.0;
    return { std::atan2(dy, dx) * 180.0 / M_PI, std::hypot(dx, dy) };
}

} // namespace

TEST(TarnwellDsl, TurnsThePictureClockwiseByTheDisplayRollFromTheRollOrTheOverrideInStepsOrContinuously)
{
    TestPipeline harness(FrameLoop("video/x-raw,format=RGBA,width=64,height=64,framerate=30/1",
        "tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false "
        "rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    GstPtr<GstElement> dsl = harness.Element("dsl");
    const std::vector<guint8> picture = MarkedPicture();

    const struct {
        bool enabled;
        double roll;
        guint steps;
        gint override;
        double displayRoll; // also the marker's turn
    } rows[] = {
        { false, 40.0, 0, 0, 0.0 },
        { true, 0.0, 0, 0, 0.0 },
        { true, 90.0, 0, 0, 90.0 },
        { true, -30.0, 0, 0, -30.0 },
        { true, 40.0, 1, 0, 0.0 },
        { true, 50.0, 1, 0, 90.0 },
        { true, -100.0, 1, 0, -90.0 },
        { true, 100.0, 2, 0, 180.0 },
        { true, 80.0, 2, 0, 0.0 },
        { true, 10.0, 0, 45, 45.0 },
        { true, 10.0, 2, 270, -90.0 },
        { false, 10.0, 0, 45, 0.0 },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("enabled " + std::to_string(row.enabled) + " roll " + std::to_string(row.roll)
            + " steps " + std::to_string(row.steps) + " override " + std::to_string(row.override));
        g_object_set(dsl.get(), "dsl-enabled", row.enabled, "rotation-steps", row.steps, "rotation-override",
            row.override, nullptr);
        g_signal_emit_by_name(dsl.get(), "simulate-camera-angles", row.roll, 0.0);
        double displayRoll = NAN;
        g_object_get(dsl.get(), "display-roll", &displayRoll, nullptr);
        EXPECT_DOUBLE_EQ(displayRoll, row.displayRoll);

        const std::vector<guint8> out = harness.PushFrame(picture);
        ASSERT_EQ(out.size(), picture.size());
        if (row.displayRoll == 0.0) {
            EXPECT_EQ(out, picture) << "a level picture passes unchanged";
            continue;
        }
        const auto [angle, distance] = MarkerPosition(out);
        EXPECT_NEAR(std::remainder(angle - row.displayRoll, 360.0), 0.0, 3.0);
        EXPECT_NEAR(distance, kMarkerDistance, 1.0);
        // The corners turned in from outside are opaque black.
        EXPECT_EQ((std::array { out[0], out[1], out[2], out[3] }), (std::array<guint8, 4> { 0, 0, 0, 255 }));
    }
}

TEST(TarnwellDsl, SimulatedAnglesAndPlumblineDataFireItsSignals)
{
    GstPtr<GstElement> dsl = MakeElement("tarnwell-dsl");
    ASSERT_NE(dsl, nullptr);
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
