// The muxpause stand-in in a live recording that ffprobe reads back: pausing
// leaves no gap. (The daemon's own way of pausing, through interpipe with the
// muxer pipeline paused, is the Mp4muxPipeline tests' part.)
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

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
    auto pauseLength = [&] {
        guint64 length = 0;
        g_object_get(videoPause.get(), "pause_length", &length, nullptr);
        return length;
    };
    // The video timeline handed on to the muxer: where it starts and ends, and its widest step.
    GstClockTime first = GST_CLOCK_TIME_NONE, last = 0, end = 0, widest = 0;
    BufferProbe timeline(videoPause.get(), "src", [&](GstBuffer* buffer) {
        const GstClockTime pts = GST_BUFFER_PTS(buffer);
        if (pts == GST_CLOCK_TIME_NONE)
            return;
        if (first == GST_CLOCK_TIME_NONE)
            first = last = pts;
        widest = std::max(widest, pts > last ? pts - last : 0);
        last = pts;
        end = std::max(end, pts + (GST_BUFFER_DURATION_IS_VALID(buffer) ? GST_BUFFER_DURATION(buffer) : 0));
    });

    ASSERT_TRUE(pipeline.Play());
    g_usleep(G_USEC_PER_SEC);
    // The daemon's order: the audio element takes the video element's length, then both pause.
    g_object_set(audioPause.get(), "pause_length", pauseLength(), nullptr);
    g_object_set(videoPause.get(), "pause", TRUE, nullptr);
    g_object_set(audioPause.get(), "pause", TRUE, nullptr);
    g_usleep(2 * G_USEC_PER_SEC);
    g_object_set(videoPause.get(), "resume", TRUE, nullptr);
    g_object_set(audioPause.get(), "resume", TRUE, nullptr);
    g_usleep(G_USEC_PER_SEC);
    ASSERT_TRUE(pipeline.Finish());
    pipeline.SetState(GST_STATE_NULL);

    // What the recording must hold however the machine's load shifted the wall-clock steps: the muxer
    // saw one timeline without the paused stretch (a resume may wait up to one GOP for a key frame), and
    // the file holds all of it, sound as long as picture.
    ASSERT_NE(first, GST_CLOCK_TIME_NONE);
    const double seconds = double(end - first) / GST_SECOND;
    EXPECT_GT(seconds, 1.0);
    EXPECT_LT(double(widest) / GST_SECOND, 0.6);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "v"), seconds, 0.2);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "a"), seconds, 0.3);
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), seconds, 0.3);
    const double paused = pauseLength() / double(GST_SECOND);
    EXPECT_GT(paused, 1.0);
    EXPECT_LT(paused, 3.0);
}
