// Settings client against the simulated settings daemon on a private bus.
#include <glib.h>

#include <any>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "clients/settings_daemon_dbus_handler.h"
#include "dbus-helper/sd_bus_ptr.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using Settingsd::SettingsDaemonDbusHandler;
using VideoDaemon::Log::kError;

namespace
{

const char* const kService = "com.tarnwell.common.Settings1";
const char* const kBase = "/com/tarnwell/common/Settings1";

const std::vector<std::string> kSections = { "boot", "system", "audio", "keyBeep", "display", "capture",
    "jobs", "sync", "sonde", "reel", "camera", "overlay", "video", "videoRecording", "autologRecording",
    "snapVoiceRecording", "storage", "development", "bluetooth", "device", "network", "motionDetection",
    "contacts", "remoteCamera", "remoteDevices", "shutdown", "time", "gps", "cooling" };

const std::string kGetBoolSignature
    = "static int32_t Settingsd::SettingsDaemonDbusHandler::GetSetting(const string&, const string&, T&) "
      "[with T = "
      "bool; int32_t = int; std::__cxx11::string = std::__cxx11::basic_string<char>]";
const std::string kHandlerSignature
    = "static int32_t Settingsd::SettingsDaemonDbusHandler::PropertiesChanged(sd_bus_message*, void*, "
      "sd_bus_error*)";

bool RunLoopUntil(const std::function<bool()>& done, int timeoutMs = 5000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Lets pending signals arrive, for checks that something did NOT happen.
void RunLoopFor(int ms)
{
    RunLoopUntil([] { return false; }, ms);
}

class SettingsClient : public VideodTest::DbusTestEnv
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        ASSERT_TRUE(StartPeer("settings")) << LastError();
    }

    // busctl set-property on a section object.
    void SetWithBusctl(const std::string& section, const std::string& key, const std::string& type,
        const std::vector<std::string>& values)
    {
        std::vector<std::string> args { "set-property", kService, std::string(kBase) + "/" + section,
            kService, key, type };
        args.insert(args.end(), values.begin(), values.end());
        ASSERT_EQ(Busctl(args), 0);
    }

    std::string GetWithBusctl(const std::string& section, const std::string& key)
    {
        std::string out;
        EXPECT_EQ(
            Busctl({ "get-property", kService, std::string(kBase) + "/" + section, kService, key }, &out), 0);
        return out;
    }

    // Makes the settings daemon announce `changes` ("key", "type", "value") as a change of `path`.
    void EmitChange(const std::string& path, const std::vector<std::string>& entry)
    {
        std::vector<std::string> args { "call", kService, kBase, "com.tarnwell.host.Simulation",
            "EmitPropertiesChanged", "osa{sv}", path, kService, "1" };
        args.insert(args.end(), entry.begin(), entry.end());
        ASSERT_EQ(Busctl(args), 0);
    }
};

class SettingsClientWithoutDaemon : public VideodTest::DbusTestEnv
{
};

} // namespace

TEST_F(SettingsClient, ReadsTheCurrentValueForEveryValueTypeTheDaemonUses)
{
    SetWithBusctl("audio", "micEnabled", "b", { "false" });
    SetWithBusctl("capture", "brightness", "i", { "12" });
    SetWithBusctl("capture", "jpegImageQuality", "u", { "42" });
    SetWithBusctl("video", "maximumFilesize", "t", { "6000000000" });
    SetWithBusctl("video", "sharpenAmount", "d", { "0.75" });
    SetWithBusctl("video", "dslHysteresis", "d", { "0.25" });
    SetWithBusctl("video", "deinterlaceMethod", "s", { "high-motion" });
    SetWithBusctl("video", "zoomLevelsDsl", "ad", { "3", "1.5", "1", "8" });

    bool mic = true;
    int brightness = 0;
    unsigned int quality = 0;
    unsigned long long maximum = 0;
    double amount = 0;
    float hysteresis = 0;
    std::string method;
    std::vector<float> zoom;
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("audio", "micEnabled", mic), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("capture", "brightness", brightness), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("capture", "jpegImageQuality", quality), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("video", "maximumFilesize", maximum), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("video", "sharpenAmount", amount), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("video", "dslHysteresis", hysteresis), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("video", "deinterlaceMethod", method), 0);
    EXPECT_GE(SettingsDaemonDbusHandler::GetSetting("video", "zoomLevelsDsl", zoom), 0);

    EXPECT_FALSE(mic);
    EXPECT_EQ(brightness, 12);
    EXPECT_EQ(quality, 42u);
    EXPECT_EQ(maximum, 6000000000ull);
    EXPECT_DOUBLE_EQ(amount, 0.75);
    EXPECT_FLOAT_EQ(hysteresis, 0.25f);
    EXPECT_EQ(method, "high-motion");
    EXPECT_EQ(zoom, (std::vector<float> { 1.5f, 1.0f, 8.0f }));
}

