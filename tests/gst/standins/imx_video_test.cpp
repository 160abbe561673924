// The i.MX video stand-ins. The capture source: caps, crop metadata, a moving
// live picture. The IPU transform: crop from metadata, the three deinterlace
// methods in the buffers' field order, and conversion plus scaling to 640x480
// RGBA, BGRA and I420. The display sink: what it shows, what it drops, and its
// panel settings.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
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

const char* kSmallBgra = "appsrc name=in format=time caps=video/x-raw,format=BGRA,width=64,height=48,"
                         "framerate=30/1 ! imxipuvideosink name=display_sink sync=false ";

guint64 FramesShown(GstElement* sink)
{
    guint64 shown = 0;
    g_object_get(sink, "frames-shown", &shown, nullptr);
    return shown;
}

GstSamplePtr LastSample(GstElement* sink)
{
    GstSample* sample = nullptr;
    g_object_get(sink, "last-sample", &sample, nullptr);
    return GstSamplePtr(sample);
}

} // namespace

TEST(ImxV4l2VideoSrc, IsALiveSourceOfMovingUyvyInTheDriversFieldOrderWithTheConfiguredCropWindowAsMetadata)
{
    struct Row {
        const char* capture;
        guint height;
        int fps_n, fps_d;
        std::optional<std::array<guint, 4>> crop;
        bool interlaced, topFieldFirst;
    };
    // The NTSC and PAL cameras (bottom and top field first), their windows handed on as configured even
    // where they reach past the bottom edge; a progressive capture without any crop value has no window.
    const Row rows[] = {
        { "imxv4l2videosrc name=camera_input_source fps=30000/1001 crop-meta-x=24 crop-meta-width=672 "
          "crop-meta-y=24 crop-meta-height=504 do-timestamp=true ! video/x-raw, format=UYVY,width=720,"
          "height=504,framerate=30000/1001, interlace-mode=interleaved,device-mode=interleaved",
            504, 30000, 1001, std::array<guint, 4> { 24, 24, 672, 504 }, true, false },
        { "imxv4l2videosrc name=pal_camera_input_source fps=25/1 crop-meta-x=28 crop-meta-width=692 "
          "crop-meta-y=28 crop-meta-height=576 do-timestamp=true ! video/x-raw, format=UYVY,width=720,"
          "height=576,framerate=25/1, interlace-mode=interleaved,device-mode=interleaved",
            576, 25, 1, std::array<guint, 4> { 28, 28, 692, 576 }, true, true },
        { "imxv4l2videosrc fps=30/1 ! video/x-raw, format=UYVY,width=320,height=240,framerate=30/1, "
          "interlace-mode=progressive",
            240, 30, 1, std::nullopt, false, false },
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.capture);
        TestPipeline pipeline(std::string(row.capture) + " ! appsink name=out max-buffers=4 sync=false");
        ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
        EXPECT_EQ(gst_element_set_state(pipeline.Get(), GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
        ASSERT_TRUE(pipeline.Start());
        GstSamplePtr first = pipeline.Pull("out");
        GstSamplePtr second = pipeline.Pull("out");
        ASSERT_TRUE(first && second);

        // The caps filter holds the caps asked for; the frames fill them and carry the window.
        GstBuffer* a = gst_sample_get_buffer(first.get());
        GstBuffer* b = gst_sample_get_buffer(second.get());
        const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(first.get()), 0);
        gint width = 0;
        ASSERT_TRUE(gst_structure_get_int(caps, "width", &width));
        EXPECT_EQ(gst_buffer_get_size(a), static_cast<gsize>(width) * 2u * row.height);
        const GstVideoCropMeta* crop = gst_buffer_get_video_crop_meta(a);
        ASSERT_EQ(crop != nullptr, row.crop.has_value());
        if (crop) {
            EXPECT_EQ((std::array { crop->x, crop->y, crop->width, crop->height }), *row.crop);
        }
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(a, GST_VIDEO_BUFFER_FLAG_INTERLACED), row.interlaced);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(a, GST_VIDEO_BUFFER_FLAG_TFF), row.topFieldFirst);

        // A moving picture, stamped frame by frame.
        EXPECT_NE(BufferBytes(a), BufferBytes(b));
        ASSERT_TRUE(GST_BUFFER_PTS_IS_VALID(a) && GST_BUFFER_PTS_IS_VALID(b));
        EXPECT_GT(GST_BUFFER_PTS(b), GST_BUFFER_PTS(a));
        EXPECT_EQ(GST_BUFFER_DURATION(a), gst_util_uint64_scale_int(GST_SECOND, row.fps_d, row.fps_n));
    }
}

TEST(ImxIpuVideoTransform, InputCropReadsOnlyTheWindowOfTheCropMetadataAndEqualCapsPassFramesThroughOtherwise)
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

    // Equal caps: the frame itself passes, unless a crop window is to be read.
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

