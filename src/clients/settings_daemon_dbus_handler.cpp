// Settings daemon client: typed access and routing of property changes to section signals.
#include "settings_daemon_dbus_handler.h"

#include <cerrno>
#include <string>
#include <vector>

#include "common/function_signature.h"
#include "log.h"
#include "peer_properties.h"

using VideoDaemon::Log::Error;

namespace Settingsd
{

namespace
{
// One section's object: the base path, "/", the section's name.
VideoDaemon::PeerProperties Section(const std::string& section)
{
    return { SETTINGS_DAEMON_SERVICE, std::string(SETTINGS_DAEMON_BASE_PATH) + "/" + section,
        SETTINGS_DAEMON_INTERFACE };
}
} // namespace

SettingsDaemonDbusHandler::SettingsDaemonDbusHandler(GMainLoop* mainLoop)
    : DbusHelper::DbusListener(mainLoop)
    , _SectionSignals {
        { "boot", &_BootSettingsChanged },
        { "system", &_SystemSettingsChanged },
        { "audio", &_AudioSettingsChanged },
        { "keyBeep", &_KeyBeepSettingsChanged },
        { "display", &_DisplaySettingsChanged },
        { "capture", &_CaptureSettingsChanged },
        { "jobs", &_JobsSettingsChanged },
        { "sync", &_SyncSettingsChanged },
        { "sonde", &_SondeSettingsChanged },
        { "reel", &_ReelSettingsChanged },
        { "camera", &_CameraSettingsChanged },
        { "overlay", &_OverlaySettingsChanged },
        { "video", &_VideoSettingsChanged },
        { "videoRecording", &_VideoRecordingSettingsChanged },
        { "autologRecording", &_AutologRecordingSettingsChanged },
        { "snapVoiceRecording", &_SnapVoiceRecordingSettingsChanged },
        { "storage", &_StorageSettingsChanged },
        { "development", &_DevelopmentSettingsChanged },
        { "bluetooth", &_BluetoothSettingsChanged },
        { "device", &_DeviceSettingsChanged },
        { "network", &_NetworkSettingsChanged },
        { "motionDetection", &_MotionDetectionSettingsChanged },
        { "contacts", &_ContactsSettingsChanged },
        { "remoteCamera", &_RemoteCameraSettingsChanged },
        { "remoteDevices", &_RemoteDevicesSettingsChanged },
        { "shutdown", &_ShutdownSettingsChanged },
        { "time", &_TimeSettingsChanged },
        { "gps", &_GpsSettingsChanged },
        { "cooling", &_CoolingSettingsChanged },
    }
{
    // Live settings stop until the daemon connects again.
    SetClosedHandler([] { Error("[SettingsDaemonDbusHandler] Bus connection closed"); });
}

int32_t SettingsDaemonDbusHandler::Listen()
{
    int32_t result = DbusHelper::DbusConnector::Connect();
    if (result < 0) {
        Error("%s: Failed to connect to dbus", VIDEOD_SIGNATURE);
        return result;
    }
    result |= DbusHelper::DbusListener::ListenSignal(SETTINGS_DAEMON_SERVICE, "",
        "org.freedesktop.DBus.Properties", "PropertiesChanged", &SettingsDaemonDbusHandler::PropertiesChanged,
        this);
    if (result == 0)
        return 0;
    if (result < 0)
        Error("%s: Failed to register %s signal", VIDEOD_SIGNATURE, "PropertiesChanged");
    Error("LibDbusHelper::Storage: Failed to init signal listeners");
    DbusHelper::DbusConnector::Disconnect();
    return result;
}

SettingsDaemonDbusHandler::SectionChangedSignal* SettingsDaemonDbusHandler::SectionSignal(
    const std::string& section)
{
    auto found = _SectionSignals.find(section);
    return found == _SectionSignals.end() ? nullptr : found->second;
}

int32_t SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<SettingsDaemonDbusHandler*>(userdata);
    const char* object_path = sd_bus_message_get_path(message);
    const std::string path = object_path ? object_path : "";

    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        Error("%s: Failed to find / in path", VIDEOD_SIGNATURE);
        return -1;
    }
    if (slash + 1 == path.size()) {
        Error("%s: Mallformed path string", VIDEOD_SIGNATURE);
        return -1;
    }
    const std::string section = path.substr(slash + 1);

    if (sd_bus_message_skip(message, "s") < 0) {
        Error("%s: Failed to skip interface string", VIDEOD_SIGNATURE);
        return -1;
    }
    TypedPropertyMap properties;
    const int r = sdbus_utils::ParsePropertiesWithType(message, properties);
    if (r < 0) {
        Error("%s: ParsePropertiesWithType failed:%d", VIDEOD_SIGNATURE, r);
        return -1;
    }

    self->_SettingsChanged.emit(section, properties);
    if (SectionChangedSignal* signal = self->SectionSignal(section))
        signal->emit(properties);
    return 0;
}

