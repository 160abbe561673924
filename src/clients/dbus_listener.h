// Receives the camera daemon's raw motion samples from the local bus, with a remote unit's bus kept open.
#pragma once

#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>

#include <string>

#include "bus_listener_connection.h"

namespace VideoDaemon
{

class DbusListener
{
public:
    DbusListener() = default;
    ~DbusListener();
    DbusListener(const DbusListener&) = delete;
    DbusListener& operator=(const DbusListener&) = delete;

    // Opens the local connection and, when both `host` and `identifier` are
    // given, the remote unit's bus; subscribes to "RawMotionData" on the
    // local one. Whatever was open before is closed first. Returns 0 or -1.
    int Start(const std::string& host, const std::string& identifier);
    void Stop();

    sd_bus* LocalBus() const { return _Local.Bus(); }
    sd_bus* RemoteBus() const { return _Remote.Bus(); }

    // One raw motion sample: the seven values in message order.
    sigc::signal<void, double, double, double, double, double, double, double> _RawMotionData;

private:
    static int RawMotionDataHandler(sd_bus_message* message, void* userdata, sd_bus_error* error);

    BusListenerConnection _Local;
    BusListenerConnection _Remote;
};

} // namespace VideoDaemon
