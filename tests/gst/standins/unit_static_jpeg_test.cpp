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

std::vector<guint8> ReadFile(const std::string& path)
{
    g_autofree gchar* contents = nullptr;
    gsize length = 0;
    if (!g_file_get_contents(path.c_str(), &contents, &length, nullptr))
        return {};
    return std::vector<guint8>(contents, contents + length);
}

// The decoded pictures of a pipeline ending in "appsink name=out".
std::vector<std::vector<guint8>> DecodedFrames(const std::string& description)
{
    TestPipeline pipeline(description);
    std::vector<std::vector<guint8>> frames;
    if (!pipeline.Parsed() || !pipeline.Play())
        return frames;
    for (const SamplePtr& sample : pipeline.PullAll("out"))
        frames.push_back(BufferBytes(gst_sample_get_buffer(sample.get())));
    return frames;
}

} // namespace

TEST(StaticJpeg, ReplacesEveryFrameWithThePictureAndKeepsTheTimestamps)
{
    TempDir dir;
    const std::string picture = dir.File("logo.jpg");
    TestPipeline writer(
        "videotestsrc num-buffers=1 pattern=smpte ! video/x-raw,width=320,height=240 ! jpegenc ! "
        "filesink location="
        + picture);
    ASSERT_TRUE(writer.Play());
    ASSERT_TRUE(writer.WaitForEos());
    const std::vector<guint8> pictureBytes = ReadFile(picture);
    ASSERT_FALSE(pictureBytes.empty());

    TestPipeline pipeline(kJpegFrames + "tarnwell-static-jpeg name=logo silent=true location=" + picture
        + " ! tee name=t t. ! queue ! appsink name=out sync=false "
          "t. ! queue ! jpegdec ! video/x-raw,format=I420 ! appsink name=decoded sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> logo = pipeline.Element("logo");
    std::vector<GstClockTime> inputTimes;
    std::vector<std::vector<guint8>> inputBytes;
    BufferProbe inputProbe(logo.get(), "sink", [&](GstBuffer* buffer) {
        if (inputTimes.size() == 5) // switched on while running
            g_object_set(logo.get(), "silent", FALSE, nullptr);
        inputTimes.push_back(GST_BUFFER_PTS(buffer));
        inputBytes.push_back(BufferBytes(buffer));
    });
    ASSERT_TRUE(pipeline.Play());
    const std::vector<SamplePtr> samples = pipeline.PullAll("out");
    const std::vector<SamplePtr> decoded = pipeline.PullAll("decoded");

    ASSERT_EQ(samples.size(), 10u);
    ASSERT_EQ(inputTimes.size(), 10u);
    for (size_t i = 0; i < samples.size(); ++i) {
        GstBuffer* buffer = gst_sample_get_buffer(samples[i].get());
        EXPECT_EQ(GST_BUFFER_PTS(buffer), inputTimes[i]) << "frame " << i;
        EXPECT_EQ(BufferBytes(buffer), i < 5 ? inputBytes[i] : pictureBytes) << "frame " << i;
    }
    const std::vector<std::vector<guint8>> reference = DecodedFrames(
        "filesrc location=" + picture + " ! jpegdec ! video/x-raw,format=I420 ! appsink name=out sync=false");
    ASSERT_EQ(reference.size(), 1u);
    ASSERT_EQ(decoded.size(), 10u);
    EXPECT_EQ(BufferBytes(gst_sample_get_buffer(decoded.back().get())), reference.front());
    EXPECT_NE(BufferBytes(gst_sample_get_buffer(decoded.front().get())), reference.front());
}

TEST(StaticJpeg, ShowsABuiltInPictureWithAWarningWhenTheFileCannotBeRead)
{
    TempDir dir;
    TestPipeline pipeline(kJpegFrames + "tarnwell-static-jpeg name=logo silent=false location="
        + dir.File("missing.jpg") + " ! jpegdec ! video/x-raw,format=I420 ! appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.Play());

    MessagePtr warning
        = pipeline.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR));
    ASSERT_NE(warning, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(warning.get()), GST_MESSAGE_WARNING);
    EXPECT_STREQ(GST_OBJECT_NAME(GST_MESSAGE_SRC(warning.get())), "logo");

    const std::vector<SamplePtr> samples = pipeline.PullAll("out");
    ASSERT_EQ(samples.size(), 10u);
    // The moving input is gone: every frame decodes to the same picture of the stream's size.
    GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(samples.front().get()), 0);
    int width = 0, height = 0;
    EXPECT_TRUE(gst_structure_get_int(s, "width", &width) && gst_structure_get_int(s, "height", &height));
    EXPECT_EQ(width, 320);
    EXPECT_EQ(height, 240);
    const std::vector<guint8> first = BufferBytes(gst_sample_get_buffer(samples.front().get()));
    for (const SamplePtr& sample : samples)
        EXPECT_EQ(BufferBytes(gst_sample_get_buffer(sample.get())), first);
}
