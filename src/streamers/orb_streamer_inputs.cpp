// The streamer's inputs: the camera standard, the input selection, the TCP client and the live stream
// server.
#include <fstream>

#include "log.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/tcp_client_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

namespace
{

// Waits for an input to reach PLAYING; a live source may take a while.
const unsigned kInputStartWaitMs = 4000;
const unsigned kTcpClientStartWaitMs = 10000;
// How often an unconnected TCP client is checked and restarted.
const guint kTcpConnectionCheckMs = 5000;

} // namespace

int OrbStreamer::GetCameraStandard()
{
    int32_t status = 0;
    if (!_Helm || Helmd::HelmDaemonDbusHandler::GetPropVideoStatus(status) < 0 || status != 1)
        return 0;
    std::ifstream file(_CameraStandardPath);
    std::string standard;
    if (!(file >> standard))
        return 0;
    if (standard == "NTSC") {
        Log::Info("[OrbStreamer] Get Camera standard returns NTSC");
        return 1;
    }
    if (standard == "PAL") {
        Log::Info("[OrbStreamer] Get Camera standard returns PAL");
        return 2;
    }
    return 0;
}

int OrbStreamer::StartInputs()
{
    _Input = 0;
    const int standard = GetCameraStandard();
    if (standard == 1 || standard == 2)
        _Input = standard;
    int result = SetInput(_Input);
    result |= StartVideoPipelines();
    result |= StartLiveStreamServer();
    return result;
}

int OrbStreamer::StartLiveStreamServer()
{
    auto& server = PipelineAt<TcpServerPipeline>(kTcpServerIndex);
    Pipeline& mjpeg = *_Pipelines[kMjpegEncodeIndex];
    // The server's address is part of its description, added once: it is
    // launched again with it.
    if (!_LiveStreamAddressSet) {
        server.SetServerAddress(kLiveStreamHost, kLiveStreamPort);
        _LiveStreamAddressSet = true;
    }
    int result = server.Initialize(LaunchFlags()) == 1 ? 0 : -1;
    server.SetQueueSize(_LiveStreamQueueSize);
    server.ListenTo(&mjpeg, "", "");
    result |= server.SetState(GST_STATE_PLAYING, 0);
    result |= mjpeg.SetState(GST_STATE_PLAYING, 0);
    return result;
}

int OrbStreamer::SetInput(int input)
{
    Pipeline& ntsc = *_Pipelines[kNtscCameraIndex];
    Pipeline& pal = *_Pipelines[kPalCameraIndex];
    Pipeline& test_input = *_Pipelines[kTestInputIndex];
    Pipeline& tcp_client = *_Pipelines[kTcpClientIndex];

    if (ntsc.GetState() != GST_STATE_NULL) {
        Log::Warning("[OrbStreamer] Stop and tear-down NTSC pipeline");
        ntsc.SetState(GST_STATE_NULL);
        ntsc.TearDown();
    }
    if (pal.GetState() != GST_STATE_NULL) {
        Log::Warning("[OrbStreamer] Stop and tear-down PAL pipeline");
        pal.SetState(GST_STATE_NULL);
        pal.TearDown();
    }
    // Deliberately unconditional once launched: a launched test input is
    // always brought back to READY here.
    if (test_input.GetPipeline()) {
        Log::Warning("[OrbStreamer] This should never happen, stop and tear-down Test Input pipeline");
        test_input.SetState(GST_STATE_READY);
    }
    if (tcp_client.GetState() != GST_STATE_NULL) {
        Log::Warning("[OrbStreamer] Stop and tear-down Tcp Input pipeline");
        StopTcpClient();
    }

    switch (input) {
    case 1:
        if (ntsc.Initialize(LaunchFlags()) == 1) {
            Log::Info("[OrbStreamer] Launched NTSC pipeline OK");
            if (_Metrics.fps_probes)
                ActivateFpsProbe(kNtscCameraIndex);
            // The chosen de-interlacing outlives each launch.
            PipelineAt<NtscCameraInputPipeline>(kNtscCameraIndex).SetDeinterlaceMethod(_DeinterlaceMethod);
        }
        ntsc.SetState(GST_STATE_PLAYING, kInputStartWaitMs);
        break;
    case 2:
        if (pal.Initialize(LaunchFlags()) == 1)
            Log::Info("[OrbStreamer] Launched PAL pipeline OK");
        pal.SetState(GST_STATE_PLAYING, kInputStartWaitMs);
        break;
    case 3:
        StartTcpClient();
        _TcpConnectionCheck = AttachTimeout(kTcpConnectionCheckMs, &OrbStreamer::OnTcpConnectionTimer, this);
        break;
    case 0:
        if (!test_input.GetPipeline() && test_input.Initialize(LaunchFlags()) == 1)
            Log::Info("[OrbStreamer] Launched Test Input pipeline OK");
        test_input.SetState(GST_STATE_PLAYING, kInputStartWaitMs);
        break;
    default:
        break;
    }
    // The remote picture is linked once the client reports its connection;
    // another input ends the client's connection check.
    if (input != 3) {
        _TcpConnectionCheck.reset();
        ListenToInput(input);
    }

    _InputSelected = true;
    _State.Set("CaptureActive", 1);
    _State.Set("VideoInput", input);
    _State.Set("DisplayContent", 0);
    Announce({ "CaptureActive", "VideoInput", "DisplayContent" });
    return 0;
}

