// Storage client against the simulated storage daemon; device lookup rules for file paths.
#include <glib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "clients/storage_daemon_dbus_handler.h"
#include "clients/storage_path.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using Storaged::StorageDaemonDbusHandler;
using Storaged::StoragePath;
using VideoDaemon::Log::kError;

namespace
{

const char* const kService = "com.tarnwell.common.StorageDaemon1";
const std::string kBase = "/com/tarnwell/common/StorageDaemon1";

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
        std::string out;
        EXPECT_EQ(
            Busctl({ "get-property", kService, kBase + "/" + device, "com.tarnwell.host.Simulation", name },
                &out),
            0);
        return out;
    }

    std::string _Sd, _Usb, _Sd2;
};

} // namespace

TEST(StoragePath, NormalisesToAnAbsolutePathWithoutDotsOrTrailingSlashes)
{
    EXPECT_EQ(StoragePath::Normalise("/media//sd/./DCIM/../video.mp4"), "/media/sd/video.mp4");
    EXPECT_EQ(StoragePath::Normalise("/media/sd/"), "/media/sd");
    EXPECT_EQ(StoragePath::Normalise("/"), "/");
    EXPECT_EQ(StoragePath::Normalise(""), "");
    EXPECT_EQ(StoragePath::Normalise("clip.mp4"), (std::filesystem::current_path() / "clip.mp4").string());
}

TEST(StoragePath, MatchesWholePathComponentsOnly)
{
    EXPECT_TRUE(StoragePath::Contains("/media/sd", "/media/sd/video.mp4"));
    EXPECT_TRUE(StoragePath::Contains("/media/sd/", "/media/sd/video.mp4"));
    EXPECT_TRUE(StoragePath::Contains("/media/sd", "/media/sd"));
    EXPECT_TRUE(StoragePath::Contains("/", "/anything"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sd2/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sdcard"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sd/../sd2/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("", "/media/sd/video.mp4"));
}

TEST_F(StorageClient, ReadsTheDevicePropertiesOfTheManager)
{
    StartStorage();
    std::vector<std::string> paths;
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageObjectPaths(paths), 0);
    EXPECT_EQ(paths, (std::vector<std::string> { kBase + "/sd", kBase + "/sd2", kBase + "/usb" }));

    std::vector<std::string> available;
    ASSERT_GE(StorageDaemonDbusHandler::GetAvailableDevices(available), 0);
    EXPECT_EQ(available, paths);
    std::string primary;
    ASSERT_GE(StorageDaemonDbusHandler::GetPrimaryDevice(primary), 0);
    EXPECT_EQ(primary, kBase + "/sd");

    const std::string sd = kBase + "/sd";
    std::string mount, bus, device_path, id;
    bool mounted = false, read_only = true, warning = true, minimum = true, safe = false, known = false;
    int32_t socket = -1;
    uint64_t free_space = 0;
    EXPECT_GE(StorageDaemonDbusHandler::GetMountPoint(sd, mount), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetMounted(sd, mounted), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetReadOnly(sd, read_only), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetBus(sd, bus), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetSocket(sd, socket), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetDevicePath(sd, device_path), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetStorageSpaceBelowWarningThreshold(sd, warning), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetStorageSpaceBelowMinimumThreshold(sd, minimum), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetKnownPrimary(sd, known), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetFreeSpace(sd, free_space), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetId(sd, id), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetIsSafeToRemove(sd, safe), 0);
    EXPECT_EQ(mount, _Sd);
    EXPECT_TRUE(mounted);
    EXPECT_FALSE(read_only);
    EXPECT_EQ(socket, 0);
    EXPECT_EQ(bus, "sd");
    EXPECT_EQ(device_path, "/dev/sim0");
    EXPECT_FALSE(warning);
    EXPECT_FALSE(minimum);
    EXPECT_TRUE(known);
    EXPECT_TRUE(safe);
    EXPECT_EQ(id, "sd");
    // The peer reports the file system's free space; so does statvfs.
    const std::filesystem::space_info space = std::filesystem::space(_Sd);
    EXPECT_GT(free_space, 0u);
    EXPECT_LE(free_space, space.capacity);

    ASSERT_EQ(StorageDaemonDbusHandler::SetKnownPrimary(sd, false), 0);
    EXPECT_GE(StorageDaemonDbusHandler::GetKnownPrimary(sd, known), 0);
    EXPECT_FALSE(known);
}

TEST_F(StorageClient, SetWriteActiveAndFormatReachTheDevice)
{
    StartStorage();
    const std::string usb = kBase + "/usb";
    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(usb, 2, true), 0);
    EXPECT_EQ(SimProperty("usb", "WriteActiveTypes"), "ay 1 2\n");
    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(usb, 2, false), 0);
    EXPECT_EQ(SimProperty("usb", "WriteActiveCalls"), "as 2 \"2:true\" \"2:false\"\n");

    ASSERT_EQ(StorageDaemonDbusHandler::StartStorageFormat(usb), 0);
    EXPECT_EQ(SimProperty("usb", "FormatCount"), "u 1\n");
}

