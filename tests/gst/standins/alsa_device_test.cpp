// The software sound device behind ALSA's default device: real-time pace, monotonic timestamps, a test tone.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace
{

constexpr GstClockTime kWait = 5 * GST_SECOND;

// The daemon's microphone and speaker, as they are launched on the board.
const char* const kMicDescription
    = "alsasrc name=mic_input_source provide-clock=false do-timestamp=false "
      "! audio/x-raw, rate=44100,channels=2,format=S16LE,layout=interleaved "
      "! volume volume=1 name=mic_volume0 "
      "! interpipesink max-buffers=2 name=mic_input "
      "caps=audio/x-raw,rate=44100,channels=2,format=S16LE,layout=interleaved forward-events=true";
const char* const kSpeakerDescription
    = "interpipesrc name=audio_speaker_source is-live=true "
      "! alsasink name=audio_speaker_sink sync=false enable-last-sample=false";

struct ObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct MessageUnref {
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
template <typename T> using ObjectPtr = std::unique_ptr<T, ObjectUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;

// Points ALSA at the software device of this build tree (when ctest runs the
// test), whatever sound hardware the machine has. Runs before GStreamer opens
// any ALSA device, since alsa-lib reads its configuration on first use.
void UseBuildTreeSoundDevice()
{
    const char* binaryDir = std::getenv("VIDEOD_BINARY_DIR");
    if (binaryDir)
        setenv("ALSA_CONFIG_PATH", (std::string(binaryDir) + "/host/alsa/asound.conf").c_str(), 1);
    gst_init(nullptr, nullptr);
}

std::string ErrorText(GstMessage* message)
{
    if (!message || GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR)
        return "";
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string text = std::string(error->message) + " / " + (debug ? debug : "");
    g_clear_error(&error);
    g_free(debug);
    return text;
}

class Pipeline
{
public:
    explicit Pipeline(const std::string& description)
    {
        UseBuildTreeSoundDevice();
        GError* error = nullptr;
        _Pipeline.reset(gst_parse_launch(description.c_str(), &error));
        EXPECT_EQ(error, nullptr) << (error ? error->message : "") << " in: " << description;
        g_clear_error(&error);
    }
    ~Pipeline()
    {
        if (_Pipeline)
            gst_element_set_state(_Pipeline.get(), GST_STATE_NULL);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    GstElement* Get() const { return _Pipeline.get(); }
    ObjectPtr<GstElement> Element(const char* name) const
    {
        return ObjectPtr<GstElement>(gst_bin_get_by_name(GST_BIN(_Pipeline.get()), name));
    }

    bool Start() const
    {
        return gst_element_set_state(_Pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }
    GstState State() const
    {
        GstState state = GST_STATE_VOID_PENDING;
        gst_element_get_state(_Pipeline.get(), &state, nullptr, kWait);
        return state;
    }
    MessagePtr WaitFor(GstMessageType types, GstClockTime timeout) const
    {
        ObjectPtr<GstBus> bus(gst_element_get_bus(_Pipeline.get()));
        return MessagePtr(gst_bus_timed_pop_filtered(bus.get(), timeout, types));
    }

private:
    std::unique_ptr<GstElement, ObjectUnref> _Pipeline;
};

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
        ObjectPtr<GstPad> target(gst_element_get_static_pad(element, pad));
        ASSERT_NE(target, nullptr);
        gst_pad_add_probe(target.get(), GST_PAD_PROBE_TYPE_BUFFER, &BufferLog::OnBuffer, this, nullptr);
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
    static GstPadProbeReturn OnBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer data)
    {
        auto* self = static_cast<BufferLog*>(data);
        GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        Entry entry { GST_BUFFER_PTS(buffer), GST_CLOCK_TIME_NONE };
        ObjectPtr<GstElement> parent(gst_pad_get_parent_element(pad));
        ObjectPtr<GstClock> clock(parent ? gst_element_get_clock(parent.get()) : nullptr);
        if (clock)
            entry.runningTime = gst_clock_get_time(clock.get()) - gst_element_get_base_time(parent.get());
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
        std::lock_guard<std::mutex> lock(self->_Lock);
        self->_Entries.push_back(entry);
        self->_Peak = std::max(self->_Peak, peak);
        return GST_PAD_PROBE_OK;
    }

    mutable std::mutex _Lock;
    std::vector<Entry> _Entries;
    int _Peak = 0;
};

GstClockTimeDiff Distance(GstClockTime a, GstClockTime b)
{
    return std::abs(GST_CLOCK_DIFF(a, b));
}

} // namespace

TEST(SoftwareSoundDevice, PacesTheMicrophonePipelineInRealTimeWithRunningTimeTimestamps)
{
    Pipeline mic(kMicDescription);
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
    Pipeline mic(kMicDescription);
    Pipeline speaker(kSpeakerDescription);
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
    Pipeline capture("alsasrc num-buffers=50 provide-clock=false ! audio/x-raw,rate=44100,channels=2 ! "
                     "fakesink sync=true");
    ASSERT_TRUE(capture.Start());
    MessagePtr end = capture.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), kWait);
    ASSERT_NE(end, nullptr) << "50 buffers of 10 ms did not end within 5 s";
    EXPECT_EQ(GST_MESSAGE_TYPE(end.get()), GST_MESSAGE_EOS) << ErrorText(end.get());
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
    Pipeline capture("alsasrc num-buffers=10 ! " + Caps()
        + " ! audioconvert ! audio/x-raw,format=S16LE ! fakesink name=out sync=false");
    BufferLog captured;
    captured.Attach(capture.Element("out").get(), "sink");
    ASSERT_TRUE(capture.Start());
    MessagePtr end = capture.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), kWait);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(end.get()), GST_MESSAGE_EOS) << ErrorText(end.get());
    EXPECT_EQ(captured.Entries().size(), 10u);
    EXPECT_GT(captured.Peak(), 1000);

    // 400 ms of audio in 10 ms buffers, of which at most about 80 ms wait in
    // the sink's and the device's buffers when the stream ends.
    Pipeline playback("audiotestsrc num-buffers=40 samplesperbuffer=" + std::to_string(GetParam().rate / 100)
        + " ! " + Caps() + " ! alsasink sync=false buffer-time=40000 latency-time=10000");
    const gint64 started = g_get_monotonic_time();
    ASSERT_TRUE(playback.Start());
    end = playback.WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), kWait);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(GST_MESSAGE_TYPE(end.get()), GST_MESSAGE_EOS) << ErrorText(end.get());
    EXPECT_GE(g_get_monotonic_time() - started, 250 * G_TIME_SPAN_MILLISECOND);
}

INSTANTIATE_TEST_SUITE_P(FormatsChannelsRates, SoftwareSoundDeviceFormat,
    ::testing::Values(AudioFormat { "S16LE", 1, 8000 }, AudioFormat { "S16LE", 2, 48000 },
        AudioFormat { "S32LE", 2, 44100 }, AudioFormat { "F32LE", 1, 16000 },
        AudioFormat { "F32LE", 2, 48000 }));
