// The properties of "com.tarnwell.common.Video1.Control": getters read the streamer and its handlers;
// setters read, validate, act and announce what changed.
#include <cmath>
#include <string>
#include <vector>

#include "controls/image_capture_settings_v4l2_backend.h"
#include "dbus_server/dbus_server.h"
#include "log.h"
#include "overlay/overlay_model.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"

namespace VideoDaemon
{

namespace
{

constexpr int kMaxPort = 65535;
constexpr int kMaxJpegQuality = 100;

int AppendBool(sd_bus_message* reply, bool value)
{
    return sd_bus_message_append(reply, "b", static_cast<int>(value));
}

int AppendInt(sd_bus_message* reply, int32_t value)
{
    return sd_bus_message_append(reply, "i", value);
}

int AppendUint(sd_bus_message* reply, uint32_t value)
{
    return sd_bus_message_append(reply, "u", value);
}

int AppendDouble(sd_bus_message* reply, double value)
{
    return sd_bus_message_append(reply, "d", value);
}

int AppendString(sd_bus_message* reply, const std::string& value)
{
    return sd_bus_message_append(reply, "s", value.c_str());
}

} // namespace

// Shared shapes.

int DbusServer::GetState(sd_bus_message* reply, const char* entry)
{
    return AppendInt(reply, _Streamer->State().Get(entry));
}

int DbusServer::GetCaptures(sd_bus_message* reply, sd_bus_error* error, int state, const char* what)
{
    std::vector<std::string> kinds;
    if (!_Streamer->GetCaptureList(state, kinds))
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "Failed to get list of %s recordings", what);
    int result = sd_bus_message_open_container(reply, 'a', "s");
    for (const std::string& kind : kinds)
        if (result >= 0)
            result = sd_bus_message_append(reply, "s", kind.c_str());
    if (result >= 0)
        result = sd_bus_message_close_container(reply);
    return result;
}

int DbusServer::SetEncoderValue(
    sd_bus_message* value, const char* setter, OrbStreamer::CaptureKind kind, EncoderSetter set)
{
    uint32_t number = 0;
    const int read = sd_bus_message_read(value, "u", &number);
    if (read < 0)
        return ReadFailed(setter, read);
    (_Streamer->Encoder(kind).*set)(number);
    return 1;
}

int DbusServer::SetGpuValue(sd_bus_message* value, sd_bus_error* error, const char* setter,
    const char* property, const char* what, GpuSetter set)
{
    double number = 0.0;
    const int read = sd_bus_message_read(value, "d", &number);
    if (read < 0)
        return ReadFailed(setter, read);
    if (!std::isfinite(number))
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "failed to set capture %s ret=%d", what, -1);
    const int result = (_Streamer->Gpu().*set)(number);
    if (result < 0)
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "failed to set capture %s ret=%d", what, result);
    EmitPropertyChanged(property, false);
    return 1;
}

int DbusServer::GetControl(sd_bus_message* reply, sd_bus_error* error, ControlGetter get)
{
    int percent = 0;
    if (!((*_CaptureImage).*get)(percent))
        return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "Failed to read the capture image setting");
    return AppendInt(reply, percent);
}

int DbusServer::SetControl(sd_bus_message* value, sd_bus_error*, const char* setter, const char* property,
    ControlGetter get, ControlSetter set)
{
    int32_t percent = 0;
    const int read = sd_bus_message_read(value, "i", &percent);
    if (read < 0)
        return ReadFailed(setter, read);
    int before = 0;
    ((*_CaptureImage).*get)(before);
    // The backend clamps to 0..100 and keeps the percentage even when the
    // device refuses it (logging the refusal): the property reads what took.
    ((*_CaptureImage).*set)(percent);
    int after = 0;
    ((*_CaptureImage).*get)(after);
    if (after != before)
        EmitPropertyChanged(property, true);
    return 1;
}

void DbusServer::AnnounceOverlay(const char* setter, const char* property)
{
    const int emitted = sd_bus_emit_properties_changed(
        _Bus.get(), _ObjectPath.c_str(), _Interface.c_str(), property, nullptr);
    if (emitted < 0)
        Log::Error("DbusServer: %s Failed to emit property changed:%s", setter, strerror(-emitted));
}

// Capture and playback states.

int DbusServer::GetCaptureActive(sd_bus_message* reply, sd_bus_error*)
{
    return AppendBool(reply, _Streamer->State().Get("CaptureActive") != 0);
}

