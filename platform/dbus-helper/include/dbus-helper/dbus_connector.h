// Owns one connection to the user bus.
#pragma once

#include <cstdint>

#include "dbus-helper/sd_bus_ptr.h"

namespace DbusHelper
{

// Upper bound of every blocking call made through this library: a hung peer
// costs the caller at most this long.
constexpr uint64_t kMethodCallTimeoutUsec = 2 * 1000 * 1000;

class DbusConnector
{
public:
    DbusConnector() = default;
    virtual ~DbusConnector();
    DbusConnector(const DbusConnector&) = delete;
    DbusConnector& operator=(const DbusConnector&) = delete;

    // Opens the user bus (DBUS_SESSION_BUS_ADDRESS when set). Returns 0, also
    // when already connected, or a negative errno.
    int Connect();
    // Releases everything bound to the connection and closes it.
    void Disconnect();

    sd_bus* Bus() const { return _Bus.get(); }
    bool IsConnected() const { return _Bus != nullptr; }

    // Opens a user bus connection whose calls time out after
    // kMethodCallTimeoutUsec. Returns 0 or a negative errno.
    static int OpenUserBus(SdBusPtr& bus);

protected:
    // Called once the connection is open, and before it is closed.
    virtual void OnConnected() { }
    virtual void OnDisconnecting() { }

private:
    SdBusPtr _Bus;
};

} // namespace DbusHelper
