// videod's CPU as the unit runs it: the daemon on the simulated NTSC camera with every simulated peer, one
// client reading the live stream on TCP port 4000 and one recording started over D-Bus, next to one
// gst-launch-1.0 pipeline running the same elements with tees for the interpipes, read by the same client
// and recording too. Prints each one's share of a core (the median of a few windows), their ratio, each
// recording's frame rate (ffprobe), the pictures per second the client got and the load average. The two
// take turns for ROUNDS starts each, WINDOWS windows a start.
// Run with host/env sourced for the build directory:
//   VIDEOD_BUILD_DIR=<build> . host/env && <build>/bench/videod_cpu_bench [ROUNDS] [WINDOWS]
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_cpu.h"
#include "bench_process.h"
#include "dbus-helper/sd_bus_ptr.h"

namespace
{

using Clock = std::chrono::steady_clock;
using VideodBench::CallInt;
using VideodBench::CaptureActive;
using VideodBench::CpuFigures;
using VideodBench::CpuSummary;
using VideodBench::kLiveStreamPort;

using VideodBench::kVideodInterface;
using VideodBench::kVideodPath;
using VideodBench::kVideodService;
// Starts per side: another test may hold port 4000 for a while, or take it between the check and the
// start.
constexpr int kAttempts = 3;
constexpr int kPortWaitSeconds = 120;
constexpr int kFirstPartSeconds = 20;

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// True when nothing listens on the port, so a server started now can take it.
bool PortFree(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    const bool free = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return free;
}

bool WaitForPortFree(int port)
{
    const auto start = Clock::now();
    while (!PortFree(port)) {
        if (SecondsSince(start) > kPortWaitSeconds)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    return true;
}

// True when process `pid` holds the socket listening on the port: the client then reads its stream, not
// that of another test's server that took the port first.
bool ListensOn(pid_t pid, int port)
{
    std::ifstream tcp("/proc/net/tcp");
    std::string line;
    std::string inode;
    char local_port[8];
    std::snprintf(local_port, sizeof local_port, ":%04X", port);
    std::getline(tcp, line);
    while (inode.empty() && std::getline(tcp, line)) {
        // sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode
        std::istringstream fields(line);
        std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, number;
        fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >> timeout
            >> number;
        if (state == "0A" && local.size() > 5 && local.compare(local.size() - 5, 5, local_port) == 0)
            inode = number;
    }
    if (inode.empty())
        return false;
    std::error_code error;
    for (const auto& entry :
        std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", error))
        if (std::filesystem::read_symlink(entry.path(), error).string() == "socket:[" + inode + "]")
            return true;
    return false;
}

// A client of the live stream on this machine's port 4000, reading it continuously on a thread of its own
// and counting the multipart parts whose body is a JPEG picture, so a stream that stalls shows. It
// connects again when the server closes the connection or is not listening yet.
class LiveStreamReader
{
public:
    LiveStreamReader()
        : _Thread([this] { Read(); })
    {
    }

    ~LiveStreamReader()
    {
        _Stop = true;
        _Thread.join();
    }

    LiveStreamReader(const LiveStreamReader&) = delete;
    LiveStreamReader& operator=(const LiveStreamReader&) = delete;

    long Pictures() const { return _Pictures; }

    bool WaitForPicture(int seconds) const
    {
        const auto start = Clock::now();
        while (_Pictures == 0 && SecondsSince(start) < seconds)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return _Pictures > 0;
    }

private:
    void Read()
    {
        while (!_Stop) {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address {};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<uint16_t>(kLiveStreamPort));
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
                ReadConnection(fd);
            close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    void ReadConnection(int fd)
    {
        const std::string boundary = "--frame";
        std::string pending;
        char buffer[65536];
        while (!_Stop) {
            pollfd pfd { fd, POLLIN, 0 };
            if (poll(&pfd, 1, 100) <= 0)
                continue;
            const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0)
                return;
            pending.append(buffer, static_cast<size_t>(n));
            // Each part: the boundary, its headers, an empty line, then the picture.
            for (;;) {
                const size_t part = pending.find(boundary);
                if (part == std::string::npos) {
                    pending.erase(0, pending.size() > boundary.size() ? pending.size() - boundary.size() : 0);
                    break;
                }
                const size_t body = pending.find("\r\n\r\n", part);
                if (body == std::string::npos || body + 6 > pending.size()) {
                    pending.erase(0, part);
                    break;
                }
                if (pending.compare(body + 4, 2, "\xff\xd8") == 0)
                    ++_Pictures;
                pending.erase(0, body + 6);
            }
        }
    }

    std::atomic<bool> _Stop { false };
    std::atomic<long> _Pictures { 0 };
    std::thread _Thread;
};

// The windows of one start of a side: each window's CPU (with the frame rate of the start's recording),
// and what the client got meanwhile.
struct Round {
    std::vector<CpuFigures> windows;
    long pictures = 0;
    double seconds = 0;
    int stalled = 0; // windows in which the client got no picture
};

// The CPU windows of process `pid` while the client reads; a window fails when the process has ended or
// the client got nothing in it.
Round MeasureWindows(pid_t pid, const LiveStreamReader& reader, int windows)
{
    Round round;
    const long pictures_before = reader.Pictures();
    const auto start = Clock::now();
    for (int window = 0; window < windows; ++window) {
        const long before = reader.Pictures();
        CpuFigures figures;
        figures.share = VideodBench::CpuShare(std::to_string(pid), &VideodBench::SleepSeconds);
        figures.load = VideodBench::LoadAverage();
        if (reader.Pictures() == before) {
            ++round.stalled;
            figures.share = -1;
        }
        if (!VideodBench::Running(pid))
            figures.share = -1;
        round.windows.push_back(figures);
    }
    round.pictures = reader.Pictures() - pictures_before;
    round.seconds = SecondsSince(start);
    return round;
}

// The frame rate of the round's recording goes with each of its windows; without one they all fail.
void SetFileFrameRate(Round& round, const std::string& file)
{
    const double fps = VideodBench::FileFrameRate(file);
    if (fps < 0)
        std::fprintf(stderr, "no frames in %s\n", file.c_str());
    for (CpuFigures& figures : round.windows) {
        figures.fps = fps;
        if (fps < 0)
            figures.share = -1;
    }
}

// gst-launch-1.0 running the single pipeline with the live stream and a recording, read by the client.
bool SinglePipelineOnce(const std::string& dir, int windows, Round& round)
{
    if (!WaitForPortFree(kLiveStreamPort)) {
        std::fprintf(stderr, "port %d stayed in use\n", kLiveStreamPort);
        return false;
    }
    const std::string description
        = VideodBench::SinglePipeline(VideodBench::Load::kRecording, dir, VideodBench::LiveStream::kWith);
    const pid_t pid = VideodBench::StartGstLaunch(description);
    if (pid < 0)
        return false;
    bool streamed = false;
    {
        LiveStreamReader reader;
        streamed = reader.WaitForPicture(kFirstPartSeconds) && ListensOn(pid, kLiveStreamPort);
        if (streamed)
            round = MeasureWindows(pid, reader, windows);
    }
    kill(pid, SIGINT);
    VideodBench::Reap(pid, 10);
    if (!streamed) {
        std::fprintf(stderr, "the single pipeline sent no picture on port %d:\ngst-launch-1.0 %s\n",
            kLiveStreamPort, description.c_str());
        return false;
    }
    SetFileFrameRate(round, dir + "/video.mp4");
    std::error_code ignored;
    std::filesystem::remove(dir + "/video.mp4", ignored);
    std::filesystem::remove(dir + "/video.mrf", ignored);
    return true;
}

bool WaitUntil(const std::function<bool()>& done, int seconds)
{
    const auto start = Clock::now();
    while (!done()) {
        if (SecondsSince(start) > seconds)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

// True when ffprobe reads the file's duration: the moov atom is written.
bool FileFinal(const std::string& file)
{
    std::string out;
    return GstTest::RunProgram(
               { "ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", file }, &out)
        && !out.empty() && out[0] != '\n';
}

// The daemon on the simulated NTSC camera (the peers run), read by the client, recording one file.
bool DaemonOnce(sd_bus* bus, const std::string& dir, int windows, Round& round)
{
    if (!WaitForPortFree(kLiveStreamPort)) {
        std::fprintf(stderr, "port %d stayed in use\n", kLiveStreamPort);
        return false;
    }
    const std::string log = dir + "/videod.log";
    const int log_fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const pid_t videod = VideodBench::Spawn({ VideodBench::VideodPath() }, log_fd, log_fd);
    close(log_fd);
    auto stop = [&] {
        sd_bus_call_method(bus, kVideodService, kVideodPath, kVideodInterface, "Exit", nullptr, nullptr, "");
        VideodBench::Reap(videod, 20);
        WaitUntil([&] { return !VideodBench::NameHasOwner(bus, kVideodService); }, 10);
    };
    if (!WaitUntil([&] { return !VideodBench::Running(videod) || CaptureActive(bus); }, 30)
        || !VideodBench::Running(videod)) {
        std::fprintf(stderr, "videod did not start capturing (log: %s)\n", log.c_str());
        stop();
        return false;
    }
    const std::string file = dir + "/media/recording.mp4";
    const std::string recovery = dir + "/media/recording.mrf";
    const std::string thumbnail = dir + "/media/recording.jpg";
    bool streamed = false;
    bool recorded = false;
    {
        LiveStreamReader reader;
        streamed = reader.WaitForPicture(kFirstPartSeconds) && ListensOn(videod, kLiveStreamPort);
        recorded = streamed
            && CallInt(bus, "StartRecording", "sssuuu", file.c_str(), recovery.c_str(), thumbnail.c_str(),
                   160u, 120u, 70u)
                == 0;
        if (recorded)
            round = MeasureWindows(videod, reader, windows);
    }
    const bool stopped = recorded && CallInt(bus, "StopRecording", "") == 0
        && WaitUntil([&] { return FileFinal(file); }, 15);
    stop();
    if (!streamed)
        std::fprintf(stderr, "videod sent no picture on port %d (log: %s)\n", kLiveStreamPort, log.c_str());
    else if (!recorded || !stopped)
        std::fprintf(
            stderr, "the recording did not %s (log: %s)\n", recorded ? "finish" : "start", log.c_str());
    if (!stopped)
        return false;
    SetFileFrameRate(round, file);
    std::error_code ignored;
    for (const std::string& path : { file, recovery, thumbnail })
        std::filesystem::remove(path, ignored);
    return true;
}

// A side's rounds: the sides take turns, so that other work on the machine falls on both alike.
struct SideFigures {
    std::vector<CpuFigures> windows;
    long pictures = 0;
    double seconds = 0;
    int stalled = 0;
    int failed_rounds = 0;
};

// Runs one round of a side, starting it again when it did not stream, a few times at most.
template <typename Side> void AddRound(const char* name, SideFigures& figures, Side side)
{
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        Round round;
        if (side(round)) {
            figures.windows.insert(figures.windows.end(), round.windows.begin(), round.windows.end());
            figures.pictures += round.pictures;
            figures.seconds += round.seconds;
            figures.stalled += round.stalled;
            return;
        }
        std::fprintf(stderr, "%s: attempt %d of %d failed\n", name, attempt, kAttempts);
    }
    ++figures.failed_rounds;
}

void PrintSide(const char* name, const SideFigures& figures, const VideodBench::CpuSummary& cpu)
{
    std::printf("  %-28s %-31s %6.2f fps   %d stalled, %d failed windows, %d failed rounds  load %.2f\n",
        name, VideodBench::CpuText(cpu).c_str(),
        figures.seconds > 0 ? figures.pictures / figures.seconds : -1, figures.stalled, cpu.failed,
        figures.failed_rounds, cpu.load);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 2;
    const int windows = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::filesystem::path source = VideodBench::SourceDir();
    const VideodBench::ScratchDir scratch("/tmp/videod-cpu-bench-XXXXXX");
    const std::string& dir = scratch.Path();
    if (dir.empty()) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string media = scratch.Folder("media");

    // The NTSC decoder's standard file as the board presents it; with the system controller reporting
    // camera video the daemon takes the NTSC camera.
    const std::string decoder = dir + "/platform/sys/bus/i2c/devices/2-005c";
    std::filesystem::create_directories(decoder);
    std::filesystem::create_directories(dir + "/platform/dev");
    std::ofstream(decoder + "/standard") << "NTSC\n";
    setenv("VIDEOD_PLATFORM_ROOT", (dir + "/platform").c_str(), 1);
    setenv("VIDEOD_LOG_STDERR", "1", 1);

    VideodBench::PrivatePeers peers(source,
        { "settings", "storage=sd=" + media, "helm=--video-status,1", "camd", "display", "remotecam" });
    sd_bus* raw = nullptr;
    if (!peers.Ready() || sd_bus_open_user(&raw) < 0) {
        std::fprintf(stderr, "the simulated peers did not start\n");
        return 1;
    }
    const DbusHelper::SdBusPtr bus(raw);

    const double load_before = VideodBench::LoadAverage();
    SideFigures single;
    SideFigures daemon;
    for (int round = 0; round < rounds; ++round) {
        AddRound("gst-launch-1.0", single, [&](Round& r) { return SinglePipelineOnce(dir, windows, r); });
        AddRound("videod", daemon, [&](Round& r) { return DaemonOnce(bus.get(), dir, windows, r); });
    }

    std::printf(
        "CPU with the live stream read on TCP port %d and one recording, simulated NTSC camera: share of "
        "one core, median of %d rounds x %d windows of %.0f s (each after %.0f s to settle; the two take "
        "turns) with their spread, the recordings' lowest frame rate (ffprobe), the client's JPEG "
        "pictures per second, and the highest load average at a window's end (%.2f before the first)\n",
        kLiveStreamPort, rounds, windows, VideodBench::kCpuWindowSeconds, VideodBench::kCpuSettleSeconds,
        load_before);
    const VideodBench::CpuSummary daemon_cpu = VideodBench::Summarise(daemon.windows);
    const VideodBench::CpuSummary single_cpu = VideodBench::Summarise(single.windows);
    PrintSide("videod process", daemon, daemon_cpu);
    PrintSide("one gst-launch-1.0 pipeline", single, single_cpu);
    if (daemon_cpu.median < 0 || single_cpu.median <= 0) {
        std::printf("  ratio (medians)              failed\n");
        return 1;
    }
    std::printf(
        "  ratio (medians)              %5.3f  goal <= 1.10\n", daemon_cpu.median / single_cpu.median);
    return 0;
}
