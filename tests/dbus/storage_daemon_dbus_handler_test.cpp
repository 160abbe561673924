// Storage client against the simulated storage daemon; device lookup rules for file paths.
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "clients/storage_daemon_dbus_handler.h"
#include "dbus/bus_monitor.h"
#include "dbus/client_log_checks.h"
#include "dbus/dbus_test_env.h"

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

// The devices' properties; the device that holds a file; write activity and formatting, each call on a
// connection of its own; devices coming and going.
TEST_F(StorageClient, ReadsTheDevicesFindsTheOneOfAFileReachesTheirMethodsAndFollowsThem)
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

    // The device whose mount point holds the file, the longest when mount points nest; none outside them
    // all.
    const std::pair<std::string, std::string> files[] = { { _Sd + "/video.mp4", "/sd" },
        { _Usb + "/clips/video.mp4", "/usb" }, { _Sd2 + "/video.mp4", "/sd2" },
        { _Usb + "/../usb//a/./b.jpg", "/usb" }, { _Usb + "/../x.jpg", "/sd" },
        { TempDir() + "/media/sdcard/video.mp4", "" }, { "/var/tmp/video.mp4", "" } };
    for (const auto& [file, expected] : files) {
        std::string device = "unchanged";
        EXPECT_EQ(H::GetStorageDeviceForFile(file, device), expected.empty() ? -ENOENT : 0) << file;
        EXPECT_EQ(device, expected.empty() ? "unchanged" : kBase + expected) << file;
    }

    // The device keeps the set of active write types, is safe to remove only when it is empty, and
    // refuses to format meanwhile; the simulated device records every call.
    LogCapture log;
    const std::string usb = kBase + "/usb";
    ASSERT_EQ(H::SetWriteActive(usb, 4, true), 0);
    ASSERT_EQ(H::SetWriteActive(usb, 2, true), 0);
    EXPECT_LT(H::SetWriteActive(usb, 5, true), 0);
    EXPECT_TRUE(log.ContainsText("SetWriteActive: sd_bus_call_method failed r = -"));
    EXPECT_TRUE(
        log.ContainsText(", reason = org.freedesktop.DBus.Error.InvalidArgs: Write type 5 is not 1 to 4"));
    bool safe = true;
    EXPECT_GE(H::GetIsSafeToRemove(usb, safe), 0);
    EXPECT_FALSE(safe);
    EXPECT_LT(H::StartStorageFormat(usb), 0);
    EXPECT_TRUE(log.ContainsText("StartStorageFormat: sd_bus_call_method failed r = -"));
    ASSERT_EQ(H::SetWriteActive(usb, 4, false), 0);
    EXPECT_EQ(SimProperty("usb", "WriteActiveTypes"), "ay 1 2");
    ASSERT_EQ(H::SetWriteActive(usb, 2, false), 0);
    EXPECT_GE(H::GetIsSafeToRemove(usb, safe), 0);
    EXPECT_TRUE(safe);
    EXPECT_EQ(SimProperty("usb", "WriteActiveCalls"), "as 4 \"4:true\" \"2:true\" \"4:false\" \"2:false\"");
    EXPECT_EQ(SimProperty("usb", "SetWriteActiveCount"), "u 4");
    EXPECT_EQ(SimProperty("sd", "SetWriteActiveCount"), "u 0");
    ASSERT_EQ(H::StartStorageFormat(usb), 0);
    EXPECT_EQ(SimProperty("usb", "FormatCount"), "u 1");

    // Each device method call opens a connection of its own, used for that call only and closed when it
    // returns: the calls come from unique names other than the one the property reads share, and those
    // names are gone afterwards.
    VideodTest::BusMonitor monitor({ "type='method_call',interface='org.freedesktop.DBus.Properties'",
        "type='method_call',interface='" + std::string(kDevice) + "'" });
    ASSERT_TRUE(monitor.IsMonitoring());
    ASSERT_GE(H::GetIsSafeToRemove(usb, safe), 0);
    VideodTest::SdBusMessagePtr read = monitor.NextCall("Get");
    ASSERT_TRUE(read);
    const std::string shared = sd_bus_message_get_sender(read.get());
    const std::pair<const char*, std::function<int32_t()>> calls[] = {
        { "SetWriteActive", [&] { return H::SetWriteActive(usb, 3, true); } },
        { "SetWriteActive", [&] { return H::SetWriteActive(usb, 3, false); } },
        { "StartFormat", [&] { return H::StartStorageFormat(usb); } },
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

    // An unmounted device holds nothing.
    ASSERT_EQ(Set(kService, usb, kDevice, "IsMounted", { "b", "false" }), 0);
    std::string device;
    ASSERT_EQ(H::GetStorageDeviceForFile(_Usb + "/video.mp4", device), 0);
    EXPECT_EQ(device, kBase + "/sd");

    StorageDaemonDbusHandler client;
    ASSERT_EQ(client.Listen(), 0);
    std::string added, removed, added_mount;
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

// Without the daemon each failed operation logs one line at error priority. The property operations
// give their signature, the property's constant and the bus error; the free-space and id reads name the
// read-only property, as they always have. Values read are left as they were. When the bus refuses the
// subscriptions: one line that names the library, and the connection is let go.
TEST_F(StorageClient, WithoutTheStorageDaemonOrItsSubscriptionsEachOperationFailsWithOneErrorLine)
{
    using H = StorageDaemonDbusHandler;
    const std::string sd = kBase + "/sd";
    auto get = [](const std::string& signature, const std::string& property) {
        return "static int32_t Storaged::StorageDaemonDbusHandler::" + signature
            + "): sdbus_utils::GetProperty " + property + " failed org.freedesktop.DBus.Error.ServiceUnknown";
    };
    std::string text = "unchanged";
    std::vector<std::string> list { "unchanged" };
    bool flag = true;
    int32_t number = 9;
    uint64_t free_space = 11;
    VideodTest::ExpectEachFailsWithOneErrorLine({
        { [&] { return H::GetPrimaryDevice(text); },
            get("GetPrimaryDevice(std::__cxx11::string&", "PROP_PRIMARY_DEVICE") },
        { [&] { return H::GetAvailableDevices(list); },
            get("GetAvailableDevices(std::vector<std::__cxx11::basic_string<char> >&",
                "PROP_AVAILABLE_DEVICES") },
        { [&] { return H::GetReadOnly(sd, flag); },
            get("GetReadOnly(const string&, bool&", "PROP_READ_ONLY") },
        { [&] { return H::GetBus(sd, text); },
            get("GetBus(const string&, std::__cxx11::string&", "PROP_BUS") },
        { [&] { return H::GetSocket(sd, number); }, get("GetSocket(const string&, int32_t&", "PROP_SOCKET") },
        { [&] { return H::GetMountPoint(sd, text); },
            get("GetMountPoint(const string&, std::__cxx11::string&", "PROP_MOUNTPOINT") },
        { [&] { return H::GetDevicePath(sd, text); },
            get("GetDevicePath(const string&, std::__cxx11::string&", "PROP_DEVICE_PATH") },
        { [&] { return H::GetStorageSpaceBelowWarningThreshold(sd, flag); },
            get("GetStorageSpaceBelowWarningThreshold(const string&, bool&",
                "PROP_STORAGE_IS_BELOW_WARNING_LEVEL") },
        { [&] { return H::GetStorageSpaceBelowMinimumThreshold(sd, flag); },
            get("GetStorageSpaceBelowMinimumThreshold(const string&, bool&",
                "PROP_STORAGE_IS_BELOW_MINIMUM_LEVEL") },
        { [&] { return H::GetMounted(sd, flag); },
            get("GetMounted(const string&, bool&", "PROP_IS_MOUNTED") },
        { [&] { return H::GetKnownPrimary(sd, flag); },
            get("GetKnownPrimary(const string&, bool&", "PROP_KNOWN_PRIMARY") },
        { [&] { return H::SetKnownPrimary(sd, false); },
            "static int32_t Storaged::StorageDaemonDbusHandler::SetKnownPrimary(const string&, bool): "
            "sdbus_utils::SetProperty PROP_KNOWN_PRIMARY failed org.freedesktop.DBus.Error.ServiceUnknown" },
        { [&] { return H::GetFreeSpace(sd, free_space); },
            get("GetFreeSpace(const string&, uint64_t&", "PROP_READ_ONLY") },
        { [&] { return H::GetId(sd, text); },
            get("GetId(const string&, std::__cxx11::string&", "PROP_READ_ONLY") },
        { [&] { return H::GetIsSafeToRemove(sd, flag); },
            get("GetIsSafeToRemove(const string&, bool&", "PROP_IS_SAFE_TO_REMOVE") },
        { [&] { return H::SetWriteActive(sd, 1, true); }, "SetWriteActive: sd_bus_call_method failed r = -" },
        { [&] { return H::StartStorageFormat(sd); }, "StartStorageFormat: sd_bus_call_method failed r = -" },
        { [&] { return H::GetStorageObjectPaths(list); }, "Storage.GetStorageObjectPaths() failed -" },
        { [&] { return H::GetStorageDeviceForFile(_Sd + "/video.mp4", text); },
            "Storage.GetStorageObjectPaths() failed -" },
    });
    EXPECT_EQ(text, "unchanged");
    EXPECT_EQ(list, std::vector<std::string> { "unchanged" });
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, 9);
    EXPECT_EQ(free_space, 11u);

    ASSERT_TRUE(RestartBusWithMatchRuleLimit(0)) << LastError();
    StartStorage();
    LogCapture log;
    StorageDaemonDbusHandler client;
    EXPECT_LT(client.Listen(), 0);
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(log.Lines(),
        (VideodTest::LogLines {
            { VideoDaemon::Log::kError, "LibDbusHelper::Storage: Failed to init signal listeners" } }));
}
