// Remote bus listener: local raw motion samples, and a remote unit's bus reached through ssh.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "clients/dbus_listener.h"
#include "clients/helm_daemon_dbus_handler.h"
#include "common/glib_ptr.h"
#include "dbus-helper/dbus_connector.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

// The fixture below takes the class's name as its suite name.
using Listener = VideoDaemon::DbusListener;
using VideoDaemon::Log::kError;
using VideoDaemon::Log::kInfo;
using VideoDaemon::Log::kWarning;
using VideodTest::ReadFile;
using VideodTest::RunMainLoopUntil;

namespace
{

// A connection to the bus daemon listening on the abstract socket "/tmp/dbus-<identifier>"; empty on failure.
VideodTest::SdBusPtr OpenAbstractBus(const std::string& identifier)
{
    sd_bus* raw = nullptr;
    if (sd_bus_new(&raw) < 0)
        return nullptr;
    VideodTest::SdBusPtr bus(raw);
    if (sd_bus_set_address(bus.get(), ("unix:abstract=/tmp/dbus-" + identifier).c_str()) < 0
        || sd_bus_set_bus_client(bus.get(), 1) < 0 || sd_bus_start(bus.get()) < 0)
        return nullptr;
    return bus;
}

// The bus id a connection's bus daemon reports.
std::string BusId(sd_bus* bus)
{
    sd_bus_message* raw = nullptr;
    VideodTest::SdBusError error;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", error.Get(), &raw, "")
        < 0)
        return "";
    VideodTest::SdBusMessagePtr reply(raw);
    const char* id = nullptr;
    return sd_bus_message_read(reply.get(), "s", &id) >= 0 ? id : "";
}

// CPU time this thread spends running the default main loop for `ms`: next
// to nothing for a loop that waits, the whole stretch for one that spins.
std::chrono::milliseconds MainLoopCpuTime(guint ms)
{
    VideoDaemon::GMainLoopPtr loop(g_main_loop_new(nullptr, FALSE));
    VideoDaemon::GSourcePtr stop = VideoDaemon::AttachTimeout(
        ms,
        [](gpointer data) {
            g_main_loop_quit(static_cast<GMainLoop*>(data));
            return G_SOURCE_REMOVE;
        },
        loop.get());
    auto cpu = [] {
        timespec now {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    const auto start = cpu();
    g_main_loop_run(loop.get());
    return std::chrono::duration_cast<std::chrono::milliseconds>(cpu() - start);
}

// Stands in for the other unit: `ssh` is host/peers/remote-unit/ssh, which records its arguments and
// runs the remote command here, and the "remote" user bus is a second private dbus-daemon on the abstract
// socket "/tmp/dbus-<identifier>".
class RemoteBusListener : public VideodTest::DbusTestEnv
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        // The test's own folder comes first, for a bridge that hangs.
        const std::string bin = TempDir() + "/bin";
        mkdir(bin.c_str(), 0755);
        _Path = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", (bin + ":" + StandInFolder() + ":" + _Path).c_str(), 1);
        setenv("VIDEOD_SSH_ARGS", (TempDir() + "/ssh-args").c_str(), 1);
    }

    static std::string StandInFolder()
    {
        const char* source = std::getenv("VIDEOD_SOURCE_DIR");
        return std::string(source ? source : ".") + "/host/peers/remote-unit";
    }

    void TearDown() override
    {
        setenv("PATH", _Path.c_str(), 1);
        unsetenv("VIDEOD_SSH_ARGS");
        StopRemoteBuses();
    }

    // The remote units' bus daemons go away.
    void StopRemoteBuses()
    {
        for (pid_t pid : _RemoteDaemons)
            kill(pid, SIGTERM);
        _RemoteDaemons.clear();
    }

    // The remote end of the next connections accepts them and never answers:
    // a unit whose bridge hangs before the bus has authenticated the client.
    void MakeRemoteBridgeHang()
    {
        const std::string bridge = TempDir() + "/bin/systemd-stdio-bridge";
        std::ofstream(bridge) << "#!/bin/sh\nexec sleep 60\n";
        chmod(bridge.c_str(), 0755);
    }

    // Starts a "remote" bus; returns its identifier and fills its bus id.
    std::string StartRemoteBus(std::string& busId)
    {
        // Unique on this machine: the fixture's temporary directory is.
        const std::string identifier = "videodtest" + TempDir().substr(TempDir().rfind('-') + 1)
            + std::to_string(_RemoteDaemons.size());
        const std::string out = TempDir() + "/remote-" + identifier;
        const int status = Run({ "sh", "-c",
            "dbus-daemon --session --fork --print-address=1 --print-pid=1 "
            "--address=unix:abstract=/tmp/dbus-"
                + identifier + " > " + out });
        EXPECT_EQ(status, 0);
        std::istringstream lines(ReadFile(out));
        std::string address, pid;
        std::getline(lines, address);
        std::getline(lines, pid);
        if (std::atoi(pid.c_str()) > 0)
            _RemoteDaemons.push_back(std::atoi(pid.c_str()));
        // Asked directly of the remote daemon, for comparison.
        VideodTest::SdBusPtr direct = OpenAbstractBus(identifier);
        busId = direct ? BusId(direct.get()) : "";
        return identifier;
    }

    std::string _Path;
    std::vector<pid_t> _RemoteDaemons;
};

} // namespace

