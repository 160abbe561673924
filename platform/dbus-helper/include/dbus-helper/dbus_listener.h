// A bus connection that receives signals on the glib main loop.
#pragma once

#include <glib.h>

#include <functional>
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

// The one way to subscribe to signals. A connection of its own (Connect, or
// Adopt of one opened elsewhere, such as a remote unit's bus) is serviced by
// an event source on the main loop's context, so signal handlers run on the
// main loop thread; a shared connection (Share) is serviced by its owner.
class DbusListener : public DbusConnector
{
public:
    // A subscription that failed, with the negative errno it failed with.
    using FailureHandler = std::function<void(const SignalMatch& match, int result)>;
    using ClosedHandler = BusEventSource::ClosedHandler;

    // `mainLoop` selects the context; nullptr means the default main context.
    explicit DbusListener(GMainLoop* mainLoop = nullptr);
    ~DbusListener() override;

    // Subscribes `handler` to the matching signals. Returns 0 or a negative
    // errno (-ENOTCONN before Connect).
    int ListenSignal(const std::string& sender, const std::string& path, const std::string& interface,
        const std::string& member, sd_bus_message_handler_t handler, void* userdata);
    // Subscribes each match in turn; a failure is passed to `failed` (when
    // given) and the rest are still tried. Returns 0 or the first failure.
    int ListenSignals(const std::vector<SignalMatch>& matches, const FailureHandler& failed = {});

    // Called on the main loop when a connection of its own closes under the
    // listener (its peer or bus went away); the subscriptions and the
    // connection have been released by then.
    void SetClosedHandler(ClosedHandler handler) { _Closed = std::move(handler); }

    // Number of subscriptions currently held.
    size_t SubscriptionCount() const { return _Slots.size(); }
    // True while a connection of its own is serviced on the main loop.
    bool IsServiced() const { return _Source.IsAttached(); }

protected:
    void OnConnected() override;
    void OnDisconnecting() override;

private:
    void OnClosed();

    GMainContext* _Context;
    BusEventSource _Source;
    std::vector<SdBusSlotPtr> _Slots;
    ClosedHandler _Closed;
};

} // namespace DbusHelper
