// The muxpause stand-in in live recordings that ffprobe reads back: pausing
// leaves no gap, directly and the daemon's way through interpipe.
#include <gtest/gtest.h>

#include <string>

#include "mux_pause_timeline.h"

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
