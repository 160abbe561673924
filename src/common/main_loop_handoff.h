// Hands work from any thread (a streaming thread, a GLib callback) to the main loop, dropped once its target
// is gone.
#pragma once

#include <glib.h>

#include <functional>
#include <memory>
#include <utility>

namespace VideoDaemon
{

// Owned by the object the work belongs to. Post() may be called from any
// thread; the work runs later on the default main context, and only while
// this hand-off (and so its owner) still exists. The owner must be destroyed
// on the main loop's thread, which is where the work runs, so there is no
// window between the check and the call.
class MainLoopHandoff
{
public:
    MainLoopHandoff()
        : _Alive(std::make_shared<bool>(true))
    {
    }
    ~MainLoopHandoff() = default;
    MainLoopHandoff(const MainLoopHandoff&) = delete;
    MainLoopHandoff& operator=(const MainLoopHandoff&) = delete;

    void Post(std::function<void()> work) const
    {
        auto* item = new Item { std::weak_ptr<bool>(_Alive), std::move(work) };
        // A zero-delay timeout: runs on the next turn of the loop, at the
        // priority of the bus watches and timers.
        GSource* source = g_timeout_source_new(0);
        g_source_set_callback(source, &Run, item, &Drop);
        g_source_attach(source, nullptr);
        g_source_unref(source);
    }

private:
    struct Item {
        std::weak_ptr<bool> alive;
        std::function<void()> work;
    };

    static gboolean Run(gpointer data)
    {
        auto* item = static_cast<Item*>(data);
        if (!item->alive.expired())
            item->work();
        return G_SOURCE_REMOVE;
    }
    static void Drop(gpointer data) { delete static_cast<Item*>(data); }

    std::shared_ptr<bool> _Alive;
};

} // namespace VideoDaemon
