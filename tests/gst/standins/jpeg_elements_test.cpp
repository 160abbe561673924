// The JPEG stand-ins: tarnwellexif and tarnwellexifdemux add an EXIF APP1
// segment to each picture and remove it again; tarnwell-static-jpeg replaces
// the frames with the file's picture, or a built-in one with a warning.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

const std::string kJpegFrames = "videotestsrc num-buffers=10 pattern=ball ! "
                                "video/x-raw,width=320,height=240,framerate=30/1 ! jpegenc ! ";

} // namespace

TEST(Exif, AddsAnApp1SegmentThatAReaderFindsTheMakerInAndTheDemuxerRestoresTheOriginal)
{
    TestPipeline pipeline(
        "videotestsrc num-buffers=3 pattern=ball ! video/x-raw,width=320,height=240 ! jpegenc ! "
        "tarnwellexif name=exif ! tee name=t t. ! queue ! appsink name=tagged sync=false "
        "t. ! queue ! tarnwellexifdemux ! appsink name=plain sync=false "
        "t. ! queue ! jpegparse ! jpegdec ! video/x-raw,width=320,height=240 ! fakesink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    std::vector<std::vector<guint8>> input;
    BufferProbe inputProbe(pipeline.Element("exif").get(), "sink",
        [&](GstBuffer* buffer) { input.push_back(BufferBytes(buffer)); });
    ASSERT_TRUE(pipeline.Play());
    const std::vector<GstSamplePtr> tagged = pipeline.PullAll("tagged");
    const std::vector<GstSamplePtr> plain = pipeline.PullAll("plain");
    // The tagged pictures decode, and the tags read from them name the maker.
    std::string maker;
    while (GstMessagePtr message = pipeline.WaitFor(
               static_cast<GstMessageType>(GST_MESSAGE_TAG | GST_MESSAGE_EOS | GST_MESSAGE_ERROR))) {
        ASSERT_NE(GST_MESSAGE_TYPE(message.get()), GST_MESSAGE_ERROR) << ErrorText(message.get());
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS)
            break;
        GstTagList* tags = nullptr;
        gst_message_parse_tag(message.get(), &tags);
        g_autoptr(GstTagList) owned = tags;
        g_autofree gchar* value = nullptr;
        if (gst_tag_list_get_string(owned, "device-manufacturer", &value))
            maker = value;
    }
    EXPECT_EQ(maker, "Tarnwell");

    ASSERT_EQ(input.size(), 3u);
    ASSERT_EQ(tagged.size(), 3u);
    ASSERT_EQ(plain.size(), 3u);
    for (size_t i = 0; i < input.size(); ++i) {
        SCOPED_TRACE(i);
        const std::vector<guint8> out = BufferBytes(gst_sample_get_buffer(tagged[i].get()));
        // Just past SOI and a JFIF APP0 segment right after it.
        const size_t at = input[i][3] == 0xe0 ? 4 + ((input[i][4] << 8) | input[i][5]) : 2;
        ASSERT_GT(out.size(), input[i].size() + 14);
        const size_t segment = out.size() - input[i].size();
        // The header is kept, then FF E1, the length, "Exif\0\0" and a little-endian TIFF header.
        EXPECT_TRUE(std::equal(input[i].begin(), input[i].begin() + at, out.begin()));
        EXPECT_EQ(out[at], 0xff);
        EXPECT_EQ(out[at + 1], 0xe1);
        EXPECT_EQ(static_cast<size_t>((out[at + 2] << 8) | out[at + 3]), segment - 2);
        EXPECT_EQ(std::memcmp(&out[at + 4], "Exif\0\0II*\0", 10), 0);
        // The rest of the picture follows unchanged.
        EXPECT_TRUE(std::equal(input[i].begin() + at, input[i].end(), out.begin() + at + segment));

        EXPECT_EQ(BufferBytes(gst_sample_get_buffer(plain[i].get())), input[i]);
    }
}

TEST(StaticJpeg, ReplacesEveryFrameWithThePictureKeepingTheTimestampsOrWithABuiltInOneAndAWarning)
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

    // A file that cannot be read: a built-in picture, with a warning.
    TestPipeline missing(kJpegFrames
        + "tarnwell-static-jpeg name=logo silent=false location=" + dir.File("missing.jpg")
        + " ! jpegdec ! video/x-raw,format=I420,width=320,height=240 ! appsink name=out sync=false");
    ASSERT_TRUE(missing.Parsed() && missing.Play()) << missing.Error();

    GstMessagePtr warning
        = missing.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_WARNING | GST_MESSAGE_ERROR));
    ASSERT_NE(warning, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(warning.get()), GST_MESSAGE_WARNING);
    EXPECT_STREQ(GST_OBJECT_NAME(GST_MESSAGE_SRC(warning.get())), "logo");

    // The moving input is gone: every frame decodes to the same picture of the stream's size
    // (the caps filter holds the size).
    const std::vector<GstSamplePtr> pictures = missing.PullAll("out");
    ASSERT_EQ(pictures.size(), 10u);
    for (const GstSamplePtr& sample : pictures)
        EXPECT_EQ(SampleBytes(sample.get()), SampleBytes(pictures.front().get()));
}
