// Process helpers of the benchmarks: a child process, the name check on the bus, the source tree, the
// daemon's path in the build tree, a temporary directory and a private session bus.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "dbus-helper/sd_bus_ptr.h"

namespace VideodBench
{

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

} // namespace VideodBench
