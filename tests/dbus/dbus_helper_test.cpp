// Platform D-Bus helper library: typed properties, dictionaries, object manager, listening, time-outs.
#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "dbus-helper/dbus_listener.h"
#include "dbus-helper/sdbus_utils.h"
#include "dbus/dbus_test_env.h"

using VideodTest::RunMainLoopUntil;

namespace
{

const std::string kSettings = "com.tarnwell.common.Settings1";
const std::string kVideo = "/com/tarnwell/common/Settings1/video";
const std::string kCapture = "/com/tarnwell/common/Settings1/capture";
const std::string kStorage = "com.tarnwell.common.StorageDaemon1";
const std::string kStorageBase = "/com/tarnwell/common/StorageDaemon1";
const std::string kDevice = "com.tarnwell.common.StorageDaemon1.Device";

class DbusHelperLibrary : public VideodTest::DbusTestEnv
{
protected:
    void StartSettings() { ASSERT_TRUE(StartPeer("settings")) << LastError(); }
    void StartStorage() { ASSERT_TRUE(StartPeer("storage", { "sd=" + TempDir() })) << LastError(); }

    template <typename T> void RoundTrip(const std::string& path, const std::string& key, const T& value)
    {
        std::string error;
        ASSERT_EQ(sdbus_utils::SetProperty(nullptr, kSettings, path, kSettings, key, value, error), 0)
            << error;
        T read {};
        ASSERT_EQ(sdbus_utils::GetProperty(nullptr, kSettings, path, kSettings, key, read, error), 0)
            << error;
        EXPECT_EQ(read, value) << key;
    }
};

int CountSignal(sd_bus_message*, void* userdata, sd_bus_error*)
{
    ++*static_cast<int*>(userdata);
    return 0;
}

} // namespace

// Every supported type round-trips; a type mismatch is a negative result with the D-Bus error text;
// whole dictionaries read with and without types; a signal that arrives during a call on the same
// connection is still delivered.
TEST_F(DbusHelperLibrary, PropertiesRoundTripDictionariesParseAndSignalsDuringCallsArrive)
{
    StartSettings();
    RoundTrip(kVideo, "sharpen", true);
    RoundTrip(kVideo, "sharpen", false);
    RoundTrip(kVideo, "rotationOverrideAngle", int32_t { -90 });
    RoundTrip(kVideo, "dslBackgroundMode", uint32_t { 4000000000u });
    RoundTrip(kVideo, "maximumFilesize", uint64_t { 12345678901234ull });
    RoundTrip(kVideo, "maximumFilesize", 98765432109ull);
    RoundTrip(kVideo, "sharpenAmount", 0.125);
    RoundTrip(kVideo, "dslHysteresis", 0.375f);
    RoundTrip(kVideo, "deinterlaceMethod", std::string("low-motion"));
    RoundTrip(kVideo, "zoomLevelsDsl", std::vector<double> { 2.0, 1.0, 6.5 });
    RoundTrip(kVideo, "zoomLevelsNonDsl", std::vector<float> { 1.5f, 1.0f, 3.0f });
    RoundTrip(kVideo, "zoomLevelsNonDsl", std::vector<float> {});

    std::string error;
    int32_t number = 17;
    EXPECT_EQ(
        sdbus_utils::GetProperty(nullptr, kSettings, kVideo, kSettings, "sharpen", number, error), -EINVAL);
    EXPECT_EQ(number, 17);
    EXPECT_EQ(
        error, "org.freedesktop.DBus.Error.InvalidSignature: property sharpen has type 'b', expected 'i'");

    std::vector<std::string> texts { "kept" };
    EXPECT_LT(
        sdbus_utils::GetProperty(nullptr, kSettings, kVideo, kSettings, "zoomLevelsDsl", texts, error), 0);
    EXPECT_EQ(texts, (std::vector<std::string> { "kept" }));

    error.clear();
    EXPECT_LT(sdbus_utils::SetProperty(
                  nullptr, kSettings, kCapture, kSettings, "jpegImageQuality", std::string("high"), error),
        0);
    EXPECT_EQ(error.rfind("org.freedesktop.DBus.Error.InvalidArgs: ", 0), 0u) << error;

    error.clear();
    DbusHelper::SdBusMessagePtr reply;
    ASSERT_EQ(sdbus_utils::GetAllProperties(nullptr, kSettings, kVideo, kSettings, reply, error), 0) << error;
    TypedPropertyMap typed;
    ASSERT_EQ(sdbus_utils::ParsePropertiesWithType(reply.get(), typed), 0);
    for (const auto& [key, type] : std::vector<std::pair<std::string, std::string>> { { "sharpen", "b" },
             { "rotationOverrideAngle", "i" }, { "dslBackgroundMode", "u" }, { "maximumFilesize", "t" },
             { "sharpenAmount", "d" }, { "deinterlaceMethod", "s" }, { "zoomLevelsDsl", "ad" } })
        EXPECT_EQ(typed.at(key).first, type) << key;
    EXPECT_EQ(std::any_cast<std::vector<double>>(typed.at("zoomLevelsDsl").second).size(), 3u);
    EXPECT_NO_THROW(std::any_cast<uint64_t>(typed.at("maximumFilesize").second));
    EXPECT_NO_THROW(std::any_cast<uint32_t>(typed.at("dslBackgroundMode").second));

    ASSERT_EQ(sdbus_utils::GetAllProperties(nullptr, kSettings, kVideo, kSettings, reply, error), 0) << error;
    sdbus_utils::PropertyMap plain;
    ASSERT_EQ(sdbus_utils::ParseProperties(reply.get(), plain), 0);
    EXPECT_EQ(plain.size(), typed.size());
    EXPECT_EQ(std::any_cast<std::string>(plain.at("deinterlaceMethod")),
        std::any_cast<std::string>(typed.at("deinterlaceMethod").second));

    EXPECT_LT(sdbus_utils::GetAllProperties(
                  nullptr, kSettings, kVideo, "com.example.NoSuchInterface", reply, error),
        0);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(error.rfind("org.freedesktop.DBus.Error.UnknownInterface: ", 0), 0u) << error;

    DbusHelper::DbusListener listener;
    ASSERT_EQ(listener.Connect(), 0);
    int changes = 0;
    ASSERT_EQ(listener.ListenSignal(kSettings, kVideo, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                  &CountSignal, &changes),
        0);
    // The peer announces the change before it replies, so the signal is read
    // (and queued) by the blocking call, not by the main loop.
    ASSERT_EQ(
        sdbus_utils::SetProperty(listener.Bus(), kSettings, kVideo, kSettings, "sharpen", true, error), 0);
    EXPECT_TRUE(RunMainLoopUntil([&] { return changes == 1; }));
}

