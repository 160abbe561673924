// Checks the simulated peer daemons of host/peers through busctl and sd-bus on a private bus.
#include "dbus/dbus_test_env.h"

#include <sstream>
#include <string>
#include <vector>

using VideodTest::DbusTestEnv;
using VideodTest::SdBusError;
using VideodTest::SdBusMessagePtr;

namespace
{

const std::string kSim = "com.tarnwell.host.Simulation";
const std::string kSettings = "com.tarnwell.common.Settings1";
const std::string kSettingsPath = "/com/tarnwell/common/Settings1";
const std::string kStorage = "com.tarnwell.common.StorageDaemon1";
const std::string kStoragePath = "/com/tarnwell/common/StorageDaemon1";
const std::string kDevice = "com.tarnwell.common.StorageDaemon1.Device";
const std::string kHelm = "com.tarnwell.common.Helm1";
const std::string kHelmPath = "/com/tarnwell/common/Helm1";
const std::string kCamdPath = "/com/tarnwell/common/Camd1";

class Peers : public DbusTestEnv
{
protected:
    bool WatchSignal(const std::string& sender, const std::string& path, const std::string& iface,
        const std::string& member)
    {
        return AddMatch("type='signal',sender='" + sender + "',path='" + path + "',interface='" + iface
            + "',member='" + member + "'");
    }

