// The IPU transform stand-in: crop from metadata, the three deinterlace
// methods in the buffers' field order, and conversion plus scaling to 640x480 RGBA, BGRA and I420.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

using namespace GstTest;

namespace
{

struct Yuv {
    guint8 y, u, v;
};
constexpr Yuv kWhite = { 235, 128, 128 };
constexpr Yuv kBlack = { 16, 128, 128 };
constexpr Yuv kRed = { 81, 90, 240 };
using Paint = std::function<Yuv(int, int)>;

// Pushes one interleaved UYVY frame painted by `paint(x, y)`, with the capture's crop window as metadata,
// through the transform and returns the picture that comes out ("" when none does).
std::vector<guint8> Transform(const std::string& properties, const std::string& format, const Paint& paint,
    GstVideoInfo* info = nullptr, bool topFieldFirst = true)
{
    TestPipeline pipeline("appsrc name=in format=time caps=\"video/x-raw,format=UYVY,width=720,height=504,"
                          "framerate=30000/1001,interlace-mode=interleaved\" ! imxipuvideotransform "
        + properties + " ! video/x-raw,width=640,height=480,format=" + format
        + " ! appsink name=out sync=false");
    EXPECT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
    std::vector<guint8> bytes;
    for (int y = 0; y < 504; ++y) {
        for (int x = 0; x < 720; x += 2) {
            const Yuv c = paint(x, y);
            bytes.insert(bytes.end(), { c.u, c.y, c.v, c.y });
        }
    }
    GstBuffer* buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
    GstVideoCropMeta* crop = gst_buffer_add_video_crop_meta(buffer);
    crop->x = crop->y = 24;
    crop->width = 672;
    crop->height = 480;
    GST_BUFFER_FLAG_SET(buffer, GST_VIDEO_BUFFER_FLAG_INTERLACED);
    if (topFieldFirst)
        GST_BUFFER_FLAG_SET(buffer, GST_VIDEO_BUFFER_FLAG_TFF);
    GST_BUFFER_PTS(buffer) = 0;
    GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
    EXPECT_TRUE(pipeline.Push("in", buffer));
    pipeline.EndOfStream("in");
    GstSamplePtr sample = pipeline.Pull("out");
    if (sample && info != nullptr)
        gst_video_info_from_caps(info, gst_sample_get_caps(sample.get()));
    return sample ? SampleBytes(sample.get()) : std::vector<guint8> {};
}

// Brightness of the RGBA pixel (x, y) of a 640 pixel wide picture.
int Brightness(const std::vector<guint8>& rgba, int x, int y)
{
    const guint8* p = &rgba.at((static_cast<size_t>(y) * 640 + x) * 4);
    return (p[0] + p[1] + p[2]) / 3;
}

} // namespace

TEST(ImxIpuVideoTransform, InputCropReadsOnlyTheWindowOfTheCropMetadata)
{
    // White inside the window, black around it: the corners are white only when cropped.
    auto paint = [](int x, int y) { return (x >= 24 && x < 696 && y >= 24) ? kWhite : kBlack; };
    for (const bool crop : { true, false }) {
        const std::vector<guint8> picture
            = Transform(crop ? "input-crop=true" : "input-crop=false", "RGBA", paint);
        ASSERT_EQ(picture.size(), 640u * 480u * 4u) << "input-crop " << crop;
        EXPECT_GT(Brightness(picture, 320, 240), 220) << "input-crop " << crop;
        for (auto [x, y] : { std::pair { 1, 1 }, { 638, 1 }, { 1, 478 }, { 638, 478 } }) {
            const int brightness = Brightness(picture, x, y);
            EXPECT_TRUE(crop ? brightness > 220 : brightness < 30) << x << "," << y << " input-crop " << crop;
        }
    }
}

