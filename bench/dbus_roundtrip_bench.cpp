// Round-trip time of the settings read and the storage write-activity call against the simulated peers,
// next to the same calls made by spawning `busctl --user`. Runs its own private bus and peers.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "clients/settings_daemon_dbus_handler.h"
#include "clients/storage_daemon_dbus_handler.h"
#include "dbus-helper/sdbus_utils.h"

extern char** environ;

namespace
{

constexpr int kClientRounds = 500;
constexpr int kBusctlRounds = 100;

pid_t Spawn(const std::vector<std::string>& argv, const std::string& output)
{
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int RunToEnd(const std::vector<std::string>& argv, const std::string& output = "/dev/null")
{
    const pid_t pid = Spawn(argv, output);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitForName(const std::string& name)
{
    for (int i = 0; i < 500; ++i) {
        if (RunToEnd({ "busctl", "--user", "status", name }) == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
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
    const char* source_env = std::getenv("VIDEOD_SOURCE_DIR");
    const std::filesystem::path source = source_env
        ? std::filesystem::path(source_env)
        : std::filesystem::path(__FILE__).parent_path().parent_path();
    char pattern[] = "/tmp/videod-bench-XXXXXX";
    if (!mkdtemp(pattern)) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string dir = pattern;
    const std::string media = dir + "/media";
    std::filesystem::create_directories(media);

    // A private bus: the machine's own session bus is never used.
    const std::string address = "unix:path=" + dir + "/bus";
    const pid_t daemon
        = Spawn({ "dbus-daemon", "--session", "--nofork", "--address=" + address }, "/dev/null");
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    const pid_t settings = Spawn({ (source / "host/peers/settings.py").string() }, dir + "/settings.log");
    const pid_t storage
        = Spawn({ (source / "host/peers/storage.py").string(), "sd=" + media }, dir + "/storage.log");
    int status = 0;
    if (daemon < 0 || settings < 0 || storage < 0 || !WaitForName("com.tarnwell.common.Settings1")
        || !WaitForName("com.tarnwell.common.StorageDaemon1")) {
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

    for (pid_t pid : { storage, settings, daemon }) {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return status;
}
