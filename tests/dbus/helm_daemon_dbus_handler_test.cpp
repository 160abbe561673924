// System controller client against the simulated controller on a private bus.
#include <algorithm>
#include <any>
#include <string>
#include <vector>

#include "clients/helm_daemon_dbus_handler.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using Helmd::HelmDaemonDbusHandler;
using VideodTest::Read;
using VideodTest::RunMainLoopUntil;

namespace
{

const std::string kService = "com.tarnwell.common.Helm1";
const std::string kPath = "/com/tarnwell/common/Helm1";
const std::string kControl = "com.tarnwell.common.Helm1.Control";

class HelmClient : public VideodTest::DbusTestEnv
{
protected:
    void StartHelm()
    {
        ASSERT_TRUE(StartPeer(
            "helm", { "--video-status", "1", "--remote-ip", "192.168.7.2", "--remote-bus", "Xy12AbCd34" }))
            << LastError();
    }

    // Writes a property of a child object ("reel/distance": interface Helm1.reel.distance).
    void SetChild(const std::string& child, const std::string& key, const std::vector<std::string>& value)
    {
        std::string iface = child;
        std::replace(iface.begin(), iface.end(), '/', '.');
        ASSERT_EQ(Set(kService, kPath + "/" + child, kService + "." + iface, key, value), 0) << child << key;
    }
};

} // namespace

TEST_F(HelmClient, ReadsAndWritesTheStatusCredentialsReelPowerAndCoolingValues)
{
    using H = HelmDaemonDbusHandler;
    StartHelm();
    EXPECT_EQ(Read(&H::GetPropVideoStatus, -1), 1);
    ASSERT_EQ(Set(kService, kPath, kControl, "VideoStatus", { "i", "0" }), 0);
    EXPECT_EQ(Read(&H::GetPropVideoStatus, -1), 0);
    EXPECT_EQ(Read(&H::GetRemoteIP), "192.168.7.2");
    EXPECT_EQ(Read(&H::GetRemoteDbusAddr), "Xy12AbCd34");

    SetChild("reel", "Count", { "d", "12.5" });
    TypedPropertyMap reel = Read(&H::GetReelProperties);
    ASSERT_EQ(reel.count("Count"), 1u);
    EXPECT_EQ(reel.at("Count").first, "d");
    EXPECT_DOUBLE_EQ(std::any_cast<double>(reel.at("Count").second), 12.5);
    EXPECT_DOUBLE_EQ(Read(&H::GetReelCount), 12.5);
    ASSERT_GE(H::ZeroReelCount(), 0);
    EXPECT_DOUBLE_EQ(Read(&H::GetReelCount, -1.0), 0.0);
    ASSERT_GE(H::SetReelCountMode(2), 0);
    EXPECT_EQ(Read(&H::GetReelCountMode), 2u);
    ASSERT_GE(H::SetReelDistanceAbsolute(3.25), 0);
    EXPECT_DOUBLE_EQ(Read(&H::GetReelDistanceAbsolute), 3.25);

    EXPECT_EQ(Read(&H::ReadBatteryVoltages).size(), 1u);
    EXPECT_EQ(Read(&H::GetBatteryTypes).size(), 1u);
    SetChild("cooling", "CPUtempC", { "d", "61.5" });
    EXPECT_DOUBLE_EQ(Read(&H::GetCPUtempC), 61.5);
}

