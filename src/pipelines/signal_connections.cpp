// The GObject signal handlers a pipeline has connected (bus and element signals), disconnected together.
#include "pipelines/signal_connections.h"

#include <algorithm>

namespace VideoDaemon
{

bool SignalConnections::Connect(
    const std::string& group, gpointer instance, const char* signal, GCallback callback, gpointer data)
{
    const gulong id = g_signal_connect(instance, signal, callback, data);
    if (id == 0)
        return false;
    _Connections.push_back({ group, GObjectPtr<GObject>(G_OBJECT(g_object_ref(instance))), id });
    return true;
}

void SignalConnections::Disconnect(const std::string& group)
{
    auto first = std::stable_partition(_Connections.begin(), _Connections.end(),
        [&](const Connection& connection) { return connection.group != group; });
    for (auto connection = first; connection != _Connections.end(); ++connection)
        g_signal_handler_disconnect(connection->instance.get(), connection->id);
    _Connections.erase(first, _Connections.end());
}

void SignalConnections::DisconnectAll()
{
    for (const Connection& connection : _Connections)
        g_signal_handler_disconnect(connection.instance.get(), connection.id);
    _Connections.clear();
}

} // namespace VideoDaemon
