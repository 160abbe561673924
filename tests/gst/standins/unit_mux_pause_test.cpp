// The muxpause stand-in: buffers dropped while paused, timestamps closed up after resuming.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

#include "mux_pause_timeline.h"

using namespace GstTest;

namespace
{

constexpr GstClockTime kFrame = GST_SECOND / 10;

} // namespace

TEST(MuxPause, DropsWhilePausedAndMovesLaterBuffersBackByThePausedTime)
{
    // Frames at 10/s; paused before frame 10, resumed before frame 25, paused and resumed again
    // around frames 30-34.
    TestPipeline pipeline("videotestsrc num-buffers=40 ! video/x-raw,width=64,height=48,framerate=10/1 ! "
                          "muxpause name=pause ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> pause = pipeline.Element("pause");
    size_t index = 0;
    guint64 lengthAfterFirstPause = 0;
    BufferProbe inputProbe(pause.get(), "sink", [&](GstBuffer*) {
        if (index == 10 || index == 30)
            g_object_set(pause.get(), "pause", TRUE, nullptr);
        if (index == 25 || index == 35)
            g_object_set(pause.get(), "resume", TRUE, nullptr);
        if (index == 26)
            lengthAfterFirstPause = PauseLength(pause.get());
        ++index;
    });
    std::vector<GstClockTime> output;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });

    ASSERT_TRUE(pipeline.Play());
    ASSERT_TRUE(pipeline.WaitForEos());
    pipeline.SetState(GST_STATE_NULL);

    // 10 + 5 + 5 frames kept, on one unbroken timeline.
    std::vector<GstClockTime> expected;
    for (int i = 0; i < 20; ++i)
        expected.push_back(i * kFrame);
    EXPECT_EQ(output, expected);
    EXPECT_EQ(lengthAfterFirstPause, 15 * kFrame);
    EXPECT_EQ(PauseLength(pause.get()), 20 * kFrame);
}

TEST(MuxPause, ResetClearsThePauseAndAWrittenLengthShiftsTheTimeline)
{
    TestPipeline pipeline("videotestsrc num-buffers=20 ! video/x-raw,width=64,height=48,framerate=10/1 ! "
                          "muxpause name=pause ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> pause = pipeline.Element("pause");
    size_t index = 0;
    BufferProbe inputProbe(pause.get(), "sink", [&](GstBuffer*) {
        if (index == 5) {
            g_object_set(pause.get(), "pause", TRUE, nullptr);
            g_object_set(pause.get(), "reset", TRUE, nullptr); // leaves the pause: nothing is dropped
        }
        if (index == 10)
            g_object_set(pause.get(), "pause_length", static_cast<guint64>(3 * kFrame), nullptr);
        ++index;
    });
    std::vector<GstClockTime> output;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });

    ASSERT_TRUE(pipeline.Play());
    ASSERT_TRUE(pipeline.WaitForEos());
    pipeline.SetState(GST_STATE_NULL);

    ASSERT_EQ(output.size(), 20u);
    EXPECT_EQ(output[9], 9 * kFrame);
    EXPECT_EQ(output[10], 7 * kFrame);
    EXPECT_EQ(output[19], 16 * kFrame);
    EXPECT_EQ(PauseLength(pause.get()), 3 * kFrame);
    g_object_set(pause.get(), "reset", TRUE, nullptr);
    EXPECT_EQ(PauseLength(pause.get()), 0u);
}
