// System controller client: subscriptions and property reads.
#include "helm_daemon_dbus_handler.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/function_signature.h"
#include "log.h"

using VideoDaemon::Log::Debug;
using VideoDaemon::Log::Error;

namespace Helmd
{

namespace
{
const char* const kPropertiesInterface = "org.freedesktop.DBus.Properties";
const char* const kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";

// Property access on one of the controller's objects; failures log
// "<operation>: sdbus_utils::<Get|Set>Property <name> failed <error>".
template <typename T>
int Read(const char* operation, const char* path, const char* interface, const char* name, T& value)
{
    std::string error;
    const int r = sdbus_utils::GetProperty(nullptr, HELM_DAEMON_SERVICE, path, interface, name, value, error);
    if (r < 0)
        Error("%s: sdbus_utils::GetProperty %s failed %s", operation, name, error.c_str());
    return r;
}

template <typename T>
int Write(const char* operation, const char* path, const char* interface, const char* name, const T& value)
{
    std::string error;
    const int r = sdbus_utils::SetProperty(nullptr, HELM_DAEMON_SERVICE, path, interface, name, value, error);
    if (r < 0)
        Error("%s: sdbus_utils::SetProperty %s failed %s", operation, name, error.c_str());
    return r;
}

HelmDaemonDbusHandler* Self(void* userdata)
{
    return static_cast<HelmDaemonDbusHandler*>(userdata);
}
} // namespace

HelmDaemonDbusHandler::HelmDaemonDbusHandler(GMainLoop* mainLoop)
    : DbusHelper::DbusListener(mainLoop)
{
}

int HelmDaemonDbusHandler::Listen()
{
    int r = DbusHelper::DbusConnector::Connect();
    if (r < 0) {
        Error("Failed to connect to the dbus, %s", std::strerror(-r));
        return r;
    }

    const std::vector<DbusHelper::SignalMatch> matches {
        { HELM_DAEMON_SERVICE, HELM_DAEMON_PATH, HELM_DAEMON_INTERFACE, "VideoStatusChanged",
            &VideoStatusChangedHandler, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_PATH, HELM_DAEMON_INTERFACE, "KeyPressEvent",
            &KeyPressEventHandler, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_REEL_PATH, kPropertiesInterface, "PropertiesChanged",
            &ReelPropertiesChanged, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_REEL_FIRMWARE_PATH, kPropertiesInterface, "PropertiesChanged",
            &ReelFirmwarePropertiesChanged, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_REEL_DISTANCE_PATH, kPropertiesInterface, "PropertiesChanged",
            &ReelDistancePropertiesChanged, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_POWER_PATH, kPropertiesInterface, "PropertiesChanged",
            &PowerPropertiesChanged, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_COOLING_PATH, kPropertiesInterface, "PropertiesChanged",
            &CoolingPropertiesChanged, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_PATH, kPropertiesInterface, "PropertiesChanged",
            &MainPropertiesChanged, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_PATH, kObjectManagerInterface, "InterfacesAdded",
            &InterfacesAddedHandler, this },
        { HELM_DAEMON_SERVICE, HELM_DAEMON_PATH, kObjectManagerInterface, "InterfacesRemoved",
            &InterfacesRemovedHandler, this },
    };
    const int result = ListenSignals(matches, [](const DbusHelper::SignalMatch& match, int failure) {
        Error("Failed to register %s signal, %s", match.member.c_str(), std::strerror(-failure));
    });
    if (result < 0) {
        Error("Storage: Failed to init signal listeners");
        DbusHelper::DbusConnector::Disconnect();
    }
    return result;
}

int HelmDaemonDbusHandler::GetPropVideoStatus(int32_t& status)
{
    std::string error;
    const int r = sdbus_utils::GetProperty(nullptr, HELM_DAEMON_SERVICE, HELM_DAEMON_PATH,
        HELM_DAEMON_INTERFACE, HELM_DAEMON_PROP_VIDEO_STATUS, status, error);
    if (r < 0)
        Error("%s: sdbus_utils::GetProperty HELM_DAEMON_PROP_VIDEO_STATUS failed %s", VIDEOD_SIGNATURE,
            error.c_str());
    return r;
}

int HelmDaemonDbusHandler::GetRemoteIP(std::string& address)
{
    std::string error;
    const int r = sdbus_utils::GetProperty(nullptr, HELM_DAEMON_SERVICE, HELM_DAEMON_PATH,
        HELM_DAEMON_INTERFACE, HELM_DAEMON_PROP_REMOTE_IP, address, error);
    if (r < 0)
        Error("%s: sdbus_utils::GetProperty HELM_DAEMON_PROP_REMOTE_IP failed %s", VIDEOD_SIGNATURE,
            error.c_str());
    return r;
}

int HelmDaemonDbusHandler::GetRemoteDbusAddr(std::string& address)
{
    std::string error;
    const int r = sdbus_utils::GetProperty(nullptr, HELM_DAEMON_SERVICE, HELM_DAEMON_PATH,
        HELM_DAEMON_INTERFACE, HELM_DAEMON_PROP_REMOTE_DBUS_ADDR, address, error);
    if (r < 0)
        Error("%s: sdbus_utils::GetProperty HELM_DAEMON_PROP_REMOTE_DBUS_ADDR failed %s", VIDEOD_SIGNATURE,
            error.c_str());
    return r;
}

int HelmDaemonDbusHandler::GetReelProperties(TypedPropertyMap& properties)
{
    std::string error;
    DbusHelper::SdBusMessagePtr reply;
    int r = sdbus_utils::GetAllProperties(
        nullptr, HELM_DAEMON_SERVICE, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, reply, error);
    if (r < 0) {
        Error("%s: sdbus_utils::GetAllProperties failed %s", VIDEOD_SIGNATURE, error.c_str());
        return r;
    }
    TypedPropertyMap parsed;
    r = sdbus_utils::ParsePropertiesWithType(reply.get(), parsed);
    if (r < 0) {
        Error("ParsePropertiesWithType failed:%d", r);
        return r;
    }
    properties = std::move(parsed);
    return 0;
}

#define HELM_READ(Operation, Type, Path, Interface, Name)                                                    \
    int HelmDaemonDbusHandler::Operation(Type& value)                                                        \
    {                                                                                                        \
        return Read(VIDEOD_SIGNATURE, Path, Interface, Name, value);                                         \
    }
#define HELM_WRITE(Operation, Type, Path, Interface, Name)                                                   \
    int HelmDaemonDbusHandler::Operation(Type value)                                                         \
    {                                                                                                        \
        return Write(VIDEOD_SIGNATURE, Path, Interface, Name, value);                                        \
    }

HELM_READ(GetReelStatus, int32_t, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, "Status")
HELM_READ(GetReelConnected, bool, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, "Connected")
HELM_READ(GetReelCountMode, uint32_t, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, "CountMode")
HELM_WRITE(SetReelCountMode, uint32_t, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, "CountMode")
HELM_READ(GetReelCount, double, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, "Count")
HELM_READ(GetReelSerialNumber, std::string, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE, "SerialNumber")
HELM_WRITE(SetReelSerialNumber, const std::string&, HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE,
    "SerialNumber")
HELM_READ(GetReelDistanceSoftwareMode, bool, HELM_DAEMON_REEL_DISTANCE_PATH,
    HELM_DAEMON_REEL_DISTANCE_INTERFACE, "SoftwareMode")
HELM_WRITE(SetReelDistanceSoftwareMode, bool, HELM_DAEMON_REEL_DISTANCE_PATH,
    HELM_DAEMON_REEL_DISTANCE_INTERFACE, "SoftwareMode")
HELM_READ(GetReelDistanceAbsolute, double, HELM_DAEMON_REEL_DISTANCE_PATH,
    HELM_DAEMON_REEL_DISTANCE_INTERFACE, "Absolute")
HELM_WRITE(SetReelDistanceAbsolute, double, HELM_DAEMON_REEL_DISTANCE_PATH,
    HELM_DAEMON_REEL_DISTANCE_INTERFACE, "Absolute")
HELM_READ(GetReelDistanceRelative, double, HELM_DAEMON_REEL_DISTANCE_PATH,
    HELM_DAEMON_REEL_DISTANCE_INTERFACE, "Relative")
HELM_READ(GetReelFirmwareVersion, std::string, HELM_DAEMON_REEL_FIRMWARE_PATH,
    HELM_DAEMON_REEL_FIRMWARE_INTERFACE, "Version")
HELM_READ(GetCPUtempC, double, HELM_DAEMON_COOLING_PATH, HELM_DAEMON_COOLING_INTERFACE, "CPUtempC")
HELM_READ(GetFanSpeed, uint32_t, HELM_DAEMON_COOLING_PATH, HELM_DAEMON_COOLING_INTERFACE, "FanSpeed")
HELM_READ(
    GetEmitStatusChanges, bool, HELM_DAEMON_COOLING_PATH, HELM_DAEMON_COOLING_INTERFACE, "EmitStatusChanges")
HELM_WRITE(
    SetEmitStatusChanges, bool, HELM_DAEMON_COOLING_PATH, HELM_DAEMON_COOLING_INTERFACE, "EmitStatusChanges")
HELM_READ(GetPowerSource, std::string, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE, "PowerSource")
HELM_READ(ReadBatteryVoltages, std::vector<double>, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE,
    "BatteryVoltages")
HELM_READ(ReadBatteryChargePercentages, std::vector<double>, HELM_DAEMON_POWER_PATH,
    HELM_DAEMON_POWER_INTERFACE, "BatteryChargePercentages")
HELM_READ(
    GetSystemPowerLevel, int32_t, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE, "SystemPowerLevel")
HELM_READ(
    GetBatteryDrainMode, uint32_t, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE, "BatteryDrainMode")
HELM_WRITE(
    SetBatteryDrainMode, uint32_t, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE, "BatteryDrainMode")
HELM_READ(GetBatteryTypes, std::vector<std::string>, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE,
    "BatteryTypes")
HELM_READ(GetLowBatteryWarnings, std::vector<std::string>, HELM_DAEMON_POWER_PATH,
    HELM_DAEMON_POWER_INTERFACE, "LowBatteryWarnings")
HELM_READ(GetPermittedActions, std::vector<std::string>, HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE,
    "PermittedActions")

#undef HELM_READ
#undef HELM_WRITE

int HelmDaemonDbusHandler::ZeroReelCount()
{
    std::string error;
    const int r = sdbus_utils::CallMethod(nullptr, HELM_DAEMON_SERVICE, HELM_DAEMON_REEL_PATH,
        HELM_DAEMON_REEL_INTERFACE, "ZeroCount", nullptr, error, "");
    if (r < 0)
        Error("%s:sd_bus_call_method call failed (r = %d)", VIDEOD_SIGNATURE, r);
    return r < 0 ? r : 0;
}

int HelmDaemonDbusHandler::EmitChangedProperties(sd_bus_message* message, PropertiesSignal& signal)
{
    if (sd_bus_message_skip(message, "s") < 0) {
        Error("[HelmDaemonDbusHandler] Failed to read interface");
        return -1;
    }
    TypedPropertyMap properties;
    const int r = sdbus_utils::ParsePropertiesWithType(message, properties);
    if (r < 0) {
        Error("ParsePropertiesWithType failed:%d", r);
        return -1;
    }
    signal.emit(properties);
    return 0;
}

int HelmDaemonDbusHandler::VideoStatusChangedHandler(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    int32_t status = 0;
    const int r = sd_bus_message_read(message, "i", &status);
    if (r < 0) {
        Error("%s: sd_bus_message_read failed (r = %d)", VIDEOD_SIGNATURE, r);
        return -1;
    }
    Debug("[HelmDaemonDbusHandler] VideoStatusChanged: %d", status);
    Self(userdata)->_VideoStatusChanged.emit(status);
    return 0;
}

int HelmDaemonDbusHandler::KeyPressEventHandler(sd_bus_message*, void* userdata, sd_bus_error*)
{
    Self(userdata)->_KeyPressed.emit();
    return 0;
}

int HelmDaemonDbusHandler::MainPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    return EmitChangedProperties(message, Self(userdata)->_PropertiesChanged);
}