TEST_F(StorageClient, MethodFailuresLogTheOperationAndTheReason)
{
    StartStorage();
    LogCapture log;
    EXPECT_LT(StorageDaemonDbusHandler::SetWriteActive(kBase + "/usb", 9, true), 0);
    EXPECT_TRUE(log.ContainsText("SetWriteActive: sd_bus_call_method failed r = -"));
    EXPECT_TRUE(
        log.ContainsText(", reason = org.freedesktop.DBus.Error.InvalidArgs: Write type 9 is not 1 to 4"));

    ASSERT_EQ(StorageDaemonDbusHandler::SetWriteActive(kBase + "/usb", 1, true), 0);
    EXPECT_LT(StorageDaemonDbusHandler::StartStorageFormat(kBase + "/usb"), 0);
    EXPECT_TRUE(log.ContainsText("StartStorageFormat: sd_bus_call_method failed r = -"));
}

TEST_F(StorageClient, FindsTheDeviceWithTheLongestMountPointHoldingTheFile)
{
    StartStorage();
    std::string device;
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Sd + "/video.mp4", device), 0);
    EXPECT_EQ(device, kBase + "/sd");
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Usb + "/clips/video.mp4", device), 0);
    EXPECT_EQ(device, kBase + "/usb");
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Sd2 + "/video.mp4", device), 0);
    EXPECT_EQ(device, kBase + "/sd2");
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Usb + "/../usb//a/./b.jpg", device), 0);
    EXPECT_EQ(device, kBase + "/usb");
    ASSERT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile(_Usb + "/../x.jpg", device), 0);
    EXPECT_EQ(device, kBase + "/sd");
}

TEST_F(StorageClient, AFileOutsideEveryMountPointHasNoDevice)
{
    StartStorage();
    std::string device = "unchanged";
    EXPECT_EQ(
        StorageDaemonDbusHandler::GetStorageDeviceForFile(TempDir() + "/media/sdcard/video.mp4", device),
        -ENOENT);
    EXPECT_EQ(StorageDaemonDbusHandler::GetStorageDeviceForFile("/var/tmp/video.mp4", device), -ENOENT);
    EXPECT_EQ(device, "unchanged");
}

TEST_F(StorageClient, AnUnmountedDeviceHoldsNoFiles)
{
    StartStorage();
    ASSERT_EQ(Busctl({ "set-property", kService, kBase + "/usb", "com.tarnwell.common.StorageDaemon1.Device",
                  "IsMounted", "b", "false" }),
        0);
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
    ASSERT_EQ(Busctl({ "call", kService, kBase, "com.tarnwell.host.Simulation", "AddDevice", "ss", "extra",
                  extra }),
        0);
    ASSERT_TRUE(RunLoopUntil([&] { return !added.empty(); }));
    EXPECT_EQ(added, kBase + "/extra");
    EXPECT_EQ(added_mount, extra);
    EXPECT_TRUE(log.Contains(VideoDaemon::Log::kInfo, "[StorageDaemonDbusHandler] Interface Added\n"));

    ASSERT_EQ(Busctl({ "set-property", kService, kBase + "/extra",
                  "com.tarnwell.common.StorageDaemon1.Device", "IsMounted", "b", "false" }),
        0);
    ASSERT_TRUE(RunLoopUntil([&] { return !mounted; }));

    ASSERT_EQ(
        Busctl({ "call", kService, kBase, "com.tarnwell.host.Simulation", "RemoveDevice", "s", "extra" }), 0);
    ASSERT_TRUE(RunLoopUntil([&] { return !removed.empty(); }));
    EXPECT_EQ(removed, kBase + "/extra");
    EXPECT_TRUE(log.Contains(VideoDaemon::Log::kInfo, "[StorageDaemonDbusHandler] Interface Removed\n"));
}