TEST_F(DbusHelperLibrary, ReadsStorageObjectsAndParsesTheirChangeSignals)
{
    StartStorage();
    sdbus_utils::ManagedObjects objects;
    std::string error;
    ASSERT_EQ(
        sdbus_utils::object_manager::GetManagedObjects(nullptr, kStorage, kStorageBase, objects, error), 0)
        << error;
    ASSERT_EQ(objects.size(), 1u);
    const TypedPropertyMap& sd = objects.at(kStorageBase + "/sd").at(kDevice);
    EXPECT_EQ(std::any_cast<std::string>(sd.at("MountPoint").second), TempDir());
    EXPECT_EQ(sd.at("FreeSpace").first, "t");

    std::vector<std::string> devices;
    ASSERT_EQ(sdbus_utils::GetProperty(
                  nullptr, kStorage, kStorageBase, kStorage, "AvailableDevices", devices, error),
        0)
        << error;
    EXPECT_EQ(devices, (std::vector<std::string> { kStorageBase + "/sd" }));

    struct {
        std::string added_path, removed_path;
        sdbus_utils::InterfaceMap added;
        std::vector<std::string> removed;
        int failures = 0;
    } captured;
    using Captured = decltype(captured);
    DbusHelper::DbusListener listener;
    ASSERT_EQ(listener.Connect(), 0);
    ASSERT_EQ(listener.ListenSignals({
                  { kStorage, kStorageBase, "org.freedesktop.DBus.ObjectManager", "InterfacesAdded",
                      [](sd_bus_message* m, void* data, sd_bus_error*) {
                          auto* c = static_cast<Captured*>(data);
                          c->failures += sdbus_utils::ParseInterfaceAdded(m, c->added_path, c->added) < 0;
                          return 0;
                      },
                      &captured },
                  { kStorage, kStorageBase, "org.freedesktop.DBus.ObjectManager", "InterfacesRemoved",
                      [](sd_bus_message* m, void* data, sd_bus_error*) {
                          auto* c = static_cast<Captured*>(data);
                          c->failures
                              += sdbus_utils::ParseInterfaceRemoved(m, c->removed_path, c->removed) < 0;
                          return 0;
                      },
                      &captured },
              }),
        0);
    ASSERT_EQ(
        Call(kStorage, kStorageBase, "com.tarnwell.host.Simulation", "AddDevice", { "ss", "usb", TempDir() }),
        0);
    ASSERT_EQ(
        Call(kStorage, kStorageBase, "com.tarnwell.host.Simulation", "RemoveDevice", { "s", "usb" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !captured.removed_path.empty(); }));
    EXPECT_EQ(captured.failures, 0);
    EXPECT_EQ(captured.added_path, kStorageBase + "/usb");
    EXPECT_EQ(std::any_cast<std::string>(captured.added.at(kDevice).at("Id").second), "usb");
    EXPECT_EQ(captured.removed_path, kStorageBase + "/usb");
    EXPECT_NE(std::find(captured.removed.begin(), captured.removed.end(), kDevice), captured.removed.end());
}

