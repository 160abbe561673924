// Round-trip time of the settings read and the storage write-activity call against the simulated peers,
// next to the same calls made by spawning `busctl --user`. Runs its own private bus and peers.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"
#include "clients/settings_daemon_dbus_handler.h"
#include "clients/storage_daemon_dbus_handler.h"
#include "dbus-helper/sdbus_utils.h"

namespace
{

constexpr int kClientRounds = 500;
constexpr int kBusctlRounds = 100;

// Runs argv to its end with its output discarded; its exit status, or -1.
int RunToEnd(const std::vector<std::string>& argv)
{
    const pid_t pid = VideodBench::Spawn(argv, -1);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitForName(sd_bus* bus, const char* name)
{
    for (int i = 0; i < 500; ++i) {
        if (VideodBench::NameHasOwner(bus, name))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// A simulated peer with its output in log.
pid_t StartPeer(const std::vector<std::string>& argv, const std::string& log)
{
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const pid_t pid = VideodBench::Spawn(argv, fd);
    if (fd >= 0)
        close(fd);
    return pid;
}

struct Figures {
    double median_ms;
    double p99_ms;
};

Figures Measure(int rounds, const std::function<bool()>& call, int& failures)
{
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        if (!call())
            ++failures;
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    const size_t p99 = std::min(times.size() - 1, static_cast<size_t>(times.size() * 0.99));
    return { times[times.size() / 2], times[p99] };
}

void Print(const char* what, int rounds, const Figures& figures, int failures)
{
    std::printf("%-44s rounds %4d  median %8.3f ms  p99 %8.3f ms  failures %d\n", what, rounds,
        figures.median_ms, figures.p99_ms, failures);
}

} // namespace

int main()
{
    const std::filesystem::path source = VideodBench::SourceDir();
    // A private bus: the machine's own session bus is never used.
    VideodBench::PrivateBus bus;
    const std::string& dir = bus.Dir();
    const std::string media = dir + "/media";
    std::filesystem::create_directories(media);
    const pid_t settings = StartPeer({ (source / "host/peers/settings.py").string() }, dir + "/settings.log");
    const pid_t storage
        = StartPeer({ (source / "host/peers/storage.py").string(), "sd=" + media }, dir + "/storage.log");
    int status = 0;
    if (!bus.Bus() || settings < 0 || storage < 0 || !WaitForName(bus.Bus(), "com.tarnwell.common.Settings1")
        || !WaitForName(bus.Bus(), "com.tarnwell.common.StorageDaemon1")) {
        std::fprintf(stderr, "private bus or peers did not start (see %s)\n", dir.c_str());
        status = 1;
    } else {
        const std::string device = "/com/tarnwell/common/StorageDaemon1/sd";
        int failures = 0;
        bool value = false;
        Figures f = Measure(
            kClientRounds,
            [&] { return Settingsd::SettingsDaemonDbusHandler::GetSetting("video", "sharpen", value) >= 0; },
            failures);
        Print("GetSetting (client)", kClientRounds, f, failures);

        failures = 0;
        bool active = false;
        f = Measure(
            kClientRounds,
            [&] {
                active = !active;
                return Storaged::StorageDaemonDbusHandler::SetWriteActive(device, 1, active) == 0;
            },
            failures);
        Print("SetWriteActive (client, own connection)", kClientRounds, f, failures);

        failures = 0;
        f = Measure(
            kBusctlRounds,
            [&] {
                return RunToEnd({ "busctl", "--user", "get-property", "com.tarnwell.common.Settings1",
                           "/com/tarnwell/common/Settings1/video", "com.tarnwell.common.Settings1",
                           "sharpen" })
                    == 0;
            },
            failures);
        Print("GetSetting (busctl --user get-property)", kBusctlRounds, f, failures);

        failures = 0;
        active = false;
        f = Measure(
            kBusctlRounds,
            [&] {
                active = !active;
                return RunToEnd({ "busctl", "--user", "call", "com.tarnwell.common.StorageDaemon1", device,
                           "com.tarnwell.common.StorageDaemon1.Device", "SetWriteActive", "yb", "1",
                           active ? "true" : "false" })
                    == 0;
            },
            failures);
        Print("SetWriteActive (busctl --user call)", kBusctlRounds, f, failures);
    }

    for (pid_t pid : { storage, settings }) {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    return status;
}
