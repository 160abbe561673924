// The streamer's inputs: the standard detected from the system controller's video status and the decoder's
// file, the input launched and linked, the other inputs torn down, and the live stream served on its port.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "dbus/dbus_test_env.h"
#include "gst/pipelines/media_test_support.h"
#include "pipelines/mp4mux_pipeline.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

// The first bytes the live stream server sends a new client.
std::string ReadLiveStream(size_t wanted)
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(OrbStreamer::kLiveStreamPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string data;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
        timeval timeout { 5, 0 };
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
        char buffer[4096];
        // The server streams on its own threads; the main loop is not needed.
        for (ssize_t got = 0; data.size() < wanted && (got = read(fd, buffer, sizeof(buffer))) > 0;)
            data.append(buffer, static_cast<size_t>(got));
    }
    close(fd);
    return data;
}

class OrbStreamerInputs : public VideodTest::DbusTestEnv, public StreamerFixture
{
protected:
    OrbStreamerInputs()
        : StreamerFixture(OrbStreamer::DebugMetrics(), StandardFile())
    {
    }

    static std::string StandardFile() { return ::testing::TempDir() + "videod-decoder-standard"; }

    static void WriteStandard(const std::string& text) { std::ofstream(StandardFile()) << text; }

    // How many sources are attached to interpipesink `sink` of the pipeline
    // at `index`.
    unsigned Listeners(int index, const std::string& sink)
    {
        guint count = 0;
        EXPECT_TRUE(At(index).GetElementProperty(VIDEOD_FUNCTION, sink, "num-listeners", count));
        return count;
    }
};

// The second whole JPEG picture of the live stream (the first may predate a
// switch), decoded.
MediaTest::Picture LiveStreamPicture()
{
    const std::string stream = ReadLiveStream(400000);
    size_t start = 0;
    for (int picture = 0; picture < 2; ++picture) {
        start = stream.find("\xff\xd8", start + (picture ? 2 : 0));
        if (start == std::string::npos)
            return {};
    }
    const size_t end = stream.find("\xff\xd9", start);
    if (end == std::string::npos)
        return {};
    return MediaTest::DecodeJpeg(std::vector<uint8_t>(stream.begin() + start, stream.begin() + end + 2));
}

TEST_F(OrbStreamerInputs, TheStandardIsTheDecodersOnlyWhileTheSystemControllerReportsCameraVideo)
{
    struct Case {
        int video_status;
        const char* file;
        int standard;
    };
    const Case cases[] = {
        { 1, "NTSC\n", 1 },
        { 1, "PAL 625 lines\n", 2 },
        { 1, "SECAM\n", 0 },
        { 1, nullptr, 0 },
        { 0, "NTSC\n", 0 },
        { 2, "PAL\n", 0 },
    };
    // Without a system controller client there is no camera picture.
    WriteStandard("NTSC\n");
    EXPECT_EQ(0, streamer.GetCameraStandard());

    streamer.InitializePipelines();
    ASSERT_TRUE(StartPeer("helm")) << LastError();
    streamer.ConnectToPeers();
    for (const Case& row : cases) {
        ASSERT_EQ(0,
            Set("com.tarnwell.common.Helm1", "/com/tarnwell/common/Helm1",
                "com.tarnwell.common.Helm1.Control", "VideoStatus",
                { "i", std::to_string(row.video_status) }));
        std::remove(StandardFile().c_str());
        if (row.file)
            WriteStandard(row.file);
        EXPECT_EQ(row.standard, streamer.GetCameraStandard())
            << row.video_status << " " << (row.file ? row.file : "-");
    }
    EXPECT_EQ(1u, log.Count(LOG_INFO, "[OrbStreamer] Get Camera standard returns NTSC"));
    EXPECT_EQ(1u, log.Count(LOG_INFO, "[OrbStreamer] Get Camera standard returns PAL"));

    // The system controller gone: the test input.
    ASSERT_TRUE(StopPeer("helm"));
    WriteStandard("NTSC\n");
    EXPECT_EQ(0, streamer.GetCameraStandard());
}

