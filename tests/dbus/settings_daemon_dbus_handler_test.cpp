// Settings client against the simulated settings daemon on a private bus.
#include <any>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "clients/settings_daemon_dbus_handler.h"
#include "dbus/client_log_checks.h"
#include "dbus/dbus_test_env.h"

using Settingsd::SettingsDaemonDbusHandler;
using VideoDaemon::Log::kError;
using VideodTest::LogLines;
using VideodTest::RunMainLoopUntil;

namespace
{

const char* const kService = "com.tarnwell.common.Settings1";
const std::string kBase = "/com/tarnwell/common/Settings1";

const std::string kHandlerSignature
    = "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, "
      "sd_bus_error*)";

class SettingsClient : public VideodTest::DbusTestEnv
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        ASSERT_TRUE(StartPeer("settings")) << LastError();
    }

    std::string GetValue(const std::string& section, const std::string& key)
    {
        return Get(kService, kBase + "/" + section, kService, key);
    }

    // Writes typedValue with busctl, then expects the client to read back expected into a variable that
    // held `initial` (which differs from it, so a read that stores nothing fails).
    template <typename T>
    void ExpectRead(const std::string& section, const std::string& key,
        const std::vector<std::string>& typedValue, const T& expected, const T& initial)
    {
        ASSERT_NE(initial, expected) << key;
        ASSERT_EQ(Set(kService, kBase + "/" + section, kService, key, typedValue), 0) << key;
        T value = initial;
        EXPECT_GE(SettingsDaemonDbusHandler::GetSetting(section, key, value), 0) << key;
        EXPECT_EQ(value, expected) << key;
    }

    // Makes the settings daemon announce entry ("key", "type", "value") as a change of path.
    void EmitChange(const std::string& path, const std::vector<std::string>& entry)
    {
        std::vector<std::string> args { "osa{sv}", path, kService, "1" };
        args.insert(args.end(), entry.begin(), entry.end());
        ASSERT_EQ(Call(kService, kBase, "com.tarnwell.host.Simulation", "EmitPropertiesChanged", args), 0);
    }
};

class SettingsClientWithoutDaemon : public VideodTest::DbusTestEnv
{
};

} // namespace

// Failed reads keep the caller's value and log the key and the bus error; a value of another type is
// refused in both directions.
TEST_F(SettingsClient, ReadsWritesAndResetsEveryValueTypeTheDaemonUsesAndLogsFailures)
{
    ExpectRead("audio", "micEnabled", { "b", "true" }, true, false);
    ExpectRead("audio", "micEnabled", { "b", "false" }, false, true);
    ExpectRead("capture", "brightness", { "i", "12" }, 12, 0);
    ExpectRead("capture", "jpegImageQuality", { "u", "42" }, 42u, 0u);
    ExpectRead("video", "maximumFilesize", { "t", "6000000000" }, 6000000000ull, 0ull);
    ExpectRead("video", "sharpenAmount", { "d", "0.75" }, 0.75, 0.0);
    ExpectRead("video", "dslHysteresis", { "d", "0.25" }, 0.25f, 0.0f);
    ExpectRead(
        "video", "deinterlaceMethod", { "s", "high-motion" }, std::string("high-motion"), std::string());
    ExpectRead("video", "zoomLevelsDsl", { "ad", "3", "1.5", "1", "8" },
        std::vector<float> { 1.5f, 1.0f, 8.0f }, std::vector<float>());
    for (bool value : { true, false }) {
        ASSERT_EQ(SettingsDaemonDbusHandler::SetSetting("video", "rotationEnabled", value), 0);
        EXPECT_EQ(GetValue("video", "rotationEnabled"), value ? "b true" : "b false");
    }

    const std::pair<const char*, std::function<int32_t()>> resets[] = {
        { "ResetSetting",
            [] { return SettingsDaemonDbusHandler::ResetSetting("capture", "jpegImageQuality"); } },
        { "ResetSection", [] { return SettingsDaemonDbusHandler::ResetSection("capture"); } },
        { "ResetToDefaults", [] { return SettingsDaemonDbusHandler::ResetToDefaults(true); } },
    };
    for (const auto& [name, reset] : resets) {
        ASSERT_EQ(Set(kService, kBase + "/capture", kService, "jpegImageQuality", { "u", "90" }), 0);
        EXPECT_EQ(reset(), 0) << name;
        EXPECT_EQ(GetValue("capture", "jpegImageQuality"), "u 85") << name;
    }

    LogCapture log;
    bool value = true;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("video", "noSuchKey", value), 0);
    EXPECT_TRUE(value);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines().front().first, kError);
    EXPECT_TRUE(log.ContainsText(
        "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const string&, const string&, T&) "
        "[with T = bool; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]: ERROR "
        "sdbus_utils::GetProperty noSuchKey failed "))
        << log.Lines().back().second;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("capture", "jpegImageQuality", value), 0);
    EXPECT_TRUE(value);
    EXPECT_TRUE(log.ContainsText("jpegImageQuality failed org.freedesktop.DBus.Error.InvalidSignature"));
    EXPECT_LT(SettingsDaemonDbusHandler::SetSetting("capture", "jpegImageQuality", true), 0);
    EXPECT_TRUE(log.ContainsText(": ERROR sdbus_utils::SetProperty jpegImageQuality failed "
                                 "org.freedesktop.DBus.Error.InvalidArgs"));
    EXPECT_EQ(GetValue("capture", "jpegImageQuality"), "u 85");
}