int DbusServer::GetVideoInput(sd_bus_message* reply, sd_bus_error*)
{
    return GetState(reply, "VideoInput");
}

int DbusServer::GetRecordingState(sd_bus_message* reply, sd_bus_error*)
{
    return GetState(reply, "RecordingState");
}

int DbusServer::GetRecordingFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetCaptureFile(OrbStreamer::kVideoCapture));
}

int DbusServer::GetPreviousRecordingFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetPreviousCaptureFile(OrbStreamer::kVideoCapture));
}

int DbusServer::GetSnapVoiceState(sd_bus_message* reply, sd_bus_error*)
{
    return GetState(reply, "SnapVoiceState");
}

int DbusServer::GetSnapVoiceFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetCaptureFile(OrbStreamer::kSnapVoiceCapture));
}

int DbusServer::GetPreviousSnapVoiceFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetPreviousCaptureFile(OrbStreamer::kSnapVoiceCapture));
}

int DbusServer::GetAutoLogState(sd_bus_message* reply, sd_bus_error*)
{
    return GetState(reply, "AutoLogState");
}

int DbusServer::GetAutoLogFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetCaptureFile(OrbStreamer::kAutoLogCapture));
}

int DbusServer::GetPreviousAutoLogFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetPreviousCaptureFile(OrbStreamer::kAutoLogCapture));
}

int DbusServer::GetPlaybackState(sd_bus_message* reply, sd_bus_error*)
{
    return GetState(reply, "PlaybackState");
}

int DbusServer::GetPlaybackFilename(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetPlaybackFilename());
}

int DbusServer::GetPlaybackDuration(sd_bus_message* reply, sd_bus_error*)
{
    bool active = false, eos = false, failed = false;
    double rate = 0.0;
    int64_t position = 0, duration = 0;
    _Streamer->GetPlaybackProgress(active, eos, failed, rate, position, duration);
    return sd_bus_message_append(reply, "x", duration);
}

int DbusServer::GetPlaybackPosition(sd_bus_message* reply, sd_bus_error*)
{
    bool active = false, eos = false, failed = false;
    double rate = 0.0;
    int64_t position = 0, duration = 0;
    _Streamer->GetPlaybackProgress(active, eos, failed, rate, position, duration);
    return sd_bus_message_append(reply, "x", position);
}

int DbusServer::GetActiveCaptures(sd_bus_message* reply, sd_bus_error* error)
{
    return GetCaptures(reply, error, 1, "active");
}

int DbusServer::GetInactiveCaptures(sd_bus_message* reply, sd_bus_error* error)
{
    return GetCaptures(reply, error, 0, "inactive");
}

int DbusServer::GetPausedCaptures(sd_bus_message* reply, sd_bus_error* error)
{
    return GetCaptures(reply, error, 2, "paused");
}

int DbusServer::GetDisplayContent(sd_bus_message* reply, sd_bus_error* error)
{
    const int content = _Streamer->State().Get("DisplayContent");
    auto name = _DisplayContentNames.find(content);
    if (name == _DisplayContentNames.end())
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "Unknown display content %d", content);
    return AppendString(reply, name->second);
}

// Audio, live stream and playback rate.

int DbusServer::GetSystemMicMute(sd_bus_message* reply, sd_bus_error*)
{
    return AppendBool(reply, _Streamer->GetSystemMicMute());
}

int DbusServer::SetSystemMicMute(sd_bus_message* value, sd_bus_error* error)
{
    int mute = 0;
    const int read = sd_bus_message_read(value, "b", &mute);
    if (read < 0)
        return ReadFailed("SetSystemMicMute", read);
    if ((mute != 0) == _Streamer->GetSystemMicMute())
        return 1;
    const int result = _Streamer->SetSystemMicMute(mute != 0);
    if (result < 0)
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "failed to set system mic mute ret=%d", result);
    EmitPropertyChanged("SystemMicMute", true);
    return 1;
}

int DbusServer::GetStreamJpegQuality(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->GetStreamJpegQuality());
}

int DbusServer::SetStreamJpegQuality(sd_bus_message* value, sd_bus_error* error)
{
    int32_t quality = 0;
    const int read = sd_bus_message_read(value, "i", &quality);
    if (read < 0)
        return ReadFailed("SetStreamJpegQuality", read);
    if (quality < 0 || quality > kMaxJpegQuality)
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS, "stream JPEG quality %d is outside 0..%d",
            quality, kMaxJpegQuality);
    if (quality == _Streamer->GetStreamJpegQuality())
        return 1;
    _Streamer->SetStreamJpegQuality(quality);
    EmitPropertyChanged("StreamJpegQuality", true);
    return 1;
}

