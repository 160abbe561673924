// The JPEG encoder stand-in: real JPEG pictures whose quality follows "quality-factor".
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// The snapshot chain (without its valve), writing one picture.
std::string SnapshotTo(const std::string& path, guint quality)
{
    return "videotestsrc num-buffers=1 pattern=smpte ! video/x-raw, format=BGRA,width=640,height=480 ! "
           "imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter name=jpeg_image_caps "
           "caps=video/x-raw,format=I420,width=640,height=480 ! imxvpuenc_mjpeg name=jpeg_encoder "
           "quality-factor="
        + std::to_string(quality) + " ! multifilesink name=snapshotSink post-messages=true location=" + path;
}

} // namespace

TEST(ImxVpuEncMjpeg, WritesAJpegPictureThatAnIndependentReaderDecodes)
{
    TempDir dir;
    const std::string picture = dir.File("snapshot.jpeg");
    TestPipeline pipeline(SnapshotTo(picture, 85));
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();
    auto stream = FfprobeEntries(picture, "stream=codec_name,width,height");
    EXPECT_EQ(stream["codec_name"], "mjpeg");
    EXPECT_EQ(stream["width"], "640");
    EXPECT_EQ(stream["height"], "480");
    // Decodes to the end without complaint.
    EXPECT_TRUE(FfmpegDecodesCleanly(picture));
}

TEST(ImxVpuEncMjpeg, HigherQualityFactorGivesALargerPicture)
{
    TempDir dir;
    TestPipeline low(SnapshotTo(dir.File("coarse.jpeg"), 10));
    ASSERT_TRUE(low.RunToEos()) << low.Error();
    TestPipeline high(SnapshotTo(dir.File("fine.jpeg"), 95));
    ASSERT_TRUE(high.RunToEos()) << high.Error();
    EXPECT_GT(FileSize(dir.File("fine.jpeg")), 2 * FileSize(dir.File("coarse.jpeg")));
}

TEST(ImxVpuEncMjpeg, SnapshotChainFollowsANewPictureSizeWhilePlaying)
{
    TestPipeline pipeline(
        "appsrc name=in format=time caps=video/x-raw,format=BGRA,width=640,height=480,"
        "framerate=30/1 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter "
        "name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! imxvpuenc_mjpeg "
        "name=jpeg_encoder quality-factor=85 ! jpegdec ! appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.Start());
    // Width * 10000 + height of the picture encoded from one frame.
    auto picture_size = [&](int index) {
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 640 * 480 * 4, nullptr);
        gst_buffer_memset(frame, 0, 0x80, 640 * 480 * 4);
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        EXPECT_TRUE(pipeline.Push("in", frame));
        SamplePtr picture = pipeline.Pull("out");
        GstVideoInfo info;
        if (!picture || !gst_video_info_from_caps(&info, gst_sample_get_caps(picture.get())))
            return 0;
        return GST_VIDEO_INFO_WIDTH(&info) * 10000 + GST_VIDEO_INFO_HEIGHT(&info);
    };
    EXPECT_EQ(picture_size(0), 640 * 10000 + 480);
    g_autoptr(GstCaps) thumbnail = gst_caps_from_string("video/x-raw,format=I420,width=160,height=120");
    pipeline.Set("jpeg_image_caps", "caps", thumbnail);
    EXPECT_EQ(picture_size(1), 160 * 10000 + 120);
}
