// Storage daemon client: property operations, device methods, device lookup and change listening.
#include "storage_daemon_dbus_handler.h"

#include <cerrno>
#include <cstring>

#include "common/function_signature.h"
#include "common/normalised_path.h"
#include "dbus-helper/dbus_connector.h"
#include "log.h"
#include "peer_properties.h"
#include "storage_path.h"

using VideoDaemon::Log::Error;
using VideoDaemon::Log::Info;

namespace Storaged
{

namespace
{

const char* const kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";
const char* const kPropertiesInterface = "org.freedesktop.DBus.Properties";

VideoDaemon::PeerProperties Manager()
{
    return { STORAGE_DAEMON_SERVICE, STORAGE_DAEMON_PATH, STORAGE_DAEMON_INTERFACE };
}

VideoDaemon::PeerProperties Device(const std::string& path)
{
    return { STORAGE_DAEMON_SERVICE, path, STORAGE_DAEMON_DEVICE_INTERFACE };
}

} // namespace

StorageDaemonDbusHandler::StorageDaemonDbusHandler(GMainLoop* mainLoop)
    : DbusHelper::DbusListener(mainLoop)
{
    SetClosedHandler([] { Error("[StorageDaemonDbusHandler] Bus connection closed"); });
}

int32_t StorageDaemonDbusHandler::GetPrimaryDevice(std::string& path)
{
    return Manager().Get(PROP_PRIMARY_DEVICE, path, VIDEOD_FUNCTION, "PROP_PRIMARY_DEVICE");
}

int32_t StorageDaemonDbusHandler::GetAvailableDevices(std::vector<std::string>& paths)
{
    return Manager().Get(PROP_AVAILABLE_DEVICES, paths, VIDEOD_FUNCTION, "PROP_AVAILABLE_DEVICES");
}

int32_t StorageDaemonDbusHandler::GetReadOnly(const std::string& path, bool& readOnly)
{
    return Device(path).Get(PROP_READ_ONLY, readOnly, VIDEOD_FUNCTION, "PROP_READ_ONLY");
}

int32_t StorageDaemonDbusHandler::GetBus(const std::string& path, std::string& bus)
{
    return Device(path).Get(PROP_BUS, bus, VIDEOD_FUNCTION, "PROP_BUS");
}

int32_t StorageDaemonDbusHandler::GetSocket(const std::string& path, int32_t& socket)
{
    return Device(path).Get(PROP_SOCKET, socket, VIDEOD_FUNCTION, "PROP_SOCKET");
}

int32_t StorageDaemonDbusHandler::GetMountPoint(const std::string& path, std::string& mountPoint)
{
    return Device(path).Get(PROP_MOUNTPOINT, mountPoint, VIDEOD_FUNCTION, "PROP_MOUNTPOINT");
}

int32_t StorageDaemonDbusHandler::GetDevicePath(const std::string& path, std::string& devicePath)
{
    return Device(path).Get(PROP_DEVICE_PATH, devicePath, VIDEOD_FUNCTION, "PROP_DEVICE_PATH");
}

int32_t StorageDaemonDbusHandler::GetStorageSpaceBelowWarningThreshold(const std::string& path, bool& below)
{
    return Device(path).Get(
        PROP_STORAGE_IS_BELOW_WARNING_LEVEL, below, VIDEOD_FUNCTION, "PROP_STORAGE_IS_BELOW_WARNING_LEVEL");
}

int32_t StorageDaemonDbusHandler::GetStorageSpaceBelowMinimumThreshold(const std::string& path, bool& below)
{
    return Device(path).Get(
        PROP_STORAGE_IS_BELOW_MINIMUM_LEVEL, below, VIDEOD_FUNCTION, "PROP_STORAGE_IS_BELOW_MINIMUM_LEVEL");
}

int32_t StorageDaemonDbusHandler::GetMounted(const std::string& path, bool& mounted)
{
    return Device(path).Get(PROP_IS_MOUNTED, mounted, VIDEOD_FUNCTION, "PROP_IS_MOUNTED");
}

int32_t StorageDaemonDbusHandler::GetKnownPrimary(const std::string& path, bool& knownPrimary)
{
    return Device(path).Get(PROP_KNOWN_PRIMARY, knownPrimary, VIDEOD_FUNCTION, "PROP_KNOWN_PRIMARY");
}

int32_t StorageDaemonDbusHandler::SetKnownPrimary(const std::string& path, bool knownPrimary)
{
    return Device(path).Set(PROP_KNOWN_PRIMARY, knownPrimary, VIDEOD_FUNCTION, "PROP_KNOWN_PRIMARY");
}

// The free-space and id reads report themselves under the read-only
// property's name; log readers rely on that text.
int32_t StorageDaemonDbusHandler::GetFreeSpace(const std::string& path, uint64_t& freeSpace)
{
    return Device(path).Get(PROP_FREE_SPACE, freeSpace, VIDEOD_FUNCTION, "PROP_READ_ONLY");
}

int32_t StorageDaemonDbusHandler::GetId(const std::string& path, std::string& id)
{
    return Device(path).Get(PROP_ID, id, VIDEOD_FUNCTION, "PROP_READ_ONLY");
}

int32_t StorageDaemonDbusHandler::GetIsSafeToRemove(const std::string& path, bool& safe)
{
    return Device(path).Get(PROP_IS_SAFE_TO_REMOVE, safe, VIDEOD_FUNCTION, "PROP_IS_SAFE_TO_REMOVE");
}

int32_t StorageDaemonDbusHandler::SetWriteActive(const std::string& path, uint8_t type, bool active)
{
    DbusHelper::SdBusPtr bus;
    int32_t r = DbusHelper::DbusConnector::OpenUserBus(bus);
    if (r < 0) {
        Error("%s: sd_bus_open_user failed r = %d", "SetWriteActive", r);
        return r;
    }
    std::string error;
    r = sdbus_utils::CallMethod(bus.get(), STORAGE_DAEMON_SERVICE, path, STORAGE_DAEMON_DEVICE_INTERFACE,
        "SetWriteActive", nullptr, error, "yb", type, static_cast<int>(active));
    if (r < 0) {
        Error("%s: sd_bus_call_method failed r = %d, reason = %s", "SetWriteActive", r, error.c_str());
        return r;
    }
    return 0;
}

int32_t StorageDaemonDbusHandler::StartStorageFormat(const std::string& path)
{
    DbusHelper::SdBusPtr bus;
    int32_t r = DbusHelper::DbusConnector::OpenUserBus(bus);
    if (r < 0) {
        Error("%s: sd_bus_open_user failed r = %d", "StartStorageFormat", r);
        return r;
    }
    std::string error;
    r = sdbus_utils::CallMethod(bus.get(), STORAGE_DAEMON_SERVICE, path, STORAGE_DAEMON_DEVICE_INTERFACE,
        "StartFormat", nullptr, error, "");
    if (r < 0) {
        Error("%s: sd_bus_call_method failed r = %d, reason = %s", "StartStorageFormat", r, error.c_str());
        return r;
    }
    return 0;
}

int32_t StorageDaemonDbusHandler::GetStorageObjectPaths(std::vector<std::string>& paths)
{
    sdbus_utils::ManagedObjects objects;
    std::string error;
    const int32_t r = sdbus_utils::object_manager::GetManagedObjects(
        nullptr, STORAGE_DAEMON_SERVICE, STORAGE_DAEMON_PATH, objects, error);
    if (r < 0) {
        Error("Storage.GetStorageObjectPaths() failed %d", r);
        return r;
    }
    std::vector<std::string> devices;
    for (const auto& object : objects) {
        if (object.second.count(STORAGE_DAEMON_DEVICE_INTERFACE))
            devices.push_back(object.first);
    }
    paths = std::move(devices);
    return 0;
}

int32_t StorageDaemonDbusHandler::GetStorageDeviceForFile(const std::string& file, std::string& path)
{
    std::vector<std::string> devices;
    const int32_t r = GetStorageObjectPaths(devices);
    if (r < 0)
        return r;

    std::string best;
    size_t best_length = 0;
    for (const std::string& device : devices) {
        bool mounted = false;
        std::string mount_point;
        if (GetMounted(device, mounted) < 0 || !mounted)
            continue;
        if (GetMountPoint(device, mount_point) < 0 || !StoragePath::Contains(mount_point, file))
            continue;
        const size_t length = VideoDaemon::NormalisedPath(mount_point).size();
        if (best.empty() || length > best_length) {
            best = device;
            best_length = length;
        }
    }
    if (best.empty())
        return -ENOENT;
    path = best;
    return 0;
}

int32_t StorageDaemonDbusHandler::Listen()
{
    int32_t r = DbusHelper::DbusConnector::Connect();
    if (r < 0) {
        Error("%s: Failed to connect to dbus", VIDEOD_SIGNATURE);
        return r;
    }
    const std::vector<DbusHelper::SignalMatch> matches {
        { STORAGE_DAEMON_SERVICE, STORAGE_DAEMON_PATH, kObjectManagerInterface, "InterfacesAdded",
            &InterfacesAdded, this },
        { STORAGE_DAEMON_SERVICE, STORAGE_DAEMON_PATH, kObjectManagerInterface, "InterfacesRemoved",
            &InterfacesRemoved, this },
        { STORAGE_DAEMON_SERVICE, "", kPropertiesInterface, "PropertiesChanged", &PropertiesChanged, this },
    };
    r = ListenSignals(matches);
    if (r < 0) {
        Error("LibDbusHelper::Storage: Failed to init signal listeners");
        DbusHelper::DbusConnector::Disconnect();
    }
    return r;
}

int StorageDaemonDbusHandler::InterfacesAdded(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<StorageDaemonDbusHandler*>(userdata);
    Info("[StorageDaemonDbusHandler] Interface Added\n");
    const char* object = nullptr;
    int r = sd_bus_message_read(message, "o", &object);
    if (r >= 0)
        r = sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "{sa{sv}}");
    if (r < 0) {
        Error("Failed to read interface");
        return -1;
    }
    const std::string path = object;
    while ((r = sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}")) > 0) {
        const char* interface = nullptr;
        if (sd_bus_message_read(message, "s", &interface) < 0) {
            Error("Failed to read interface");
            return -1;
        }
        if (std::string(interface) == STORAGE_DAEMON_DEVICE_INTERFACE) {
            sdbus_utils::PropertyMap properties;
            r = sdbus_utils::ParseProperties(message, properties);
            if (r < 0) {
                Error("ParseProperties failed:%d", r);
                return -1;
            }
            self->_DeviceAdded.emit(path, properties);
        } else if (sd_bus_message_skip(message, "a{sv}") < 0) {
            Error("Failed to read interface");
            return -1;
        }
        if (sd_bus_message_exit_container(message) < 0)
            return -1;
    }
    return r < 0 ? -1 : 0;
}