int DbusServer::GetStreamTcpQueueSize(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->GetStreamTcpQueueSize());
}

int DbusServer::SetStreamTcpQueueSize(sd_bus_message* value, sd_bus_error* error)
{
    int32_t size = 0;
    const int read = sd_bus_message_read(value, "i", &size);
    if (read < 0)
        return ReadFailed("SetStreamTcpQueueSize", read);
    if (size < 0)
        return sd_bus_error_setf(
            error, SD_BUS_ERROR_INVALID_ARGS, "stream TCP queue size %d is negative", size);
    if (size == _Streamer->GetStreamTcpQueueSize())
        return 1;
    _Streamer->SetStreamTcpQueueSize(size);
    EmitPropertyChanged("StreamTcpQueueSize", true);
    return 1;
}

int DbusServer::GetPlaybackRate(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->GetPlaybackRate());
}

int DbusServer::SetPlaybackRate(sd_bus_message* value, sd_bus_error* error)
{
    double rate = 0.0;
    const int read = sd_bus_message_read(value, "d", &rate);
    if (read < 0)
        return ReadFailed("SetPlaybackRate", read);
    const int result = _Streamer->SetPlaybackRate(rate);
    if (result < 0)
        return sd_bus_error_setf(error, SD_BUS_ERROR_FAILED, "failed to set playback rate ret=%d", result);
    return 1;
}

// Remote unit.

int DbusServer::GetRemote(sd_bus_message* reply, sd_bus_error*)
{
    std::string host;
    int port = 0;
    std::string address;
    _Streamer->GetRemote(host, port, address);
    return sd_bus_message_append(reply, "(sis)", host.c_str(), static_cast<int32_t>(port), address.c_str());
}

int DbusServer::SetRemote(sd_bus_message* value, sd_bus_error* error)
{
    const char* host = nullptr;
    int32_t port = 0;
    const char* address = nullptr;
    int read = sd_bus_message_enter_container(value, 'r', "sis");
    if (read >= 0)
        read = sd_bus_message_read(value, "sis", &host, &port, &address);
    if (read >= 0)
        read = sd_bus_message_exit_container(value);
    if (read < 0)
        return ReadFailed("SetRemote", read);
    if (port < 0 || port > kMaxPort)
        return sd_bus_error_setf(
            error, SD_BUS_ERROR_INVALID_ARGS, "remote port %d is outside 0..%d", port, kMaxPort);
    // An empty host names no remote unit.
    _Streamer->SetRemote(host, port, address);
    return 1;
}

// Overlay: the streamer's overlay model keeps the values and draws them.

int DbusServer::GetOverlayUserText(sd_bus_message* reply, sd_bus_error*)
{
    const OverlayModel::UserText& text = _Streamer->Overlay().GetUserText();
    return sd_bus_message_append(
        reply, "(iisis)", text.x, text.y, text.text.c_str(), text.size, text.colour.c_str());
}

int DbusServer::SetOverlayUserText(sd_bus_message* value, sd_bus_error*)
{
    OverlayModel::UserText text;
    const char* words = nullptr;
    const char* colour = nullptr;
    int read = sd_bus_message_enter_container(value, 'r', "iisis");
    if (read >= 0)
        read = sd_bus_message_read(value, "iisis", &text.x, &text.y, &words, &text.size, &colour);
    if (read >= 0)
        read = sd_bus_message_exit_container(value);
    if (read < 0)
        return ReadFailed("SetOverlayUserText", read);
    text.text = words;
    text.colour = colour;
    _Streamer->Overlay().SetUserText(text);
    AnnounceOverlay("SetOverlayUserText", "OverlayUserText");
    return 1;
}

int DbusServer::GetOverlayDateTimeStyle(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->Overlay().GetDateTimeStyle());
}

int DbusServer::SetOverlayDateTimeStyle(sd_bus_message* value, sd_bus_error*)
{
    int32_t style = 0;
    const int read = sd_bus_message_read(value, "i", &style);
    if (read < 0)
        return ReadFailed("SetOverlayDateTimeStyle", read);
    _Streamer->Overlay().SetDateTimeStyle(style);
    AnnounceOverlay("SetOverlayDateTimeStyle", "OverlayDateTimeStyle");
    return 1;
}

int DbusServer::GetOverlayCountStyle(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->Overlay().GetCountStyle());
}

