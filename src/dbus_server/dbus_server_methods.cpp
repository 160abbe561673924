// The methods of "com.tarnwell.common.Video1.Control": read the arguments, call the streamer, reply.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "controls/image_capture_settings_v4l2_backend.h"
#include "dbus_server/dbus_server.h"
#include "log.h"
#include "pipelines/gpu_pipeline.h"

namespace VideoDaemon
{

namespace
{

template <typename T>
double Percentage(ImageCaptureSettingsV4L2Backend& image, bool (ImageCaptureSettingsV4L2Backend::*get)(T&))
{
    T value {};
    (image.*get)(value);
    return static_cast<double>(value);
}

// A call whose reply waits for the streamer: answered once, then released.
struct PendingReply {
    DbusHelper::SdBusMessagePtr call;
    // Set while the request is being made: an outcome reported from inside
    // it (a refusal) is replaced by the request's own result.
    bool requesting = true;

    void Send(int result)
    {
        if (!call)
            return;
        const int sent = sd_bus_reply_method_return(call.get(), "i", result);
        if (sent < 0)
            Log::Error("[Server] Failed to reply to %s: %d", sd_bus_message_get_member(call.get()), sent);
        call.reset();
    }
};

} // namespace

int DbusServer::ReplyResult(sd_bus_message* call, int result)
{
    return sd_bus_reply_method_return(call, "i", result);
}

int DbusServer::Snapshot(sd_bus_message* call, sd_bus_error*)
{
    const char* path = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t quality = 0;
    const int read = sd_bus_message_read(call, "suuu", &path, &width, &height, &quality);
    if (read < 0) {
        Log::Error("[Server]: %s sd_bus_message_read failed", "Snapshot");
        return read;
    }
    auto reply = std::make_shared<PendingReply>();
    reply->call.reset(sd_bus_message_ref(call));
    const int result = _Streamer->Snapshot("Snapshot", path, width, height, quality, [reply](int status) {
        if (!reply->requesting)
            reply->Send(status);
    });
    reply->requesting = false;
    if (result < 0)
        reply->Send(result);
    // Answered when the still image is written.
    return 1;
}

int DbusServer::StartCaptureKind(
    sd_bus_message* call, const char* method, const char* format, CaptureStart start)
{
    const char* path = nullptr;
    const char* recoveryPath = nullptr;
    const char* snapshotPath = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t quality = 0;
    const int read
        = sd_bus_message_read(call, "sssuuu", &path, &recoveryPath, &snapshotPath, &width, &height, &quality);
    if (read < 0)
        return ReadFailed(method, read);
    Log::Info(format, path, recoveryPath, snapshotPath, width, height, quality);
    return ReplyResult(call, ((*_Streamer).*start)(path, recoveryPath, snapshotPath, width, height, quality));
}

int DbusServer::StartRecording(sd_bus_message* call, sd_bus_error*)
{
    return StartCaptureKind(call, "StartRecording",
        "[Server] Start recording: video_path_str %s, recovery_path_str %s, snaphot_path_str %s, "
        "snapshot_width "
        "%u, snapshot_height %u, snapshot_quality %u",
        &OrbStreamer::StartRecording);
}

int DbusServer::PauseRecording(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->PauseRecording());
}

int DbusServer::ResumeRecording(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->ResumeRecording());
}

int DbusServer::StopRecording(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->StopRecording());
}

int DbusServer::StartSnapVoice(sd_bus_message* call, sd_bus_error*)
{
    return StartCaptureKind(call, "StartSnapVoice",
        "[Server] Start snapVoice: snapvoice_path_str %s, recovery_path_str %s, snaphot_path_str %s, "
        "snapshot_width %u, snapshot_height %u, snapshot_quality %u",
        &OrbStreamer::StartSnapVoice);
}

int DbusServer::StopSnapVoice(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->StopSnapVoice());
}

int DbusServer::PauseSnapVoice(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->PauseSnapVoice());
}

int DbusServer::ResumeSnapVoice(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->ResumeSnapVoice());
}

int DbusServer::SetMotionDetectionPeriod(sd_bus_message* call, sd_bus_error*)
{
    uint32_t period = 250;
    const int read = sd_bus_message_read(call, "u", &period);
    if (read < 0)
        return ReadFailed("SetMotionDetectionPeriod", read);
    _Streamer->Motion().SetDetectionPeriod(period);
    // The read's result answers, not the handler's.
    return ReplyResult(call, read);
}

int DbusServer::StartAutoLog(sd_bus_message* call, sd_bus_error*)
{
    return StartCaptureKind(call, "StartAutoLog",
        "[Server] Start Autolog: video_path_str %s, recovery_path_str %s, snaphot_path_str %s, "
        "snapshot_width "
        "%u, snapshot_height %u, snapshot_quality %u",
        &OrbStreamer::StartAutoLog);
}

