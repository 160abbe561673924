// Glib source servicing an sd-bus connection: poll its fd, honour its time-outs, leave when it closes.
#include "dbus-helper/bus_event_source.h"

#include <poll.h>

#include <cerrno>
#include <cstdint>
#include <new>
#include <utility>

namespace DbusHelper
{

struct BusEventSource::Source {
    // What the source keeps besides glib's part; built in place after
    // g_source_new and destroyed in Finalize.
    struct State {
        sd_bus* bus;
        ClosedHandler closed;
    };

    GSource base;
    GPollFD poll;
    State state;
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
// messages are already queued (or the connection is closing).
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

gboolean BusEventSource::Prepare(GSource* source, gint* timeout)
{
    auto* self = reinterpret_cast<Source*>(source);
    const int events = sd_bus_get_events(self->state.bus);
    self->poll.events = GlibEvents(events < 0 ? POLLIN : events);
    *timeout = TimeoutMs(self->state.bus);
    return *timeout == 0;
}

gboolean BusEventSource::Check(GSource* source)
{
    auto* self = reinterpret_cast<Source*>(source);
    return self->poll.revents != 0 || TimeoutMs(self->state.bus) == 0;
}

gboolean BusEventSource::Dispatch(GSource* source, GSourceFunc, gpointer)
{
    auto* self = reinterpret_cast<Source*>(source);
    sd_bus* bus = self->state.bus;
    for (int i = 0; i < kMaxMessagesPerDispatch; ++i) {
        if (sd_bus_process(bus, nullptr) <= 0)
            break;
    }
    if (sd_bus_is_open(bus) > 0)
        return G_SOURCE_CONTINUE;

    // Nothing arrives on this descriptor again, and polling it would report
    // the hang-up on every turn of the loop: leave before telling the owner,
    // who may release the connection and this source.
    ClosedHandler closed = std::move(self->state.closed);
    g_source_destroy(source);
    if (closed)
        closed();
    return G_SOURCE_REMOVE;
}

void BusEventSource::Finalize(GSource* source)
{
    reinterpret_cast<Source*>(source)->state.~State();
}

int BusEventSource::Attach(sd_bus* bus, GMainContext* context, ClosedHandler closed)
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
    source_funcs.finalize = &BusEventSource::Finalize;

    _Source.reset(g_source_new(&source_funcs, sizeof(Source)));
    auto* self = reinterpret_cast<Source*>(_Source.get());
    new (&self->state) Source::State { bus, std::move(closed) };
    self->poll.fd = fd;
    self->poll.events = G_IO_IN | G_IO_ERR | G_IO_HUP;
    self->poll.revents = 0;
    g_source_add_poll(_Source.get(), &self->poll);
    g_source_set_name(_Source.get(), "sd-bus connection");
    g_source_attach(_Source.get(), context);
    return 0;
}

void BusEventSource::Detach()
{
    _Source.reset();
}

bool BusEventSource::IsAttached() const
{
    return _Source && !g_source_is_destroyed(_Source.get());
}

} // namespace DbusHelper
