// User bus connection with a bounded method-call time-out.
#include "dbus-helper/dbus_connector.h"

#include <cerrno>
#include <utility>

namespace DbusHelper
{

DbusConnector::~DbusConnector()
{
    // Subclasses have released their bindings in their own destructors;
    // only the connection is left.
    _Bus.reset();
    _SharedBus.reset();
}

int DbusConnector::OpenUserBus(SdBusPtr& bus)
{
    sd_bus* raw = nullptr;
    int r = sd_bus_open_user(&raw);
    if (r < 0)
        return r;
    bus.reset(raw);
    r = sd_bus_set_method_call_timeout(raw, kMethodCallTimeoutUsec);
    if (r < 0) {
        bus.reset();
        return r;
    }
    return 0;
}

int DbusConnector::Connect()
{
    if (IsConnected())
        return 0;
    const int r = OpenUserBus(_Bus);
    if (r < 0)
        return r;
    OnConnected();
    return 0;
}

int DbusConnector::Adopt(SdBusPtr bus)
{
    if (!bus)
        return -EINVAL;
    Disconnect();
    _Bus = std::move(bus);
    OnConnected();
    return 0;
}

int DbusConnector::Share(sd_bus* bus)
{
    if (!bus)
        return -EINVAL;
    Disconnect();
    _SharedBus.reset(sd_bus_ref(bus));
    OnConnected();
    return 0;
}

void DbusConnector::Disconnect()
{
    if (!IsConnected())
        return;
    OnDisconnecting();
    _Bus.reset();
    _SharedBus.reset();
}

} // namespace DbusHelper
