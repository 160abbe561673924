// The MP4 mux and SnapVoice pipelines: element names, the tracker's byte count and files from the recording
// chain. (A paused recording's file is checked by the recording graph test.)
#include <filesystem>

#include "log_capture.h"
#include "pipeline_harness.h"
#include "pipelines/snapvoice_pipeline.h"
#include "recording_chain.h"
#include "support/death_test_style.h"
#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace PipelineHarness;
using namespace GstTest;
using VideoDaemon::Mp4muxPipeline;

TEST(Mp4muxPipeline, NamesItsElementsAfterItsPrefixWritesUnbufferedToNowhereAndRelaysThePauseLength)
{
    LogCapture log;
    Mp4muxPipeline mux("autolog");
    EXPECT_EQ(mux.GetName(), "autolog_Mp4muxPipeline");
    mux.SetLocation("/tmp/x.mp4");
    mux.SetDropIDR(false);
    mux.SetMoovRecoveryFile("/tmp/x.mrf");
    EXPECT_FALSE(mux.EnableTrackerSignals(true));
    const std::pair<int, const char*> lines[] = {
        { LOG_INFO, "SetLocation '/tmp/x.mp4'" },
        { LOG_ERR,
            "virtual void VideoDaemon::Mp4muxPipeline::SetLocation(const string&): pipeline == NULL "
            "(autolog_mp4mux_filesink)" },
        { LOG_ERR, "autolog_mp4mux_filesink: element not found" },
        { LOG_WARNING, "Set Drop IDR to : 0" },
        { LOG_ERR,
            "void VideoDaemon::Mp4muxPipeline::SetDropIDR(bool): pipeline == NULL (autolog_idr_valve)" },
        { LOG_WARNING, "Failed to find autolog_idr_valve element" },
        { LOG_ERR,
            "void VideoDaemon::Mp4muxPipeline::SetMoovRecoveryFile(const string&): pipeline == NULL "
            "(autolog_mux)" },
        { LOG_ERR,
            "bool VideoDaemon::Mp4muxPipeline::EnableTrackerSignals(bool): pipeline == NULL "
            "(autolog_mp4mux_tracker)" },
        { LOG_ERR, "autolog_mp4mux_tracker: identity element not found" },
    };
    for (const auto& [priority, line] : lines)
        EXPECT_TRUE(log.Contains(priority, line)) << line;

    // Unbuffered (2) on every launch: a killed recording leaves all it wrote on disk.
    for (int launch = 1; launch <= 2; ++launch) {
        ASSERT_TRUE(mux.Launch(false, false, false));
        EXPECT_EQ(PropertyOf<gint>(mux, "autolog_mp4mux_filesink", "buffer-mode"), 2) << "launch " << launch;
    }
    EXPECT_TRUE(log.Contains(LOG_INFO, "Initialising mux pause objects"));
    for (const char* name : { "autolog_mp4mux_video0", "autolog_idr_valve", "autolog_mp4mux_mque",
             "autolog_mp4mux_vid_pause", "autolog_mux", "autolog_mp4mux_queue", "autolog_mp4mux_tracker",
             "autolog_mp4mux_filesink", "autolog_mp4mux_audio0", "autolog_mp4mux_aud_pause" })
        EXPECT_NE(ElementOf(mux, name), nullptr) << name;
    VideoDaemon::GCharPtr location(PropertyOf<gchar*>(mux, "autolog_mp4mux_filesink", "location"));
    EXPECT_STREQ(location.get(), "/dev/null");

    // Every pause hands the video's pause length to the audio.
    auto video = ElementOf(mux, "autolog_mp4mux_vid_pause");
    ASSERT_TRUE(video);
    for (guint64 set : { G_GUINT64_CONSTANT(1500000000), G_GUINT64_CONSTANT(2750000000) }) {
        g_object_set(video.get(), "pause_length", set, nullptr);
        mux.SetMuxPause(true);
        EXPECT_EQ(PropertyOf<guint64>(mux, "autolog_mp4mux_aud_pause", "pause_length"), set);
        mux.SetMuxPause(false);
    }
}

