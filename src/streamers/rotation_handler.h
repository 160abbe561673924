// Keeps the picture's rotation and tilt settings, drives the GPU's levelling with them and publishes the
// camera's roll, pitch and rotation angles.
#pragma once

#include <sigc++/sigc++.h>

#include <cstdint>
#include <string>
#include <vector>

namespace VideoDaemon
{

class GpuPipeline;

class RotationHandler
{
public:
    // The levelling element's ranges.
    static constexpr int kMaxOverrideAngle = 359;
    static constexpr int kMaxTiltLimit = 90;
    static constexpr uint32_t kMaxRotationThreshold = 30;
    static constexpr uint32_t kMaxNumFrames = 240;
    static constexpr uint32_t kMaxAnimationDurationMs = 10000;

    // Names of the published angles that changed, and whether the change
    // came from a setting (announced after the call that made it) rather
    // than from the camera.
    sigc::signal<void, std::vector<std::string>, bool> signal_angles_changed;

    // The GPU whose levelling this drives; null until the pipelines exist.
    // Every stored setting is applied to it.
    void Attach(GpuPipeline* gpu);

    // A fixed turn of -359 to 359 degrees, 0 for none; false out of range.
    bool SetOverrideAngle(int angle);
    int GetOverrideAngle() const { return _OverrideAngle; }
    // The string form the service publishes; false when the text is no
    // angle in range.
    bool SetOverrideAngleText(const std::string& text);
    std::string GetOverrideAngleText() const { return std::to_string(_OverrideAngle); }
    void SetEnabled(bool enabled);
    bool GetEnabled() const { return _Enabled; }
    // "0" continuous, "90" or "180" degree steps; false for anything else.
    bool SetSteps(const std::string& steps);
    const std::string& GetSteps() const { return _Steps; }
    bool SetThreshold(uint32_t degrees);
    uint32_t GetThreshold() const { return _Threshold; }
    bool SetNumFrames(uint32_t frames);
    uint32_t GetNumFrames() const { return _NumFrames; }
    bool SetAnimationDuration(uint32_t ms);
    uint32_t GetAnimationDuration() const { return _AnimationDurationMs; }
    bool SetMaxTiltAngle(int degrees);
    int GetMaxTiltAngle() const { return _MaxTiltAngle; }
    void SetRollFilterCoeffs(const std::string& coeffs);
    const std::string& GetRollFilterCoeffs() const { return _RollFilterCoeffs; }

    // The camera head's roll in degrees, as the levelling element measures it.
    void OnCameraRoll(double degrees);
    // A remote unit's motion sample: its accelerometer's three axes (any
    // unit) and its roll, pitch and yaw rates.
    void OnRemoteMotion(double ax, double ay, double az, double gx, double gy, double gz, double timestamp);

    // Published angles, in integer degrees and as display text.
    int GetRollAngle() const { return _Roll; }
    std::string GetRollAngleText() const;
    int GetPitchAngle() const { return _Pitch; }
    std::string GetPitchText() const;
    // The turn applied to the picture: the roll snapped to the steps while
    // levelling is on, the override angle when one is set, else 0.
    int GetRotationAngle() const;

private:
    void Apply();
    void UpdateAngles(int roll, int pitch);
    uint32_t StepsValue() const;

    GpuPipeline* _Gpu = nullptr;
    int _OverrideAngle = 0;
    bool _Enabled = false;
    std::string _Steps = "180";
    uint32_t _Threshold = 7;
    uint32_t _NumFrames = 15;
    uint32_t _AnimationDurationMs = 500;
    int _MaxTiltAngle = 60;
    std::string _RollFilterCoeffs = "1 1";
    int _Roll = 0;
    int _Pitch = 0;
};

} // namespace VideoDaemon
