// The idrvalve stand-in on real H.264 from x264: closed, opened mid-GOP, closed and opened again.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

constexpr int kFrames = 60;
constexpr int kKeyInterval = 12;

struct Frame {
    GstClockTime pts;
    bool keyFrame; // as the encoder flags it, independently of the valve's own parsing
};

std::string H264Description(const std::string& streamFormat)
{
    return "videotestsrc num-buffers=" + std::to_string(kFrames)
        + " pattern=ball ! video/x-raw,width=320,height=240,framerate=30/1 ! x264enc key-int-max="
        + std::to_string(kKeyInterval) + " speed-preset=ultrafast ! h264parse ! video/x-h264,stream-format="
        + streamFormat + ",alignment=au ! idrvalve name=valve drop=true ! fakesink name=sink";
}

// Index of the first key frame at or after index, or the input size.
size_t FirstKeyFrameFrom(const std::vector<Frame>& frames, size_t index)
{
    while (index < frames.size() && !frames[index].keyFrame)
        ++index;
    return index;
}

} // namespace

TEST(IdrValve, DropsWhileClosedAndPassesFromTheNextIdrFrameWhenOpened)
{
    for (const std::string format : { "avc", "byte-stream" }) {
        SCOPED_TRACE(format);
        TestPipeline pipeline(H264Description(format));
        ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
        ObjectPtr<GstElement> valve = pipeline.Element("valve");
        ObjectPtr<GstElement> sink = pipeline.Element("sink");

        // Opened on the first frame after index 3 that is not a key frame, closed at
        // 30, opened again on the first non-key frame from 40 on.
        std::vector<Frame> input;
        size_t openedAt = 0, closedAt = 0, reopenedAt = 0;
        BufferProbe inputProbe(valve.get(), "sink", [&](GstBuffer* buffer) {
            const size_t index = input.size();
            const bool key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
            input.push_back({ GST_BUFFER_PTS(buffer), key });
            if (openedAt == 0 && index >= 3 && !key) {
                openedAt = index;
                g_object_set(valve.get(), "drop", FALSE, nullptr);
            } else if (index == 30) {
                closedAt = index;
                g_object_set(valve.get(), "drop", TRUE, nullptr);
            } else if (closedAt != 0 && reopenedAt == 0 && index >= 40 && !key) {
                reopenedAt = index;
                g_object_set(valve.get(), "drop", FALSE, nullptr);
            }
        });
        std::vector<GstClockTime> output;
        BufferProbe outputProbe(
            sink.get(), "sink", [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });

        ASSERT_TRUE(pipeline.Play());
        ASSERT_TRUE(pipeline.WaitForEos());
        pipeline.SetState(GST_STATE_NULL);

        ASSERT_EQ(input.size(), static_cast<size_t>(kFrames));
        ASSERT_NE(openedAt, 0u);
        ASSERT_NE(reopenedAt, 0u);
        std::vector<GstClockTime> expected;
        for (size_t i = FirstKeyFrameFrom(input, openedAt); i < closedAt; ++i)
            expected.push_back(input[i].pts);
        const size_t reopenKey = FirstKeyFrameFrom(input, reopenedAt);
        ASSERT_LT(reopenKey, input.size());
        for (size_t i = reopenKey; i < input.size(); ++i)
            expected.push_back(input[i].pts);
        EXPECT_EQ(output, expected);
        ASSERT_FALSE(output.empty());
        EXPECT_NE(output.front(), input[openedAt].pts) << "opened on a frame that is not an IDR";
    }
}

TEST(IdrValve, StartsOnTheFirstIdrFrameWhenCreatedOpen)
{
    TestPipeline pipeline(
        "videotestsrc num-buffers=40 ! video/x-raw,width=320,height=240,framerate=30/1 ! "
        "x264enc key-int-max=10 speed-preset=ultrafast ! h264parse ! "
        "video/x-h264,stream-format=avc,alignment=au ! idrvalve name=valve ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> valve = pipeline.Element("valve");
    ObjectPtr<GstElement> sink = pipeline.Element("sink");
    // The valve first sees the middle of a GOP.
    DropFirstBuffers skip(valve.get(), "sink", 3);
    std::vector<Frame> input;
    BufferProbe inputProbe(valve.get(), "sink", [&](GstBuffer* buffer) {
        input.push_back(
            { GST_BUFFER_PTS(buffer), !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) });
    });
    std::vector<GstClockTime> output;
    BufferProbe outputProbe(
        sink.get(), "sink", [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });

    ASSERT_TRUE(pipeline.Play());
    ASSERT_TRUE(pipeline.WaitForEos());
    pipeline.SetState(GST_STATE_NULL);

    ASSERT_FALSE(input.empty());
    ASSERT_FALSE(input.front().keyFrame);
    const size_t firstKey = FirstKeyFrameFrom(input, 0);
    ASSERT_LT(firstKey, input.size());
    ASSERT_FALSE(output.empty());
    EXPECT_EQ(output.front(), input[firstKey].pts);
    EXPECT_EQ(output.size(), input.size() - firstKey);
}
