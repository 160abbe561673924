// Checks the simulated peer daemons of host/peers through busctl and sd-bus on a private bus.
#include "dbus/dbus_test_env.h"

#include <sys/statvfs.h>

#include <fstream>
#include <set>
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
const std::string kCamd = "com.tarnwell.common.Camd1";
const std::string kCamdPath = "/com/tarnwell/common/Camd1";

class Peers : public DbusTestEnv
{
protected:
    // busctl get-property's text ("u 2"), without the line end; "error" when the read fails.
    std::string Get(const std::string& service, const std::string& path, const std::string& iface,
        const std::string& name)
    {
        std::string out;
        if (Busctl({ "get-property", service, path, iface, name }, &out) != 0)
            return "error";
        while (!out.empty() && out.back() == '\n')
            out.pop_back();
        return out;
    }

    int Set(const std::string& service, const std::string& path, const std::string& iface,
        const std::string& name, const std::vector<std::string>& typedValue)
    {
        std::vector<std::string> args { "set-property", service, path, iface, name };
        args.insert(args.end(), typedValue.begin(), typedValue.end());
        return Busctl(args);
    }

    int Call(const std::string& service, const std::string& path, const std::string& iface,
        const std::string& method, const std::vector<std::string>& args = {}, std::string* out = nullptr)
    {
        std::vector<std::string> argv { "call", service, path, iface, method };
        argv.insert(argv.end(), args.begin(), args.end());
        return Busctl(argv, out);
    }

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

TEST_F(Peers, EveryObjectOfEveryPeerIntrospectsCleanly)
{
    std::string dir = TempDir() + "/sd";
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    for (const auto& [peer, name] : PeerBusNames()) {
        ASSERT_TRUE(peer == "storage" ? StartPeer(peer, { dir }) : StartPeer(peer)) << LastError();
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
}

TEST_F(Peers, SettingsPublishesEverySectionWithTypedDefaults)
{
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    const std::vector<std::string> sections { "boot", "system", "audio", "keyBeep", "display", "capture",
        "jobs", "sync", "sonde", "reel", "camera", "overlay", "video", "videoRecording", "autologRecording",
        "snapVoiceRecording", "storage", "development", "bluetooth", "device", "network", "motionDetection",
        "contacts", "remoteCamera", "remoteDevices", "shutdown", "time", "gps", "cooling" };
    for (const auto& section : sections)
        EXPECT_EQ(0,
            Call(kSettings, kSettingsPath + "/" + section, "org.freedesktop.DBus.Properties", "GetAll",
                { "s", kSettings }))
            << section;
    EXPECT_EQ("ad 3 1 1 4", Get(kSettings, kSettingsPath + "/video", kSettings, "zoomLevelsDsl"));
    EXPECT_EQ("s \"180\"", Get(kSettings, kSettingsPath + "/video", kSettings, "rotationSteps"));
    EXPECT_EQ("s \"1 1\"", Get(kSettings, kSettingsPath + "/video", kSettings, "rollFilterCoeffs"));
    EXPECT_EQ("u 16", Get(kSettings, kSettingsPath + "/videoRecording", kSettings, "h264EncodingGop"));
    EXPECT_EQ('t', Get(kSettings, kSettingsPath + "/video", kSettings, "maximumFilesize")[0]);
    EXPECT_EQ("b true", Get(kSettings, kSettingsPath + "/capture", kSettings, "autogain"));
    EXPECT_EQ('i', Get(kSettings, kSettingsPath + "/capture", kSettings, "hue")[0]);
    EXPECT_EQ("error", Get(kSettings, kSettingsPath + "/nosuchsection", kSettings, "hue"));
}

TEST_F(Peers, SettingsHoldsEveryKeyTheDaemonReadsWithItsType)
{
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    struct Key {
        const char* section;
        const char* key;
        const char* type;
    };
    const Key keys[] = { { "videoRecording", "h264EncodingBitrate", "u" },
        { "videoRecording", "h264EncodingGop", "u" }, { "videoRecording", "h264EncodingQuantization", "u" },
        { "autologRecording", "h264EncodingBitrate", "u" }, { "autologRecording", "h264EncodingGop", "u" },
        { "autologRecording", "h264EncodingQuantization", "u" }, { "video", "deinterlaceMethod", "s" },
        { "video", "rotationOverrideAngle", "i" }, { "video", "rotationEnabled", "b" },
        { "development", "maxTiltAngle", "i" }, { "video", "maximumFilesize", "t" },
        { "capture", "jpegImageQuality", "u" }, { "video", "sharpen", "b" },
        { "video", "sharpenAmount", "d" }, { "overlay", "recordTemplate", "s" },
        { "overlay", "displayTemplate", "s" }, { "overlay", "mode", "s" }, { "overlay", "enableDate", "b" },
        { "overlay", "enableTime", "b" }, { "overlay", "enablePlumbline", "b" },
        { "overlay", "enableCount", "b" }, { "overlay", "enableUserText", "b" },
        { "development", "renderFramerate", "b" }, { "development", "pipelineMetricsEnabled", "b" },
        { "video", "dslBackgroundMode", "u" }, { "overlay", "overlayDateFormat", "s" },
        { "overlay", "overlayTimeFormat", "s" }, { "overlay", "overlayReelCountDecimalMark", "s" },
        { "overlay", "userTextFontSize", "u" }, { "overlay", "dateTimeFontSize", "u" },
        { "overlay", "countFontSize", "u" }, { "reel", "distanceUnits", "s" },
        { "motionDetection", "dynamicTilingEnabled", "b" }, { "motionDetection", "detectionPeriod", "u" },
        { "audio", "micEnabled", "b" }, { "video", "zoomLevelsDsl", "ad" },
        { "video", "zoomLevelsNonDsl", "ad" }, { "video", "dslMaxZoomIn", "u" },
        { "video", "dslZoomPeriod", "u" }, { "video", "dslZoomDelay", "u" },
        { "video", "dslHysteresis", "d" }, { "video", "dslAutoZoomOverride", "b" },
        { "video", "rotationSteps", "s" }, { "video", "rotationThreshold", "i" },
        { "video", "rotationAfterNumFrames", "i" }, { "video", "rollFilterCoeffs", "s" },
        { "video", "dslAnimationDuration", "u" }, { "capture", "autogain", "b" },
        { "capture", "brightness", "i" }, { "capture", "contrast", "i" }, { "capture", "hue", "i" },
        { "capture", "saturation", "i" } };
    for (const Key& k : keys) {
        SdBusError error;
        sd_bus_message* raw = nullptr;
        int r = sd_bus_get_property(Bus(), kSettings.c_str(), (kSettingsPath + "/" + k.section).c_str(),
            kSettings.c_str(), k.key, error.get(), &raw, k.type);
        SdBusMessagePtr reply(raw);
        ASSERT_GE(r, 0) << k.section << "/" << k.key << ": " << error.Text();
        char type = 0;
        const char* contents = nullptr;
        // The reply is already inside the variant, whose type sd_bus_get_property has checked.
        ASSERT_GE(sd_bus_message_peek_type(reply.get(), &type, &contents), 0);
        EXPECT_EQ(k.type, std::string(1, type) + (contents ? contents : "")) << k.section << "/" << k.key;
    }
}

TEST_F(Peers, SettingsAcceptsWritesOfTheRightTypeAndAnnouncesEach)
{
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    const std::string video = kSettingsPath + "/video";
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
}

TEST_F(Peers, SettingsResetsOneKeyOneSectionOrEverything)
{
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    const std::string video = kSettingsPath + "/video";
    const std::string overlay = kSettingsPath + "/overlay";
    ASSERT_EQ(0, Set(kSettings, video, kSettings, "sharpen", { "b", "true" }));
    ASSERT_EQ(0, Set(kSettings, video, kSettings, "dslZoomDelay", { "u", "5" }));
    ASSERT_EQ(0, Set(kSettings, overlay, kSettings, "mode", { "s", "off" }));
    ASSERT_TRUE(WatchSignal(kSettings, video, "org.freedesktop.DBus.Properties", "PropertiesChanged"));

    ASSERT_EQ(0, Call(kSettings, kSettingsPath, kSettings, "ResetSetting", { "ss", "video", "sharpen" }));
    EXPECT_EQ("b false", Get(kSettings, video, kSettings, "sharpen"));
    EXPECT_EQ("u 5", Get(kSettings, video, kSettings, "dslZoomDelay"));
    SdBusMessagePtr changed = WaitForMessage();
    ASSERT_TRUE(changed);
    EXPECT_EQ(kSettings + " sharpen b", FirstChange(changed.get()));

    ASSERT_EQ(0, Call(kSettings, kSettingsPath, kSettings, "ResetSection", { "s", "video" }));
    EXPECT_EQ("u 1000", Get(kSettings, video, kSettings, "dslZoomDelay"));
    EXPECT_EQ("s \"off\"", Get(kSettings, overlay, kSettings, "mode"));
    ASSERT_EQ(0, Call(kSettings, kSettingsPath, kSettings, "ResetToDefaults", { "b", "true" }));
    EXPECT_EQ("s \"display\"", Get(kSettings, overlay, kSettings, "mode"));

    EXPECT_NE(0, Call(kSettings, kSettingsPath, kSettings, "ResetSection", { "s", "nosuchsection" }));
    EXPECT_NE(0, Call(kSettings, kSettingsPath, kSettings, "ResetSetting", { "ss", "video", "nosuchkey" }));
}

TEST_F(Peers, SettingsSendsArbitraryChangesAndCanLeaveKeysOut)
{
    ASSERT_TRUE(StartPeer("settings", { "--without", "video/sharpen" })) << LastError();
    EXPECT_EQ("error", Get(kSettings, kSettingsPath + "/video", kSettings, "sharpen"));
    EXPECT_EQ("d 0.5", Get(kSettings, kSettingsPath + "/video", kSettings, "sharpenAmount"));

    const std::string bogus = kSettingsPath + "/bogus";
    ASSERT_TRUE(WatchSignal(kSettings, bogus, "org.freedesktop.DBus.Properties", "PropertiesChanged"));
    ASSERT_EQ(0,
        Call(kSettings, kSettingsPath, kSim, "EmitPropertiesChanged",
            { "osa{sv}", bogus, kSettings, "1", "sharpen", "s", "yes" }));
    SdBusMessagePtr changed = WaitForMessage();
    ASSERT_TRUE(changed);
    EXPECT_EQ(kSettings + " sharpen s", FirstChange(changed.get()));
}

TEST_F(Peers, StorageReportsDirectoriesAsMountedDevicesAndRecordsWriteActivity)
{
    const std::string sd = TempDir() + "/sd", usb = TempDir() + "/usb";
    ASSERT_EQ(0, mkdir(sd.c_str(), 0755));
    ASSERT_EQ(0, mkdir(usb.c_str(), 0755));
    ASSERT_TRUE(StartPeer("storage", { sd, "usb=" + usb })) << LastError();
    const std::string dev0 = kStoragePath + "/device0", dev1 = kStoragePath + "/usb";

    std::string managed;
    ASSERT_EQ(0,
        Call(
            kStorage, kStoragePath, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", {}, &managed));
    EXPECT_EQ(0u, managed.rfind("a{oa{sa{sv}}} 2 ", 0)) << managed;
    EXPECT_NE(std::string::npos, managed.find("\"" + dev1 + "\" ")) << managed;
    EXPECT_EQ("s \"" + usb + "\"", Get(kStorage, dev1, kDevice, "MountPoint"));
    EXPECT_EQ("b true", Get(kStorage, dev0, kDevice, "IsMounted"));
    EXPECT_EQ("s \"" + dev0 + "\"", Get(kStorage, kStoragePath, kStorage, "PrimaryDevice"));

    struct statvfs fs {
    };
    ASSERT_EQ(0, statvfs(usb.c_str(), &fs));
    unsigned long long expected = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
    std::string free = Get(kStorage, dev1, kDevice, "FreeSpace");
    ASSERT_EQ(0u, free.rfind("t ", 0)) << free;
    unsigned long long reported = std::stoull(free.substr(2));
    EXPECT_LT(reported > expected ? reported - expected : expected - reported, 64ull << 20);

    ASSERT_EQ(0, Call(kStorage, dev1, kDevice, "SetWriteActive", { "yb", "4", "true" }));
    ASSERT_EQ(0, Call(kStorage, dev1, kDevice, "SetWriteActive", { "yb", "2", "true" }));
    EXPECT_NE(0, Call(kStorage, dev1, kDevice, "SetWriteActive", { "yb", "5", "true" }));
    EXPECT_EQ("b false", Get(kStorage, dev1, kDevice, "IsSafeToRemove"));
    EXPECT_NE(0, Call(kStorage, dev1, kDevice, "StartFormat"));
    ASSERT_EQ(0, Call(kStorage, dev1, kDevice, "SetWriteActive", { "yb", "4", "false" }));
    EXPECT_EQ("ay 1 2", Get(kStorage, dev1, kSim, "WriteActiveTypes"));
    ASSERT_EQ(0, Call(kStorage, dev1, kDevice, "SetWriteActive", { "yb", "2", "false" }));
    EXPECT_EQ("b true", Get(kStorage, dev1, kDevice, "IsSafeToRemove"));
    EXPECT_EQ("u 4", Get(kStorage, dev1, kSim, "SetWriteActiveCount"));
    EXPECT_EQ(
        "as 4 \"4:true\" \"2:true\" \"4:false\" \"2:false\"", Get(kStorage, dev1, kSim, "WriteActiveCalls"));
    EXPECT_EQ("u 0", Get(kStorage, dev0, kSim, "SetWriteActiveCount"));
    ASSERT_EQ(0, Call(kStorage, dev1, kDevice, "StartFormat"));
    EXPECT_EQ("u 1", Get(kStorage, dev1, kSim, "FormatCount"));
}

TEST_F(Peers, StorageAnnouncesDevicesComingAndGoing)
{
    const std::string sd = TempDir() + "/sd";
    ASSERT_EQ(0, mkdir(sd.c_str(), 0755));
    ASSERT_TRUE(StartPeer("storage", { sd })) << LastError();
    ASSERT_TRUE(WatchSignal(kStorage, kStoragePath, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded"));
    ASSERT_TRUE(
        WatchSignal(kStorage, kStoragePath, "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved"));

    ASSERT_EQ(0, Call(kStorage, kStoragePath, kSim, "AddDevice", { "ss", "extra", TempDir() }));
    SdBusMessagePtr added = WaitForMessage();
    ASSERT_TRUE(added);
    const char* path = nullptr;
    ASSERT_GE(sd_bus_message_read(added.get(), "o", &path), 0);
    EXPECT_EQ(kStoragePath + "/extra", path);
    EXPECT_EQ("as 2 \"" + kStoragePath + "/device0\" \"" + kStoragePath + "/extra\"",
        Get(kStorage, kStoragePath, kStorage, "AvailableDevices"));

    ASSERT_EQ(0, Call(kStorage, kStoragePath, kSim, "RemoveDevice", { "s", "device0" }));
    SdBusMessagePtr removed = WaitForMessage();
    ASSERT_TRUE(removed);
    EXPECT_STREQ("InterfacesRemoved", sd_bus_message_get_member(removed.get()));
    EXPECT_EQ("s \"" + kStoragePath + "/extra\"", Get(kStorage, kStoragePath, kStorage, "PrimaryDevice"));
    EXPECT_EQ("error", Get(kStorage, kStoragePath + "/device0", kDevice, "IsMounted"));
}

TEST_F(Peers, StorageRefusesToStartWithoutAnExistingDirectory)
{
    EXPECT_FALSE(StartPeer("storage", { TempDir() + "/missing" }));
    EXPECT_NE(std::string::npos, LastError().find("No directory")) << LastError();
}

TEST_F(Peers, HelmAnnouncesVideoStatusAndKeepsRemoteCredentials)
{
    ASSERT_TRUE(StartPeer("helm", { "--remote-ip", "10.0.0.7" })) << LastError();
    const std::string control = kHelm + ".Control";
    EXPECT_EQ("i 0", Get(kHelm, kHelmPath, control, "VideoStatus"));
    EXPECT_EQ("s \"10.0.0.7\"", Get(kHelm, kHelmPath, control, "RemoteIP"));
    ASSERT_TRUE(WatchSignal(kHelm, kHelmPath, control, "VideoStatusChanged"));

    ASSERT_EQ(0, Set(kHelm, kHelmPath, control, "VideoStatus", { "i", "1" }));
    SdBusMessagePtr status = WaitForMessage();
    ASSERT_TRUE(status);
    int32_t value = -1;
    ASSERT_GE(sd_bus_message_read(status.get(), "i", &value), 0);
    EXPECT_EQ(1, value);
    ASSERT_EQ(0, Set(kHelm, kHelmPath, control, "RemoteDbusAddr", { "s", "abc123" }));
    EXPECT_EQ("s \"abc123\"", Get(kHelm, kHelmPath, control, "RemoteDbusAddr"));

    std::string managed;
    ASSERT_EQ(
        0, Call(kHelm, kHelmPath, "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", {}, &managed));
    for (const char* child : { "/reel\"", "/reel/firmware\"", "/reel/distance\"", "/power\"", "/cooling\"" })
        EXPECT_NE(std::string::npos, managed.find(kHelmPath + child)) << child;
    ASSERT_EQ(0, Set(kHelm, kHelmPath + "/reel", kHelm + ".reel", "Count", { "d", "12.5" }));
    ASSERT_EQ(0, Call(kHelm, kHelmPath + "/reel", kHelm + ".reel", "ZeroCount"));
    EXPECT_EQ("d 0", Get(kHelm, kHelmPath + "/reel", kHelm + ".reel", "Count"));
}

TEST_F(Peers, CamdPublishesCamerasWithFeaturesTilingAndMotionSamples)
{
    ASSERT_TRUE(StartPeer("camd", { "--cameras", "2", "--active", "1", "--features", "Hdr,DigitalSL" }))
        << LastError();
    const std::string cam1 = kCamdPath + "/Camera1";
    EXPECT_EQ("i 1", Get(kCamd, kCamdPath, kCamd, "ActiveCameraIndex"));
    std::string features;
    ASSERT_EQ(0,
        Call(kCamd, cam1, "org.freedesktop.DBus.Properties", "GetAll", { "s", kCamd + ".Features" },
            &features));
    EXPECT_EQ(
        "a{sv} 8 \"Hdr\" b true \"Awb\" b false \"PlumbLine\" b false \"Microphone\" b false \"Tiling\" b "
        "false \"Autorotate\" b false \"MechanicalSL\" b false \"DigitalSL\" b true\n",
        features);

    ASSERT_EQ(0, Set(kCamd, cam1, kCamd + ".Tiling", "TilingMode", { "u", "2" }));
    EXPECT_EQ("u 2", Get(kCamd, cam1, kCamd + ".Tiling", "TilingMode"));
    ASSERT_EQ(0, Set(kCamd, cam1, kSim, "RequestTilesReply", { "u", "9" }));
    std::string reply;
    ASSERT_EQ(0, Call(kCamd, cam1, kCamd + ".Camera", "RequestTiles", {}, &reply));
    EXPECT_EQ("u 9\n", reply);
    EXPECT_EQ("u 1", Get(kCamd, cam1, kSim, "RequestTilesCount"));

    ASSERT_TRUE(
        AddMatch("type='signal',interface='com.tarnwell.common.Camd1.Camera',member='RawMotionData'"));
    ASSERT_EQ(
        0, Call(kCamd, cam1, kSim, "EmitRawMotionData", { "ddddddd", "1", "2", "3", "4", "5", "6", "7.5" }));
    SdBusMessagePtr sample = WaitForMessage();
    ASSERT_TRUE(sample);
    EXPECT_EQ(cam1, sd_bus_message_get_path(sample.get()));
    double v[7] = {};
    ASSERT_GE(
        sd_bus_message_read(sample.get(), "ddddddd", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]), 0);
    EXPECT_DOUBLE_EQ(1, v[0]);
    EXPECT_DOUBLE_EQ(7.5, v[6]);

    ASSERT_EQ(0, Call(kCamd, kCamdPath, kSim, "RemoveCamera", { "i", "1" }));
    EXPECT_EQ("i -1", Get(kCamd, kCamdPath, kCamd, "ActiveCameraIndex"));
    EXPECT_EQ("error", Get(kCamd, cam1, kCamd + ".Tiling", "TilingMode"));
}

TEST_F(Peers, CamdSendsMotionSamplesPeriodicallyFromTheActiveCamera)
{
    ASSERT_TRUE(StartPeer("camd", { "--motion-period-ms", "20" })) << LastError();
    ASSERT_TRUE(AddMatch("type='signal',sender='com.tarnwell.common.Camd1',member='RawMotionData'"));
    for (int i = 0; i < 3; ++i) {
        SdBusMessagePtr sample = WaitForMessage();
        ASSERT_TRUE(sample) << i;
        EXPECT_EQ(kCamdPath + "/Camera0", sd_bus_message_get_path(sample.get()));
    }
}

TEST_F(Peers, DisplayCountsResetCscCallsInAReadableProperty)
{
    ASSERT_TRUE(StartPeer("display")) << LastError();
    const std::string service = "com.tarnwell.common.Display1", object = "/com/tarnwell/common/Display1";
    EXPECT_EQ("u 0", Get(service, object, kSim, "ResetCscCount"));
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(0, Call(service, object, service + ".Control", "ResetCsc"));
    EXPECT_EQ("u 2", Get(service, object, kSim, "ResetCscCount"));
    EXPECT_NE(0, Set(service, object, kSim, "ResetCscCount", { "u", "7" }));
}

TEST_F(Peers, RemoteCameraMonitorAnnouncesReelEvents)
{
    ASSERT_TRUE(StartPeer("remotecam")) << LastError();
    const std::string service = "com.tarnwell.common.RemoteCamMonitor1",
                      object = "/com/tarnwell/common/RemoteCamMonitor1";
    ASSERT_TRUE(WatchSignal(service, object, "org.freedesktop.DBus.Properties", "PropertiesChanged"));
    ASSERT_EQ(0, Set(service, object, service, "RemoteCameraReelSSE", { "s", "{\"count\":1.5}" }));
    SdBusMessagePtr changed = WaitForMessage();
    ASSERT_TRUE(changed);
    EXPECT_EQ(service + " RemoteCameraReelSSE s", FirstChange(changed.get()));
    const char* text = nullptr;
    ASSERT_GE(sd_bus_message_read(changed.get(), "v", "s", &text), 0);
    EXPECT_STREQ("{\"count\":1.5}", text);
}

TEST_F(Peers, AStoppedPeerReleasesItsNameAndCallsFailQuickly)
{
    ASSERT_TRUE(StartPeer("display")) << LastError();
    EXPECT_FALSE(StartPeer("display")); // already running
    ASSERT_TRUE(StopPeer("display"));
    SdBusError error;
    sd_bus_message* raw = nullptr;
    int r = sd_bus_call_method(Bus(), "com.tarnwell.common.Display1", "/com/tarnwell/common/Display1",
        "com.tarnwell.common.Display1.Control", "ResetCsc", error.get(), &raw, "");
    SdBusMessagePtr reply(raw);
    EXPECT_LT(r, 0);
    EXPECT_TRUE(sd_bus_error_has_name(&error.error, "org.freedesktop.DBus.Error.ServiceUnknown"))
        << error.Text();
    EXPECT_NE(std::string::npos, PeerLog("display").find("leaves com.tarnwell.common.Display1"));
}

} // namespace
