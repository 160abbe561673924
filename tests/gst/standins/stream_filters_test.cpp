// The stand-ins that pass, drop or restamp buffers of a running stream: the
// counting valve (exactly the written number pass, each write re-arms), the
// IDR valve and SnapVoice on real H.264 from x264, and muxpause (buffers
// dropped while paused, timestamps closed up by the time paused).
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// Plays the pipeline to its end, calling `before` for every buffer that reaches the element named
// `filter` (after dropping the first `skipped`, as if the stream had started later); returns the
// timestamps of the buffers that reached the element named "sink".
std::vector<GstClockTime> RunThrough(TestPipeline& pipeline, const std::function<void(GstBuffer*)>& before,
    int skipped = 0, const char* filter = "filter")
{
    GstPtr<GstElement> element = pipeline.Element(filter);
    DropFirstBuffers skip(element.get(), "sink", skipped);
    BufferProbe inputProbe(element.get(), "sink", before);
    std::vector<GstClockTime> output;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });
    EXPECT_TRUE(pipeline.Parsed() && pipeline.Play() && pipeline.WaitForEos()) << pipeline.Error();
    pipeline.SetState(GST_STATE_NULL);
    return output;
}

bool IsKeyFrame(GstBuffer* buffer)
{
    return !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
}

std::string X264(int keyInterval, const std::string& streamFormat = "avc")
{
    return "videotestsrc num-buffers=60 pattern=ball ! video/x-raw,width=320,height=240,framerate=30/1 ! "
           "x264enc speed-preset=ultrafast key-int-max="
        + std::to_string(keyInterval) + " ! h264parse ! video/x-h264,stream-format=" + streamFormat
        + ",alignment=au ! ";
}

struct Frame {
    GstClockTime pts;
    bool keyFrame; // as the encoder flags it, independently of the valve's own parsing
    bool open; // the valve's state as the frame arrives
};

// What the IDR valve must pass: while open, everything from the first key frame since it opened.
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

constexpr GstClockTime kTenth = GST_SECOND / 10;

guint64 PauseLength(GstElement* element)
{
    guint64 length = 0;
    g_object_get(element, "pause_length", &length, nullptr);
    return length;
}

std::string PausedFrames(int frames, bool live)
{
    return "videotestsrc is-live=" + std::string(live ? "true" : "false")
        + " num-buffers=" + std::to_string(frames)
        + " ! video/x-raw,width=64,height=48,framerate=10/1 ! muxpause name=filter ! fakesink name=sink";
}

} // namespace

TEST(CountingValve, PassesExactlyTheWrittenNumberEachWriteRearmsItAndClosedLivePassesOnePerRequest)
{
    TestPipeline pipeline("videotestsrc num-buffers=40 ! video/x-raw,width=64,height=48,framerate=10/1 ! "
                          "tarnwell-valve name=filter num-buffers-pass=3 ! fakesink name=sink");
    GstPtr<GstElement> valve = pipeline.Element("filter");
    // Counts written ahead of input buffers: the same count again still re-arms,
    // a write while open restarts the count.
    const std::map<guint64, guint> writes { { 10, 2 }, { 20, 2 }, { 21, 4 } };
    guint64 index = 0;
    const std::vector<GstClockTime> passed = RunThrough(pipeline, [&](GstBuffer*) {
        if (writes.count(index) != 0)
            g_object_set(valve.get(), "num-buffers-pass", writes.at(index), nullptr);
        ++index;
    });
    std::vector<GstClockTime> expected;
    for (guint64 i : { 0, 1, 2, 10, 11, 20, 21, 22, 23, 24 })
        expected.push_back(i * kTenth);
    EXPECT_EQ(passed, expected);

    // Closed on a live stream, as the snapshot chain's: one buffer per request.
    TestPipeline live(
        "videotestsrc is-live=true ! video/x-raw,width=64,height=48,framerate=30/1 ! "
        "tarnwell-valve name=valve num-buffers-pass=0 ! appsink name=out sync=false async=false");
    ASSERT_TRUE(live.Play());
    const GstClockTime quiet = 300 * GST_MSECOND; // ten frames' time
    EXPECT_FALSE(live.Pull("out", quiet));
    for (int request = 0; request < 2; ++request) {
        live.Set("valve", "num-buffers-pass", 1u);
        EXPECT_TRUE(live.Pull("out")) << "request " << request;
        EXPECT_FALSE(live.Pull("out", quiet)) << "request " << request;
    }
}

