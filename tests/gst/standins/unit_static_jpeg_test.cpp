// The tarnwell-static-jpeg stand-in: frames replaced by the file's picture, or a built-in one with a warning.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

const std::string kJpegFrames = "videotestsrc num-buffers=10 pattern=ball ! "
                                "video/x-raw,width=320,height=240,framerate=30/1 ! jpegenc ! ";

} // namespace

TEST(StaticJpeg, ReplacesEveryFrameWithThePictureAndKeepsTheTimestamps)
{
    TempDir dir;
    const std::string picture = dir.File("logo.jpg");
    TestPipeline writer("videotestsrc num-buffers=1 pattern=smpte ! video/x-raw,width=320,height=240 ! "
                        "jpegenc ! filesink location="
        + picture);
    ASSERT_TRUE(writer.RunToEos()) << writer.Error();
    g_autofree gchar* contents = nullptr;
    gsize length = 0;
    ASSERT_TRUE(g_file_get_contents(picture.c_str(), &contents, &length, nullptr));
    const std::vector<guint8> pictureBytes(contents, contents + length);

    TestPipeline pipeline(kJpegFrames + "tarnwell-static-jpeg name=logo silent=true location=" + picture
        + " ! appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    GstPtr<GstElement> logo = pipeline.Element("logo");
    std::vector<GstClockTime> inputTimes;
    std::vector<std::vector<guint8>> inputBytes;
    BufferProbe inputProbe(logo.get(), "sink", [&](GstBuffer* buffer) {
        if (inputTimes.size() == 5) // switched on while running
            g_object_set(logo.get(), "silent", FALSE, nullptr);
        inputTimes.push_back(GST_BUFFER_PTS(buffer));
        inputBytes.push_back(BufferBytes(buffer));
    });
    ASSERT_TRUE(pipeline.Play());
    const std::vector<GstSamplePtr> samples = pipeline.PullAll("out");

    ASSERT_EQ(samples.size(), 10u);
    ASSERT_EQ(inputTimes.size(), 10u);
    for (size_t i = 0; i < samples.size(); ++i) {
        GstBuffer* buffer = gst_sample_get_buffer(samples[i].get());
        EXPECT_EQ(GST_BUFFER_PTS(buffer), inputTimes[i]) << "frame " << i;
        EXPECT_EQ(BufferBytes(buffer), i < 5 ? inputBytes[i] : pictureBytes) << "frame " << i;
    }
}

TEST(StaticJpeg, ShowsABuiltInPictureWithAWarningWhenTheFileCannotBeRead)
{
    TempDir dir;
    TestPipeline pipeline(kJpegFrames
        + "tarnwell-static-jpeg name=logo silent=false location=" + dir.File("missing.jpg")
        + " ! jpegdec ! video/x-raw,format=I420,width=320,height=240 ! appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.Play()) << pipeline.Error();

    GstMessagePtr warning
        = pipeline.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR));
    ASSERT_NE(warning, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(warning.get()), GST_MESSAGE_WARNING);
    EXPECT_STREQ(GST_OBJECT_NAME(GST_MESSAGE_SRC(warning.get())), "logo");

    // The moving input is gone: every frame decodes to the same picture of the stream's size
    // (the caps filter holds the size).
    const std::vector<GstSamplePtr> samples = pipeline.PullAll("out");
    ASSERT_EQ(samples.size(), 10u);
    for (const GstSamplePtr& sample : samples)
        EXPECT_EQ(SampleBytes(sample.get()), SampleBytes(samples.front().get()));
}
