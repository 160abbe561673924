// The muxpause stand-in in a live recording that ffprobe reads back: pausing
// leaves no gap. (The daemon's own way of pausing, through interpipe with the
// muxer pipeline paused, is the Mp4muxPipeline tests' part.)
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

TEST(MuxPause, ALiveRecordingPausedForAWhileHoldsAllButThePausedStretchOfEachStream)
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
    GstPtr<GstElement> videoPause = pipeline.Element("video_pause");
    GstPtr<GstElement> audioPause = pipeline.Element("audio_pause");
    auto pauseLength = [](const GstPtr<GstElement>& pause) {
        guint64 length = 0;
        g_object_get(pause.get(), "pause_length", &length, nullptr);
        return length;
    };
    // Each stream's timeline taken in and handed on to the muxer: where it starts and ends, its widest step.
    struct Span {
        GstClockTime first = GST_CLOCK_TIME_NONE, last = 0, end = 0, widest = 0;
        double Seconds() const { return double(end - first) / GST_SECOND; }
    } videoIn, videoOut, audioIn, audioOut;
    auto track = [](Span& span) {
        return [&span](GstBuffer* buffer) {
            const GstClockTime pts = GST_BUFFER_PTS(buffer);
            if (pts == GST_CLOCK_TIME_NONE)
                return;
            if (span.first == GST_CLOCK_TIME_NONE)
                span.first = span.last = pts;
            span.widest = std::max(span.widest, pts > span.last ? pts - span.last : 0);
            span.last = pts;
            const GstClockTime duration
                = GST_BUFFER_DURATION_IS_VALID(buffer) ? GST_BUFFER_DURATION(buffer) : 0;
            span.end = std::max(span.end, pts + duration);
        };
    };
    BufferProbe probes[]
        = { { videoPause.get(), "sink", track(videoIn) }, { videoPause.get(), "src", track(videoOut) },
              { audioPause.get(), "sink", track(audioIn) }, { audioPause.get(), "src", track(audioOut) } };

    ASSERT_TRUE(pipeline.Play());
    g_usleep(G_USEC_PER_SEC);
    // The daemon's order: the audio element takes the video element's length, then both pause.
    g_object_set(audioPause.get(), "pause_length", pauseLength(videoPause), nullptr);
    g_object_set(videoPause.get(), "pause", TRUE, nullptr);
    g_object_set(audioPause.get(), "pause", TRUE, nullptr);
    g_usleep(2 * G_USEC_PER_SEC);
    g_object_set(videoPause.get(), "resume", TRUE, nullptr);
    g_object_set(audioPause.get(), "resume", TRUE, nullptr);
    g_usleep(G_USEC_PER_SEC);
    ASSERT_TRUE(pipeline.Finish());
    pipeline.SetState(GST_STATE_NULL);

    // What the recording must hold however the machine's load shifted the wall-clock steps (and with
    // them where in each stream the pause fell): each stream handed on one timeline without the paused
    // stretch (a resume may wait up to one GOP for a key frame), its pause length is what was taken out,
    // and the file holds all the rest.
    const std::pair<const char*, std::tuple<Span&, Span&, const GstPtr<GstElement>&>> streams[]
        = { { "v", { videoIn, videoOut, videoPause } }, { "a", { audioIn, audioOut, audioPause } } };
    for (const auto& [stream, spans] : streams) {
        const auto& [in, out, pause] = spans;
        SCOPED_TRACE(stream);
        ASSERT_NE(out.first, GST_CLOCK_TIME_NONE);
        EXPECT_LT(double(out.widest) / GST_SECOND, 0.6);
        const double paused = pauseLength(pause) / double(GST_SECOND);
        EXPECT_GT(paused, 0.0);
        EXPECT_NEAR(in.Seconds() - out.Seconds(), paused, 0.1);
        EXPECT_NEAR(FfprobeNumber(file, "stream=duration", stream), out.Seconds(), 0.2);
    }
    EXPECT_NEAR(
        FfprobeNumber(file, "format=duration"), std::max(videoOut.Seconds(), audioOut.Seconds()), 0.3);
}
