// Test fixture: a private session bus (never the machine's own) with simulated peer daemons started on it.
#pragma once

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "dbus-helper/sd_bus_ptr.h"
#include "support/main_loop_wait.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace VideodTest
{

// The owners of the D-Bus helper library, so tests release sd-bus objects as the clients do.
using DbusHelper::SdBusError;
using DbusHelper::SdBusMessagePtr;
using DbusHelper::SdBusPtr;
using DbusHelper::SdBusSlotPtr;

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

using TestSupport::RunMainLoopUntil;

// Dispatches the messages of bus, handing each one sd-bus returns (none when a match took it) to `take`,
// until `take` returns true (true) or timeoutMs passes or the connection fails (false).
inline bool ProcessUntil(
    sd_bus* bus, int timeoutMs, const std::function<bool(DbusHelper::SdBusMessagePtr)>& take)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (bus) {
        sd_bus_message* raw = nullptr;
        const int r = sd_bus_process(bus, &raw);
        if (r < 0)
            return false;
        if (take(DbusHelper::SdBusMessagePtr(raw)))
            return true;
        if (r > 0)
            continue;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0)
            return false;
        sd_bus_wait(bus, static_cast<uint64_t>(left));
    }
    return false;
}

// What a getter of the form `int Get(T&)` stores; the call must succeed. Pass an initial value that
// differs from the expected one, so a getter that stores nothing is caught.
template <typename T, typename R> T Read(R (*getter)(T&), T initial = T {})
{
    EXPECT_GE(getter(initial), 0);
    return initial;
}

// The sections the settings daemon publishes, one object each.
inline const std::vector<std::string>& SettingsSections()
{
    static const std::vector<std::string> sections { "boot", "system", "audio", "keyBeep", "display",
        "capture", "jobs", "sync", "sonde", "reel", "camera", "overlay", "video", "videoRecording",
        "autologRecording", "snapVoiceRecording", "storage", "development", "bluetooth", "device", "network",
        "motionDetection", "contacts", "remoteCamera", "remoteDevices", "shutdown", "time", "gps",
        "cooling" };
    return sections;
}

// GoogleTest fixture. Construction starts a private dbus-daemon and points DBUS_SESSION_BUS_ADDRESS at it
// (so sd_bus_open_user and `busctl --user` use it); destruction stops every peer and the bus and restores
// the environment. Peers are the programs of host/peers (PeerBusNames), found through VIDEOD_SOURCE_DIR.
// The bus daemon and the peers are children of the thread that creates the fixture and are sent SIGTERM
// when it ends, so a crashed test leaves nothing running. Subclasses that override SetUp must call
// DbusTestEnv::SetUp() first.
class DbusTestEnv : public ::testing::Test
{
public:
    static constexpr int kWaitMs = 10000;

    static const std::map<std::string, std::string>& PeerBusNames()
    {
        static const std::map<std::string, std::string> names = {
            { "settings", "com.tarnwell.common.Settings1" },
            { "storage", "com.tarnwell.common.StorageDaemon1" },
            { "helm", "com.tarnwell.common.Helm1" },
            { "camd", "com.tarnwell.common.Camd1" },
            { "display", "com.tarnwell.common.Display1" },
            { "remotecam", "com.tarnwell.common.RemoteCamMonitor1" },
        };
        return names;
    }

    DbusTestEnv()
    {
        const char* previous = getenv("DBUS_SESSION_BUS_ADDRESS");
        _HadAddress = previous != nullptr;
        _PreviousAddress = previous ? previous : "";
        char pattern[] = "/tmp/videod-dbus-XXXXXX";
        if (!mkdtemp(pattern)) {
            _Error = std::string("mkdtemp: ") + strerror(errno);
            return;
        }
        _TempDir = pattern;
        StartBus();
    }

    ~DbusTestEnv() override
    {
        while (!_Peers.empty())
            StopPeer(_Peers.begin()->first);
        for (const auto& program : _Programs)
            StopProcess(program.second, true);
        _Slots.clear();
        _Queue.clear();
        _Bus.reset();
        if (_DaemonPid > 0)
            StopProcess(_DaemonPid, false);
        if (_HadAddress)
            setenv("DBUS_SESSION_BUS_ADDRESS", _PreviousAddress.c_str(), 1);
        else
            unsetenv("DBUS_SESSION_BUS_ADDRESS");
        if (!_TempDir.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(_TempDir, ignored);
        }
    }

