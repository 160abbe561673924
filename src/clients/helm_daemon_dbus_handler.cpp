// System controller client: subscriptions and property reads.
#include "helm_daemon_dbus_handler.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/function_signature.h"
#include "log.h"
#include "peer_properties.h"

using VideoDaemon::Log::Debug;
using VideoDaemon::Log::Error;

namespace Helmd
{

namespace
{
const char* const kPropertiesInterface = "org.freedesktop.DBus.Properties";
const char* const kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";

VideoDaemon::PeerProperties Object(const char* path, const char* interface)
{
    return { HELM_DAEMON_SERVICE, path, interface };
}

VideoDaemon::PeerProperties Main()
{
    return Object(HELM_DAEMON_PATH, HELM_DAEMON_INTERFACE);
}
VideoDaemon::PeerProperties Reel()
{
    return Object(HELM_DAEMON_REEL_PATH, HELM_DAEMON_REEL_INTERFACE);
}
VideoDaemon::PeerProperties ReelDistance()
{
    return Object(HELM_DAEMON_REEL_DISTANCE_PATH, HELM_DAEMON_REEL_DISTANCE_INTERFACE);
}
VideoDaemon::PeerProperties ReelFirmware()
{
    return Object(HELM_DAEMON_REEL_FIRMWARE_PATH, HELM_DAEMON_REEL_FIRMWARE_INTERFACE);
}
VideoDaemon::PeerProperties Cooling()
{
    return Object(HELM_DAEMON_COOLING_PATH, HELM_DAEMON_COOLING_INTERFACE);
}
VideoDaemon::PeerProperties Power()
{
    return Object(HELM_DAEMON_POWER_PATH, HELM_DAEMON_POWER_INTERFACE);
}

HelmDaemonDbusHandler* Self(void* userdata)
{
    return static_cast<HelmDaemonDbusHandler*>(userdata);
}
} // namespace

HelmDaemonDbusHandler::HelmDaemonDbusHandler(GMainLoop* mainLoop)
    : DbusHelper::DbusListener(mainLoop)
{
    SetClosedHandler([] { Error("[HelmDaemonDbusHandler] Bus connection closed"); });
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
    return Main().Get(
        HELM_DAEMON_PROP_VIDEO_STATUS, status, VIDEOD_FUNCTION, "HELM_DAEMON_PROP_VIDEO_STATUS");
}

int HelmDaemonDbusHandler::GetRemoteIP(std::string& address)
{
    return Main().Get(HELM_DAEMON_PROP_REMOTE_IP, address, VIDEOD_FUNCTION, "HELM_DAEMON_PROP_REMOTE_IP");
}

int HelmDaemonDbusHandler::GetRemoteDbusAddr(std::string& address)
{
    return Main().Get(
        HELM_DAEMON_PROP_REMOTE_DBUS_ADDR, address, VIDEOD_FUNCTION, "HELM_DAEMON_PROP_REMOTE_DBUS_ADDR");
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

int HelmDaemonDbusHandler::GetReelStatus(int32_t& value)
{
    return Reel().Get("Status", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelConnected(bool& value)
{
    return Reel().Get("Connected", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelCountMode(uint32_t& value)
{
    return Reel().Get("CountMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetReelCountMode(uint32_t value)
{
    return Reel().Set("CountMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelCount(double& value)
{
    return Reel().Get("Count", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelSerialNumber(std::string& value)
{
    return Reel().Get("SerialNumber", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetReelSerialNumber(const std::string& value)
{
    return Reel().Set("SerialNumber", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelDistanceSoftwareMode(bool& value)
{
    return ReelDistance().Get("SoftwareMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetReelDistanceSoftwareMode(bool value)
{
    return ReelDistance().Set("SoftwareMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelDistanceAbsolute(double& value)
{
    return ReelDistance().Get("Absolute", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetReelDistanceAbsolute(double value)
{
    return ReelDistance().Set("Absolute", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelDistanceRelative(double& value)
{
    return ReelDistance().Get("Relative", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetReelFirmwareVersion(std::string& value)
{
    return ReelFirmware().Get("Version", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetCPUtempC(double& value)
{
    return Cooling().Get("CPUtempC", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetFanSpeed(uint32_t& value)
{
    return Cooling().Get("FanSpeed", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetFanControlModes(std::vector<std::string>& value)
{
    return Cooling().Get("FanControlModes", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetFanControlMode(std::string& value)
{
    return Cooling().Get("FanControlMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetFanControlMode(const std::string& value)
{
    return Cooling().Set("FanControlMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetFanControlRange(std::vector<double>& value)
{
    return Cooling().Get("FanControlRange", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetFanControlRange(const std::vector<double>& value)
{
    return Cooling().Set("FanControlRange", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetAveragingPeriod(uint32_t& value)
{
    return Cooling().Get("AveragingPeriod", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetAveragingPeriod(uint32_t value)
{
    return Cooling().Set("AveragingPeriod", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetEmitStatusChanges(bool& value)
{
    return Cooling().Get("EmitStatusChanges", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetEmitStatusChanges(bool value)
{
    return Cooling().Set("EmitStatusChanges", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetPowerSource(std::string& value)
{
    return Power().Get("PowerSource", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::ReadBatteryVoltages(std::vector<double>& value)
{
    return Power().Get("BatteryVoltages", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::ReadBatteryChargePercentages(std::vector<double>& value)
{
    return Power().Get("BatteryChargePercentages", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetSystemPowerLevel(int32_t& value)
{
    return Power().Get("SystemPowerLevel", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetBatteryDrainMode(uint32_t& value)
{
    return Power().Get("BatteryDrainMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::SetBatteryDrainMode(uint32_t value)
{
    return Power().Set("BatteryDrainMode", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetBatteryTypes(std::vector<std::string>& value)
{
    return Power().Get("BatteryTypes", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetLowBatteryWarnings(std::vector<std::string>& value)
{
    return Power().Get("LowBatteryWarnings", value, VIDEOD_FUNCTION);
}

int HelmDaemonDbusHandler::GetPermittedActions(std::vector<std::string>& value)
{
    return Power().Get("PermittedActions", value, VIDEOD_FUNCTION);
}

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
