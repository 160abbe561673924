// Storage client against the simulated storage daemon; device lookup rules for file paths.
#include <filesystem>
#include <string>
#include <vector>

#include "clients/storage_daemon_dbus_handler.h"
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

TEST_F(StorageClient, WithoutTheStorageDaemonEveryOperationFailsWithItsMessage)
{
    LogCapture log;
    std::string primary = "unchanged";
    EXPECT_LT(StorageDaemonDbusHandler::GetPrimaryDevice(primary), 0);
    EXPECT_EQ(primary, "unchanged");
    EXPECT_TRUE(
        log.ContainsText("static int32_t Storaged::StorageDaemonDbusHandler::GetPrimaryDevice(std::__cxx11::"
                         "string&): sdbus_utils::GetProperty PROP_PRIMARY_DEVICE failed "
                         "org.freedesktop.DBus.Error.ServiceUnknown"));
    uint64_t free_space = 0;
    EXPECT_LT(StorageDaemonDbusHandler::GetFreeSpace(kBase + "/sd", free_space), 0);
    EXPECT_TRUE(
        log.ContainsText("GetFreeSpace(const string&, uint64_t&): sdbus_utils::GetProperty PROP_READ_ONLY "
                         "failed "));
    bool known = false;
    EXPECT_LT(StorageDaemonDbusHandler::SetKnownPrimary(kBase + "/sd", true), 0);
    EXPECT_LT(StorageDaemonDbusHandler::GetKnownPrimary(kBase + "/sd", known), 0);
    EXPECT_TRUE(log.ContainsText(": sdbus_utils::SetProperty PROP_KNOWN_PRIMARY failed "));
    EXPECT_TRUE(log.ContainsText(": sdbus_utils::GetProperty PROP_KNOWN_PRIMARY failed "));

    EXPECT_LT(StorageDaemonDbusHandler::SetWriteActive(kBase + "/sd", 1, true), 0);
    EXPECT_TRUE(log.ContainsText("SetWriteActive: sd_bus_call_method failed r = -"));

    std::string device;
    EXPECT_LT(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Sd + "/video.mp4", device), 0);
    EXPECT_TRUE(log.ContainsText("Storage.GetStorageObjectPaths() failed -"));
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