// The remote unit's bus is reached through ssh and the bridge, which selects the socket with a
// percent-encoded option. Restarting with another remote address closes the previous connection. A remote
// unit that goes away (its bus daemon stops) closes the remote connection: the listener releases it and
// says so, the local bus stays, and the main loop goes back to waiting instead of polling the dead
// connection over and over.
TEST_F(RemoteBusListener, OpensTheRemoteUnitsBusThroughSshAndLetsItGoOnARestartOrWhenItGoesAway)
{
    EXPECT_EQ(Listener::RemotePath("Xy12AbCd34"), "%20--bus-path%3Dunix%3Aabstract%3D/tmp/dbus-Xy12AbCd34");
    std::string first_id, second_id;
    const std::string first = StartRemoteBus(first_id);
    const std::string second = StartRemoteBus(second_id);
    ASSERT_FALSE(first_id.empty());
    LogCapture log;
    Listener listener;
    ASSERT_EQ(listener.Start("remote-unit", first), 0);
    ASSERT_NE(listener.RemoteBus(), nullptr);
    EXPECT_TRUE(log.Contains(kInfo, "DbusListener, listening on remote dbus remote-unit:" + first));
    EXPECT_EQ(ReadFile(TempDir() + "/ssh-args"),
        "-xT\n-oBatchMode=yes\n--\nremote-unit\nsystemd-stdio-bridge --bus-path=unix:abstract=/tmp/dbus-"
            + first + "\n");
    EXPECT_EQ(BusId(listener.RemoteBus()), first_id);
    EXPECT_NE(BusId(listener.LocalBus()), first_id);

    // The clients of the first remote bus, as busctl (itself one of them) lists them.
    auto clients = [&] {
        std::string out;
        if (Run({ "busctl", "--address=unix:abstract=/tmp/dbus-" + first, "list", "--unique", "--no-legend" },
                &out)
            != 0)
            return -1;
        return static_cast<int>(std::count(out.begin(), out.end(), '\n'));
    };
    EXPECT_TRUE(RunMainLoopUntil([&] { return clients() == 2; })) << clients(); // the listener's bridge too
    ASSERT_EQ(listener.Start("remote-unit", second), 0);
    EXPECT_EQ(BusId(listener.RemoteBus()), second_id);
    EXPECT_TRUE(RunMainLoopUntil([&] { return clients() == 1; })) << clients();

    StopRemoteBuses();
    ASSERT_TRUE(RunMainLoopUntil([&] { return listener.RemoteBus() == nullptr; }));
    EXPECT_TRUE(log.Contains(kWarning, "DbusListener, remote dbus remote-unit:" + second + " closed"));
    EXPECT_NE(listener.LocalBus(), nullptr);
    const long long cpu_ms = MainLoopCpuTime(1000).count();
    std::printf("main loop CPU time over 1 s after the remote bus went away: %lld ms\n", cpu_ms);
    EXPECT_LT(cpu_ms, 250);
}

// Without both a host and an identifier there is no remote bus: raw motion samples of the local bus
// are republished and ssh is never run.
TEST_F(RemoteBusListener, AnEmptyHostOrIdentifierOpensOnlyTheLocalBus)
{
    ASSERT_TRUE(StartPeer("camd", { "--cameras", "1", "--active", "0" })) << LastError();
    LogCapture log;
    Listener listener;
    for (const auto& [host, identifier] : std::vector<std::pair<std::string, std::string>> {
             { "remote-unit", "" }, { "", "Xy12AbCd34" }, { "", "" } }) {
        ASSERT_EQ(listener.Start(host, identifier), 0) << host << identifier;
        EXPECT_NE(listener.LocalBus(), nullptr) << host << identifier;
        EXPECT_EQ(listener.RemoteBus(), nullptr) << host << identifier;
    }
    EXPECT_FALSE(log.ContainsText("listening on remote dbus"));
    EXPECT_EQ(ReadFile(TempDir() + "/ssh-args"), "");

    std::vector<std::vector<double>> samples;
    listener._RawMotionData.connect(
        [&](double a, double b, double c, double d, double e, double f, double g) {
            samples.push_back({ a, b, c, d, e, f, g });
        });
    ASSERT_EQ(Call("com.tarnwell.common.Camd1", "/com/tarnwell/common/Camd1/Camera0",
                  "com.tarnwell.host.Simulation", "EmitRawMotionData",
                  { "ddddddd", "1.5", "2", "3", "4", "5", "6.25", "7" }),
        0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !samples.empty(); }));
    EXPECT_EQ(samples.front(), (std::vector<double> { 1.5, 2, 3, 4, 5, 6.25, 7 }));
}

