// The JPEG encoders for the live stream and for small stills: settings and the pictures they publish.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "live_stream.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/jpeg_encode_pipeline.h"
#include "pipelines/mjpeg_encode_pipeline.h"

using PipelineHarness::Consumer;
using PipelineHarness::DescribedPipeline;
using VideoDaemon::GstSamplePtr;
using VideoDaemon::JpegEncodePipeline;
using VideoDaemon::MjpegEncodePipeline;

namespace
{

// A live picture, `encoder` listening to it and a consumer of the encoder, all playing.
struct EncodedPicture {
    VideoDaemon::Pipeline& encoder;
    DescribedPipeline picture;
    Consumer consumer;

    EncodedPicture(VideoDaemon::Pipeline& to_encode, const std::string& pattern, const std::string& name)
        : encoder(to_encode)
        , picture(LivePicture(pattern, name + "_picture"))
        , consumer(name + "_out")
    {
        EXPECT_TRUE(picture.Launch(false, true, false) && encoder.Launch(true, true, true)
            && encoder.ListenTo(&picture, "", "") && consumer.Launch(false, true, false)
            && consumer.ListenTo(&encoder, "", ""));
        EXPECT_EQ(0, consumer.SetState(GST_STATE_PLAYING, 0));
        EXPECT_EQ(0, encoder.SetState(GST_STATE_PLAYING, 0));
        EXPECT_EQ(0, picture.SetState(GST_STATE_PLAYING, 0));
    }
    ~EncodedPicture()
    {
        picture.SetState(GST_STATE_NULL);
        encoder.SetState(GST_STATE_NULL);
        consumer.SetState(GST_STATE_NULL);
    }

    // The next published JPEG, or an empty one.
    std::vector<uint8_t> Next()
    {
        GstSamplePtr sample(consumer.Pull());
        return sample ? GstTest::SampleBytes(sample.get()) : std::vector<uint8_t> {};
    }
};

} // namespace

TEST(MjpegEncodePipeline, PublishesExifTaggedJpegFramesOfTheLivePictureCountsThemAndClampsTheQuality)
{
    LogCapture log;
    MjpegEncodePipeline mjpeg;
    mjpeg.SetQuality(50);
    EXPECT_EQ(0, mjpeg.GetQuality());
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::MjpegEncodePipeline::SetQuality(int): pipeline == NULL (mjpeg_enc)"));
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "int VideoDaemon::MjpegEncodePipeline::GetQuality() const: pipeline == NULL (mjpeg_enc)"));

    EncodedPicture encoded(mjpeg, "green", "mjpeg_test");
    const std::vector<uint8_t> jpeg = encoded.Next();
    static const std::string exif("Exif");
    EXPECT_NE(jpeg.end(), std::search(jpeg.begin(), jpeg.end(), exif.begin(), exif.end()));
    MediaTest::Picture decoded = MediaTest::DecodeJpeg(jpeg);
    EXPECT_EQ(640, decoded.width);
    EXPECT_EQ(480, decoded.height);
    EXPECT_GT(decoded.Mean(1), 200);
    EXPECT_LT(decoded.Mean(0), 60);
    // The frame-rate probe on the interpipe sink counts the frames.
    PipelineHarness::RunMainLoopFor(1500);
    EXPECT_GT(mjpeg.GetProbeRates().at("mjpeg"), 0u);

    const std::pair<int, int> cases[]
        = { { 0, 1 }, { -5, 1 }, { 1, 1 }, { 99, 99 }, { 100, 100 }, { 150, 100 } };
    for (const auto& [requested, applied] : cases) {
        mjpeg.SetQuality(requested);
        EXPECT_EQ(applied, mjpeg.GetQuality()) << requested;
    }
}

TEST(
    JpegEncodePipeline, SaysOnStandardOutputWhenTheCapsFilterIsMissingAndPublishesStillsAt320x240UntilResized)
{
    LogCapture log;
    JpegEncodePipeline jpeg;
    testing::internal::CaptureStdout();
    jpeg.SetImageSize(160, 120);
    EXPECT_EQ("Failed to get element\n", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::JpegEncodePipeline::SetImageSize(uint32_t, uint32_t): pipeline == NULL "
        "(jpeg_image_caps)"));

    EncodedPicture encoded(jpeg, "blue", "jpeg_test");
    MediaTest::Picture decoded = MediaTest::DecodeJpeg(encoded.Next());
    EXPECT_EQ(320, decoded.width);
    EXPECT_EQ(240, decoded.height);
    EXPECT_GT(decoded.Mean(2), 200);

    jpeg.SetImageSize(160, 120);
    bool resized = false;
    for (int i = 0; i < 30 && !resized; i++) {
        decoded = MediaTest::DecodeJpeg(encoded.Next());
        resized = decoded.width == 160 && decoded.height == 120;
    }
    EXPECT_TRUE(resized);
}
