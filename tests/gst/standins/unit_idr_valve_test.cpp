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
    bool open = false; // the valve's state as the frame arrives
};

// Runs 60 frames of x264 output through an idrvalve created open or closed, which first sees the
// stream `skipped` frames in. Ahead of each frame it sees, `open` decides from the frames so far
// (the newest last) whether the valve passes; the valve is told only of changes.
// Returns the frames that reached the valve; `output` gets the timestamps that left it.
std::vector<Frame> RunValve(const std::string& streamFormat, bool createdOpen, int keyInterval, int skipped,
    const std::function<bool(const std::vector<Frame>&)>& open, std::vector<GstClockTime>& output)
{
    TestPipeline pipeline("videotestsrc num-buffers=60 pattern=ball ! video/x-raw,width=320,height=240,"
                          "framerate=30/1 ! x264enc speed-preset=ultrafast key-int-max="
        + std::to_string(keyInterval) + " ! h264parse ! video/x-h264,stream-format=" + streamFormat
        + ",alignment=au ! idrvalve name=valve" + (createdOpen ? "" : " drop=true")
        + " ! fakesink name=sink");
    GstPtr<GstElement> valve = pipeline.Element("valve");
    std::vector<Frame> input;
    DropFirstBuffers skip(valve.get(), "sink", skipped);
    BufferProbe inputProbe(valve.get(), "sink", [&](GstBuffer* buffer) {
        const bool wasOpen = input.empty() ? createdOpen : input.back().open;
        input.push_back(
            { GST_BUFFER_PTS(buffer), !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT) });
        input.back().open = open(input);
        if (input.back().open != wasOpen)
            g_object_set(valve.get(), "drop", !input.back().open, nullptr);
    });
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });
    EXPECT_TRUE(pipeline.Play() && pipeline.WaitForEos()) << pipeline.Error();
    pipeline.SetState(GST_STATE_NULL);
    return input;
}

// What the valve must pass: while open, everything from the first key frame since it opened.
std::vector<GstClockTime> Passing(const std::vector<Frame>& input)
{
    std::vector<GstClockTime> passing;
    bool synced = false;
    for (const Frame& frame : input) {
        synced = frame.open && (synced || frame.keyFrame);
        if (synced)
            passing.push_back(frame.pts);
    }
    return passing;
}

} // namespace

TEST(IdrValve, DropsWhileClosedAndPassesFromTheNextIdrFrameWhenOpened)
{
    for (const std::string format : { "avc", "byte-stream" }) {
        SCOPED_TRACE(format);
        // Opened on the first frame from index 3 that is not a key frame, closed at 30, opened again on
        // the first non-key frame from 40 on.
        int openings = 0;
        std::vector<GstClockTime> output;
        const std::vector<Frame> input = RunValve(
            format, false, 12, 0,
            [&](const std::vector<Frame>& seen) {
                const size_t index = seen.size() - 1;
                const bool wasOpen = index > 0 && seen[index - 1].open;
                const bool opens
                    = !wasOpen && !seen.back().keyFrame && (index >= 40 || (index >= 3 && index < 30));
                openings += opens;
                return index != 30 && (wasOpen || opens);
            },
            output);

        ASSERT_EQ(input.size(), 60u);
        ASSERT_EQ(openings, 2);
        EXPECT_EQ(output, Passing(input));
        EXPECT_FALSE(output.empty());
    }
}

TEST(IdrValve, StartsOnTheFirstIdrFrameWhenCreatedOpen)
{
    // The valve first sees the middle of a GOP.
    std::vector<GstClockTime> output;
    const std::vector<Frame> input = RunValve(
        "avc", true, 10, 3, [](const std::vector<Frame>&) { return true; }, output);

    ASSERT_FALSE(input.empty());
    ASSERT_FALSE(input.front().keyFrame);
    ASSERT_FALSE(output.empty());
    EXPECT_EQ(output, Passing(input));
}
