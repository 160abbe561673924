// Camera daemon client against the simulated camera daemon on a private bus.
#include <any>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "clients/camera_daemon_object.h"
#include "dbus-helper/dbus_listener.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using Camerad::CameraDaemonObject;
using Camerad::CameraObject;
using Camerad::TilingCameraMode;
using VideoDaemon::Log::kError;
using VideodTest::RunMainLoopUntil;

namespace
{

const char* const kService = "com.tarnwell.common.Camd1";
const std::string kBase = "/com/tarnwell/common/Camd1";
const char* const kSim = "com.tarnwell.host.Simulation";

// A connection serviced by the default main context, as the streamer's is.
class CameraClient : public VideodTest::DbusTestEnv
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        ASSERT_EQ(_Connection.Connect(), 0);
    }
    sd_bus* ClientBus() const { return _Connection.Bus(); }

    DbusHelper::DbusListener _Connection;
};

} // namespace

TEST_F(CameraClient, FindsTheCamerasRequestsTilesAndFollowsTheActiveOne)
{
    ASSERT_TRUE(StartPeer("camd", { "--cameras", "2", "--active", "1", "--features", "Hdr,DigitalSL" }))
        << LastError();
    CameraDaemonObject daemon(ClientBus());
    EXPECT_EQ(daemon.CameraPaths(), (std::vector<std::string> { kBase + "/Camera0", kBase + "/Camera1" }));
    int32_t index = -1;
    ASSERT_EQ(daemon.GetActiveCameraIndex(index), 0);
    EXPECT_EQ(index, 1);
    std::shared_ptr<CameraObject> active = daemon.GetActiveCamera();
    ASSERT_NE(active, nullptr);
    EXPECT_EQ(active->Path(), kBase + "/Camera1");
    EXPECT_EQ(daemon.GetCamera(0)->Path(), kBase + "/Camera0");
    EXPECT_EQ(daemon.GetCamera(7), nullptr);
    sdbus_utils::PropertyMap features;
    ASSERT_EQ(active->GetAllProperties(Camerad::CAMERA_FEATURES_INTERFACE, features), 0);
    EXPECT_EQ(features.size(), 8u);
    const std::set<std::string> on { "Hdr", "DigitalSL" };
    for (const char* feature :
        { "Hdr", "Awb", "PlumbLine", "Microphone", "Tiling", "Autorotate", "MechanicalSL", "DigitalSL" })
        EXPECT_EQ(std::any_cast<bool>(features.at(feature)), on.count(feature) == 1) << feature;
    EXPECT_EQ(std::any_cast<int32_t>(active->Properties(Camerad::CAMERA_INTERFACE).at("Index")), 1);

    const std::string camera1 = kBase + "/Camera1";
    ASSERT_EQ(Set(kService, camera1, kSim, "RequestTilesReply", { "u", "6" }), 0);
    uint32_t tiles = 0;
    ASSERT_EQ(active->RequestTiles(tiles), 0);
    EXPECT_EQ(tiles, 6u);
    EXPECT_EQ(Get(kService, camera1, kSim, "RequestTilesCount"), "u 1");
    ASSERT_EQ(active->SetTilingMode(TilingCameraMode::Dynamic), 0);
    EXPECT_EQ(Get(kService, camera1, "com.tarnwell.common.Camd1.Tiling", "TilingMode"), "u 2");
    TilingCameraMode mode = TilingCameraMode::Off;
    ASSERT_EQ(active->GetTilingMode(mode), 0);
    EXPECT_EQ(mode, TilingCameraMode::Dynamic);

    std::vector<int32_t> indexes;
    daemon._ActiveCameraIndexChanged.connect([&](int32_t changed) { indexes.push_back(changed); });
    ASSERT_EQ(Call(kService, kBase, kSim, "AddCamera"), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return daemon.CameraPaths().size() == 3; }));
    ASSERT_EQ(Set(kService, kBase, kService, "ActiveCameraIndex", { "i", "2" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !indexes.empty(); }));
    EXPECT_EQ(indexes, (std::vector<int32_t> { 2 }));
    ASSERT_NE(daemon.GetActiveCamera(), nullptr);
    EXPECT_EQ(daemon.GetActiveCamera()->Path(), kBase + "/Camera2");
    ASSERT_EQ(Call(kService, kBase, kSim, "RemoveCamera", { "i", "2" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return daemon.CameraPaths().size() == 2 && indexes.size() == 2; }));
    EXPECT_EQ(indexes.back(), -1);
    EXPECT_EQ(daemon.GetActiveCamera(), nullptr);
}

TEST_F(CameraClient, WithoutTheCameraDaemonOrABusOperationsFailWithTheirMessages)
{
    LogCapture log;
    CameraDaemonObject daemon(ClientBus());
    EXPECT_TRUE(
        log.ContainsText("Camerad::CameraDaemonObject::CameraDaemonObject(sd_bus*): Failed to fetch managed "
                         "objects: -"));
    const std::string no_index = "std::shared_ptr<Camerad::CameraObject> Camerad::CameraDaemonObject::"
                                 "GetActiveCamera(): d-bus error, failed to get camera idx";
    log.Clear();
    EXPECT_EQ(daemon.GetActiveCamera(), nullptr);
    EXPECT_EQ(log.Lines(), (std::vector<std::pair<int, std::string>> { { kError, no_index } }));
    // Read on its own, the index names what failed.
    log.Clear();
    int32_t index = 4;
    EXPECT_LT(daemon.GetActiveCameraIndex(index), 0);
    EXPECT_EQ(index, 4);
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_TRUE(log.ContainsText(kError,
        "int32_t Camerad::CameraDaemonObject::GetActiveCameraIndex(int32_t&): sdbus_utils::GetProperty "
        "CAMERA_PROP_ACTIVE_CAMERA_INDEX failed org.freedesktop.DBus.Error.ServiceUnknown"));
    CameraObject camera(ClientBus(), kBase + "/Camera0");
    uint32_t tiles = 9;
    EXPECT_LT(camera.RequestTiles(tiles), 0);
    EXPECT_EQ(tiles, 9u);
    EXPECT_TRUE(log.ContainsText("sd_bus_call_method CAMERA_METHOD_REQUEST_TILES failed (r = -"));
    EXPECT_LT(camera.SetTilingMode(TilingCameraMode::Static), 0);
    EXPECT_TRUE(
        log.ContainsText("int32_t Camerad::CameraObject::SetTilingMode(Camerad::TilingCameraMode): Failed "
                         "to set TilingMode property, err:org.freedesktop.DBus.Error.ServiceUnknown"));

    // Without a bus nothing is called.
    log.Clear();
    CameraDaemonObject unconnected(nullptr);
    index = 3;
    EXPECT_LT(unconnected.GetActiveCameraIndex(index), 0);
    EXPECT_EQ(index, 3);
    EXPECT_TRUE(log.Contains(
        kError, "int32_t Camerad::CameraDaemonObject::GetActiveCameraIndex(int32_t&): d-bus is NULL"));
    log.Clear();
    EXPECT_EQ(unconnected.GetActiveCamera(), nullptr);
    EXPECT_EQ(log.Lines(), (std::vector<std::pair<int, std::string>> { { kError, no_index } }));
    CameraObject without_bus(nullptr, kBase + "/Camera0");
    EXPECT_TRUE(log.Contains(
        kError, "Camerad::CameraObject::CameraObject(sd_bus*, std::__cxx11::string): Bus ptr is NULL"));
}