// run-peers --remote-unit stands in for a remote unit: the system controller's credentials name a second
// bus, reached through the same ssh stand-in, where the remote unit's camera daemon runs.
TEST_F(RemoteBusListener, ReachesTheRemoteUnitThatRunPeersStandsIn)
{
    const std::string run_peers = std::string(std::getenv("VIDEOD_SOURCE_DIR")) + "/host/peers/run-peers";
    ASSERT_TRUE(StartProgram("run-peers", { run_peers, "--remote-unit", "helm" })) << LastError();
    ASSERT_TRUE(RunMainLoopUntil([&] {
        return ProgramLog("run-peers").find("run-peers: ready") != std::string::npos;
    })) << ProgramLog("run-peers");
    const std::string printed = ProgramLog("run-peers");
    EXPECT_NE(printed.find("PATH=" + StandInFolder() + ":"), std::string::npos) << printed;

    std::string host = "unread", identifier = "unread";
    ASSERT_GE(Helmd::HelmDaemonDbusHandler::GetRemoteIP(host), 0);
    ASSERT_GE(Helmd::HelmDaemonDbusHandler::GetRemoteDbusAddr(identifier), 0);
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_NE(printed.find("VIDEOD_REMOTE_BUS_ADDRESS=unix:abstract=/tmp/dbus-" + identifier + "\n"),
        std::string::npos)
        << printed;

    Listener listener;
    ASSERT_EQ(listener.Start(host, identifier), 0);
    ASSERT_NE(listener.RemoteBus(), nullptr);
    EXPECT_EQ(ReadFile(TempDir() + "/ssh-args"),
        "-xT\n-oBatchMode=yes\n--\n127.0.0.1\nsystemd-stdio-bridge --bus-path=unix:abstract=/tmp/dbus-"
            + identifier + "\n");
    // The remote unit's camera daemon answers there, and only there.
    int32_t index = -1;
    std::string error;
    EXPECT_GE(
        sdbus_utils::GetProperty(listener.RemoteBus(), "com.tarnwell.common.Camd1",
            "/com/tarnwell/common/Camd1", "com.tarnwell.common.Camd1", "ActiveCameraIndex", index, error),
        0)
        << error;
    EXPECT_EQ(index, 0);
    EXPECT_FALSE(NameHasOwner("com.tarnwell.common.Camd1"));
}

// Without a local bus, or with a remote one that is unreachable or accepts the connection but never
// authenticates it, the start fails; opening the latter gives up after the library's call time-out
// instead of sd-bus's own 90 s wait for the handshake. A refused subscription leaves the start
// successful, with one error line naming the match.
TEST_F(RemoteBusListener, StartsFailWithoutTheBusesAndSurviveARefusedSubscription)
{
    LogCapture log;
    Listener listener;
    WithoutBus([&] { EXPECT_EQ(listener.Start("", ""), -1); });
    EXPECT_TRUE(log.Contains(kError, "DbusListener, failed to open local dbus listener"));

    log.Clear();
    EXPECT_EQ(listener.Start("remote-unit", "nobodylistenshere"), -1);
    EXPECT_TRUE(log.Contains(kError, "DbusListener, failed to open remote dbus listener"));
    EXPECT_FALSE(log.ContainsText("listening on remote dbus"));

    MakeRemoteBridgeHang();
    log.Clear();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(listener.Start("remote-unit", "hangsbeforeauth"), -1);
    const long long waited_ms
        = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
              .count();
    EXPECT_TRUE(log.Contains(kError, "DbusListener, failed to open remote dbus listener"));
    EXPECT_EQ(listener.RemoteBus(), nullptr);
    // The time-out itself, plus a margin for starting and stopping the bridge.
    const long long timeout_ms = DbusHelper::kMethodCallTimeoutUsec / 1000;
    EXPECT_GE(waited_ms, timeout_ms);
    EXPECT_LT(waited_ms, timeout_ms + 1500);

    ASSERT_TRUE(RestartBusWithMatchRuleLimit(0)) << LastError();
    log.Clear();
    Listener refused;
    EXPECT_EQ(refused.Start("", ""), 0);
    EXPECT_NE(refused.LocalBus(), nullptr);
    EXPECT_EQ(log.Lines(),
        (std::vector<std::pair<int, std::string>> {
            { kError, "DbusListener, failed register ::com.tarnwell.common.Camd1.Camera:RawMotionData" } }));
}