TEST(ImxIpuVideoSink, CountsTheFramesItShowsAndKeepsTheLastOne)
{
    // The display pipeline's tail.
    TestPipeline pipeline("videotestsrc num-buffers=12 ! video/x-raw, format=BGRA,width=640,height=480,"
                          "framerate=30000/1001 ! queue name=display_queue max-size-buffers=2 ! "
                          "imxipuvideotransform name=video_transform_display ! imxipuvideosink "
                          "name=display_sink qos=false use-vsync=true sync=false force-aspect-ratio=false");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.RunToEos()) << pipeline.Error();
    EXPECT_EQ(FramesShown(pipeline.Element("display_sink").get()), 12u);
    GstSamplePtr last = LastSample(pipeline.Element("display_sink").get());
    ASSERT_TRUE(last);
    EXPECT_STREQ(
        gst_structure_get_string(gst_caps_get_structure(gst_sample_get_caps(last.get()), 0), "format"),
        "BGRA");
    GstBuffer* buffer = gst_sample_get_buffer(last.get());
    EXPECT_EQ(gst_buffer_get_size(buffer), 640u * 480u * 4u);
    EXPECT_EQ(GST_BUFFER_PTS(buffer), gst_util_uint64_scale_int(11 * GST_SECOND, 1001, 30000));

    // A decoded still picture on the panel mounted upside down.
    TestPipeline still("videotestsrc num-buffers=1 ! video/x-raw,width=320,height=240 ! jpegenc ! jpegdec ! "
                       "imxipuvideosink name=jpeg_playback_sink output-rotation=5");
    ASSERT_TRUE(still.Parsed() && still.RunToEos()) << still.Error();
    EXPECT_EQ(FramesShown(still.Element("jpeg_playback_sink").get()), 1u);
}

// Each row from a sink created dropping: a white frame is dropped (nothing
// shown or kept), the marked frame is shown once dropping is switched off
// while playing, and a white frame dropped after it leaves it the last sample.
TEST(
    ImxIpuVideoSink, DropFramesTakesFramesWithoutShowingThemAndLastSampleIsThePictureAsTheRotatedPanelShowsIt)
{
    for (auto [rotation, width, height, white_x, white_y] : { std::tuple { 0, 64, 48, 0, 0 },
             { 5, 64, 48, 0, 47 }, { 2, 64, 48, 63, 47 }, { 1, 48, 64, 47, 0 } }) {
        SCOPED_TRACE("rotation " + std::to_string(rotation));
        TestPipeline pipeline(
            std::string(kSmallBgra) + "drop-frames=true output-rotation=" + std::to_string(rotation));
        ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
        GstPtr<GstElement> sink = pipeline.Element("display_sink");
        auto count = [&](const char* counter) {
            guint64 value = 0;
            g_object_get(sink.get(), counter, &value, nullptr);
            return value;
        };
        // Pushes a frame of the byte, white in its top-left pixel, then waits (bounded) until the sink took
        // it.
        auto push = [&](guint8 fill, guint64 taken) {
            GstBuffer* frame = gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr);
            gst_buffer_memset(frame, 0, fill, 64 * 48 * 4);
            gst_buffer_memset(frame, 0, 0xff, 4);
            pipeline.Push("in", frame);
            for (int tries = 0; tries < 500 && count("frames-shown") + count("frames-dropped") < taken;
                 ++tries)
                g_usleep(10000);
        };
        push(0xff, 1);
        EXPECT_EQ(count("frames-dropped"), 1u);
        EXPECT_EQ(FramesShown(sink.get()), 0u);
        EXPECT_FALSE(LastSample(sink.get()));
        g_object_set(sink.get(), "drop-frames", FALSE, nullptr);
        push(0, 2); // black but the marked pixel
        EXPECT_EQ(FramesShown(sink.get()), 1u);
        g_object_set(sink.get(), "drop-frames", TRUE, nullptr);
        push(0xff, 3);
        pipeline.EndOfStream("in");
        ASSERT_TRUE(pipeline.WaitForEos()) << pipeline.Error();
        EXPECT_EQ(FramesShown(sink.get()), 1u);
        EXPECT_EQ(count("frames-dropped"), 2u);

        GstSamplePtr last = LastSample(sink.get());
        ASSERT_TRUE(last);
        GstVideoInfo info;
        ASSERT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(last.get())));
        EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), width);
        EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), height);
        const std::vector<guint8> shown = SampleBytes(last.get());
        const size_t stride = static_cast<size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
        EXPECT_EQ(shown.at(white_y * stride + white_x * 4), 0xff);
        EXPECT_EQ(shown[0], rotation == 0 ? 0xff : 0);
    }
}
