// videod as a process on a private bus (no peers: the test input feeds the graph): process start to owning
// com.tarnwell.common.Video1, to its log line of the test input pipeline reaching PLAYING, to "CaptureActive"
// true (set once the input's start has returned) and to the first JPEG part on TCP port 4000 (the server
// sends its static picture until the camera's frames arrive, so this is the server's readiness); then
// StopRecording to the file being final (ffprobe reads its duration). Run with host/env sourced.
//   videod_process_bench [STARTS] [RECORDINGS]
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"
#include "dbus-helper/sd_bus_ptr.h"

namespace
{

using Clock = std::chrono::steady_clock;
using VideodBench::CallInt;
using VideodBench::CaptureActive;
using VideodBench::NameHasOwner;
using VideodBench::Spawn;
using VideodBench::VideodPath;

using VideodBench::kVideodInterface;
using VideodBench::kVideodPath;
using VideodBench::kVideodService;

double MsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Connects to the live stream (retrying until the server listens) and waits for the first whole part that
// holds a JPEG picture; the time since `start`, or -1 when none came within the bound.
double FirstLiveFrameMs(Clock::time_point start, const std::atomic<bool>& stop)
{
    while (!stop && MsSince(start) < 30000) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(4000);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
            close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            continue;
        }
        std::string pending;
        char buffer[65536];
        while (!stop && MsSince(start) < 30000) {
            pollfd pfd { fd, POLLIN, 0 };
            if (poll(&pfd, 1, 50) <= 0)
                continue;
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0)
                break;
            pending.append(buffer, static_cast<size_t>(n));
            const size_t first = pending.find("--frame");
            const size_t second = first == std::string::npos ? first : pending.find("--frame", first + 7);
            const size_t body = first == std::string::npos ? first : pending.find("\r\n\r\n", first);
            if (second != std::string::npos && body != std::string::npos && body + 6 <= second
                && pending.compare(body + 4, 2, "\xff\xd8") == 0) {
                const double ms = MsSince(start);
                close(fd);
                return ms;
            }
        }
        close(fd);
    }
    return -1;
}

// How many lines of the file hold both texts.
int LinesWith(const std::string& file, const std::string& first, const std::string& second)
{
    FILE* in = std::fopen(file.c_str(), "r");
    if (!in)
        return 0;
    char line[4096];
    int found = 0;
    while (std::fgets(line, sizeof line, in))
        found += std::strstr(line, first.c_str()) && std::strstr(line, second.c_str()) ? 1 : 0;
    std::fclose(in);
    return found;
}

// True when ffprobe reads the file's duration (the moov atom is written).
bool FfprobeReadsDuration(const std::string& file)
{
    const std::string command
        = "ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 '" + file + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return false;
    char line[128] = {};
    const bool read = fgets(line, sizeof line, pipe) != nullptr;
    const int status = pclose(pipe);
    return read && status == 0 && line[0] != '\0' && line[0] != '\n';
}

struct Summary {
    double median = 0;
    double min = 0;
    double max = 0;
};

Summary Summarise(std::vector<double> values)
{
    Summary summary;
    if (values.empty())
        return summary;
    std::sort(values.begin(), values.end());
    summary.median = values[values.size() / 2];
    summary.min = values.front();
    summary.max = values.back();
    return summary;
}

void PrintRow(const char* what, const std::vector<double>& values)
{
    const Summary s = Summarise(values);
    std::printf("  %-44s %8.1f %8.1f %8.1f ms  (%zu runs)\n", what, s.median, s.min, s.max, values.size());
}