int DbusServer::StopAutoLog(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->StopAutoLog());
}

int DbusServer::PauseAutoLog(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->PauseAutoLog());
}

int DbusServer::ResumeAutoLog(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->ResumeAutoLog());
}

int DbusServer::StartPlayback(sd_bus_message* call, sd_bus_error*)
{
    const char* path = nullptr;
    double rate = 1.0;
    const int read = sd_bus_message_read(call, "sd", &path, &rate);
    if (read < 0)
        return ReadFailed("StartPlayback", read);
    return ReplyResult(call, _Streamer->StartPlayback(path, rate));
}

int DbusServer::StopPlayback(sd_bus_message* call, sd_bus_error*)
{
    int exit = 0;
    const int read = sd_bus_message_read(call, "b", &exit);
    if (read < 0)
        return ReadFailed("StopPlayback", read);
    _Streamer->StopPlayback(exit != 0);
    return ReplyResult(call, 0);
}

int DbusServer::PausePlayback(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->PausePlayback());
}

int DbusServer::ResumePlayback(sd_bus_message* call, sd_bus_error*)
{
    return ReplyResult(call, _Streamer->ResumePlayback());
}

int DbusServer::SeekPlayback(sd_bus_message* call, sd_bus_error*)
{
    int32_t offset = 0;
    const int read = sd_bus_message_read(call, "i", &offset);
    if (read < 0)
        return ReadFailed("SeekPlayback", read);
    return ReplyResult(call, _Streamer->SeekPlayback(offset));
}

int DbusServer::GetPlaybackProgress(sd_bus_message* call, sd_bus_error*)
{
    bool active = false;
    bool eos = false;
    bool failed = false;
    double rate = 0.0;
    int64_t position = 0;
    int64_t duration = 0;
    _Streamer->GetPlaybackProgress(active, eos, failed, rate, position, duration);
    return sd_bus_reply_method_return(call, "bbbdxx", static_cast<int>(active), static_cast<int>(eos),
        static_cast<int>(failed), rate, position, duration);
}

int DbusServer::StartCapture(sd_bus_message* call, sd_bus_error*)
{
    int32_t redetect = 0;
    const int read = sd_bus_message_read(call, "i", &redetect);
    if (read < 0)
        return ReadFailed("StartCapture", read);
    _Streamer->StartCapture(redetect != 0);
    return sd_bus_reply_method_return(call, "");
}

int DbusServer::StopCapture(sd_bus_message* call, sd_bus_error*)
{
    _Streamer->StopCapture();
    return sd_bus_reply_method_return(call, "");
}

int DbusServer::CaptureResetToDefaults(sd_bus_message* call, sd_bus_error*)
{
    GpuPipeline& gpu = _Streamer->Gpu();
    ImageCaptureSettingsV4L2Backend& image = *_CaptureImage;
    struct Value {
        const char* property;
        std::function<double()> read;
    };
    const std::vector<Value> values = {
        { "CaptureZoom", [&] { return gpu.GetZoom(); } },
        { "CapturePanX", [&] { return gpu.GetPanX(); } },
        { "CapturePanY", [&] { return gpu.GetPanY(); } },
        { "CaptureAutogain",
            [&] { return Percentage(image, &ImageCaptureSettingsV4L2Backend::GetAutogain); } },
        { "CaptureBrightness",
            [&] { return Percentage(image, &ImageCaptureSettingsV4L2Backend::GetBrightness); } },
        { "CaptureContrast",
            [&] { return Percentage(image, &ImageCaptureSettingsV4L2Backend::GetContrast); } },
        { "CaptureHue", [&] { return Percentage(image, &ImageCaptureSettingsV4L2Backend::GetHue); } },
        { "CaptureSaturation",
            [&] { return Percentage(image, &ImageCaptureSettingsV4L2Backend::GetSaturation); } },
    };
    std::vector<double> before;
    for (const Value& value : values)
        before.push_back(value.read());

    // The zoom levels' default; no pan default is published: the centre of
    // each pan range stands for it.
    gpu.SetZoom(gpu.GetZoomDefault());
    gpu.SetPanX((gpu.GetPanXMin() + gpu.GetPanXMax()) / 2.0);
    gpu.SetPanY((gpu.GetPanYMin() + gpu.GetPanYMax()) / 2.0);
    image.Initialise();

    std::vector<std::string> changed;
    for (size_t i = 0; i < values.size(); ++i)
        if (values[i].read() != before[i])
            changed.emplace_back(values[i].property);
    const int replied = sd_bus_reply_method_return(call, "");
    EmitPropertiesChanged(changed, true);
    return replied;
}

} // namespace VideoDaemon
