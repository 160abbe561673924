// The capture stand-in on real pipelines: caps, crop metadata, a moving live picture.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

#include <array>
#include <optional>
#include <string>

using namespace GstTest;

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
