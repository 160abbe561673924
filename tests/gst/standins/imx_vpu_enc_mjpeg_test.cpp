// The JPEG encoder stand-in: real JPEG pictures whose quality follows "quality-factor".
#include "imx_test_pipeline.h"

#include <gtest/gtest.h>

using namespace ImxTest;

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
    TempFile picture(".jpeg");
    TestPipeline pipeline(SnapshotTo(picture.Path(), 85));
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.ParseError();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();
    auto stream = ProbeAll(picture.Path(), "", "stream=codec_name,width,height");
    EXPECT_EQ(stream["codec_name"], "mjpeg");
    EXPECT_EQ(stream["width"], "640");
    EXPECT_EQ(stream["height"], "480");
    // Decodes to the end without complaint.
    EXPECT_EQ(RunCommand("ffmpeg -v error -i '" + picture.Path() + "' -f null - 2>&1"), "");
}

TEST(ImxVpuEncMjpeg, HigherQualityFactorGivesALargerPicture)
{
    TempFile coarse(".jpeg");
    TempFile fine(".jpeg");
    TestPipeline low(SnapshotTo(coarse.Path(), 10));
    ASSERT_TRUE(low.RunToEos()) << low.Error();
    TestPipeline high(SnapshotTo(fine.Path(), 95));
    ASSERT_TRUE(high.RunToEos()) << high.Error();
    EXPECT_GT(FileSize(fine.Path()), 2 * FileSize(coarse.Path()));
}

TEST(ImxVpuEncMjpeg, QualityFactorRangesFromOneToHundredAndChangesWhilePlaying)
{
    gst_init(nullptr, nullptr);
    ElementPtr encoder(
        GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("imxvpuenc_mjpeg", nullptr))));
    ASSERT_TRUE(encoder);
    auto* param = G_PARAM_SPEC_UINT(
        g_object_class_find_property(G_OBJECT_GET_CLASS(encoder.get()), "quality-factor"));
    ASSERT_NE(param, nullptr);
    EXPECT_EQ(param->minimum, 1u);
    EXPECT_EQ(param->maximum, 100u);
    EXPECT_TRUE(G_PARAM_SPEC(param)->flags & GST_PARAM_MUTABLE_PLAYING);
    g_object_set(encoder.get(), "quality-factor", 42u, nullptr);
    guint quality = 0;
    g_object_get(encoder.get(), "quality-factor", &quality, nullptr);
    EXPECT_EQ(quality, 42u);
}

TEST(ImxVpuEncMjpeg, SnapshotChainFollowsANewPictureSizeWhilePlaying)
{
    TestPipeline pipeline(
        "appsrc name=in format=time caps=video/x-raw,format=BGRA,width=640,height=480,"
        "framerate=30/1 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter "
        "name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! imxvpuenc_mjpeg "
        "name=jpeg_encoder quality-factor=85 ! jpegdec ! appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.ParseError();
    ASSERT_NE(pipeline.Play(), GST_STATE_CHANGE_FAILURE);
    GstAppSrc* source = GST_APP_SRC(pipeline.Element("in"));
    // Width * 10000 + height of the picture encoded from one frame.
    auto picture_size = [&](int index) {
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 640 * 480 * 4, nullptr);
        gst_buffer_memset(frame, 0, 0x80, 640 * 480 * 4);
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        EXPECT_EQ(gst_app_src_push_buffer(source, frame), GST_FLOW_OK);
        SamplePtr picture = pipeline.Pull("out");
        GstVideoInfo info;
        if (!picture || !gst_video_info_from_caps(&info, gst_sample_get_caps(picture.get())))
            return 0;
        return GST_VIDEO_INFO_WIDTH(&info) * 10000 + GST_VIDEO_INFO_HEIGHT(&info);
    };
    EXPECT_EQ(picture_size(0), 640 * 10000 + 480);
    g_autoptr(GstCaps) thumbnail = gst_caps_from_string("video/x-raw,format=I420,width=160,height=120");
    g_object_set(pipeline.Element("jpeg_image_caps"), "caps", thumbnail, nullptr);
    EXPECT_EQ(picture_size(1), 160 * 10000 + 120);
}
