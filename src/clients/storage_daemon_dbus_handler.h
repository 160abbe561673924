// Client of the storage daemon: device properties, write activity, formatting, device changes.
#pragma once

#include <glib.h>
#include <sigc++/sigc++.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dbus-helper/dbus_listener.h"
#include "dbus-helper/sdbus_utils.h"

namespace Storaged
{

constexpr const char* STORAGE_DAEMON_SERVICE = "com.tarnwell.common.StorageDaemon1";
constexpr const char* STORAGE_DAEMON_PATH = "/com/tarnwell/common/StorageDaemon1";
constexpr const char* STORAGE_DAEMON_INTERFACE = "com.tarnwell.common.StorageDaemon1";
constexpr const char* STORAGE_DAEMON_DEVICE_INTERFACE = "com.tarnwell.common.StorageDaemon1.Device";

constexpr const char* PROP_PRIMARY_DEVICE = "PrimaryDevice";
constexpr const char* PROP_AVAILABLE_DEVICES = "AvailableDevices";
constexpr const char* PROP_READ_ONLY = "ReadOnly";
constexpr const char* PROP_BUS = "Bus";
constexpr const char* PROP_SOCKET = "Socket";
constexpr const char* PROP_MOUNTPOINT = "MountPoint";
constexpr const char* PROP_DEVICE_PATH = "DevicePath";
constexpr const char* PROP_STORAGE_IS_BELOW_WARNING_LEVEL = "StorageIsBelowWarningLevel";
constexpr const char* PROP_STORAGE_IS_BELOW_MINIMUM_LEVEL = "StorageIsBelowMinimumLevel";
constexpr const char* PROP_IS_MOUNTED = "IsMounted";
constexpr const char* PROP_KNOWN_PRIMARY = "KnownPrimary";
constexpr const char* PROP_FREE_SPACE = "FreeSpace";
constexpr const char* PROP_ID = "Id";
constexpr const char* PROP_IS_SAFE_TO_REMOVE = "IsSafeToRemove";

class StorageDaemonDbusHandler : public DbusHelper::DbusListener
{
public:
    explicit StorageDaemonDbusHandler(GMainLoop* mainLoop = nullptr);

    // Subscribes to device additions, removals and property changes.
    // Returns 0, or the first failure after disconnecting again.
    int32_t Listen();

    // Property operations: >= 0 on success; on failure a negative code with
    // the argument unchanged. `path` is a device object path.
    static int32_t GetPrimaryDevice(std::string& path);
    static int32_t GetAvailableDevices(std::vector<std::string>& paths);
    static int32_t GetReadOnly(const std::string& path, bool& readOnly);
    static int32_t GetBus(const std::string& path, std::string& bus);
    static int32_t GetSocket(const std::string& path, int32_t& socket);
    static int32_t GetMountPoint(const std::string& path, std::string& mountPoint);
    static int32_t GetDevicePath(const std::string& path, std::string& devicePath);
    static int32_t GetStorageSpaceBelowWarningThreshold(const std::string& path, bool& below);
    static int32_t GetStorageSpaceBelowMinimumThreshold(const std::string& path, bool& below);
    static int32_t GetMounted(const std::string& path, bool& mounted);
    static int32_t GetKnownPrimary(const std::string& path, bool& knownPrimary);
    static int32_t SetKnownPrimary(const std::string& path, bool knownPrimary);
    static int32_t GetFreeSpace(const std::string& path, uint64_t& freeSpace);
    static int32_t GetId(const std::string& path, std::string& id);
    static int32_t GetIsSafeToRemove(const std::string& path, bool& safe);

    // Device methods, each on a connection of its own. `type` is the kind
    // of write (1 to 4).
    static int32_t SetWriteActive(const std::string& path, uint8_t type, bool active);
    static int32_t StartStorageFormat(const std::string& path);

    // Object paths of every device the storage daemon manages.
    static int32_t GetStorageObjectPaths(std::vector<std::string>& paths);
    // The device holding `file`: the mounted device whose mount point is the
    // longest prefix of the file's path. Returns 0 with `path` set, -ENOENT
    // when no mounted device holds it, or another negative code.
    static int32_t GetStorageDeviceForFile(const std::string& file, std::string& path);

    // A device appeared (object path, device properties) or went away.
    sigc::signal<void, const std::string&, const sdbus_utils::PropertyMap&> _DeviceAdded;
    sigc::signal<void, const std::string&> _DeviceRemoved;
    // Changed properties of a device.
    sigc::signal<void, const std::string&, const sdbus_utils::PropertyMap&> _DevicePropertiesChanged;

private:
    static int InterfacesAdded(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int InterfacesRemoved(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
};

} // namespace Storaged
