// Storage client against the simulated storage daemon; device lookup rules for file paths.
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "clients/storage_daemon_dbus_handler.h"
#include "dbus/bus_monitor.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using Storaged::StorageDaemonDbusHandler;
using VideodTest::RunMainLoopUntil;

namespace
{

const char* const kService = "com.tarnwell.common.StorageDaemon1";
const std::string kBase = "/com/tarnwell/common/StorageDaemon1";
const char* const kDevice = "com.tarnwell.common.StorageDaemon1.Device";

class StorageClient : public VideodTest::DbusTestEnv
{
protected:
    // Directories: <tmp>/media/sd, <tmp>/media/sd/usb (nested), <tmp>/media/sd2.
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        _Sd = TempDir() + "/media/sd";
        _Usb = _Sd + "/usb";
        _Sd2 = TempDir() + "/media/sd2";
        for (const std::string& dir : { _Usb, _Sd2 })
            std::filesystem::create_directories(dir);
    }

    void StartStorage()
    {
        ASSERT_TRUE(StartPeer("storage", { "sd=" + _Sd, "usb=" + _Usb, "sd2=" + _Sd2 })) << LastError();
    }

    std::string SimProperty(const std::string& device, const std::string& name)
    {
        return Get(kService, kBase + "/" + device, "com.tarnwell.host.Simulation", name);
    }

    // Reads one device property through getter, which must replace initial with expected.
    template <typename T>
    void ExpectDevice(int32_t (*getter)(const std::string&, T&), const char* name, T initial, T expected)
    {
        EXPECT_GE(getter(kBase + "/sd", initial), 0) << name;
        EXPECT_EQ(initial, expected) << name;
    }

    std::string _Sd, _Usb, _Sd2;
};

} // namespace

TEST_F(StorageClient, ReadsTheDevicePropertiesOfTheManager)
{
    StartStorage();
    using H = StorageDaemonDbusHandler;
    const std::vector<std::string> paths { kBase + "/sd", kBase + "/sd2", kBase + "/usb" };
    EXPECT_EQ(VideodTest::Read(&H::GetStorageObjectPaths), paths);
    EXPECT_EQ(VideodTest::Read(&H::GetAvailableDevices), paths);
    EXPECT_EQ(VideodTest::Read(&H::GetPrimaryDevice), kBase + "/sd");
    ExpectDevice<std::string>(&H::GetMountPoint, "MountPoint", "", _Sd);
    ExpectDevice(&H::GetMounted, "IsMounted", false, true);
    ExpectDevice(&H::GetReadOnly, "ReadOnly", true, false);
    ExpectDevice<std::string>(&H::GetBus, "Bus", "", "sd");
    ExpectDevice(&H::GetSocket, "Socket", -1, 0);
    ExpectDevice<std::string>(&H::GetDevicePath, "DevicePath", "", "/dev/sim0");
    ExpectDevice(&H::GetStorageSpaceBelowWarningThreshold, "BelowWarning", true, false);
    ExpectDevice(&H::GetStorageSpaceBelowMinimumThreshold, "BelowMinimum", true, false);
    ExpectDevice(&H::GetKnownPrimary, "KnownPrimary", false, true);
    ExpectDevice<std::string>(&H::GetId, "Id", "", "sd");
    ExpectDevice(&H::GetIsSafeToRemove, "IsSafeToRemove", false, true);
    ASSERT_EQ(H::SetKnownPrimary(kBase + "/sd", false), 0);
    ExpectDevice(&H::GetKnownPrimary, "KnownPrimary after writing", true, false);

    uint64_t free_space = 0;
    EXPECT_GE(H::GetFreeSpace(kBase + "/sd", free_space), 0);
    // The peer reports the file system's free space, as statvfs does (give or take other writers).
    const uint64_t left = std::filesystem::space(_Sd).available;
    EXPECT_LT(free_space > left ? free_space - left : left - free_space, 64ull << 20);
}

