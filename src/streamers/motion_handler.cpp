// Follows the camera's motion: detects when the camera head moves, keeps the camera's tiling mode and paces
// the streamer's periodic timer.
#include "streamers/motion_handler.h"

#include <cmath>

#include "clients/camera_object.h"
#include "log.h"

namespace VideoDaemon
{

bool MotionHandler::SetUpdateInterval(uint32_t interval_ms)
{
    if (interval_ms == 0)
        return false;
    if (interval_ms == _UpdateIntervalMs)
        return true;
    _UpdateIntervalMs = interval_ms;
    signal_update_interval_changed.emit(interval_ms);
    return true;
}

void MotionHandler::SetDynamicTiling(bool enabled)
{
    _DynamicTiling = enabled;
    ApplyTiling();
}

void MotionHandler::ApplyTiling()
{
    if (!_Camera)
        return;
    const auto mode = _DynamicTiling ? Camerad::TilingCameraMode::Dynamic : Camerad::TilingCameraMode::Off;
    if (_Camera->SetTilingMode(mode) < 0)
        Log::Warning("Motion: failed to set the camera's tiling mode");
}

void MotionHandler::PeriodicUpdate() { }

void MotionHandler::OnRawMotion(double, double, double, double gx, double gy, double gz, double timestamp)
{
    const double rate = std::sqrt(gx * gx + gy * gy + gz * gz);
    if (!std::isfinite(rate) || rate < kMotionThresholdDegPerS) {
        _MovingSince = -1.0;
        _Reported = false;
        return;
    }
    if (_MovingSince < 0.0)
        _MovingSince = timestamp;
    if (_Reported || (timestamp - _MovingSince) * 1000.0 < _DetectionPeriodMs)
        return;
    _Reported = true;
    signal_motion_detected.emit(static_cast<int32_t>(std::lround(rate)), "camera");
}

void MotionHandler::CameraConnected(std::shared_ptr<Camerad::CameraObject> camera)
{
    _Camera = std::move(camera);
    _MovingSince = -1.0;
    _Reported = false;
    ApplyTiling();
}

void MotionHandler::CameraLost()
{
    _Camera.reset();
    _MovingSince = -1.0;
    _Reported = false;
}

} // namespace VideoDaemon
