// System test fixture: the videod binary as a separate process on a private bus with the simulated peers,
// driven only over D-Bus.
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "dbus/dbus_test_env.h"

namespace VideodSystemTest
{

constexpr const char* kService = "com.tarnwell.common.Video1";
constexpr const char* kPath = "/com/tarnwell/common/Video1";
constexpr const char* kInterface = "com.tarnwell.common.Video1.Control";

class VideodFixture : public VideodTest::DbusTestEnv
{
protected:
    ~VideodFixture() override
    {
        for (pid_t pid : _Daemons)
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
    }

    // Every simulated peer, on the NTSC camera: the system controller reports camera video and the
    // platform root holds an NTSC decoder file. Captures go to the storage peer's device.
    void StartPeersOnNtscCamera()
    {
        const std::string decoder = PlatformRoot() + "/sys/bus/i2c/devices/2-005c";
        std::filesystem::create_directories(decoder);
        std::ofstream(decoder + "/standard") << "NTSC\n";
        std::filesystem::create_directories(StorageDir());
        for (const auto& [peer, args] : std::vector<std::pair<std::string, std::vector<std::string>>> {
                 { "settings", {} }, { "storage", { StorageDir() } }, { "helm", { "--video-status", "1" } },
                 { "camd", {} }, { "display", {} }, { "remotecam", {} } })
            ASSERT_TRUE(StartPeer(peer, args)) << LastError();
    }

    std::string PlatformRoot() const { return TempDir() + "/platform"; }
    std::string StorageDir() const { return TempDir() + "/storage"; }
    std::string DaemonLogPath(size_t index) const
    {
        return TempDir() + "/videod-" + std::to_string(index) + ".log";
    }
    std::string DaemonLog(size_t index = 0) const { return VideodTest::ReadFile(DaemonLogPath(index)); }

    // A call with any arguments through sd-bus (no busctl process per call); the "i" reply, or -1000 for
    // an error reply.
    template <typename... Args> int CallInt(const char* method, const char* signature, Args... args)
    {
        VideodTest::SdBusError error;
        sd_bus_message* raw = nullptr;
        if (sd_bus_call_method(
                Bus(), kService, kPath, kInterface, method, error.Get(), &raw, signature, args...)
            < 0)
            return -1000;
        VideodTest::SdBusMessagePtr reply(raw);
        int value = -1000;
        sd_bus_message_read(reply.get(), "i", &value);
        return value;
    }

    // Starts one more videod (its log mirrored to a file); returns its index.
    size_t StartDaemon()
    {
        const size_t index = _Daemons.size();
        const std::string binary = std::string(getenv("VIDEOD_BINARY_DIR")) + "/src/videod";
        const std::string log = DaemonLogPath(index);
        const std::string root = PlatformRoot();
        const pid_t parent = getpid();
        const pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent)
                _exit(127);
            setenv("VIDEOD_LOG_STDERR", "1", 1);
            setenv("VIDEOD_PLATFORM_ROOT", root.c_str(), 1);
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(fd, 1);
            dup2(fd, 2);
            execl(binary.c_str(), binary.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        _Daemons.push_back(pid);
        return index;
    }

    // Starts videod and waits until its streamer has started (the first PLAYING input) and the name
    // is owned.
    void StartDaemonAndWait()
    {
        StartDaemon();
        ASSERT_TRUE(WaitForName(kService, true)) << DaemonLog();
        ASSERT_TRUE(WaitFor([&] { return Get("CaptureActive") == "b true"; }, 20000)) << DaemonLog();
    }

    // The exit status of daemon `index` once it has ended (bounded); -1 when it did not end or was killed.
    int WaitForExit(size_t index, int timeoutMs = 20000)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            if (waitpid(_Daemons[index], &status, WNOHANG) == _Daemons[index]) {
                _Daemons[index] = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }

    bool DaemonRunning(size_t index)
    {
        return _Daemons[index] > 0 && waitpid(_Daemons[index], nullptr, WNOHANG) == 0;
    }

    static bool WaitFor(const std::function<bool()>& done, int timeoutMs = 10000)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return true;
    }

    // busctl's text of a property of the service ("i 0").
    std::string Get(const std::string& property)
    {
        return DbusTestEnv::Get(kService, kPath, kInterface, property);
    }

    // A method call with busctl: its exit status, the reply's text in `out`.
    int CallMethod(
        const std::string& method, const std::vector<std::string>& args = {}, std::string* out = nullptr)
    {
        std::string text;
        const int status = Call(kService, kPath, kInterface, method, args, &text);
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        if (out)
            *out = text;
        return status;
    }

    // The "i" reply of a method, or a value no method answers with when the call fails.
    int CallForInt(const std::string& method, const std::vector<std::string>& args = {})
    {
        std::string out;
        if (CallMethod(method, args, &out) != 0 || out.rfind("i ", 0) != 0)
            return -1000;
        return std::stoi(out.substr(2));
    }

    // Queued PropertiesChanged of the service, flattened to the changed names, until `name` has been
    // seen or the wait ends.
    bool WaitForChanged(
        const std::string& name, std::vector<std::string>* seen = nullptr, int timeoutMs = 10000)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (std::chrono::steady_clock::now() < deadline) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now())
                                  .count();
            VideodTest::SdBusMessagePtr message = WaitForMessage(static_cast<int>(std::max<long>(left, 1)));
            if (!message)
                return false;
            if (!sd_bus_message_is_signal(
                    message.get(), "org.freedesktop.DBus.Properties", "PropertiesChanged"))
                continue;
            for (const std::string& changed : ChangedNames(message.get())) {
                if (seen)
                    seen->push_back(changed);
                if (changed == name)
                    return true;
            }
        }
        return false;
    }

    // The names a PropertiesChanged message announces (changed and invalidated).
    static std::vector<std::string> ChangedNames(sd_bus_message* message)
    {
        std::vector<std::string> names;
        const char* interface = nullptr;
        if (sd_bus_message_rewind(message, 1) < 0 || sd_bus_message_read(message, "s", &interface) < 0)
            return names;
        if (sd_bus_message_enter_container(message, 'a', "{sv}") < 0)
            return names;
        while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
            const char* name = nullptr;
            sd_bus_message_read(message, "s", &name);
            names.emplace_back(name);
            sd_bus_message_skip(message, "v");
            sd_bus_message_exit_container(message);
        }
        sd_bus_message_exit_container(message);
        char** invalidated = nullptr;
        if (sd_bus_message_read_strv(message, &invalidated) >= 0 && invalidated) {
            for (char** name = invalidated; *name; ++name) {
                names.emplace_back(*name);
                free(*name);
            }
            free(invalidated);
        }
        return names;
    }

    std::vector<pid_t> _Daemons;
};

} // namespace VideodSystemTest
