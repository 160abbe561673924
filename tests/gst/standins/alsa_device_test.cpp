// The software sound device behind ALSA's default device: real-time pace, monotonic timestamps, a test tone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "pipelines/audio_speaker_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// The daemon's microphone and speaker, as they are launched on the board.
std::string MicDescription()
{
    return VideoDaemon::MicInputPipeline().GetDescription();
}
std::string SpeakerDescription()
{
    return VideoDaemon::AudioSpeakerPipeline().GetDescription();
}

// Points ALSA at the software device of this build tree (when ctest runs the
// test), whatever sound hardware the machine has. Runs before GStreamer opens
// any ALSA device, since alsa-lib reads its configuration on first use.
bool UseBuildTreeSoundDevice()
{
    const char* binaryDir = std::getenv("VIDEOD_BINARY_DIR");
    if (binaryDir)
        setenv("ALSA_CONFIG_PATH", (std::string(binaryDir) + "/host/alsa/asound.conf").c_str(), 1);
    return binaryDir != nullptr;
}
[[maybe_unused]] const bool kBuildTreeSoundDevice = UseBuildTreeSoundDevice();

// What passes a pad: each buffer's timestamp against the pipeline's running
// time when it arrives, and the loudest sample (interleaved S16).
class BufferLog
{
public:
    struct Entry {
        GstClockTime pts;
        GstClockTime runningTime;
    };

    void Attach(GstElement* element, const char* pad)
    {
        _Probe = std::make_unique<BufferProbe>(
            element, pad, [this, element](GstBuffer* buffer) { Add(element, buffer); });
    }
    std::vector<Entry> Entries() const
    {
        std::lock_guard<std::mutex> lock(_Lock);
        return _Entries;
    }
    int Peak() const
    {
        std::lock_guard<std::mutex> lock(_Lock);
        return _Peak;
    }

private:
    void Add(GstElement* element, GstBuffer* buffer)
    {
        Entry entry { GST_BUFFER_PTS(buffer), GST_CLOCK_TIME_NONE };
        ObjectPtr<GstClock> clock(gst_element_get_clock(element));
        if (clock)
            entry.runningTime = gst_clock_get_time(clock.get()) - gst_element_get_base_time(element);
        int peak = 0;
        GstMapInfo map;
        if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
            for (gsize i = 0; i + 1 < map.size; i += 2) {
                int16_t sample;
                std::memcpy(&sample, map.data + i, sizeof sample);
                peak = std::max(peak, std::abs(static_cast<int>(sample)));
            }
            gst_buffer_unmap(buffer, &map);
        }
        std::lock_guard<std::mutex> lock(_Lock);
        _Entries.push_back(entry);
        _Peak = std::max(_Peak, peak);
    }

    mutable std::mutex _Lock;
    std::vector<Entry> _Entries;
    int _Peak = 0;
    std::unique_ptr<BufferProbe> _Probe;
};

GstClockTimeDiff Distance(GstClockTime a, GstClockTime b)
{
    return std::abs(GST_CLOCK_DIFF(a, b));
}

} // namespace

TEST(SoftwareSoundDevice, PacesTheMicrophonePipelineInRealTimeWithRunningTimeTimestamps)
{
    TestPipeline mic(MicDescription());
    BufferLog log;
    log.Attach(mic.Element("mic_input").get(), "sink");
    ASSERT_TRUE(mic.Start());
    EXPECT_EQ(mic.State(), GST_STATE_PLAYING);

    // About one second of capture, watching for errors meanwhile.
    MessagePtr error = mic.WaitFor(GST_MESSAGE_ERROR, GST_SECOND);
    EXPECT_EQ(error, nullptr) << ErrorText(error.get());
    const std::vector<BufferLog::Entry> entries = log.Entries();

    // 10 ms buffers at the device's real-time pace: about a hundred. A sink
    // stalled on timestamps far from the running time gets one or two; a
    // device that returns data as fast as it is read gets thousands.
    EXPECT_GE(entries.size(), 50u);
    EXPECT_LE(entries.size(), 200u);
    for (size_t i = 0; i < entries.size(); ++i) {
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(entries[i].pts)) << "buffer " << i;
        ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(entries[i].runningTime));
        EXPECT_LT(Distance(entries[i].pts, entries[i].runningTime), 500 * GST_MSECOND)
            << "buffer " << i << " pts " << entries[i].pts << " running time " << entries[i].runningTime;
        if (i > 0) {
            EXPECT_GT(entries[i].pts, entries[i - 1].pts) << "buffer " << i;
        }
    }
    // A quiet tone: neither silence nor anywhere near full scale.
    EXPECT_GT(log.Peak(), 1000);
    EXPECT_LT(log.Peak(), 16000);
}

