// Receives the camera daemon's raw motion samples from the local bus, with a remote unit's bus kept open.
#pragma once

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>

#include <string>

#include "dbus-helper/dbus_listener.h"

namespace VideoDaemon
{

// The daemon's own listener; the subscriptions themselves are DbusHelper::DbusListener's.
class DbusListener
{
public:
    DbusListener();
    ~DbusListener();
    DbusListener(const DbusListener&) = delete;
    DbusListener& operator=(const DbusListener&) = delete;

    // The remote-path argument that selects the user bus socket
    // "/tmp/dbus-<identifier>" of a remote unit.
    static std::string RemotePath(const std::string& identifier);

    // Opens the local connection and, when both `host` and `identifier` are
    // given, the remote unit's bus; subscribes to "RawMotionData" on the
    // local one. Whatever was open before is closed first. Returns 0 or -1.
    int Start(const std::string& host, const std::string& identifier);
    void Stop();

    // The connections; nullptr when not open, or once closed by their peer.
    sd_bus* LocalBus() const { return _Local.Bus(); }
    sd_bus* RemoteBus() const { return _Remote.Bus(); }

    // One raw motion sample: the seven values in message order.
    sigc::signal<void, double, double, double, double, double, double, double> _RawMotionData;

private:
    // With both strings non-empty, opens the user bus of unit `host` selected
    // by `identifier` on `_Remote`; otherwise the local user bus on `_Local`.
    // Returns 0 or -1.
    int Open(const std::string& host, const std::string& identifier);
    static int RawMotionDataHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);

    DbusHelper::DbusListener _Local;
    DbusHelper::DbusListener _Remote;
    // The remote unit currently open, "host:identifier", for the log.
    std::string _RemoteName;
};

} // namespace VideoDaemon
