// The streamer's captures on the simulated camera: recording, SnapVoice and autolog with their thumbnails,
// the shared encoder valve and AAC encoder, the EOS handlers, the storage daemon told of the writes, and
// bad requests that leave the live picture and the other captures alone.
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <any>
#include <filesystem>

#include "dbus/dbus_test_env.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "streamer_harness.h"
#include "support/ffprobe.h"

using namespace StreamerHarness;
using namespace GstTest;

namespace
{

const char kDevice[] = "/com/tarnwell/common/StorageDaemon1/sd";
const char kSimulation[] = "com.tarnwell.host.Simulation";

class OrbStreamerCaptures : public VideodTest::DbusTestEnv, public StreamerFixture
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        dir = TempDir() + "/media";
        std::filesystem::create_directories(dir);
        streamer.InitializePipelines();
        streamer.SetInput(1);
        streamer.StartVideoPipelines();
        ASSERT_TRUE(AllPlaying({ kNtscCameraIndex, kGpuIndex, kOverlayRecordingIndex, kH264VideoIndex }));
        // The GPU's restamping source leaves its preroll frame without a
        // time; captures start once the live frames have replaced it, as
        // the daemon's clients come long after start-up.
        RunMainLoopFor(1000);
    }

    std::string Path(const std::string& name) const { return dir + "/" + name; }

    // Whether the valve in front of the "video" encoder drops.
    bool VideoValveDrops()
    {
        gboolean drop = FALSE;
        EXPECT_TRUE(
            At(kH264VideoIndex).GetElementProperty(VIDEOD_FUNCTION, "video_h264_valve", "drop", drop));
        return drop;
    }

    ::testing::AssertionResult MuxerFinished(int index)
    {
        if (RunMainLoopUntil([&] { return At(index).GetState() == GST_STATE_NULL; }, 10000))
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure()
            << "muxer " << index << " still " << gst_element_state_get_name(At(index).GetState());
    }

    bool Announced(const std::vector<std::string>& names) const
    {
        for (const Announcement& announcement : announced)
            if (announcement.first == names)
                return true;
        return false;
    }

    // Waits until no snapshot or thumbnail is in progress.
    bool ThumbnailDone()
    {
        auto& snapshot = static_cast<SnapshotPipeline&>(At(kSnapshotIndex));
        return RunMainLoopUntil([&] { return !snapshot.IsInProgress(); }, 6000);
    }

    std::string dir;
};

