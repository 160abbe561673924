// The tarnwellexif and tarnwellexifdemux stand-ins: an EXIF APP1 segment added to each frame, then removed.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

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
