// Capture image settings from the simulated settings daemon on a private bus: the start-up load
// of the "capture" section and its later changes, against a test double of the device.
#include <linux/videodev2.h>

#include <string>
#include <utility>
#include <vector>

#include "clients/settings_daemon_dbus_handler.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"
#include "support/v4l2_control_double.h"

using Settingsd::SettingsDaemonDbusHandler;
using TestSupport::ControlRequest;
using TestSupport::V4l2ControlDouble;
using VideoDaemon::Log::kError;
using VideoDaemon::Log::kInfo;
using VideodTest::RunMainLoopUntil;

namespace
{

using Lines = std::vector<std::pair<int, std::string>>;

const char* const kService = "com.tarnwell.common.Settings1";
const std::string kBase = "/com/tarnwell/common/Settings1";
const std::string kCapture = kBase + "/capture";

std::string SetLine(uint32_t id, int percent, int32_t hw)
{
    return "setBackendValue(" + std::to_string(id) + ") percentageValue = " + std::to_string(percent)
        + ", hw_value = " + std::to_string(hw);
}

ControlRequest Read(uint32_t id)
{
    return { VIDIOC_G_CTRL, id, 0 };
}
ControlRequest Write(uint32_t id, int32_t value)
{
    return { VIDIOC_S_CTRL, id, value };
}

// The lines at information priority, in order.
Lines InfoLines(const LogCapture& log)
{
    Lines lines;
    for (const auto& line : log.Lines())
        if (line.first == kInfo)
            lines.push_back(line);
    return lines;
}

int Percent(V4l2ControlDouble& device, uint32_t id)
{
    int value = -1;
    EXPECT_TRUE(device.GetValue(id, value));
    return value;
}

class ImageCaptureSettingsFromSettings : public VideodTest::DbusTestEnv
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        ASSERT_TRUE(StartPeer("settings")) << LastError();
        ASSERT_TRUE(_Device.Initialise());
        _Device.Clear();
    }

    // busctl set-property on the "capture" section; "--" lets a value start with "-".
    void SetCapture(const std::string& key, const std::vector<std::string>& typedValue)
    {
        std::vector<std::string> args { "--", "set-property", kService, kCapture, kService, key };
        args.insert(args.end(), typedValue.begin(), typedValue.end());
        ASSERT_EQ(Busctl(args), 0) << key;
    }

    V4l2ControlDouble _Device;
};

} // namespace

// The settings daemon's defaults are the device's: every value is logged, nothing is written. Then each
// value is logged as read and applied in the section's order. A value that cannot be read is logged by the
// client and the current one is kept (and logged).
TEST_F(ImageCaptureSettingsFromSettings, LoadsTheCaptureSectionInOrderAndKeepsTheCurrentValuesWithoutIt)
{
    {
        LogCapture log;
        EXPECT_TRUE(_Device.LoadFromSettings());
        EXPECT_EQ(log.Lines(),
            (Lines { { kInfo, "Capture autogain: 1" }, { kInfo, "Capture brightness: 49" },
                { kInfo, "Capture contrast: 49" }, { kInfo, "Capture hue: 50" },
                { kInfo, "Capture saturation: 49" } }));
        EXPECT_TRUE(_Device.Requests().empty());
    }

    SetCapture("autogain", { "b", "false" });
    SetCapture("brightness", { "i", "12" });
    SetCapture("contrast", { "i", "80" });
    SetCapture("hue", { "i", "0" });
    SetCapture("saturation", { "i", "150" });
    LogCapture log;
    EXPECT_TRUE(_Device.LoadFromSettings());
    EXPECT_EQ(log.Lines(),
        (Lines { { kInfo, "Capture autogain: 0" }, { kInfo, SetLine(V4L2_CID_AUTOGAIN, 0, 0) },
            { kInfo, "Capture brightness: 12" }, { kInfo, SetLine(V4L2_CID_BRIGHTNESS, 12, 30) },
            { kInfo, "Capture contrast: 80" }, { kInfo, SetLine(V4L2_CID_CONTRAST, 80, 204) },
            { kInfo, "Capture hue: 0" }, { kInfo, SetLine(V4L2_CID_HUE, 0, -127) },
            { kInfo, "Capture saturation: 150" }, { kInfo, SetLine(V4L2_CID_SATURATION, 100, 255) } }));
    EXPECT_EQ(_Device.Requests(),
        (std::vector<ControlRequest> { Read(V4L2_CID_AUTOGAIN), Write(V4L2_CID_AUTOGAIN, 0),
            Read(V4L2_CID_BRIGHTNESS), Write(V4L2_CID_BRIGHTNESS, 30), Read(V4L2_CID_CONTRAST),
            Write(V4L2_CID_CONTRAST, 204), Read(V4L2_CID_HUE), Write(V4L2_CID_HUE, -127),
            Read(V4L2_CID_SATURATION), Write(V4L2_CID_SATURATION, 255) }));
    bool autogain = true;
    EXPECT_TRUE(_Device.GetAutogain(autogain));
    EXPECT_FALSE(autogain);
    EXPECT_EQ(Percent(_Device, V4L2_CID_BRIGHTNESS), 12);
    EXPECT_EQ(Percent(_Device, V4L2_CID_CONTRAST), 80);
    EXPECT_EQ(Percent(_Device, V4L2_CID_HUE), 0);
    EXPECT_EQ(Percent(_Device, V4L2_CID_SATURATION), 100);

    ASSERT_TRUE(_Device.SetContrast(70));
    ASSERT_TRUE(StopPeer("settings"));
    _Device.Clear();
    log.Clear();
    EXPECT_FALSE(_Device.LoadFromSettings());
    EXPECT_EQ(InfoLines(log),
        (Lines { { kInfo, "Capture autogain: 0" }, { kInfo, "Capture brightness: 12" },
            { kInfo, "Capture contrast: 70" }, { kInfo, "Capture hue: 0" },
            { kInfo, "Capture saturation: 100" } }));
    for (const char* key : { "autogain", "brightness", "contrast", "hue", "saturation" })
        EXPECT_TRUE(
            log.ContainsText(kError, ": ERROR sdbus_utils::GetProperty " + std::string(key) + " failed"))
            << key;
    EXPECT_TRUE(_Device.Requests().empty());
}

