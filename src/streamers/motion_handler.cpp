// Follows the camera's motion for the encoders and motion detection; paces the streamer's periodic timer.
#include "streamers/motion_handler.h"

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

void MotionHandler::PeriodicUpdate() { }

void MotionHandler::CameraConnected([[maybe_unused]] int32_t index) { }

void MotionHandler::CameraLost() { }

} // namespace VideoDaemon
