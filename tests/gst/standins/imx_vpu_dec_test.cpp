// The decoder stand-in: JPEG and H.264 back to raw pictures.
#include <gtest/gtest.h>

#include "support/gst_test_pipeline.h"

#include <numeric>

using namespace GstTest;

namespace
{

// Mean of the luma plane of a 640x480 I420 sample.
double MeanLuma(GstSample* sample)
{
    const std::vector<guint8> bytes = SampleBytes(sample);
    return bytes.size() == 640 * 480 * 3 / 2
        ? std::accumulate(bytes.begin(), bytes.begin() + 640 * 480, 0.0) / (640 * 480)
        : -1;
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