int DbusServer::SetOverlayCountStyle(sd_bus_message* value, sd_bus_error*)
{
    int32_t style = 0;
    const int read = sd_bus_message_read(value, "i", &style);
    if (read < 0)
        return ReadFailed("SetOverlayCountStyle", read);
    _Streamer->Overlay().SetCountStyle(style);
    AnnounceOverlay("SetOverlayCountStyle", "OverlayCountStyle");
    return 1;
}

// Encoders and de-interlacing.

int DbusServer::GetH264EncoderBitrate(sd_bus_message* reply, sd_bus_error*)
{
    return AppendUint(reply, _Streamer->Encoder(OrbStreamer::kVideoCapture).GetBitrate());
}

int DbusServer::SetH264EncoderBitrate(sd_bus_message* value, sd_bus_error*)
{
    return SetEncoderValue(
        value, "SetH264EncoderBitrate", OrbStreamer::kVideoCapture, &H264EncodePipeline::SetBitrate);
}

int DbusServer::GetH264EncoderGop(sd_bus_message* reply, sd_bus_error*)
{
    return AppendUint(reply, _Streamer->Encoder(OrbStreamer::kVideoCapture).GetGopSize());
}

int DbusServer::SetH264EncoderGop(sd_bus_message* value, sd_bus_error*)
{
    return SetEncoderValue(
        value, "SetH264EncoderGop", OrbStreamer::kVideoCapture, &H264EncodePipeline::SetGopSize);
}

int DbusServer::GetH264EncoderQuant(sd_bus_message* reply, sd_bus_error*)
{
    return AppendUint(reply, _Streamer->Encoder(OrbStreamer::kVideoCapture).GetQuantParam());
}

int DbusServer::SetH264EncoderQuant(sd_bus_message* value, sd_bus_error*)
{
    return SetEncoderValue(
        value, "SetH264EncoderQuant", OrbStreamer::kVideoCapture, &H264EncodePipeline::SetQuantParam);
}

int DbusServer::GetAutoLogH264EncoderBitrate(sd_bus_message* reply, sd_bus_error*)
{
    return AppendUint(reply, _Streamer->Encoder(OrbStreamer::kAutoLogCapture).GetBitrate());
}

int DbusServer::SetAutoLogH264EncoderBitrate(sd_bus_message* value, sd_bus_error*)
{
    return SetEncoderValue(
        value, "SetAutoLogH264EncoderBitrate", OrbStreamer::kAutoLogCapture, &H264EncodePipeline::SetBitrate);
}

int DbusServer::GetAutoLogH264EncoderGop(sd_bus_message* reply, sd_bus_error*)
{
    return AppendUint(reply, _Streamer->Encoder(OrbStreamer::kAutoLogCapture).GetGopSize());
}

int DbusServer::SetAutoLogH264EncoderGop(sd_bus_message* value, sd_bus_error*)
{
    return SetEncoderValue(
        value, "SetAutoLogH264EncoderGop", OrbStreamer::kAutoLogCapture, &H264EncodePipeline::SetGopSize);
}

int DbusServer::GetAutoLogH264EncoderQuant(sd_bus_message* reply, sd_bus_error*)
{
    return AppendUint(reply, _Streamer->Encoder(OrbStreamer::kAutoLogCapture).GetQuantParam());
}

int DbusServer::SetAutoLogH264EncoderQuant(sd_bus_message* value, sd_bus_error*)
{
    return SetEncoderValue(value, "SetAutoLogH264EncoderQuant", OrbStreamer::kAutoLogCapture,
        &H264EncodePipeline::SetQuantParam);
}

int DbusServer::GetDeinterlaceMethod(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->GetDeinterlaceMethod());
}

int DbusServer::SetDeinterlaceMethod(sd_bus_message* value, sd_bus_error* error)
{
    const char* method = nullptr;
    const int read = sd_bus_message_read(value, "s", &method);
    if (read < 0)
        return ReadFailed("SetDeinterlaceMethod", read);
    if (_Streamer->SetDeinterlaceMethod(method) < 0)
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
            "unknown deinterlace method \"%s\" (low-motion, medium-motion or high-motion)", method);
    return 1;
}

int DbusServer::GetTcpLiveStreamEnabled(sd_bus_message* reply, sd_bus_error*)
{
    return AppendBool(reply, _Streamer->GetTcpLiveStreamEnabled());
}

