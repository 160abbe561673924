// The JPEG encoder stand-in: real JPEG pictures whose quality follows "quality-factor".
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

#include <tuple>
#include <vector>

using namespace GstTest;

TEST(ImxVpuEncMjpeg, WritesJpegPicturesThatAnIndependentReaderDecodesLargerForAHigherQualityFactor)
{
    TempDir dir;
    std::vector<std::uintmax_t> sizes;
    for (const guint quality : { 10u, 85u, 95u }) {
        // The snapshot chain (without its valve), writing one picture.
        TestPipeline pipeline("videotestsrc num-buffers=1 pattern=smpte ! video/x-raw, format=BGRA,width=640,"
                              "height=480 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter "
                              "name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! "
                              "imxvpuenc_mjpeg name=jpeg_encoder quality-factor="
            + std::to_string(quality) + " ! multifilesink name=snapshotSink post-messages=true location="
            + dir.File(std::to_string(quality) + ".jpeg"));
        ASSERT_TRUE(pipeline.Parsed() && pipeline.RunToEos()) << pipeline.Error();
        sizes.push_back(FileSize(dir.File(std::to_string(quality) + ".jpeg")));
    }
    EXPECT_LT(sizes[0], sizes[1]);
    EXPECT_LT(sizes[1], sizes[2]);
    EXPECT_GT(sizes[2], 2 * sizes[0]);
    // The daemon's setting.
    auto stream = FfprobeEntries(dir.File("85.jpeg"), "stream=codec_name,width,height");
    EXPECT_EQ(stream["codec_name"] + " " + stream["width"] + "x" + stream["height"], "mjpeg 640x480");
    EXPECT_TRUE(FfmpegDecodesCleanly(dir.File("85.jpeg")));
}

TEST(ImxVpuEncMjpeg, SnapshotChainFollowsANewPictureSizeWhilePlaying)
{
    TestPipeline pipeline(
        "appsrc name=in format=time caps=video/x-raw,format=BGRA,width=640,height=480,"
        "framerate=30/1 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter "
        "name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! imxvpuenc_mjpeg "
        "name=jpeg_encoder quality-factor=85 ! jpegdec ! appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
    for (const auto& [index, width, height] : { std::tuple { 0, 640, 480 }, { 1, 160, 120 } }) {
        if (index == 1) {
            g_autoptr(GstCaps) thumbnail
                = gst_caps_from_string("video/x-raw,format=I420,width=160,height=120");
            pipeline.Set("jpeg_image_caps", "caps", thumbnail);
        }
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 640 * 480 * 4, nullptr);
        gst_buffer_memset(frame, 0, 0x80, 640 * 480 * 4);
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        ASSERT_TRUE(pipeline.Push("in", frame));
        GstSamplePtr picture = pipeline.Pull("out");
        GstVideoInfo info;
        ASSERT_TRUE(picture && gst_video_info_from_caps(&info, gst_sample_get_caps(picture.get())));
        EXPECT_EQ(GST_VIDEO_INFO_WIDTH(&info), width);
        EXPECT_EQ(GST_VIDEO_INFO_HEIGHT(&info), height);
    }
}