TEST_F(OrbStreamerCaptures, ARecordingPausedAndResumedIsOneFileWithoutTheGapAndAThumbnailOfTheAskedSize)
{
    ASSERT_EQ(0, streamer.StartRecording(Path("rec.mp4"), Path("rec.mrf"), Path("rec.jpg"), 320, 240, 80));
    EXPECT_EQ(1, State("RecordingState"));
    EXPECT_TRUE(Announced({ "RecordingState", "ActiveCaptures" }));
    EXPECT_EQ(Path("rec.mp4"), streamer.GetCaptureFile(OrbStreamer::kVideoCapture));
    EXPECT_EQ(Path("rec.mrf"), streamer.GetCaptureRecoveryFile(OrbStreamer::kVideoCapture));
    EXPECT_FALSE(VideoValveDrops());
    RunMainLoopFor(2500);

    ASSERT_EQ(0, streamer.PauseRecording());
    EXPECT_EQ(2, State("RecordingState"));
    EXPECT_EQ(-1, streamer.PauseRecording());
    EXPECT_TRUE(log.Contains(LOG_INFO, "int VideoDaemon::OrbStreamer::PauseRecording(): not ACTIVE"));
    RunMainLoopFor(2000);
    ASSERT_EQ(0, streamer.ResumeRecording());
    EXPECT_EQ(-1, streamer.ResumeRecording());
    EXPECT_TRUE(log.Contains(LOG_INFO, "int VideoDaemon::OrbStreamer::ResumeRecording(): not PAUSED"));
    RunMainLoopFor(1200);
    // The user changes the recording's bitrate while it runs.
    streamer.VideoRecordSettingsChangedHandler(
        { { "h264EncodingBitrate", { "u", std::any(static_cast<uint32_t>(1500)) } } });
    EXPECT_EQ(1500u, streamer.Encoder(OrbStreamer::kVideoCapture).GetBitrate());
    RunMainLoopFor(1300);

    ASSERT_EQ(0, streamer.StopRecording());
    EXPECT_EQ(0, State("RecordingState"));
    EXPECT_TRUE(Announced({ "RecordingState", "InactiveCaptures" }));
    EXPECT_TRUE(VideoValveDrops());
    EXPECT_EQ(GST_STATE_NULL, At(kAacEncodeIndex).GetState());
    ASSERT_TRUE(MuxerFinished(kMp4muxVideoIndex));
    EXPECT_TRUE(log.Contains(LOG_INFO, "HandleRecordingEos: Handling EOS..."));
    EXPECT_EQ(Path("rec.mp4"), streamer.GetPreviousCaptureFile(OrbStreamer::kVideoCapture));
    EXPECT_EQ("", streamer.GetCaptureRecoveryFile(OrbStreamer::kVideoCapture));
    // Without the storage daemon the capture works; its device is looked up once, for the start.
    EXPECT_EQ(1u, LinesStartingWith(log, LOG_ERR, "Storage.GetStorageObjectPaths() failed").size());

    ExpectCaptureStreamFormats(Path("rec.mp4"));
    // Five seconds recorded; the two paused ones are not in the file.
    EXPECT_NEAR(5.0, FfprobeNumber(Path("rec.mp4"), "format=duration"), 0.6);
    const std::vector<Packet> video = FfprobePackets(Path("rec.mp4"), "v:0");
    ASSERT_FALSE(video.empty());
    EXPECT_EQ("K_", video.front().flags);
    EXPECT_LT(LargestGap(video), 0.2);
    EXPECT_LT(LargestGap(FfprobePackets(Path("rec.mp4"), "a:0")), 0.2);
    EXPECT_EQ((std::map<std::string, std::string> { { "width", "320" }, { "height", "240" } }),
        FfprobeEntries(Path("rec.jpg"), "stream=width,height", "v:0"));

    // Stopping an inactive recording does nothing.
    EXPECT_EQ(0, streamer.StopRecording());
    EXPECT_EQ(0, streamer.StopAutoLog());
    EXPECT_TRUE(log.Contains(LOG_INFO, "int VideoDaemon::OrbStreamer::StopAutoLog(): not recording"));
}

TEST_F(OrbStreamerCaptures, ThreeKindsRunAtOnceAndOnlyAnActiveOneKeepsTheSharedValveAndAacEncoderInUse)
{
    ASSERT_EQ(0, streamer.StartRecording(Path("video.mp4"), "", Path("video.jpg"), 160, 120, 70));
    ASSERT_TRUE(ThumbnailDone());
    // SnapVoice turns active when its picture exists, not before.
    ASSERT_EQ(0, streamer.StartSnapVoice(Path("snapvoice.mp4"), "", Path("snapvoice.jpg"), 160, 120, 70));
    EXPECT_EQ(0, State("SnapVoiceState"));
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("SnapVoiceState") == 1; }, 6000));
    EXPECT_TRUE(std::filesystem::exists(Path("snapvoice.jpg")));
    EXPECT_TRUE(Announced({ "SnapVoiceState", "ActiveCaptures" }));
    RunMainLoopFor(300);
    ASSERT_EQ(0, streamer.StartAutoLog(Path("autolog.mp4"), "", Path("autolog.jpg"), 160, 120, 70));
    EXPECT_EQ(-1, streamer.StartAutoLog(Path("autolog2.mp4"), "", Path("autolog2.jpg"), 160, 120, 70));
    EXPECT_TRUE(log.Contains(LOG_ERR, "OrbStreamer::StartAutoLog - Autolog recording already active"));
    RunMainLoopFor(3000);

    // The active SnapVoice keeps the shared valve open and the AAC encoder on.
    ASSERT_EQ(0, streamer.StopRecording());
    EXPECT_FALSE(VideoValveDrops());
    EXPECT_EQ(GST_STATE_PLAYING, At(kAacEncodeIndex).GetState());
    // A paused autolog does not keep the AAC encoder on.
    ASSERT_EQ(0, streamer.PauseAutoLog());
    ASSERT_EQ(0, streamer.StopSnapVoice());
    EXPECT_TRUE(VideoValveDrops());
    EXPECT_EQ(GST_STATE_NULL, At(kAacEncodeIndex).GetState());
    ASSERT_EQ(0, streamer.StopAutoLog());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Autolog paused, resuming..."));

    for (int index : { kMp4muxVideoIndex, kSnapvoiceIndex, kMp4muxAutologIndex })
        ASSERT_TRUE(MuxerFinished(index));
    EXPECT_EQ(GST_STATE_NULL, At(kH264AutologIndex).GetState());
    for (const char* name : { "video.mp4", "autolog.mp4" }) {
        ExpectCaptureStreamFormats(Path(name));
        EXPECT_GT(FfprobeNumber(Path(name), "format=duration"), 2.0) << name;
    }
    // SnapVoice: one picture and the narration.
    EXPECT_EQ((std::vector<std::string> { "h264", "aac" }),
        FfprobeValues(Path("snapvoice.mp4"), "stream=codec_name", ""));
    for (const char* handler : { "HandleRecordingEos", "HandleSnapvoiceEos", "HandleAutologEos" })
        EXPECT_TRUE(log.Contains(LOG_INFO, std::string(handler) + ": Handling EOS...")) << handler;
}

