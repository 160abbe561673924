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
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"
#include "dbus-helper/sd_bus_ptr.h"

namespace
{

using Clock = std::chrono::steady_clock;
using DbusHelper::SdBusError;
using DbusHelper::SdBusMessagePtr;
using DbusHelper::SdBusPtr;
using VideodBench::NameHasOwner;
using VideodBench::Spawn;
using VideodBench::VideodPath;

constexpr const char* kReferenceName = "com.tarnwell.bench.Echo1";

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

// One target of the round trips.
struct EchoService {
    const char* name;
    const char* path;
    const char* interface;
};

Figures Summarise(std::vector<double> times, int failures)
{
    Figures figures;
    figures.failures = failures;
    if (times.empty())
        return figures;
    std::sort(times.begin(), times.end());
    figures.median_us = times[times.size() / 2];
    figures.p99_us = times[std::min(times.size() - 1, times.size() * 99 / 100)];
    return figures;
}

// `count` round trips to each service, taken in turn, so that both see the same load on the machine.
std::array<Figures, 2> EchoRoundTrips(sd_bus* bus, const std::array<EchoService, 2>& services, int count)
{
    std::array<std::vector<double>, 2> times;
    std::array<int, 2> failures {};
    for (int i = 0; i < count; ++i) {
        for (size_t s = 0; s < services.size(); ++s) {
            SdBusError error;
            sd_bus_message* raw = nullptr;
            const auto start = Clock::now();
            const int r = sd_bus_call_method(bus, services[s].name, services[s].path, services[s].interface,
                "Echo", error.Get(), &raw, "s", "ping");
            const auto end = Clock::now();
            SdBusMessagePtr reply(raw);
            if (r < 0)
                ++failures[s];
            else
                times[s].push_back(std::chrono::duration<double, std::micro>(end - start).count());
        }
    }
    return { Summarise(std::move(times[0]), failures[0]), Summarise(std::move(times[1]), failures[1]) };
}

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 2000;

    VideodBench::PrivateBus privateBus;
    if (!privateBus.Bus()) {
        std::fprintf(stderr, "no private bus\n");
        return 1;
    }
    sd_bus* bus = privateBus.Bus();

    // videod: process start to owning "com.tarnwell.common.Video1" (no peers; the test input).
    const auto started = Clock::now();
    const pid_t videod = Spawn({ VideodPath() }, -1);
    while (!NameHasOwner(bus, "com.tarnwell.common.Video1")) {
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
    const std::array<EchoService, 2> services { EchoService { "com.tarnwell.common.Video1",
                                                    "/com/tarnwell/common/Video1",
                                                    "com.tarnwell.common.Video1.Control" },
        EchoService { kReferenceName, "/com/tarnwell/bench/Echo1", kReferenceName } };
    EchoRoundTrips(bus, services, 100);
    const auto [daemon, minimal] = EchoRoundTrips(bus, services, count);

    std::printf("videod start to owning com.tarnwell.common.Video1: %.1f ms\n", startMs);
    std::printf("Echo round trip, %d calls     median      p99   failures\n", count);
    std::printf("  videod                     %7.1f us %7.1f us %d\n", daemon.median_us, daemon.p99_us,
        daemon.failures);
    std::printf("  minimal sd-bus service     %7.1f us %7.1f us %d\n", minimal.median_us, minimal.p99_us,
        minimal.failures);
    if (minimal.median_us > 0)
        std::printf("  median ratio               %7.2f (calls taken in turn)\n",
            daemon.median_us / minimal.median_us);

    stop = true;
    reference.join();
    sd_bus_call_method(bus, "com.tarnwell.common.Video1", "/com/tarnwell/common/Video1",
        "com.tarnwell.common.Video1.Control", "Exit", nullptr, nullptr, "");
    int status = 0;
    waitpid(videod, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
