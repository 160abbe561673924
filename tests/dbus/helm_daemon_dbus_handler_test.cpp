// System controller client against the simulated controller on a private bus.
#include <algorithm>
#include <any>
#include <functional>
#include <string>
#include <vector>

#include "clients/helm_daemon_dbus_handler.h"
#include "dbus/bus_monitor.h"
#include "dbus/client_log_checks.h"
#include "dbus/dbus_test_env.h"

using Helmd::HelmDaemonDbusHandler;
using H = Helmd::HelmDaemonDbusHandler;
using VideodTest::Read;
using VideodTest::RunMainLoopUntil;

namespace
{

const std::string kService = "com.tarnwell.common.Helm1";
const std::string kPath = "/com/tarnwell/common/Helm1";
const std::string kControl = "com.tarnwell.common.Helm1.Control";
const std::string kSim = "com.tarnwell.host.Simulation";

// The value of `key` in a match rule ("type='signal',path='/a',...": "/a"); empty when absent.
std::string RuleField(const std::string& rule, const std::string& key)
{
    const std::string text = "," + rule, opening = "," + key + "='";
    const size_t at = text.find(opening);
    if (at == std::string::npos)
        return "";
    const size_t start = at + opening.size();
    return text.substr(start, text.find('\'', start) - start);
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

    // Writes a property of a child object ("reel/distance": interface Helm1.reel.distance).
    void SetChild(const std::string& child, const std::string& key, const std::vector<std::string>& value)
    {
        std::string iface = child;
        std::replace(iface.begin(), iface.end(), '/', '.');
        ASSERT_EQ(Set(kService, kPath + "/" + child, kService + "." + iface, key, value), 0) << child << key;
    }
};

} // namespace

// Each fan control mode keeps its own temperature range; the averaging period and the status change
// switch are plain values.
TEST_F(HelmClient, ReadsAndWritesTheStatusCredentialsReelPowerCoolingAndFanControlValues)
{
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
    SetChild("cooling", "FanSpeed", { "u", "2400" });
    EXPECT_EQ(Read(&H::GetFanSpeed), 2400u);

    EXPECT_EQ(
        Read(&H::GetFanControlModes), (std::vector<std::string> { "automatic", "quiet", "performance" }));
    EXPECT_EQ(Read(&H::GetFanControlMode), "automatic");
    EXPECT_EQ(Read(&H::GetFanControlRange), (std::vector<double> { 45.0, 75.0 }));
    ASSERT_GE(H::SetFanControlMode("quiet"), 0);
    EXPECT_EQ(Read(&H::GetFanControlMode), "quiet");
    EXPECT_EQ(Read(&H::GetFanControlRange), (std::vector<double> { 55.0, 85.0 }));
    ASSERT_GE(H::SetFanControlRange({ 50.0, 80.5 }), 0);
    ASSERT_GE(H::SetFanControlMode("automatic"), 0);
    EXPECT_EQ(Read(&H::GetFanControlRange), (std::vector<double> { 45.0, 75.0 }));
    ASSERT_GE(H::SetFanControlMode("quiet"), 0);
    EXPECT_EQ(Read(&H::GetFanControlRange), (std::vector<double> { 50.0, 80.5 }));

    // Refused by the controller, and nothing changes.
    LogCapture log;
    EXPECT_LT(H::SetFanControlMode("turbo"), 0);
    EXPECT_LT(H::SetFanControlRange({ 80.0, 40.0 }), 0);
    EXPECT_TRUE(log.ContainsText(VideoDaemon::Log::kError,
        "static int Helmd::HelmDaemonDbusHandler::SetFanControlMode(const string&): sdbus_utils::SetProperty "
        "FanControlMode failed org.freedesktop.DBus.Error.InvalidArgs"));
    EXPECT_EQ(Read(&H::GetFanControlMode), "quiet");
    EXPECT_EQ(Read(&H::GetFanControlRange), (std::vector<double> { 50.0, 80.5 }));

    EXPECT_EQ(Read(&H::GetAveragingPeriod), 10u);
    ASSERT_GE(H::SetAveragingPeriod(30), 0);
    EXPECT_EQ(Read(&H::GetAveragingPeriod), 30u);
    for (bool enabled : { true, false }) {
        ASSERT_GE(H::SetEmitStatusChanges(enabled), 0);
        EXPECT_EQ(Read(&H::GetEmitStatusChanges, !enabled), enabled);
    }
}