TEST(ImxIpuVideoTransform, DeinterlaceMethodsWeaveInterpolateTheFirstFieldOrAverageBothIntoProgressiveFrames)
{
    // The top field (even lines) is white, the bottom field black: weaving keeps the lines alternating,
    // interpolating the first field gives white when the top field comes first and black when the
    // bottom one does, averaging grey either way.
    for (auto [method, topFirst, darkest_above, brightest_below, spread_above] :
        { std::tuple { "low-motion", true, -1, 256, 100 }, { "high-motion", true, 220, 256, -1 },
            { "high-motion", false, -1, 30, -1 }, { "medium-motion", true, 100, 160, -1 },
            { "medium-motion", false, 100, 160, -1 } }) {
        SCOPED_TRACE(std::string(method) + (topFirst ? " top field first" : " bottom field first"));
        GstVideoInfo info;
        const std::vector<guint8> picture = Transform(
            std::string("deinterlace=true deinterlace-method=") + method, "RGBA",
            [](int, int y) { return (y % 2 == 0) ? kWhite : kBlack; }, &info, topFirst);
        ASSERT_EQ(picture.size(), 640u * 480u * 4u);
        EXPECT_EQ(GST_VIDEO_INFO_INTERLACE_MODE(&info), GST_VIDEO_INTERLACE_MODE_PROGRESSIVE);
        int darkest = 255, brightest = 0;
        for (int y = 0; y < 480; ++y) {
            darkest = std::min(darkest, Brightness(picture, 320, y));
            brightest = std::max(brightest, Brightness(picture, 320, y));
        }
        EXPECT_GT(darkest, darkest_above);
        EXPECT_LT(brightest, brightest_below);
        EXPECT_GT(brightest - darkest, spread_above);
    }
}

TEST(ImxIpuVideoTransform, ConvertsAndScalesTo640x480RgbaBgraAndI420)
{
    // Two bytes of the red picture's centre: R and B of a packed pixel, or I420's Y and V.
    constexpr size_t kPixel = (240 * 640 + 320) * 4;
    constexpr size_t kV = 640 * 480 * 5 / 4 + 120 * 320 + 160;
    for (auto [format, size, first, first_value, second, second_value, tolerance] :
        { std::tuple { "RGBA", 640 * 480 * 4, kPixel, 255, kPixel + 2, 0, 55 },
            { "BGRA", 640 * 480 * 4, kPixel, 0, kPixel + 2, 255, 55 },
            { "I420", 640 * 480 * 3 / 2, size_t { 240 * 640 + 320 }, int { kRed.y }, kV, int { kRed.v },
                6 } }) {
        SCOPED_TRACE(format);
        const std::vector<guint8> picture
            = Transform("deinterlace=true input-crop=true", format, [](int, int) { return kRed; });
        ASSERT_EQ(picture.size(), static_cast<size_t>(size));
        EXPECT_NEAR(picture[first], first_value, tolerance);
        EXPECT_NEAR(picture[second], second_value, tolerance);
    }
}

TEST(ImxIpuVideoTransform, EqualCapsPassFramesThroughUntouchedUnlessCropping)
{
    for (const bool crop : { false, true }) {
        TestPipeline pipeline(std::string("appsrc name=in format=time caps=video/x-raw,format=BGRA,width=640,"
                                          "height=480,framerate=30/1 ! imxipuvideotransform input-crop=")
            + (crop ? "true" : "false")
            + " ! video/x-raw,format=BGRA,width=640,height=480 ! appsink name=out sync=false");
        ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 640 * 480 * 4, nullptr);
        gst_buffer_memset(frame, 0, 0x40, 640 * 480 * 4);
        GstVideoCropMeta* window = gst_buffer_add_video_crop_meta(frame);
        window->x = window->y = 0;
        window->width = 320;
        window->height = 240;
        ASSERT_TRUE(pipeline.Push("in", frame));
        GstSamplePtr out = pipeline.Pull("out");
        ASSERT_TRUE(out);
        // The pushed reference is gone to the pipeline; compare by identity only.
        EXPECT_EQ(gst_sample_get_buffer(out.get()) == frame, !crop) << "input-crop " << crop;
    }
}