    DbusTestEnv(const DbusTestEnv&) = delete;
    DbusTestEnv& operator=(const DbusTestEnv&) = delete;

protected:
    void SetUp() override { ASSERT_TRUE(_Bus) << "private session bus not available: " << _Error; }

    // A directory private to this test, removed at teardown.
    const std::string& TempDir() const { return _TempDir; }
    // The fixture's own connection to the private bus (for calls and signal matches in tests).
    sd_bus* Bus() const { return _Bus.get(); }
    const std::string& LastError() const { return _Error; }

    // Starts host/peers/<peer>.py with args and waits until it owns its bus name. False (reason in
    // LastError()) when the program is missing, exits early, or does not take the name in time.
    bool StartPeer(const std::string& peer, const std::vector<std::string>& args = {})
    {
        auto name = PeerBusNames().find(peer);
        const char* source = getenv("VIDEOD_SOURCE_DIR");
        if (name == PeerBusNames().end() || !source || _Peers.count(peer) || !_Bus) {
            _Error = "cannot start peer " + peer + (source ? "" : " (VIDEOD_SOURCE_DIR not set)");
            return false;
        }
        pid_t pid = Spawn(
            Join({ std::string(source) + "/host/peers/" + peer + ".py" }, args), PeerLogPath(peer), nullptr);
        if (pid < 0)
            return false;
        _Peers[peer] = pid;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
        while (std::chrono::steady_clock::now() < deadline) {
            if (NameHasOwner(name->second))
                return true;
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                _Peers.erase(peer);
                _Error = "peer " + peer + " exited: " + PeerLog(peer);
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        _Error = "peer " + peer + " did not take " + name->second + ": " + PeerLog(peer);
        StopPeer(peer);
        return false;
    }

    // Stops a peer (SIGTERM, then SIGKILL) and waits until its bus name is released.
    bool StopPeer(const std::string& peer)
    {
        auto it = _Peers.find(peer);
        if (it == _Peers.end())
            return false;
        pid_t pid = it->second;
        _Peers.erase(it);
        StopProcess(pid, true);
        return WaitForName(PeerBusNames().at(peer), false);
    }

    // Starts a program in the background, its standard output and error to the temp dir's "<name>.log";
    // it is stopped with its process group (SIGTERM, then SIGKILL) at teardown.
    bool StartProgram(const std::string& name, const std::vector<std::string>& argv)
    {
        if (_Programs.count(name) || _Peers.count(name)) {
            _Error = "program " + name + " already started";
            return false;
        }
        const pid_t pid = Spawn(argv, PeerLogPath(name), nullptr);
        if (pid < 0)
            return false;
        _Programs[name] = pid;
        return true;
    }

    // What a program or a peer wrote on its standard output and error so far.
    std::string ProgramLog(const std::string& name) const { return ReadFile(PeerLogPath(name)); }
    std::string PeerLog(const std::string& peer) const { return ReadFile(PeerLogPath(peer)); }

    bool NameHasOwner(const std::string& name)
    {
        SdBusError error;
        sd_bus_message* raw = nullptr;
        if (!_Bus
            || sd_bus_call_method(_Bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                   "org.freedesktop.DBus", "NameHasOwner", error.Get(), &raw, "s", name.c_str())
                < 0)
            return false;
        SdBusMessagePtr reply(raw);
        int owned = 0;
        return sd_bus_message_read(reply.get(), "b", &owned) >= 0 && owned;
    }

    // Waits (bounded) until name is owned (owned = true) or free (owned = false).
    bool WaitForName(const std::string& name, bool owned, int timeoutMs = kWaitMs)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        do {
            if (NameHasOwner(name) == owned)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        } while (std::chrono::steady_clock::now() < deadline);
        return false;
    }

