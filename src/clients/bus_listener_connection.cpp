// Local or remote user bus connection with its glib event source.
#include "bus_listener_connection.h"

#include "dbus-helper/dbus_connector.h"
#include "dbus-helper/sd_bus_open_user_remote.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{
const char* OrNull(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}
} // namespace

BusListenerConnection::~BusListenerConnection()
{
    Close();
}

std::string BusListenerConnection::RemotePath(const std::string& identifier)
{
    // Decoded: " --bus-path=unix:abstract=/tmp/dbus-<identifier>", appended
    // to the remote bridge's command line.
    return "%20--bus-path%3Dunix%3Aabstract%3D/tmp/dbus-" + identifier;
}

int BusListenerConnection::Open(const std::string& host, const std::string& identifier)
{
    Close();
    int r = 0;
    if (!host.empty() && !identifier.empty()) {
        sd_bus* raw = nullptr;
        r = sd_bus_open_user_remote(&raw, host.c_str(), RemotePath(identifier).c_str());
        _Bus.reset(raw);
    } else {
        r = DbusHelper::DbusConnector::OpenUserBus(_Bus);
    }
    if (r >= 0)
        r = _Source.Attach(_Bus.get());
    if (r < 0) {
        Close();
        return -1;
    }
    return 0;
}

int BusListenerConnection::Register(const std::string& sender, const std::string& path,
    const std::string& interface, const std::string& member, sd_bus_message_handler_t handler, void* userdata)
{
    sd_bus_slot* slot = nullptr;
    const int r = _Bus ? sd_bus_match_signal(_Bus.get(), &slot, OrNull(sender), OrNull(path),
                      OrNull(interface), OrNull(member), handler, userdata)
                       : -ENOTCONN;
    if (r < 0) {
        Log::Error("DbusListener, failed register %s:%s:%s:%s", sender.c_str(), path.c_str(),
            interface.c_str(), member.c_str());
        return r;
    }
    _Slots.emplace_back(slot);
    return 0;
}

void BusListenerConnection::Close()
{
    _Slots.clear();
    _Source.Detach();
    _Bus.reset();
}

} // namespace VideoDaemon