// The device keeps the set of active write types, is safe to remove only when it is empty, and refuses
// to format meanwhile; the simulated device records every call.
TEST_F(StorageClient, SetWriteActiveAndFormatReachTheDevice)
{
    StartStorage();
    LogCapture log;
    const std::string usb = kBase + "/usb";
    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(usb, 4, true), 0);
    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(usb, 2, true), 0);
    EXPECT_LT(StorageDaemonDbusHandler::SetWriteActive(usb, 5, true), 0);
    EXPECT_TRUE(log.ContainsText("SetWriteActive: sd_bus_call_method failed r = -"));
    EXPECT_TRUE(
        log.ContainsText(", reason = org.freedesktop.DBus.Error.InvalidArgs: Write type 5 is not 1 to 4"));
    bool safe = true;
    EXPECT_GE(StorageDaemonDbusHandler::GetIsSafeToRemove(usb, safe), 0);
    EXPECT_FALSE(safe);
    EXPECT_LT(StorageDaemonDbusHandler::StartStorageFormat(usb), 0);
    EXPECT_TRUE(log.ContainsText("StartStorageFormat: sd_bus_call_method failed r = -"));

    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(usb, 4, false), 0);
    EXPECT_EQ(SimProperty("usb", "WriteActiveTypes"), "ay 1 2");
    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(usb, 2, false), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetIsSafeToRemove(usb, safe), 0);
    EXPECT_TRUE(safe);
    EXPECT_EQ(SimProperty("usb", "WriteActiveCalls"), "as 4 \"4:true\" \"2:true\" \"4:false\" \"2:false\"");
    EXPECT_EQ(SimProperty("usb", "SetWriteActiveCount"), "u 4");
    EXPECT_EQ(SimProperty("sd", "SetWriteActiveCount"), "u 0");
    ASSERT_EQ(StorageDaemonDbusHandler::StartStorageFormat(usb), 0);
    EXPECT_EQ(SimProperty("usb", "FormatCount"), "u 1");
}

// The device whose mount point holds the file, the longest when mount points nest; none outside them
// all, and an unmounted device holds nothing.
TEST_F(StorageClient, FindsTheDeviceWithTheLongestMountedMountPointHoldingTheFile)
{
    StartStorage();
    struct Row {
        std::string file;
        int32_t result;
        std::string device;
    };
    const Row rows[] = {
        { _Sd + "/video.mp4", 0, "/sd" },
        { _Usb + "/clips/video.mp4", 0, "/usb" },
        { _Sd2 + "/video.mp4", 0, "/sd2" },
        { _Usb + "/../usb//a/./b.jpg", 0, "/usb" },
        { _Usb + "/../x.jpg", 0, "/sd" },
        { TempDir() + "/media/sdcard/video.mp4", -ENOENT, "unchanged" },
        { "/var/tmp/video.mp4", -ENOENT, "unchanged" },
    };
    for (const Row& row : rows) {
        std::string device = "unchanged";
        EXPECT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(row.file, device), row.result)
            << row.file;
        EXPECT_EQ(device, row.result == 0 ? kBase + row.device : row.device) << row.file;
    }

    ASSERT_EQ(Set(kService, kBase + "/usb", kDevice, "IsMounted", { "b", "false" }), 0);
    std::string device;
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Usb + "/video.mp4", device), 0);
    EXPECT_EQ(device, kBase + "/sd");
}