// Each section's change reaches the general signal first, then that section's own signal and no other;
// a section the client does not know reaches only the general signal. A change without a usable path or
// with an unreadable body is rejected before any signal, with the handler's own line.
TEST_F(SettingsClient, RoutesEachSectionsChangeToTheGeneralSignalThenToItsOwnAndRejectsMalformedOnes)
{
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    std::vector<std::string> order;
    TypedPropertyMap general_video, video;
    client._SettingsChanged.connect([&](const std::string& section, const TypedPropertyMap& map) {
        order.push_back("general " + section);
        if (section == "video")
            general_video = map;
    });
    // Consumers connect to the members themselves.
    using Signal = SettingsDaemonDbusHandler::SectionChangedSignal SettingsDaemonDbusHandler::*;
    using H = SettingsDaemonDbusHandler;
    const std::pair<std::string, Signal> members[] = { { "boot", &H::_BootSettingsChanged },
        { "system", &H::_SystemSettingsChanged }, { "audio", &H::_AudioSettingsChanged },
        { "keyBeep", &H::_KeyBeepSettingsChanged }, { "display", &H::_DisplaySettingsChanged },
        { "capture", &H::_CaptureSettingsChanged }, { "jobs", &H::_JobsSettingsChanged },
        { "sync", &H::_SyncSettingsChanged }, { "sonde", &H::_SondeSettingsChanged },
        { "reel", &H::_ReelSettingsChanged }, { "camera", &H::_CameraSettingsChanged },
        { "overlay", &H::_OverlaySettingsChanged }, { "video", &H::_VideoSettingsChanged },
        { "videoRecording", &H::_VideoRecordingSettingsChanged },
        { "autologRecording", &H::_AutologRecordingSettingsChanged },
        { "snapVoiceRecording", &H::_SnapVoiceRecordingSettingsChanged },
        { "storage", &H::_StorageSettingsChanged }, { "development", &H::_DevelopmentSettingsChanged },
        { "bluetooth", &H::_BluetoothSettingsChanged }, { "device", &H::_DeviceSettingsChanged },
        { "network", &H::_NetworkSettingsChanged },
        { "motionDetection", &H::_MotionDetectionSettingsChanged },
        { "contacts", &H::_ContactsSettingsChanged }, { "remoteCamera", &H::_RemoteCameraSettingsChanged },
        { "remoteDevices", &H::_RemoteDevicesSettingsChanged }, { "shutdown", &H::_ShutdownSettingsChanged },
        { "time", &H::_TimeSettingsChanged }, { "gps", &H::_GpsSettingsChanged },
        { "cooling", &H::_CoolingSettingsChanged } };
    const std::vector<std::string>& sections = VideodTest::SettingsSections();
    ASSERT_EQ(std::size(members), sections.size());
    for (size_t i = 0; i < sections.size(); ++i) {
        const auto& [section, member] = members[i];
        ASSERT_EQ(section, sections[i]);
        EXPECT_EQ(client.SectionSignal(section), &(client.*member)) << section;
        (client.*member).connect([&order, section = section](const TypedPropertyMap&) {
            order.push_back(section);
        });
    }
    client._VideoSettingsChanged.connect([&](const TypedPropertyMap& map) { video = map; });
    EXPECT_EQ(client.SectionSignal("lighting"), nullptr);

    for (const std::string& section : sections)
        EmitChange(kBase + "/" + section, { "probe", "u", "1" });
    // A value of an unexpected type arrives with its own signature.
    EmitChange(kBase + "/video", { "sharpen", "s", "yes" });
    EmitChange(kBase + "/lighting", { "level", "u", "3" });
    const size_t expected = 2 * sections.size() + 3;
    ASSERT_TRUE(RunMainLoopUntil([&] { return order.size() >= expected; }));
    VideodTest::RunMainLoopUntil([] { return false; }, 100); // nothing more arrives
    ASSERT_EQ(order.size(), expected);
    for (size_t i = 0; i < sections.size(); ++i) {
        EXPECT_EQ(order[2 * i], "general " + sections[i]);
        EXPECT_EQ(order[2 * i + 1], sections[i]);
    }
    EXPECT_EQ(order[expected - 3], "general video");
    EXPECT_EQ(order[expected - 2], "video");
    EXPECT_EQ(order[expected - 1], "general lighting");
    ASSERT_EQ(video.count("sharpen"), 1u);
    EXPECT_EQ(video.at("sharpen").first, "s");
    EXPECT_EQ(std::any_cast<std::string>(video.at("sharpen").second), "yes");
    EXPECT_THROW(std::any_cast<bool>(video.at("sharpen").second), std::bad_any_cast);
    EXPECT_EQ(general_video.size(), video.size());

    // "/" is the one object path D-Bus carries that ends in a slash.
    LogCapture log;
    EmitChange("/", { "sharpen", "b", "true" });
    ASSERT_TRUE(RunMainLoopUntil(
        [&] { return log.Contains(kError, kHandlerSignature + ": Mallformed path string"); }));

    // A method return carries no object path; give it the change's body.
    log.Clear();
    sd_bus_message* raw = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(Bus(), &raw, kService, kBase.c_str(), kService, "Probe"), 0);
    VideodTest::SdBusMessagePtr call(raw);
    ASSERT_GE(sd_bus_message_seal(call.get(), 1, 0), 0);
    ASSERT_GE(sd_bus_message_new_method_return(call.get(), &raw), 0);
    VideodTest::SdBusMessagePtr change(raw);
    ASSERT_GE(sd_bus_message_append(change.get(), "sa{sv}as", kService, 1, "sharpen", "b", 1, 0), 0);
    ASSERT_GE(sd_bus_message_seal(change.get(), 2, 0), 0);
    EXPECT_EQ(SettingsDaemonDbusHandler::PropertiesChanged(change.get(), &client, nullptr), -1);
    EXPECT_EQ(log.Lines(), (LogLines { { kError, kHandlerSignature + ": Failed to find / in path" } }));

    // A change of the video section whose body is `types` with the given arguments.
    auto video_change = [&](const char* types, auto... values) {
        EXPECT_GE(sd_bus_message_new_signal(Bus(), &raw, (kBase + "/video").c_str(),
                      "org.freedesktop.DBus.Properties", "PropertiesChanged"),
            0);
        VideodTest::SdBusMessagePtr message(raw);
        EXPECT_GE(sd_bus_message_append(message.get(), types, values...), 0);
        EXPECT_GE(sd_bus_message_seal(message.get(), 1, 0), 0);
        return message;
    };
    // No interface name first.
    log.Clear();
    EXPECT_EQ(
        SettingsDaemonDbusHandler::PropertiesChanged(video_change("u", 5u).get(), &client, nullptr), -1);
    EXPECT_EQ(
        log.Lines(), (LogLines { { kError, kHandlerSignature + ": Failed to skip interface string" } }));
    // An interface name, then no property dictionary: the parse's own code is in the line.
    VideodTest::SdBusMessagePtr probe = video_change("si", kService, 3);
    ASSERT_GE(sd_bus_message_skip(probe.get(), "s"), 0);
    TypedPropertyMap ignored;
    const int parsed = sdbus_utils::ParsePropertiesWithType(probe.get(), ignored);
    ASSERT_LT(parsed, 0);
    log.Clear();
    EXPECT_EQ(
        SettingsDaemonDbusHandler::PropertiesChanged(video_change("si", kService, 3).get(), &client, nullptr),
        -1);
    EXPECT_EQ(log.Lines(),
        (LogLines {
            { kError, kHandlerSignature + ": ParsePropertiesWithType failed:" + std::to_string(parsed) } }));
    EXPECT_EQ(order.size(), expected);
}