void OrbStreamer::SetRemote(const std::string& host, int port, const std::string& dbus_address)
{
    _RemoteHost = host;
    _RemotePort = port;
    _RemoteDbusAddress = dbus_address;
}

void OrbStreamer::GetRemote(std::string& host, int& port, std::string& dbus_address) const
{
    host = _RemoteHost;
    port = _RemotePort;
    dbus_address = _RemoteDbusAddress;
}

int OrbStreamer::StartTcpClient()
{
    Log::Info("[OrbStreamer] Starting TCP Client pipeline...");
    auto& client = PipelineAt<TcpClientPipeline>(kTcpClientIndex);
    if (client.Initialize(LaunchFlags()) == 0)
        return -1;
    Log::Info("[OrbStreamer] Launched TCP Client pipeline OK");
    client.SetHostPort(_RemoteHost, static_cast<uint16_t>(_RemotePort));
    return client.SetState(GST_STATE_PLAYING, kTcpClientStartWaitMs);
}

int OrbStreamer::StopTcpClient()
{
    Log::Info("[OrbStreamer] Stopping TCP Client pipeline...");
    Pipeline& client = *_Pipelines[kTcpClientIndex];
    const GstState state = client.GetState();
    if (state != GST_STATE_PLAYING)
        return static_cast<int>(state);
    const int result = client.SetState(GST_STATE_NULL);
    client.TearDown();
    return result;
}

int OrbStreamer::RestartTcpClient()
{
    Log::Info("[OrbStreamer] Restarting TCP Client pipeline...");
    StopTcpClient();
    return StartTcpClient();
}

gboolean OrbStreamer::OnTcpConnectionTimer(gpointer user_data)
{
    auto* self = static_cast<OrbStreamer*>(user_data);
    return self->OnTcpConnectionCheck() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

bool OrbStreamer::OnTcpConnectionCheck()
{
    Log::Info("[OrbStreamer] Checking if TCP Client is connected...");
    if (PipelineAt<TcpClientPipeline>(kTcpClientIndex).IsConnected()
        && _Pipelines[kGpuIndex]->IsListening()) {
        Log::Info("[OrbStreamer] TCP Client is connected!");
        return false;
    }
    Log::Info("[OrbStreamer] TCP Client has still not connected, restarting...");
    RestartTcpClient();
    return true;
}

void OrbStreamer::ShowTcpStream()
{
    Log::Error("Showing TCP stream...");
    Pipeline& test_input = *_Pipelines[kTestInputIndex];
    if (test_input.GetState() == GST_STATE_PLAYING) {
        test_input.SetState(GST_STATE_NULL);
        test_input.TearDown();
    }
    ListenToInput(3);
}

void OrbStreamer::ShowBlankFrame()
{
    Log::Error("Switching video output to a blank frame...");
    Pipeline& test_input = *_Pipelines[kTestInputIndex];
    if (test_input.Initialize(LaunchFlags()) == 1) {
        test_input.SetState(GST_STATE_PLAYING, kInputStartWaitMs);
        ListenToInput(0);
    }
    StopTcpClient();
}

void OrbStreamer::SetTcpLiveStreamEnabled(bool on)
{
    if (on == GetTcpLiveStreamEnabled())
        return;
    auto& server = PipelineAt<TcpServerPipeline>(kTcpServerIndex);
    if (on) {
        server.ListenTo(_Pipelines[kMjpegEncodeIndex].get(), "", "");
        server.EnableStaticImage(false);
    } else {
        server.EnableStaticImage(true);
    }
    _State.Set("TcpLiveStreamEnabled", on ? 1 : 0);
    Announce({ "TcpLiveStreamEnabled" });
}

bool OrbStreamer::GetTcpLiveStreamEnabled()
{
    return _State.Get("TcpLiveStreamEnabled") != 0;
}

} // namespace VideoDaemon
