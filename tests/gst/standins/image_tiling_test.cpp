// The zoom and pan stand-in crops and scales real pixels.
#include <gtest/gtest.h>

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

// Red on the left, rising with x; green rising with y.
std::vector<uint8_t> GradientFrame()
{
    std::vector<uint8_t> frame(kWidth * kHeight * 4);
    for (int y = 0; y < kHeight; y++) {
        for (int x = 0; x < kWidth; x++) {
            uint8_t* p = &frame[(y * kWidth + x) * 4];
            p[0] = static_cast<uint8_t>(x * 4);
            p[1] = static_cast<uint8_t>(y * 5);
            p[2] = 0;
            p[3] = 255;
        }
    }
    return frame;
}

// Four quadrants: red, green (top right), blue, white.
std::vector<uint8_t> QuadrantFrame()
{
    const Rgb colours[4] = { { 255, 0, 0 }, { 0, 255, 0 }, { 0, 0, 255 }, { 255, 255, 255 } };
    std::vector<uint8_t> frame(kWidth * kHeight * 4);
    for (int y = 0; y < kHeight; y++) {
        for (int x = 0; x < kWidth; x++) {
            const Rgb& c = colours[(y >= kHeight / 2) * 2 + (x >= kWidth / 2)];
            uint8_t* p = &frame[(y * kWidth + x) * 4];
            p[0] = static_cast<uint8_t>(c.r);
            p[1] = static_cast<uint8_t>(c.g);
            p[2] = static_cast<uint8_t>(c.b);
            p[3] = 255;
        }
    }
    return frame;
}

Rgb PixelAt(const std::vector<uint8_t>& frame, int x, int y)
{
    const uint8_t* p = &frame[(y * kWidth + x) * 4];
    return { p[0], p[1], p[2] };
}

double GetDouble(GstElement* element, const char* name)
{
    double value = 0;
    g_object_get(element, name, &value, nullptr);
    return value;
}

} // namespace

TEST(TarnwellTiling, LeavesThePictureUntouchedAtZoomOne)
{
    TestPipeline harness(FrameLoop(kRgbaCaps, "tarnwell-tiling name=gpu background-mode=2 silent=false"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    const std::vector<uint8_t> input = GradientFrame();
    EXPECT_EQ(harness.PushFrame(input), input);
}

TEST(TarnwellTiling, ZoomWhilePlayingShowsTheCentreScaledToTheFullFrame)
{
    TestPipeline harness(FrameLoop(kRgbaCaps, "tarnwell-tiling name=gpu"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    const std::vector<uint8_t> input = GradientFrame();
    ASSERT_EQ(harness.PushFrame(input), input);

    ObjectPtr<GstElement> gpu = harness.Element("gpu");
    g_object_set(gpu.get(), "zoom", 2.0, nullptr);
    const std::vector<uint8_t> output = harness.PushFrame(input);
    ASSERT_EQ(output.size(), input.size());
    // At zoom 2 the output pixel (x, y) comes from (16 + x/2, 12 + y/2).
    for (int y = 4; y < kHeight - 4; y += 7) {
        for (int x = 4; x < kWidth - 4; x += 9) {
            const Rgb pixel = PixelAt(output, x, y);
            EXPECT_NEAR(pixel.r, (16 + x / 2.0) * 4, 6) << "x=" << x << " y=" << y;
            EXPECT_NEAR(pixel.g, (12 + y / 2.0) * 5, 6) << "x=" << x << " y=" << y;
        }
    }

    g_object_set(gpu.get(), "zoom", 1.0, nullptr);
    EXPECT_EQ(harness.PushFrame(input), input);
}

// The window reaches exactly the frame's edge at the pan limits, in packed
// and planar formats alike.
class TarnwellTilingPan : public ::testing::TestWithParam<const char*>
{
};

TEST_P(TarnwellTilingPan, PanToTheLimitsShowsOneQuadrantOnly)
{
    const std::string format = GetParam();
    TestPipeline harness(FrameLoop(kRgbaCaps,
        "videoconvert ! video/x-raw,format=" + format
            + " ! tarnwell-tiling name=gpu ! videoconvert ! video/x-raw,format=RGBA"));
    ASSERT_TRUE(harness.Parsed() && harness.Start()) << harness.Error();
    ObjectPtr<GstElement> gpu = harness.Element("gpu");
    g_object_set(gpu.get(), "zoom", 2.0, nullptr);
    g_object_set(gpu.get(), "pan-x", GetDouble(gpu.get(), "pan-x-max"), "pan-y",
        GetDouble(gpu.get(), "pan-y-min"), nullptr);

    const std::vector<uint8_t> output = harness.PushFrame(QuadrantFrame());
    ASSERT_EQ(output.size(), static_cast<size_t>(kWidth * kHeight * 4));
    int wrong = 0;
    for (int y = 0; y < kHeight; y++) {
        for (int x = 0; x < kWidth; x++) {
            const Rgb pixel = PixelAt(output, x, y);
            wrong += pixel.r > 40 || pixel.g < 215 || pixel.b > 40;
        }
    }
    EXPECT_EQ(wrong, 0) << "pixels outside the top-right quadrant's green";

    g_object_set(gpu.get(), "pan-x", GetDouble(gpu.get(), "pan-x-min"), "pan-y",
        GetDouble(gpu.get(), "pan-y-max"), nullptr);
    const Rgb blue = PixelAt(harness.PushFrame(QuadrantFrame()), kWidth / 2, kHeight / 2);
    EXPECT_LT(blue.r, 40);
    EXPECT_LT(blue.g, 40);
    EXPECT_GT(blue.b, 215);
}

INSTANTIATE_TEST_SUITE_P(Formats, TarnwellTilingPan, ::testing::Values("RGBA", "I420", "UYVY"));

TEST(TarnwellTiling, PanLimitsFollowTheZoomAndClampThePan)
{
    ObjectPtr<GstElement> gpu = MakeElement("tarnwell-tiling");
    ASSERT_NE(gpu, nullptr);

    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x-min"), 0.0);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x-max"), 0.0);
    g_object_set(gpu.get(), "pan-x", 0.2, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x"), 0.0) << "no pan at zoom 1";

    g_object_set(gpu.get(), "zoom", 2.0, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x-min"), -0.25);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x-max"), 0.25);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-y-min"), -0.25);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-y-max"), 0.25);

    g_object_set(gpu.get(), "zoom", 4.0, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x-max"), 0.375);
    g_object_set(gpu.get(), "pan-x", 3.0, "pan-y", -0.5, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x"), 0.375);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-y"), -0.375);

    // Zooming out pulls the pan back inside the narrower range.
    g_object_set(gpu.get(), "zoom", 2.0, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-x"), 0.25);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "pan-y"), -0.25);

    // The levelling zoom limit written as "max-dsl-zoom-in" reads back as "max-dsl-zoom".
    g_object_set(gpu.get(), "max-dsl-zoom-in", 1.5, nullptr);
    EXPECT_DOUBLE_EQ(GetDouble(gpu.get(), "max-dsl-zoom"), 1.5);
}
