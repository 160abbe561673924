// DisplayPipeline, MicInputPipeline and AudioSpeakerPipeline: their controls and what they carry.
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "live_stream.h"
#include "log_capture.h"
#include "pipeline_harness.h"
#include "pipelines/audio_speaker_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "support/gst_test_pipeline.h"

using namespace PipelineHarness;

namespace
{

// Counts the buffers that cross a pad and keeps the loudest sample among them, read as signed 16-bit.
struct AudioWatch {
    AudioWatch(VideoDaemon::Pipeline& pipeline, const char* element)
        : probe(ElementOf(pipeline, element).get(), "sink", [this](GstBuffer* buffer) {
            const std::vector<guint8> bytes = GstTest::BufferBytes(buffer);
            for (size_t i = 0; i + 1 < bytes.size(); i += 2)
                peak = std::max(peak.load(), std::abs(static_cast<int16_t>(bytes[i] | (bytes[i + 1] << 8))));
            ++buffers;
        })
    {
    }
    void Reset()
    {
        buffers = 0;
        peak = 0;
    }

    std::atomic<int> buffers { 0 };
    std::atomic<int> peak { 0 };
    GstTest::BufferProbe probe;
};

struct StopAll {
    std::vector<VideoDaemon::Pipeline*> pipelines;
    ~StopAll()
    {
        for (VideoDaemon::Pipeline* pipeline : pipelines)
            pipeline->SetState(GST_STATE_NULL);
    }
};

} // namespace

TEST(DisplayPipeline, ShowsTheFramesItListensToInvertedOrDropped)
{
    LogCapture log;
    DescribedPipeline feed = LivePicture("smpte", "display_test_feed");
    VideoDaemon::DisplayPipeline display;
    display.Invert(true);
    display.DropFrames(true);
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::DisplayPipeline::Invert(bool): pipeline == NULL (display_sink)"));
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::DisplayPipeline::DropFrames(bool): pipeline == NULL (display_sink)"));

    StopAll stop { { &feed, &display } };
    ASSERT_TRUE(feed.Launch(false, true, false));
    ASSERT_TRUE(display.Launch(true, true, true));
    ASSERT_TRUE(display.ListenTo(&feed, "", ""));
    ASSERT_EQ(feed.SetState(GST_STATE_PLAYING, 2000), 0);
    ASSERT_EQ(display.SetState(GST_STATE_PLAYING, 2000), 0);
    ASSERT_TRUE(RunMainLoopUntil(
        [&] { return PropertyOf<guint64>(display, "display_sink", "frames-shown") >= 10; }, 3000));

    for (gint rotation : { 5, 0 }) {
        display.Invert(rotation != 0);
        gint set = -1;
        g_object_get(ElementOf(display, "display_sink").get(), "output-rotation", &set, nullptr);
        EXPECT_EQ(set, rotation);
    }

    display.DropFrames(true);
    RunMainLoopFor(100);
    const guint64 shown = PropertyOf<guint64>(display, "display_sink", "frames-shown");
    const guint64 dropped = PropertyOf<guint64>(display, "display_sink", "frames-dropped");
    ASSERT_TRUE(RunMainLoopUntil(
        [&] { return PropertyOf<guint64>(display, "display_sink", "frames-dropped") >= dropped + 10; },
        3000));
    EXPECT_EQ(PropertyOf<guint64>(display, "display_sink", "frames-shown"), shown);

    display.DropFrames(false);
    ASSERT_TRUE(RunMainLoopUntil(
        [&] { return PropertyOf<guint64>(display, "display_sink", "frames-shown") >= shown + 10; }, 3000));
}

TEST(MicInputPipeline, MuteIsRefusedBeforeLaunchAndSilencesTheMicrophoneAfterAndTheSpeakerPlaysIt)
{
    LogCapture log;
    VideoDaemon::MicInputPipeline mic;
    EXPECT_EQ(mic.SetMute(true), -1);
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "int VideoDaemon::MicInputPipeline::SetMute(bool): pipeline == NULL (mic_volume0)"));
    EXPECT_FALSE(mic.GetMute());
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "bool VideoDaemon::MicInputPipeline::GetMute() const: pipeline == NULL (mic_volume0)"));

    VideoDaemon::AudioSpeakerPipeline speaker;
    StopAll stop { { &speaker, &mic } };
    ASSERT_TRUE(mic.Launch(false, true, false));
    ASSERT_EQ(mic.SetState(GST_STATE_PLAYING, 2000), 0);
    AudioWatch published(mic, "mic_input");
    ASSERT_TRUE(RunMainLoopUntil([&] { return published.buffers >= 10; }, 3000));
    // The software microphone hears a quiet tone.
    EXPECT_GT(published.peak.load(), 0);

    for (bool mute : { true, false }) {
        EXPECT_EQ(mic.SetMute(mute), 1);
        EXPECT_EQ(mic.GetMute(), mute);
        RunMainLoopFor(100);
        published.Reset();
        ASSERT_TRUE(RunMainLoopUntil([&] { return published.buffers >= 10; }, 3000));
        EXPECT_EQ(published.peak.load() > 0, !mute) << "muted " << mute;
    }

    // The speaker plays what it listens to, and nothing before or after.
    EXPECT_EQ(speaker.GetSinkName(), "audio_speaker_sink");
    ASSERT_TRUE(speaker.Launch(false, true, false));
    std::string error;
    speaker.signal_error.connect([&](std::string message) { error = message; });
    AudioWatch played(speaker, "audio_speaker_sink");
    ASSERT_EQ(speaker.SetState(GST_STATE_PLAYING, 0), 0);
    RunMainLoopFor(300);
    EXPECT_EQ(played.buffers.load(), 0) << "not listening: nothing reaches the sound card";
    ASSERT_TRUE(speaker.ListenTo(&mic, "", ""));
    EXPECT_TRUE(speaker.IsListening());
    ASSERT_TRUE(RunMainLoopUntil([&] { return played.buffers >= 20; }, 3000));
    EXPECT_GT(played.peak.load(), 0);
    EXPECT_EQ(speaker.GetState(), GST_STATE_PLAYING);
    ASSERT_TRUE(speaker.ListenTo(nullptr, "", ""));
    RunMainLoopFor(200);
    played.Reset();
    RunMainLoopFor(300);
    EXPECT_EQ(played.buffers.load(), 0) << "detached again: the flow stops";
    EXPECT_EQ(error, "");
}