TEST(SoftwareSoundDevice, TheSpeakerPlaysWhatTheMicrophoneProducesThroughInterpipe)
{
    TestPipeline mic(MicDescription());
    TestPipeline speaker(SpeakerDescription());
    BufferLog played;
    played.Attach(speaker.Element("audio_speaker_sink").get(), "sink");
    g_object_set(speaker.Element("audio_speaker_source").get(), "listen-to", "mic_input", nullptr);
    ASSERT_TRUE(mic.Start());
    ASSERT_TRUE(speaker.Start());

    MessagePtr speakerError = speaker.WaitFor(GST_MESSAGE_ERROR, GST_SECOND);
    EXPECT_EQ(speakerError, nullptr) << ErrorText(speakerError.get());
    MessagePtr micError = mic.WaitFor(GST_MESSAGE_ERROR, 0);
    EXPECT_EQ(micError, nullptr) << ErrorText(micError.get());
    EXPECT_EQ(speaker.State(), GST_STATE_PLAYING);
    EXPECT_EQ(mic.State(), GST_STATE_PLAYING);
    EXPECT_GE(played.Entries().size(), 30u);
    EXPECT_GT(played.Peak(), 1000);
}

TEST(SoftwareSoundDevice, CapturesWithoutProvidingTheClockToASynchronisedSinkUntilTheEnd)
{
    TestPipeline capture("alsasrc num-buffers=50 provide-clock=false ! audio/x-raw,rate=44100,channels=2 ! "
                         "fakesink sync=true");
    // 50 buffers of 10 ms end well within 5 s.
    EXPECT_TRUE(capture.RunToEos(5 * GST_SECOND)) << capture.Error();
}

// Each format, channel count and rate the device offers: capture ends with the
// tone in it, playback takes as long as the audio lasts (a device that
// discards at once would take no time).
struct AudioFormat {
    const char* format;
    int channels;
    int rate;
};

class SoftwareSoundDeviceFormat : public ::testing::TestWithParam<AudioFormat>
{
protected:
    std::string Caps() const
    {
        return std::string("audio/x-raw,layout=interleaved,format=") + GetParam().format
            + ",channels=" + std::to_string(GetParam().channels) + ",rate=" + std::to_string(GetParam().rate);
    }
};

TEST_P(SoftwareSoundDeviceFormat, CapturesATestToneAndPlaysAtTheSampleRate)
{
    TestPipeline capture("alsasrc num-buffers=10 ! " + Caps()
        + " ! audioconvert ! audio/x-raw,format=S16LE ! fakesink name=out sync=false");
    BufferLog captured;
    captured.Attach(capture.Element("out").get(), "sink");
    ASSERT_TRUE(capture.RunToEos(5 * GST_SECOND)) << capture.Error();
    EXPECT_EQ(captured.Entries().size(), 10u);
    EXPECT_GT(captured.Peak(), 1000);

    // 400 ms of audio in 10 ms buffers, of which at most about 80 ms wait in
    // the sink's and the device's buffers when the stream ends.
    TestPipeline playback(
        "audiotestsrc num-buffers=40 samplesperbuffer=" + std::to_string(GetParam().rate / 100) + " ! "
        + Caps() + " ! alsasink sync=false buffer-time=40000 latency-time=10000");
    const gint64 started = g_get_monotonic_time();
    ASSERT_TRUE(playback.RunToEos(5 * GST_SECOND)) << playback.Error();
    EXPECT_GE(g_get_monotonic_time() - started, 250 * G_TIME_SPAN_MILLISECOND);
}

INSTANTIATE_TEST_SUITE_P(FormatsChannelsRates, SoftwareSoundDeviceFormat,
    ::testing::Values(AudioFormat { "S16LE", 1, 8000 }, AudioFormat { "S16LE", 2, 48000 },
        AudioFormat { "S32LE", 2, 44100 }, AudioFormat { "F32LE", 1, 16000 },
        AudioFormat { "F32LE", 2, 48000 }));
