// Client of the camera daemon: the active camera index and the camera objects.
#pragma once

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "camera_object.h"
#include "dbus-helper/dbus_listener.h"
#include "peer_properties.h"

namespace Camerad
{

class CameraDaemonObject
{
public:
    // Subscribes to the daemon's object-manager and property signals and
    // creates a CameraObject for every camera it manages. `bus` is borrowed
    // and must be serviced by the main loop for the signals to arrive.
    explicit CameraDaemonObject(sd_bus* bus);
    CameraDaemonObject(const CameraDaemonObject&) = delete;
    CameraDaemonObject& operator=(const CameraDaemonObject&) = delete;

    // Reads "ActiveCameraIndex". Returns >= 0, or a negative code with
    // `index` unchanged and one error line.
    int32_t GetActiveCameraIndex(int32_t& index);
    // The active camera, or empty when there is none or it is unknown.
    std::shared_ptr<CameraObject> GetActiveCamera();
    // The camera with `index`, or empty.
    std::shared_ptr<CameraObject> GetCamera(int32_t index) const;
    // Object paths of the known cameras.
    std::vector<std::string> CameraPaths() const;

    // Object path of the camera with `index`.
    static std::string CameraPath(int32_t index);

    // "ActiveCameraIndex" changed: the new index.
    sigc::signal<void, int32_t> _ActiveCameraIndexChanged;
    // A camera object appeared or went away: its path.
    sigc::signal<void, const std::string&> _CameraAdded;
    sigc::signal<void, const std::string&> _CameraRemoved;

private:
    static int InterfacesAdded(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int InterfacesRemoved(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int PropertiesChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    void AddCamera(const std::string& path);
    // The daemon object's own interface, on the borrowed connection.
    VideoDaemon::PeerProperties Daemon() const;

    sd_bus* _Bus;
    // Subscribes on the borrowed connection.
    DbusHelper::DbusListener _Listener;
    std::map<std::string, std::shared_ptr<CameraObject>> _Cameras;
};

} // namespace Camerad
