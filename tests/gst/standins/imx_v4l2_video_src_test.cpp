// The capture stand-in on real pipelines: caps, crop metadata, a moving live picture.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

#include <string>

using namespace GstTest;

namespace
{

const char* kNtscCapture = "imxv4l2videosrc name=camera_input_source fps=30000/1001 crop-meta-x=24 "
                           "crop-meta-width=672 crop-meta-y=24 crop-meta-height=504 do-timestamp=true ! "
                           "video/x-raw, format=UYVY,width=720,height=504,framerate=30000/1001, "
                           "interlace-mode=interleaved,device-mode=interleaved ! ";
const char* kPalCapture = "imxv4l2videosrc name=pal_camera_input_source fps=25/1 crop-meta-x=28 "
                          "crop-meta-width=692 crop-meta-y=28 crop-meta-height=576 do-timestamp=true ! "
                          "video/x-raw, format=UYVY,width=720,height=576,framerate=25/1, "
                          "interlace-mode=interleaved,device-mode=interleaved ! ";

} // namespace

TEST(ImxV4l2VideoSrc, DeliversInterlacedUyvyWithTheCropWindowAsMetadata)
{
    struct Case {
        const char* capture;
        int height;
        int fps_n, fps_d;
        guint crop_x, crop_y, crop_width, crop_height;
    };
    // The windows reach past the bottom edge; the metadata keeps them inside the frame.
    const Case cases[] = { { kNtscCapture, 504, 30000, 1001, 24, 24, 672, 480 },
        { kPalCapture, 576, 25, 1, 28, 28, 692, 548 } };
    for (const Case& c : cases) {
        TestPipeline pipeline(std::string(c.capture) + "appsink name=out max-buffers=2 sync=false");
        ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
        ASSERT_TRUE(pipeline.Start());
        SamplePtr sample = pipeline.Pull("out");
        ASSERT_TRUE(sample);

        GstVideoInfo info;
        ASSERT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get())));
        EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_UYVY);
        EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), 720);
        EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), c.height);
        EXPECT_EQ(GST_VIDEO_INFO_FPS_N(&info), c.fps_n);
        EXPECT_EQ(GST_VIDEO_INFO_FPS_D(&info), c.fps_d);
        EXPECT_EQ(GST_VIDEO_INFO_INTERLACE_MODE(&info), GST_VIDEO_INTERLACE_MODE_INTERLEAVED);

        GstBuffer* buffer = gst_sample_get_buffer(sample.get());
        const GstVideoCropMeta* crop = gst_buffer_get_video_crop_meta(buffer);
        ASSERT_NE(crop, nullptr);
        EXPECT_EQ(crop->x, c.crop_x);
        EXPECT_EQ(crop->y, c.crop_y);
        EXPECT_EQ(crop->width, c.crop_width);
        EXPECT_EQ(crop->height, c.crop_height);
        EXPECT_EQ(gst_buffer_get_size(buffer), GST_VIDEO_INFO_SIZE(&info));
    }
}

TEST(ImxV4l2VideoSrc, IsLiveAndItsPictureMovesFromFrameToFrame)
{
    TestPipeline pipeline(std::string(kNtscCapture) + "appsink name=out max-buffers=4 sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    EXPECT_EQ(gst_element_set_state(pipeline.Get(), GST_STATE_PAUSED), GST_STATE_CHANGE_NO_PREROLL);
    ASSERT_TRUE(pipeline.Start());

    SamplePtr first = pipeline.Pull("out");
    SamplePtr second = pipeline.Pull("out");
    ASSERT_TRUE(first);
    ASSERT_TRUE(second);
    EXPECT_NE(SampleBytes(first.get()), SampleBytes(second.get()));

    GstBuffer* a = gst_sample_get_buffer(first.get());
    GstBuffer* b = gst_sample_get_buffer(second.get());
    ASSERT_TRUE(GST_BUFFER_PTS_IS_VALID(a));
    ASSERT_TRUE(GST_BUFFER_PTS_IS_VALID(b));
    EXPECT_GT(GST_BUFFER_PTS(b), GST_BUFFER_PTS(a));
    EXPECT_EQ(GST_BUFFER_DURATION(a), gst_util_uint64_scale_int(GST_SECOND, 1001, 30000));
    EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(a, GST_VIDEO_BUFFER_FLAG_INTERLACED));
}

TEST(ImxV4l2VideoSrc, CameraChainDeliversProgressiveRgbaAt640x480)
{
    TestPipeline pipeline(std::string(kNtscCapture)
        + "queue name=vbi_queue leaky=downstream max-size-buffers=1 ! imxipuvideotransform "
          "name=camera_input_transform deinterlace=true input-crop=true ! video/x-raw, "
          "format=RGBA,width=640,height=480 ! appsink name=out max-buffers=2 sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.Start());
    SamplePtr sample = pipeline.Pull("out");
    ASSERT_TRUE(sample);
    GstVideoInfo info;
    ASSERT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get())));
    EXPECT_EQ(GST_VIDEO_INFO_FORMAT(&info), GST_VIDEO_FORMAT_RGBA);
    EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), 640);
    EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), 480);
    EXPECT_EQ(GST_VIDEO_INFO_INTERLACE_MODE(&info), GST_VIDEO_INTERLACE_MODE_PROGRESSIVE);
}
