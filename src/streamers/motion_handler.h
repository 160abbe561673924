// Follows the camera's motion: detects when the camera head moves, keeps the camera's tiling mode and paces
// the streamer's periodic timer.
#pragma once

#include <sigc++/sigc++.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Camerad
{
class CameraObject;
}

namespace VideoDaemon
{

// Motion is the camera head turning: the rate sensors' combined rate in
// degrees per second. It counts once it has stayed at or above
// kMotionThresholdDegPerS for the detection period; each movement is
// reported once, when it starts to count, and again only after the head
// has come to rest.
class MotionHandler
{
public:
    static constexpr uint32_t kDefaultUpdateIntervalMs = 1000;
    static constexpr double kMotionThresholdDegPerS = 20.0;

    // The new interval, after it changed.
    sigc::signal<void, uint32_t> signal_update_interval_changed;
    // Motion seen: its strength (the rate in whole degrees per second) and
    // where it came from ("camera").
    sigc::signal<void, int32_t, std::string> signal_motion_detected;

    uint32_t GetUpdateInterval() const { return _UpdateIntervalMs; }
    // Re-paces the periodic work; 0 is refused (false).
    bool SetUpdateInterval(uint32_t interval_ms);
    // How long motion must last to count, in milliseconds.
    void SetDetectionPeriod(uint32_t period_ms) { _DetectionPeriodMs = period_ms; }
    uint32_t GetDetectionPeriod() const { return _DetectionPeriodMs; }
    // Dynamic tiling on the active camera while enabled, none otherwise.
    void SetDynamicTiling(bool enabled);
    bool GetDynamicTiling() const { return _DynamicTiling; }
    // One periodic step, run first on every tick of the streamer's timer.
    void PeriodicUpdate();
    // A raw motion sample: accelerations, the three rotation rates
    // (degrees per second) and the sample's time in seconds.
    void OnRawMotion(double ax, double ay, double az, double gx, double gy, double gz, double timestamp);
    // The camera head changed: connected, with its camera object (may be
    // empty), or lost.
    void CameraConnected(std::shared_ptr<Camerad::CameraObject> camera);
    void CameraLost();

private:
    void ApplyTiling();

    uint32_t _UpdateIntervalMs = kDefaultUpdateIntervalMs;
    uint32_t _DetectionPeriodMs = 250;
    bool _DynamicTiling = false;
    std::shared_ptr<Camerad::CameraObject> _Camera;
    // When the current movement started (seconds), negative at rest.
    double _MovingSince = -1.0;
    bool _Reported = false;
};

} // namespace VideoDaemon
