// Camera daemon client: tracks the camera objects and the active camera index.
#include "camera_daemon_object.h"

#include <cerrno>

#include "common/function_signature.h"
#include "dbus-helper/sdbus_utils.h"
#include "log.h"

using VideoDaemon::Log::Error;

namespace Camerad
{

namespace
{
const char* const kObjectManagerInterface = "org.freedesktop.DBus.ObjectManager";
const char* const kPropertiesInterface = "org.freedesktop.DBus.Properties";
} // namespace

CameraDaemonObject::CameraDaemonObject(sd_bus* bus)
    : _Bus(bus)
{
    if (!_Bus) {
        Error("%s: d-bus is NULL", VIDEOD_SIGNATURE);
        return;
    }
    _Listener.Share(_Bus);
    _Listener.ListenSignals(
        {
            { CAMERA_DAEMON_SERVICE, CAMERA_DAEMON_PATH, kObjectManagerInterface, "InterfacesAdded",
                &InterfacesAdded, this },
            { CAMERA_DAEMON_SERVICE, CAMERA_DAEMON_PATH, kObjectManagerInterface, "InterfacesRemoved",
                &InterfacesRemoved, this },
            { CAMERA_DAEMON_SERVICE, CAMERA_DAEMON_PATH, kPropertiesInterface, "PropertiesChanged",
                &PropertiesChanged, this },
        },
        [function = VIDEOD_FUNCTION](const DbusHelper::SignalMatch& match, int) {
            Error("%s: Failed to register signal handler:%s", function.Text().c_str(), match.member.c_str());
        });

    sdbus_utils::ManagedObjects objects;
    std::string error;
    const int r = sdbus_utils::object_manager::GetManagedObjects(
        _Bus, CAMERA_DAEMON_SERVICE, CAMERA_DAEMON_PATH, objects, error);
    if (r < 0) {
        Error("%s: Failed to fetch managed objects: %d", VIDEOD_SIGNATURE, r);
        return;
    }
    for (const auto& object : objects) {
        if (object.second.count(CAMERA_INTERFACE))
            AddCamera(object.first);
    }
}

VideoDaemon::PeerProperties CameraDaemonObject::Daemon() const
{
    return { CAMERA_DAEMON_SERVICE, CAMERA_DAEMON_PATH, CAMERA_DAEMON_INTERFACE, _Bus };
}

std::string CameraDaemonObject::CameraPath(int32_t index)
{
    return std::string(CAMERA_OBJECT_PATH_PREFIX) + std::to_string(index);
}

void CameraDaemonObject::AddCamera(const std::string& path)
{
    if (_Cameras.count(path))
        return;
    _Cameras[path] = std::make_shared<CameraObject>(_Bus, path);
    _CameraAdded.emit(path);
}

std::vector<std::string> CameraDaemonObject::CameraPaths() const
{
    std::vector<std::string> paths;
    for (const auto& camera : _Cameras)
        paths.push_back(camera.first);
    return paths;
}

int32_t CameraDaemonObject::GetActiveCameraIndex(int32_t& index)
{
    if (!_Bus) {
        Error("%s: d-bus is NULL", VIDEOD_SIGNATURE);
        return -ENOTCONN;
    }
    return Daemon().Get(
        CAMERA_PROP_ACTIVE_CAMERA_INDEX, index, VIDEOD_FUNCTION, "CAMERA_PROP_ACTIVE_CAMERA_INDEX");
}

std::shared_ptr<CameraObject> CameraDaemonObject::GetActiveCamera()
{
    // A failed read logs the lookup's own line in place of the read's: one
    // line per failed lookup (the format takes only the signature).
    static const char* const kLookupFailed = "%s: d-bus error, failed to get camera idx";
    int32_t index = -1;
    if (!_Bus) {
        Error(kLookupFailed, VIDEOD_SIGNATURE);
        return nullptr;
    }
    if (Daemon().Get(CAMERA_PROP_ACTIVE_CAMERA_INDEX, index, VIDEOD_FUNCTION, nullptr, kLookupFailed) < 0)
        return nullptr;
    if (index < 0 || _Cameras.empty())
        return nullptr;
    return GetCamera(index);
}

std::shared_ptr<CameraObject> CameraDaemonObject::GetCamera(int32_t index) const
{
    auto found = _Cameras.find(CameraPath(index));
    return found == _Cameras.end() ? nullptr : found->second;
}

int CameraDaemonObject::InterfacesAdded(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<CameraDaemonObject*>(userdata);
    std::string path;
    sdbus_utils::InterfaceMap interfaces;
    if (sdbus_utils::ParseInterfaceAdded(message, path, interfaces) < 0) {
        Error("Failed to read interface");
        return -1;
    }
    if (interfaces.count(CAMERA_INTERFACE))
        self->AddCamera(path);
    return 0;
}

int CameraDaemonObject::InterfacesRemoved(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<CameraDaemonObject*>(userdata);
    std::string path;
    std::vector<std::string> interfaces;
    if (sdbus_utils::ParseInterfaceRemoved(message, path, interfaces) < 0) {
        Error("Failed to read interface");
        return -1;
    }
    for (const std::string& interface : interfaces) {
        if (interface == CAMERA_INTERFACE && self->_Cameras.erase(path))
            self->_CameraRemoved.emit(path);
    }
    return 0;
}

int CameraDaemonObject::PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<CameraDaemonObject*>(userdata);
    const char* interface = nullptr;
    if (sd_bus_message_read(message, "s", &interface) < 0) {
        Error("Failed to read interface");
        return -1;
    }
    sdbus_utils::PropertyMap changed;
    const int r = sdbus_utils::ParseProperties(message, changed);
    if (r < 0) {
        Error("ParseProperties failed:%d", r);
        return -1;
    }
    auto index = changed.find(CAMERA_PROP_ACTIVE_CAMERA_INDEX);
    if (index != changed.end() && index->second.type() == typeid(int32_t))
        self->_ActiveCameraIndexChanged.emit(std::any_cast<int32_t>(index->second));
    return 0;
}

} // namespace Camerad
