// Signal subscriptions on a connection serviced by the glib main loop.
#include "dbus-helper/dbus_listener.h"

#include <cerrno>

namespace DbusHelper
{

namespace
{
const char* OrNull(const std::string& text)
{
    return text.empty() ? nullptr : text.c_str();
}
} // namespace

DbusListener::DbusListener(GMainLoop* mainLoop)
    : _Context(mainLoop ? g_main_loop_get_context(mainLoop) : nullptr)
{
}

DbusListener::~DbusListener()
{
    Disconnect();
}

void DbusListener::OnConnected()
{
    if (OwnsBus())
        _Source.Attach(Bus(), _Context, [this] { OnClosed(); });
}

void DbusListener::OnDisconnecting()
{
    _Slots.clear();
    _Source.Detach();
}

void DbusListener::OnClosed()
{
    Disconnect();
    // A copy: the handler may destroy this listener.
    const ClosedHandler closed = _Closed;
    if (closed)
        closed();
}

int DbusListener::ListenSignal(const std::string& sender, const std::string& path,
    const std::string& interface, const std::string& member, sd_bus_message_handler_t handler, void* userdata)
{
    if (!Bus())
        return -ENOTCONN;
    sd_bus_slot* slot = nullptr;
    const int r = sd_bus_match_signal(
        Bus(), &slot, OrNull(sender), OrNull(path), OrNull(interface), OrNull(member), handler, userdata);
    if (r < 0)
        return r;
    _Slots.emplace_back(slot);
    return 0;
}

int DbusListener::ListenSignals(const std::vector<SignalMatch>& matches, const FailureHandler& failed)
{
    int result = 0;
    for (const SignalMatch& match : matches) {
        const int r = ListenSignal(
            match.sender, match.path, match.interface, match.member, match.handler, match.userdata);
        if (r >= 0)
            continue;
        if (failed)
            failed(match, r);
        if (result == 0)
            result = r;
    }
    return result;
}

} // namespace DbusHelper