// Each failed operation logs one line at error priority. The property operations give their signature,
// the property's constant and the bus error; the free-space and id reads name the read-only property, as
// they always have. Values read are left as they were.
TEST_F(StorageClient, WithoutTheStorageDaemonEachOperationFailsWithOneErrorLine)
{
    using H = StorageDaemonDbusHandler;
    const std::string sd = kBase + "/sd";
    const std::string kSig = "static int32_t Storaged::StorageDaemonDbusHandler::";
    const std::string kGet = "): sdbus_utils::GetProperty ";
    const std::string kUnknown = " failed org.freedesktop.DBus.Error.ServiceUnknown";
    std::string text = "unchanged";
    std::vector<std::string> list { "unchanged" };
    bool flag = true;
    int32_t number = 9;
    uint64_t free_space = 11;
    const std::pair<std::function<int32_t()>, std::string> rows[] = {
        { [&] { return H::GetPrimaryDevice(text); },
            kSig + "GetPrimaryDevice(std::__cxx11::string&" + kGet + "PROP_PRIMARY_DEVICE" + kUnknown },
        { [&] { return H::GetAvailableDevices(list); },
            kSig + "GetAvailableDevices(std::vector<std::__cxx11::basic_string<char> >&" + kGet
                + "PROP_AVAILABLE_DEVICES" + kUnknown },
        { [&] { return H::GetReadOnly(sd, flag); },
            kSig + "GetReadOnly(const string&, bool&" + kGet + "PROP_READ_ONLY" + kUnknown },
        { [&] { return H::GetBus(sd, text); },
            kSig + "GetBus(const string&, std::__cxx11::string&" + kGet + "PROP_BUS" + kUnknown },
        { [&] { return H::GetSocket(sd, number); },
            kSig + "GetSocket(const string&, int32_t&" + kGet + "PROP_SOCKET" + kUnknown },
        { [&] { return H::GetMountPoint(sd, text); },
            kSig + "GetMountPoint(const string&, std::__cxx11::string&" + kGet + "PROP_MOUNTPOINT"
                + kUnknown },
        { [&] { return H::GetDevicePath(sd, text); },
            kSig + "GetDevicePath(const string&, std::__cxx11::string&" + kGet + "PROP_DEVICE_PATH"
                + kUnknown },
        { [&] { return H::GetStorageSpaceBelowWarningThreshold(sd, flag); },
            kSig + "GetStorageSpaceBelowWarningThreshold(const string&, bool&" + kGet
                + "PROP_STORAGE_IS_BELOW_WARNING_LEVEL" + kUnknown },
        { [&] { return H::GetStorageSpaceBelowMinimumThreshold(sd, flag); },
            kSig + "GetStorageSpaceBelowMinimumThreshold(const string&, bool&" + kGet
                + "PROP_STORAGE_IS_BELOW_MINIMUM_LEVEL" + kUnknown },
        { [&] { return H::GetMounted(sd, flag); },
            kSig + "GetMounted(const string&, bool&" + kGet + "PROP_IS_MOUNTED" + kUnknown },
        { [&] { return H::GetKnownPrimary(sd, flag); },
            kSig + "GetKnownPrimary(const string&, bool&" + kGet + "PROP_KNOWN_PRIMARY" + kUnknown },
        { [&] { return H::SetKnownPrimary(sd, false); },
            kSig + "SetKnownPrimary(const string&, bool): sdbus_utils::SetProperty PROP_KNOWN_PRIMARY"
                + kUnknown },
        { [&] { return H::GetFreeSpace(sd, free_space); },
            kSig + "GetFreeSpace(const string&, uint64_t&" + kGet + "PROP_READ_ONLY" + kUnknown },
        { [&] { return H::GetId(sd, text); },
            kSig + "GetId(const string&, std::__cxx11::string&" + kGet + "PROP_READ_ONLY" + kUnknown },
        { [&] { return H::GetIsSafeToRemove(sd, flag); },
            kSig + "GetIsSafeToRemove(const string&, bool&" + kGet + "PROP_IS_SAFE_TO_REMOVE" + kUnknown },
        { [&] { return H::SetWriteActive(sd, 1, true); }, "SetWriteActive: sd_bus_call_method failed r = -" },
        { [&] { return H::StartStorageFormat(sd); }, "StartStorageFormat: sd_bus_call_method failed r = -" },
        { [&] { return H::GetStorageObjectPaths(list); }, "Storage.GetStorageObjectPaths() failed -" },
        { [&] { return H::GetStorageDeviceForFile(_Sd + "/video.mp4", text); },
            "Storage.GetStorageObjectPaths() failed -" },
    };
    for (const auto& [operation, line] : rows) {
        LogCapture log;
        EXPECT_LT(operation(), 0) << line;
        ASSERT_EQ(log.Lines().size(), 1u) << line;
        EXPECT_EQ(log.Lines().front().first, VideoDaemon::Log::kError) << line;
        EXPECT_EQ(log.Lines().front().second.rfind(line, 0), 0u) << log.Lines().front().second;
    }
    EXPECT_EQ(text, "unchanged");
    EXPECT_EQ(list, std::vector<std::string> { "unchanged" });
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, 9);
    EXPECT_EQ(free_space, 11u);
}

