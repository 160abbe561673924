// Syslog output with an optional in-process hook for tests.
#include "log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace VideoDaemon
{
namespace Log
{
namespace
{

std::mutex hook_mutex;
Hook hook;

void EnsureOpen()
{
    static std::once_flag once;
    std::call_once(once, [] {
        // VIDEOD_LOG_STDERR mirrors the log on standard error for PC runs.
        int options = LOG_PID | LOG_NDELAY;
        if (std::getenv("VIDEOD_LOG_STDERR"))
            options |= LOG_PERROR;
        openlog("videod", options, LOG_DAEMON);
    });
}

void WriteV(int priority, const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    char small[512];
    int length = std::vsnprintf(small, sizeof(small), format, copy);
    va_end(copy);
    if (length < 0)
        return;
    std::string line;
    if (static_cast<size_t>(length) < sizeof(small)) {
        line.assign(small, static_cast<size_t>(length));
    } else {
        std::vector<char> large(static_cast<size_t>(length) + 1);
        std::vsnprintf(large.data(), large.size(), format, args);
        line.assign(large.data(), static_cast<size_t>(length));
    }

    EnsureOpen();
    syslog(priority, "%s", line.c_str());

    std::lock_guard<std::mutex> lock(hook_mutex);
    if (hook)
        hook(priority, line);
}

} // namespace

void Write(int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    WriteV(priority, format, args);
    va_end(args);
}

#define VIDEOD_LOG_AT(function, priority)                                                                    \
    void function(const char* format, ...)                                                                   \
    {                                                                                                        \
        va_list args;                                                                                        \
        va_start(args, format);                                                                              \
        WriteV(priority, format, args);                                                                      \
        va_end(args);                                                                                        \
    }

VIDEOD_LOG_AT(Error, kError)
VIDEOD_LOG_AT(Warning, kWarning)
VIDEOD_LOG_AT(Info, kInfo)
VIDEOD_LOG_AT(Debug, kDebug)

void SetHook(Hook new_hook)
{
    std::lock_guard<std::mutex> lock(hook_mutex);
    hook = std::move(new_hook);
}

} // namespace Log
} // namespace VideoDaemon
