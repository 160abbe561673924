// The muxpause stand-in: buffers dropped while paused, timestamps closed up after resuming.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ffprobe.h"
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

// The timeline a muxpause element hands on to the muxer: its length and its widest step.
class OutputTimeline
{
public:
    explicit OutputTimeline(GstElement* pause)
        : _Probe(pause, "src", [this](GstBuffer* buffer) { Add(buffer); })
    {
    }

    double Seconds() const { return _First == GST_CLOCK_TIME_NONE ? 0.0 : double(_End - _First) / GST_SECOND; }
    double WidestStep() const { return double(_WidestStep) / GST_SECOND; }

private:
    void Add(GstBuffer* buffer)
    {
        const GstClockTime pts = GST_BUFFER_PTS(buffer);
        if (pts == GST_CLOCK_TIME_NONE)
            return;
        if (_First == GST_CLOCK_TIME_NONE)
            _First = _Last = pts;
        if (pts > _Last)
            _WidestStep = std::max(_WidestStep, pts - _Last);
        _Last = pts;
        const GstClockTime duration = GST_BUFFER_DURATION(buffer);
        _End = std::max(_End, pts + (duration == GST_CLOCK_TIME_NONE ? 0 : duration));
    }

    GstClockTime _First = GST_CLOCK_TIME_NONE;
    GstClockTime _Last = 0;
    GstClockTime _End = 0;
    GstClockTime _WidestStep = 0;
    BufferProbe _Probe;
};

// What a paused recording must hold however the machine's load shifted the wall-clock steps: the
// muxer saw one timeline without the paused stretch (a resume may wait up to one GOP for a key
// frame), and the file holds all of it, sound as long as picture.
void ExpectNoGap(const std::string& file, const OutputTimeline& video)
{
    EXPECT_GT(video.Seconds(), 1.0);
    EXPECT_LT(video.WidestStep(), 0.6);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "v"), video.Seconds(), 0.2);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "a"), video.Seconds(), 0.3);
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), video.Seconds(), 0.3);
}

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

TEST(MuxPause, AFourSecondLiveRecordingWithATwoSecondPauseHoldsTwoSecondsOfMedia)
{
    TempDir dir;
    const std::string file = dir.File("paused.mp4");
    TestPipeline pipeline("videotestsrc is-live=true ! video/x-raw,width=320,height=240,framerate=30/1 ! "
                          "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 ! h264parse ! "
                          "muxpause name=video_pause ! "
                          "queue ! mp4mux name=mux ! filesink location="
        + file
        + " audiotestsrc is-live=true ! audio/x-raw,rate=44100 ! audioconvert ! avenc_aac ! "
          "muxpause name=audio_pause ! queue ! mux.");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> videoPause = pipeline.Element("video_pause");
    ObjectPtr<GstElement> audioPause = pipeline.Element("audio_pause");
    OutputTimeline videoOutput(videoPause.get());

    ASSERT_TRUE(pipeline.Play());
    g_usleep(G_USEC_PER_SEC);
    // The daemon's order: the audio element takes the video element's length, then both pause.
    g_object_set(audioPause.get(), "pause_length", PauseLength(videoPause.get()), nullptr);
    g_object_set(videoPause.get(), "pause", TRUE, nullptr);
    g_object_set(audioPause.get(), "pause", TRUE, nullptr);
    g_usleep(2 * G_USEC_PER_SEC);
    g_object_set(videoPause.get(), "resume", TRUE, nullptr);
    g_object_set(audioPause.get(), "resume", TRUE, nullptr);
    g_usleep(G_USEC_PER_SEC);
    ASSERT_TRUE(pipeline.Finish());
    pipeline.SetState(GST_STATE_NULL);

    ExpectNoGap(file, videoOutput);
    const double paused = PauseLength(videoPause.get()) / double(GST_SECOND);
    EXPECT_GT(paused, 1.0);
    EXPECT_LT(paused, 3.0);
}

TEST(MuxPause, PausingTheDaemonsWayThroughInterpipeLeavesNoGap)
{
    // The muxer pipeline listens to encoder pipelines; a pause detaches it, pauses the elements and
    // the pipeline, a resume re-attaches and plays again.
    TempDir dir;
    const std::string file = dir.File("paused.mp4");
    TestPipeline encoders("videotestsrc is-live=true ! video/x-raw,width=320,height=240,framerate=30/1 ! "
                          "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=15 ! h264parse ! "
                          "video/x-h264,stream-format=avc,alignment=au ! interpipesink name=unit_h264_sink "
                          "sync=false async=false "
                          "forward-events=false forward-eos=true audiotestsrc is-live=true ! "
                          "audio/x-raw,rate=44100 ! audioconvert ! "
                          "avenc_aac ! interpipesink name=unit_aac_sink sync=false async=false "
                          "forward-events=false forward-eos=true");
    TestPipeline muxer(
        "interpipesrc name=video0 stream-sync=1 format=time allow-renegotiation=false "
        "listen-to=unit_h264_sink ! video/x-h264 ! idrvalve name=idr drop=true ! "
        "multiqueue name=mque max-size-buffers=30 max-size-time=0 mque. ! muxpause name=video_pause ! "
        "mp4mux name=mux ! filesink async=false sync=false location="
        + file
        + " interpipesrc name=audio0 stream-sync=1 format=time allow-renegotiation=false "
          "listen-to=unit_aac_sink ! audio/mpeg ! mque. mque. ! muxpause name=audio_pause ! mux.");
    ASSERT_TRUE(encoders.Parsed()) << encoders.Error();
    ASSERT_TRUE(muxer.Parsed()) << muxer.Error();
    ObjectPtr<GstElement> idr = muxer.Element("idr");
    ObjectPtr<GstElement> video0 = muxer.Element("video0");
    ObjectPtr<GstElement> audio0 = muxer.Element("audio0");
    ObjectPtr<GstElement> videoPause = muxer.Element("video_pause");
    ObjectPtr<GstElement> audioPause = muxer.Element("audio_pause");
    OutputTimeline videoOutput(videoPause.get());

    ASSERT_TRUE(encoders.Play());
    ASSERT_TRUE(muxer.Play());
    g_object_set(idr.get(), "drop", FALSE, nullptr);
    g_usleep(G_USEC_PER_SEC);

    g_object_set(video0.get(), "listen-to", nullptr, nullptr);
    g_object_set(audio0.get(), "listen-to", nullptr, nullptr);
    g_object_set(audioPause.get(), "pause_length", PauseLength(videoPause.get()), nullptr);
    g_object_set(videoPause.get(), "pause", TRUE, nullptr);
    g_object_set(audioPause.get(), "pause", TRUE, nullptr);
    g_object_set(idr.get(), "drop", TRUE, nullptr);
    gst_element_set_state(muxer.Get(), GST_STATE_PAUSED);
    g_usleep(2 * G_USEC_PER_SEC);

    g_object_set(video0.get(), "listen-to", "unit_h264_sink", nullptr);
    g_object_set(audio0.get(), "listen-to", "unit_aac_sink", nullptr);
    g_object_set(videoPause.get(), "resume", TRUE, nullptr);
    g_object_set(audioPause.get(), "resume", TRUE, nullptr);
    g_object_set(idr.get(), "drop", FALSE, nullptr);
    ASSERT_TRUE(muxer.Play());
    g_usleep(G_USEC_PER_SEC);
    ASSERT_TRUE(muxer.Finish());
    muxer.SetState(GST_STATE_NULL);

    ExpectNoGap(file, videoOutput);
}
