// The display stand-in: what it shows, what it drops, and its panel settings.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

guint64 FramesShown(GstElement* sink)
{
    guint64 shown = 0;
    g_object_get(sink, "frames-shown", &shown, nullptr);
    return shown;
}

SamplePtr LastSample(GstElement* sink)
{
    GstSample* sample = nullptr;
    g_object_get(sink, "last-sample", &sample, nullptr);
    return SamplePtr(sample);
}

// Feeds the display pipeline's tail with `count` frames from a test source.
std::string DisplayTail(int count, const std::string& extra)
{
    return "videotestsrc num-buffers=" + std::to_string(count)
        + " ! video/x-raw, format=BGRA,width=640,height=480,framerate=30000/1001 ! queue name=display_queue "
          "max-size-buffers=2 ! imxipuvideotransform name=video_transform_display ! imxipuvideosink "
          "name=display_sink qos=false use-vsync=true sync=false force-aspect-ratio=false "
        + extra;
}

} // namespace

TEST(ImxIpuVideoSink, CountsTheFramesItShowsAndKeepsTheLastOne)
{
    TestPipeline pipeline(DisplayTail(12, ""));
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();
    EXPECT_EQ(FramesShown(pipeline.Element("display_sink").get()), 12u);

    SamplePtr last = LastSample(pipeline.Element("display_sink").get());
    ASSERT_TRUE(last);
    GstVideoInfo info;
    ASSERT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(last.get())));
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_BGRA);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), 640);
    GstBuffer* buffer = gst_sample_get_buffer(last.get());
    EXPECT_EQ(gst_buffer_get_size(buffer), 640u * 480u * 4u);
    EXPECT_EQ(GST_BUFFER_PTS(buffer), gst_util_uint64_scale_int(11 * GST_SECOND, 1001, 30000));
}

TEST(ImxIpuVideoSink, DropFramesTakesFramesWithoutShowingThemAndCanBeSwitchedWhilePlaying)
{
    TestPipeline pipeline("appsrc name=in format=time caps=video/x-raw,format=BGRA,width=64,height=48,"
                          "framerate=30/1 ! imxipuvideosink name=display_sink sync=false drop-frames=true");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.Start());
    ObjectPtr<GstElement> owned = pipeline.Element("display_sink");
    GstElement* sink = owned.get();
    guint64 pushed = 0;
    auto push = [&](int count, guint64 expected_shown) {
        for (int i = 0; i < count; ++i)
            pipeline.Push("in", gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr));
        pushed += static_cast<guint64>(count);
        // Bounded wait until the sink has taken every frame, shown or dropped.
        guint64 dropped = 0;
        for (int tries = 0; tries < 500; ++tries) {
            g_object_get(sink, "frames-dropped", &dropped, nullptr);
            if (FramesShown(sink) + dropped == pushed)
                break;
            g_usleep(10000);
        }
        EXPECT_EQ(FramesShown(sink), expected_shown);
        EXPECT_EQ(FramesShown(sink) + dropped, pushed);
    };
    push(2, 0);
    EXPECT_FALSE(LastSample(sink));
    g_object_set(sink, "drop-frames", FALSE, nullptr);
    push(3, 3);
    g_object_set(sink, "drop-frames", TRUE, nullptr);
    push(4, 3);
    g_object_set(sink, "drop-frames", FALSE, nullptr);
    push(2, 5);
    pipeline.EndOfStream("in");
    EXPECT_TRUE(pipeline.WaitForEos()) << pipeline.Error();
    EXPECT_EQ(FramesShown(sink), 5u);
}

TEST(ImxIpuVideoSink, ShowsADecodedStillPictureWithOutputRotationFive)
{
    TempDir dir;
    const std::string picture = dir.File("still.jpg");
    TestPipeline encode(
        "videotestsrc num-buffers=1 ! video/x-raw,width=320,height=240 ! jpegenc ! filesink location="
        + picture);
    ASSERT_TRUE(encode.RunToEos()) << encode.Error();
    TestPipeline pipeline("filesrc name=jpeg_playback_source location=" + picture
        + " ! jpegdec ! imxipuvideosink name=jpeg_playback_sink output-rotation=5");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();
    EXPECT_EQ(FramesShown(pipeline.Element("jpeg_playback_sink").get()), 1u);
}

TEST(ImxIpuVideoSink, LastSampleIsThePictureAsTheRotatedPanelShowsIt)
{
    // 64x48 BGRA, white in its top-left pixel only.
    auto frame = [] {
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr);
        gst_buffer_memset(buffer, 0, 0, 64 * 48 * 4);
        gst_buffer_memset(buffer, 0, 0xff, 4);
        return buffer;
    };
    struct Case {
        gint rotation;
        int width, height, white_x, white_y;
    };
    const Case cases[]
        = { { 0, 64, 48, 0, 0 }, { 5, 64, 48, 0, 47 }, { 2, 64, 48, 63, 47 }, { 1, 48, 64, 47, 0 } };
    for (const Case& c : cases) {
        TestPipeline pipeline("appsrc name=in format=time caps=video/x-raw,format=BGRA,width=64,height=48,"
                              "framerate=30/1 ! imxipuvideosink name=display_sink sync=false output-rotation="
            + std::to_string(c.rotation));
        ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
        ASSERT_TRUE(pipeline.Start());
        pipeline.Push("in", frame());
        pipeline.EndOfStream("in");
        ASSERT_TRUE(pipeline.WaitForEos()) << pipeline.Error();

        SamplePtr last = LastSample(pipeline.Element("display_sink").get());
        ASSERT_TRUE(last);
        GstVideoInfo info;
        ASSERT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(last.get())));
        EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), c.width) << "rotation " << c.rotation;
        EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), c.height) << "rotation " << c.rotation;
        GstMapInfo map;
        ASSERT_TRUE(gst_buffer_map(gst_sample_get_buffer(last.get()), &map, GST_MAP_READ));
        const gsize stride = static_cast<gsize>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
        const guint8 white = map.data[c.white_y * stride + c.white_x * 4];
        const guint8 corner = map.data[0];
        gst_buffer_unmap(gst_sample_get_buffer(last.get()), &map);
        EXPECT_EQ(white, 0xff) << "rotation " << c.rotation;
        if (c.rotation != 0) {
            EXPECT_EQ(corner, 0) << "rotation " << c.rotation;
        }
    }
}