TEST_F(SettingsClient, WritesABooleanThatOtherClientsThenRead)
{
    ASSERT_EQ(SettingsDaemonDbusHandler::SetSetting("video", "rotationEnabled", true), 0);
    EXPECT_EQ(GetWithBusctl("video", "rotationEnabled"), "b true\n");
    ASSERT_EQ(SettingsDaemonDbusHandler::SetSetting("video", "rotationEnabled", false), 0);
    EXPECT_EQ(GetWithBusctl("video", "rotationEnabled"), "b false\n");
}

TEST_F(SettingsClient, AFailedReadKeepsTheCallersValueAndLogsTheKeyAndTheBusError)
{
    LogCapture log;
    bool value = true;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("video", "noSuchKey", value), 0);
    EXPECT_TRUE(value);
    EXPECT_TRUE(log.ContainsText(kGetBoolSignature + ": ERROR sdbus_utils::GetProperty noSuchKey failed "))
        << (log.Lines().empty() ? "" : log.Lines().back().second);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines().front().first, kError);
}

TEST_F(SettingsClient, RefusesValuesOfAnotherTypeInBothDirections)
{
    LogCapture log;
    bool flag = true;
    EXPECT_LT(SettingsDaemonDbusHandler::GetSetting("capture", "jpegImageQuality", flag), 0);
    EXPECT_TRUE(flag);
    EXPECT_TRUE(log.ContainsText("jpegImageQuality failed org.freedesktop.DBus.Error.InvalidSignature"));

    EXPECT_LT(SettingsDaemonDbusHandler::SetSetting("capture", "jpegImageQuality", true), 0);
    EXPECT_TRUE(log.ContainsText(": ERROR sdbus_utils::SetProperty jpegImageQuality failed "
                                 "org.freedesktop.DBus.Error.InvalidArgs"));
    EXPECT_EQ(GetWithBusctl("capture", "jpegImageQuality"), "u 85\n");
}

TEST_F(SettingsClient, ResetMethodsRestoreTheDefaults)
{
    unsigned int original = 0;
    ASSERT_GE(SettingsDaemonDbusHandler::GetSetting("capture", "jpegImageQuality", original), 0);
    const std::string changed = std::to_string(original + 5);

    SetWithBusctl("capture", "jpegImageQuality", "u", { changed });
    EXPECT_EQ(SettingsDaemonDbusHandler::ResetSetting("capture", "jpegImageQuality"), 0);
    EXPECT_EQ(GetWithBusctl("capture", "jpegImageQuality"), "u " + std::to_string(original) + "\n");

    SetWithBusctl("capture", "jpegImageQuality", "u", { changed });
    EXPECT_EQ(SettingsDaemonDbusHandler::ResetSection("capture"), 0);
    EXPECT_EQ(GetWithBusctl("capture", "jpegImageQuality"), "u " + std::to_string(original) + "\n");

    SetWithBusctl("capture", "jpegImageQuality", "u", { changed });
    EXPECT_EQ(SettingsDaemonDbusHandler::ResetToDefaults(true), 0);
    EXPECT_EQ(GetWithBusctl("capture", "jpegImageQuality"), "u " + std::to_string(original) + "\n");
}

TEST_F(SettingsClient, RoutesASectionChangeToTheGeneralSignalThenToThatSectionsSignal)
{
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);

    std::vector<std::string> order;
    TypedPropertyMap general_map;
    TypedPropertyMap video_map;
    std::string general_section;
    client._SettingsChanged.connect([&](const std::string& section, const TypedPropertyMap& map) {
        order.push_back("general");
        general_section = section;
        general_map = map;
    });
    client._VideoSettingsChanged.connect([&](const TypedPropertyMap& map) {
        order.push_back("video");
        video_map = map;
    });
    int others = 0;
    for (const std::string& section : kSections) {
        if (section != "video")
            client.SectionSignal(section)->connect([&](const TypedPropertyMap&) { ++others; });
    }

    SetWithBusctl("video", "sharpen", "b", { "true" });
    ASSERT_TRUE(RunLoopUntil([&] { return order.size() >= 2; }));
    RunLoopFor(100);

    EXPECT_EQ(order, (std::vector<std::string> { "general", "video" }));
    EXPECT_EQ(general_section, "video");
    EXPECT_EQ(others, 0);
    ASSERT_EQ(video_map.count("sharpen"), 1u);
    EXPECT_EQ(video_map.at("sharpen").first, "b");
    EXPECT_TRUE(std::any_cast<bool>(video_map.at("sharpen").second));
    EXPECT_EQ(general_map.size(), video_map.size());
}

TEST_F(SettingsClient, EachOfTheTwentyNineSectionsHasItsOwnSignal)
{
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    std::map<std::string, int> received;
    for (const std::string& section : kSections) {
        SettingsDaemonDbusHandler::SectionChangedSignal* signal = client.SectionSignal(section);
        ASSERT_NE(signal, nullptr) << section;
        signal->connect([&received, section](const TypedPropertyMap&) { ++received[section]; });
    }
    for (const std::string& section : kSections)
        EmitChange(std::string(kBase) + "/" + section, { "probe", "u", "1" });

    ASSERT_TRUE(RunLoopUntil([&] { return received.size() == kSections.size(); }));
    RunLoopFor(100);
    for (const std::string& section : kSections)
        EXPECT_EQ(received[section], 1) << section;
}

