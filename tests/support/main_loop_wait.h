// A bounded wait that turns the default GLib main context, where the daemon's
// bus connections and pipeline callbacks are serviced.
#pragma once

#include <glib.h>

#include <chrono>
#include <functional>
#include <thread>

namespace TestSupport
{

// Iterates the default main context until `done` holds; false when `timeout_ms` passes first.
inline bool RunMainLoopUntil(const std::function<bool()>& done, int timeout_ms = 5000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Turns the default main context for `ms` milliseconds.
inline void RunMainLoopFor(int ms)
{
    RunMainLoopUntil([] { return false; }, ms);
}

} // namespace TestSupport