// Seen on the bus: the client's own AddMatch calls, one per signal, in this order. Then each signal is
// forwarded, child objects coming and going included.
TEST_F(HelmClient, SubscribesToTheControllersTenSignalsInOrderAndForwardsEach)
{
    StartHelm();
    VideodTest::BusMonitor monitor(
        { "type='method_call',interface='org.freedesktop.DBus',member='AddMatch'" });
    ASSERT_TRUE(monitor.IsMonitoring());
    HelmDaemonDbusHandler client;
    ASSERT_EQ(client.Listen(), 0);
    EXPECT_EQ(client.SubscriptionCount(), 10u);
    const char* unique = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(client.Bus(), &unique), 0);

    const std::string properties = "org.freedesktop.DBus.Properties PropertiesChanged";
    const std::vector<std::string> expected { kPath + " " + kControl + " VideoStatusChanged",
        kPath + " " + kControl + " KeyPressEvent", kPath + "/reel " + properties,
        kPath + "/reel/firmware " + properties, kPath + "/reel/distance " + properties,
        kPath + "/power " + properties, kPath + "/cooling " + properties, kPath + " " + properties,
        kPath + " org.freedesktop.DBus.ObjectManager InterfacesAdded",
        kPath + " org.freedesktop.DBus.ObjectManager InterfacesRemoved" };
    std::vector<std::string> seen;
    while (seen.size() < expected.size()) {
        VideodTest::SdBusMessagePtr call = monitor.NextCall("AddMatch");
        ASSERT_TRUE(call) << seen.size();
        if (std::string(sd_bus_message_get_sender(call.get())) != unique)
            continue;
        const char* rule = nullptr;
        ASSERT_GE(sd_bus_message_read(call.get(), "s", &rule), 0);
        EXPECT_NE(std::string(rule).find("sender='" + kService + "'"), std::string::npos) << rule;
        seen.push_back(
            RuleField(rule, "path") + " " + RuleField(rule, "interface") + " " + RuleField(rule, "member"));
    }
    EXPECT_EQ(seen, expected);

    std::vector<int32_t> statuses;
    client._VideoStatusChanged.connect([&](int32_t status) { statuses.push_back(status); });
    TypedPropertyMap reel, distance, cooling, power;
    client._ReelPropertiesChanged.connect([&](const TypedPropertyMap& map) { reel = map; });
    client._ReelDistancePropertiesChanged.connect([&](const TypedPropertyMap& map) { distance = map; });
    client._CoolingPropertiesChanged.connect([&](const TypedPropertyMap& map) { cooling = map; });
    client._PowerPropertiesChanged.connect([&](const TypedPropertyMap& map) { power = map; });
    int keys = 0;
    client._KeyPressed.connect([&] { ++keys; });
    std::vector<std::string> added, removed;
    client._InterfacesAdded.connect([&](const std::string& path) { added.push_back(path); });
    client._InterfacesRemoved.connect([&](const std::string& path) { removed.push_back(path); });

    ASSERT_EQ(Set(kService, kPath, kControl, "VideoStatus", { "i", "2" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !statuses.empty(); }));
    EXPECT_EQ(statuses, (std::vector<int32_t> { 2 }));

    SetChild("reel", "Connected", { "b", "true" });
    SetChild("reel/distance", "Relative", { "d", "1.5" });
    SetChild("cooling", "FanSpeed", { "u", "1200" });
    SetChild("power", "PowerSource", { "s", "battery" });
    ASSERT_EQ(Call(kService, kPath, kSim, "EmitKeyPressEvent", { "uu", "3", "1" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] {
        return !reel.empty() && !distance.empty() && !cooling.empty() && !power.empty() && keys == 1;
    }));
    EXPECT_TRUE(std::any_cast<bool>(reel.at("Connected").second));
    EXPECT_DOUBLE_EQ(std::any_cast<double>(distance.at("Relative").second), 1.5);
    EXPECT_EQ(std::any_cast<uint32_t>(cooling.at("FanSpeed").second), 1200u);
    EXPECT_EQ(std::any_cast<std::string>(power.at("PowerSource").second), "battery");

    std::string out;
    ASSERT_EQ(Call(kService, kPath, kSim, "AddObject", { "ss", "reel2", kService + ".reel" }, &out), 0);
    EXPECT_EQ(out, "o \"" + kPath + "/reel2\"\n");
    ASSERT_TRUE(RunMainLoopUntil([&] { return !added.empty(); }));
    ASSERT_EQ(Call(kService, kPath, kSim, "RemoveObject", { "s", "reel/distance" }), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !removed.empty(); }));
    EXPECT_EQ(added, std::vector<std::string> { kPath + "/reel2" });
    EXPECT_EQ(removed, std::vector<std::string> { kPath + "/reel/distance" });
    // Gone from the controller's objects too.
    EXPECT_EQ(Get(kService, kPath + "/reel/distance", kService + ".reel.distance", "Relative"), "error");
    EXPECT_NE(Call(kService, kPath, kSim, "RemoveObject", { "s", "reel/distance" }), 0);
    EXPECT_NE(Call(kService, kPath, kSim, "AddObject", { "ss", "reel2", "x.y" }), 0);
}

