// The streamer and the unit's other daemons: the system controller's video status and remote credentials,
// the camera daemon's active camera and its features, the camera's motion samples and the storage devices
// at start-up.
#include "clients/settings_change.h"
#include "common/function_signature.h"
#include "log.h"
#include "pipelines/tcp_client_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

namespace
{

// How long the camera's picture must be back before the input is chosen
// again.
const guint kVideoStatusSettleMs = 500;
const char kFeaturesInterface[] = "com.tarnwell.common.Camd1.Features";

} // namespace

void OrbStreamer::ConnectToPeers()
{
    // The clients work on the user bus whenever their peer is there; a peer
    // that is absent only costs its calls' failures.
    _Helm = std::make_unique<Helmd::HelmDaemonDbusHandler>();
    _Helm->Listen();
    _Helm->_VideoStatusChanged.connect(sigc::mem_fun(*this, &OrbStreamer::OnVideoStatusChanged));
    _Helm->_PropertiesChanged.connect(sigc::mem_fun(*this, &OrbStreamer::OnControllerProperties));
    _Helm->_ReelPropertiesChanged.connect(sigc::mem_fun(_Reel, &ReelHandler::OnReelProperties));
    if (_Helm->Bus()) {
        _Cameras = std::make_unique<Camerad::CameraDaemonObject>(_Helm->Bus());
        _Cameras->_ActiveCameraIndexChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::ReconnectActiveCamera));
    }
    _MotionListener._RawMotionData.connect(sigc::mem_fun(_Rotation, &RotationHandler::OnRemoteMotion));
    _MotionListener._RawMotionData.connect(sigc::mem_fun(_Motion, &MotionHandler::OnRawMotion));
    _MotionListener.Start("", "");
    RegisterStorageWritesInactive();
}

void OrbStreamer::OnVideoStatusChanged(int32_t status)
{
    if (status != 1) {
        _VideoStatusTimer.reset();
        const int camera = _Input == 1 ? kNtscCameraIndex : (_Input == 2 ? kPalCameraIndex : -1);
        if (camera >= 0) {
            Log::Info(camera == kNtscCameraIndex ? "[OrbStreamer] Tear-down NTSC pipeline"
                                                 : "[OrbStreamer] Tear-down PAL pipeline");
            _Pipelines[static_cast<size_t>(camera)]->SetState(GST_STATE_NULL);
            _Pipelines[static_cast<size_t>(camera)]->TearDown();
        }
        // The remote picture stays while it is there.
        if (!PipelineAt<TcpClientPipeline>(kTcpClientIndex).IsConnected()) {
            _Input = 0;
            SetInput(0);
        }
        return;
    }
    _VideoStatusTimer = AttachTimeout(kVideoStatusSettleMs, &OrbStreamer::OnVideoStatusTimer, this);
}

gboolean OrbStreamer::OnVideoStatusTimer(gpointer user_data)
{
    auto* self = static_cast<OrbStreamer*>(user_data);
    const int standard = self->GetCameraStandard();
    if (standard == 1 || standard == 2)
        self->_Input = standard;
    self->SetInput(self->_Input);
    return G_SOURCE_REMOVE;
}

void OrbStreamer::OnControllerProperties(const TypedPropertyMap& changed)
{
    std::string address = _RemoteHost;
    std::string bus = _RemoteDbusAddress;
    const bool ip = Settingsd::ChangedValue(changed, Helmd::HELM_DAEMON_PROP_REMOTE_IP, address);
    const bool dbus = Settingsd::ChangedValue(changed, Helmd::HELM_DAEMON_PROP_REMOTE_DBUS_ADDR, bus);
    if (!ip && !dbus)
        return;
    SetRemote(address, _RemotePort, bus);
    SwitchLocalRemote(!address.empty());
}

void OrbStreamer::SwitchLocalRemote(bool remote)
{
    if (remote && _Input == 3) {
        Log::Info("%s: We have reconnected to a remote camera", "SwitchLocalRemote");
        StartTcpClient();
    } else if (remote) {
        _Input = 3;
        Log::Info("%s: Starting input: %d", "SwitchLocalRemote", _Input);
        SetInput(3);
    } else {
        const int standard = GetCameraStandard();
        _Input = standard == 1 || standard == 2 ? standard : 0;
        Log::Info("%s: Starting input: %d", "SwitchLocalRemote", _Input);
        SetInput(_Input);
    }
    // The motion samples come from the unit whose camera is shown.
    if (remote)
        _MotionListener.Start(_RemoteHost, _RemoteDbusAddress);
    else
        _MotionListener.Start("", "");
}

void OrbStreamer::ReconnectActiveCamera(int32_t index)
{
    if (index < 0) {
        _Motion.CameraLost();
        _Reel.CameraLost();
        Log::Info("[OrbStreamer] Active camera lost");
    } else {
        std::shared_ptr<Camerad::CameraObject> camera = _Cameras ? _Cameras->GetCamera(index) : nullptr;
        _Motion.CameraConnected(camera);
        _Reel.CameraConnected(index);
        Log::Info("New camera connected with idx:%d", index);
        sdbus_utils::PropertyMap features;
        if (!camera) {
            Log::Error("%s: camera_object == nullptr", VIDEOD_SIGNATURE);
        } else if (camera->GetAllProperties(kFeaturesInterface, features) >= 0) {
            Log::Info("[Streamer]: Camera features changed");
            const std::pair<const char*, bool CameraFeatures::*> names[] = {
                { "Hdr", &CameraFeatures::hdr },
                { "Awb", &CameraFeatures::awb },
                { "PlumbLine", &CameraFeatures::plumbline },
                { "Microphone", &CameraFeatures::microphone },
                { "Tiling", &CameraFeatures::tiling },
                { "Autorotate", &CameraFeatures::auto_rotate },
                { "MechanicalSL", &CameraFeatures::msl },
                { "DigitalSL", &CameraFeatures::dsl },
            };
            for (const auto& [name, member] : names) {
                const auto value = features.find(name);
                const bool* present = value != features.end() ? std::any_cast<bool>(&value->second) : nullptr;
                _CameraFeatures.*member = present && *present;
            }
        }
    }
    LogCameraFeatures();
}

void OrbStreamer::LogCameraFeatures()
{
    const std::pair<const char*, bool> lines[] = {
        { "HDR:", _CameraFeatures.hdr },
        { "AWB:", _CameraFeatures.awb },
        { "Plumbline:", _CameraFeatures.plumbline },
        { "Microphone:", _CameraFeatures.microphone },
        { "Tiling:", _CameraFeatures.tiling },
        { "Auto Rotate:", _CameraFeatures.auto_rotate },
        { "MSL:", _CameraFeatures.msl },
        { "DSL:", _CameraFeatures.dsl },
    };
    Log::Info("----------------------------------------");
    for (const auto& [label, present] : lines)
        Log::Info("[CameraFeatures]: %-18s[%c]", label, present ? 'x' : ' ');
}

} // namespace VideoDaemon