TEST_F(SettingsClient, AnUnknownSectionReachesOnlyTheGeneralSignal)
{
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    std::vector<std::string> sections;
    client._SettingsChanged.connect(
        [&](const std::string& section, const TypedPropertyMap&) { sections.push_back(section); });
    int section_signals = 0;
    for (const std::string& section : kSections)
        client.SectionSignal(section)->connect([&](const TypedPropertyMap&) { ++section_signals; });

    EXPECT_EQ(client.SectionSignal("lighting"), nullptr);
    EmitChange(std::string(kBase) + "/lighting", { "level", "u", "3" });
    ASSERT_TRUE(RunLoopUntil([&] { return !sections.empty(); }));
    RunLoopFor(100);
    EXPECT_EQ(sections, (std::vector<std::string> { "lighting" }));
    EXPECT_EQ(section_signals, 0);
}

TEST_F(SettingsClient, AChangeOfAPathEndingInASlashIsRejectedAsMalformed)
{
    LogCapture log;
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    int signals = 0;
    client._SettingsChanged.connect([&](const std::string&, const TypedPropertyMap&) { ++signals; });

    // "/" is the one object path D-Bus carries that ends in a slash.
    EmitChange("/", { "sharpen", "b", "true" });
    const std::string expected = kHandlerSignature + ": Mallformed path string";
    ASSERT_TRUE(RunLoopUntil([&] { return log.Contains(kError, expected); }));
    EXPECT_EQ(signals, 0);
}

TEST_F(SettingsClient, AChangeWithoutAnyPathIsRejected)
{
    LogCapture log;
    SettingsDaemonDbusHandler client(nullptr);
    int signals = 0;
    client._SettingsChanged.connect([&](const std::string&, const TypedPropertyMap&) { ++signals; });

    // A method return carries no object path; give it the change's body.
    sd_bus_message* raw = nullptr;
    ASSERT_GE(sd_bus_message_new_method_call(Bus(), &raw, kService, kBase, kService, "Probe"), 0);
    VideodTest::SdBusMessagePtr call(raw);
    ASSERT_GE(sd_bus_message_seal(call.get(), 1, 0), 0);
    ASSERT_GE(sd_bus_message_new_method_return(call.get(), &raw), 0);
    VideodTest::SdBusMessagePtr change(raw);
    ASSERT_GE(sd_bus_message_append(change.get(), "sa{sv}as", kService, 1, "sharpen", "b", 1, 0), 0);
    ASSERT_GE(sd_bus_message_seal(change.get(), 2, 0), 0);

    EXPECT_EQ(SettingsDaemonDbusHandler::PropertiesChanged(change.get(), &client, nullptr), -1);
    EXPECT_TRUE(log.Contains(kError, kHandlerSignature + ": Failed to find / in path"));
    EXPECT_EQ(signals, 0);
}

TEST_F(SettingsClient, AValueOfAnUnexpectedTypeArrivesWithItsOwnSignature)
{
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    TypedPropertyMap received;
    client._VideoSettingsChanged.connect([&](const TypedPropertyMap& map) { received = map; });

    EmitChange(std::string(kBase) + "/video", { "sharpen", "s", "yes" });
    ASSERT_TRUE(RunLoopUntil([&] { return !received.empty(); }));
    ASSERT_EQ(received.count("sharpen"), 1u);
    EXPECT_EQ(received.at("sharpen").first, "s");
    EXPECT_EQ(std::any_cast<std::string>(received.at("sharpen").second), "yes");
    EXPECT_THROW(std::any_cast<bool>(received.at("sharpen").second), std::bad_any_cast);
}

TEST_F(SettingsClientWithoutDaemon, ReadsWritesAndResetsFailWithTheBusError)
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
}

TEST_F(SettingsClientWithoutDaemon, ListenStillSubscribesSoALaterDaemonIsHeard)
{
    SettingsDaemonDbusHandler client(nullptr);
    ASSERT_EQ(client.Listen(), 0);
    int changes = 0;
    client._CaptureSettingsChanged.connect([&](const TypedPropertyMap&) { ++changes; });
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kBase) + "/capture", kService,
                  "jpegImageQuality", "u", "60" }),
        0);
    EXPECT_TRUE(RunLoopUntil([&] { return changes == 1; }));
}

TEST_F(SettingsClientWithoutDaemon, ListenWithoutABusLogsAndFails)
{
    LogCapture log;
    const std::string address = BusAddress();
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + TempDir() + "/no-such-bus").c_str(), 1);
    SettingsDaemonDbusHandler client(nullptr);
    const int32_t result = client.Listen();
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_LT(result, 0);
    EXPECT_FALSE(client.IsConnected());
    EXPECT_TRUE(log.Contains(
        kError, "int32_t Settingsd::SettingsDaemonDbusHandler::Listen(): Failed to connect to dbus"));
}