int StorageDaemonDbusHandler::InterfacesRemoved(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<StorageDaemonDbusHandler*>(userdata);
    Info("[StorageDaemonDbusHandler] Interface Removed\n");
    std::string path;
    std::vector<std::string> interfaces;
    if (sdbus_utils::ParseInterfaceRemoved(message, path, interfaces) < 0) {
        Error("Failed to read interface");
        return -1;
    }
    for (const std::string& interface : interfaces) {
        if (interface == STORAGE_DAEMON_DEVICE_INTERFACE)
            self->_DeviceRemoved.emit(path);
    }
    return 0;
}

int StorageDaemonDbusHandler::PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<StorageDaemonDbusHandler*>(userdata);
    const char* interface = nullptr;
    if (sd_bus_message_read(message, "s", &interface) < 0) {
        Error("Failed to read interface");
        return -1;
    }
    if (std::string(interface) != STORAGE_DAEMON_DEVICE_INTERFACE)
        return 0;
    sdbus_utils::PropertyMap properties;
    const int r = sdbus_utils::ParseProperties(message, properties);
    if (r < 0) {
        Error("ParseProperties failed:%d", r);
        return -1;
    }
    const char* path = sd_bus_message_get_path(message);
    self->_DevicePropertiesChanged.emit(path ? path : "", properties);
    return 0;
}

} // namespace Storaged