// A connector and listener manage their connection; a shared connection is used, not owned (the listener
// neither services it nor closes it); a hung peer costs only the call time-out; and when the bus goes
// away under a listener, its source stops servicing the dead connection, the subscriptions and the
// connection are released, and the owner hears of it once.
TEST_F(DbusHelperLibrary, ListenersManageOwnedAndSharedConnectionsThroughHungPeersAndALostBus)
{
    DbusHelper::DbusListener listener;
    EXPECT_EQ(listener.ListenSignal("", "", "", "Anything", &CountSignal, nullptr), -ENOTCONN);
    ASSERT_EQ(listener.Connect(), 0);
    sd_bus* first = listener.Bus();
    ASSERT_EQ(listener.Connect(), 0);
    EXPECT_EQ(listener.Bus(), first);
    ASSERT_EQ(listener.ListenSignal("", "", "", "Anything", &CountSignal, nullptr), 0);
    EXPECT_EQ(listener.SubscriptionCount(), 1u);
    listener.Disconnect();
    EXPECT_FALSE(listener.IsConnected());
    EXPECT_EQ(listener.SubscriptionCount(), 0u);

    std::string error;
    sd_bus* bus = nullptr;
    int r = 0;
    WithoutBus([&] {
        bus = sdbus_utils::DefaultBus(error);
        r = listener.Connect();
    });
    EXPECT_EQ(bus, nullptr);
    EXPECT_EQ(error.rfind("failed to open the user bus: ", 0), 0u) << error;
    EXPECT_LT(r, 0);
    EXPECT_NE(sdbus_utils::DefaultBus(error), nullptr);

    {
        DbusHelper::DbusListener owner;
        ASSERT_EQ(owner.Connect(), 0);
        int signals = 0;
        {
            DbusHelper::DbusListener shared;
            ASSERT_EQ(shared.Share(owner.Bus()), 0);
            EXPECT_EQ(shared.Bus(), owner.Bus());
            EXPECT_FALSE(shared.OwnsBus());
            EXPECT_FALSE(shared.IsServiced());
            ASSERT_EQ(shared.ListenSignal("", "", "com.tarnwell.test", "Ping", &CountSignal, &signals), 0);
            ASSERT_GE(sd_bus_emit_signal(Bus(), "/", "com.tarnwell.test", "Ping", ""), 0);
            ASSERT_GE(sd_bus_flush(Bus()), 0);
            // Delivered by the owner's source.
            ASSERT_TRUE(RunMainLoopUntil([&] { return signals == 1; }));
        }
        EXPECT_GT(sd_bus_is_open(owner.Bus()), 0);
        EXPECT_GE(sdbus_utils::CallMethod(owner.Bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                      "org.freedesktop.DBus", "GetId", nullptr, error, ""),
            0)
            << error;
    }

    // Owns a name but never reads its messages.
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_open_user(&raw), 0);
    VideodTest::SdBusPtr hung(raw);
    ASSERT_GE(sd_bus_request_name(hung.get(), "com.tarnwell.test.Hung", 0), 0);

    bool value = false;
    error.clear();
    EXPECT_EQ(sdbus_utils::GetProperty(
                  nullptr, "com.tarnwell.test.Hung", "/", "com.tarnwell.test", "Flag", value, error),
        -ETIMEDOUT);
    EXPECT_FALSE(error.empty());

    ASSERT_EQ(listener.Connect(), 0);
    ASSERT_EQ(listener.ListenSignal("", "", "", "Anything", &CountSignal, nullptr), 0);
    int closings = 0;
    listener.SetClosedHandler([&] { ++closings; });
    ASSERT_TRUE(listener.IsServiced());

    StopBus();
    ASSERT_TRUE(RunMainLoopUntil([&] { return closings > 0; }));
    EXPECT_FALSE(listener.IsServiced());
    EXPECT_FALSE(listener.IsConnected());
    EXPECT_EQ(listener.SubscriptionCount(), 0u);
    // Nothing is left to wake the loop.
    while (g_main_context_iteration(nullptr, FALSE)) { }
    EXPECT_EQ(closings, 1);
}
