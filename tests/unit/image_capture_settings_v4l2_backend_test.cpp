// Capture image settings: percentages, clamping and the percentage cache, with no device and
// against a test double at the device's ioctl.
#include <linux/videodev2.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "controls/image_capture_settings_v4l2_backend.h"
#include "log_capture.h"
#include "support/v4l2_control_double.h"

using TestSupport::ControlRequest;
using TestSupport::V4l2ControlDouble;
using VideoDaemon::ImageCaptureSettingsV4L2Backend;
using VideoDaemon::Log::kInfo;

namespace
{

using Lines = std::vector<std::pair<int, std::string>>;
using Setter = bool (ImageCaptureSettingsV4L2Backend::*)(int);
using Getter = bool (ImageCaptureSettingsV4L2Backend::*)(int&);

// No device at this path: nothing may be created there.
const std::string kMissingDevice = "/nonexistent-videod-device/video0";

// The four controls set in percent.
struct PercentControl {
    const char* name;
    uint32_t id;
    Setter set;
    Getter get;
};
const PercentControl kBrightness { "brightness", V4L2_CID_BRIGHTNESS,
    &ImageCaptureSettingsV4L2Backend::SetBrightness, &ImageCaptureSettingsV4L2Backend::GetBrightness };
const PercentControl kContrast { "contrast", V4L2_CID_CONTRAST, &ImageCaptureSettingsV4L2Backend::SetContrast,
    &ImageCaptureSettingsV4L2Backend::GetContrast };
const PercentControl kHue { "hue", V4L2_CID_HUE, &ImageCaptureSettingsV4L2Backend::SetHue,
    &ImageCaptureSettingsV4L2Backend::GetHue };
const PercentControl kSaturation { "saturation", V4L2_CID_SATURATION,
    &ImageCaptureSettingsV4L2Backend::SetSaturation, &ImageCaptureSettingsV4L2Backend::GetSaturation };

// A requested percentage, the one applied after clamping, and the hardware value it maps to.
struct Mapping {
    PercentControl control;
    int requested;
    int applied;
    int32_t hw;
};
// Every requested value differs from the control's default percentage, so each one is applied.
const Mapping kMappings[] = {
    { kBrightness, 50, 50, 127 },
    { kBrightness, 0, 0, 0 },
    { kBrightness, 100, 100, 255 },
    { kBrightness, 150, 100, 255 },
    { kBrightness, -5, 0, 0 },
    { kBrightness, 1, 1, 2 },
    { kContrast, 33, 33, 84 },
    { kContrast, 101, 100, 255 },
    { kContrast, -100, 0, 0 },
    { kHue, 0, 0, -127 },
    { kHue, 25, 25, -64 },
    { kHue, 75, 75, 63 },
    { kHue, 100, 100, 127 },
    { kHue, 150, 100, 127 },
    { kHue, -5, 0, -127 },
    { kSaturation, 99, 99, 252 },
    { kSaturation, 1000, 100, 255 },
    { kSaturation, -1, 0, 0 },
};

std::string SetLine(uint32_t id, int percent, int32_t hw)
{
    return "setBackendValue(" + std::to_string(id) + ") percentageValue = " + std::to_string(percent)
        + ", hw_value = " + std::to_string(hw);
}

std::string Row(const Mapping& row)
{
    return std::string(row.control.name) + " " + std::to_string(row.requested) + "%";
}

int Get(ImageCaptureSettingsV4L2Backend& backend, Getter get)
{
    int value = -1000;
    EXPECT_TRUE((backend.*get)(value));
    return value;
}

// The percentage cache after Initialise, by control id.
const std::pair<uint32_t, int> kDefaultPercentages[] = {
    { V4L2_CID_AUTOGAIN, 100 },
    { V4L2_CID_BRIGHTNESS, 49 },
    { V4L2_CID_CONTRAST, 49 },
    { V4L2_CID_HUE, 50 },
    { V4L2_CID_SATURATION, 49 },
};

void ExpectDefaultPercentages(ImageCaptureSettingsV4L2Backend& backend)
{
    bool autogain = false;
    EXPECT_TRUE(backend.GetAutogain(autogain));
    EXPECT_TRUE(autogain);
    EXPECT_EQ(Get(backend, kBrightness.get), 49);
    for (const auto& [id, percent] : kDefaultPercentages) {
        int value = -1;
        EXPECT_TRUE(backend.GetValue(id, value)) << id;
        EXPECT_EQ(value, percent) << id;
    }
}

} // namespace