// Without the controller each failed operation logs one line at error priority: its signature, then what
// failed (the main object's properties by their constant's name, the other objects' by the property
// itself), then the bus error; values read are left as they were. Without a bus, or when the bus grants
// the first subscription only, listening fails and says why.
TEST_F(HelmClient, WithoutTheControllerOrItsBusEachOperationFailsWithItsErrorLines)
{
    const std::string kSig = "static int Helmd::HelmDaemonDbusHandler::";
    auto get = [&](const std::string& signature, const std::string& property) {
        return kSig + signature + ": sdbus_utils::GetProperty " + property
            + " failed org.freedesktop.DBus.Error.ServiceUnknown";
    };
    int32_t status = 5;
    std::string text = "unchanged";
    double value = 2.5;
    uint32_t period = 7;
    std::vector<double> range { 1.0 };
    TypedPropertyMap reel;
    VideodTest::ExpectEachFailsWithOneErrorLine({
        { [&] { return H::GetPropVideoStatus(status); },
            get("GetPropVideoStatus(int32_t&)", "HELM_DAEMON_PROP_VIDEO_STATUS") },
        { [&] { return H::GetRemoteIP(text); },
            get("GetRemoteIP(std::__cxx11::string&)", "HELM_DAEMON_PROP_REMOTE_IP") },
        { [&] { return H::GetRemoteDbusAddr(text); },
            get("GetRemoteDbusAddr(std::__cxx11::string&)", "HELM_DAEMON_PROP_REMOTE_DBUS_ADDR") },
        { [&] { return H::GetReelProperties(reel); },
            kSig
                + "GetReelProperties(TypedPropertyMap&): sdbus_utils::GetAllProperties failed "
                  "org.freedesktop.DBus.Error.ServiceUnknown" },
        { [&] { return H::GetReelSerialNumber(text); },
            get("GetReelSerialNumber(std::__cxx11::string&)", "SerialNumber") },
        { [&] { return H::SetBatteryDrainMode(2); },
            kSig
                + "SetBatteryDrainMode(uint32_t): sdbus_utils::SetProperty BatteryDrainMode failed "
                  "org.freedesktop.DBus.Error.ServiceUnknown" },
        { [&] { return H::GetCPUtempC(value); }, get("GetCPUtempC(double&)", "CPUtempC") },
        { [&] { return H::GetFanControlMode(text); },
            get("GetFanControlMode(std::__cxx11::string&)", "FanControlMode") },
        { [&] { return H::GetFanControlRange(range); },
            get("GetFanControlRange(std::vector<double>&)", "FanControlRange") },
        { [&] { return H::GetAveragingPeriod(period); },
            get("GetAveragingPeriod(uint32_t&)", "AveragingPeriod") },
        { [&] { return H::ZeroReelCount(); },
            kSig + "ZeroReelCount():sd_bus_call_method call failed (r = -" },
    });
    EXPECT_EQ(status, 5);
    EXPECT_EQ(text, "unchanged");
    EXPECT_EQ(value, 2.5);
    EXPECT_EQ(period, 7u);
    EXPECT_EQ(range, std::vector<double> { 1.0 });
    EXPECT_TRUE(reel.empty());

    {
        LogCapture log;
        HelmDaemonDbusHandler client;
        WithoutBus([&] { EXPECT_LT(client.Listen(), 0); });
        EXPECT_TRUE(log.ContainsText("Failed to connect to the dbus, "));
        EXPECT_EQ(client.SubscriptionCount(), 0u);
    }

    // Every refused subscription is logged by its signal's name, in the order they are made, then the
    // client gives up its connection under a message that names another client.
    ASSERT_TRUE(RestartBusWithMatchRuleLimit(1)) << LastError();
    LogCapture log;
    HelmDaemonDbusHandler client;
    EXPECT_LT(client.Listen(), 0);
    EXPECT_FALSE(client.IsConnected());
    const std::vector<std::string> refused { "KeyPressEvent", "PropertiesChanged", "PropertiesChanged",
        "PropertiesChanged", "PropertiesChanged", "PropertiesChanged", "PropertiesChanged", "InterfacesAdded",
        "InterfacesRemoved" };
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), refused.size() + 1);
    for (size_t i = 0; i < refused.size(); ++i) {
        const std::string start = "Failed to register " + refused[i] + " signal, ";
        EXPECT_EQ(lines[i].first, VideoDaemon::Log::kError);
        EXPECT_EQ(lines[i].second.rfind(start, 0), 0u) << lines[i].second;
        EXPECT_GT(lines[i].second.size(), start.size());
    }
    EXPECT_EQ(lines.back(),
        std::make_pair(
            int(VideoDaemon::Log::kError), std::string("Storage: Failed to init signal listeners")));
}
