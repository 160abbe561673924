// A glib event source that services one sd-bus connection on a main context.
#pragma once

#include <glib.h>
#include <systemd/sd-bus.h>

namespace DbusHelper
{

// While attached, the connection's incoming messages are processed (signal
// handlers and method replies run) from the main loop of the context, and its
// outgoing queue and time-outs are serviced there too. The connection must
// outlive the source.
class BusEventSource
{
public:
    BusEventSource() = default;
    ~BusEventSource();
    BusEventSource(const BusEventSource&) = delete;
    BusEventSource& operator=(const BusEventSource&) = delete;

    // Attaches to `context` (nullptr: the default main context). Returns 0, or
    // a negative errno when the connection has no descriptor.
    int Attach(sd_bus* bus, GMainContext* context = nullptr);
    // Destroys the source; safe when not attached.
    void Detach();
    bool IsAttached() const { return _Source != nullptr; }

private:
    struct Source;
    static gboolean Prepare(GSource* source, gint* timeout);
    static gboolean Check(GSource* source);
    static gboolean Dispatch(GSource* source, GSourceFunc callback, gpointer data);

    GSource* _Source = nullptr;
};

} // namespace DbusHelper