// With no device every access fails with one line, yet the percentages behave as with a device.
TEST(ImageCaptureSettingsWithoutDevice, EveryAccessFailsWithOneLineYetThePercentagesBehaveAsWithADevice)
{
    const std::pair<int, std::string> failed_open { kInfo, "Failed to open dev: " + kMissingDevice };
    LogCapture log;
    ImageCaptureSettingsV4L2Backend backend(kMissingDevice);
    EXPECT_EQ(log.Lines(), Lines { failed_open }) << "construction";

    // Initialise resets the percentages, with one failed access per control.
    ASSERT_TRUE(backend.SetBrightness(90));
    ASSERT_TRUE(backend.SetHue(10));
    ASSERT_TRUE(backend.SetAutogain(false));
    log.Clear();
    EXPECT_TRUE(backend.Initialise());
    ExpectDefaultPercentages(backend);
    EXPECT_EQ(log.Lines(), Lines(5, failed_open)) << "initialise";

    // Every setter clamps, logs the failed access and succeeds.
    for (const Mapping& row : kMappings) {
        ASSERT_TRUE(backend.Initialise());
        log.Clear();
        EXPECT_TRUE((backend.*row.control.set)(row.requested)) << Row(row);
        EXPECT_EQ(
            log.Lines(), (Lines { { kInfo, SetLine(row.control.id, row.applied, row.hw) }, failed_open }))
            << Row(row);
        EXPECT_EQ(Get(backend, row.control.get), row.applied) << Row(row);
        int value = -1;
        EXPECT_TRUE(backend.GetValue(row.control.id, value));
        EXPECT_EQ(value, row.applied) << Row(row);
    }

    // The percentage is remembered although the device never took it, so a repeat is skipped, as is a
    // value that clamps to the one applied.
    ASSERT_TRUE(backend.Initialise());
    for (const PercentControl& control : { kBrightness, kContrast, kHue, kSaturation }) {
        log.Clear();
        EXPECT_TRUE((backend.*control.set)(60));
        EXPECT_EQ(log.Count(failed_open.first, failed_open.second), 1u) << control.name;
        EXPECT_TRUE((backend.*control.set)(100)) << control.name;
        log.Clear();
        EXPECT_TRUE((backend.*control.set)(100)) << control.name;
        EXPECT_TRUE((backend.*control.set)(150)) << control.name;
        EXPECT_TRUE(log.Lines().empty()) << control.name;
        EXPECT_EQ(Get(backend, control.get), 100) << control.name;
    }

    // Autogain is on exactly when its percentage is one hundred.
    for (const bool enabled : { false, true, false }) {
        log.Clear();
        EXPECT_TRUE(backend.SetAutogain(enabled));
        EXPECT_EQ(log.Lines(),
            (Lines { { kInfo, SetLine(V4L2_CID_AUTOGAIN, enabled ? 100 : 0, enabled) }, failed_open }));
        bool got = !enabled;
        EXPECT_TRUE(backend.GetAutogain(got));
        EXPECT_EQ(got, enabled);
        int percent = -1;
        EXPECT_TRUE(backend.GetValue(V4L2_CID_AUTOGAIN, percent));
        EXPECT_EQ(percent, enabled ? 100 : 0);
    }

    // An unknown control reads as zero and fails.
    for (uint32_t id : { uint32_t(V4L2_CID_GAMMA), uint32_t(V4L2_CID_EXPOSURE), uint32_t(0) }) {
        int value = 77;
        EXPECT_FALSE(backend.GetValue(id, value)) << id;
        EXPECT_EQ(value, 0) << id;
    }

    // One device, so one cache for the process: a second backend sees what the first applied.
    ASSERT_TRUE(backend.SetContrast(12));
    ImageCaptureSettingsV4L2Backend second(kMissingDevice);
    EXPECT_EQ(Get(second, kContrast.get), 12);
    log.Clear();
    EXPECT_TRUE(second.SetContrast(12));
    EXPECT_TRUE(log.Lines().empty());
}

namespace
{

ControlRequest Read(uint32_t id)
{
    return { VIDIOC_G_CTRL, id, 0 };
}
ControlRequest Write(uint32_t id, int32_t value)
{
    return { VIDIOC_S_CTRL, id, value };
}
using Requests = std::vector<ControlRequest>;

} // namespace

// Initialise writes each default after confirming its control; a refused control is logged and left as it
// is, the others are written and every percentage reset.
TEST(ImageCaptureSettingsInitialise, WritesEachDefaultAfterConfirmingItsControlAndSkipsRefusedOnes)
{
    V4l2ControlDouble device;
    LogCapture log;
    EXPECT_TRUE(device.Initialise());
    EXPECT_EQ(device.Requests(),
        (Requests { Read(V4L2_CID_AUTOGAIN), Write(V4L2_CID_AUTOGAIN, 1), Read(V4L2_CID_BRIGHTNESS),
            Write(V4L2_CID_BRIGHTNESS, 127), Read(V4L2_CID_CONTRAST), Write(V4L2_CID_CONTRAST, 127),
            Read(V4L2_CID_HUE), Write(V4L2_CID_HUE, 0), Read(V4L2_CID_SATURATION),
            Write(V4L2_CID_SATURATION, 127) }));
    EXPECT_TRUE(log.Lines().empty());
    ExpectDefaultPercentages(device);

    ASSERT_TRUE(device.SetHue(10));
    device.Refuse(VIDIOC_G_CTRL, V4L2_CID_HUE);
    device.Refuse(VIDIOC_S_CTRL, V4L2_CID_CONTRAST);
    device.Clear();
    log.Clear();
    EXPECT_TRUE(device.Initialise());
    EXPECT_EQ(device.Requests(),
        (Requests { Read(V4L2_CID_AUTOGAIN), Write(V4L2_CID_AUTOGAIN, 1), Read(V4L2_CID_BRIGHTNESS),
            Write(V4L2_CID_BRIGHTNESS, 127), Read(V4L2_CID_CONTRAST), Write(V4L2_CID_CONTRAST, 127),
            Read(V4L2_CID_HUE), Read(V4L2_CID_SATURATION), Write(V4L2_CID_SATURATION, 127) }));
    const std::string failure = "Failed ioctl on: " + std::to_string(device.Fd());
    EXPECT_EQ(log.Lines(), (Lines { { kInfo, failure }, { kInfo, failure } }));
    EXPECT_EQ(device.DeviceValue(V4L2_CID_HUE), -102); // 10 % as written before
    ExpectDefaultPercentages(device);
}

