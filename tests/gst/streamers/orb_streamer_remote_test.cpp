// The streamer and the unit's other daemons: a remote unit's picture over TCP with its blank frame and
// restart when the connection is lost, the local/remote switch, the system controller's video status and
// the camera daemon's active camera with its features.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "dbus/dbus_test_env.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

const char kHelm[] = "com.tarnwell.common.Helm1";
const char kHelmObject[] = "/com/tarnwell/common/Helm1";
const char kHelmControl[] = "com.tarnwell.common.Helm1.Control";

// A remote unit's live stream: 640x480 MJPEG in a multipart stream, served
// by gst-launch on a port of its own.
class RemoteStream
{
public:
    explicit RemoteStream(int port)
        : _Port(port)
    {
    }
    ~RemoteStream() { Stop(); }
    RemoteStream(const RemoteStream&) = delete;
    RemoteStream& operator=(const RemoteStream&) = delete;

    void Start()
    {
        const std::string sink = "port=" + std::to_string(_Port);
        _Pid = fork();
        if (_Pid == 0) {
            // The remote unit is another machine: this machine's own
            // GStreamer, whatever the test process runs on.
            unsetenv("GST_PLUGIN_SYSTEM_PATH");
            unsetenv("GST_PLUGIN_PATH");
            const std::string registry = ::testing::TempDir() + "videod-remote-unit-registry.bin";
            setenv("GST_REGISTRY", registry.c_str(), 1);
            execlp("gst-launch-1.0", "gst-launch-1.0", "-q", "videotestsrc", "is-live=true", "pattern=ball",
                "!", "video/x-raw,width=640,height=480,framerate=30000/1001", "!", "jpegenc", "!",
                "multipartmux", "boundary=frame", "!", "tcpserversink", "host=127.0.0.1", sink.c_str(),
                "sync=false", nullptr);
            _exit(127);
        }
    }

    void Stop()
    {
        if (_Pid <= 0)
            return;
        kill(_Pid, SIGKILL);
        waitpid(_Pid, nullptr, 0);
        _Pid = -1;
    }

private:
    int _Port;
    pid_t _Pid = -1;
};

class OrbStreamerRemote : public VideodTest::DbusTestEnv, public StreamerFixture
{
protected:
    OrbStreamerRemote()
        : StreamerFixture(OrbStreamer::DebugMetrics(), StandardFile())
    {
    }

    static std::string StandardFile() { return ::testing::TempDir() + "videod-remote-standard"; }

    std::string GpuSource() { return ListeningTo(At(kGpuIndex), "gpu_source"); }

    // Milliseconds until `done`, or -1 after `limit_ms`.
    static gint64 MillisecondsUntil(const std::function<bool()>& done, int limit_ms)
    {
        const gint64 start = g_get_monotonic_time();
        if (!RunMainLoopUntil(done, limit_ms))
            return -1;
        return (g_get_monotonic_time() - start) / 1000;
    }
};

TEST_F(OrbStreamerRemote, ALostRemotePictureShowsTheBlankFrameAndReturnsWhenTheServerIsBack)
{
    const int port = 4100 + getpid() % 500;
    RemoteStream remote(port);
    remote.Start();
    streamer.InitializePipelines();
    streamer.StartVideoPipelines();
    streamer.SetInput(0);
    streamer.SetRemote("127.0.0.1", port);

    streamer.SwitchLocalRemote(true);
    EXPECT_TRUE(log.Contains(LOG_INFO, "SwitchLocalRemote: Starting input: 3"));
    EXPECT_EQ(3, State("VideoInput"));
    // Linked when the client reports its connection.
    ASSERT_TRUE(RunMainLoopUntil([&] { return GpuSource() == "tcpclient_video"; }, 15000));
    EXPECT_TRUE(log.Contains(LOG_ERR, "Showing TCP stream..."));

    // A second switch to the remote unit only restarts its client.
    log.Clear();
    streamer.SwitchLocalRemote(true);
    EXPECT_TRUE(log.Contains(LOG_INFO, "SwitchLocalRemote: We have reconnected to a remote camera"));
    EXPECT_FALSE(log.ContainsText("Starting input"));
    ASSERT_TRUE(RunMainLoopUntil([&] { return GpuSource() == "tcpclient_video"; }, 15000));

    remote.Stop();
    const gint64 blank_ms = MillisecondsUntil([&] { return GpuSource() == "test_input_sink"; }, 15000);
    ASSERT_GE(blank_ms, 0);
    EXPECT_TRUE(log.Contains(LOG_ERR, "Switching video output to a blank frame..."));

    // The connection check restarts the client until the server answers.
    remote.Start();
    const gint64 back_ms = MillisecondsUntil([&] { return GpuSource() == "tcpclient_video"; }, 20000);
    ASSERT_GE(back_ms, 0);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[OrbStreamer] TCP Client has still not connected, restarting..."));
    RecordProperty("blank_frame_ms", static_cast<int>(blank_ms));
    RecordProperty("remote_back_ms", static_cast<int>(back_ms));
    std::printf("lost connection to blank frame: %lld ms; server back to remote picture: %lld ms\n",
        static_cast<long long>(blank_ms), static_cast<long long>(back_ms));

    // Back to the unit's own input.
    streamer.SwitchLocalRemote(false);
    EXPECT_EQ(0, State("VideoInput"));
    EXPECT_EQ("test_input_sink", GpuSource());
    EXPECT_NE(GST_STATE_PLAYING, At(kTcpClientIndex).GetState());
}

