// System controller client against the simulated controller on a private bus.
#include <glib.h>

#include <any>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "clients/helm_daemon_dbus_handler.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using Helmd::HelmDaemonDbusHandler;
using VideoDaemon::Log::kError;

namespace
{

const char* const kService = "com.tarnwell.common.Helm1";
const char* const kPath = "/com/tarnwell/common/Helm1";
const char* const kControl = "com.tarnwell.common.Helm1.Control";

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

class HelmClient : public VideodTest::DbusTestEnv
{
protected:
    void StartHelm()
    {
        ASSERT_TRUE(StartPeer(
            "helm", { "--video-status", "1", "--remote-ip", "192.168.7.2", "--remote-bus", "Xy12AbCd34" }))
            << LastError();
    }
};

} // namespace

TEST_F(HelmClient, ReadsTheVideoStatusAndTheRemoteUnitsCredentials)
{
    StartHelm();
    int32_t status = -1;
    ASSERT_GE(HelmDaemonDbusHandler::GetPropVideoStatus(status), 0);
    EXPECT_EQ(status, 1);
    ASSERT_EQ(Busctl({ "set-property", kService, kPath, kControl, "VideoStatus", "i", "0" }), 0);
    ASSERT_GE(HelmDaemonDbusHandler::GetPropVideoStatus(status), 0);
    EXPECT_EQ(status, 0);

    std::string ip, bus;
    ASSERT_GE(HelmDaemonDbusHandler::GetRemoteIP(ip), 0);
    ASSERT_GE(HelmDaemonDbusHandler::GetRemoteDbusAddr(bus), 0);
    EXPECT_EQ(ip, "192.168.7.2");
    EXPECT_EQ(bus, "Xy12AbCd34");
}

TEST_F(HelmClient, ReadsAndWritesTheReelPowerAndCoolingValues)
{
    StartHelm();
    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kPath) + "/reel",
                  "com.tarnwell.common.Helm1.reel", "Count", "d", "12.5" }),
        0);
    TypedPropertyMap reel;
    ASSERT_EQ(HelmDaemonDbusHandler::GetReelProperties(reel), 0);
    ASSERT_EQ(reel.count("Count"), 1u);
    EXPECT_EQ(reel.at("Count").first, "d");
    EXPECT_DOUBLE_EQ(std::any_cast<double>(reel.at("Count").second), 12.5);
    double count = 0;
    ASSERT_GE(HelmDaemonDbusHandler::GetReelCount(count), 0);
    EXPECT_DOUBLE_EQ(count, 12.5);
    ASSERT_GE(HelmDaemonDbusHandler::ZeroReelCount(), 0);
    ASSERT_GE(HelmDaemonDbusHandler::GetReelCount(count), 0);
    EXPECT_DOUBLE_EQ(count, 0.0);

    ASSERT_GE(HelmDaemonDbusHandler::SetReelCountMode(2), 0);
    uint32_t mode = 0;
    ASSERT_GE(HelmDaemonDbusHandler::GetReelCountMode(mode), 0);
    EXPECT_EQ(mode, 2u);
    ASSERT_GE(HelmDaemonDbusHandler::SetReelDistanceAbsolute(3.25), 0);
    double absolute = 0;
    ASSERT_GE(HelmDaemonDbusHandler::GetReelDistanceAbsolute(absolute), 0);
    EXPECT_DOUBLE_EQ(absolute, 3.25);

    std::vector<double> voltages;
    ASSERT_GE(HelmDaemonDbusHandler::ReadBatteryVoltages(voltages), 0);
    EXPECT_EQ(voltages.size(), 1u);
    std::vector<std::string> types;
    ASSERT_GE(HelmDaemonDbusHandler::GetBatteryTypes(types), 0);
    EXPECT_EQ(types.size(), 1u);
    double celsius = 0;
    ASSERT_GE(HelmDaemonDbusHandler::GetCPUtempC(celsius), 0);
    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kPath) + "/cooling",
                  "com.tarnwell.common.Helm1.cooling", "CPUtempC", "d", "61.5" }),
        0);
    ASSERT_GE(HelmDaemonDbusHandler::GetCPUtempC(celsius), 0);
    EXPECT_DOUBLE_EQ(celsius, 61.5);
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

    ASSERT_EQ(Busctl({ "set-property", kService, kPath, kControl, "VideoStatus", "i", "2" }), 0);
    ASSERT_TRUE(RunLoopUntil([&] { return !statuses.empty(); }));
    EXPECT_EQ(statuses, (std::vector<int32_t> { 2 }));

    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kPath) + "/reel",
                  "com.tarnwell.common.Helm1.reel", "Connected", "b", "true" }),
        0);
    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kPath) + "/reel/distance",
                  "com.tarnwell.common.Helm1.reel.distance", "Relative", "d", "1.5" }),
        0);
    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kPath) + "/cooling",
                  "com.tarnwell.common.Helm1.cooling", "FanSpeed", "u", "1200" }),
        0);
    ASSERT_EQ(Busctl({ "set-property", kService, std::string(kPath) + "/power",
                  "com.tarnwell.common.Helm1.power", "PowerSource", "s", "battery" }),
        0);
    ASSERT_EQ(Busctl({ "call", kService, kPath, "com.tarnwell.host.Simulation", "EmitKeyPressEvent", "uu",
                  "3", "1" }),
        0);
    ASSERT_TRUE(RunLoopUntil([&] {
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
}

TEST_F(HelmClient, ListenWithoutABusLogsTheReason)
{
    LogCapture log;
    const std::string address = BusAddress();
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + TempDir() + "/no-such-bus").c_str(), 1);
    HelmDaemonDbusHandler client;
    const int result = client.Listen();
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_LT(result, 0);
    EXPECT_TRUE(log.ContainsText("Failed to connect to the dbus, "));
    EXPECT_EQ(client.SubscriptionCount(), 0u);
}
