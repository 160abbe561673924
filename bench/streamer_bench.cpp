// The streamer's own figures on the simulated NTSC camera: StartRecording to the first bytes in the file,
// StopRecording to the file finished (its muxer in NULL after the EOS), a still picture's turnaround, the
// CPU the graph takes with no, one and three captures next to the same chain as one gst-launch-1.0
// pipeline with tees for the interpipes, and the resident memory and the heap in use across 200 record/stop
// cycles.
//
// Run with host/env sourced for the build directory (the stand-in plug-in, its registry and the software
// sound device): VIDEOD_BUILD_DIR=<build> . host/env && <build>/bench/streamer_bench
// The storage daemon is simulated on a private bus (host/peers/run-peers); the user's bus is never used.
#include <glib.h>
#include <gst/gst.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_process.h"
#include "common/glib_ptr.h"
#include "common/gst_ptr.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "streamers/orb_streamer.h"
#include "support/ffprobe.h"
#include "support/main_loop_wait.h"

using Clock = std::chrono::steady_clock;
using TestSupport::RunMainLoopUntil;
using VideoDaemon::OrbStreamer;

namespace
{

constexpr int kRecordRuns = 10;
constexpr int kSnapshotRuns = 20;
constexpr int kCycles = 200;
// Cycles after which the one-time allocations of a capture are taken to be made.
constexpr int kWarmCycles = 10;
constexpr double kCpuWindowSeconds = 10.0;
constexpr double kCpuSettleSeconds = 3.0;
// Windows per graph and load; the median counts, as other work on the machine moves single windows.
constexpr int kCpuRuns = 3;
// How long each recording of the stop figure runs before it is stopped.
constexpr int kRecordMs = 2000;
constexpr int kCycleRecordMs = 150;

double Since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Runs the main loop (bus watches, the snapshot guard, EOS handlers) for `ms`, blocking in it between
// events as the daemon does, so the wait itself costs no CPU.
void Run(int ms)
{
    VideoDaemon::GMainLoopPtr loop(g_main_loop_new(nullptr, FALSE));
    g_timeout_add(
        static_cast<guint>(ms),
        [](gpointer data) {
            g_main_loop_quit(static_cast<GMainLoop*>(data));
            return G_SOURCE_REMOVE;
        },
        loop.get());
    g_main_loop_run(loop.get());
}

// User + system CPU seconds of process `pid` ("self" for this one), from /proc/<pid>/stat.
double CpuSeconds(const std::string& pid)
{
    std::ifstream in("/proc/" + pid + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold spaces; the fields after it are counted from its closing parenthesis.
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    // Field 3 (state) comes first; utime and stime are fields 14 and 15.
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number == 14)
            utime = std::stoull(field);
        else if (number == 15)
            stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Share of one core that process `pid` takes over the window, measured after it has settled.
double CpuShare(const std::string& pid, void (*wait)(double seconds))
{
    wait(kCpuSettleSeconds);
    const double before = CpuSeconds(pid);
    const auto start = Clock::now();
    wait(kCpuWindowSeconds);
    const double after = CpuSeconds(pid);
    if (before < 0 || after < 0)
        return -1;
    return (after - before) / (Since(start) / 1000.0);
}

// The one-minute load average: other work on a shared machine takes cores from the live graphs, whose
// leaky queues then drop frames, so a CPU figure is read together with it and the frame rate.
double LoadAverage()
{
    std::ifstream in("/proc/loadavg");
    double load = -1;
    in >> load;
    return load;
}

// Frames per second of the first video stream of a finished file, from its packets' times.
double FileFrameRate(const std::string& file)
{
    const std::vector<GstTest::Packet> packets = GstTest::FfprobePackets(file, "v:0");
    if (packets.size() < 2)
        return -1;
    const auto [first, last] = std::minmax_element(packets.begin(), packets.end(),
        [](const GstTest::Packet& a, const GstTest::Packet& b) { return a.pts < b.pts; });
    return last->pts > first->pts ? static_cast<double>(packets.size() - 1) / (last->pts - first->pts) : -1;
}

// What the allocator holds as in use: unlike the resident size it does not count freed memory the
// allocator keeps for reuse, so growth here is memory not given back.
long HeapInUseKiB()
{
    return static_cast<long>(mallinfo2().uordblks / 1024);
}

long VmRssKiB()
{
    std::ifstream in("/proc/self/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

void PrintTimes(const char* what, std::vector<double> ms, int runs, const char* goal)
{
    if (ms.empty()) {
        std::printf("%-46s failed in all %d runs\n", what, runs);
        return;
    }
    std::sort(ms.begin(), ms.end());
    std::printf("%-46s median %7.1f ms  max %7.1f ms  (%zu of %d runs)%s\n", what, ms[ms.size() / 2],
        ms.back(), ms.size(), runs, goal);
}

// The simulated storage daemon on a private bus, started by host/peers/run-peers, whose address this
// process's clients then use; run-peers stops the peer and the bus when it is sent SIGTERM.
class PrivatePeers
{
public:
    PrivatePeers(const std::filesystem::path& source, const std::string& media)
    {
        // Never the user's bus, whatever happens below.
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/videod-bench-bus", 1);
        const std::string program = (source / "host/peers/run-peers").string();
        const std::string storage = "storage=sd=" + media;
        const char* argv[] = { program.c_str(), "--private-bus", storage.c_str(), nullptr };
        gint out = -1;
        GError* raw_error = nullptr;
        if (!g_spawn_async_with_pipes(nullptr, const_cast<char**>(argv), nullptr, G_SPAWN_DO_NOT_REAP_CHILD,
                nullptr, nullptr, &_Pid, nullptr, &out, nullptr, &raw_error)) {
            VideoDaemon::GErrorPtr error(raw_error);
            std::fprintf(stderr, "run-peers: %s\n", error->message);
            return;
        }
        _Output = fdopen(out, "r");
        char line[512];
        while (_Output && std::fgets(line, sizeof(line), _Output)) {
            std::string text(line);
            text.erase(text.find_last_not_of("\n") + 1);
            const std::string prefix = "DBUS_SESSION_BUS_ADDRESS=";
            if (text.rfind(prefix, 0) == 0)
                _Address = text.substr(prefix.size());
            if (text.rfind("run-peers: ready", 0) == 0) {
                _Ready = !_Address.empty();
                break;
            }
        }
        if (_Ready)
            setenv("DBUS_SESSION_BUS_ADDRESS", _Address.c_str(), 1);
    }

    ~PrivatePeers()
    {
        if (_Pid > 0) {
            kill(_Pid, SIGTERM);
            waitpid(_Pid, nullptr, 0);
        }
        if (_Output)
            std::fclose(_Output);
    }

    PrivatePeers(const PrivatePeers&) = delete;
    PrivatePeers& operator=(const PrivatePeers&) = delete;

    bool Ready() const { return _Ready; }

private:
    GPid _Pid = 0;
    FILE* _Output = nullptr;
    std::string _Address;
    bool _Ready = false;
};

struct CpuFigures {
    double share = -1; // of one core; negative when the graph did not run
    double fps = -1; // of the recording's file (the slower of it and the autolog's); negative without one
    double load = -1; // load average at the end of the window
};

// The windows of one graph under one load: the median share, its spread, the lowest frame rate and the
// highest load average; failed windows are counted and left out.
struct CpuSummary {
    double median = -1;
    double low = -1;
    double high = -1;
    double fps = -1;
    double load = -1;
    int failed = 0;
};

CpuSummary Summarise(const std::vector<CpuFigures>& runs)
{
    CpuSummary summary;
    std::vector<double> shares;
    for (const CpuFigures& run : runs) {
        if (run.share < 0) {
            ++summary.failed;
            continue;
        }
        shares.push_back(run.share);
        if (summary.fps < 0 || run.fps < summary.fps)
            summary.fps = run.fps;
        summary.load = std::max(summary.load, run.load);
    }
    if (shares.empty())
        return summary;
    std::sort(shares.begin(), shares.end());
    summary.median = shares[shares.size() / 2];
    summary.low = shares.front();
    summary.high = shares.back();
    return summary;
}

// "12.3% (11.9-12.8) 29.97 fps": the median share with its spread, and the lowest frame rate.
std::string CpuText(const CpuSummary& summary)
{
    char text[80];
    if (summary.median < 0)
        std::snprintf(text, sizeof(text), "failed");
    else if (summary.fps < 0)
        std::snprintf(text, sizeof(text), "%5.1f%% (%4.1f-%4.1f)          ", summary.median * 100,
            summary.low * 100, summary.high * 100);
    else
        std::snprintf(text, sizeof(text), "%5.1f%% (%4.1f-%4.1f) %5.2f fps", summary.median * 100,
            summary.low * 100, summary.high * 100, summary.fps);
    return text;
}

// What runs besides the live picture.
enum class Load { kLive, kRecording, kThreeCaptures };

const char* LoadName(Load load)
{
    switch (load) {
    case Load::kLive:
        return "live picture only";
    case Load::kRecording:
        return "recording";
    case Load::kThreeCaptures:
        return "recording + SnapVoice + autolog";
    }
    return "";
}

// The streamer's chain as one pipeline, element for element as src/pipelines launches it. Each
// interpipesink becomes a tee (or, with no listener, a fakesink as it is not synchronised either) and
// each interpipesrc a queue with its limits: one buffer, leaking, for the picture hops, unbounded for the
// hops into the muxers and the AAC encoder. The sinks that never get a buffer (the closed snapshot
// branch, an encoder whose valve drops) do not wait for one, as their pipelines' state does not hold the
// others back in the streamer. The muxers' file sinks write unbuffered, as the daemon sets them after each
// launch. The speaker, listening to nothing, is left out.
std::string SinglePipeline(Load load, const std::string& dir)
{
    const std::string hop = " ! queue max-size-buffers=1 max-size-bytes=0 max-size-time=0 leaky=downstream ";
    const std::string open_hop = " ! queue max-size-buffers=0 max-size-bytes=0 max-size-time=0 ";
    const bool capturing = load != Load::kLive;

    auto overlay = [&](const std::string& name) {
        return "gpu." + hop
            + "! imxipuvideotransform ! video/x-raw,format=BGRA ! rsvgoverlaytarnwell name=ov_" + name
            + " fit-to-frame=true enabled=true ov_" + name
            + ".src_first ! queue max-size-buffers=1 max-size-time=50000000 leaky=downstream ";
    };
    auto encoder = [&](const std::string& tee, bool drop) {
        return "rec." + hop
            + "! video/x-raw,format=BGRA,width=640,height=480,framerate=30000/1001 ! valve drop="
            + (drop ? "true" : "false")
            + " ! imxipuvideotransform ! video/x-raw,format=I420 ! queue leaky=downstream max-size-buffers=2 "
              "! imxvpuenc_h264 bitrate=0 gop-size=16 quant-param=24 idr-interval=16 ! h264parse "
              "! video/x-h264,stream-format=avc,alignment=au,profile=main ! tee name="
            + tee + " ";
    };
    auto muxer = [&](const std::string& name, const std::string& video, const char* filter) {
        return video + "." + open_hop + "! video/x-h264 ! idrvalve drop=false " + filter
            + "! multiqueue name=" + name + "_mq max-size-buffers=30 max-size-time=0 " + name
            + "_mq. ! muxpause ! mp4mux name=" + name + "_mux moov-recovery-file=" + dir + "/" + name
            + ".mrf ! queue max-size-buffers=10 ! identity silent=false "
              "! filesink async=false sync=false buffer-mode=unbuffered location="
            + dir + "/" + name + ".mp4 aac." + open_hop + "! audio/mpeg ! " + name + "_mq. " + name
            + "_mq. ! muxpause ! " + name + "_mux. ";
    };

    std::string description
        = "imxv4l2videosrc fps=30000/1001 crop-meta-x=24 crop-meta-width=672 crop-meta-y=24 "
          "crop-meta-height=504 do-timestamp=true "
          "! video/x-raw,format=UYVY,width=720,height=504,framerate=30000/1001,interlace-mode=interleaved,"
          "device-mode=interleaved "
          "! vbiread line-dup-enabled=false line-dup-top-start=3 line-dup-top-stop=33 line-dup-bot-start=433 "
          "line-dup-bot-stop=480 first-top-data-line=0 num-top-data-lines=30 first-bot-data-line=433 "
          "num-bot-data-lines=37 set-tff-flag=true "
          "! queue leaky=downstream max-size-buffers=1 "
          "! imxipuvideotransform deinterlace=true input-crop=true ! "
          "video/x-raw,format=RGBA,width=640,height=480 "
          "! progressive-caps-filter ! capssetter "
          "caps=video/x-raw,pixel-aspect-ratio=1/1,framerate=30000/1001 "
          "! video/x-raw,width=640,height=480,framerate=30000/1001"
        + hop
        + "! queue max-size-buffers=6 leaky=downstream ! tarnwell-motion-filter roll-filter-coeffs=\"1 1\" "
          "! tarnwell-dsl silent=false plumbline-enabled=false dsl-enabled=false rotation-steps=0 "
          "rotation-threshold=7 rotation-frames-trigger=15 "
          "! tarnwell-tiling name=tiling background-mode=2 silent=false tiling.src "
          "! queue leaky=downstream max-size-buffers=4 ! tee name=gpu ";
    description += overlay("display") + hop
        + "! video/x-raw,format=BGRA,width=640,height=480 ! queue max-size-buffers=2 leaky=downstream "
          "! imxipuvideotransform ! imxipuvideosink qos=false use-vsync=true sync=false "
          "force-aspect-ratio=false "
          "output-rotation=5 ";
    description += overlay("recording") + "! tee name=rec ";
    description += encoder("video", !capturing);
    description += "rec." + hop
        + "! video/x-raw,format=BGRA,width=640,height=480 ! tarnwell-valve num-buffers-pass=0 "
          "! imxipuvideotransform ! capsfilter caps=video/x-raw,format=I420,width=640,height=480 "
          "! imxvpuenc_mjpeg quality-factor=85 ! multifilesink post-messages=true async=false location="
        + dir + "/dummy.jpeg ";
    description += "alsasrc provide-clock=false do-timestamp=false "
                   "! audio/x-raw,rate=44100,channels=2,format=S16LE,layout=interleaved ! volume volume=1 "
                   "! tee name=mic ";
    if (!capturing)
        return description
            + "video. ! fakesink sync=false async=false mic. ! fakesink sync=false async=false";

    description += "mic." + open_hop
        + "! queue max-size-buffers=10 leaky=downstream ! audioconvert "
          "! audio/x-raw,format=F32LE,channels=2 ! audioresample ! "
          "audio/x-raw,format=F32LE,channels=2,rate=48000 "
          "! queue max-size-buffers=10 leaky=downstream ! avenc_aac "
          "! audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 ! tee name=aac ";
    description += muxer("video", "video", "");
    if (load == Load::kThreeCaptures) {
        description += muxer("snapvoice", "video", "! snapvoice reset=true ");
        description += encoder("autolog", false) + muxer("autolog", "autolog", "");
    }
    return description;
}

void SleepSeconds(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

void RunSeconds(double seconds)
{
    Run(static_cast<int>(seconds * 1000));
}

// Waits (bounded) for child `pid` to end; SIGKILL when it does not.
void Reap(GPid pid, int seconds)
{
    for (int i = 0; i < seconds * 50; ++i) {
        if (waitpid(pid, nullptr, WNOHANG) == pid)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// The single pipeline run by gst-launch-1.0 as a child process, its files finished with an EOS on SIGINT.
CpuFigures SinglePipelineCpu(Load load, const std::string& dir)
{
    const std::string description = SinglePipeline(load, dir);
    // gst-launch-1.0 takes the description as a shell would split it: one word per argument.
    const std::string command = "gst-launch-1.0 -q -e " + description;
    gint argc = 0;
    gchar** raw_argv = nullptr;
    GError* raw_error = nullptr;
    GPid pid = 0;
    const bool spawned = g_shell_parse_argv(command.c_str(), &argc, &raw_argv, &raw_error)
        && g_spawn_async(nullptr, raw_argv, nullptr,
            static_cast<GSpawnFlags>(
                G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_STDOUT_TO_DEV_NULL),
            nullptr, nullptr, &pid, &raw_error);
    g_strfreev(raw_argv);
    if (!spawned) {
        VideoDaemon::GErrorPtr error(raw_error);
        std::fprintf(stderr, "gst-launch-1.0: %s\n", error->message);
        return {};
    }
    CpuFigures figures;
    figures.share = CpuShare(std::to_string(pid), &SleepSeconds);
    figures.load = LoadAverage();
    const bool running = waitpid(pid, nullptr, WNOHANG) == 0;
    kill(pid, SIGINT);
    Reap(pid, 10);
    if (load != Load::kLive)
        figures.fps = FileFrameRate(dir + "/video.mp4");
    if (load == Load::kThreeCaptures)
        figures.fps = std::min(figures.fps, FileFrameRate(dir + "/autolog.mp4"));
    std::error_code ignored;
    for (const char* name : { "video", "snapvoice", "autolog" }) {
        std::filesystem::remove(dir + "/" + name + ".mp4", ignored);
        std::filesystem::remove(dir + "/" + name + ".mrf", ignored);
    }
    if (!running || (load != Load::kLive && figures.fps < 0)) {
        std::fprintf(stderr, "the single pipeline (%s) did not run:\ngst-launch-1.0 %s\n", LoadName(load),
            description.c_str());
        figures.share = -1;
    }
    return figures;
}

class StreamerBench
{
public:
    explicit StreamerBench(std::string media)
        : _Media(std::move(media))
    {
        _Streamer.InitializePipelines();
        Mux().signal_eos.connect([this] { _MuxerEos = true; });
        _Streamer.SetInput(1);
        _Streamer.StartVideoPipelines();
    }

    // Waits for the live picture, then for the GPU's untimed preroll frame to be replaced by live ones.
    bool Started()
    {
        bool playing = RunMainLoopUntil(
            [&] {
                for (int index : { VideoDaemon::kNtscCameraIndex, VideoDaemon::kGpuIndex,
                         VideoDaemon::kOverlayRecordingIndex, VideoDaemon::kH264VideoIndex })
                    if (_Streamer.GetPipeline(index)->GetState() != GST_STATE_PLAYING)
                        return false;
                return true;
            },
            10000);
        Run(1000);
        return playing;
    }

    // StartRecording to the first bytes in the file, StopRecording to the muxer in NULL after its EOS.
    void RecordAndStop()
    {
        std::vector<double> first_ms, stop_ms;
        for (int run = 0; run < kRecordRuns; ++run) {
            const auto start = Clock::now();
            if (!StartRecording())
                continue;
            if (RunMainLoopUntil([&] { return Mux().GetBytesWritten() > 0; }, 5000))
                first_ms.push_back(Since(start));
            Run(std::max(0, kRecordMs - static_cast<int>(Since(start))));
            double ms = 0;
            if (StopRecording(ms))
                stop_ms.push_back(ms);
        }
        PrintTimes("StartRecording -> first bytes in the file", first_ms, kRecordRuns, "");
        PrintTimes(
            "StopRecording -> muxer NULL after EOS (2 s file)", stop_ms, kRecordRuns, "  goal < 200 ms");
    }

    void Snapshots()
    {
        std::vector<double> callback_ms, signal_ms;
        std::string created;
        sigc::connection connection
            = _Streamer.signal_snapshot_created.connect([&](std::string path) { created = path; });
        for (int run = 0; run < kSnapshotRuns; ++run) {
            if (!SnapshotIdle())
                continue;
            const std::string path = _Media + "/snapshot.jpg";
            int status = -1;
            double at_callback = 0;
            created.clear();
            const auto start = Clock::now();
            if (_Streamer.Snapshot("Snapshot", path, 640, 480, 85,
                    [&](int s) {
                        status = s;
                        at_callback = Since(start);
                    })
                < 0)
                continue;
            if (RunMainLoopUntil([&] { return status != -1 && !created.empty(); }, 6000) && status == 0) {
                callback_ms.push_back(at_callback);
                signal_ms.push_back(Since(start));
            }
            std::filesystem::remove(path);
        }
        connection.disconnect();
        PrintTimes("Snapshot 640x480 -> completion callback", callback_ms, kSnapshotRuns, "  goal < 100 ms");
        PrintTimes("Snapshot 640x480 -> signal_snapshot_created", signal_ms, kSnapshotRuns, "");
    }

    // This process's CPU with `load` running; the share is negative when a capture did not start.
    CpuFigures Cpu(Load load)
    {
        bool started = true;
        if (load != Load::kLive)
            started = StartRecording();
        if (load == Load::kThreeCaptures) {
            started = started && SnapshotIdle()
                && _Streamer.StartSnapVoice(
                       Path("snapvoice.mp4"), Path("snapvoice.mrf"), Path("snapvoice.jpg"), 160, 120, 70)
                    == 0
                && SnapshotIdle()
                && _Streamer.StartAutoLog(
                       Path("autolog.mp4"), Path("autolog.mrf"), Path("autolog.jpg"), 160, 120, 70)
                    == 0;
        }
        CpuFigures figures;
        if (started)
            figures.share = CpuShare("self", &RunSeconds);
        figures.load = LoadAverage();
        if (load == Load::kThreeCaptures) {
            _Streamer.StopSnapVoice();
            _Streamer.StopAutoLog();
        }
        double ignored = 0;
        if (load != Load::kLive && StopRecording(ignored))
            figures.fps = FileFrameRate(Path("recording.mp4"));
        const bool finished = RunMainLoopUntil(
            [&] {
                return _Streamer.GetPipeline(VideoDaemon::kSnapvoiceIndex)->GetState() == GST_STATE_NULL
                    && _Streamer.GetPipeline(VideoDaemon::kMp4muxAutologIndex)->GetState() == GST_STATE_NULL;
            },
            10000);
        // The autolog has an encoder of its own: the slower of the two files counts.
        if (load == Load::kThreeCaptures)
            figures.fps = finished ? std::min(figures.fps, FileFrameRate(Path("autolog.mp4"))) : -1;
        if (load != Load::kLive && figures.fps < 0)
            figures.share = -1;
        return figures;
    }

    // Short recordings one after the other; prints the resident memory and the heap in use as they go.
    void Cycles(long rss_after_start, long heap_after_start)
    {
        std::printf("memory (KiB)                                      VmRSS   heap in use\n");
        auto print = [](const std::string& when, long rss, long heap) {
            std::printf("  %-46s %8ld %12ld\n", when.c_str(), rss, heap);
        };
        print("after start", rss_after_start, heap_after_start);
        const long rss_before = VmRssKiB();
        const long heap_before = HeapInUseKiB();
        print("before the cycles (after the figures above)", rss_before, heap_before);
        long rss_warm = rss_before;
        long heap_warm = heap_before;
        int failures = 0;
        for (int cycle = 1; cycle <= kCycles; ++cycle) {
            if (!StartRecording()) {
                ++failures;
                continue;
            }
            if (!RunMainLoopUntil([&] { return Mux().GetBytesWritten() > 0; }, 5000))
                ++failures;
            Run(kCycleRecordMs);
            double ignored = 0;
            if (!StopRecording(ignored))
                ++failures;
            if (cycle == kWarmCycles) {
                rss_warm = VmRssKiB();
                heap_warm = HeapInUseKiB();
            }
            if (cycle == kWarmCycles || cycle % 50 == 0)
                print("after " + std::to_string(cycle) + " record/stop cycles", VmRssKiB(), HeapInUseKiB());
        }
        const long rss_after = VmRssKiB();
        const long heap_after = HeapInUseKiB();
        std::printf("  %d cycles of %d ms recorded, %d failed\n", kCycles, kCycleRecordMs, failures);
        std::printf("  VmRSS difference: after start to after the cycles %+ld KiB; over the cycles %+ld KiB; "
                    "cycles %d..%d %+ld KiB (%.1f KiB/cycle)  goal: no growth\n",
            rss_after - rss_after_start, rss_after - rss_before, kWarmCycles, kCycles, rss_after - rss_warm,
            static_cast<double>(rss_after - rss_warm) / (kCycles - kWarmCycles));
        std::printf(
            "  heap in use difference: over the cycles %+ld KiB; cycles %d..%d %+ld KiB (%.2f KiB/cycle)\n",
            heap_after - heap_before, kWarmCycles, kCycles, heap_after - heap_warm,
            static_cast<double>(heap_after - heap_warm) / (kCycles - kWarmCycles));
    }

private:
    VideoDaemon::Mp4muxPipeline& Mux()
    {
        return static_cast<VideoDaemon::Mp4muxPipeline&>(
            *_Streamer.GetPipeline(VideoDaemon::kMp4muxVideoIndex));
    }

    std::string Path(const std::string& name) const { return _Media + "/" + name; }

    // A capture's thumbnail or an earlier picture holds the snapshot pipeline until it is written.
    bool SnapshotIdle()
    {
        auto& snapshot = static_cast<VideoDaemon::SnapshotPipeline&>(
            *_Streamer.GetPipeline(VideoDaemon::kSnapshotIndex));
        return RunMainLoopUntil([&] { return !snapshot.IsInProgress(); }, 6000);
    }

    bool StartRecording()
    {
        _MuxerEos = false;
        return SnapshotIdle()
            && _Streamer.StartRecording(
                   Path("recording.mp4"), Path("recording.mrf"), Path("recording.jpg"), 160, 120, 70)
            == 0;
    }

    // Stops the recording and waits until its muxer has handled the EOS and reached NULL.
    bool StopRecording(double& ms)
    {
        const auto start = Clock::now();
        if (_Streamer.StopRecording() != 0)
            return false;
        const bool finished
            = RunMainLoopUntil([&] { return _MuxerEos && Mux().GetState() == GST_STATE_NULL; }, 10000);
        ms = Since(start);
        return finished;
    }

    std::string _Media;
    OrbStreamer _Streamer;
    bool _MuxerEos = false;
};

} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    gst_init(nullptr, nullptr);
    VideoDaemon::GstPtr<GstElementFactory> camera(gst_element_factory_find("imxv4l2videosrc"));
    if (!camera) {
        std::fprintf(stderr,
            "the stand-in plug-in is not found: run with host/env sourced "
            "(VIDEOD_BUILD_DIR=<build directory>)\n");
        return 1;
    }
    const std::filesystem::path source = VideodBench::SourceDir();
    const VideodBench::ScratchDir scratch("/tmp/videod-streamer-bench-XXXXXX");
    const std::string& dir = scratch.Path();
    if (dir.empty()) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string media = dir + "/media";
    std::filesystem::create_directories(media);

    int status = 0;
    {
        PrivatePeers peers(source, media);
        if (!peers.Ready())
            std::printf("note: the simulated storage daemon did not start; its calls fail and are logged\n");

        // The single pipeline first, while this process runs nothing.
        const Load loads[] = { Load::kLive, Load::kRecording, Load::kThreeCaptures };
        CpuSummary single[3];
        for (int i = 0; i < 3; ++i) {
            std::vector<CpuFigures> runs;
            for (int run = 0; run < kCpuRuns; ++run)
                runs.push_back(SinglePipelineCpu(loads[i], dir));
            single[i] = Summarise(runs);
        }

        StreamerBench bench(media);
        if (!bench.Started()) {
            std::fprintf(stderr, "the live picture did not start\n");
            status = 1;
        } else {
            const long rss_after_start = VmRssKiB();
            const long heap_after_start = HeapInUseKiB();
            bench.RecordAndStop();
            bench.Snapshots();
            std::printf(
                "CPU, share of one core: median of %d windows of %.0f s (after %.0f s to settle) with "
                "their spread, the recording's lowest frame rate, and the highest load average seen at "
                "a window's end; simulated NTSC camera\n",
                kCpuRuns, kCpuWindowSeconds, kCpuSettleSeconds);
            std::printf(
                "  %-32s %-31s %-31s %s\n", "", "streamer", "one gst-launch-1.0 pipeline", "ratio (medians)");
            for (int i = 0; i < 3; ++i) {
                std::vector<CpuFigures> runs;
                for (int run = 0; run < kCpuRuns; ++run)
                    runs.push_back(bench.Cpu(loads[i]));
                const CpuSummary streamer = Summarise(runs);
                std::printf("  %-32s %-31s %-31s ", LoadName(loads[i]), CpuText(streamer).c_str(),
                    CpuText(single[i]).c_str());
                if (streamer.median < 0 || single[i].median <= 0)
                    std::printf("failed\n");
                else
                    std::printf("%5.3f  goal <= 1.10  (load %.1f / %.1f)\n",
                        streamer.median / single[i].median, streamer.load, single[i].load);
                if (streamer.failed + single[i].failed > 0)
                    std::printf("  %-32s failed windows: streamer %d, gst-launch %d\n", "", streamer.failed,
                        single[i].failed);
            }
            bench.Cycles(rss_after_start, heap_after_start);
        }
    }
    return status;
}
