// The decoder stand-in: JPEG and H.264 back to raw pictures in the format they are coded in.
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
        GstSamplePtr original = pipeline.Pull("original", GST_SECOND);
        std::vector<GstSamplePtr> decoded = pipeline.PullAll("decoded");
        ASSERT_TRUE(original) << encoder;
        ASSERT_EQ(decoded.size(), 10u) << encoder;
        EXPECT_NEAR(MeanLuma(decoded.front().get()), MeanLuma(original.get()), 2.0) << encoder;
    }
}

TEST(ImxVpuDec, HandsOutTheStreamsOwnRawFormatAndFailsWhereDownstreamRefusesIt)
{
    struct Row {
        const char* stream; // ends in the coded stream
        const char* downstream; // caps downstream accepts
        const char* format; // what comes out, nullptr for a negotiation error
    };
    const Row rows[] = {
        { "video/x-raw,format=I420 ! jpegenc", "video/x-raw", "I420" },
        { "video/x-raw,format=Y42B ! jpegenc", "video/x-raw", "Y42B" },
        { "video/x-raw,format=GRAY8 ! jpegenc", "video/x-raw", "GRAY8" },
        { "video/x-raw,format=I420 ! imxvpuenc_h264 quant-param=24 ! h264parse", "video/x-raw", "I420" },
        { "video/x-raw,format=Y42B ! jpegenc", "video/x-raw,format=I420", nullptr },
        { "video/x-raw,format=I420 ! jpegenc", "video/x-raw,format=GRAY8", nullptr },
        { "video/x-raw,format=I420 ! imxvpuenc_h264 quant-param=24 ! h264parse", "video/x-raw,format=Y444",
            nullptr },
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.stream) + " into " + row.downstream);
        TestPipeline pipeline(std::string("videotestsrc num-buffers=3 ! ") + row.stream + " ! imxvpudec ! "
            + row.downstream + " ! appsink name=decoded sync=false wait-on-eos=false");
        ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
        const bool ended = pipeline.RunToEos();
        if (!row.format) {
            EXPECT_FALSE(ended);
            EXPECT_NE(pipeline.Error().find("not-negotiated"), std::string::npos) << pipeline.Error();
            continue;
        }
        ASSERT_TRUE(ended) << pipeline.Error();
        GstSamplePtr sample = pipeline.Pull("decoded");
        ASSERT_TRUE(sample);
        const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
        EXPECT_STREQ(gst_structure_get_string(caps, "format"), row.format);
    }
}
