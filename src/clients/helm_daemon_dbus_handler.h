// Client of the system controller: video status, remote unit credentials, reel, power and cooling.
#pragma once

#include <glib.h>
#include <sigc++/sigc++.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dbus-helper/dbus_listener.h"
#include "dbus-helper/sdbus_utils.h"

namespace Helmd
{

constexpr const char* HELM_DAEMON_SERVICE = "com.tarnwell.common.Helm1";
constexpr const char* HELM_DAEMON_PATH = "/com/tarnwell/common/Helm1";
constexpr const char* HELM_DAEMON_INTERFACE = "com.tarnwell.common.Helm1.Control";
constexpr const char* HELM_DAEMON_REEL_PATH = "/com/tarnwell/common/Helm1/reel";
constexpr const char* HELM_DAEMON_REEL_INTERFACE = "com.tarnwell.common.Helm1.reel";
constexpr const char* HELM_DAEMON_REEL_FIRMWARE_PATH = "/com/tarnwell/common/Helm1/reel/firmware";
constexpr const char* HELM_DAEMON_REEL_DISTANCE_PATH = "/com/tarnwell/common/Helm1/reel/distance";
constexpr const char* HELM_DAEMON_POWER_PATH = "/com/tarnwell/common/Helm1/power";
constexpr const char* HELM_DAEMON_COOLING_PATH = "/com/tarnwell/common/Helm1/cooling";
constexpr const char* HELM_DAEMON_REEL_FIRMWARE_INTERFACE = "com.tarnwell.common.Helm1.reel.firmware";
constexpr const char* HELM_DAEMON_REEL_DISTANCE_INTERFACE = "com.tarnwell.common.Helm1.reel.distance";
constexpr const char* HELM_DAEMON_POWER_INTERFACE = "com.tarnwell.common.Helm1.power";
constexpr const char* HELM_DAEMON_COOLING_INTERFACE = "com.tarnwell.common.Helm1.cooling";

constexpr const char* HELM_DAEMON_PROP_VIDEO_STATUS = "VideoStatus";
constexpr const char* HELM_DAEMON_PROP_REMOTE_IP = "RemoteIP";
constexpr const char* HELM_DAEMON_PROP_REMOTE_DBUS_ADDR = "RemoteDbusAddr";

class HelmDaemonDbusHandler : public DbusHelper::DbusListener
{
public:
    using PropertiesSignal = sigc::signal<void, const TypedPropertyMap&>;

    explicit HelmDaemonDbusHandler(GMainLoop* mainLoop = nullptr);

    // Connects and subscribes to the controller's signals. Returns 0, or the
    // first failure after disconnecting again.
    int Listen();

    // Property reads of the main object. Return >= 0 on success; on failure
    // a negative code with the argument unchanged.
    static int GetPropVideoStatus(int32_t& status);
    static int GetRemoteIP(std::string& address);
    static int GetRemoteDbusAddr(std::string& address);

    // Every property of the reel object.
    static int GetReelProperties(TypedPropertyMap& properties);

    // Reel.
    static int GetReelStatus(int32_t& status);
    static int GetReelConnected(bool& connected);
    static int GetReelCountMode(uint32_t& mode);
    static int SetReelCountMode(uint32_t mode);
    static int GetReelCount(double& count);
    static int ZeroReelCount();
    static int GetReelSerialNumber(std::string& serial);
    static int SetReelSerialNumber(const std::string& serial);
    static int GetReelDistanceSoftwareMode(bool& enabled);
    static int SetReelDistanceSoftwareMode(bool enabled);
    static int GetReelDistanceAbsolute(double& distance);
    static int SetReelDistanceAbsolute(double distance);
    static int GetReelDistanceRelative(double& distance);
    static int GetReelFirmwareVersion(std::string& version);

    // Cooling. The fan follows the CPU temperature, averaged over the
    // averaging period (seconds), through the range of the fan control mode:
    // off below the range's first temperature (degrees C), full speed from
    // its second. The modes are named by the controller; each keeps its own
    // range, and the range read or written is the current mode's.
    static int GetCPUtempC(double& celsius);
    static int GetFanSpeed(uint32_t& speed);
    static int GetFanControlModes(std::vector<std::string>& modes);
    static int GetFanControlMode(std::string& mode);
    static int SetFanControlMode(const std::string& mode);
    static int GetFanControlRange(std::vector<double>& celsius);
    static int SetFanControlRange(const std::vector<double>& celsius);
    static int GetAveragingPeriod(uint32_t& seconds);
    static int SetAveragingPeriod(uint32_t seconds);
    static int GetEmitStatusChanges(bool& enabled);
    static int SetEmitStatusChanges(bool enabled);

    // Power.
    static int GetPowerSource(std::string& source);
    static int ReadBatteryVoltages(std::vector<double>& voltages);
    static int ReadBatteryChargePercentages(std::vector<double>& percentages);
    static int GetSystemPowerLevel(int32_t& level);
    static int GetBatteryDrainMode(uint32_t& mode);
    static int SetBatteryDrainMode(uint32_t mode);
    static int GetBatteryTypes(std::vector<std::string>& types);
    static int GetLowBatteryWarnings(std::vector<std::string>& warnings);
    static int GetPermittedActions(std::vector<std::string>& actions);

    // "VideoStatusChanged": the new video status.
    sigc::signal<void, int32_t> _VideoStatusChanged;
    // "KeyPressEvent" (its body as sent).
    sigc::signal<void> _KeyPressed;
    // "PropertiesChanged" of each object: the changed properties.
    PropertiesSignal _PropertiesChanged;
    PropertiesSignal _ReelPropertiesChanged;
    PropertiesSignal _ReelFirmwarePropertiesChanged;
    PropertiesSignal _ReelDistancePropertiesChanged;
    PropertiesSignal _PowerPropertiesChanged;
    PropertiesSignal _CoolingPropertiesChanged;
    // Object manager notifications: the object path.
    sigc::signal<void, const std::string&> _InterfacesAdded;
    sigc::signal<void, const std::string&> _InterfacesRemoved;

private:
    static int VideoStatusChangedHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int KeyPressEventHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int MainPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int ReelPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int ReelFirmwarePropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int ReelDistancePropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int PowerPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int CoolingPropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int InterfacesAddedHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int InterfacesRemovedHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);

    // Parses a PropertiesChanged body and raises `signal` with it.
    static int EmitChangedProperties(sd_bus_message* message, PropertiesSignal& signal);
};

} // namespace Helmd