// A directory whose file system holds `bytes` at most: a small tmpfs where
// mounting is allowed, else the process's file size limit (restored on
// destruction) stands in for it.
class SmallFileSystem
{
public:
    SmallFileSystem(const std::string& dir, size_t bytes)
        : _Dir(dir)
    {
        std::filesystem::create_directories(dir);
        const std::string options = "size=" + std::to_string(bytes);
        _Mounted = mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
        if (_Mounted)
            return;
        getrlimit(RLIMIT_FSIZE, &_Previous);
        rlimit limit = _Previous;
        limit.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &limit);
        // A write past the limit fails instead of ending the process.
        signal(SIGXFSZ, SIG_IGN);
    }
    ~SmallFileSystem()
    {
        if (_Mounted)
            umount2(_Dir.c_str(), MNT_DETACH);
        else
            setrlimit(RLIMIT_FSIZE, &_Previous);
    }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

private:
    std::string _Dir;
    bool _Mounted = false;
    rlimit _Previous {};
};

TEST_F(
    OrbStreamerCaptures, BadRequestsAreRefusedAndAFailedWriteOrADeletedFileEndsOnlyThatCaptureAndTheNextWorks)
{
    EXPECT_EQ(-2, streamer.StartRecording("", "", Path("a.jpg"), 160, 120, 70));
    EXPECT_TRUE(log.Contains(LOG_ERR, "OrbStreamer::StartRecording - Video path empty"));
    EXPECT_EQ(-2, streamer.StartSnapVoice(Path("snapvoice.mp4"), "", "", 160, 120, 70));
    EXPECT_TRUE(log.Contains(LOG_ERR, "OrbStreamer::StartSnapVoice - Snapshot path empty"));
    // A thumbnail of no size is refused, and so is the capture.
    EXPECT_EQ(-3, streamer.StartAutoLog(Path("autolog.mp4"), "", Path("a.jpg"), 0, 0, 70));
    EXPECT_TRUE(log.Contains(LOG_ERR, "OrbStreamer::StartAutoLog - Snapshot failed"));
    EXPECT_EQ(0, State("AutoLogState"));
    EXPECT_EQ(GST_STATE_NULL, At(kMp4muxAutologIndex).GetState());
    EXPECT_EQ(-1, streamer.PauseSnapVoice());
    EXPECT_EQ(-1, streamer.ResumeAutoLog());

    // A directory that cannot be written: the recording fails into the
    // error state, the live picture goes on.
    const std::string locked = dir + "/locked";
    std::filesystem::create_directories(locked);
    chmod(locked.c_str(), 0500);
    const bool writable = access(locked.c_str(), W_OK) == 0; // root writes anyway
    const std::string bad = writable ? "/proc/videod-test/rec.mp4" : locked + "/rec.mp4";
    ASSERT_EQ(0, streamer.StartRecording(bad, "", Path("bad.jpg"), 160, 120, 70));
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("RecordingState") == -1; }, 6000));
    EXPECT_TRUE(Announced({ "RecordingState", "InactiveCaptures" }));
    EXPECT_TRUE(AllPlaying({ kNtscCameraIndex, kGpuIndex, kDisplayIndex }));

    // A full disk, with the next recording started from the error state once the failed one's thumbnail
    // is done.
    ASSERT_TRUE(ThumbnailDone());
    ASSERT_EQ(0, streamer.StartAutoLog(Path("autolog.mp4"), "", Path("autolog.jpg"), 160, 120, 70));
    ASSERT_TRUE(ThumbnailDone());
    {
        SmallFileSystem small(dir + "/small", 256 * 1024);
        ASSERT_EQ(0, streamer.StartRecording(dir + "/small/rec.mp4", "", Path("rec.jpg"), 160, 120, 70));
        EXPECT_EQ(1, State("RecordingState"));
        ASSERT_TRUE(RunMainLoopUntil([&] { return State("RecordingState") == -1; }, 20000));
        EXPECT_EQ(1, State("AutoLogState"));
        EXPECT_TRUE(AllPlaying({ kNtscCameraIndex, kGpuIndex, kDisplayIndex, kMp4muxAutologIndex }));
        // The failed file is not finished; its stop returns to inactive.
        ASSERT_EQ(0, streamer.StopRecording());
        EXPECT_EQ(0, State("RecordingState"));
        EXPECT_EQ(GST_STATE_NULL, At(kMp4muxVideoIndex).GetState());
    }

    // A file deleted under a running recording: the recording ends normally.
    ASSERT_TRUE(ThumbnailDone());
    ASSERT_EQ(0, streamer.StartRecording(Path("deleted.mp4"), "", Path("deleted.jpg"), 160, 120, 70));
    RunMainLoopFor(1000);
    ASSERT_TRUE(std::filesystem::remove(Path("deleted.mp4")));
    RunMainLoopFor(1000);
    ASSERT_EQ(0, streamer.StopRecording());
    ASSERT_TRUE(MuxerFinished(kMp4muxVideoIndex));
    EXPECT_FALSE(std::filesystem::exists(Path("deleted.mp4")));

    ASSERT_TRUE(ThumbnailDone());
    ASSERT_EQ(0, streamer.StartRecording(Path("next.mp4"), "", Path("next.jpg"), 160, 120, 70));
    RunMainLoopFor(1500);
    ASSERT_EQ(0, streamer.StopRecording());
    ASSERT_EQ(0, streamer.StopAutoLog());
    ASSERT_TRUE(MuxerFinished(kMp4muxVideoIndex));
    ASSERT_TRUE(MuxerFinished(kMp4muxAutologIndex));
    ExpectCaptureStreamFormats(Path("next.mp4"));
    ExpectCaptureStreamFormats(Path("autolog.mp4"));
}

