// Follows the camera's motion for the encoders and motion detection; paces the streamer's periodic timer.
#pragma once

#include <sigc++/sigc++.h>

#include <cstdint>

namespace VideoDaemon
{

class MotionHandler
{
public:
    static constexpr uint32_t kDefaultUpdateIntervalMs = 1000;

    // The new interval, after it changed.
    sigc::signal<void, uint32_t> signal_update_interval_changed;

    uint32_t GetUpdateInterval() const { return _UpdateIntervalMs; }
    // Re-paces the periodic work; 0 is refused (false).
    bool SetUpdateInterval(uint32_t interval_ms);
    // One periodic step, run first on every tick of the streamer's timer.
    void PeriodicUpdate();
    // The camera head changed: connected with its index, or lost.
    void CameraConnected(int32_t index);
    void CameraLost();

private:
    uint32_t _UpdateIntervalMs = kDefaultUpdateIntervalMs;
};

} // namespace VideoDaemon
