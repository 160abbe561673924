// The interface "com.tarnwell.common.Video1.Control" as one table, and the sd-bus vtable built from it.
#include <cstring>

#include "dbus_server/dbus_server.h"

namespace VideoDaemon
{

namespace
{
constexpr uint64_t kEmitsChange = SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE;
constexpr uint64_t kUnprivileged = SD_BUS_VTABLE_UNPRIVILEGED;
constexpr uint64_t kNoFlags = 0;
} // namespace

template <DbusServer::MethodHandler H>
int DbusServer::FrameMethod(sd_bus_message* call, void* self, sd_bus_error* error)
{
    return (static_cast<DbusServer*>(self)->*H)(call, error);
}

template <DbusServer::MethodHandler H>
int DbusServer::Method(sd_bus_message* call, void* self, sd_bus_error* error)
{
    auto* server = static_cast<DbusServer*>(self);
    if (const int refused = server->RequireStreamer(error))
        return refused;
    return (server->*H)(call, error);
}

template <DbusServer::PropertyGetter G>
int DbusServer::Get(
    sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self, sd_bus_error* error)
{
    auto* server = static_cast<DbusServer*>(self);
    if (const int refused = server->RequireStreamer(error))
        return refused;
    return (server->*G)(reply, error);
}

template <DbusServer::PropertySetter S>
int DbusServer::Set(
    sd_bus*, const char*, const char*, const char*, sd_bus_message* value, void* self, sd_bus_error* error)
{
    auto* server = static_cast<DbusServer*>(self);
    if (const int refused = server->RequireStreamer(error))
        return refused;
    return (server->*S)(value, error);
}

DbusServer::Member DbusServer::MethodEntry(
    const char* name, const char* signature, const char* result, sd_bus_message_handler_t handler)
{
    return { Member::kMethod, name, signature, result, kUnprivileged, handler, nullptr, nullptr };
}

DbusServer::Member DbusServer::PropertyEntry(const char* name, const char* signature, uint64_t flags,
    sd_bus_property_get_t get, sd_bus_property_set_t set)
{
    return { Member::kProperty, name, signature, nullptr, flags, nullptr, get, set };
}

DbusServer::Member DbusServer::SignalEntry(const char* name, const char* signature)
{
    return { Member::kSignal, name, signature, nullptr, kNoFlags, nullptr, nullptr, nullptr };
}

const std::vector<DbusServer::Member>& DbusServer::Members()
{
    using S = DbusServer;
    static const std::vector<Member> members = {
        MethodEntry("Exit", "", "", &FrameMethod<&S::Exit>),
        MethodEntry("Echo", "s", "s", &FrameMethod<&S::Echo>),
        MethodEntry("Snapshot", "suuu", "i", &Method<&S::Snapshot>),
        MethodEntry("StartRecording", "sssuuu", "i", &Method<&S::StartRecording>),
        MethodEntry("PauseRecording", "", "i", &Method<&S::PauseRecording>),
        MethodEntry("ResumeRecording", "", "i", &Method<&S::ResumeRecording>),
        MethodEntry("StopRecording", "", "i", &Method<&S::StopRecording>),
        MethodEntry("StartSnapVoice", "sssuuu", "i", &Method<&S::StartSnapVoice>),
        MethodEntry("StopSnapVoice", "", "i", &Method<&S::StopSnapVoice>),
        MethodEntry("PauseSnapVoice", "", "i", &Method<&S::PauseSnapVoice>),
        MethodEntry("ResumeSnapVoice", "", "i", &Method<&S::ResumeSnapVoice>),
        MethodEntry("SetMotionDetectionPeriod", "u", "i", &Method<&S::SetMotionDetectionPeriod>),
        MethodEntry("StartAutoLog", "sssuuu", "i", &Method<&S::StartAutoLog>),
        MethodEntry("StopAutoLog", "", "i", &Method<&S::StopAutoLog>),
        MethodEntry("PauseAutoLog", "", "i", &Method<&S::PauseAutoLog>),
        MethodEntry("ResumeAutoLog", "", "i", &Method<&S::ResumeAutoLog>),
        MethodEntry("StartPlayback", "sd", "i", &Method<&S::StartPlayback>),
        MethodEntry("StopPlayback", "b", "i", &Method<&S::StopPlayback>),
        MethodEntry("PausePlayback", "", "i", &Method<&S::PausePlayback>),
        MethodEntry("ResumePlayback", "", "i", &Method<&S::ResumePlayback>),
        MethodEntry("SeekPlayback", "i", "i", &Method<&S::SeekPlayback>),
        MethodEntry("GetPlaybackProgress", "", "bbbdxx", &Method<&S::GetPlaybackProgress>),
        MethodEntry("StartCapture", "i", "", &Method<&S::StartCapture>),
        MethodEntry("StopCapture", "", "", &Method<&S::StopCapture>),

        PropertyEntry("CaptureActive", "b", kEmitsChange, &Get<&S::GetCaptureActive>),
        PropertyEntry("VideoInput", "i", kEmitsChange, &Get<&S::GetVideoInput>),
        PropertyEntry("RecordingState", "i", kEmitsChange, &Get<&S::GetRecordingState>),
        PropertyEntry("RecordingFilename", "s", kEmitsChange, &Get<&S::GetRecordingFilename>),
        PropertyEntry("PreviousRecordingFilename", "s", kEmitsChange, &Get<&S::GetPreviousRecordingFilename>),
        PropertyEntry("SnapVoiceState", "i", kEmitsChange, &Get<&S::GetSnapVoiceState>),
        PropertyEntry("SnapVoiceFilename", "s", kEmitsChange, &Get<&S::GetSnapVoiceFilename>),
        PropertyEntry("PreviousSnapVoiceFilename", "s", kEmitsChange, &Get<&S::GetPreviousSnapVoiceFilename>),
        PropertyEntry("AutoLogState", "i", kEmitsChange, &Get<&S::GetAutoLogState>),
        PropertyEntry("AutoLogFilename", "s", kEmitsChange, &Get<&S::GetAutoLogFilename>),
        PropertyEntry("PreviousAutoLogFilename", "s", kEmitsChange, &Get<&S::GetPreviousAutoLogFilename>),
        PropertyEntry("PlaybackState", "i", kEmitsChange, &Get<&S::GetPlaybackState>),
        PropertyEntry("PlaybackFilename", "s", kEmitsChange, &Get<&S::GetPlaybackFilename>),
        PropertyEntry("PlaybackDuration", "x", kNoFlags, &Get<&S::GetPlaybackDuration>),
        PropertyEntry("PlaybackPosition", "x", kNoFlags, &Get<&S::GetPlaybackPosition>),
        PropertyEntry("ActiveCaptures", "as", kEmitsChange, &Get<&S::GetActiveCaptures>),
        PropertyEntry("InactiveCaptures", "as", kEmitsChange, &Get<&S::GetInactiveCaptures>),
        PropertyEntry("PausedCaptures", "as", kEmitsChange, &Get<&S::GetPausedCaptures>),
        PropertyEntry("DisplayContent", "s", kEmitsChange, &Get<&S::GetDisplayContent>),
        PropertyEntry(
            "SystemMicMute", "b", kEmitsChange, &Get<&S::GetSystemMicMute>, &Set<&S::SetSystemMicMute>),
        PropertyEntry("StreamJpegQuality", "i", kEmitsChange, &Get<&S::GetStreamJpegQuality>,
            &Set<&S::SetStreamJpegQuality>),
        PropertyEntry("StreamTcpQueueSize", "i", kEmitsChange, &Get<&S::GetStreamTcpQueueSize>,
            &Set<&S::SetStreamTcpQueueSize>),
        PropertyEntry(
            "PlaybackRate", "d", kUnprivileged, &Get<&S::GetPlaybackRate>, &Set<&S::SetPlaybackRate>),
        PropertyEntry("Remote", "(sis)", kUnprivileged, &Get<&S::GetRemote>, &Set<&S::SetRemote>),
        PropertyEntry("OverlayUserText", "(iisis)", kEmitsChange, &Get<&S::GetOverlayUserText>,
            &Set<&S::SetOverlayUserText>),
        PropertyEntry("OverlayDateTimeStyle", "i", kEmitsChange, &Get<&S::GetOverlayDateTimeStyle>,
            &Set<&S::SetOverlayDateTimeStyle>),
        PropertyEntry("OverlayCountStyle", "i", kEmitsChange, &Get<&S::GetOverlayCountStyle>,
            &Set<&S::SetOverlayCountStyle>),
        PropertyEntry("H264EncoderBitrate", "u", kUnprivileged, &Get<&S::GetH264EncoderBitrate>,
            &Set<&S::SetH264EncoderBitrate>),
        PropertyEntry(
            "H264EncoderGop", "u", kUnprivileged, &Get<&S::GetH264EncoderGop>, &Set<&S::SetH264EncoderGop>),
        PropertyEntry("H264EncoderQuant", "u", kUnprivileged, &Get<&S::GetH264EncoderQuant>,
            &Set<&S::SetH264EncoderQuant>),
        PropertyEntry("AutoLogH264EncoderBitrate", "u", kUnprivileged, &Get<&S::GetAutoLogH264EncoderBitrate>,
            &Set<&S::SetAutoLogH264EncoderBitrate>),
        PropertyEntry("AutoLogH264EncoderGop", "u", kUnprivileged, &Get<&S::GetAutoLogH264EncoderGop>,
            &Set<&S::SetAutoLogH264EncoderGop>),
        PropertyEntry("AutoLogH264EncoderQuant", "u", kUnprivileged, &Get<&S::GetAutoLogH264EncoderQuant>,
            &Set<&S::SetAutoLogH264EncoderQuant>),
        PropertyEntry("DeinterlaceMethod", "s", kUnprivileged, &Get<&S::GetDeinterlaceMethod>,
            &Set<&S::SetDeinterlaceMethod>),
        PropertyEntry("TcpLiveStreamEnabled", "b", kEmitsChange, &Get<&S::GetTcpLiveStreamEnabled>,
            &Set<&S::SetTcpLiveStreamEnabled>),
        PropertyEntry("CaptureZoom", "d", kEmitsChange, &Get<&S::GetCaptureZoom>, &Set<&S::SetCaptureZoom>),
        PropertyEntry("CaptureZoomMin", "d", kNoFlags, &Get<&S::GetCaptureZoomMin>),
        PropertyEntry("CaptureZoomMax", "d", kNoFlags, &Get<&S::GetCaptureZoomMax>),
        PropertyEntry("CapturePanX", "d", kEmitsChange, &Get<&S::GetCapturePanX>, &Set<&S::SetCapturePanX>),
        PropertyEntry("CapturePanXMin", "d", kNoFlags, &Get<&S::GetCapturePanXMin>),
        PropertyEntry("CapturePanXMax", "d", kNoFlags, &Get<&S::GetCapturePanXMax>),
        PropertyEntry("CapturePanY", "d", kEmitsChange, &Get<&S::GetCapturePanY>, &Set<&S::SetCapturePanY>),
        PropertyEntry("CapturePanYMin", "d", kNoFlags, &Get<&S::GetCapturePanYMin>),
        PropertyEntry("CapturePanYMax", "d", kNoFlags, &Get<&S::GetCapturePanYMax>),
        PropertyEntry("PlumblineCapable", "b", kNoFlags, &Get<&S::GetPlumblineCapable>),
        PropertyEntry("AutoRotateCapable", "b", kNoFlags, &Get<&S::GetAutoRotateCapable>),
        PropertyEntry("CameraRollAngle", "s", kEmitsChange, &Get<&S::GetCameraRollAngle>),
        PropertyEntry("CameraRollAngleRaw", "i", kEmitsChange, &Get<&S::GetCameraRollAngleRaw>),
        PropertyEntry("CameraPitch", "s", kEmitsChange, &Get<&S::GetCameraPitch>),
        PropertyEntry("CameraPitchAngle", "i", kNoFlags, &Get<&S::GetCameraPitchAngle>),
        PropertyEntry("RotationAngle", "i", kEmitsChange, &Get<&S::GetRotationAngle>),
        PropertyEntry("RotationOverrideAngle", "s", kEmitsChange, &Get<&S::GetRotationOverrideAngle>,
            &Set<&S::SetRotationOverrideAngle>),
        PropertyEntry(
            "RotationEnabled", "b", kEmitsChange, &Get<&S::GetRotationEnabled>, &Set<&S::SetRotationEnabled>),
        PropertyEntry(
            "RotationSteps", "s", kEmitsChange, &Get<&S::GetRotationSteps>, &Set<&S::SetRotationSteps>),
        MethodEntry("CaptureResetToDefaults", "", "", &Method<&S::CaptureResetToDefaults>),
        PropertyEntry(
            "CaptureAutogain", "b", kEmitsChange, &Get<&S::GetCaptureAutogain>, &Set<&S::SetCaptureAutogain>),
        PropertyEntry("CaptureBrightness", "i", kEmitsChange, &Get<&S::GetCaptureBrightness>,
            &Set<&S::SetCaptureBrightness>),
        PropertyEntry(
            "CaptureContrast", "i", kEmitsChange, &Get<&S::GetCaptureContrast>, &Set<&S::SetCaptureContrast>),
        PropertyEntry("CaptureHue", "i", kEmitsChange, &Get<&S::GetCaptureHue>, &Set<&S::SetCaptureHue>),
        PropertyEntry("CaptureSaturation", "i", kEmitsChange, &Get<&S::GetCaptureSaturation>,
            &Set<&S::SetCaptureSaturation>),

        SignalEntry("HeartBeat", "i"),
        SignalEntry("SnapshotCreated", "s"),
        SignalEntry("PlaybackProgress", "bbdxx"),
        SignalEntry("MotionDetected", "is"),
        SignalEntry("VideoGrew", "sb"),
        SignalEntry("SnapVoiceGrew", "sb"),
        SignalEntry("AutoLogGrew", "sb"),
    };
    return members;
}

void DbusServer::BuildVtable()
{
    // Unused parts of each entry's union must be zero.
    std::memset(_Vtable.data(), 0, sizeof(_Vtable));
    size_t at = 0;
    sd_bus_vtable& start = _Vtable[at++];
    start.type = _SD_BUS_VTABLE_START;
    start.flags = 0;
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
    for (const Member& member : Members()) {
        sd_bus_vtable& entry = _Vtable[at++];
        entry.flags = member.flags;
        switch (member.kind) {
        case Member::kMethod:
            entry.type = _SD_BUS_VTABLE_METHOD;
            entry.x.method.member = member.name;
            entry.x.method.signature = member.signature;
            entry.x.method.result = member.result;
            entry.x.method.handler = member.method;
            entry.x.method.offset = 0;
            entry.x.method.names = "";
            break;
        case Member::kProperty:
            entry.type = member.set ? _SD_BUS_VTABLE_WRITABLE_PROPERTY : _SD_BUS_VTABLE_PROPERTY;
            entry.x.property.member = member.name;
            entry.x.property.signature = member.signature;
            entry.x.property.get = member.get;
            entry.x.property.set = member.set;
            entry.x.property.offset = 0;
            break;
        case Member::kSignal:
            entry.type = _SD_BUS_VTABLE_SIGNAL;
            entry.x.signal.member = member.name;
            entry.x.signal.signature = member.signature;
            entry.x.signal.names = "";
            break;
        }
    }
    _Vtable[at].type = _SD_BUS_VTABLE_END;
}

} // namespace VideoDaemon
