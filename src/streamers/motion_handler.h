// Follows the camera's motion for the encoders and motion detection; paces the streamer's periodic timer.
#pragma once

#include <sigc++/sigc++.h>

#include <cstdint>
#include <string>

namespace VideoDaemon
{

class MotionHandler
{
public:
    static constexpr uint32_t kDefaultUpdateIntervalMs = 1000;

    // The new interval, after it changed.
    sigc::signal<void, uint32_t> signal_update_interval_changed;
    // Motion seen: its strength (0 to 100) and what moved.
    sigc::signal<void, int32_t, std::string> signal_motion_detected;

    uint32_t GetUpdateInterval() const { return _UpdateIntervalMs; }
    // Re-paces the periodic work; 0 is refused (false).
    bool SetUpdateInterval(uint32_t interval_ms);
    // How long motion must last to count, in milliseconds.
    void SetDetectionPeriod(uint32_t period_ms) { _DetectionPeriodMs = period_ms; }
    uint32_t GetDetectionPeriod() const { return _DetectionPeriodMs; }
    void SetDynamicTiling(bool enabled) { _DynamicTiling = enabled; }
    bool GetDynamicTiling() const { return _DynamicTiling; }
    // One periodic step, run first on every tick of the streamer's timer.
    void PeriodicUpdate();
    // The camera head changed: connected with its index, or lost.
    void CameraConnected(int32_t index);
    void CameraLost();

private:
    uint32_t _UpdateIntervalMs = kDefaultUpdateIntervalMs;
    uint32_t _DetectionPeriodMs = 250;
    bool _DynamicTiling = false;
};

} // namespace VideoDaemon