int HelmDaemonDbusHandler::ReelPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    return EmitChangedProperties(message, Self(userdata)->_ReelPropertiesChanged);
}

int HelmDaemonDbusHandler::ReelFirmwarePropertiesChanged(
    sd_bus_message* message, void* userdata, sd_bus_error*)
{
    return EmitChangedProperties(message, Self(userdata)->_ReelFirmwarePropertiesChanged);
}

int HelmDaemonDbusHandler::ReelDistancePropertiesChanged(
    sd_bus_message* message, void* userdata, sd_bus_error*)
{
    return EmitChangedProperties(message, Self(userdata)->_ReelDistancePropertiesChanged);
}

int HelmDaemonDbusHandler::PowerPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    return EmitChangedProperties(message, Self(userdata)->_PowerPropertiesChanged);
}

int HelmDaemonDbusHandler::CoolingPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    return EmitChangedProperties(message, Self(userdata)->_CoolingPropertiesChanged);
}

int HelmDaemonDbusHandler::InterfacesAddedHandler(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    std::string path;
    sdbus_utils::InterfaceMap interfaces;
    if (sdbus_utils::ParseInterfaceAdded(message, path, interfaces) < 0)
        return -1;
    Self(userdata)->_InterfacesAdded.emit(path);
    return 0;
}

int HelmDaemonDbusHandler::InterfacesRemovedHandler(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    std::string path;
    std::vector<std::string> interfaces;
    if (sdbus_utils::ParseInterfaceRemoved(message, path, interfaces) < 0)
        return -1;
    Self(userdata)->_InterfacesRemoved.emit(path);
    return 0;
}

} // namespace Helmd