    // Runs a command with a bounded wait; returns its exit status (-1 if it could not run or was killed),
    // its standard output in out (standard error is appended to the temp dir's "commands.log").
    int Run(const std::vector<std::string>& argv, std::string* out = nullptr, int timeoutMs = kWaitMs)
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) < 0)
            return -1;
        pid_t pid = Spawn(argv, _TempDir + "/commands.log", &fds[1]);
        close(fds[1]);
        if (pid < 0) {
            close(fds[0]);
            return -1;
        }
        std::string text;
        bool timedOut = !ReadOutput(fds[0], text, timeoutMs, false);
        close(fds[0]);
        if (timedOut)
            kill(-pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        if (out)
            *out = text;
        return !timedOut && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // `busctl --user <args>` against the private bus.
    int Busctl(const std::vector<std::string>& args, std::string* out = nullptr)
    {
        return Run(Join({ "busctl", "--user" }, args), out);
    }

    // busctl get-property's text ("u 2"), without the line end; "error" when the read fails.
    std::string Get(const std::string& service, const std::string& path, const std::string& iface,
        const std::string& name)
    {
        std::string out;
        if (Busctl({ "get-property", service, path, iface, name }, &out) != 0)
            return "error";
        while (!out.empty() && out.back() == '\n')
            out.pop_back();
        return out;
    }

    // busctl set-property; typedValue is the signature followed by the values.
    int Set(const std::string& service, const std::string& path, const std::string& iface,
        const std::string& name, const std::vector<std::string>& typedValue)
    {
        return Busctl(Join({ "set-property", service, path, iface, name }, typedValue));
    }

    // busctl call; args is the signature followed by the arguments.
    int Call(const std::string& service, const std::string& path, const std::string& iface,
        const std::string& method, const std::vector<std::string>& args = {}, std::string* out = nullptr)
    {
        return Busctl(Join({ "call", service, path, iface, method }, args), out);
    }

    // The bus daemon goes away, as on a unit whose session ends; every connection to it closes.
    void StopBus()
    {
        if (_DaemonPid > 0)
            StopProcess(_DaemonPid, false);
        _DaemonPid = -1;
    }

    // Replaces the bus daemon by one that refuses each connection's match rules beyond `limit` (AddMatch
    // fails with LimitsExceeded), as a bus short of resources does: signal subscriptions fail while calls
    // still work. Call it before starting peers; false (reason in LastError()) when the bus does not start.
    bool RestartBusWithMatchRuleLimit(int limit)
    {
        _Bus.reset();
        StopBus();
        const std::string config = _TempDir + "/limited-bus.conf";
        std::ofstream(config)
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
               " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig>\n"
               "  <include>/usr/share/dbus-1/session.conf</include>\n"
               "  <limit name=\"max_match_rules_per_connection\">"
            << limit << "</limit>\n</busconfig>\n";
        StartBus({ "--config-file=" + config }, "limited-bus");
        return _Bus != nullptr;
    }

    // Runs body while the session bus address points at nothing, as on a unit whose bus is down.
    void WithoutBus(const std::function<void()>& body)
    {
        setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + _TempDir + "/no-such-bus").c_str(), 1);
        body();
        setenv("DBUS_SESSION_BUS_ADDRESS", _Address.c_str(), 1);
    }

    // Queues every message matching rule (e.g. "type='signal',member='PropertiesChanged'") on the
    // fixture's connection, for WaitForMessage.
    bool AddMatch(const std::string& rule)
    {
        sd_bus_slot* slot = nullptr;
        if (!_Bus || sd_bus_add_match(_Bus.get(), &slot, rule.c_str(), &DbusTestEnv::OnMatch, this) < 0)
            return false;
        _Slots.emplace_back(slot);
        return true;
    }

    // The next queued message, waiting at most timeoutMs; empty on time-out.
    SdBusMessagePtr WaitForMessage(int timeoutMs = kWaitMs)
    {
        if (_Queue.empty())
            ProcessUntil(_Bus.get(), timeoutMs, [this](SdBusMessagePtr) { return !_Queue.empty(); });
        if (_Queue.empty())
            return nullptr;
        SdBusMessagePtr message = std::move(_Queue.front());
        _Queue.pop_front();
        return message;
    }

