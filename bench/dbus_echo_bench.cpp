// "Echo" round trips to videod beside a minimal sd-bus echo service, and videod's start to owning its name,
// on a private bus. Run with host/env sourced (the daemon starts its graph on the stand-in plug-in).
//   dbus_echo_bench [ROUND_TRIPS]
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "dbus-helper/sd_bus_ptr.h"

namespace
{

using Clock = std::chrono::steady_clock;
using DbusHelper::SdBusError;
using DbusHelper::SdBusMessagePtr;
using DbusHelper::SdBusPtr;

constexpr const char* kReferenceName = "com.tarnwell.bench.Echo1";

pid_t Spawn(const std::vector<std::string>& argv, int outFd)
{
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int null = open("/dev/null", O_WRONLY);
        dup2(outFd >= 0 ? outFd : null, 1);
        dup2(null, 2);
        std::vector<char*> args;
        for (const std::string& arg : argv)
            args.push_back(const_cast<char*>(arg.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    return pid;
}

bool NameHasOwner(sd_bus* bus, const char* name)
{
    SdBusError error;
    sd_bus_message* raw = nullptr;
    if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "NameHasOwner", error.Get(), &raw, "s", name)
        < 0)
        return false;
    SdBusMessagePtr reply(raw);
    int owned = 0;
    return sd_bus_message_read(reply.get(), "b", &owned) >= 0 && owned;
}

// The reference: the smallest sd-bus service that answers Echo, on a thread of its own.
int ReferenceEcho(sd_bus_message* call, void*, sd_bus_error*)
{
    const char* text = nullptr;
    const int r = sd_bus_message_read(call, "s", &text);
    if (r < 0)
        return r;
    return sd_bus_reply_method_return(call, "s", text);
}

const sd_bus_vtable kReferenceVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", ReferenceEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

void RunReference(std::atomic<bool>& stop, std::atomic<bool>& ready)
{
    sd_bus* raw = nullptr;
    if (sd_bus_open_user(&raw) < 0)
        return;
    SdBusPtr bus(raw);
    if (sd_bus_add_object_vtable(
            bus.get(), nullptr, "/com/tarnwell/bench/Echo1", kReferenceName, kReferenceVtable, nullptr)
            < 0
        || sd_bus_request_name(bus.get(), kReferenceName, 0) < 0)
        return;
    ready = true;
    while (!stop) {
        const int r = sd_bus_process(bus.get(), nullptr);
        if (r < 0)
            break;
        if (r == 0)
            sd_bus_wait(bus.get(), 100000);
    }
}

struct Figures {
    double median_us = 0;
    double p99_us = 0;
    int failures = 0;
};

Figures EchoRoundTrips(sd_bus* bus, const char* service, const char* path, const char* interface, int count)
{
    std::vector<double> times;
    Figures figures;
    for (int i = 0; i < count; ++i) {
        SdBusError error;
        sd_bus_message* raw = nullptr;
        const auto start = Clock::now();
        const int r
            = sd_bus_call_method(bus, service, path, interface, "Echo", error.Get(), &raw, "s", "ping");
        const auto end = Clock::now();
        SdBusMessagePtr reply(raw);
        if (r < 0) {
            ++figures.failures;
            continue;
        }
        times.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    }
    if (times.empty())
        return figures;
    std::sort(times.begin(), times.end());
    figures.median_us = times[times.size() / 2];
    figures.p99_us = times[std::min(times.size() - 1, times.size() * 99 / 100)];
    return figures;
}

std::string VideodPath()
{
    char self[4096] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    std::string dir = n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
    dir = dir.substr(0, dir.rfind('/'));
    return dir + "/../src/videod";
}

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 2000;

    // A private bus: the address it prints says it is ready.
    int fds[2];
    if (pipe(fds) < 0)
        return 1;
    char dir[] = "/tmp/videod-bench-XXXXXX";
    if (!mkdtemp(dir))
        return 1;
    const pid_t busPid = Spawn({ "dbus-daemon", "--session", "--nofork", "--print-address=1",
                                   std::string("--address=unix:path=") + dir + "/bus" },
        fds[1]);
    close(fds[1]);
    std::string address;
    char c = 0;
    while (read(fds[0], &c, 1) == 1 && c != '\n')
        address += c;
    close(fds[0]);
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);

    sd_bus* raw = nullptr;
    if (sd_bus_open_user(&raw) < 0) {
        std::fprintf(stderr, "no private bus\n");
        return 1;
    }
    SdBusPtr bus(raw);

    // videod: process start to owning "com.tarnwell.common.Video1" (no peers; the test input).
    const auto started = Clock::now();
    const pid_t videod = Spawn({ VideodPath() }, -1);
    while (!NameHasOwner(bus.get(), "com.tarnwell.common.Video1")) {
        if (waitpid(videod, nullptr, WNOHANG) == videod
            || Clock::now() - started > std::chrono::seconds(20)) {
            std::fprintf(stderr, "videod did not take its name (%s)\n", VideodPath().c_str());
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const double startMs = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
    // Let the streamer start and settle, so the round trips share the loop with a running graph.
    std::this_thread::sleep_for(std::chrono::seconds(3));

    std::atomic<bool> stop(false);
    std::atomic<bool> ready(false);
    std::thread reference(RunReference, std::ref(stop), std::ref(ready));
    while (!ready)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    // Warm-up, then the measured runs.
    EchoRoundTrips(bus.get(), "com.tarnwell.common.Video1", "/com/tarnwell/common/Video1",
        "com.tarnwell.common.Video1.Control", 100);
    EchoRoundTrips(bus.get(), kReferenceName, "/com/tarnwell/bench/Echo1", kReferenceName, 100);
    const Figures daemon = EchoRoundTrips(bus.get(), "com.tarnwell.common.Video1",
        "/com/tarnwell/common/Video1", "com.tarnwell.common.Video1.Control", count);
    const Figures minimal
        = EchoRoundTrips(bus.get(), kReferenceName, "/com/tarnwell/bench/Echo1", kReferenceName, count);

    std::printf("videod start to owning com.tarnwell.common.Video1: %.1f ms\n", startMs);
    std::printf("Echo round trip, %d calls     median      p99   failures\n", count);
    std::printf("  videod                     %7.1f us %7.1f us %d\n", daemon.median_us, daemon.p99_us,
        daemon.failures);
    std::printf("  minimal sd-bus service     %7.1f us %7.1f us %d\n", minimal.median_us, minimal.p99_us,
        minimal.failures);

    stop = true;
    reference.join();
    sd_bus_call_method(bus.get(), "com.tarnwell.common.Video1", "/com/tarnwell/common/Video1",
        "com.tarnwell.common.Video1.Control", "Exit", nullptr, nullptr, "");
    int status = 0;
    waitpid(videod, &status, 0);
    bus.reset();
    kill(busPid, SIGTERM);
    waitpid(busPid, nullptr, 0);
    std::filesystem::remove_all(dir);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
