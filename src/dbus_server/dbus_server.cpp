// The service frame: bus, object and name, the streamer's start, property announcements and signals.
#include "dbus_server/dbus_server.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <utility>

#include "clients/settings_daemon_dbus_handler.h"
#include "controls/image_capture_settings_v4l2_backend.h"
#include "log.h"

namespace VideoDaemon
{

DbusServer::DbusServer(GMainLoop* loop, PlatformPaths paths)
    : _Paths(std::move(paths))
    , _Loop(loop)
{
    BuildVtable();

    sd_bus* bus = nullptr;
    if (sd_bus_open_user(&bus) < 0) {
        Log::Error("[Server]: sd_bus_open_user failed");
        return;
    }
    _Bus.reset(bus);

    _Settings = std::make_shared<Settingsd::SettingsDaemonDbusHandler>(_Loop);
    _Settings->Listen();

    _CaptureImage = std::make_unique<ImageCaptureSettingsV4L2Backend>(_Paths.video_device);
    _CaptureImage->Initialise();
    _CaptureImage->LoadFromSettings();
    _CaptureImage->FollowSettings(*_Settings);

    _Streamer
        = std::make_shared<OrbStreamer>(OrbStreamer::ReadDebugMetrics(), _Paths.camera_standard, _Settings);
    ConnectStreamer();
}

DbusServer::~DbusServer() = default;

void DbusServer::ConnectStreamer()
{
    _Streamer->signal_snapshot_created.connect(
        [this](std::string path) { EmitSignal("SnapshotCreated", "s", path.c_str()); });
    _Streamer->signal_file_grew.connect([this](std::string signal, std::string path, bool nearLimit) {
        EmitSignal(signal.c_str(), "sb", path.c_str(), static_cast<int>(nearLimit));
    });
    _Streamer->signal_properties_changed.connect(
        [this](std::vector<std::string> names, bool deferred) { EmitPropertiesChanged(names, deferred); });
    _Streamer->signal_property_changed.connect(
        [this](std::string name, bool deferred) { EmitPropertyChanged(name, deferred); });
    _Streamer->signal_playback_progress.connect(
        [this](bool error, bool eos, double rate, int64_t position, int64_t duration) {
            EmitSignal("PlaybackProgress", "bbdxx", static_cast<int>(error), static_cast<int>(eos), rate,
                position, duration);
        });
    _Streamer->signal_motion_detected.connect(
        [this](int32_t value, std::string text) { EmitSignal("MotionDetected", "is", value, text.c_str()); });
}

int DbusServer::Start()
{
    if (InitializeEventSource() < 0) {
        Log::Error("DbusServer: %s InitializeEventSource failed", "Start");
        return -3;
    }
    if (sd_bus_add_object_vtable(
            _Bus.get(), nullptr, _ObjectPath.c_str(), _Interface.c_str(), _Vtable.data(), this)
        < 0) {
        Log::Error("DbusServer: %s sd_bus_add_object_vtable failed", "Start");
        return -4;
    }
    if (sd_bus_request_name(_Bus.get(), _BusName.c_str(), 0) < 0) {
        Log::Error("DbusServer: %s sd_bus_request_name failed", "Start");
        return -5;
    }
    // The streamer starts from the loop once the name is ours, never inside
    // this call.
    _StreamerStart = AttachSource(
        g_timeout_source_new_seconds(0),
        [](gpointer self) -> gboolean {
            static_cast<DbusServer*>(self)->StartStreamer();
            return G_SOURCE_REMOVE;
        },
        this);
    return 0;
}

void DbusServer::StartStreamer()
{
    Log::Info("[Server] Starting ORB streamer");
    _Streamer->Start();
    _StreamerStarted = true;
}

int DbusServer::InitializeEventSource()
{
    // The one glib source of the dbus-helper library services the bus; a
    // failure leaves the server without its bus on the loop.
    return _EventSource.Attach(_Bus.get());
}

int DbusServer::RequireStreamer(sd_bus_error* error) const
{
    if (_StreamerStarted)
        return 0;
    return sd_bus_error_set(error, SD_BUS_ERROR_FAILED, "The ORB streamer has not started yet");
}

int DbusServer::EmitPropertyChanged(const std::string& name, bool deferred)
{
    if (!deferred)
        return sd_bus_emit_properties_changed(
            _Bus.get(), _ObjectPath.c_str(), _Interface.c_str(), name.c_str(), nullptr);
    _Deferred.Post([this, name] {
        const int result = sd_bus_emit_properties_changed(
            _Bus.get(), _ObjectPath.c_str(), _Interface.c_str(), name.c_str(), nullptr);
        if (result < 0)
            Log::Error(
                "[Server] Failed to emit delayed property change:%s, return code:%d", name.c_str(), result);
    });
    return 0;
}

void DbusServer::EmitPropertiesChanged(const std::vector<std::string>& names, bool deferred)
{
    if (names.empty())
        return;
    if (deferred) {
        _Deferred.Post([this, names] { EmitPropertiesChanged(names, false); });
        return;
    }
    if (!_Bus) {
        Log::Error("%s:Bus ptr is NULL", "EmitPropertiesChanged");
        return;
    }
    for (size_t first = 0; first < names.size(); first += kPropertiesPerBatch) {
        const size_t count = std::min(kPropertiesPerBatch, names.size() - first);
        std::vector<char*> batch;
        batch.reserve(count + 1);
        for (size_t i = first; i < first + count; ++i)
            batch.push_back(const_cast<char*>(names[i].c_str()));
        batch.push_back(nullptr);
        if (sd_bus_emit_properties_changed_strv(
                _Bus.get(), _ObjectPath.c_str(), _Interface.c_str(), batch.data())
            < 0)
            Log::Error("%s:Failed to emit property change", "EmitPropertiesChanged");
    }
}

int DbusServer::SendHeartBeat(int32_t value)
{
    return EmitSignal("HeartBeat", "i", value);
}

int DbusServer::EmitSignal(const char* member, const char* signature, ...)
{
    if (!_Bus)
        return -ENOTCONN;
    va_list args;
    va_start(args, signature);
    const int result
        = sd_bus_emit_signalv(_Bus.get(), _ObjectPath.c_str(), _Interface.c_str(), member, signature, args);
    va_end(args);
    return result;
}

int DbusServer::ReadFailed(const char* method, int result)
{
    Log::Error("DbusServer: %s sd_bus_message_read failed", method);
    return result;
}

int DbusServer::Exit(sd_bus_message* call, sd_bus_error*)
{
    signal_exit.emit();
    return sd_bus_reply_method_return(call, "");
}

int DbusServer::Echo(sd_bus_message* call, sd_bus_error*)
{
    const char* text = nullptr;
    const int result = sd_bus_message_read(call, "s", &text);
    if (result < 0)
        return ReadFailed("Echo", result);
    const std::string answer = signal_echo.emit(text);
    return sd_bus_reply_method_return(call, "s", answer.c_str());
}

} // namespace VideoDaemon
