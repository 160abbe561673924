// The idrvalve stand-in on real H.264 from x264: closed, opened mid-GOP, closed and opened again.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

struct Frame {
    GstClockTime pts;
    bool keyFrame; // as the encoder flags it, independently of the valve's own parsing
};

struct ValveRun {
    std::vector<Frame> input;
    std::vector<GstClockTime> output;
};

// Runs x264 output through an idrvalve to the end. The valve first sees the input after `skipped` frames;
// `onInput` acts on it ahead of each frame it sees (by index).
ValveRun RunValve(const std::string& streamFormat, const std::string& valveProperties, int keyInterval,
    int skipped, const std::function<void(GstElement*, const ValveRun&)>& onInput)
{
    TestPipeline pipeline("videotestsrc num-buffers=60 pattern=ball ! video/x-raw,width=320,height=240,"
                          "framerate=30/1 ! x264enc speed-preset=ultrafast key-int-max="
        + std::to_string(keyInterval) + " ! h264parse ! video/x-h264,stream-format=" + streamFormat
        + ",alignment=au ! idrvalve name=valve " + valveProperties + " ! fakesink name=sink");
    ObjectPtr<GstElement> valve = pipeline.Element("valve");
    ValveRun run;
    if (!valve) {
        ADD_FAILURE() << pipeline.Error();
        return run;
    }
    DropFirstBuffers skip(valve.get(), "sink", skipped);
    BufferProbe inputProbe(valve.get(), "sink", [&](GstBuffer* buffer) {
        run.input.push_back(
            { GST_BUFFER_PTS(buffer), !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) });
        onInput(valve.get(), run);
    });
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { run.output.push_back(GST_BUFFER_PTS(buffer)); });
    EXPECT_TRUE(pipeline.Play());
    EXPECT_TRUE(pipeline.WaitForEos()) << pipeline.Error();
    pipeline.SetState(GST_STATE_NULL);
    return run;
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
        // Opened on the first frame after index 3 that is not a key frame, closed at
        // 30, opened again on the first non-key frame from 40 on.
        size_t openedAt = 0, closedAt = 0, reopenedAt = 0;
        const ValveRun run
            = RunValve(format, "drop=true", 12, 0, [&](GstElement* valve, const ValveRun& seen) {
                  const size_t index = seen.input.size() - 1;
                  const bool key = seen.input.back().keyFrame;
                  if (openedAt == 0 && index >= 3 && !key) {
                      openedAt = index;
                      g_object_set(valve, "drop", FALSE, nullptr);
                  } else if (index == 30) {
                      closedAt = index;
                      g_object_set(valve, "drop", TRUE, nullptr);
                  } else if (closedAt != 0 && reopenedAt == 0 && index >= 40 && !key) {
                      reopenedAt = index;
                      g_object_set(valve, "drop", FALSE, nullptr);
                  }
              });

        ASSERT_EQ(run.input.size(), 60u);
        ASSERT_NE(openedAt, 0u);
        ASSERT_NE(reopenedAt, 0u);
        std::vector<GstClockTime> expected;
        for (size_t i = FirstKeyFrameFrom(run.input, openedAt); i < closedAt; ++i)
            expected.push_back(run.input[i].pts);
        const size_t reopenKey = FirstKeyFrameFrom(run.input, reopenedAt);
        ASSERT_LT(reopenKey, run.input.size());
        for (size_t i = reopenKey; i < run.input.size(); ++i)
            expected.push_back(run.input[i].pts);
        EXPECT_EQ(run.output, expected);
        ASSERT_FALSE(run.output.empty());
        EXPECT_NE(run.output.front(), run.input[openedAt].pts) << "opened on a frame that is not an IDR";
    }
}

TEST(IdrValve, StartsOnTheFirstIdrFrameWhenCreatedOpen)
{
    // The valve first sees the middle of a GOP.
    const ValveRun run = RunValve("avc", "", 10, 3, [](GstElement*, const ValveRun&) {});

    ASSERT_FALSE(run.input.empty());
    ASSERT_FALSE(run.input.front().keyFrame);
    const size_t firstKey = FirstKeyFrameFrom(run.input, 0);
    ASSERT_LT(firstKey, run.input.size());
    ASSERT_FALSE(run.output.empty());
    EXPECT_EQ(run.output.front(), run.input[firstKey].pts);
    EXPECT_EQ(run.output.size(), run.input.size() - firstKey);
}