bool StopDaemon(sd_bus* bus, pid_t videod)
{
    sd_bus_call_method(bus, kVideodService, kVideodPath, kVideodInterface, "Exit", nullptr, nullptr, "");
    int status = 0;
    waitpid(videod, &status, 0);
    // The name goes with the process; the next start must not find it still owned.
    while (NameHasOwner(bus, kVideodService))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    const int starts = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const int recordings = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;

    VideodBench::PrivateBus privateBus;
    if (!privateBus.Bus()) {
        std::fprintf(stderr, "no private bus\n");
        return 1;
    }
    sd_bus* bus = privateBus.Bus();
    const std::string dir = privateBus.Dir();

    // The daemon's log, mirrored on its standard error, says when the input pipeline plays.
    setenv("VIDEOD_LOG_STDERR", "1", 1);
    const std::string log = dir + "/videod.log";
    const char* inputPlaying = "[TestInputPipeline (pipeline";
    std::vector<double> toName;
    std::vector<double> toInputPlaying;
    std::vector<double> toCapture;
    std::vector<double> toFrame;
    std::vector<double> stopReply;
    std::vector<double> stopToEos;
    std::vector<double> stopToFinal;
    int failures = 0;
    for (int run = 0; run < starts; ++run) {
        std::atomic<bool> stop(false);
        double frameMs = -1;
        const int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const auto started = Clock::now();
        const pid_t videod = Spawn({ VideodPath() }, logFd, logFd);
        close(logFd);
        std::thread reader([&] { frameMs = FirstLiveFrameMs(started, stop); });
        double nameMs = -1;
        double playingMs = -1;
        double captureMs = -1;
        while ((captureMs < 0 || playingMs < 0) && MsSince(started) < 30000
            && waitpid(videod, nullptr, WNOHANG) == 0) {
            if (nameMs < 0 && NameHasOwner(bus, kVideodService))
                nameMs = MsSince(started);
            if (playingMs < 0 && LinesWith(log, inputPlaying, "State changed [PAUSED -> PLAYING]") > 0)
                playingMs = MsSince(started);
            if (nameMs >= 0 && captureMs < 0 && CaptureActive(bus))
                captureMs = MsSince(started);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        // A daemon that never came up ends the reader too.
        stop = captureMs < 0 || playingMs < 0;
        reader.join();
        if (nameMs < 0 || playingMs < 0 || captureMs < 0 || frameMs < 0) {
            std::fprintf(stderr, "run %d: videod did not come up (%s)\n", run, VideodPath().c_str());
            ++failures;
            kill(videod, SIGKILL);
            waitpid(videod, nullptr, 0);
            continue;
        }
        toName.push_back(nameMs);
        toInputPlaying.push_back(playingMs);
        toCapture.push_back(captureMs);
        toFrame.push_back(frameMs);

        // Recordings of three seconds on the last daemon.
        for (int rec = 0; run == starts - 1 && rec < recordings; ++rec) {
            const std::string file = dir + "/rec" + std::to_string(rec) + ".mp4";
            const std::string thumb = file + "-thumb.jpg";
            if (CallInt(bus, "StartRecording", "sssuuu", file.c_str(), "", thumb.c_str(), 160u, 120u, 80u)
                != 0) {
                ++failures;
                continue;
            }
            std::this_thread::sleep_for(std::chrono::seconds(3));
            const auto stopAt = Clock::now();
            const int stopped = CallInt(bus, "StopRecording", "");
            const double replyMs = MsSince(stopAt);
            while (stopped == 0 && LinesWith(log, "HandleRecordingEos: Handling EOS...", "") <= rec
                && MsSince(stopAt) < 15000)
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            const double eosMs = MsSince(stopAt);
            while (stopped == 0 && !FfprobeReadsDuration(file) && MsSince(stopAt) < 15000)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            const double finalMs = MsSince(stopAt);
            if (stopped != 0 || finalMs >= 15000) {
                ++failures;
                continue;
            }
            stopReply.push_back(replyMs);
            stopToEos.push_back(eosMs);
            stopToFinal.push_back(finalMs);
        }
        if (!StopDaemon(bus, videod))
            ++failures;
    }

    // One ffprobe run on a final file: the resolution of the last figure.
    std::vector<double> probe;
    for (int i = 0; i < 5 && !stopToFinal.empty(); ++i) {
        const auto at = Clock::now();
        FfprobeReadsDuration(dir + "/rec0.mp4");
        probe.push_back(MsSince(at));
    }

    std::printf("videod process (test input, no peers)             median      min      max\n");
    PrintRow("start to owning com.tarnwell.common.Video1", toName);
    PrintRow("start to the test input's PLAYING log line", toInputPlaying);
    PrintRow("start to \"CaptureActive\" true", toCapture);
    PrintRow("start to first JPEG part on TCP port 4000", toFrame);
    PrintRow("StopRecording reply", stopReply);
    PrintRow("StopRecording to its end-of-stream log line", stopToEos);
    PrintRow("StopRecording to the file final (ffprobe)", stopToFinal);
    PrintRow("one ffprobe run (resolution of the above)", probe);
    std::printf("  failures: %d\n", failures);

    return failures == 0 ? 0 : 1;
}
