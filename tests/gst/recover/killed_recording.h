// A capture recorded by a separate process that is killed with SIGKILL while it records, and the programs
// that recover it: shared by the recovery tests and the recovery benchmark.
#pragma once

#include <glib.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "common/glib_ptr.h"
#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

namespace RecoveryTest
{

struct Outcome {
    int status = -1; // the exit status, -1 when the program did not exit normally
    std::string out;
    std::string err;
};

// The null-terminated argument vector of `arguments`, valid while they are.
inline std::vector<gchar*> Argv(const std::vector<std::string>& arguments)
{
    std::vector<gchar*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<gchar*>(argument.c_str()));
    argv.push_back(nullptr);
    return argv;
}

inline Outcome RunCommand(const std::vector<std::string>& arguments)
{
    std::vector<gchar*> argv = Argv(arguments);
    gchar* raw_out = nullptr;
    gchar* raw_err = nullptr;
    gint wait_status = 0;
    Outcome outcome;
    if (!g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &raw_out,
            &raw_err, &wait_status, nullptr))
        return outcome;
    VideoDaemon::GCharPtr out(raw_out);
    VideoDaemon::GCharPtr err(raw_err);
    outcome.out = out ? out.get() : "";
    outcome.err = err ? err.get() : "";
    if (WIFEXITED(wait_status))
        outcome.status = WEXITSTATUS(wait_status);
    return outcome;
}

// A capture recorded by a separate process that is killed with SIGKILL `seconds` after its recording
// started. `sink_buffer` (bytes, "" for the daemon's own setting) replaces the file sink's buffer.
struct KilledRecording {
    std::string file;
    std::string recovery;
    double recorded = 0;
    std::string failure;

    // `program` is the recording process, run for `seconds`.
    KilledRecording(const GstTest::TempDir& dir, const std::string& program, double seconds,
        const std::string& sink_buffer = "")
        : file(dir.File("capture.mp4"))
        , recovery(dir.File("capture.mrf"))
    {
        std::vector<std::string> arguments { program, file, recovery };
        if (!sink_buffer.empty())
            arguments.push_back(sink_buffer);
        std::vector<gchar*> argv = Argv(arguments);
        GPid pid = 0;
        gint out = -1;
        if (!g_spawn_async_with_pipes(nullptr, argv.data(), nullptr, G_SPAWN_DO_NOT_REAP_CHILD, nullptr,
                nullptr, &pid, nullptr, &out, nullptr, nullptr)) {
            failure = "the recording process did not start";
            return;
        }
        // Its one line says the recording runs.
        std::string line;
        char c = 0;
        while (line.find('\n') == std::string::npos && read(out, &c, 1) == 1)
            line += c;
        close(out);
        const auto start = std::chrono::steady_clock::now();
        if (line != "recording\n") {
            failure = "the recording process failed before recording";
        } else {
            std::this_thread::sleep_until(start + std::chrono::duration<double>(seconds));
            recorded = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        g_spawn_close_pid(pid);
    }
};

inline double Duration(const std::string& file, const std::string& stream)
{
    return GstTest::FfprobeNumber(file, "stream=duration", stream);
}

// What the stock element makes of the same inputs, for comparison.
inline std::string StockRecovery(const KilledRecording& recording, const std::string& out)
{
    RunCommand({ "gst-launch-1.0", "-q", "qtmoovrecover", "recovery-input=" + recording.recovery,
        "broken-input=" + recording.file, "fixed-output=" + out });
    return out;
}

inline void PrintLoss(const char* what, const KilledRecording& recording, const std::string& file)
{
    const double video = Duration(file, "v:0");
    const double audio = Duration(file, "a:0");
    std::printf("%-40s recorded %.3f s, video %.3f s (lost %.3f s), audio %.3f s (lost %.3f s)\n", what,
        recording.recorded, video, recording.recorded - video, audio, recording.recorded - audio);
}

} // namespace RecoveryTest
