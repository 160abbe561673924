// The decoder stand-in: JPEG and H.264 back to raw pictures.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// Mean of the luma plane of an I420 sample.
double MeanLuma(GstSample* sample)
{
    GstVideoInfo info;
    gst_video_info_from_caps(&info, gst_sample_get_caps(sample));
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ))
        return -1;
    double sum = 0;
    const auto* plane = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    for (int y = 0; y < GST_VIDEO_INFO_HEIGHT(&info); ++y)
        for (int x = 0; x < GST_VIDEO_INFO_WIDTH(&info); ++x)
            sum += plane[y * stride + x];
    gst_video_frame_unmap(&frame);
    return sum / (GST_VIDEO_INFO_WIDTH(&info) * GST_VIDEO_INFO_HEIGHT(&info));
}

} // namespace

TEST(ImxVpuDec, DecodesEveryJpegAndH264FrameToI420CloseToTheOriginal)
{
    for (const char* encoder : { "jpegenc quality=90 ! image/jpeg, width=640,height=480,framerate=30000/1001",
             "imxvpuenc_h264 quant-param=20 ! h264parse ! video/x-h264,stream-format=avc,alignment=au" }) {
        TestPipeline pipeline(
            std::string("videotestsrc num-buffers=10 pattern=smpte ! video/x-raw,format=I420,"
                        "width=640,height=480,framerate=30000/1001 ! tee name=t t. ! queue ! "
                        "appsink name=original sync=false wait-on-eos=false max-buffers=20 "
                        "t. ! queue ! ")
            + encoder
            + " ! imxvpudec ! video/x-raw, format=I420,width=640,height=480 ! appsink name=decoded "
              "sync=false wait-on-eos=false max-buffers=20");
        ASSERT_TRUE(pipeline.Parsed() && pipeline.RunToEos()) << pipeline.Error();
        SamplePtr original = pipeline.Pull("original", GST_SECOND);
        std::vector<SamplePtr> decoded = pipeline.PullAll("decoded");
        ASSERT_TRUE(original) << encoder;
        ASSERT_EQ(decoded.size(), 10u) << encoder;
        EXPECT_NEAR(MeanLuma(decoded.front().get()), MeanLuma(original.get()), 2.0) << encoder;
    }
}
