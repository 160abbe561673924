// Client of the settings daemon: typed reads and writes, per-section change signals.
#pragma once

#include <glib.h>
#include <sigc++/sigc++.h>

#include <cstdint>
#include <map>
#include <string>

#include "dbus-helper/dbus_listener.h"
#include "dbus-helper/sdbus_utils.h"

namespace Settingsd
{

constexpr const char* SETTINGS_DAEMON_SERVICE = "com.tarnwell.common.Settings1";
constexpr const char* SETTINGS_DAEMON_BASE_PATH = "/com/tarnwell/common/Settings1";
constexpr const char* SETTINGS_DAEMON_INTERFACE = "com.tarnwell.common.Settings1";

class SettingsDaemonDbusHandler : public DbusHelper::DbusListener
{
public:
    using SettingsChangedSignal = sigc::signal<void, const std::string&, const TypedPropertyMap&>;
    using SectionChangedSignal = sigc::signal<void, const TypedPropertyMap&>;

    explicit SettingsDaemonDbusHandler(GMainLoop* mainLoop);

    // Connects and subscribes to the settings daemon's property changes.
    // Returns 0, or the failed step's result after disconnecting again.
    int32_t Listen();

    // Read or write one setting of a section. Return >= 0 on success; on
    // failure a negative code, with `value` left as it was.
    template <typename T>
    static int32_t GetSetting(const std::string& section, const std::string& key, T& value);
    template <typename T>
    static int32_t SetSetting(const std::string& section, const std::string& key, T value);

    // The settings daemon's reset methods. Return >= 0 on success.
    static int32_t ResetToDefaults(bool value);
    static int32_t ResetSection(const std::string& section);
    static int32_t ResetSetting(const std::string& section, const std::string& key);

    // The section's change signal, or nullptr for a section the daemon does
    // not know.
    SectionChangedSignal* SectionSignal(const std::string& section);

    // Every change: (section, changed keys).
    SettingsChangedSignal _SettingsChanged;
    // One signal per section: the changed keys of that section.
    SectionChangedSignal _BootSettingsChanged;
    SectionChangedSignal _SystemSettingsChanged;
    SectionChangedSignal _AudioSettingsChanged;
    SectionChangedSignal _KeyBeepSettingsChanged;
    SectionChangedSignal _DisplaySettingsChanged;
    SectionChangedSignal _CaptureSettingsChanged;
    SectionChangedSignal _JobsSettingsChanged;
    SectionChangedSignal _SyncSettingsChanged;
    SectionChangedSignal _SondeSettingsChanged;
    SectionChangedSignal _ReelSettingsChanged;
    SectionChangedSignal _CameraSettingsChanged;
    SectionChangedSignal _OverlaySettingsChanged;
    SectionChangedSignal _VideoSettingsChanged;
    SectionChangedSignal _VideoRecordingSettingsChanged;
    SectionChangedSignal _AutologRecordingSettingsChanged;
    SectionChangedSignal _SnapVoiceRecordingSettingsChanged;
    SectionChangedSignal _StorageSettingsChanged;
    SectionChangedSignal _DevelopmentSettingsChanged;
    SectionChangedSignal _BluetoothSettingsChanged;
    SectionChangedSignal _DeviceSettingsChanged;
    SectionChangedSignal _NetworkSettingsChanged;
    SectionChangedSignal _MotionDetectionSettingsChanged;
    SectionChangedSignal _ContactsSettingsChanged;
    SectionChangedSignal _RemoteCameraSettingsChanged;
    SectionChangedSignal _RemoteDevicesSettingsChanged;
    SectionChangedSignal _ShutdownSettingsChanged;
    SectionChangedSignal _TimeSettingsChanged;
    SectionChangedSignal _GpsSettingsChanged;
    SectionChangedSignal _CoolingSettingsChanged;

    // Handler of the settings daemon's "PropertiesChanged" signals: routes
    // the change of the object "<base path>/<section>" to the section signal.
    static int32_t PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);

private:
    // Section name -> its signal, for routing.
    std::map<std::string, SectionChangedSignal*> _SectionSignals;
};

} // namespace Settingsd
