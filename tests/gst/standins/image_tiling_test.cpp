// The zoom and pan stand-in crops and scales real pixels.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

constexpr int kWidth = 64;
constexpr int kHeight = 48;
const char* kRgbaCaps = "video/x-raw,format=RGBA,width=64,height=48,framerate=30/1";

struct Rgb {
    int r, g, b;
};

// An opaque RGBA frame painted by `paint(x, y)`.
std::vector<uint8_t> Frame(const std::function<Rgb(int, int)>& paint)
{
    std::vector<uint8_t> frame;
    for (int y = 0; y < kHeight; y++) {
        for (int x = 0; x < kWidth; x++) {
            const Rgb c = paint(x, y);
            frame.insert(frame.end(),
                { static_cast<uint8_t>(c.r), static_cast<uint8_t>(c.g), static_cast<uint8_t>(c.b), 255 });
        }
    }
    return frame;
}

// Red rising with x, green rising with y.
const std::vector<uint8_t> kGradient = Frame([](int x, int y) { return Rgb { x * 4, y * 5, 0 }; });
// Four quadrants: red, green (top right), blue (bottom left), white.
const std::vector<uint8_t> kQuadrants = Frame([](int x, int y) {
    const Rgb colours[4] = { { 255, 0, 0 }, { 0, 255, 0 }, { 0, 0, 255 }, { 255, 255, 255 } };
    return colours[(y >= kHeight / 2) * 2 + (x >= kWidth / 2)];
});

Rgb PixelAt(const std::vector<uint8_t>& frame, int x, int y)
{
    const uint8_t* p = &frame.at((y * kWidth + x) * 4);
    return { p[0], p[1], p[2] };
}

double GetDouble(GstElement* element, const char* name)
{
    double value = 0;
    g_object_get(element, name, &value, nullptr);
    return value;
}

} // namespace

TEST(TarnwellTiling, ZoomWhilePlayingShowsTheCentreScaledToTheFullFrameAndZoomOneLeavesItUntouched)
{
    TestPipeline harness(FrameLoop(kRgbaCaps, "tarnwell-tiling name=gpu background-mode=2 silent=false"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    ASSERT_EQ(harness.PushFrame(kGradient), kGradient);

    GstPtr<GstElement> gpu = harness.Element("gpu");
    g_object_set(gpu.get(), "zoom", 2.0, nullptr);
    const std::vector<uint8_t> output = harness.PushFrame(kGradient);
    ASSERT_EQ(output.size(), kGradient.size());
    // At zoom 2 the output pixel (x, y) comes from (16 + x/2, 12 + y/2).
    for (int y = 4; y < kHeight - 4; y += 7) {
        for (int x = 4; x < kWidth - 4; x += 9) {
            const Rgb pixel = PixelAt(output, x, y);
            EXPECT_NEAR(pixel.r, (16 + x / 2.0) * 4, 6) << "x=" << x << " y=" << y;
            EXPECT_NEAR(pixel.g, (12 + y / 2.0) * 5, 6) << "x=" << x << " y=" << y;
        }
    }

    g_object_set(gpu.get(), "zoom", 1.0, nullptr);
    EXPECT_EQ(harness.PushFrame(kGradient), kGradient);
}

TEST(TarnwellTiling, PanToTheLimitsShowsOneQuadrantOnlyInPackedAndPlanarFormats)
{
    // The window reaches exactly the frame's edge at the pan limits.
    for (const std::string format : { "RGBA", "I420", "UYVY" }) {
        SCOPED_TRACE(format);
        TestPipeline harness(FrameLoop(kRgbaCaps,
            "videoconvert ! video/x-raw,format=" + format
                + " ! tarnwell-tiling name=gpu ! videoconvert ! video/x-raw,format=RGBA"));
        ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
        GstPtr<GstElement> gpu = harness.Element("gpu");
        g_object_set(gpu.get(), "zoom", 2.0, nullptr);
        g_object_set(gpu.get(), "pan-x", GetDouble(gpu.get(), "pan-x-max"), "pan-y",
            GetDouble(gpu.get(), "pan-y-min"), nullptr);

        const std::vector<uint8_t> output = harness.PushFrame(kQuadrants);
        ASSERT_EQ(output.size(), kQuadrants.size());
        int wrong = 0;
        for (size_t i = 0; i < output.size(); i += 4)
            wrong += output[i] > 40 || output[i + 1] < 215 || output[i + 2] > 40;
        EXPECT_EQ(wrong, 0) << "pixels outside the top-right quadrant's green";

        g_object_set(gpu.get(), "pan-x", GetDouble(gpu.get(), "pan-x-min"), "pan-y",
            GetDouble(gpu.get(), "pan-y-max"), nullptr);
        const Rgb blue = PixelAt(harness.PushFrame(kQuadrants), kWidth / 2, kHeight / 2);
        EXPECT_TRUE(blue.r < 40 && blue.g < 40 && blue.b > 215) << blue.r << "," << blue.g << "," << blue.b;
    }
}

TEST(TarnwellTiling, PanLimitsFollowTheZoomAndClampThePan)
{
    GstPtr<GstElement> gpu = MakeElement("tarnwell-tiling");
    ASSERT_NE(gpu, nullptr);
    // After setting the zoom, then the pan (unless NAN): the limits, and the pan as clamped.
    struct Row {
        double zoom, pan_x, pan_y, limit, x, y;
    };
    for (const Row& row : { Row { 1.0, 0.2, 0.1, 0.0, 0.0, 0.0 }, Row { 2.0, 0.1, -0.2, 0.25, 0.1, -0.2 },
             Row { 4.0, 3.0, -0.5, 0.375, 0.375, -0.375 },
             Row { 2.0, NAN, NAN, 0.25, 0.25, -0.25 } }) { // zooming out pulls the pan back inside
        g_object_set(gpu.get(), "zoom", row.zoom, nullptr);
        if (!std::isnan(row.pan_x))
            g_object_set(gpu.get(), "pan-x", row.pan_x, "pan-y", row.pan_y, nullptr);
        for (auto [name, value] :
            { std::pair { "pan-x-min", -row.limit }, { "pan-x-max", row.limit }, { "pan-y-min", -row.limit },
                { "pan-y-max", row.limit }, { "pan-x", row.x }, { "pan-y", row.y } })
            EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), name), value) << name << " at zoom " << row.zoom;
    }

    // The levelling zoom limit written as "max-dsl-zoom-in" reads back as "max-dsl-zoom".
    g_object_set(gpu.get(), "max-dsl-zoom-in", 1.5, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "max-dsl-zoom"), 1.5);
}
