// Keeps the picture's rotation and tilt settings, drives the GPU's levelling with them and publishes the
// camera's roll, pitch and rotation angles.
#include "streamers/rotation_handler.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "log.h"
#include "pipelines/gpu_pipeline.h"

namespace VideoDaemon
{

namespace
{

// Degrees in (-180, 180].
int Normalised(int degrees)
{
    degrees %= 360;
    if (degrees > 180)
        degrees -= 360;
    if (degrees <= -180)
        degrees += 360;
    return degrees;
}

} // namespace

void RotationHandler::Attach(GpuPipeline* gpu)
{
    _Gpu = gpu;
    Apply();
}

void RotationHandler::Apply()
{
    if (!_Gpu || !_Gpu->GetPipeline())
        return;
    _Gpu->SetRotationEnabled(_Enabled);
    _Gpu->SetRotationOverrideAngle(_OverrideAngle);
    _Gpu->SetRotationSteps(StepsValue());
    _Gpu->SetRotationThreshold(_Threshold);
    _Gpu->SetRotationNumFrames(_NumFrames);
    _Gpu->SetDslAnimationDuration(_AnimationDurationMs);
    _Gpu->SetMaxTiltAngle(_MaxTiltAngle);
    _Gpu->SetRollFilterCoeffs(_RollFilterCoeffs);
}

bool RotationHandler::SetOverrideAngle(int angle)
{
    if (angle < -kMaxOverrideAngle || angle > kMaxOverrideAngle)
        return false;
    const bool changed = angle != _OverrideAngle;
    _OverrideAngle = angle;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetRotationOverrideAngle(angle);
    if (changed)
        signal_angles_changed.emit({ "RotationAngle" }, true);
    return true;
}

bool RotationHandler::SetOverrideAngleText(const std::string& text)
{
    char* end = nullptr;
    errno = 0;
    const long angle = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0')
        return false;
    return SetOverrideAngle(static_cast<int>(std::max(std::min(angle, 100000L), -100000L)));
}

void RotationHandler::SetEnabled(bool enabled)
{
    const bool changed = enabled != _Enabled;
    _Enabled = enabled;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetRotationEnabled(enabled);
    if (changed)
        signal_angles_changed.emit({ "RotationAngle" }, true);
}

uint32_t RotationHandler::StepsValue() const
{
    if (_Steps == "0")
        return 0;
    return _Steps == "90" ? 1 : 2;
}

bool RotationHandler::SetSteps(const std::string& steps)
{
    if (steps != "0" && steps != "90" && steps != "180")
        return false;
    const bool changed = steps != _Steps;
    _Steps = steps;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetRotationSteps(StepsValue());
    if (changed)
        signal_angles_changed.emit({ "RotationAngle" }, true);
    return true;
}

bool RotationHandler::SetThreshold(uint32_t degrees)
{
    if (degrees > kMaxRotationThreshold)
        return false;
    _Threshold = degrees;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetRotationThreshold(degrees);
    return true;
}

bool RotationHandler::SetNumFrames(uint32_t frames)
{
    if (frames > kMaxNumFrames)
        return false;
    _NumFrames = frames;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetRotationNumFrames(frames);
    return true;
}

bool RotationHandler::SetAnimationDuration(uint32_t ms)
{
    if (ms > kMaxAnimationDurationMs)
        return false;
    _AnimationDurationMs = ms;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetDslAnimationDuration(ms);
    return true;
}

bool RotationHandler::SetMaxTiltAngle(int degrees)
{
    if (degrees < 0 || degrees > kMaxTiltLimit)
        return false;
    _MaxTiltAngle = degrees;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetMaxTiltAngle(degrees);
    return true;
}

void RotationHandler::SetRollFilterCoeffs(const std::string& coeffs)
{
    _RollFilterCoeffs = coeffs;
    if (_Gpu && _Gpu->GetPipeline())
        _Gpu->SetRollFilterCoeffs(coeffs);
}

void RotationHandler::OnCameraRoll(double degrees)
{
    UpdateAngles(Normalised(static_cast<int>(std::lround(degrees))), _Pitch);
}

void RotationHandler::OnRemoteMotion(double ax, double ay, double az, double, double, double, double)
{
    // Gravity's direction in the camera's frame: roll about the viewing
    // axis, pitch of that axis against the horizontal.
    if (ax == 0.0 && ay == 0.0 && az == 0.0)
        return;
    const double kDegrees = 180.0 / M_PI;
    const int roll = Normalised(static_cast<int>(std::lround(std::atan2(ax, ay) * kDegrees)));
    const int pitch = static_cast<int>(std::lround(std::atan2(az, std::hypot(ax, ay)) * kDegrees));
    UpdateAngles(roll, pitch);
}

void RotationHandler::UpdateAngles(int roll, int pitch)
{
    std::vector<std::string> changed;
    const int rotation_before = GetRotationAngle();
    if (roll != _Roll)
        changed.insert(changed.end(), { "CameraRollAngle", "CameraRollAngleRaw" });
    if (pitch != _Pitch)
        changed.push_back("CameraPitch");
    _Roll = roll;
    _Pitch = pitch;
    if (GetRotationAngle() != rotation_before)
        changed.push_back("RotationAngle");
    if (!changed.empty())
        signal_angles_changed.emit(changed, false);
}

std::string RotationHandler::GetRollAngleText() const
{
    return std::to_string(_Roll) + "°";
}

std::string RotationHandler::GetPitchText() const
{
    return std::to_string(_Pitch) + "°";
}

int RotationHandler::GetRotationAngle() const
{
    if (_OverrideAngle != 0)
        return _OverrideAngle;
    if (!_Enabled)
        return 0;
    if (_Steps == "0")
        return _Roll;
    const int step = _Steps == "90" ? 90 : 180;
    // The nearest step, levelling the picture against the roll.
    return Normalised(static_cast<int>(std::lround(static_cast<double>(_Roll) / step)) * step);
}

} // namespace VideoDaemon