// Without the daemon, reads, writes and resets fail with the bus error, but listening still subscribes
// so a daemon that starts later is heard. Without a bus, or when the bus goes away or refuses the
// subscription, the client says so and lets the connection go.
TEST_F(SettingsClientWithoutDaemon, OperationsFailWithTheBusErrorAndListeningOutlastsTheDaemonNotTheBus)
{
    LogCapture log;
    unsigned int quality = 77;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("capture", "jpegImageQuality", quality), 0);
    EXPECT_EQ(quality, 77u);
    EXPECT_TRUE(log.ContainsText("jpegImageQuality failed org.freedesktop.DBus.Error.ServiceUnknown"));
    EXPECT_LT(SettingsDaemonDbusHandler::SetSetting("video", "sharpen", true), 0);
    EXPECT_LT(SettingsDaemonDbusHandler::ResetSection("capture"), 0);
    EXPECT_TRUE(log.ContainsText("static int32_t Settingsd::SettingsDaemonDbusHandler::ResetSection(const "
                                 "string&):sd_bus_call_method call failed (r = "));
    {
        SettingsDaemonDbusHandler client(nullptr);
        WithoutBus([&] { EXPECT_LT(client.Listen(), 0); });
        EXPECT_FALSE(client.IsConnected());
        EXPECT_TRUE(log.Contains(
            kError, "int32_t Settingsd::SettingsDaemonDbusHandler::Listen(): Failed to connect to dbus"));
    }

    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    int changes = 0;
    client._CaptureSettingsChanged.connect([&](const TypedPropertyMap&) { ++changes; });
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    ASSERT_EQ(Set(kService, kBase + "/capture", kService, "jpegImageQuality", { "u", "60" }), 0);
    EXPECT_TRUE(RunMainLoopUntil([&] { return changes == 1; }));

    StopBus();
    ASSERT_TRUE(RunMainLoopUntil([&] { return !client.IsConnected(); }));
    EXPECT_EQ(log.Count(kError, "[SettingsDaemonDbusHandler] Bus connection closed"), 1u);
    EXPECT_EQ(client.SubscriptionCount(), 0u);

    // The failed registration, then a line that names another client (kept as the system has always
    // written it).
    ASSERT_TRUE(RestartBusWithMatchRuleLimit(0)) << LastError();
    log.Clear();
    SettingsDaemonDbusHandler refused(nullptr);
    EXPECT_LT(refused.Listen(), 0);
    EXPECT_FALSE(refused.IsConnected());
    EXPECT_EQ(log.Lines(),
        (LogLines { { kError,
                        "int32_t Settingsd::SettingsDaemonDbusHandler::Listen(): Failed to register "
                        "PropertiesChanged signal" },
            { kError, "LibDbusHelper::Storage: Failed to init signal listeners" } }));
}