// Changes of the five keys reach the device; other keys of the section and other sections do not, nor
// does a key of the wrong type (logged), while the rest of its change still does. The subscription ends
// with the backend: a later change reaches only the backends still alive.
TEST_F(ImageCaptureSettingsFromSettings, FollowsChangesOfTheCaptureSectionWhileTheBackendLives)
{
    SettingsDaemonDbusHandler settings(nullptr);
    ASSERT_EQ(settings.Listen(), 0);
    {
        V4l2ControlDouble gone;
        gone.FollowSettings(settings);
    }
    _Device.FollowSettings(settings);
    EXPECT_EQ(settings._CaptureSettingsChanged.size(), 1u);
    LogCapture log;

    const struct {
        const char* key;
        std::vector<std::string> value;
        uint32_t id;
        int percent;
        int32_t hw;
    } changes[] = {
        { "brightness", { "i", "70" }, V4L2_CID_BRIGHTNESS, 70, 178 },
        { "contrast", { "i", "-3" }, V4L2_CID_CONTRAST, 0, 0 },
        { "hue", { "i", "25" }, V4L2_CID_HUE, 25, -64 },
        { "saturation", { "i", "100" }, V4L2_CID_SATURATION, 100, 255 },
        { "autogain", { "b", "false" }, V4L2_CID_AUTOGAIN, 0, 0 },
    };
    for (const auto& change : changes) {
        _Device.Clear();
        log.Clear();
        SetCapture(change.key, change.value);
        ASSERT_TRUE(RunMainLoopUntil([&] { return _Device.Requests().size() >= 2; })) << change.key;
        EXPECT_EQ(_Device.Requests(),
            (std::vector<ControlRequest> { Read(change.id), Write(change.id, change.hw) }))
            << change.key;
        EXPECT_EQ(log.Lines(), (Lines { { kInfo, SetLine(change.id, change.percent, change.hw) } }))
            << change.key;
        EXPECT_EQ(Percent(_Device, change.id), change.percent) << change.key;
    }

    // Changes that are not the backend's, then one that is, so that the first ones have surely arrived.
    _Device.Clear();
    log.Clear();
    SetCapture("jpegImageQuality", { "u", "60" });
    ASSERT_EQ(Set(kService, kBase + "/video", kService, "sharpen", { "b", "true" }), 0);
    ASSERT_EQ(Call(kService, kBase, "com.tarnwell.host.Simulation", "EmitPropertiesChanged",
                  { "osa{sv}", kBase + "/video", kService, "1", "brightness", "i", "5" }),
        0);
    SetCapture("brightness", { "i", "71" });
    ASSERT_TRUE(RunMainLoopUntil([&] { return !_Device.Requests().empty(); }));
    RunMainLoopUntil([] { return false; }, 100); // nothing more arrives
    EXPECT_EQ(_Device.Requests(),
        (std::vector<ControlRequest> { Read(V4L2_CID_BRIGHTNESS), Write(V4L2_CID_BRIGHTNESS, 181) }));
    EXPECT_EQ(Percent(_Device, V4L2_CID_BRIGHTNESS), 71);

    _Device.Clear();
    ASSERT_EQ(Call(kService, kBase, "com.tarnwell.host.Simulation", "EmitPropertiesChanged",
                  { "osa{sv}", kCapture, kService, "3", "autogain", "i", "1", "brightness", "u", "20", "hue",
                      "i", "10" }),
        0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return _Device.Requests().size() >= 2; }));
    RunMainLoopUntil([] { return false; }, 100);
    EXPECT_EQ(
        _Device.Requests(), (std::vector<ControlRequest> { Read(V4L2_CID_HUE), Write(V4L2_CID_HUE, -102) }));
    EXPECT_TRUE(log.Contains(kError, "cast error: autogain"));
    EXPECT_TRUE(log.Contains(kError, "cast error: brightness"));
    EXPECT_EQ(Percent(_Device, V4L2_CID_AUTOGAIN), 0);
    EXPECT_EQ(Percent(_Device, V4L2_CID_BRIGHTNESS), 71);
}