private:
    static int OnMatch(sd_bus_message* message, void* userdata, sd_bus_error*)
    {
        static_cast<DbusTestEnv*>(userdata)->_Queue.emplace_back(sd_bus_message_ref(message));
        return 0;
    }

    // SIGTERM (to the whole process group when group is true), a bounded wait, then SIGKILL.
    static void StopProcess(pid_t pid, bool group)
    {
        kill(group ? -pid : pid, SIGTERM);
        for (int i = 0; i < 300; ++i) {
            if (waitpid(pid, nullptr, WNOHANG) == pid)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        kill(group ? -pid : pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }

    // Appends what fd delivers to text until end of file (or the first line end when oneLine), bounded;
    // false on time-out.
    static bool ReadOutput(int fd, std::string& text, int timeoutMs, bool oneLine)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!oneLine || text.find('\n') == std::string::npos) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now())
                            .count();
            if (left <= 0)
                return false;
            pollfd pfd { fd, POLLIN, 0 };
            if (poll(&pfd, 1, static_cast<int>(left)) <= 0)
                continue;
            char buffer[4096];
            ssize_t n = read(fd, buffer, sizeof buffer);
            if (n <= 0)
                break;
            text.append(buffer, static_cast<size_t>(n));
        }
        return true;
    }

    static std::vector<std::string> Join(std::vector<std::string> head, const std::vector<std::string>& tail)
    {
        head.insert(head.end(), tail.begin(), tail.end());
        return head;
    }

    std::string PeerLogPath(const std::string& peer) const { return _TempDir + "/" + peer + ".log"; }

    // fork + exec in a new process group, standard error (and output unless outFd) to logPath.
    pid_t Spawn(const std::vector<std::string>& argv, const std::string& logPath, const int* outFd)
    {
        std::vector<char*> args;
        for (const auto& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        pid_t parent = getpid();
        pid_t pid = fork();
        if (pid == 0) {
            setpgid(0, 0);
            // Die with the test even when it crashes and never reaches teardown.
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent)
                _exit(127);
            int devnull = open("/dev/null", O_RDONLY);
            dup2(devnull, 0);
            dup2(outFd ? *outFd : log, 1);
            dup2(log, 2);
            execvp(args[0], args.data());
            _exit(127);
        }
        if (log >= 0)
            close(log);
        if (pid < 0)
            _Error = std::string("fork: ") + strerror(errno);
        else
            setpgid(pid, pid);
        return pid;
    }

    // A bus daemon with `config` (default: the session bus's) on the socket `name` of the temp dir.
    void StartBus(const std::vector<std::string>& config = { "--session" }, const std::string& name = "bus")
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) < 0)
            return;
        // The daemon stays our child (so it dies with us); the address it prints says it is ready.
        _DaemonPid
            = Spawn(Join(Join({ "dbus-daemon" }, config),
                        { "--nofork", "--print-address=1", "--address=unix:path=" + _TempDir + "/" + name }),
                _TempDir + "/" + name + "-daemon.log", &fds[1]);
        close(fds[1]);
        std::string text;
        if (_DaemonPid > 0)
            ReadOutput(fds[0], text, kWaitMs, true);
        close(fds[0]);
        _Address = text.substr(0, text.find('\n'));
        sd_bus* raw = nullptr;
        if (text.find('\n') == std::string::npos
            || setenv("DBUS_SESSION_BUS_ADDRESS", _Address.c_str(), 1) < 0 || sd_bus_open_user(&raw) < 0) {
            _Error = "dbus-daemon did not start or cannot be reached: " + text;
            return;
        }
        _Bus.reset(raw);
    }

    std::string _TempDir;
    std::string _Address;
    std::string _Error;
    std::string _PreviousAddress;
    bool _HadAddress = false;
    pid_t _DaemonPid = -1;
    SdBusPtr _Bus;
    std::vector<SdBusSlotPtr> _Slots;
    std::deque<SdBusMessagePtr> _Queue;
    std::map<std::string, pid_t> _Peers;
    std::map<std::string, pid_t> _Programs;
};

} // namespace VideodTest
