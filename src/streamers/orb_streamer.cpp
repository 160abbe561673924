// The daemon's orchestrator: owns the 21 media pipelines, links them into one graph and keeps the state
// table.
//
// The state table's definitions open this unit: its assertions name this source unit and their lines.
#include "streamers/orb_streamer.h"

#include <systemd/sd-bus.h>

#include <algorithm>

#include "common/function_signature.h"
#include "dbus-helper/sd_bus_ptr.h"
#include "log.h"
#include "overlay/overlay_model.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/overlay_pipeline.h"
#include "pipelines/tcp_client_pipeline.h"

namespace VideoDaemon
{

namespace
{

// Section lines of the start-up log.
const char kLongDashes[] = "---------------------------------------------";
const char kShortDashes[] = "------------------------------------";

// The display daemon's colour-space reset.
const char kDisplayService[] = "com.tarnwell.common.Display1";
const char kDisplayObject[] = "/com/tarnwell/common/Display1";
const char kDisplayInterface[] = "com.tarnwell.common.Display1.Control";

// How often the frame rates of the probed pipelines are reported.
const guint kFpsIntervalMs = 1000;

} // namespace

// Every entry starts at 0 but the live stream's.
OrbState::OrbState()
    : map {
        { "CaptureActive", 0 },
        // The live stream is on from the start.
        { "TcpLiveStreamEnabled", 1 },
        { "RecordingState", 0 },
        { "SnapVoiceState", 0 },
        { "AutoLogState", 0 },
        { "PlaybackState", 0 },
        { "VideoInput", 0 },
        { "DisplayContent", 0 },
        { "IsExitPlayback", 0 },
    }
{
}

void OrbState::Set(const std::string& member, int value)
{
    Log::Info("%s: %s %d", VIDEOD_SIGNATURE, member.c_str(), static_cast<int>(map.count(member)));
    g_assert(map.count(member) == 1);
    map[member] = value;
}

// Reads are not logged: the D-Bus getters read on every property request.
int OrbState::Get(const std::string& member)
{
    g_assert(map.count(member) == 1);
    return map[member];
}

namespace
{

// A capture kind and the pipelines whose failure breaks it: the camera
// inputs, its encoder and muxer, the microphone and the AAC encoder.
struct CaptureChain {
    const char* state;
    const char* word;
    std::array<int, 6> breakers;
};

const std::array<CaptureChain, 3> kCaptureChains { {
    { "RecordingState", "video",
        { kNtscCameraIndex, kPalCameraIndex, kH264VideoIndex, kMp4muxVideoIndex, kMicInputIndex,
            kAacEncodeIndex } },
    { "AutoLogState", "autolog",
        { kNtscCameraIndex, kPalCameraIndex, kH264AutologIndex, kMp4muxAutologIndex, kMicInputIndex,
            kAacEncodeIndex } },
    // SnapVoice shares the "video" encoder.
    { "SnapVoiceState", "snapVoice",
        { kNtscCameraIndex, kPalCameraIndex, kH264VideoIndex, kSnapvoiceIndex, kMicInputIndex,
            kAacEncodeIndex } },
} };

bool IsLaunchedOnDemand(int index)
{
    return index == kNtscCameraIndex || index == kPalCameraIndex || index == kInputMuxIndex;
}

} // namespace

OrbStreamer::OrbStreamer()
    : OrbStreamer(DebugMetrics {}, kCameraStandardPath)
{
}

OrbStreamer::OrbStreamer(DebugMetrics metrics, std::string camera_standard_path,
    std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> settings)
    : _Metrics(metrics)
    , _CameraStandardPath(std::move(camera_standard_path))
    , _Settings(std::move(settings))
    , _Overlay(std::make_unique<OverlayModel>(nullptr, nullptr))
{
    _Motion.signal_motion_detected.connect(signal_motion_detected.make_slot());
    // The camera moves outside any call: its angles are announced at once.
    _Rotation.signal_angles_changed.connect([this](std::vector<std::string> names, bool from_setting) {
        signal_properties_changed.emit(std::move(names), from_setting);
    });
    _Motion.signal_update_interval_changed.connect([this](uint32_t) {
        if (_PeriodicTimer)
            ArmPeriodicTimer();
    });
    if (_Metrics.fps_probes) {
        Log::Warning("%s", kLongDashes);
        Log::Warning("Activating FPS probes [This should be active only in DEBUG system]");
        Log::Warning("%s", kLongDashes);
        _FpsTimer = AttachTimeout(kFpsIntervalMs, &OrbStreamer::OnFpsTimer, this);
    }
    if (_Metrics.queue_signals)
        Log::Warning("Enabling Queue status signals [This should be active only in DEBUG system]");
}

OrbStreamer::~OrbStreamer()
{
    // A pipeline is released in NULL only: nothing streams into a freed
    // object.
    for (const std::unique_ptr<Pipeline>& pipeline : _Pipelines)
        if (pipeline && pipeline->GetPipeline())
            pipeline->SetState(GST_STATE_NULL, 0);
}

int OrbStreamer::Start()
{
    InitializePipelines();
    ConnectToPeers();
    ConfigureFromSettings();
    const int result = StartInputs();
    ArmPeriodicTimer();
    return result;
}

Pipeline* OrbStreamer::GetPipeline(int index) const
{
    if (index < 0 || static_cast<size_t>(index) >= _Pipelines.size())
        return nullptr;
    return _Pipelines[static_cast<size_t>(index)].get();
}

Pipeline::LaunchFlags OrbStreamer::LaunchFlags() const
{
    return { _Metrics.fps_probes, _Metrics.queue_signals };
}

void OrbStreamer::InstallPipeline(int index, std::unique_ptr<Pipeline> pipeline)
{
    pipeline->signal_error.connect(sigc::bind<0>(sigc::mem_fun(*this, &OrbStreamer::PipelineError), index));
    if (_Metrics.queue_signals) {
        pipeline->signal_queue_overrun.connect(signal_metrics_overrun.make_slot());
        pipeline->signal_queue_underrun.connect(signal_metrics_underrun.make_slot());
        pipeline->signal_queue_running.connect(signal_metrics_running.make_slot());
    }
    _Pipelines.at(static_cast<size_t>(index)) = std::move(pipeline);
}

void OrbStreamer::InitializePipelines()
{
    Log::Info("%s", kLongDashes);
    Log::Info(" Initialize pipelines ");
    Log::Info("%s", kLongDashes);
    gst_init(nullptr, nullptr);

    // Created in index order; creation launches nothing.
    for (const PipelineGraph::Node& node : PipelineGraph::Nodes())
        InstallPipeline(node.index, node.create());

    // The camera inputs and the input mux are launched when selected.
    for (size_t at = 0; at < _Pipelines.size(); ++at) {
        const int index = static_cast<int>(at);
        if (IsLaunchedOnDemand(index))
            continue;
        if (_Metrics.fps_probes)
            ActivateFpsProbe(index);
        Pipeline& pipeline = *_Pipelines[at];
        const int result = pipeline.Initialize(LaunchFlags());
        Log::Info("[Streamer] Initialized '%s' pipeline with result:%d", pipeline.GetName().c_str(), result);
    }

    for (int index : { kNtscCameraIndex, kPalCameraIndex, kTcpClientIndex })
        _Pipelines[static_cast<size_t>(index)]->signal_state_changed.connect(
            sigc::mem_fun(*this, &OrbStreamer::OnInputStateChanged));
    _Pipelines[kMp4muxVideoIndex]->signal_eos.connect(sigc::mem_fun(*this, &OrbStreamer::HandleRecordingEos));
    _Pipelines[kSnapvoiceIndex]->signal_eos.connect(sigc::mem_fun(*this, &OrbStreamer::HandleSnapvoiceEos));
    _Pipelines[kMp4muxAutologIndex]->signal_eos.connect(sigc::mem_fun(*this, &OrbStreamer::HandleAutologEos));
    auto& tcp_client = PipelineAt<TcpClientPipeline>(kTcpClientIndex);
    tcp_client.signal_connection_acquired.connect(sigc::mem_fun(*this, &OrbStreamer::ShowTcpStream));
    tcp_client.signal_connection_lost.connect(sigc::mem_fun(*this, &OrbStreamer::ShowBlankFrame));
    PipelineAt<SnapshotPipeline>(kSnapshotIndex).SetWriteActivityHandler(&OrbStreamer::SetStorageWriteActive);
    BindOverlayModel();
    auto& gpu = PipelineAt<GpuPipeline>(kGpuIndex);
    _Rotation.Attach(&gpu);
    gpu.signal_camera_roll.connect(sigc::mem_fun(_Rotation, &RotationHandler::OnCameraRoll));
    PipelineAt<SnapshotPipeline>(kSnapshotIndex)
        .signal_snapshot_created.connect(
            [this](const std::string& file) { signal_snapshot_created.emit(file); });

    Log::Info("%s", kShortDashes);
    Log::Info(" Connect pipelines ");
    Log::Info("%s", kShortDashes);
    for (const PipelineGraph::Link& link : PipelineGraph::Links()) {
        Pipeline& listener = *_Pipelines[static_cast<size_t>(link.listener)];
        // An empty name selects the listener's default source.
        const std::string source = link.source == PipelineGraph::ListenerSource::kDefault
            ? std::string()
            : PipelineGraph::ListenerSourceName(link, listener);
        listener.ListenTo(_Pipelines[static_cast<size_t>(link.producer)].get(), "", source);
    }
}

void OrbStreamer::BindOverlayModel()
{
    // What the service set before the pipelines existed carries over.
    auto model = std::make_unique<OverlayModel>(&PipelineAt<OverlayPipeline>(kOverlayDisplayIndex),
        &PipelineAt<OverlayPipeline>(kOverlayRecordingIndex));
    model->SetUserText(_Overlay->GetUserText());
    model->SetDateTimeStyle(_Overlay->GetDateTimeStyle());
    model->SetCountStyle(_Overlay->GetCountStyle());
    _Overlay = std::move(model);
    _Reel.signal_count_changed.connect([this](const std::string& count) { _Overlay->SetReelCount(count); });
}

void OrbStreamer::ListenToInput(int input)
{
    Log::Info("listening to input %d", input);
    Pipeline* producer = GetPipeline(PipelineGraph::InputIndex(input));
    for (int index : PipelineGraph::InputListeners()) {
        Pipeline& listener = *_Pipelines[static_cast<size_t>(index)];
        // A relaunched input is a new node under the old name, and naming the
        // same node again changes nothing: let go of it first.
        const auto current = listener.GetListeningTo().find(listener.GetSourceName());
        if (current != listener.GetListeningTo().end() && current->second == producer)
            listener.ListenTo(nullptr, "", "");
        listener.ListenTo(producer, "", "");
    }
}

int OrbStreamer::StartVideoPipelines()
{
    Log::Info("%s", kLongDashes);
    Log::Info(" Starting video pipelines ");
    Log::Info("%s", kLongDashes);
    PipelineAt<DisplayPipeline>(kDisplayIndex).Invert(true);
    // Requests only: the speaker and the snapshot sink complete their change
    // when their first buffer comes, which may be long after start-up.
    for (int index : { kAudioSpeakerIndex, kGpuIndex, kOverlayDisplayIndex, kMicInputIndex,
             kOverlayRecordingIndex, kDisplayIndex, kH264VideoIndex, kSnapshotIndex })
        _Pipelines[static_cast<size_t>(index)]->SetState(GST_STATE_PLAYING, 0);
    Log::Info("%s", kLongDashes);
    return 0;
}

void OrbStreamer::StopPipelines()
{
    Log::Info("orb_streamer: stopping pipelines\n");
    for (const std::unique_ptr<Pipeline>& pipeline : _Pipelines)
        if (pipeline)
            pipeline->SetState(GST_STATE_NULL);
    _State.Set("CaptureActive", 0);
    Announce({ "CaptureActive", "InactiveCaptures" });
}

void OrbStreamer::PipelineError(int index, [[maybe_unused]] std::string message)
{
    Pipeline* failed = GetPipeline(index);
    Log::Error("[Streamer] error in pipeline %s", failed ? failed->GetName().c_str() : "");
    for (const CaptureChain& chain : kCaptureChains) {
        if (std::find(chain.breakers.begin(), chain.breakers.end(), index) == chain.breakers.end())
            continue;
        // Only a capture under way breaks; an inactive or failed one stays.
        const int state = _State.Get(chain.state);
        if (state != 1 && state != 2)
            continue;
        Log::Error("%s: pipeline error(s) while recording %s", VIDEOD_SIGNATURE, chain.word);
        _State.Set(chain.state, -1);
        Announce({ chain.state, "InactiveCaptures" });
    }
}

void OrbStreamer::OnInputStateChanged(GstState old_state, GstState new_state)
{
    // A pipeline coming up from NULL: the display's colour space follows the
    // new input.
    if (new_state != GST_STATE_READY || old_state == GST_STATE_PAUSED)
        return;
    Log::Warning("[ORB] One of the input pipelines is moving towards PLAYING, reapply CSC");
    DisplayDResetCscParams();
}

int OrbStreamer::DisplayDResetCscParams()
{
    Log::Debug("%s", VIDEOD_SIGNATURE);
    // One short-lived connection: the call is rare and the display daemon may
    // come and go.
    sd_bus* raw_bus = nullptr;
    int result = sd_bus_open_user(&raw_bus);
    if (result < 0) {
        Log::Error("[ORB] failed to open bus");
        return result;
    }
    DbusHelper::SdBusPtr bus(raw_bus);
    DbusHelper::SdBusError error;
    sd_bus_message* raw_reply = nullptr;
    result = sd_bus_call_method(bus.get(), kDisplayService, kDisplayObject, kDisplayInterface, "ResetCsc",
        error.Get(), &raw_reply, "");
    DbusHelper::SdBusMessagePtr reply(raw_reply);
    return result;
}

void OrbStreamer::Announce(std::vector<std::string> names)
{
    // Deferred: a change made inside a method call is announced after its
    // reply.
    signal_properties_changed.emit(std::move(names), true);
}

void OrbStreamer::ActivateFpsProbe(int index)
{
    Log::Info(
        "Activate FPS probe for %s pipeline", _Pipelines[static_cast<size_t>(index)]->GetName().c_str());
    _ProbedPipelines.insert(index);
}

gboolean OrbStreamer::OnFpsTimer(gpointer user_data)
{
    auto* self = static_cast<OrbStreamer*>(user_data);
    for (int index : self->_ProbedPipelines) {
        Pipeline* pipeline = self->GetPipeline(index);
        if (!pipeline)
            continue;
        for (const auto& rate : pipeline->GetProbeRates())
            self->signal_metrics_probe_fps.emit(pipeline->GetName(), static_cast<int32_t>(rate.second));
    }
    return G_SOURCE_CONTINUE;
}

} // namespace VideoDaemon