// Each device method call opens a connection of its own, used for that call only and closed when it
// returns: the calls come from unique names other than the one the property reads share, and those names
// are gone afterwards.
TEST_F(StorageClient, EachDeviceMethodCallUsesItsOwnShortLivedConnection)
{
    StartStorage();
    VideodTest::BusMonitor monitor({ "type='method_call',interface='org.freedesktop.DBus.Properties'",
        "type='method_call',interface='" + std::string(kDevice) + "'" });
    ASSERT_TRUE(monitor.IsMonitoring());
    const std::string usb = kBase + "/usb";
    bool safe = false;
    ASSERT_GE(StorageDaemonDbusHandler::GetIsSafeToRemove(usb, safe), 0);
    VideodTest::SdBusMessagePtr read = monitor.NextCall("Get");
    ASSERT_TRUE(read);
    const std::string shared = sd_bus_message_get_sender(read.get());

    const std::pair<const char*, std::function<int32_t()>> calls[] = {
        { "SetWriteActive", [&] { return StorageDaemonDbusHandler::SetWriteActive(usb, 3, true); } },
        { "SetWriteActive", [&] { return StorageDaemonDbusHandler::SetWriteActive(usb, 3, false); } },
        { "StartFormat", [&] { return StorageDaemonDbusHandler::StartStorageFormat(usb); } },
    };
    std::vector<std::string> senders;
    for (const auto& [member, call] : calls) {
        ASSERT_EQ(call(), 0) << member;
        VideodTest::SdBusMessagePtr seen = monitor.NextCall(member);
        ASSERT_TRUE(seen) << member;
        const std::string sender = sd_bus_message_get_sender(seen.get());
        EXPECT_NE(sender, shared) << member;
        EXPECT_TRUE(WaitForName(sender, false)) << member << " connection " << sender << " still open";
        senders.push_back(sender);
    }
    EXPECT_NE(senders[0], senders[1]);
    EXPECT_NE(senders[1], senders[2]);
    EXPECT_TRUE(NameHasOwner(shared));
}

// The bus refuses the subscriptions: one line that names the library, and the connection is let go.
TEST_F(StorageClient, SubscriptionsTheBusRefusesAreLoggedAndTheConnectionLetGo)
{
    ASSERT_TRUE(RestartBusWithMatchRuleLimit(0)) << LastError();
    StartStorage();
    LogCapture log;
    StorageDaemonDbusHandler client;
    EXPECT_LT(client.Listen(), 0);
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(log.Lines(),
        (std::vector<std::pair<int, std::string>> {
            { VideoDaemon::Log::kError, "LibDbusHelper::Storage: Failed to init signal listeners" } }));
}

TEST_F(StorageClient, ListenerReportsDevicesComingAndGoing)
{
    StartStorage();
    LogCapture log;
    StorageDaemonDbusHandler client;
    ASSERT_EQ(client.Listen(), 0);
    std::string added, removed;
    std::string added_mount;
    client._DeviceAdded.connect([&](const std::string& path, const sdbus_utils::PropertyMap& properties) {
        added = path;
        added_mount = std::any_cast<std::string>(properties.at("MountPoint"));
    });
    client._DeviceRemoved.connect([&](const std::string& path) { removed = path; });
    bool mounted = true;
    client._DevicePropertiesChanged.connect(
        [&](const std::string&, const sdbus_utils::PropertyMap& properties) {
            if (properties.count("IsMounted"))
                mounted = std::any_cast<bool>(properties.at("IsMounted"));
        });

    const std::string extra = TempDir() + "/extra";
    std::filesystem::create_directories(extra);
    ASSERT_EQ(
        Call(kService, kBase, "com.tarnwell.host.Simulation", "AddDevice", { "ss", "extra", extra }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !added.empty(); }));
    EXPECT_EQ(added, kBase + "/extra");
    EXPECT_EQ(added_mount, extra);
    EXPECT_TRUE(log.Contains(VideoDaemon::Log::kInfo, "[StorageDaemonDbusHandler] Interface Added\n"));

    ASSERT_EQ(Set(kService, kBase + "/extra", kDevice, "IsMounted", { "b", "false" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !mounted; }));

    ASSERT_EQ(Call(kService, kBase, "com.tarnwell.host.Simulation", "RemoveDevice", { "s", "extra" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !removed.empty(); }));
    EXPECT_EQ(removed, kBase + "/extra");
    EXPECT_TRUE(log.Contains(VideoDaemon::Log::kInfo, "[StorageDaemonDbusHandler] Interface Removed\n"));
}