// Each run: 60 frames of x264 output through an idrvalve created open or
// closed, which first sees the stream `skipped` frames in; ahead of each frame
// `opens` decides from the frames so far whether the valve passes, and the
// valve is told only of changes.
TEST(IdrValve, DropsWhileClosedAndPassesFromTheNextIdrFrameWhenOpenedOrCreatedOpen)
{
    // Created closed: opened on the first frame from index 3 that is not a key
    // frame, closed at 30, opened again on the first non-key frame from 40 on.
    auto toggled = [](const std::vector<Frame>& seen) {
        const size_t index = seen.size() - 1;
        const bool wasOpen = index > 0 && seen[index - 1].open;
        return index != 30
            && (wasOpen || (!seen.back().keyFrame && (index >= 40 || (index >= 3 && index < 30))));
    };
    const struct {
        const char* format;
        bool createdOpen;
        int keyInterval, skipped, openings;
        std::function<bool(const std::vector<Frame>&)> opens;
    } rows[] = {
        { "avc", false, 12, 0, 2, toggled }, { "byte-stream", false, 12, 0, 2, toggled },
        { "avc", true, 10, 3, 0,
            [](const std::vector<Frame>&) { return true; } }, // first sees a GOP's middle
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.format) + (row.createdOpen ? " created open" : " created closed"));
        TestPipeline pipeline(X264(row.keyInterval, row.format) + "idrvalve name=filter"
            + (row.createdOpen ? "" : " drop=true") + " ! fakesink name=sink");
        GstPtr<GstElement> valve = pipeline.Element("filter");
        std::vector<Frame> input;
        int openings = 0;
        const std::vector<GstClockTime> output = RunThrough(
            pipeline,
            [&](GstBuffer* buffer) {
                const bool wasOpen = input.empty() ? row.createdOpen : input.back().open;
                input.push_back({ GST_BUFFER_PTS(buffer), IsKeyFrame(buffer), false });
                input.back().open = row.opens(input);
                if (input.back().open != wasOpen)
                    g_object_set(valve.get(), "drop", !input.back().open, nullptr);
                openings += input.back().open && !wasOpen;
            },
            row.skipped);
        ASSERT_EQ(input.size(), 60u - row.skipped);
        ASSERT_EQ(openings, row.openings);
        EXPECT_FALSE(input.front().keyFrame && row.skipped > 0);
        EXPECT_FALSE(output.empty());
        EXPECT_EQ(output, Passing(input));
    }
}

