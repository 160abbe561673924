// The software sound device behind ALSA's default device: real-time pace, monotonic timestamps, a test tone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pipelines/audio_speaker_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// What passes a pad: each buffer's timestamp against the pipeline's running
// time when it arrives, and the loudest sample (interleaved S16). Read once
// the pipeline has stopped.
struct BufferLog {
    std::vector<std::pair<GstClockTime, GstClockTime>> stamps; // timestamp, running time
    int peak = 0;

    BufferProbe Attach(GstElement* element, const char* pad)
    {
        return BufferProbe(element, pad, [this, element](GstBuffer* buffer) {
            GstPtr<GstClock> clock(gst_element_get_clock(element));
            stamps.emplace_back(GST_BUFFER_PTS(buffer),
                clock ? gst_clock_get_time(clock.get()) - gst_element_get_base_time(element)
                      : GST_CLOCK_TIME_NONE);
            GstMapInfo map;
            if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
                return;
            for (gsize i = 0; i + 1 < map.size; i += 2) {
                int16_t sample;
                std::memcpy(&sample, map.data + i, sizeof sample);
                peak = std::max(peak, std::abs(static_cast<int>(sample)));
            }
            gst_buffer_unmap(buffer, &map);
        });
    }
};

} // namespace

// The daemon's microphone, and its speaker listening to it.
TEST(SoftwareSoundDevice, PacesTheMicrophoneInRealTimeWithRunningTimeTimestampsAndTheSpeakerPlaysIt)
{
    TestPipeline mic(VideoDaemon::MicInputPipeline().GetDescription());
    TestPipeline speaker(VideoDaemon::AudioSpeakerPipeline().GetDescription());
    BufferLog captured, played;
    BufferProbe captureProbe = captured.Attach(mic.Element("mic_input").get(), "sink");
    BufferProbe playProbe = played.Attach(speaker.Element("audio_speaker_sink").get(), "sink");
    speaker.Set("audio_speaker_source", "listen-to", "mic_input");
    ASSERT_TRUE(mic.Start());
    ASSERT_TRUE(speaker.Start());
    // About one second of capture, watching for errors meanwhile.
    for (const TestPipeline* p : { &mic, &speaker }) {
        GstMessagePtr error = p->WaitFor(GST_MESSAGE_ERROR, p == &mic ? GST_SECOND : 0);
        EXPECT_EQ(error, nullptr) << ErrorText(error.get());
        EXPECT_EQ(p->State(), GST_STATE_PLAYING);
    }
    ASSERT_TRUE(speaker.SetState(GST_STATE_NULL) && mic.SetState(GST_STATE_NULL));

    // 10 ms buffers at the device's real-time pace: about a hundred. A sink
    // stalled on timestamps far from the running time gets one or two; a
    // device that returns data as fast as it is read gets thousands.
    EXPECT_GE(captured.stamps.size(), 50u);
    EXPECT_LE(captured.stamps.size(), 200u);
    for (size_t i = 0; i < captured.stamps.size(); ++i) {
        const auto [pts, runningTime] = captured.stamps[i];
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(pts) && GST_CLOCK_TIME_IS_VALID(runningTime)) << "buffer " << i;
        EXPECT_LT(std::abs(GST_CLOCK_DIFF(pts, runningTime)), 500 * GST_MSECOND)
            << "buffer " << i << " pts " << pts << " running time " << runningTime;
        if (i > 0) {
            EXPECT_GT(pts, captured.stamps[i - 1].first) << "buffer " << i;
        }
    }
    // A quiet tone: neither silence nor anywhere near full scale.
    EXPECT_GT(captured.peak, 1000);
    EXPECT_LT(captured.peak, 16000);
    EXPECT_GE(played.stamps.size(), 30u);
    EXPECT_GT(played.peak, 1000);
}

// Each format, channel count and rate the device offers: capture, with a sink
// that synchronises on a clock the device does not provide, ends with the
// tone in it; playback takes as long as the audio lasts (a device that
// discards at once would take no time).
TEST(SoftwareSoundDevice, CapturesATestToneAndPlaysAtTheSampleRateInEveryFormat)
{
    const struct {
        const char* format;
        int channels, rate;
    } rows[] = { { "S16LE", 1, 8000 }, { "S16LE", 2, 48000 }, { "S32LE", 2, 44100 }, { "F32LE", 1, 16000 },
        { "F32LE", 2, 48000 } };
    for (const auto& row : rows) {
        const std::string caps = std::string("audio/x-raw,layout=interleaved,format=") + row.format
            + ",channels=" + std::to_string(row.channels) + ",rate=" + std::to_string(row.rate);
        SCOPED_TRACE(caps);
        TestPipeline capture("alsasrc num-buffers=10 provide-clock=false ! " + caps
            + " ! audioconvert ! audio/x-raw,format=S16LE ! fakesink name=out sync=true");
        BufferLog captured;
        BufferProbe probe = captured.Attach(capture.Element("out").get(), "sink");
        ASSERT_TRUE(capture.RunToEos(5 * GST_SECOND)) << capture.Error();
        EXPECT_EQ(captured.stamps.size(), 10u);
        EXPECT_GT(captured.peak, 1000);

        // 400 ms of audio in 10 ms buffers, of which at most about 80 ms wait in
        // the sink's and the device's buffers when the stream ends.
        TestPipeline playback("audiotestsrc num-buffers=40 samplesperbuffer=" + std::to_string(row.rate / 100)
            + " ! " + caps + " ! alsasink sync=false buffer-time=40000 latency-time=10000");
        const gint64 started = g_get_monotonic_time();
        ASSERT_TRUE(playback.RunToEos(5 * GST_SECOND)) << playback.Error();
        EXPECT_GE(g_get_monotonic_time() - started, 250 * G_TIME_SPAN_MILLISECOND);
    }
}