TEST_F(OrbStreamerCaptures, TheStorageDaemonIsToldOfEachCapturesWritesOnTheDeviceHoldingItsFile)
{
    ASSERT_TRUE(StartPeer("storage", { "sd=" + dir })) << LastError();
    ASSERT_EQ(0, streamer.StartRecording(Path("rec.mp4"), "", Path("rec.jpg"), 160, 120, 70));
    ASSERT_TRUE(ThumbnailDone());
    ASSERT_EQ(0, streamer.Snapshot("Snapshot", Path("still.jpg"), 320, 240, 85, nullptr));
    // One at a time.
    EXPECT_EQ(-1, streamer.Snapshot("Snapshot", Path("still2.jpg"), 320, 240, 85, nullptr));
    EXPECT_TRUE(log.ContainsText(LOG_ERR, "[Streamer] Snapshot error:"));
    std::string created;
    streamer.signal_snapshot_created.connect([&](std::string file) { created = file; });
    ASSERT_TRUE(RunMainLoopUntil([&] { return !created.empty(); }, 6000));
    EXPECT_EQ(Path("still.jpg"), created);
    ASSERT_EQ(0, streamer.StopRecording());
    ASSERT_TRUE(MuxerFinished(kMp4muxVideoIndex));

    // The recording's type 4 set; the still picture's type 1 set and
    // cleared.
    EXPECT_EQ("as 3 \"4:true\" \"1:true\" \"1:false\"",
        Get("com.tarnwell.common.StorageDaemon1", kDevice, kSimulation, "WriteActiveCalls"));
}

} // namespace
