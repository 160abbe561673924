// One bus connection of the remote bus listener, serviced by the main loop.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

#include "dbus-helper/bus_event_source.h"
#include "dbus-helper/sd_bus_ptr.h"

namespace VideoDaemon
{

class BusListenerConnection
{
public:
    BusListenerConnection() = default;
    ~BusListenerConnection();
    BusListenerConnection(const BusListenerConnection&) = delete;
    BusListenerConnection& operator=(const BusListenerConnection&) = delete;

    // The remote-path argument that selects the user bus socket
    // "/tmp/dbus-<identifier>" of a remote unit.
    static std::string RemotePath(const std::string& identifier);

    // With both strings non-empty, opens the user bus of unit `host` selected
    // by `identifier`; otherwise the local user bus. Attaches the connection
    // to the default main context. Returns 0 or -1.
    int Open(const std::string& host, const std::string& identifier);
    // Subscribes `handler`; empty strings match anything. Returns 0 or the
    // negative sd-bus result.
    int Register(const std::string& sender, const std::string& path, const std::string& interface,
        const std::string& member, sd_bus_message_handler_t handler, void* userdata);
    // Drops the subscriptions, the event source and the connection.
    void Close();

    sd_bus* Bus() const { return _Bus.get(); }

private:
    DbusHelper::SdBusPtr _Bus;
    DbusHelper::BusEventSource _Source;
    std::vector<DbusHelper::SdBusSlotPtr> _Slots;
};

} // namespace VideoDaemon
