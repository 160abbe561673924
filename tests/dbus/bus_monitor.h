// Test helper: a monitor of the session bus, which sees the calls between other connections as the bus
// daemon routes them.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "dbus-helper/sd_bus_ptr.h"
#include "dbus/dbus_test_env.h"

namespace VideodTest
{

class BusMonitor
{
public:
    // Becomes a monitor (org.freedesktop.DBus.Monitoring.BecomeMonitor) of the bus named by
    // DBUS_SESSION_BUS_ADDRESS for the messages matching any of `rules`.
    explicit BusMonitor(const std::vector<std::string>& rules)
    {
        const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
        sd_bus* raw = nullptr;
        if (!address || sd_bus_new(&raw) < 0)
            return;
        DbusHelper::SdBusPtr bus(raw);
        if (sd_bus_set_address(raw, address) < 0 || sd_bus_set_monitor(raw, 1) < 0
            || sd_bus_set_bus_client(raw, 1) < 0 || sd_bus_start(raw) < 0)
            return;
        sd_bus_message* call = nullptr;
        if (sd_bus_message_new_method_call(raw, &call, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus.Monitoring", "BecomeMonitor")
            < 0)
            return;
        DbusHelper::SdBusMessagePtr message(call);
        if (sd_bus_message_open_container(call, 'a', "s") < 0)
            return;
        for (const std::string& rule : rules) {
            if (sd_bus_message_append(call, "s", rule.c_str()) < 0)
                return;
        }
        if (sd_bus_message_close_container(call) < 0 || sd_bus_message_append(call, "u", 0u) < 0)
            return;
        DbusHelper::SdBusError error;
        if (sd_bus_call(raw, call, 0, error.Get(), nullptr) < 0)
            return;
        _Bus = std::move(bus);
    }

    bool IsMonitoring() const { return _Bus != nullptr; }

    // The next monitored message, waiting at most timeoutMs; empty on time-out. The bus's own
    // notices to the monitor (the loss of its name) are passed over.
    DbusHelper::SdBusMessagePtr Next(int timeoutMs = 10000)
    {
        DbusHelper::SdBusMessagePtr found;
        ProcessUntil(_Bus.get(), timeoutMs, [&](DbusHelper::SdBusMessagePtr message) {
            if (!message || sd_bus_message_is_signal(message.get(), "org.freedesktop.DBus", nullptr))
                return false;
            found = std::move(message);
            return true;
        });
        return found;
    }

    // The next monitored method call whose member is `member`, skipping the others.
    DbusHelper::SdBusMessagePtr NextCall(const std::string& member, int timeoutMs = 10000)
    {
        for (;;) {
            DbusHelper::SdBusMessagePtr message = Next(timeoutMs);
            if (!message || sd_bus_message_is_method_call(message.get(), nullptr, member.c_str()) > 0)
                return message;
        }
    }

private:
    DbusHelper::SdBusPtr _Bus;
};

} // namespace VideodTest
