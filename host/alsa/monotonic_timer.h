// A CLOCK_MONOTONIC timerfd that callers poll on to wake when the sound device has frames ready.
#pragma once

#include <cstdint>

class MonotonicTimer
{
public:
    MonotonicTimer();
    ~MonotonicTimer();
    MonotonicTimer(const MonotonicTimer&) = delete;
    MonotonicTimer& operator=(const MonotonicTimer&) = delete;

    bool IsValid() const { return _Fd >= 0; }
    int Fd() const { return _Fd; }

    // First expiry at the absolute monotonic time `at` (a time already past
    // expires at once), then every `interval` nanoseconds (0: once only).
    void Arm(uint64_t at, uint64_t interval);
    void Disarm();
    // Consumes pending expirations, so the descriptor stops polling readable.
    void Clear();

    // CLOCK_MONOTONIC now, in nanoseconds.
    static uint64_t Now();
    // Sleeps until the absolute monotonic time `at`.
    static void SleepUntil(uint64_t at);

private:
    int _Fd;
};
