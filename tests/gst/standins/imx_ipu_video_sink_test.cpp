// The display stand-in: what it shows, what it drops, and its panel settings.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

#include <tuple>

using namespace GstTest;

namespace
{

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

TEST(ImxIpuVideoSink, DropFramesTakesFramesWithoutShowingThemAndCanBeSwitchedWhilePlaying)
{
    TestPipeline pipeline(std::string(kSmallBgra) + "drop-frames=true");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
    GstPtr<GstElement> owned = pipeline.Element("display_sink");
    GstElement* sink = owned.get();
    // Frames pushed with "drop-frames" as given, and how many the sink has shown after them.
    guint64 pushed = 0;
    for (auto [drop, count, shown] :
        { std::tuple { TRUE, 2, 0u }, { FALSE, 3, 3u }, { TRUE, 4, 3u }, { FALSE, 2, 5u } }) {
        g_object_set(sink, "drop-frames", drop, nullptr);
        for (int i = 0; i < count; ++i)
            pipeline.Push("in", gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr));
        pushed += static_cast<guint64>(count);
        // Bounded wait until the sink has taken every frame, shown or dropped.
        guint64 dropped = 0;
        for (int tries = 0; tries < 500 && FramesShown(sink) + dropped != pushed; ++tries) {
            g_usleep(10000);
            g_object_get(sink, "frames-dropped", &dropped, nullptr);
        }
        EXPECT_EQ(FramesShown(sink) + dropped, pushed) << "after " << pushed;
        EXPECT_EQ(FramesShown(sink), shown) << "after " << pushed;
        EXPECT_EQ(LastSample(sink) != nullptr, shown > 0) << "after " << pushed;
    }
    pipeline.EndOfStream("in");
    EXPECT_TRUE(pipeline.WaitForEos()) << pipeline.Error();
    EXPECT_EQ(FramesShown(sink), 5u);
}

TEST(ImxIpuVideoSink, LastSampleIsThePictureAsTheRotatedPanelShowsIt)
{
    for (auto [rotation, width, height, white_x, white_y] : { std::tuple { 0, 64, 48, 0, 0 },
             { 5, 64, 48, 0, 47 }, { 2, 64, 48, 63, 47 }, { 1, 48, 64, 47, 0 } }) {
        SCOPED_TRACE("rotation " + std::to_string(rotation));
        TestPipeline pipeline(std::string(kSmallBgra) + "output-rotation=" + std::to_string(rotation));
        ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
        // Black, white in its top-left pixel only.
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 64 * 48 * 4, nullptr);
        gst_buffer_memset(frame, 0, 0, 64 * 48 * 4);
        gst_buffer_memset(frame, 0, 0xff, 4);
        pipeline.Push("in", frame);
        pipeline.EndOfStream("in");
        ASSERT_TRUE(pipeline.WaitForEos()) << pipeline.Error();

        GstSamplePtr last = LastSample(pipeline.Element("display_sink").get());
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