// The muxer keeps its recovery file while it writes. A second enable of the tracker in a row stops the
// count, also across a relaunch while counting; the one after counts the current pipeline's bytes.
TEST(Mp4muxPipeline, TheTrackerToggleSurvivesARelaunchAndACloseWithoutEosKillsThePipeline)
{
    TempDir dir;
    const std::string recovery = dir.File("killed.mrf");
    RecordingChain chain;
    ASSERT_TRUE(chain.Start()) << chain.failure;
    Mp4muxPipeline& mux = *chain.mux;
    {
        LogCapture log;
        ASSERT_TRUE(chain.StartRecording(dir.File("before.mp4"), recovery)) << chain.failure;
        EXPECT_TRUE(log.Contains(LOG_INFO, "SetMoovRecoveryFile '" + recovery + "'"));
    }
    ASSERT_TRUE(RunMainLoopUntil([&] { return mux.GetBytesWritten() > 0; }, 3000));
    VideoDaemon::GCharPtr recovery_set(PropertyOf<gchar*>(mux, "video_mux", "moov-recovery-file"));
    EXPECT_STREQ(recovery_set.get(), recovery.c_str());
    EXPECT_TRUE(std::filesystem::exists(recovery));

    // Counting already: the next enable stops the count while buffers pass, the one after resumes it.
    auto toggle_off_then_on = [&](const char* step) {
        BufferCount passed(ElementOf(mux, "video_mp4mux_tracker").get(), "src");
        EXPECT_TRUE(mux.EnableTrackerSignals(true)) << step;
        EXPECT_FALSE(PropertyOf<gboolean>(mux, "video_mp4mux_tracker", "silent")) << step;
        const guint64 frozen = mux.GetBytesWritten();
        const unsigned before = passed.Value();
        ASSERT_TRUE(RunMainLoopUntil([&] { return passed.Value() >= before + 10; }, 3000)) << step;
        EXPECT_EQ(mux.GetBytesWritten(), frozen) << step;
        EXPECT_TRUE(mux.EnableTrackerSignals(true)) << step;
        EXPECT_TRUE(RunMainLoopUntil([&] { return mux.GetBytesWritten() > frozen; }, 3000)) << step;
    };
    toggle_off_then_on("first pipeline");

    const std::string file = dir.File("after.mp4");
    mux.SetState(GST_STATE_NULL);
    ASSERT_TRUE(mux.Launch(true, true, true));
    ASSERT_TRUE(mux.ListenTo(&chain.h264, "", ""));
    ASSERT_TRUE(mux.ListenTo(&chain.aac, "", mux.GetAudioSourceName()));
    mux.SetLocation(file);
    ASSERT_EQ(mux.SetState(GST_STATE_PLAYING, RecordingChain::kWaitMs), 0);
    mux.SetDropIDR(false);
    toggle_off_then_on("relaunched pipeline");
    EXPECT_TRUE(mux.EnableTrackerSignals(false));
    EXPECT_TRUE(PropertyOf<gboolean>(mux, "video_mp4mux_tracker", "silent"));

    LogCapture log;
    EXPECT_EQ(mux.CloseRecord(false), 0);
    EXPECT_TRUE(log.Contains(LOG_ERR, "Killing off MP4 pipeline without sending EOS..."));
    EXPECT_FALSE(log.ContainsText("Sending EOS event"));
    EXPECT_EQ(mux.GetState(), GST_STATE_NULL);
    EXPECT_EQ(mux.GetPreviousLocation(), file);
    EXPECT_EQ(mux.GetLocation(), "");
    EXPECT_TRUE(PropertyOf<gboolean>(mux, "video_idr_valve", "drop"));
}

TEST(SnapvoicePipeline, RecordsAStillPictureWithNarration)
{
    TempDir dir;
    const std::string file = dir.File("note.mp4");
    RecordingChain chain(std::make_unique<VideoDaemon::SnapvoicePipeline>());
    EXPECT_EQ(chain.mux->GetName(), "snapvoice_Mp4muxPipeline");
    ASSERT_TRUE(chain.Start()) << chain.failure;
    ASSERT_TRUE(chain.StartRecording(file)) << chain.failure;
    RunMainLoopFor(2000);
    ASSERT_TRUE(chain.CloseWithEos()) << chain.failure;
    chain.Stop();

    EXPECT_EQ(FfprobeValues(file, "stream=codec_name"), (std::vector<std::string> { "h264", "aac" }));
    std::vector<Packet> video = FfprobePackets(file, "v:0");
    ASSERT_EQ(video.size(), 1u); // the narration runs on; the picture does not
    EXPECT_EQ(video.front().flags.substr(0, 1), "K");
    EXPECT_GT(FfprobePackets(file, "a:0").size(), 50u);
}

TEST(Mp4muxDeathTest, MuxPauseWithoutPipelineEndsTheProcess)
{
    UseFreshProcessDeathTests();
    Mp4muxPipeline mux("video");
    EXPECT_DEATH(
        {
            LogToStderr();
            mux.ResetMuxPause();
        },
        "Mp4muxPipeline::ResetMuxPause.*<3>void VideoDaemon::MuxPause::Reset\\(\\): pipeline == NULL "
        "\\(video_mp4mux_vid_pause\\).*src/pipelines/mp4mux_pipeline.cpp:[0-9]+:.*assertion failed: "
        "\\(element\\)");
    EXPECT_DEATH(
        {
            LogToStderr();
            mux.SetMuxPause(true);
        },
        "<3>guint64 VideoDaemon::MuxPause::GetPauseLength\\(\\): pipeline == NULL "
        "\\(video_mp4mux_vid_pause\\).*src/pipelines/mp4mux_pipeline.cpp");
    // Also once the pipeline is torn down again.
    ASSERT_TRUE(mux.Launch(false, false, false));
    mux.ResetMuxPause();
    ASSERT_TRUE(mux.TearDown());
    EXPECT_DEATH(
        {
            LogToStderr();
            mux.SetMuxPause(false);
        },
        "<3>void VideoDaemon::MuxPause::Resume\\(\\): pipeline == NULL \\(video_mp4mux_vid_pause\\)"
        ".*src/pipelines/mp4mux_pipeline.cpp:[0-9]+:.*assertion failed: \\(element\\)");
}