// One IDR picture per reset: started mid-GOP, reset again on a non-key frame
// after 30; the file holds those pictures and the whole narration.
TEST(SnapVoice, PassesTheFirstIdrFrameAfterEachResetIntoAnMp4FileWithTheWholeNarration)
{
    TempDir dir;
    const std::string file = dir.File("note.mp4");
    // 60 frames at 30/s and 87 x 1024 samples at 44.1 kHz: two seconds each.
    TestPipeline pipeline(X264(12)
        + "snapvoice name=filter reset=true ! tee name=t ! queue ! fakesink name=sink "
        + "t. ! queue ! mp4mux name=mux ! filesink location=" + file
        + " audiotestsrc num-buffers=87 ! audio/x-raw,rate=44100 ! audioconvert ! avenc_aac ! queue ! mux.");
    GstPtr<GstElement> filter = pipeline.Element("filter");
    std::vector<GstClockTime> keyFrames;
    size_t index = 0;
    GstClockTime resetAt = GST_CLOCK_TIME_NONE;
    const std::vector<GstClockTime> output = RunThrough(
        pipeline,
        [&](GstBuffer* buffer) {
            if (IsKeyFrame(buffer))
                keyFrames.push_back(GST_BUFFER_PTS(buffer));
            if (!GST_CLOCK_TIME_IS_VALID(resetAt) && index >= 30 && !IsKeyFrame(buffer)) {
                resetAt = GST_BUFFER_PTS(buffer);
                g_object_set(filter.get(), "reset", TRUE, nullptr);
            }
            ++index;
        },
        2);

    ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(resetAt));
    ASSERT_GE(keyFrames.size(), 3u);
    const auto keyAfterReset
        = std::find_if(keyFrames.begin(), keyFrames.end(), [&](GstClockTime pts) { return pts > resetAt; });
    ASSERT_NE(keyAfterReset, keyFrames.end());
    EXPECT_EQ(output, (std::vector<GstClockTime> { keyFrames.front(), *keyAfterReset }));
    EXPECT_EQ(FfprobeValues(file, "stream=codec_name"), (std::vector<std::string> { "h264", "aac" }));
    EXPECT_EQ(FfprobeNumber(file, "stream=nb_read_frames", "v"), 2);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "a"), 2.0, 0.2);
}

// The time paused is taken on the clock, so a live stream's timeline closes up
// (within half a frame of clock jitter) however many frames each stream lost.
// A reset leaves the pause, and a written length shifts the timeline.
TEST(MuxPause, DropsWhilePausedMovesLaterBuffersBackByThePausedTimeAndAResetOrAWrittenLengthSetsIt)
{
    // Paused before frame 10, resumed before frame 25, paused and resumed again around frames 30-34.
    TestPipeline live(PausedFrames(40, true));
    GstPtr<GstElement> pause = live.Element("filter");
    guint64 lengthAfterFirstPause = 0;
    size_t index = 0;
    std::vector<GstClockTime> output = RunThrough(live, [&](GstBuffer*) {
        if (index == 10 || index == 30)
            g_object_set(pause.get(), "pause", TRUE, nullptr);
        if (index == 25 || index == 35)
            g_object_set(pause.get(), "resume", TRUE, nullptr);
        if (index == 26)
            lengthAfterFirstPause = PauseLength(pause.get());
        ++index;
    });
    // 10 + 5 + 5 frames kept, on one unbroken timeline from the first frame
    // (a slow start puts that one later than 0).
    ASSERT_EQ(output.size(), 20u);
    for (size_t i = 0; i < output.size(); ++i)
        EXPECT_NEAR(double(output[i] - output[0]), double(i * kTenth), kTenth / 2.0) << "frame " << i;
    EXPECT_NEAR(double(lengthAfterFirstPause), double(15 * kTenth), kTenth / 2.0);
    EXPECT_NEAR(double(PauseLength(pause.get())), double(20 * kTenth), kTenth / 2.0);

    TestPipeline pipeline(PausedFrames(20, false));
    pause = pipeline.Element("filter");
    index = 0;
    output = RunThrough(pipeline, [&](GstBuffer*) {
        if (index == 5) {
            g_object_set(pause.get(), "pause", TRUE, nullptr);
            g_object_set(pause.get(), "reset", TRUE, nullptr); // leaves the pause: nothing is dropped
        }
        if (index == 10)
            g_object_set(pause.get(), "pause_length", static_cast<guint64>(3 * kTenth), nullptr);
        ++index;
    });
    ASSERT_EQ(output.size(), 20u);
    EXPECT_EQ(output[9], 9 * kTenth);
    EXPECT_EQ(output[10], 7 * kTenth);
    EXPECT_EQ(output[19], 16 * kTenth);
    EXPECT_EQ(PauseLength(pause.get()), 3 * kTenth);
    g_object_set(pause.get(), "reset", TRUE, nullptr);
    EXPECT_EQ(PauseLength(pause.get()), 0u);
}