// Each setting writes the hardware value of its percentage after reading the control, only when the
// percentage changed; a refused request is logged and the percentage kept, so it is not retried.
TEST(ImageCaptureSettingsOnDevice, WritesTheHardwareValueOfEachChangedPercentageAfterReadingTheControl)
{
    V4l2ControlDouble device;
    LogCapture log;
    const auto reset = [&] {
        device.Clear();
        log.Clear();
    };
    for (const Mapping& row : kMappings) {
        ASSERT_TRUE(device.Initialise());
        reset();
        EXPECT_TRUE((device.*row.control.set)(row.requested)) << Row(row);
        EXPECT_EQ(device.Requests(), (Requests { Read(row.control.id), Write(row.control.id, row.hw) }))
            << Row(row);
        EXPECT_EQ(device.DeviceValue(row.control.id), row.hw) << Row(row);
        EXPECT_EQ(log.Lines(), (Lines { { kInfo, SetLine(row.control.id, row.applied, row.hw) } }))
            << Row(row);
        EXPECT_EQ(Get(device, row.control.get), row.applied) << Row(row);
    }
    ASSERT_TRUE(device.Initialise());
    for (bool enabled : { false, true }) {
        reset();
        EXPECT_TRUE(device.SetAutogain(enabled));
        EXPECT_EQ(
            device.Requests(), (Requests { Read(V4L2_CID_AUTOGAIN), Write(V4L2_CID_AUTOGAIN, enabled) }));
        EXPECT_EQ(log.Lines(), (Lines { { kInfo, SetLine(V4L2_CID_AUTOGAIN, enabled ? 100 : 0, enabled) } }));
    }

    // The defaults themselves, a value applied twice and a value that clamps to the one applied.
    reset();
    EXPECT_TRUE(device.SetAutogain(true));
    EXPECT_TRUE(device.SetBrightness(49));
    EXPECT_TRUE(device.SetHue(50));
    EXPECT_TRUE(device.Requests().empty());
    EXPECT_TRUE(device.SetSaturation(100));
    reset();
    EXPECT_TRUE(device.SetSaturation(100));
    EXPECT_TRUE(device.SetSaturation(140));
    EXPECT_TRUE(device.Requests().empty());
    EXPECT_TRUE(log.Lines().empty());

    // A refused read leaves the control unwritten, a refused write is logged; both keep the percentage.
    const std::string failure = "Failed ioctl on: " + std::to_string(device.Fd());
    const struct {
        unsigned long refused;
        uint32_t id;
        Setter set;
        Getter get;
        int percent;
        int32_t hw;
        Requests requests;
    } refusals[] = {
        { VIDIOC_G_CTRL, V4L2_CID_BRIGHTNESS, kBrightness.set, kBrightness.get, 70, 178,
            { Read(V4L2_CID_BRIGHTNESS) } },
        { VIDIOC_S_CTRL, V4L2_CID_HUE, kHue.set, kHue.get, 80, 76,
            { Read(V4L2_CID_HUE), Write(V4L2_CID_HUE, 76) } },
    };
    for (const auto& row : refusals) {
        const int32_t held = device.DeviceValue(row.id);
        device.Refuse(row.refused, row.id);
        reset();
        EXPECT_TRUE((device.*row.set)(row.percent)) << row.id;
        EXPECT_EQ(device.Requests(), row.requests) << row.id;
        EXPECT_EQ(
            log.Lines(), (Lines { { kInfo, SetLine(row.id, row.percent, row.hw) }, { kInfo, failure } }));
        EXPECT_EQ(device.DeviceValue(row.id), held) << row.id;
        EXPECT_EQ(Get(device, row.get), row.percent) << row.id;
        reset();
        EXPECT_TRUE((device.*row.set)(row.percent)) << row.id;
        EXPECT_TRUE(device.Requests().empty()) << row.id;
        EXPECT_TRUE(log.Lines().empty()) << row.id;
    }
}