int DbusServer::SetTcpLiveStreamEnabled(sd_bus_message* value, sd_bus_error*)
{
    int enabled = 0;
    const int read = sd_bus_message_read(value, "b", &enabled);
    if (read < 0)
        return ReadFailed("SetTcpLiveStreamEnabled", read);
    // The streamer announces the switch itself.
    _Streamer->SetTcpLiveStreamEnabled(enabled != 0);
    return 1;
}

// Zoom and pan.

int DbusServer::GetCaptureZoom(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetZoom());
}

int DbusServer::SetCaptureZoom(sd_bus_message* value, sd_bus_error* error)
{
    return SetGpuValue(value, error, "SetCaptureZoom", "CaptureZoom", "zoom", &GpuPipeline::SetZoom);
}

int DbusServer::GetCaptureZoomMin(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetZoomMin());
}

int DbusServer::GetCaptureZoomMax(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetZoomMax());
}

int DbusServer::GetCapturePanX(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetPanX());
}

int DbusServer::SetCapturePanX(sd_bus_message* value, sd_bus_error* error)
{
    return SetGpuValue(value, error, "SetCapturePanX", "CapturePanX", "PanX", &GpuPipeline::SetPanX);
}

int DbusServer::GetCapturePanXMin(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetPanXMin());
}

int DbusServer::GetCapturePanXMax(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetPanXMax());
}

int DbusServer::GetCapturePanY(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetPanY());
}

int DbusServer::SetCapturePanY(sd_bus_message* value, sd_bus_error* error)
{
    return SetGpuValue(value, error, "SetCapturePanY", "CapturePanY", "PanY", &GpuPipeline::SetPanY);
}

int DbusServer::GetCapturePanYMin(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetPanYMin());
}

int DbusServer::GetCapturePanYMax(sd_bus_message* reply, sd_bus_error*)
{
    return AppendDouble(reply, _Streamer->Gpu().GetPanYMax());
}

// Camera features, angles and rotation.

int DbusServer::GetPlumblineCapable(sd_bus_message* reply, sd_bus_error*)
{
    return AppendBool(reply, _Streamer->GetCameraFeatures().plumbline);
}

int DbusServer::GetAutoRotateCapable(sd_bus_message* reply, sd_bus_error*)
{
    return AppendBool(reply, _Streamer->GetCameraFeatures().auto_rotate);
}

int DbusServer::GetCameraRollAngle(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->Rotation().GetRollAngleText());
}

int DbusServer::GetCameraRollAngleRaw(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->Rotation().GetRollAngle());
}

int DbusServer::GetCameraPitch(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->Rotation().GetPitchText());
}

int DbusServer::GetCameraPitchAngle(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->Rotation().GetPitchAngle());
}

int DbusServer::GetRotationAngle(sd_bus_message* reply, sd_bus_error*)
{
    return AppendInt(reply, _Streamer->Rotation().GetRotationAngle());
}

int DbusServer::GetRotationOverrideAngle(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->Rotation().GetOverrideAngleText());
}

int DbusServer::SetRotationOverrideAngle(sd_bus_message* value, sd_bus_error* error)
{
    const char* text = nullptr;
    const int read = sd_bus_message_read(value, "s", &text);
    if (read < 0)
        return ReadFailed("SetRotationOverrideAngle", read);
    RotationHandler& rotation = _Streamer->Rotation();
    const std::string before = rotation.GetOverrideAngleText();
    const int angleBefore = rotation.GetRotationAngle();
    if (!rotation.SetOverrideAngleText(text))
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
            "rotation override angle \"%s\" is not an angle of -%d to %d degrees", text,
            RotationHandler::kMaxOverrideAngle, RotationHandler::kMaxOverrideAngle);
    std::vector<std::string> changed;
    if (rotation.GetOverrideAngleText() != before)
        changed.emplace_back("RotationOverrideAngle");
    if (rotation.GetRotationAngle() != angleBefore)
        changed.emplace_back("RotationAngle");
    EmitPropertiesChanged(changed, true);
    return 1;
}

int DbusServer::GetRotationEnabled(sd_bus_message* reply, sd_bus_error*)
{
    return AppendBool(reply, _Streamer->Rotation().GetEnabled());
}

