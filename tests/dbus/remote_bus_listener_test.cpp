// Remote bus listener: local raw motion samples, and a remote unit's bus reached through ssh.
#include <glib.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "clients/bus_listener_connection.h"
#include "clients/dbus_listener.h"
#include "dbus/dbus_test_env.h"
#include "log_capture.h"

using VideoDaemon::BusListenerConnection;
using VideoDaemon::DbusListener;
using VideoDaemon::Log::kError;
using VideoDaemon::Log::kInfo;

namespace
{

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

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The bus id a connection's bus daemon reports.
std::string BusId(sd_bus* bus)
{
    sd_bus_message* raw = nullptr;
    VideodTest::SdBusError error;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", error.get(), &raw, "")
        < 0)
        return "";
    VideodTest::SdBusMessagePtr reply(raw);
    const char* id = nullptr;
    return sd_bus_message_read(reply.get(), "s", &id) >= 0 ? id : "";
}

// Stands in for the other unit: `ssh` is a script that records its arguments
// and runs the remote command here, and the "remote" user bus is a second
// private dbus-daemon on the abstract socket "/tmp/dbus-<identifier>".
class RemoteBusListener : public VideodTest::DbusTestEnv
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        const std::string bin = TempDir() + "/bin";
        mkdir(bin.c_str(), 0755);
        std::ofstream ssh(bin + "/ssh");
        ssh << "#!/bin/sh\n"
               "printf '%s\\n' \"$@\" > \""
            << TempDir()
            << "/ssh-args\"\n"
               "while [ \"$1\" != -- ]; do shift; done\n"
               "shift 2\n"
               "eval \"exec $*\"\n";
        ssh.close();
        chmod((bin + "/ssh").c_str(), 0755);
        _Path = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", (bin + ":" + _Path).c_str(), 1);
    }

    void TearDown() override
    {
        setenv("PATH", _Path.c_str(), 1);
        for (pid_t pid : _RemoteDaemons)
            kill(pid, SIGTERM);
    }

    // Starts a "remote" bus; returns its identifier and fills its bus id.
    std::string StartRemoteBus(std::string& busId)
    {
        std::mt19937 random(
            static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
        const std::string identifier = "videodtest" + std::to_string(random() % 100000000);
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
        sd_bus* raw = nullptr;
        if (sd_bus_new(&raw) >= 0) {
            VideodTest::SdBusPtr direct(raw);
            if (sd_bus_set_address(direct.get(), ("unix:abstract=/tmp/dbus-" + identifier).c_str()) >= 0
                && sd_bus_set_bus_client(direct.get(), 1) >= 0 && sd_bus_start(direct.get()) >= 0)
                busId = BusId(direct.get());
        }
        return identifier;
    }

    std::string _Path;
    std::vector<pid_t> _RemoteDaemons;
};

} // namespace

TEST(BusListenerConnection, SelectsTheRemoteBusSocketWithAPercentEncodedBridgeOption)
{
    EXPECT_EQ(BusListenerConnection::RemotePath("Xy12AbCd34"),
        "%20--bus-path%3Dunix%3Aabstract%3D/tmp/dbus-Xy12AbCd34");
}

TEST_F(RemoteBusListener, RepublishesRawMotionSamplesOfTheLocalBusInOrder)
{
    ASSERT_TRUE(StartPeer("camd", { "--cameras", "1", "--active", "0" })) << LastError();
    LogCapture log;
    DbusListener listener;
    ASSERT_EQ(listener.Start("", ""), 0);
    EXPECT_EQ(listener.RemoteBus(), nullptr);
    std::vector<std::vector<double>> samples;
    listener._RawMotionData.connect(
        [&](double a, double b, double c, double d, double e, double f, double g) {
            samples.push_back({ a, b, c, d, e, f, g });
        });

    ASSERT_EQ(Busctl({ "call", "com.tarnwell.common.Camd1", "/com/tarnwell/common/Camd1/Camera0",
                  "com.tarnwell.host.Simulation", "EmitRawMotionData", "ddddddd", "1.5", "2", "3", "4", "5",
                  "6.25", "7" }),
        0);
    ASSERT_TRUE(RunLoopUntil([&] { return !samples.empty(); }));
    EXPECT_EQ(samples.front(), (std::vector<double> { 1.5, 2, 3, 4, 5, 6.25, 7 }));
    EXPECT_FALSE(log.ContainsText("listening on remote dbus"));
}

