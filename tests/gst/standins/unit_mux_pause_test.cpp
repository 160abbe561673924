// The muxpause stand-in: buffers dropped while paused, timestamps closed up by the time paused after
// resuming.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

constexpr GstClockTime kFrame = GST_SECOND / 10;

guint64 PauseLength(GstElement* element)
{
    guint64 length = 0;
    g_object_get(element, "pause_length", &length, nullptr);
    return length;
}

// Frames at 10/s (live: as the clock runs) through a muxpause element that `beforeFrame` drives ahead of
// each input frame (by index), to the end: the element and the timestamps it handed on.
std::pair<GstPtr<GstElement>, std::vector<GstClockTime>> RunFrames(
    int frames, const std::function<void(GstElement*, size_t)>& beforeFrame, bool live = false)
{
    TestPipeline pipeline("videotestsrc is-live=" + std::string(live ? "true" : "false")
        + " num-buffers=" + std::to_string(frames)
        + " ! video/x-raw,width=64,height=48,framerate=10/1 ! muxpause name=pause ! fakesink name=sink");
    GstPtr<GstElement> pause = pipeline.Element("pause");
    size_t index = 0;
    BufferProbe inputProbe(pause.get(), "sink", [&](GstBuffer*) { beforeFrame(pause.get(), index++); });
    std::vector<GstClockTime> output;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });
    EXPECT_TRUE(pipeline.Play() && pipeline.WaitForEos()) << pipeline.Error();
    pipeline.SetState(GST_STATE_NULL);
    return { std::move(pause), output };
}

} // namespace

// The time paused is taken on the clock, so a live stream's timeline closes up
// (within half a frame of clock jitter) however many frames each stream lost.
TEST(MuxPause, DropsWhilePausedAndMovesLaterBuffersBackByThePausedTime)
{
    // Paused before frame 10, resumed before frame 25, paused and resumed again around frames 30-34.
    guint64 lengthAfterFirstPause = 0;
    const auto [pause, output] = RunFrames(
        40,
        [&](GstElement* element, size_t index) {
            if (index == 10 || index == 30)
                g_object_set(element, "pause", TRUE, nullptr);
            if (index == 25 || index == 35)
                g_object_set(element, "resume", TRUE, nullptr);
            if (index == 26)
                lengthAfterFirstPause = PauseLength(element);
        },
        true);

    // 10 + 5 + 5 frames kept, on one unbroken timeline from the first frame
    // (a slow start puts that one later than 0).
    ASSERT_EQ(output.size(), 20u);
    for (size_t i = 0; i < output.size(); ++i)
        EXPECT_NEAR(double(output[i] - output[0]), double(i * kFrame), kFrame / 2.0) << "frame " << i;
    EXPECT_NEAR(double(lengthAfterFirstPause), double(15 * kFrame), kFrame / 2.0);
    EXPECT_NEAR(double(PauseLength(pause.get())), double(20 * kFrame), kFrame / 2.0);
}

TEST(MuxPause, ResetClearsThePauseAndAWrittenLengthShiftsTheTimeline)
{
    const auto [pause, output] = RunFrames(20, [](GstElement* element, size_t index) {
        if (index == 5) {
            g_object_set(element, "pause", TRUE, nullptr);
            g_object_set(element, "reset", TRUE, nullptr); // leaves the pause: nothing is dropped
        }
        if (index == 10)
            g_object_set(element, "pause_length", static_cast<guint64>(3 * kFrame), nullptr);
    });

    ASSERT_EQ(output.size(), 20u);
    EXPECT_EQ(output[9], 9 * kFrame);
    EXPECT_EQ(output[10], 7 * kFrame);
    EXPECT_EQ(output[19], 16 * kFrame);
    EXPECT_EQ(PauseLength(pause.get()), 3 * kFrame);
    g_object_set(pause.get(), "reset", TRUE, nullptr);
    EXPECT_EQ(PauseLength(pause.get()), 0u);
}
