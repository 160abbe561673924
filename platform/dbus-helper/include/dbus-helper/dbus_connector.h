// Owns one connection to the user bus, or to a bus opened elsewhere.
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
    // Takes over a connection opened elsewhere (a remote unit's bus, say): it
    // is then used, and closed, as if Connect had opened it. Whatever was
    // connected before is released first. Returns 0, or -EINVAL for none.
    int Adopt(SdBusPtr bus);
    // Uses a connection that another owner opened, services and closes (the
    // camera clients are handed one): a reference is kept, nothing else.
    // Whatever was connected before is released first. Returns 0, or -EINVAL.
    int Share(sd_bus* bus);
    // Releases everything bound to the connection and closes it (a shared
    // connection is only let go).
    void Disconnect();

    sd_bus* Bus() const { return _Bus ? _Bus.get() : _SharedBus.get(); }
    bool IsConnected() const { return Bus() != nullptr; }
    // True for a connection of this object's own (Connect or Adopt).
    bool OwnsBus() const { return _Bus != nullptr; }

    // Opens a user bus connection whose calls time out after
    // kMethodCallTimeoutUsec. Returns 0 or a negative errno.
    static int OpenUserBus(SdBusPtr& bus);

protected:
    // Called once the connection is in place, and before it is released.
    virtual void OnConnected() { }
    virtual void OnDisconnecting() { }

private:
    SdBusPtr _Bus;
    SdBusRefPtr _SharedBus;
};

} // namespace DbusHelper
