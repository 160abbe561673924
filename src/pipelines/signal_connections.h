// The GObject signal handlers a pipeline has connected (bus and element signals), disconnected together.
#pragma once

#include <glib-object.h>

#include <string>
#include <vector>

#include "common/glib_ptr.h"

namespace VideoDaemon
{

// Each connection holds a reference to the object it is connected on, so it
// can always be disconnected, whatever happened to the pipeline around it.
class SignalConnections
{
public:
    SignalConnections() = default;
    ~SignalConnections() { DisconnectAll(); }
    SignalConnections(const SignalConnections&) = delete;
    SignalConnections& operator=(const SignalConnections&) = delete;

    // Connects `callback` to `signal` of `instance` with `data`, under
    // `group` (the part of the pipeline that owns it). False when the object
    // has no such signal.
    bool Connect(
        const std::string& group, gpointer instance, const char* signal, GCallback callback, gpointer data);
    // Disconnects every handler of `group`; the others stay connected.
    void Disconnect(const std::string& group);
    void DisconnectAll();

private:
    struct Connection {
        std::string group;
        GObjectPtr<GObject> instance;
        gulong id;
    };
    std::vector<Connection> _Connections;
};

} // namespace VideoDaemon
