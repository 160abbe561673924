// A glib event source that services one sd-bus connection on a main context.
#pragma once

#include <glib.h>
#include <systemd/sd-bus.h>

#include <functional>

#include "common/glib_ptr.h"

namespace DbusHelper
{

// While attached, the connection's incoming messages are processed (signal
// handlers and method replies run) from the main loop of the context, and its
// outgoing queue and time-outs are serviced there too. The connection must
// outlive the source.
//
// When the connection closes (the peer or the bus daemon went away), the
// source removes itself, so a dead descriptor never keeps the main loop busy,
// and reports the closing once.
class BusEventSource
{
public:
    // Called on the main loop once the connection has closed and the source
    // is no longer attached. It may release the connection and the source.
    using ClosedHandler = std::function<void()>;

    BusEventSource() = default;
    ~BusEventSource() = default;
    BusEventSource(const BusEventSource&) = delete;
    BusEventSource& operator=(const BusEventSource&) = delete;

    // Attaches to `context` (nullptr: the default main context). Returns 0, or
    // a negative errno when the connection has no descriptor.
    int Attach(sd_bus* bus, GMainContext* context = nullptr, ClosedHandler closed = {});
    // Destroys the source; safe when not attached.
    void Detach();
    // False once detached or removed because the connection closed.
    bool IsAttached() const;

private:
    struct Source;
    static gboolean Prepare(GSource* source, gint* timeout);
    static gboolean Check(GSource* source);
    static gboolean Dispatch(GSource* source, GSourceFunc callback, gpointer data);
    static void Finalize(GSource* source);

    VideoDaemon::GSourcePtr _Source;
};

} // namespace DbusHelper
