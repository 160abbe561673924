// A user bus connection that receives signals on the glib main loop.
#pragma once

#include <glib.h>

#include <string>
#include <vector>

#include "dbus-helper/bus_event_source.h"
#include "dbus-helper/dbus_connector.h"

namespace DbusHelper
{

// One signal subscription; an empty string matches anything.
struct SignalMatch {
    std::string sender;
    std::string path;
    std::string interface;
    std::string member;
    sd_bus_message_handler_t handler;
    void* userdata;
};

// Once connected, the connection is serviced by an event source on the main
// loop's context, so signal handlers run on the main loop thread.
class DbusListener : public DbusConnector
{
public:
    // `mainLoop` selects the context; nullptr means the default main context.
    explicit DbusListener(GMainLoop* mainLoop = nullptr);
    ~DbusListener() override;

    // Subscribes `handler` to the matching signals. Returns 0 or a negative
    // errno (-ENOTCONN before Connect).
    int ListenSignal(const std::string& sender, const std::string& path, const std::string& interface,
        const std::string& member, sd_bus_message_handler_t handler, void* userdata);
    // Subscribes each match in turn; returns 0 or the first failure, after
    // trying them all.
    int ListenSignals(const std::vector<SignalMatch>& matches);

    // Number of subscriptions currently held.
    size_t SubscriptionCount() const { return _Slots.size(); }

protected:
    void OnConnected() override;
    void OnDisconnecting() override;

private:
    GMainContext* _Context;
    BusEventSource _Source;
    std::vector<SdBusSlotPtr> _Slots;
};

} // namespace DbusHelper
