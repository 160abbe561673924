// Camera object client: property cache, RequestTiles and TilingMode.
#include "camera_object.h"

#include <cerrno>

#include "common/function_signature.h"
#include "log.h"

using VideoDaemon::Log::Error;

namespace Camerad
{

namespace
{
// Logged for reads and writes alike.
const char* const kTilingModeFailed = "%s: Failed to set %s property, err:%s";
} // namespace

CameraObject::CameraObject(sd_bus* bus, std::string path)
    : _Path(std::move(path))
{
    if (!bus) {
        Error("%s: Bus ptr is NULL", VIDEOD_SIGNATURE);
        return;
    }
    _Listener.Share(bus);
    const int r = _Listener.ListenSignal(CAMERA_DAEMON_SERVICE, _Path, "org.freedesktop.DBus.Properties",
        "PropertiesChanged", &CameraObject::PropertiesChanged, this);
    if (r < 0) {
        Error("%s: Failed to register signal handler:%s", VIDEOD_SIGNATURE, "PropertiesChanged");
        return;
    }
    for (const char* interface : { CAMERA_INTERFACE, CAMERA_FEATURES_INTERFACE }) {
        sdbus_utils::PropertyMap properties;
        GetAllProperties(interface, properties);
    }
}

sdbus_utils::PropertyMap CameraObject::Properties(const std::string& interface) const
{
    auto found = _Properties.find(interface);
    return found == _Properties.end() ? sdbus_utils::PropertyMap {} : found->second;
}

int32_t CameraObject::GetAllProperties(const std::string& interface, sdbus_utils::PropertyMap& properties)
{
    if (!Bus())
        return -ENOTCONN;
    DbusHelper::SdBusMessagePtr reply;
    std::string error;
    int32_t r = sdbus_utils::GetAllProperties(Bus(), CAMERA_DAEMON_SERVICE, _Path, interface, reply, error);
    if (r < 0) {
        Error("Failed to read interface");
        return r;
    }
    sdbus_utils::PropertyMap parsed;
    r = sdbus_utils::ParseProperties(reply.get(), parsed);
    if (r < 0) {
        Error("ParseProperties failed:%d", r);
        return r;
    }
    _Properties[interface] = parsed;
    properties = std::move(parsed);
    return 0;
}

int32_t CameraObject::RequestTiles(uint32_t& tiles)
{
    if (!Bus())
        return -ENOTCONN;
    std::string error;
    DbusHelper::SdBusMessagePtr reply;
    int32_t r = sdbus_utils::CallMethod(Bus(), CAMERA_DAEMON_SERVICE, _Path, CAMERA_INTERFACE,
        CAMERA_METHOD_REQUEST_TILES, &reply, error, "");
    if (r < 0) {
        Error("sd_bus_call_method CAMERA_METHOD_REQUEST_TILES failed (r = %d)", r);
        return r;
    }
    uint32_t answer = 0;
    r = sd_bus_message_read(reply.get(), "u", &answer);
    if (r < 0) {
        Error("sd_bus_message_read failed (r = %d)", r);
        return r;
    }
    tiles = answer;
    return 0;
}

int32_t CameraObject::SetTilingMode(TilingCameraMode mode)
{
    if (!Bus())
        return -ENOTCONN;
    return Tiling().Set(
        CAMERA_PROP_TILING_MODE, static_cast<uint32_t>(mode), VIDEOD_FUNCTION, nullptr, kTilingModeFailed);
}

int32_t CameraObject::GetTilingMode(TilingCameraMode& mode)
{
    if (!Bus())
        return -ENOTCONN;
    uint32_t value = 0;
    const int32_t r
        = Tiling().Get(CAMERA_PROP_TILING_MODE, value, VIDEOD_FUNCTION, nullptr, kTilingModeFailed);
    if (r < 0)
        return r;
    mode = static_cast<TilingCameraMode>(value);
    return 0;
}

VideoDaemon::PeerProperties CameraObject::Tiling() const
{
    return { CAMERA_DAEMON_SERVICE, _Path, CAMERA_TILING_INTERFACE, Bus() };
}

int CameraObject::PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error*)
{
    auto* self = static_cast<CameraObject*>(userdata);
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
    sdbus_utils::PropertyMap& cached = self->_Properties[interface];
    for (auto& entry : changed)
        cached[entry.first] = std::move(entry.second);
    return 0;
}

} // namespace Camerad