TEST_F(HelmClient, ForwardsVideoStatusAndPropertyChangesOfEachObject)
{
    StartHelm();
    HelmDaemonDbusHandler client;
    ASSERT_EQ(client.Listen(), 0);
    EXPECT_EQ(client.SubscriptionCount(), 10u);

    std::vector<int32_t> statuses;
    client._VideoStatusChanged.connect([&](int32_t status) { statuses.push_back(status); });
    TypedPropertyMap reel, distance, cooling, power;
    client._ReelPropertiesChanged.connect([&](const TypedPropertyMap& map) { reel = map; });
    client._ReelDistancePropertiesChanged.connect([&](const TypedPropertyMap& map) { distance = map; });
    client._CoolingPropertiesChanged.connect([&](const TypedPropertyMap& map) { cooling = map; });
    client._PowerPropertiesChanged.connect([&](const TypedPropertyMap& map) { power = map; });
    int keys = 0;
    client._KeyPressed.connect([&] { ++keys; });

    ASSERT_EQ(Set(kService, kPath, kControl, "VideoStatus", { "i", "2" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !statuses.empty(); }));
    EXPECT_EQ(statuses, (std::vector<int32_t> { 2 }));

    SetChild("reel", "Connected", { "b", "true" });
    SetChild("reel/distance", "Relative", { "d", "1.5" });
    SetChild("cooling", "FanSpeed", { "u", "1200" });
    SetChild("power", "PowerSource", { "s", "battery" });
    ASSERT_EQ(
        Call(kService, kPath, "com.tarnwell.host.Simulation", "EmitKeyPressEvent", { "uu", "3", "1" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] {
        return !reel.empty() && !distance.empty() && !cooling.empty() && !power.empty() && keys == 1;
    }));
    EXPECT_TRUE(std::any_cast<bool>(reel.at("Connected").second));
    EXPECT_DOUBLE_EQ(std::any_cast<double>(distance.at("Relative").second), 1.5);
    EXPECT_EQ(std::any_cast<uint32_t>(cooling.at("FanSpeed").second), 1200u);
    EXPECT_EQ(std::any_cast<std::string>(power.at("PowerSource").second), "battery");
}

TEST_F(HelmClient, WithoutTheControllerReadsFailWithTheSpecifiedMessage)
{
    LogCapture log;
    int32_t status = 5;
    EXPECT_LT(HelmDaemonDbusHandler::GetPropVideoStatus(status), 0);
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(log.ContainsText("static int Helmd::HelmDaemonDbusHandler::GetPropVideoStatus(int32_t&): "
                                 "sdbus_utils::GetProperty HELM_DAEMON_PROP_VIDEO_STATUS failed "
                                 "org.freedesktop.DBus.Error.ServiceUnknown"));
    std::string ip = "unchanged";
    EXPECT_LT(HelmDaemonDbusHandler::GetRemoteIP(ip), 0);
    EXPECT_EQ(ip, "unchanged");
    TypedPropertyMap reel;
    EXPECT_LT(HelmDaemonDbusHandler::GetReelProperties(reel), 0);
    // The other objects' operations name the property itself.
    EXPECT_LT(HelmDaemonDbusHandler::SetBatteryDrainMode(2), 0);
    EXPECT_TRUE(log.ContainsText("static int Helmd::HelmDaemonDbusHandler::SetBatteryDrainMode(uint32_t): "
                                 "sdbus_utils::SetProperty BatteryDrainMode failed "
                                 "org.freedesktop.DBus.Error.ServiceUnknown"));
    std::string serial = "unchanged";
    EXPECT_LT(HelmDaemonDbusHandler::GetReelSerialNumber(serial), 0);
    EXPECT_EQ(serial, "unchanged");
    EXPECT_TRUE(log.ContainsText(
        "static int Helmd::HelmDaemonDbusHandler::GetReelSerialNumber(std::__cxx11::string&): "
        "sdbus_utils::GetProperty SerialNumber failed "
        "org.freedesktop.DBus.Error.ServiceUnknown"));
}

TEST_F(HelmClient, ListenWithoutABusLogsTheReason)
{
    LogCapture log;
    HelmDaemonDbusHandler client;
    WithoutBus([&] { EXPECT_LT(client.Listen(), 0); });
    EXPECT_TRUE(log.ContainsText("Failed to connect to the dbus, "));
    EXPECT_EQ(client.SubscriptionCount(), 0u);
}