TEST_F(RemoteBusListener, AnEmptyHostOrIdentifierOpensOnlyTheLocalBus)
{
    LogCapture log;
    DbusListener listener;
    ASSERT_EQ(listener.Start("remote-unit", ""), 0);
    EXPECT_NE(listener.LocalBus(), nullptr);
    EXPECT_EQ(listener.RemoteBus(), nullptr);
    ASSERT_EQ(listener.Start("", "Xy12AbCd34"), 0);
    EXPECT_EQ(listener.RemoteBus(), nullptr);
    EXPECT_FALSE(log.ContainsText("listening on remote dbus"));
    EXPECT_EQ(ReadFile(TempDir() + "/ssh-args"), "");
}

TEST_F(RemoteBusListener, OpensTheRemoteUnitsBusThroughSsh)
{
    std::string remote_id;
    const std::string identifier = StartRemoteBus(remote_id);
    ASSERT_FALSE(remote_id.empty());
    LogCapture log;
    DbusListener listener;
    ASSERT_EQ(listener.Start("remote-unit", identifier), 0);
    ASSERT_NE(listener.RemoteBus(), nullptr);
    EXPECT_TRUE(log.Contains(kInfo, "DbusListener, listening on remote dbus remote-unit:" + identifier));

    EXPECT_EQ(ReadFile(TempDir() + "/ssh-args"),
        "-xT\n-oBatchMode=yes\n--\nremote-unit\nsystemd-stdio-bridge --bus-path=unix:abstract=/tmp/dbus-"
            + identifier + "\n");
    EXPECT_EQ(BusId(listener.RemoteBus()), remote_id);
    EXPECT_NE(BusId(listener.LocalBus()), remote_id);
}

TEST_F(RemoteBusListener, RestartingWithAnotherRemoteAddressClosesThePreviousConnection)
{
    std::string first_id, second_id;
    const std::string first = StartRemoteBus(first_id);
    const std::string second = StartRemoteBus(second_id);
    DbusListener listener;
    ASSERT_EQ(listener.Start("remote-unit", first), 0);
    ASSERT_EQ(BusId(listener.RemoteBus()), first_id);

    // Watch the first remote bus from outside: its clients are named ":1.N".
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_new(&raw), 0);
    VideodTest::SdBusPtr watcher(raw);
    ASSERT_GE(sd_bus_set_address(watcher.get(), ("unix:abstract=/tmp/dbus-" + first).c_str()), 0);
    ASSERT_GE(sd_bus_set_bus_client(watcher.get(), 1), 0);
    ASSERT_GE(sd_bus_start(watcher.get()), 0);
    auto clients = [&] {
        sd_bus_message* reply_raw = nullptr;
        VideodTest::SdBusError error;
        if (sd_bus_call_method(watcher.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "ListNames", error.get(), &reply_raw, "")
            < 0)
            return -1;
        VideodTest::SdBusMessagePtr reply(reply_raw);
        char** names = nullptr;
        if (sd_bus_message_read_strv(reply.get(), &names) < 0)
            return -1;
        int unique = 0;
        for (char** name = names; name && *name; ++name) {
            unique += (*name)[0] == ':';
            free(*name);
        }
        free(names);
        return unique;
    };
    EXPECT_EQ(clients(), 2); // the listener's bridge and the watcher

    ASSERT_EQ(listener.Start("remote-unit", second), 0);
    EXPECT_EQ(BusId(listener.RemoteBus()), second_id);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (clients() != 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(clients(), 1);
}

TEST_F(RemoteBusListener, AnUnreachableRemoteBusFailsTheStart)
{
    LogCapture log;
    DbusListener listener;
    EXPECT_EQ(listener.Start("remote-unit", "nobodylistenshere"), -1);
    EXPECT_TRUE(log.Contains(kError, "DbusListener, failed to open remote dbus listener"));
    EXPECT_FALSE(log.ContainsText("listening on remote dbus"));
}

TEST_F(RemoteBusListener, WithoutALocalBusTheStartFails)
{
    LogCapture log;
    const std::string address = BusAddress();
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + TempDir() + "/no-such-bus").c_str(), 1);
    DbusListener listener;
    const int result = listener.Start("", "");
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_EQ(result, -1);
    EXPECT_TRUE(log.Contains(kError, "DbusListener, failed to open local dbus listener"));
}
