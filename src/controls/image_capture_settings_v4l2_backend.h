// The capture device's picture adjustments (gain, brightness, contrast, hue, saturation) in percent.
#pragma once

#include <sigc++/sigc++.h>

#include <array>
#include <cstdint>
#include <string>

#include "dbus-helper/sdbus_utils.h"

namespace Settingsd
{
class SettingsDaemonDbusHandler;
}

namespace VideoDaemon
{

// Clients work in percent (0..100); each control's percentage maps linearly
// onto its hardware range. The last percentage applied per control is kept
// and the device is written only when it changes. Device failures are logged
// and otherwise ignored: the percentage is remembered all the same, so a
// repeated request is skipped even if the device never took the value.
class ImageCaptureSettingsV4L2Backend : public sigc::trackable
{
public:
    // The settings daemon's section that holds the five values.
    static constexpr const char* kSettingsSection = "capture";

    // Opens the device read-write; a device that cannot be opened is logged
    // and every later access to it fails.
    explicit ImageCaptureSettingsV4L2Backend(const std::string& devicePath = "/dev/video0");
    virtual ~ImageCaptureSettingsV4L2Backend();
    ImageCaptureSettingsV4L2Backend(const ImageCaptureSettingsV4L2Backend&) = delete;
    ImageCaptureSettingsV4L2Backend& operator=(const ImageCaptureSettingsV4L2Backend&) = delete;

    // Writes every control's hardware default and resets the percentages to match.
    bool Initialise();

    bool SetAutogain(bool enabled);
    // True exactly when the autogain percentage is 100.
    bool GetAutogain(bool& enabled);
    // Percentages outside 0..100 are clamped.
    bool SetBrightness(int percent);
    bool GetBrightness(int& percent);
    bool SetContrast(int percent);
    bool GetContrast(int& percent);
    bool SetHue(int percent);
    bool GetHue(int& percent);
    bool SetSaturation(int percent);
    bool GetSaturation(int& percent);
    // The percentage of the control with that V4L2 id; an unknown id gives 0 and false.
    bool GetValue(uint32_t id, int& percent);

    // Reads the five values from the settings daemon's "capture" section and
    // applies them; a value that cannot be read keeps the current percentage.
    // True when all five were read.
    bool LoadFromSettings();
    // Applies the changed keys of the "capture" section; other keys are ignored.
    void SettingsChanged(const TypedPropertyMap& changed);
    // Follows the "capture" section's changes for the life of this backend.
    void FollowSettings(Settingsd::SettingsDaemonDbusHandler& settings);

protected:
    // Every request to the device goes through here.
    virtual int Ioctl(int fd, unsigned long request, void* arg);

private:
    bool setBackendValue(uint32_t id, int percent);
    // VIDIOC_G_CTRL: the control's value, or -1 when the device refuses (`ok` tells a real -1 apart).
    int32_t getControl(uint32_t id, bool* ok = nullptr);
    // VIDIOC_G_CTRL to confirm the control exists, then VIDIOC_S_CTRL.
    bool setControl(int32_t value, uint32_t id);

    std::string _DevicePath;
    int _Fd = -1;
    // The last percentage applied per control slot: one device, so one cache for the process.
    static std::array<int32_t, 5> _Percentages;
};

} // namespace VideoDaemon
