// Process helpers of the benchmarks that start videod: a child process, the name check on the bus, the
// daemon's path in the build tree and a private session bus.
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

// A private session bus in a temporary directory, the environment pointed at it, and a connection;
// everything goes at destruction. Bus() is null when it did not start.
class PrivateBus
{
public:
    PrivateBus()
    {
        char dir[] = "/tmp/videod-bench-XXXXXX";
        int fds[2];
        if (!mkdtemp(dir) || pipe(fds) < 0)
            return;
        _Dir = dir;
        // The address it prints says it is ready.
        _Pid = Spawn({ "dbus-daemon", "--session", "--nofork", "--print-address=1",
                         "--address=unix:path=" + _Dir + "/bus" },
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
        if (!_Dir.empty())
            std::filesystem::remove_all(_Dir);
    }

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    sd_bus* Bus() const { return _Bus.get(); }
    // The temporary directory, for the benchmark's own files too.
    const std::string& Dir() const { return _Dir; }

private:
    std::string _Dir;
    pid_t _Pid = -1;
    DbusHelper::SdBusPtr _Bus;
};

} // namespace VideodBench
