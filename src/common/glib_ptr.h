// Owning handles for GLib references: strings, errors, objects and main-loop sources.
#pragma once

#include <glib-object.h>
#include <glib.h>

#include <memory>

namespace VideoDaemon
{

struct GFreeDeleter {
    void operator()(gpointer memory) const { g_free(memory); }
};
struct GErrorDeleter {
    void operator()(GError* error) const { g_error_free(error); }
};
struct GObjectDeleter {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct GMainLoopDeleter {
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};
// Removes the source from its context (if attached) and drops the reference.
struct GSourceDeleter {
    void operator()(GSource* source) const
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

using GCharPtr = std::unique_ptr<gchar, GFreeDeleter>;
using GErrorPtr = std::unique_ptr<GError, GErrorDeleter>;
template <typename T> using GObjectPtr = std::unique_ptr<T, GObjectDeleter>;
using GMainLoopPtr = std::unique_ptr<GMainLoop, GMainLoopDeleter>;
// An attached source that is removed when the handle goes (timers, idles,
// watches): no bare g_source_remove with an id that may already be stale.
using GSourcePtr = std::unique_ptr<GSource, GSourceDeleter>;

// Attaches `source` to the thread-default main context (the default one when
// none is pushed) with `callback`, and returns the owning handle.
inline GSourcePtr AttachSource(GSource* source, GSourceFunc callback, gpointer data,
    GDestroyNotify notify = nullptr, gint priority = G_PRIORITY_DEFAULT)
{
    g_source_set_priority(source, priority);
    g_source_set_callback(source, callback, data, notify);
    g_source_attach(source, g_main_context_get_thread_default());
    return GSourcePtr(source);
}

// A repeating (or, returning G_SOURCE_REMOVE, one-shot) timer every `interval_ms`.
inline GSourcePtr AttachTimeout(
    guint interval_ms, GSourceFunc callback, gpointer data, GDestroyNotify notify = nullptr)
{
    return AttachSource(g_timeout_source_new(interval_ms), callback, data, notify);
}

} // namespace VideoDaemon
