// The JPEG encoders for the live stream and for small stills: descriptions, settings and the pictures they
// publish.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/jpeg_encode_pipeline.h"
#include "pipelines/mjpeg_encode_pipeline.h"

using PipelineHarness::Consumer;
using PipelineHarness::DescribedPipeline;
using PipelineHarness::ElementOf;
using PipelineHarness::RunMainLoopFor;
using PipelineHarness::SamplePtr;
using VideoDaemon::JpegEncodePipeline;
using VideoDaemon::MjpegEncodePipeline;

namespace
{

DescribedPipeline LivePicture(const std::string& sink_name, const std::string& pattern)
{
    return DescribedPipeline("videotestsrc is-live=true pattern=" + pattern
            + " ! video/x-raw,format=BGRA,width=640,height=480,framerate=30/1 ! interpipesink name="
            + sink_name + " sync=false async=false",
        sink_name);
}

std::vector<uint8_t> BytesOf(GstSample* sample)
{
    std::vector<uint8_t> data;
    GstBuffer* buffer = sample ? gst_sample_get_buffer(sample) : nullptr;
    if (!buffer)
        return data;
    data.resize(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, data.data(), data.size());
    return data;
}

bool HasExif(const std::vector<uint8_t>& jpeg)
{
    static const std::string exif("Exif");
    return std::search(jpeg.begin(), jpeg.end(), exif.begin(), exif.end()) != jpeg.end();
}

} // namespace

TEST(MjpegEncodePipeline, PublishesExifTaggedJpegFramesOfTheLivePicture)
{
    DescribedPipeline picture = LivePicture("mjpeg_test_picture", "green");
    ASSERT_TRUE(picture.Launch(false, true, false));
    MjpegEncodePipeline mjpeg;
    ASSERT_TRUE(mjpeg.Launch(true, true, true));
    ASSERT_TRUE(mjpeg.ListenTo(&picture, "", ""));
    Consumer consumer("mjpeg_test_out");
    ASSERT_TRUE(consumer.Launch(false, true, false));
    ASSERT_TRUE(consumer.ListenTo(&mjpeg, "", ""));

    ASSERT_EQ(0, consumer.SetState(GST_STATE_PLAYING, 0));
    ASSERT_EQ(0, mjpeg.SetState(GST_STATE_PLAYING, 0));
    ASSERT_EQ(0, picture.SetState(GST_STATE_PLAYING, 0));

    SamplePtr sample(consumer.Pull());
    ASSERT_TRUE(sample);
    EXPECT_EQ("image/jpeg", PipelineHarness::FormatOf(sample.get()).media_type);
    std::vector<uint8_t> jpeg = BytesOf(sample.get());
    EXPECT_TRUE(HasExif(jpeg));
    MediaTest::Picture decoded = MediaTest::DecodeJpeg(jpeg);
    EXPECT_EQ(640, decoded.width);
    EXPECT_EQ(480, decoded.height);
    EXPECT_GT(decoded.Mean(1), 200);
    EXPECT_LT(decoded.Mean(0), 60);

    // The frame-rate probe on the interpipe sink counts the frames.
    RunMainLoopFor(1500);
    EXPECT_GT(mjpeg.GetProbeRates().at("mjpeg"), 0u);
    EXPECT_EQ(1u, mjpeg.GetQueueStates().count("mjpeg_queue"));

    picture.SetState(GST_STATE_NULL);
    mjpeg.SetState(GST_STATE_NULL);
    consumer.SetState(GST_STATE_NULL);
}

TEST(MjpegEncodePipeline, ClampsTheQualityFactorToOneToHundred)
{
    MjpegEncodePipeline mjpeg;
    ASSERT_TRUE(mjpeg.Launch(false, false, false));
    const std::pair<int, int> cases[]
        = { { 0, 1 }, { -5, 1 }, { 1, 1 }, { 50, 50 }, { 99, 99 }, { 100, 100 }, { 150, 100 } };
    for (const auto& [requested, applied] : cases) {
        mjpeg.SetQuality(requested);
        EXPECT_EQ(applied, mjpeg.GetQuality()) << requested;
    }
}

TEST(MjpegEncodePipeline, NamesItsEndpointsAndLogsAMissingPipeline)
{
    LogCapture log;
    MjpegEncodePipeline mjpeg;
    EXPECT_EQ("mjpeg_encode_sink", mjpeg.GetSinkName());
    EXPECT_EQ("mjpeg_encode_source", mjpeg.GetSourceName());
    EXPECT_EQ(0, mjpeg.GetQueueStates().at("mjpeg_queue"));
    mjpeg.SetQuality(50);
    EXPECT_EQ(0, mjpeg.GetQuality());
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::MjpegEncodePipeline::SetQuality(int): pipeline == NULL (mjpeg_enc)"));
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "int VideoDaemon::MjpegEncodePipeline::GetQuality() const: pipeline == NULL (mjpeg_enc)"));
}

TEST(JpegEncodePipeline, PublishesStillsAt320x240UntilResized)
{
    DescribedPipeline picture = LivePicture("jpeg_test_picture", "blue");
    ASSERT_TRUE(picture.Launch(false, true, false));
    JpegEncodePipeline jpeg;
    EXPECT_EQ("jpeg_encode_sink", jpeg.GetSinkName());
    EXPECT_EQ("jpeg_encode_source", jpeg.GetSourceName());
    ASSERT_TRUE(jpeg.Launch(false, true, false));
    ASSERT_TRUE(jpeg.ListenTo(&picture, "", ""));
    Consumer consumer("jpeg_test_out");
    ASSERT_TRUE(consumer.Launch(false, true, false));
    ASSERT_TRUE(consumer.ListenTo(&jpeg, "", ""));
    ASSERT_EQ(0, consumer.SetState(GST_STATE_PLAYING, 0));
    ASSERT_EQ(0, jpeg.SetState(GST_STATE_PLAYING, 0));
    ASSERT_EQ(0, picture.SetState(GST_STATE_PLAYING, 0));

    SamplePtr sample(consumer.Pull());
    ASSERT_TRUE(sample);
    MediaTest::Picture decoded = MediaTest::DecodeJpeg(BytesOf(sample.get()));
    EXPECT_EQ(320, decoded.width);
    EXPECT_EQ(240, decoded.height);
    EXPECT_GT(decoded.Mean(2), 200);

    jpeg.SetImageSize(160, 120);
    bool resized = false;
    for (int i = 0; i < 30 && !resized; i++) {
        SamplePtr next(consumer.Pull());
        ASSERT_TRUE(next);
        MediaTest::Picture picture160 = MediaTest::DecodeJpeg(BytesOf(next.get()));
        resized = picture160.width == 160 && picture160.height == 120;
    }
    EXPECT_TRUE(resized);

    picture.SetState(GST_STATE_NULL);
    jpeg.SetState(GST_STATE_NULL);
    consumer.SetState(GST_STATE_NULL);
}

TEST(JpegEncodePipeline, SaysOnStandardOutputWhenTheCapsFilterIsMissing)
{
    LogCapture log;
    JpegEncodePipeline jpeg;
    testing::internal::CaptureStdout();
    jpeg.SetImageSize(160, 120);
    EXPECT_EQ("Failed to get element\n", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::JpegEncodePipeline::SetImageSize(uint32_t, uint32_t): pipeline == NULL "
        "(jpeg_image_caps)"));
}