template <typename T>
int32_t SettingsDaemonDbusHandler::GetSetting(const std::string& section, const std::string& key, T& value)
{
    return Section(section).Get(
        key, value, VIDEOD_FUNCTION, nullptr, "%s: ERROR sdbus_utils::GetProperty %s failed %s");
}

template <typename T>
int32_t SettingsDaemonDbusHandler::SetSetting(const std::string& section, const std::string& key, T value)
{
    return Section(section).Set(
        key, value, VIDEOD_FUNCTION, nullptr, "%s: ERROR sdbus_utils::SetProperty %s failed %s");
}

int32_t SettingsDaemonDbusHandler::ResetToDefaults(bool value)
{
    std::string error;
    const int32_t r = sdbus_utils::CallMethod(nullptr, SETTINGS_DAEMON_SERVICE, SETTINGS_DAEMON_BASE_PATH,
        SETTINGS_DAEMON_INTERFACE, "ResetToDefaults", nullptr, error, "b", static_cast<int>(value));
    if (r < 0)
        Error("%s:sd_bus_call_method call failed (r = %d)", VIDEOD_SIGNATURE, r);
    return r < 0 ? r : 0;
}

int32_t SettingsDaemonDbusHandler::ResetSection(const std::string& section)
{
    std::string error;
    const int32_t r = sdbus_utils::CallMethod(nullptr, SETTINGS_DAEMON_SERVICE, SETTINGS_DAEMON_BASE_PATH,
        SETTINGS_DAEMON_INTERFACE, "ResetSection", nullptr, error, "s", section.c_str());
    if (r < 0)
        Error("%s:sd_bus_call_method call failed (r = %d)", VIDEOD_SIGNATURE, r);
    return r < 0 ? r : 0;
}

int32_t SettingsDaemonDbusHandler::ResetSetting(const std::string& section, const std::string& key)
{
    std::string error;
    const int32_t r = sdbus_utils::CallMethod(nullptr, SETTINGS_DAEMON_SERVICE, SETTINGS_DAEMON_BASE_PATH,
        SETTINGS_DAEMON_INTERFACE, "ResetSetting", nullptr, error, "ss", section.c_str(), key.c_str());
    if (r < 0)
        Error("%s:sd_bus_call_method call failed (r = %d)", VIDEOD_SIGNATURE, r);
    return r < 0 ? r : 0;
}

template int32_t SettingsDaemonDbusHandler::GetSetting<bool>(const std::string&, const std::string&, bool&);
template int32_t SettingsDaemonDbusHandler::GetSetting<int>(const std::string&, const std::string&, int&);
template int32_t SettingsDaemonDbusHandler::GetSetting<unsigned int>(
    const std::string&, const std::string&, unsigned int&);
template int32_t SettingsDaemonDbusHandler::GetSetting<unsigned long long>(
    const std::string&, const std::string&, unsigned long long&);
template int32_t SettingsDaemonDbusHandler::GetSetting<double>(
    const std::string&, const std::string&, double&);
template int32_t SettingsDaemonDbusHandler::GetSetting<float>(const std::string&, const std::string&, float&);
template int32_t SettingsDaemonDbusHandler::GetSetting<std::string>(
    const std::string&, const std::string&, std::string&);
template int32_t SettingsDaemonDbusHandler::GetSetting<std::vector<float>>(
    const std::string&, const std::string&, std::vector<float>&);
template int32_t SettingsDaemonDbusHandler::SetSetting<bool>(const std::string&, const std::string&, bool);

} // namespace Settingsd
