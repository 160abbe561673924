// Glib source servicing an sd-bus connection: poll its fd, honour its time-outs.
#include "dbus-helper/bus_event_source.h"

#include <poll.h>

#include <cerrno>
#include <cstdint>

namespace DbusHelper
{

struct BusEventSource::Source {
    GSource base;
    sd_bus* bus;
    GPollFD poll;
};

namespace
{

// Upper bound of messages handled in one dispatch, so a flooding peer cannot
// starve the rest of the main loop.
constexpr int kMaxMessagesPerDispatch = 64;

GSourceFuncs source_funcs;

gushort GlibEvents(int sd_events)
{
    gushort events = G_IO_ERR | G_IO_HUP;
    if (sd_events & POLLIN)
        events |= G_IO_IN;
    if (sd_events & POLLOUT)
        events |= G_IO_OUT;
    return events;
}

// Milliseconds until the connection's next deadline; -1 for none, 0 when
// messages are already queued.
gint TimeoutMs(sd_bus* bus)
{
    uint64_t deadline = 0;
    if (sd_bus_get_timeout(bus, &deadline) <= 0 || deadline == UINT64_MAX)
        return -1;
    const gint64 now = g_get_monotonic_time();
    if (deadline <= static_cast<uint64_t>(now))
        return 0;
    const uint64_t ms = (deadline - static_cast<uint64_t>(now) + 999) / 1000;
    return ms > G_MAXINT ? G_MAXINT : static_cast<gint>(ms);
}

} // namespace

BusEventSource::~BusEventSource()
{
    Detach();
}

gboolean BusEventSource::Prepare(GSource* source, gint* timeout)
{
    auto* self = reinterpret_cast<Source*>(source);
    const int events = sd_bus_get_events(self->bus);
    self->poll.events = GlibEvents(events < 0 ? POLLIN : events);
    *timeout = TimeoutMs(self->bus);
    return *timeout == 0;
}

gboolean BusEventSource::Check(GSource* source)
{
    auto* self = reinterpret_cast<Source*>(source);
    return self->poll.revents != 0 || TimeoutMs(self->bus) == 0;
}

gboolean BusEventSource::Dispatch(GSource* source, GSourceFunc, gpointer)
{
    auto* self = reinterpret_cast<Source*>(source);
    for (int i = 0; i < kMaxMessagesPerDispatch; ++i) {
        if (sd_bus_process(self->bus, nullptr) <= 0)
            break;
    }
    return G_SOURCE_CONTINUE;
}

int BusEventSource::Attach(sd_bus* bus, GMainContext* context)
{
    Detach();
    if (!bus)
        return -EINVAL;
    const int fd = sd_bus_get_fd(bus);
    if (fd < 0)
        return fd;

    source_funcs.prepare = &BusEventSource::Prepare;
    source_funcs.check = &BusEventSource::Check;
    source_funcs.dispatch = &BusEventSource::Dispatch;
    source_funcs.finalize = nullptr;

    _Source = g_source_new(&source_funcs, sizeof(Source));
    auto* self = reinterpret_cast<Source*>(_Source);
    self->bus = bus;
    self->poll.fd = fd;
    self->poll.events = G_IO_IN | G_IO_ERR | G_IO_HUP;
    self->poll.revents = 0;
    g_source_add_poll(_Source, &self->poll);
    g_source_set_name(_Source, "sd-bus connection");
    g_source_attach(_Source, context);
    return 0;
}

void BusEventSource::Detach()
{
    if (!_Source)
        return;
    g_source_destroy(_Source);
    g_source_unref(_Source);
    _Source = nullptr;
}

} // namespace DbusHelper