TEST_F(OrbStreamerRemote, TheVideoStatusTearsTheCameraDownAndChoosesItAgainAndACameraLogsItsFeatures)
{
    std::ofstream(StandardFile()) << "PAL\n";
    ASSERT_TRUE(StartPeer("helm", { "--video-status", "1" })) << LastError();
    ASSERT_TRUE(StartPeer("camd", { "--features", "Hdr,Tiling,DigitalSL" })) << LastError();
    streamer.InitializePipelines();
    streamer.ConnectToPeers();
    streamer.StartInputs();
    ASSERT_EQ(2, State("VideoInput"));

    ASSERT_EQ(0, Set(kHelm, kHelmObject, kHelmControl, "VideoStatus", { "i", "0" }));
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("VideoInput") == 0; }, 5000));
    EXPECT_TRUE(log.Contains(LOG_INFO, "[OrbStreamer] Tear-down PAL pipeline"));
    EXPECT_EQ(nullptr, At(kPalCameraIndex).GetPipeline());
    EXPECT_EQ("test_input_sink", GpuSource());

    std::ofstream(StandardFile()) << "NTSC\n";
    ASSERT_EQ(0, Set(kHelm, kHelmObject, kHelmControl, "VideoStatus", { "i", "1" }));
    // Chosen again only after the picture has settled.
    const gint64 start = g_get_monotonic_time();
    ASSERT_TRUE(RunMainLoopUntil([&] { return State("VideoInput") == 1; }, 5000));
    EXPECT_GE(g_get_monotonic_time() - start, 450 * 1000);
    EXPECT_EQ("camera_input_video", GpuSource());

    // The camera daemon's active camera: its features logged when connected.
    log.Clear();
    streamer.ReconnectActiveCamera(0);
    EXPECT_TRUE(log.Contains(LOG_INFO, "New camera connected with idx:0"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Streamer]: Camera features changed"));
    EXPECT_TRUE(streamer.GetCameraFeatures().hdr);
    EXPECT_TRUE(streamer.GetCameraFeatures().dsl);
    EXPECT_FALSE(streamer.GetCameraFeatures().plumbline);
    const std::vector<std::string> lines = LinesStartingWith(log, LOG_INFO, "[CameraFeatures]: ");
    EXPECT_EQ((std::vector<std::string> { "[CameraFeatures]: HDR:              [x]",
                  "[CameraFeatures]: AWB:              [ ]", "[CameraFeatures]: Plumbline:        [ ]",
                  "[CameraFeatures]: Microphone:       [ ]", "[CameraFeatures]: Tiling:           [x]",
                  "[CameraFeatures]: Auto Rotate:      [ ]", "[CameraFeatures]: MSL:              [ ]",
                  "[CameraFeatures]: DSL:              [x]" }),
        lines);
    EXPECT_TRUE(log.Contains(LOG_INFO, "----------------------------------------"));

    streamer.ReconnectActiveCamera(5);
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::OrbStreamer::ReconnectActiveCamera(int32_t): camera_object == nullptr"));
    streamer.ReconnectActiveCamera(-1);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[OrbStreamer] Active camera lost"));
}

} // namespace
