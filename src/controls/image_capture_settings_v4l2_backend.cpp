// Capture image controls: percentages mapped onto the V4L2 controls of the capture device.
#include "image_capture_settings_v4l2_backend.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <any>

#include "clients/settings_change.h"
#include "clients/settings_daemon_dbus_handler.h"
#include "log.h"

using VideoDaemon::Log::Error;
using VideoDaemon::Log::Info;

namespace VideoDaemon
{

namespace
{

struct Control {
    const char* key; // the setting's name in the "capture" section
    uint32_t id;
    int32_t hwDefault;
    int32_t min;
    int32_t max;
};

// The index of an entry is its slot in the percentage cache.
constexpr std::array<Control, 5> kControls { {
    { "autogain", V4L2_CID_AUTOGAIN, 1, 0, 1 },
    { "brightness", V4L2_CID_BRIGHTNESS, 127, 0, 255 },
    { "contrast", V4L2_CID_CONTRAST, 127, 0, 255 },
    { "hue", V4L2_CID_HUE, 0, -127, 127 },
    { "saturation", V4L2_CID_SATURATION, 127, 0, 255 },
} };

enum Slot : size_t { kAutogain, kBrightness, kContrast, kHue, kSaturation };

// The slot of the control with that id, or kControls.size().
size_t SlotOf(uint32_t id)
{
    return static_cast<size_t>(std::find_if(kControls.begin(), kControls.end(), [id](const Control& control) {
        return control.id == id;
    }) - kControls.begin());
}

int32_t Clamp(int32_t value, int32_t min, int32_t max)
{
    return std::min(std::max(value, min), max);
}

} // namespace

std::array<int32_t, 5> ImageCaptureSettingsV4L2Backend::_Percentages {};

ImageCaptureSettingsV4L2Backend::ImageCaptureSettingsV4L2Backend(const std::string& devicePath)
    : _DevicePath(devicePath)
    , _Fd(open(devicePath.c_str(), O_RDWR | O_CLOEXEC))
{
    if (_Fd < 0)
        Info("Failed to open dev: %s", _DevicePath.c_str());
}

ImageCaptureSettingsV4L2Backend::~ImageCaptureSettingsV4L2Backend()
{
    if (_Fd >= 0)
        close(_Fd);
}

bool ImageCaptureSettingsV4L2Backend::Initialise()
{
    // Device failures are logged by setControl; the percentages follow the
    // defaults regardless, as for every other write.
    for (size_t slot = 0; slot < kControls.size(); ++slot) {
        const Control& control = kControls[slot];
        setControl(Clamp(control.hwDefault, control.min, control.max), control.id);
        _Percentages[slot] = (control.hwDefault - control.min) * 100 / (control.max - control.min);
    }
    return true;
}

bool ImageCaptureSettingsV4L2Backend::SetAutogain(bool enabled)
{
    return setBackendValue(V4L2_CID_AUTOGAIN, enabled ? 100 : 0);
}

bool ImageCaptureSettingsV4L2Backend::GetAutogain(bool& enabled)
{
    enabled = _Percentages[kAutogain] == 100;
    return true;
}

bool ImageCaptureSettingsV4L2Backend::SetBrightness(int percent)
{
    return setBackendValue(V4L2_CID_BRIGHTNESS, percent);
}

bool ImageCaptureSettingsV4L2Backend::GetBrightness(int& percent)
{
    percent = _Percentages[kBrightness];
    return true;
}

bool ImageCaptureSettingsV4L2Backend::SetContrast(int percent)
{
    return setBackendValue(V4L2_CID_CONTRAST, percent);
}

bool ImageCaptureSettingsV4L2Backend::GetContrast(int& percent)
{
    percent = _Percentages[kContrast];
    return true;
}

bool ImageCaptureSettingsV4L2Backend::SetHue(int percent)
{
    return setBackendValue(V4L2_CID_HUE, percent);
}

bool ImageCaptureSettingsV4L2Backend::GetHue(int& percent)
{
    percent = _Percentages[kHue];
    return true;
}

bool ImageCaptureSettingsV4L2Backend::SetSaturation(int percent)
{
    return setBackendValue(V4L2_CID_SATURATION, percent);
}

bool ImageCaptureSettingsV4L2Backend::GetSaturation(int& percent)
{
    percent = _Percentages[kSaturation];
    return true;
}

bool ImageCaptureSettingsV4L2Backend::GetValue(uint32_t id, int& percent)
{
    const size_t slot = SlotOf(id);
    if (slot == kControls.size()) {
        percent = 0;
        return false;
    }
    percent = _Percentages[slot];
    return true;
}

bool ImageCaptureSettingsV4L2Backend::LoadFromSettings()
{
    using Settings = Settingsd::SettingsDaemonDbusHandler;
    bool allRead = true;

    // A failed read is logged by the client and keeps the current value.
    bool autogain = false;
    GetAutogain(autogain);
    allRead &= Settings::GetSetting(kSettingsSection, kControls[kAutogain].key, autogain) >= 0;
    Info("Capture autogain: %d", autogain);
    SetAutogain(autogain);

    struct Percentage {
        Slot slot;
        const char* line;
        bool (ImageCaptureSettingsV4L2Backend::*set)(int);
    };
    static constexpr Percentage kPercentages[] = {
        { kBrightness, "Capture brightness: %d", &ImageCaptureSettingsV4L2Backend::SetBrightness },
        { kContrast, "Capture contrast: %d", &ImageCaptureSettingsV4L2Backend::SetContrast },
        { kHue, "Capture hue: %d", &ImageCaptureSettingsV4L2Backend::SetHue },
        { kSaturation, "Capture saturation: %d", &ImageCaptureSettingsV4L2Backend::SetSaturation },
    };
    for (const Percentage& entry : kPercentages) {
        int value = _Percentages[entry.slot];
        allRead &= Settings::GetSetting(kSettingsSection, kControls[entry.slot].key, value) >= 0;
        Info(entry.line, value);
        (this->*entry.set)(value);
    }
    return allRead;
}

void ImageCaptureSettingsV4L2Backend::SettingsChanged(const TypedPropertyMap& changed)
{
    bool enabled = false;
    if (Settingsd::ChangedValue(changed, kControls[kAutogain].key, enabled))
        SetAutogain(enabled);
    for (size_t slot = kAutogain + 1; slot < kControls.size(); ++slot) {
        int32_t percent = 0;
        if (Settingsd::ChangedValue(changed, kControls[slot].key, percent))
            setBackendValue(kControls[slot].id, percent);
    }
}

void ImageCaptureSettingsV4L2Backend::FollowSettings(Settingsd::SettingsDaemonDbusHandler& settings)
{
    settings._CaptureSettingsChanged.connect(
        sigc::mem_fun(*this, &ImageCaptureSettingsV4L2Backend::SettingsChanged));
}

int ImageCaptureSettingsV4L2Backend::Ioctl(int fd, unsigned long request, void* arg)
{
    return ioctl(fd, request, arg);
}

bool ImageCaptureSettingsV4L2Backend::setBackendValue(uint32_t id, int percent)
{
    const size_t slot = SlotOf(id);
    if (slot == kControls.size())
        return false;
    const Control& control = kControls[slot];
    percent = Clamp(percent, 0, 100);
    if (percent == _Percentages[slot])
        return true;
    const int32_t hw = percent * (control.max - control.min) / 100 + control.min;
    Info("setBackendValue(%d) percentageValue = %d, hw_value = %d", static_cast<int>(id), percent, hw);
    setControl(Clamp(hw, control.min, control.max), id);
    _Percentages[slot] = percent;
    return true;
}

int32_t ImageCaptureSettingsV4L2Backend::getControl(uint32_t id, bool* ok)
{
    if (ok)
        *ok = false;
    if (_Fd < 0) {
        Info("Failed to open dev: %s", _DevicePath.c_str());
        return -1;
    }
    v4l2_control control {};
    control.id = id;
    if (Ioctl(_Fd, VIDIOC_G_CTRL, &control) < 0) {
        Info("Failed ioctl on: %d", _Fd);
        return -1;
    }
    if (ok)
        *ok = true;
    return control.value;
}

bool ImageCaptureSettingsV4L2Backend::setControl(int32_t value, uint32_t id)
{
    bool exists = false;
    getControl(id, &exists);
    if (!exists)
        return false;
    v4l2_control control {};
    control.id = id;
    control.value = value;
    if (Ioctl(_Fd, VIDIOC_S_CTRL, &control) < 0) {
        Info("Failed ioctl on: %d", _Fd);
        return false;
    }
    return true;
}

} // namespace VideoDaemon
