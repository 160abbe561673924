// The streamer's playback: the pipeline rebuilt per file, the display dropping live frames while media
// plays, progress forwarded only while playing, pause, resume and seeks, and the end of stream leaving the
// last frame or returning to the live feed.
#include <filesystem>

#include "gst/pipelines/media_test_support.h"
#include "streamer_harness.h"
#include "support/gst_test_pipeline.h"

using namespace StreamerHarness;

namespace
{

const char kStartSignature[] = "int VideoDaemon::OrbStreamer::StartPlayback(const string&, double)";

class OrbStreamerPlayback : public ::testing::Test, public StreamerFixture
{
protected:
    void SetUp() override
    {
        // Two seconds of H.264 and AAC, as a capture writes them, with the
        // thumbnail a SnapVoice file plays under its narration.
        ASSERT_TRUE(MediaTest::RunToEnd("mp4mux name=mux ! filesink location=\"" + Clip()
            + "\" videotestsrc num-buffers=60 ! video/x-raw,width=640,height=480,framerate=30/1 "
              "  ! x264enc key-int-max=15 speed-preset=ultrafast ! h264parse ! mux. "
              "audiotestsrc num-buffers=94 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
              "  ! avenc_aac ! aacparse ! mux."));
        std::filesystem::copy_file(Clip(), SnapVoiceClip());
        ASSERT_TRUE(MediaTest::WriteJpeg(SnapVoiceClip() + "-thumb.jpg", 320, 240, "snow"));
        streamer.InitializePipelines();
        streamer.StartVideoPipelines();
        streamer.signal_playback_progress.connect(
            [this](bool, bool eos, double, int64_t, int64_t) { progress.push_back(eos); });
    }

    std::string Clip() const { return dir.File("clip.mp4"); }
    std::string SnapVoiceClip() const { return dir.File("snapvoice-clip.mp4"); }

    bool DisplayDropsFrames()
    {
        gboolean drop = FALSE;
        EXPECT_TRUE(
            At(kDisplayIndex).GetElementProperty(VIDEOD_FUNCTION, "display_sink", "drop-frames", drop));
        return drop;
    }

    GstTest::TempDir dir;
    // The end-of-stream flag of every forwarded report.
    std::vector<bool> progress;
};

TEST_F(OrbStreamerPlayback, AFilePlaysPausesResumesSeeksAndLeavesItsLastFrameAndEachStartRebuildsThePipeline)
{
    EXPECT_EQ(-1, streamer.StartPlayback("", 1.0));
    EXPECT_TRUE(log.Contains(LOG_ERR, std::string(kStartSignature) + ": filename is empty"));
    EXPECT_EQ(-1, streamer.StartPlayback(dir.File("none.mp4"), 1.0));
    EXPECT_TRUE(log.Contains(
        LOG_ERR, std::string(kStartSignature) + ": filename " + dir.File("none.mp4") + " doesn't exist"));
    EXPECT_EQ(0, State("PlaybackState"));
    EXPECT_FALSE(DisplayDropsFrames());

    ASSERT_GE(streamer.StartPlayback(Clip(), 1.0), 0);
    EXPECT_EQ(1, State("PlaybackState"));
    EXPECT_EQ(1, State("DisplayContent"));
    EXPECT_EQ(0, State("IsExitPlayback"));
    EXPECT_TRUE(DisplayDropsFrames());
    EXPECT_EQ((std::vector<Announcement> { { { "PlaybackState" }, true }, { { "DisplayContent" }, true } }),
        std::vector<Announcement>(announced.end() - 2, announced.end()));
    EXPECT_FALSE(log.ContainsText("Playing JPEG"));

    ASSERT_TRUE(RunMainLoopUntil([&] { return progress.size() >= 2; }, 3000));
    ASSERT_GE(streamer.PausePlayback(), 0);
    EXPECT_EQ(2, State("PlaybackState"));
    EXPECT_EQ(-1, streamer.PausePlayback());
    // Nothing is forwarded while paused.
    const size_t paused_at = progress.size();
    RunMainLoopFor(1200);
    EXPECT_EQ(paused_at, progress.size());
    ASSERT_GE(streamer.ResumePlayback(), 0);
    EXPECT_EQ(-1, streamer.ResumePlayback());
    EXPECT_EQ(1, State("PlaybackState"));
    EXPECT_GE(streamer.SeekPlayback(-500), 0);
    // The position is known again once the seek has settled.
    RunMainLoopFor(400);
    EXPECT_GE(streamer.SeekPlayback(300), 0);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Streamer] SEEK playback: offset:-500 ms"));

    // Played to its end: the last frame stays.
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("PlaybackState") == 0; }, 6000));
    EXPECT_EQ(2, State("DisplayContent"));
    EXPECT_TRUE(DisplayDropsFrames());
    EXPECT_TRUE(progress.back());

    // A stop with exit returns to the live feed once its report comes.
    streamer.StopPlayback(true);
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("DisplayContent") == 0; }, 3000));
    EXPECT_FALSE(DisplayDropsFrames());
    EXPECT_EQ(1, State("IsExitPlayback"));

    // A start while a file plays rebuilds the pipeline; a SnapVoice file shows its picture instead of the
    // video.
    ASSERT_GE(streamer.StartPlayback(Clip(), 1.0), 0);
    log.Clear();
    ASSERT_GE(streamer.StartPlayback(SnapVoiceClip(), 1.0), 0);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Streamer] Deleting Playback Pipeline"));
    EXPECT_TRUE(log.ContainsText("Playing JPEG: " + SnapVoiceClip() + "-thumb.jpg"));
    EXPECT_EQ(1, State("PlaybackState"));

    // A stop without exit keeps the last frame and the live frames out.
    streamer.StopPlayback(false);
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("PlaybackState") == 0; }, 3000));
    RunMainLoopFor(600);
    EXPECT_EQ(2, State("DisplayContent"));
    EXPECT_TRUE(DisplayDropsFrames());
}

} // namespace
