// One camera head published by the camera daemon: its properties, tiles and tiling mode.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <string>

#include "dbus-helper/dbus_listener.h"
#include "dbus-helper/sdbus_utils.h"
#include "peer_properties.h"

namespace Camerad
{

constexpr const char* CAMERA_DAEMON_SERVICE = "com.tarnwell.common.Camd1";
constexpr const char* CAMERA_DAEMON_PATH = "/com/tarnwell/common/Camd1";
constexpr const char* CAMERA_DAEMON_INTERFACE = "com.tarnwell.common.Camd1";
constexpr const char* CAMERA_OBJECT_PATH_PREFIX = "/com/tarnwell/common/Camd1/Camera";
constexpr const char* CAMERA_INTERFACE = "com.tarnwell.common.Camd1.Camera";
constexpr const char* CAMERA_FEATURES_INTERFACE = "com.tarnwell.common.Camd1.Features";
constexpr const char* CAMERA_TILING_INTERFACE = "com.tarnwell.common.Camd1.Tiling";
constexpr const char* CAMERA_PROP_ACTIVE_CAMERA_INDEX = "ActiveCameraIndex";
constexpr const char* CAMERA_PROP_TILING_MODE = "TilingMode";
constexpr const char* CAMERA_METHOD_REQUEST_TILES = "RequestTiles";

// How the camera divides its picture into tiles for motion analysis,
// carried by "TilingMode" as a uint32.
enum class TilingCameraMode : uint32_t {
    Off = 0,
    Static = 1,
    Dynamic = 2,
};

class CameraObject
{
public:
    // Subscribes to the camera's property changes and reads its camera and
    // features properties. `bus` is shared: its owner services it on the
    // main loop for the changes to arrive.
    CameraObject(sd_bus* bus, std::string path);
    CameraObject(const CameraObject&) = delete;
    CameraObject& operator=(const CameraObject&) = delete;

    const std::string& Path() const { return _Path; }

    // The last known properties of one interface (camera or features).
    sdbus_utils::PropertyMap Properties(const std::string& interface) const;

    // Reads every property of `interface` from the camera daemon. Returns 0
    // or a negative code.
    int32_t GetAllProperties(const std::string& interface, sdbus_utils::PropertyMap& properties);

    // Asks the camera for tiles; `tiles` receives the daemon's answer.
    int32_t RequestTiles(uint32_t& tiles);

    int32_t SetTilingMode(TilingCameraMode mode);
    int32_t GetTilingMode(TilingCameraMode& mode);

private:
    static int PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    sd_bus* Bus() const { return _Listener.Bus(); }
    VideoDaemon::PeerProperties Tiling() const;

    std::string _Path;
    // Subscribes on the borrowed connection.
    DbusHelper::DbusListener _Listener;
    std::map<std::string, sdbus_utils::PropertyMap> _Properties;
};

} // namespace Camerad
