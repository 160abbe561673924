// A CLOCK_MONOTONIC timerfd that callers poll on to wake when the sound device has frames ready.
#include "monotonic_timer.h"

#include <cerrno>
#include <ctime>
#include <sys/timerfd.h>
#include <unistd.h>

namespace
{

constexpr uint64_t kNanosecondsPerSecond = 1000000000;

timespec ToTimespec(uint64_t ns)
{
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kNanosecondsPerSecond);
    ts.tv_nsec = static_cast<long>(ns % kNanosecondsPerSecond);
    return ts;
}

} // namespace

MonotonicTimer::MonotonicTimer()
    : _Fd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))
{
}

MonotonicTimer::~MonotonicTimer()
{
    if (_Fd >= 0)
        close(_Fd);
}

void MonotonicTimer::Arm(uint64_t at, uint64_t interval)
{
    itimerspec setting;
    // An all-zero expiry would disarm the timer instead.
    setting.it_value = ToTimespec(at > 0 ? at : 1);
    setting.it_interval = ToTimespec(interval);
    timerfd_settime(_Fd, TFD_TIMER_ABSTIME, &setting, nullptr);
}

void MonotonicTimer::Disarm()
{
    itimerspec setting {};
    timerfd_settime(_Fd, 0, &setting, nullptr);
}

void MonotonicTimer::Clear()
{
    uint64_t expirations;
    while (read(_Fd, &expirations, sizeof expirations) == static_cast<ssize_t>(sizeof expirations)) { }
}

uint64_t MonotonicTimer::Now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * kNanosecondsPerSecond + static_cast<uint64_t>(ts.tv_nsec);
}

void MonotonicTimer::SleepUntil(uint64_t at)
{
    const timespec ts = ToTimespec(at);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) { }
}
