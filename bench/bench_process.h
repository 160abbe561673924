// Process helpers of the benchmarks: a child process, the name check on the bus, the source tree, the
// daemon's path in the build tree, a temporary directory, a private session bus and the simulated peers
// on one.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "dbus-helper/sd_bus_ptr.h"

namespace VideodBench
{

// The daemon's bus name, object and interface.
constexpr const char* kVideodService = "com.tarnwell.common.Video1";
constexpr const char* kVideodPath = "/com/tarnwell/common/Video1";
constexpr const char* kVideodInterface = "com.tarnwell.common.Video1.Control";

// A child that dies with the benchmark; its standard output to outFd and its standard error to errFd
// (/dev/null for -1).
inline pid_t Spawn(const std::vector<std::string>& argv, int outFd, int errFd = -1)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = open("/dev/null", O_WRONLY);
        dup2(outFd >= 0 ? outFd : null, 1);
        dup2(errFd >= 0 ? errFd : null, 2);
        std::vector<char*> args;
        for (const std::string& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

// True while child `pid` has not ended; an ended child is left for its owner to reap.
inline bool Running(pid_t pid)
{
    siginfo_t info {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

inline bool NameHasOwner(sd_bus* bus, const char* name)
{
    DbusHelper::SdBusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameHasOwner", error.Get(), &raw, "s", name)
        < 0)
        return false;
    DbusHelper::SdBusMessagePtr reply(raw);
    int owned = 0;
    return sd_bus_message_read(reply.get(), "b", &owned) >= 0 && owned;
}

// videod's "CaptureActive": true once its input has started.
inline bool CaptureActive(sd_bus* bus)
{
    DbusHelper::SdBusError error;
    int active = 0;
    return sd_bus_get_property_trivial(
               bus, kVideodService, kVideodPath, kVideodInterface, "CaptureActive", error.Get(), 'b', &active)
        >= 0
        && active;
}

// A videod method's "i" reply, or -1000 for an error reply (printed).
template <typename... Args> int CallInt(sd_bus* bus, const char* method, const char* signature, Args... args)
{
    DbusHelper::SdBusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_call_method(
            bus, kVideodService, kVideodPath, kVideodInterface, method, error.Get(), &raw, signature, args...)
        < 0) {
        std::fprintf(stderr, "%s: %s\n", method, error.Message());
        return -1000;
    }
    DbusHelper::SdBusMessagePtr reply(raw);
    int value = -1000;
    sd_bus_message_read(reply.get(), "i", &value);
    return value;
}

// videod of the build tree the benchmark belongs to.
inline std::string VideodPath()
{
    char self[4096] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
    dir = dir.substr(0, dir.rfind('/'));
    return dir + "/../src/videod";
}

// The source tree: VIDEOD_SOURCE_DIR, else the one the benchmark was built from.
inline std::filesystem::path SourceDir()
{
    if (const char* source = std::getenv("VIDEOD_SOURCE_DIR"))
        return source;
    return VIDEOD_BENCH_SOURCE_DIR;
}

// A fresh temporary directory named after pattern (ending in XXXXXX), removed with all it holds at
// destruction. Path() is empty when it could not be made.
class ScratchDir
{
public:
    explicit ScratchDir(std::string pattern)
    {
        if (mkdtemp(pattern.data()))
            _Path = pattern;
    }

    ~ScratchDir()
    {
        std::error_code ignored;
        if (!_Path.empty())
            std::filesystem::remove_all(_Path, ignored);
    }

    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& Path() const { return _Path; }

    // A folder made inside, its path.
    std::string Folder(const std::string& name) const
    {
        const std::string folder = _Path + "/" + name;
        std::filesystem::create_directories(folder);
        return folder;
    }

private:
    std::string _Path;
};

// A private session bus in a temporary directory, the environment pointed at it, and a connection;
// everything goes at destruction. Bus() is null when it did not start.
class PrivateBus
{
public:
    PrivateBus()
    {
        int fds[2];
        if (Dir().empty() || pipe(fds) < 0)
            return;
        // The address it prints says it is ready.
        _Pid = Spawn({ "dbus-daemon", "--session", "--nofork", "--print-address=1",
                         "--address=unix:path=" + Dir() + "/bus" },
            fds[1]);
        close(fds[1]);
        std::string address;
        char c = 0;
        while (read(fds[0], &c, 1) == 1 && c != '\n')
            address += c;
        close(fds[0]);
        setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
        sd_bus* raw = nullptr;
        if (sd_bus_open_user(&raw) >= 0)
            _Bus.reset(raw);
    }

    ~PrivateBus()
    {
        _Bus.reset();
        if (_Pid > 0) {
            kill(_Pid, SIGTERM);
            waitpid(_Pid, nullptr, 0);
        }
    }

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    sd_bus* Bus() const { return _Bus.get(); }
    // The temporary directory, for the benchmark's own files too.
    const std::string& Dir() const { return _Scratch.Path(); }

private:
    ScratchDir _Scratch { "/tmp/videod-bench-XXXXXX" };
    pid_t _Pid = -1;
    DbusHelper::SdBusPtr _Bus;
};

// Simulated peers on a private bus, started by host/peers/run-peers with `peers` as its arguments (as
// "storage=sd=/tmp/media" or "helm=--video-status,1"); the environment is pointed at that bus, and never
// at the user's, whatever happens. run-peers stops the peers and the bus when it is sent SIGTERM.
class PrivatePeers
{
public:
    PrivatePeers(const std::filesystem::path& source, const std::vector<std::string>& peers)
    {
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/videod-bench-bus", 1);
        int fds[2];
        if (pipe(fds) < 0)
            return;
        std::vector<std::string> argv { (source / "host/peers/run-peers").string(), "--private-bus" };
        argv.insert(argv.end(), peers.begin(), peers.end());
        _Pid = Spawn(argv, fds[1], STDERR_FILENO);
        close(fds[1]);
        _Output = fdopen(fds[0], "r");
        // It prints the bus's address, then a line saying every peer owns its name.
        char line[512];
        const std::string prefix = "DBUS_SESSION_BUS_ADDRESS=";
        std::string address;
        while (_Output && std::fgets(line, sizeof(line), _Output)) {
            std::string text(line);
            text.erase(text.find_last_not_of("\n") + 1);
            if (text.rfind(prefix, 0) == 0)
                address = text.substr(prefix.size());
            if (text.rfind("run-peers: ready", 0) == 0) {
                _Ready = !address.empty();
                break;
            }
        }
        if (_Ready)
            setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    }

    ~PrivatePeers()
    {
        if (_Pid > 0) {
            kill(_Pid, SIGTERM);
            waitpid(_Pid, nullptr, 0);
        }
        if (_Output)
            std::fclose(_Output);
    }

    PrivatePeers(const PrivatePeers&) = delete;
    PrivatePeers& operator=(const PrivatePeers&) = delete;

    bool Ready() const { return _Ready; }

private:
    pid_t _Pid = -1;
    FILE* _Output = nullptr;
    bool _Ready = false;
};

} // namespace VideodBench
