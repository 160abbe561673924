// Hands work from any thread (a streaming thread, a GLib callback) to the main loop, dropped once its target
// is gone.
#pragma once

#include <glib.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace VideoDaemon
{

// Owned by the object the work belongs to. Post() may be called from any
// thread; the work runs later on the default main context, in the order it
// was posted, and only while this hand-off (and so its owner) still exists.
// The owner must be destroyed on the main loop's thread, which is where the
// work runs, so there is no window between the check and the call.
//
// The work itself travels through one queue under a std::mutex rather than
// as the GLib source's data: GLib's futex-based locking is invisible to
// ThreadSanitizer, this lock is not, so a checked build sees the posting
// thread's writes ordered before the work that reads them.
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
        {
            Pending& pending = Queue();
            std::lock_guard<std::mutex> lock(pending.mutex);
            pending.items.push_back({ std::weak_ptr<bool>(_Alive), std::move(work) });
        }
        // One zero-delay timeout per item: it runs on the next turn of the
        // loop, at the priority of the bus watches and timers, and takes the
        // oldest item.
        GSource* source = g_timeout_source_new(0);
        g_source_set_callback(source, &RunOldest, nullptr, nullptr);
        g_source_attach(source, nullptr);
        g_source_unref(source);
    }

private:
    struct Item {
        std::weak_ptr<bool> alive;
        std::function<void()> work;
    };
    struct Pending {
        std::mutex mutex;
        std::deque<Item> items;
    };

    // Shared by every hand-off of the process.
    static Pending& Queue()
    {
        static Pending pending;
        return pending;
    }

    static gboolean RunOldest(gpointer)
    {
        Item item;
        {
            Pending& pending = Queue();
            std::lock_guard<std::mutex> lock(pending.mutex);
            if (pending.items.empty())
                return G_SOURCE_REMOVE;
            item = std::move(pending.items.front());
            pending.items.pop_front();
        }
        if (!item.alive.expired())
            item.work();
        return G_SOURCE_REMOVE;
    }

    std::shared_ptr<bool> _Alive;
};

} // namespace VideoDaemon
