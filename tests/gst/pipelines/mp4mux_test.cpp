// The MP4 mux and SnapVoice pipelines recording real files from the recording chain.
#include <chrono>
#include <filesystem>
#include <thread>

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

namespace
{

void Sleep(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Asks the muxer to finish the file and waits for its EOS on the main loop.
bool CloseWithEos(RecordingChain& chain)
{
    int eos = 0;
    sigc::connection connection = chain.mux->signal_eos.connect([&] { ++eos; });
    bool ok = chain.mux->CloseRecord(true) == 0 && RunMainLoopUntil([&] { return eos > 0; }, 5000);
    connection.disconnect();
    chain.FinishRecording();
    return ok;
}

template <typename T>
T PropertyOf(VideoDaemon::Pipeline& pipeline, const std::string& element, const char* name)
{
    T value {};
    g_object_get(ElementOf(pipeline, element).get(), name, &value, nullptr);
    return value;
}

} // namespace

TEST(Mp4muxPipeline, NamesEveryElementAfterItsPrefixAndWritesNowhereUntilOpened)
{
    Mp4muxPipeline mux("autolog");
    EXPECT_EQ(mux.GetName(), "autolog_Mp4muxPipeline");
    LogCapture log;
    ASSERT_TRUE(mux.Launch(false, false, false));
    EXPECT_TRUE(log.Contains(LOG_INFO, "Initialising mux pause objects"));
    for (const char* name : { "autolog_mp4mux_video0", "autolog_idr_valve", "autolog_mp4mux_mque",
             "autolog_mp4mux_vid_pause", "autolog_mux", "autolog_mp4mux_queue", "autolog_mp4mux_tracker",
             "autolog_mp4mux_filesink", "autolog_mp4mux_audio0", "autolog_mp4mux_aud_pause" })
        EXPECT_NE(ElementOf(mux, name), nullptr) << name;
    VideoDaemon::GCharPtr location(PropertyOf<gchar*>(mux, "autolog_mp4mux_filesink", "location"));
    EXPECT_STREQ(location.get(), "/dev/null");
}

// Unbuffered (2), on every pipeline the muxer launches: a killed recording leaves all it wrote on disk.
TEST(Mp4muxPipeline, EveryLaunchMakesTheFileSinkWriteEachBufferAsItComes)
{
    Mp4muxPipeline mux("video");
    for (int launch = 1; launch <= 2; ++launch) {
        ASSERT_TRUE(mux.Launch(false, false, false));
        EXPECT_EQ(PropertyOf<gint>(mux, "video_mp4mux_filesink", "buffer-mode"), 2) << "launch " << launch;
    }
}

TEST(Mp4muxPipeline, OperationsBeforeLaunchReportTheMissingPipeline)
{
    LogCapture log;
    Mp4muxPipeline mux("video");
    mux.SetLocation("/tmp/x.mp4");
    mux.SetDropIDR(false);
    mux.SetMoovRecoveryFile("/tmp/x.mrf");
    EXPECT_FALSE(mux.EnableTrackerSignals(true));
    const std::pair<int, const char*> lines[] = {
        { LOG_INFO, "SetLocation '/tmp/x.mp4'" },
        { LOG_ERR,
            "virtual void VideoDaemon::Mp4muxPipeline::SetLocation(const string&): pipeline == NULL "
            "(video_mp4mux_filesink)" },
        { LOG_ERR, "video_mp4mux_filesink: element not found" },
        { LOG_WARNING, "Set Drop IDR to : 0" },
        { LOG_ERR, "void VideoDaemon::Mp4muxPipeline::SetDropIDR(bool): pipeline == NULL (video_idr_valve)" },
        { LOG_WARNING, "Failed to find video_idr_valve element" },
        { LOG_ERR,
            "void VideoDaemon::Mp4muxPipeline::SetMoovRecoveryFile(const string&): pipeline == NULL "
            "(video_mux)" },
        { LOG_ERR,
            "bool VideoDaemon::Mp4muxPipeline::EnableTrackerSignals(bool): pipeline == NULL "
            "(video_mp4mux_tracker)" },
        { LOG_ERR, "video_mp4mux_tracker: identity element not found" },
    };
    for (const auto& [priority, line] : lines)
        EXPECT_TRUE(log.Contains(priority, line)) << line;
}

TEST(Mp4muxPipeline, EveryPauseHandsTheVideoPauseLengthToTheAudio)
{
    Mp4muxPipeline mux("video");
    ASSERT_TRUE(mux.Launch(false, false, false));
    auto video = ElementOf(mux, "video_mp4mux_vid_pause");
    ASSERT_TRUE(video);
    for (guint64 set : { G_GUINT64_CONSTANT(1500000000), G_GUINT64_CONSTANT(2750000000) }) {
        g_object_set(video.get(), "pause_length", set, nullptr);
        mux.SetMuxPause(true);
        EXPECT_EQ(PropertyOf<guint64>(mux, "video_mp4mux_aud_pause", "pause_length"), set);
        mux.SetMuxPause(false);
    }
}

TEST(Mp4muxPipeline, KeepsTheRecoveryFileCountsWithTheTrackerAndKillsThePipelineOnCloseWithoutEos)
{
    TempDir dir;
    const std::string file = dir.File("killed.mp4");
    const std::string recovery = dir.File("killed.mrf");
    RecordingChain chain;
    ASSERT_TRUE(chain.Start()) << chain.failure;
    {
        LogCapture log;
        ASSERT_TRUE(chain.StartRecording(file, recovery)) << chain.failure;
        EXPECT_TRUE(log.Contains(LOG_INFO, "SetMoovRecoveryFile '" + recovery + "'"));
    }
    ASSERT_TRUE(RunMainLoopUntil([&] { return chain.mux->GetBytesWritten() > 0; }, 3000));
    // The muxer keeps its recovery file while the file is written.
    VideoDaemon::GCharPtr recovery_set(PropertyOf<gchar*>(*chain.mux, "video_mux", "moov-recovery-file"));
    EXPECT_STREQ(recovery_set.get(), recovery.c_str());
    EXPECT_TRUE(std::filesystem::exists(recovery));

    // Counting already: a second enable stops it, a third counts again.
    EXPECT_TRUE(chain.mux->EnableTrackerSignals(true));
    const guint64 frozen = chain.mux->GetBytesWritten();
    Sleep(700);
    EXPECT_EQ(chain.mux->GetBytesWritten(), frozen);
    EXPECT_FALSE(PropertyOf<gboolean>(*chain.mux, "video_mp4mux_tracker", "silent"));
    EXPECT_TRUE(chain.mux->EnableTrackerSignals(true));
    ASSERT_TRUE(RunMainLoopUntil([&] { return chain.mux->GetBytesWritten() > frozen; }, 3000));
    EXPECT_TRUE(chain.mux->EnableTrackerSignals(false));
    EXPECT_TRUE(PropertyOf<gboolean>(*chain.mux, "video_mp4mux_tracker", "silent"));

    LogCapture log;
    EXPECT_EQ(chain.mux->CloseRecord(false), 0);
    EXPECT_TRUE(log.Contains(LOG_ERR, "Killing off MP4 pipeline without sending EOS..."));
    EXPECT_FALSE(log.ContainsText("Sending EOS event"));
    EXPECT_EQ(chain.mux->GetState(), GST_STATE_NULL);
    EXPECT_EQ(chain.mux->GetPreviousLocation(), file);
    EXPECT_EQ(chain.mux->GetLocation(), "");
    EXPECT_TRUE(PropertyOf<gboolean>(*chain.mux, "video_idr_valve", "drop"));
    chain.Stop();
}

// Relaunched while counting, the muxer keeps its toggle: the next enable is
// a second one in a row and stops the counting, the one after counts the new
// pipeline's bytes.
TEST(Mp4muxPipeline, ARelaunchWhileCountingKeepsTheTrackerToggle)
{
    TempDir dir;
    RecordingChain chain;
    ASSERT_TRUE(chain.Start()) << chain.failure;
    ASSERT_TRUE(chain.StartRecording(dir.File("before.mp4"))) << chain.failure;
    ASSERT_TRUE(RunMainLoopUntil([&] { return chain.mux->GetBytesWritten() > 0; }, 3000));

    chain.mux->SetState(GST_STATE_NULL);
    ASSERT_TRUE(chain.mux->Launch(true, true, true));
    ASSERT_TRUE(chain.mux->ListenTo(&chain.h264, "", ""));
    ASSERT_TRUE(chain.mux->ListenTo(&chain.aac, "", chain.mux->GetAudioSourceName()));
    chain.mux->SetLocation(dir.File("after.mp4"));
    BufferCount passed(ElementOf(*chain.mux, "video_mp4mux_tracker").get(), "src");
    ASSERT_EQ(chain.mux->SetState(GST_STATE_PLAYING, RecordingChain::kWaitMs), 0);
    chain.mux->SetDropIDR(false);

    EXPECT_TRUE(chain.mux->EnableTrackerSignals(true));
    EXPECT_FALSE(PropertyOf<gboolean>(*chain.mux, "video_mp4mux_tracker", "silent"));
    const guint64 frozen = chain.mux->GetBytesWritten();
    ASSERT_TRUE(RunMainLoopUntil([&] { return passed.Value() >= 10; }, 3000));
    EXPECT_EQ(chain.mux->GetBytesWritten(), frozen);

    EXPECT_TRUE(chain.mux->EnableTrackerSignals(true));
    ASSERT_TRUE(RunMainLoopUntil([&] { return chain.mux->GetBytesWritten() > frozen; }, 3000));
    EXPECT_EQ(chain.mux->CloseRecord(false), 0);
    chain.Stop();
}

// One recording paused half-way: the file must be what a capture promises
// (H.264 main, AAC 48 kHz stereo, starting on an IDR frame although the
// encoder has run for a while) and show no trace of the pause.
TEST(Mp4muxPipeline, RecordsH264MainAndAac48kStereoFromAnIdrFrameWithoutAGapAcrossAPause)
{
    TempDir dir;
    const std::string file = dir.File("recording.mp4");
    RecordingChain chain;
    ASSERT_TRUE(chain.Start()) << chain.failure;
    Sleep(500);

    LogCapture log;
    auto segment = std::chrono::steady_clock::now();
    ASSERT_TRUE(chain.StartRecording(file)) << chain.failure;
    EXPECT_TRUE(log.Contains(LOG_INFO, "OpenRecord '" + file + "'"));
    Sleep(1500);
    double recorded = Seconds(segment);

    ASSERT_TRUE(chain.Pause());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Mp4muxPipeline::SetMuxPause (pause)"));
    Sleep(1500);
    segment = std::chrono::steady_clock::now();
    ASSERT_TRUE(chain.Resume());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Mp4muxPipeline::SetMuxPause (resume)"));
    Sleep(1500);
    recorded += Seconds(segment);
    ASSERT_TRUE(CloseWithEos(chain));
    EXPECT_EQ(chain.mux->GetPreviousLocation(), file);
    EXPECT_EQ(chain.mux->GetBytesWritten(), 0u);
    chain.Stop();

    EXPECT_EQ(FfprobeValues(file, "stream=codec_type"), (std::vector<std::string> { "video", "audio" }));
    auto video_info = FfprobeEntries(file, "stream=codec_name,profile", "v:0");
    EXPECT_EQ(video_info["codec_name"], "h264");
    EXPECT_EQ(video_info["profile"], "Main");
    auto audio_info = FfprobeEntries(file, "stream=codec_name,sample_rate,channels", "a:0");
    EXPECT_EQ(audio_info["codec_name"], "aac");
    EXPECT_EQ(audio_info["sample_rate"], "48000");
    EXPECT_EQ(audio_info["channels"], "2");
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), recorded, recorded * 0.1);

    std::vector<Packet> video = FfprobePackets(file, "v:0");
    std::vector<Packet> audio = FfprobePackets(file, "a:0");
    ASSERT_GT(video.size(), 60u);
    ASSERT_GT(audio.size(), 60u);
    EXPECT_EQ(video.front().flags.substr(0, 1), "K");
    std::vector<std::string> picture_types = FfprobeValues(file, "frame=pict_type", "v:0");
    ASSERT_FALSE(picture_types.empty());
    EXPECT_EQ(picture_types.front(), "I");
    // 1024-sample AAC frames at 48 kHz: a few frames at most between
    // samples, never the 1.5 s of the pause. The picture resumes on the next
    // IDR frame (one every 16 frames), so it may skip up to half a second.
    EXPECT_LT(LargestGap(audio), 0.3);
    EXPECT_LT(LargestGap(video), 0.7);
}

TEST(SnapvoicePipeline, RecordsAStillPictureWithNarration)
{
    TempDir dir;
    const std::string file = dir.File("note.mp4");
    RecordingChain chain(std::make_unique<VideoDaemon::SnapvoicePipeline>());
    EXPECT_EQ(chain.mux->GetName(), "snapvoice_Mp4muxPipeline");
    ASSERT_TRUE(chain.Start()) << chain.failure;
    ASSERT_TRUE(chain.StartRecording(file)) << chain.failure;
    Sleep(2000);
    ASSERT_TRUE(CloseWithEos(chain));
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