TEST_F(OrbStreamerInputs, StartUpOnTheNtscCameraLinksItToTheGpuServesTheLiveStreamAndArmsThePeriodicTimer)
{
    ASSERT_TRUE(StartPeer("helm", { "--video-status", "1" })) << LastError();
    WriteStandard("NTSC\n");
    EXPECT_EQ(0, streamer.Start());

    EXPECT_EQ(1, State("VideoInput"));
    EXPECT_EQ(1, State("CaptureActive"));
    EXPECT_EQ(1, streamer.GetInput());
    EXPECT_TRUE(log.Contains(LOG_INFO, "[OrbStreamer] Launched NTSC pipeline OK"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "listening to input 1"));
    EXPECT_EQ("camera_input_video", ListeningTo(At(kGpuIndex), "gpu_source"));
    EXPECT_TRUE(
        AllPlaying({ kNtscCameraIndex, kGpuIndex, kDisplayIndex, kMjpegEncodeIndex, kTcpServerIndex }));
    // The GPU and the MJPEG encoder take the camera's frames.
    EXPECT_EQ(2u, Listeners(kNtscCameraIndex, "camera_input_video"));
    EXPECT_TRUE(std::find(announced.begin(), announced.end(),
                    Announcement({ "CaptureActive", "VideoInput", "DisplayContent" }, true))
        != announced.end());

    // A client that stops reading is held to a bounded queue.
    EXPECT_EQ(OrbStreamer::kLiveStreamQueueSize, streamer.GetStreamTcpQueueSize());
    const std::string stream = ReadLiveStream(16384);
    EXPECT_NE(std::string::npos, stream.find("image/jpeg")) << stream.substr(0, 200);
    // A JPEG's start of image.
    EXPECT_NE(std::string::npos, stream.find("\xff\xd8")) << stream.size();

    // The static image in place of the live picture, and back; announced
    // only when it changes.
    announced.clear();
    streamer.SetTcpLiveStreamEnabled(true);
    EXPECT_TRUE(announced.empty());
    const MediaTest::Picture live = LiveStreamPicture();
    streamer.SetTcpLiveStreamEnabled(false);
    EXPECT_FALSE(streamer.GetTcpLiveStreamEnabled());
    const MediaTest::Picture still = LiveStreamPicture();
    streamer.SetTcpLiveStreamEnabled(true);
    EXPECT_EQ(2u, announced.size());
    const MediaTest::Picture live_again = LiveStreamPicture();
    ASSERT_FALSE(live.rgb.empty());
    ASSERT_FALSE(still.rgb.empty());
    ASSERT_FALSE(live_again.rgb.empty());
    // The static picture is another picture than the camera's; the camera's
    // comes back.
    const auto differ = [](const MediaTest::Picture& a, const MediaTest::Picture& b) {
        return std::abs(a.Mean(0) - b.Mean(0)) + std::abs(a.Mean(2) - b.Mean(2));
    };
    EXPECT_GT(differ(live, still), 20.0);
    EXPECT_GT(differ(live_again, still), 20.0);

    // The periodic timer reports capture growth on the motion handler's interval.
    streamer.Motion().SetUpdateInterval(100);
    streamer.SetMaximumFilesize(100 << 20);
    std::vector<std::string> grew;
    streamer.signal_file_grew.connect([&](std::string name, std::string, bool) { grew.push_back(name); });
    auto& muxer = static_cast<Mp4muxPipeline&>(At(kMp4muxAutologIndex));
    muxer.OpenRecord("/tmp/videod-growth.mp4");
    GstBufferPtr buffer(gst_buffer_new_allocate(nullptr, OrbStreamer::kGrowthStep, nullptr));
    GstPtr<GstElement> tracker = muxer.FindElement(VIDEOD_FUNCTION, "autolog_mp4mux_tracker");
    ASSERT_TRUE(tracker);
    g_signal_emit_by_name(tracker.get(), "handoff", buffer.get());
    EXPECT_TRUE(RunMainLoopUntil([&] { return !grew.empty(); }, 2000));
    EXPECT_EQ(std::vector<std::string> { "AutoLogGrew" }, grew);
    // A longer interval re-arms the timer.
    streamer.Motion().SetUpdateInterval(3000);
    g_signal_emit_by_name(tracker.get(), "handoff", buffer.get());
    RunMainLoopUntil([&] { return grew.size() > 1; }, 1500);
    EXPECT_EQ(1u, grew.size());
    muxer.CloseRecord(false);
}

TEST_F(OrbStreamerInputs, EachInputSwitchLeavesOneCameraLaunchedAndItsFramesReachingTheGpu)
{
    streamer.InitializePipelines();
    streamer.StartVideoPipelines();

    streamer.SetInput(1);
    streamer.SetInput(2);
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[OrbStreamer] Stop and tear-down NTSC pipeline"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "[OrbStreamer] Launched PAL pipeline OK"));
    EXPECT_EQ(GST_STATE_NULL, At(kNtscCameraIndex).GetState());
    EXPECT_EQ(nullptr, At(kNtscCameraIndex).GetPipeline());
    EXPECT_EQ("pal_camera_sink", ListeningTo(At(kGpuIndex), "gpu_source"));
    // The GPU; the MJPEG encoder listens once the live stream runs.
    EXPECT_EQ(1u, Listeners(kPalCameraIndex, "pal_camera_sink"));

    // The same input again is a new camera node under the old name: the
    // GPU and the MJPEG encoder follow it.
    streamer.SetInput(2);
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[OrbStreamer] Stop and tear-down PAL pipeline"));
    EXPECT_TRUE(AllPlaying({ kPalCameraIndex }));
    EXPECT_EQ(1u, Listeners(kPalCameraIndex, "pal_camera_sink"));

    // The test input, launched at start-up, is always reset on the next
    // switch.
    streamer.SetInput(0);
    EXPECT_EQ(GST_STATE_NULL, At(kPalCameraIndex).GetState());
    EXPECT_EQ(1u, Listeners(kTestInputIndex, "test_input_sink"));
    streamer.SetInput(1);
    EXPECT_TRUE(log.Contains(
        LOG_WARNING, "[OrbStreamer] This should never happen, stop and tear-down Test Input pipeline"));
    EXPECT_EQ(GST_STATE_READY, At(kTestInputIndex).GetState());
    EXPECT_EQ("camera_input_video", ListeningTo(At(kGpuIndex), "gpu_source"));

    // The remote input is linked only when the client reports its
    // connection.
    streamer.SetRemote("127.0.0.1", 9);
    streamer.SetInput(3);
    EXPECT_EQ(3, State("VideoInput"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "[OrbStreamer] Launched TCP Client pipeline OK"));
    EXPECT_EQ("camera_input_video", ListeningTo(At(kGpuIndex), "gpu_source"));
    EXPECT_EQ(GST_STATE_NULL, At(kNtscCameraIndex).GetState());
}

} // namespace