int DbusServer::SetRotationEnabled(sd_bus_message* value, sd_bus_error*)
{
    int enabled = 0;
    const int read = sd_bus_message_read(value, "b", &enabled);
    if (read < 0)
        return ReadFailed("SetRotationEnabled", read);
    RotationHandler& rotation = _Streamer->Rotation();
    if ((enabled != 0) == rotation.GetEnabled())
        return 1;
    const int angleBefore = rotation.GetRotationAngle();
    rotation.SetEnabled(enabled != 0);
    std::vector<std::string> changed { "RotationEnabled" };
    if (rotation.GetRotationAngle() != angleBefore)
        changed.emplace_back("RotationAngle");
    EmitPropertiesChanged(changed, true);
    return 1;
}

int DbusServer::GetRotationSteps(sd_bus_message* reply, sd_bus_error*)
{
    return AppendString(reply, _Streamer->Rotation().GetSteps());
}

int DbusServer::SetRotationSteps(sd_bus_message* value, sd_bus_error* error)
{
    const char* steps = nullptr;
    const int read = sd_bus_message_read(value, "s", &steps);
    if (read < 0)
        return ReadFailed("SetRotationSteps", read);
    RotationHandler& rotation = _Streamer->Rotation();
    if (rotation.GetSteps() == steps)
        return 1;
    const int angleBefore = rotation.GetRotationAngle();
    if (!rotation.SetSteps(steps))
        return sd_bus_error_setf(error, SD_BUS_ERROR_INVALID_ARGS,
            "rotation steps \"%s\" are not \"0\", \"90\" or \"180\"", steps);
    std::vector<std::string> changed { "RotationSteps" };
    if (rotation.GetRotationAngle() != angleBefore)
        changed.emplace_back("RotationAngle");
    EmitPropertiesChanged(changed, true);
    return 1;
}

// Capture image controls.

int DbusServer::GetCaptureAutogain(sd_bus_message* reply, sd_bus_error* error)
{
    bool enabled = false;
    if (!_CaptureImage->GetAutogain(enabled))
        return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "Failed to read the capture autogain");
    return AppendBool(reply, enabled);
}

int DbusServer::SetCaptureAutogain(sd_bus_message* value, sd_bus_error*)
{
    int enabled = 0;
    const int read = sd_bus_message_read(value, "b", &enabled);
    if (read < 0)
        return ReadFailed("SetCaptureAutogain", read);
    bool before = false;
    _CaptureImage->GetAutogain(before);
    if (before == (enabled != 0))
        return 1;
    _CaptureImage->SetAutogain(enabled != 0);
    EmitPropertyChanged("CaptureAutogain", true);
    return 1;
}

int DbusServer::GetCaptureBrightness(sd_bus_message* reply, sd_bus_error* error)
{
    return GetControl(reply, error, &ImageCaptureSettingsV4L2Backend::GetBrightness);
}

int DbusServer::SetCaptureBrightness(sd_bus_message* value, sd_bus_error* error)
{
    return SetControl(value, error, "SetCaptureBrightness", "CaptureBrightness",
        &ImageCaptureSettingsV4L2Backend::GetBrightness, &ImageCaptureSettingsV4L2Backend::SetBrightness);
}

int DbusServer::GetCaptureContrast(sd_bus_message* reply, sd_bus_error* error)
{
    return GetControl(reply, error, &ImageCaptureSettingsV4L2Backend::GetContrast);
}

int DbusServer::SetCaptureContrast(sd_bus_message* value, sd_bus_error* error)
{
    return SetControl(value, error, "SetCaptureContrast", "CaptureContrast",
        &ImageCaptureSettingsV4L2Backend::GetContrast, &ImageCaptureSettingsV4L2Backend::SetContrast);
}

int DbusServer::GetCaptureHue(sd_bus_message* reply, sd_bus_error* error)
{
    return GetControl(reply, error, &ImageCaptureSettingsV4L2Backend::GetHue);
}

int DbusServer::SetCaptureHue(sd_bus_message* value, sd_bus_error* error)
{
    return SetControl(value, error, "SetCaptureHue", "CaptureHue", &ImageCaptureSettingsV4L2Backend::GetHue,
        &ImageCaptureSettingsV4L2Backend::SetHue);
}

int DbusServer::GetCaptureSaturation(sd_bus_message* reply, sd_bus_error* error)
{
    return GetControl(reply, error, &ImageCaptureSettingsV4L2Backend::GetSaturation);
}

int DbusServer::SetCaptureSaturation(sd_bus_message* value, sd_bus_error* error)
{
    return SetControl(value, error, "SetCaptureSaturation", "CaptureSaturation",
        &ImageCaptureSettingsV4L2Backend::GetSaturation, &ImageCaptureSettingsV4L2Backend::SetSaturation);
}

} // namespace VideoDaemon