    // Reads a PropertiesChanged body up to the first changed value: returns "interface key signature" and
    // leaves the message at that variant.
    static std::string FirstChange(sd_bus_message* m)
    {
        const char* iface = nullptr;
        const char* key = nullptr;
        const char* contents = nullptr;
        char type = 0;
        if (sd_bus_message_read(m, "s", &iface) < 0 || sd_bus_message_enter_container(m, 'a', "{sv}") <= 0
            || sd_bus_message_enter_container(m, 'e', "sv") <= 0 || sd_bus_message_read(m, "s", &key) < 0
            || sd_bus_message_peek_type(m, &type, &contents) < 0)
            return "unreadable";
        return std::string(iface) + " " + key + " " + contents;
    }
};

// Every peer's objects introspect cleanly. Storage refuses to start without an existing directory and
// moves the primary device when it goes; the system controller publishes its objects and keeps remote
// credentials; the remote camera monitor announces reel events; the camera daemon sends motion samples
// periodically from the active camera; the display counts ResetCsc calls in a readable property; a
// stopped peer releases its name and calls fail quickly. Video status, reel counting, the camera daemon's
// objects, device properties, write activity and formatting are checked through their clients.
TEST_F(Peers, EveryPeerIntrospectsCleanlyAndAnswersAsItsClientsExpect)
{
    EXPECT_FALSE(StartPeer("storage", { TempDir() + "/missing" }));
    EXPECT_NE(std::string::npos, LastError().find("No directory")) << LastError();
    const std::string dir = TempDir() + "/sd";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    const std::map<std::string, std::vector<std::string>> args { { "storage", { dir } },
        { "helm", { "--remote-ip", "10.0.0.7" } }, { "camd", { "--motion-period-ms", "20" } } };
    for (const auto& [peer, name] : PeerBusNames()) {
        ASSERT_TRUE(StartPeer(peer, args.count(peer) ? args.at(peer) : std::vector<std::string> {}))
            << LastError();
        std::string paths;
        ASSERT_EQ(0, Busctl({ "tree", "--list", name }, &paths)) << peer;
        std::istringstream lines(paths);
        std::string path;
        int objects = 0;
        while (std::getline(lines, path)) {
            std::string xml;
            EXPECT_EQ(0, Busctl({ "introspect", "--xml-interface", name, path }, &xml))
                << name << " " << path;
            // The nodes above a peer's objects only list their children.
            if (path.rfind("/com/tarnwell/common/", 0) != 0)
                continue;
            EXPECT_NE(std::string::npos, xml.find("<interface name=\"org.freedesktop.DBus.Properties\">"))
                << path;
            ++objects;
        }
        EXPECT_GE(objects, 1) << peer;
    }

    ASSERT_EQ(0, Call(kStorage, kStoragePath, kSim, "AddDevice", { "ss", "extra", TempDir() }));
    EXPECT_EQ("as 2 \"" + kStoragePath + "/device0\" \"" + kStoragePath + "/extra\"",
        Get(kStorage, kStoragePath, kStorage, "AvailableDevices"));
    ASSERT_EQ(0, Call(kStorage, kStoragePath, kSim, "RemoveDevice", { "s", "device0" }));
    EXPECT_EQ("s \"" + kStoragePath + "/extra\"", Get(kStorage, kStoragePath, kStorage, "PrimaryDevice"));
    EXPECT_EQ("error", Get(kStorage, kStoragePath + "/device0", kDevice, "IsMounted"));

    const std::string control = kHelm + ".Control";
    EXPECT_EQ("s \"10.0.0.7\"", Get(kHelm, kHelmPath, control, "RemoteIP"));
    ASSERT_EQ(0, Set(kHelm, kHelmPath, control, "RemoteDbusAddr", { "s", "abc123" }));
    EXPECT_EQ("s \"abc123\"", Get(kHelm, kHelmPath, control, "RemoteDbusAddr"));
    std::string managed;
    ASSERT_EQ(
        0, Call(kHelm, kHelmPath, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", {}, &managed));
    for (const char* child : { "/reel\"", "/reel/firmware\"", "/reel/distance\"", "/power\"", "/cooling\"" })
        EXPECT_NE(std::string::npos, managed.find(kHelmPath + child)) << child;

    const std::string remote = "com.tarnwell.common.RemoteCamMonitor1",
                      remotePath = "/com/tarnwell/common/RemoteCamMonitor1";
    ASSERT_TRUE(WatchSignal(remote, remotePath, "org.freedesktop.DBus.Properties", "PropertiesChanged"));
    ASSERT_EQ(0, Set(remote, remotePath, remote, "RemoteCameraReelSSE", { "s", "{\"count\":1.5}" }));
    SdBusMessagePtr changed = WaitForMessage();
    ASSERT_TRUE(changed);
    EXPECT_EQ(remote + " RemoteCameraReelSSE s", FirstChange(changed.get()));
    const char* text = nullptr;
    ASSERT_GE(sd_bus_message_read(changed.get(), "v", "s", &text), 0);
    EXPECT_STREQ("{\"count\":1.5}", text);

    ASSERT_TRUE(AddMatch("type='signal',sender='com.tarnwell.common.Camd1',member='RawMotionData'"));
    for (int i = 0; i < 3; ++i) {
        SdBusMessagePtr sample = WaitForMessage();
        ASSERT_TRUE(sample) << i;
        EXPECT_EQ(kCamdPath + "/Camera0", sd_bus_message_get_path(sample.get()));
    }

    const std::string display = "com.tarnwell.common.Display1", displayPath = "/com/tarnwell/common/Display1";
    EXPECT_EQ("u 0", Get(display, displayPath, kSim, "ResetCscCount"));
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(0, Call(display, displayPath, display + ".Control", "ResetCsc"));
    EXPECT_EQ("u 2", Get(display, displayPath, kSim, "ResetCscCount"));
    EXPECT_NE(0, Set(display, displayPath, kSim, "ResetCscCount", { "u", "7" }));
    EXPECT_FALSE(StartPeer("display")); // already running
    ASSERT_TRUE(StopPeer("display"));
    SdBusError error;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_call_method(Bus(), display.c_str(), displayPath.c_str(), (display + ".Control").c_str(),
        "ResetCsc", error.Get(), &raw, "");
    SdBusMessagePtr reply(raw);
    EXPECT_LT(r, 0);
    EXPECT_TRUE(sd_bus_error_has_name(error.Get(), "org.freedesktop.DBus.Error.ServiceUnknown"))
        << error.Message();
    EXPECT_NE(std::string::npos, ProgramLog("display").find("leaves com.tarnwell.common.Display1"));
}

// Writes of the right type are accepted and each announced; resets restore one key, one section or
// everything; a key can be left out.
TEST_F(Peers, SettingsPublishesEveryKeyWithItsTypeAcceptsWritesResetsAndLeavesKeysOut)
{
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    for (const auto& section : VideodTest::SettingsSections())
        EXPECT_EQ(0,
            Call(kSettings, kSettingsPath + "/" + section, "org.freedesktop.DBus.Properties", "GetAll",
                { "s", kSettings }))
            << section;
    EXPECT_EQ("error", Get(kSettings, kSettingsPath + "/nosuchsection", kSettings, "hue"));
    // Per section: "key:signature" words.
    const std::pair<const char*, const char*> keys[] = {
        { "videoRecording", "h264EncodingBitrate:u h264EncodingGop:u h264EncodingQuantization:u" },
        { "autologRecording", "h264EncodingBitrate:u h264EncodingGop:u h264EncodingQuantization:u" },
        { "video",
            "deinterlaceMethod:s rotationOverrideAngle:i rotationEnabled:b maximumFilesize:t sharpen:b "
            "sharpenAmount:d dslBackgroundMode:u zoomLevelsDsl:ad zoomLevelsNonDsl:ad dslMaxZoomIn:u "
            "dslZoomPeriod:u dslZoomDelay:u dslHysteresis:d dslAutoZoomOverride:b rotationSteps:s "
            "rotationThreshold:i rotationAfterNumFrames:i rollFilterCoeffs:s dslAnimationDuration:u" },
        { "development", "maxTiltAngle:i renderFramerate:b pipelineMetricsEnabled:b" },
        { "capture", "jpegImageQuality:u autogain:b brightness:i contrast:i hue:i saturation:i" },
        { "overlay",
            "recordTemplate:s displayTemplate:s mode:s enableDate:b enableTime:b enablePlumbline:b "
            "enableCount:b enableUserText:b overlayDateFormat:s overlayTimeFormat:s "
            "overlayReelCountDecimalMark:s userTextFontSize:u dateTimeFontSize:u countFontSize:u" },
        { "reel", "distanceUnits:s" },
        { "motionDetection", "dynamicTilingEnabled:b detectionPeriod:u" },
        { "audio", "micEnabled:b" },
    };
    int checked = 0;
    for (const auto& [section, words] : keys) {
        std::istringstream list(words);
        for (std::string word; list >> word; ++checked) {
            const std::string key = word.substr(0, word.find(':')), type = word.substr(word.find(':') + 1);
            SdBusError error;
            sd_bus_message* raw = nullptr;
            ASSERT_GE(sd_bus_get_property(Bus(), kSettings.c_str(), (kSettingsPath + "/" + section).c_str(),
                          kSettings.c_str(), key.c_str(), error.Get(), &raw, type.c_str()),
                0)
                << section << "/" << key << ": " << error.Message();
            SdBusMessagePtr reply(raw);
            char found = 0;
            const char* contents = nullptr; // the reply is left inside the variant
            ASSERT_GE(sd_bus_message_peek_type(reply.get(), &found, &contents), 0);
            EXPECT_EQ(type, std::string(1, found) + (contents ? contents : "")) << section << "/" << key;
        }
    }
    EXPECT_EQ(52, checked);

    const std::string video = kSettingsPath + "/video", overlay = kSettingsPath + "/overlay";
    ASSERT_TRUE(WatchSignal(kSettings, video, "org.freedesktop.DBus.Properties", "PropertiesChanged"));
    EXPECT_NE(0, Set(kSettings, video, kSettings, "sharpenAmount", { "u", "3" }));
    EXPECT_EQ("d 0.5", Get(kSettings, video, kSettings, "sharpenAmount"));
    ASSERT_EQ(0, Set(kSettings, video, kSettings, "sharpenAmount", { "d", "0.75" }));
    EXPECT_EQ("d 0.75", Get(kSettings, video, kSettings, "sharpenAmount"));
    ASSERT_EQ(0, Set(kSettings, video, kSettings, "sharpenAmount", { "d", "0.75" }));
    for (int i = 0; i < 2; ++i) { // the refused write announced nothing; both accepted ones did
        SdBusMessagePtr changed = WaitForMessage();
        ASSERT_TRUE(changed) << "PropertiesChanged " << i;
        EXPECT_EQ(kSettings + " sharpenAmount d", FirstChange(changed.get()));
        double value = 0;
        ASSERT_GE(sd_bus_message_read(changed.get(), "v", "d", &value), 0);
        EXPECT_DOUBLE_EQ(0.75, value);
    }
    EXPECT_FALSE(WaitForMessage(200));

    ASSERT_EQ(0, Set(kSettings, video, kSettings, "sharpen", { "b", "true" }));
    ASSERT_EQ(0, Set(kSettings, video, kSettings, "dslZoomDelay", { "u", "5" }));
    ASSERT_EQ(0, Set(kSettings, overlay, kSettings, "mode", { "s", "off" }));
    ASSERT_EQ(0, Call(kSettings, kSettingsPath, kSettings, "ResetSetting", { "ss", "video", "sharpen" }));
    // Both writes of the video section, then the reset, are announced.
    for (const char* change : { " sharpen b", " dslZoomDelay u", " sharpen b" }) {
        SdBusMessagePtr changed = WaitForMessage();
        ASSERT_TRUE(changed) << change;
        EXPECT_EQ(kSettings + change, FirstChange(changed.get()));
    }
    EXPECT_EQ("b false", Get(kSettings, video, kSettings, "sharpen"));
    EXPECT_EQ("u 5", Get(kSettings, video, kSettings, "dslZoomDelay"));
    ASSERT_EQ(0, Call(kSettings, kSettingsPath, kSettings, "ResetSection", { "s", "video" }));
    EXPECT_EQ("u 1000", Get(kSettings, video, kSettings, "dslZoomDelay"));
    EXPECT_EQ("s \"off\"", Get(kSettings, overlay, kSettings, "mode"));
    ASSERT_EQ(0, Call(kSettings, kSettingsPath, kSettings, "ResetToDefaults", { "b", "true" }));
    EXPECT_EQ("s \"display\"", Get(kSettings, overlay, kSettings, "mode"));
    EXPECT_NE(0, Call(kSettings, kSettingsPath, kSettings, "ResetSection", { "s", "nosuchsection" }));
    EXPECT_NE(0, Call(kSettings, kSettingsPath, kSettings, "ResetSetting", { "ss", "video", "nosuchkey" }));

    // Keys can be left out; the changes it sends on request are checked through the settings client.
    ASSERT_TRUE(StopPeer("settings"));
    ASSERT_TRUE(StartPeer("settings", { "--without", "video/sharpen" })) << LastError();
    EXPECT_EQ("error", Get(kSettings, video, kSettings, "sharpen"));
    EXPECT_EQ("d 0.5", Get(kSettings, video, kSettings, "sharpenAmount"));
}

} // namespace
