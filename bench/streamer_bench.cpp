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

#include "bench_cpu.h"
#include "bench_process.h"
#include "common/glib_ptr.h"
#include "common/gst_ptr.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "streamers/orb_streamer.h"
#include "support/main_loop_wait.h"

using Clock = std::chrono::steady_clock;
using TestSupport::RunMainLoopUntil;
using VideoDaemon::OrbStreamer;
using VideodBench::CpuFigures;
using VideodBench::CpuShare;
using VideodBench::CpuSummary;
using VideodBench::CpuText;
using VideodBench::FileFrameRate;
using VideodBench::Load;
using VideodBench::LoadAverage;
using VideodBench::LoadName;
using VideodBench::Reap;
using VideodBench::SinglePipeline;
using VideodBench::SleepSeconds;
using VideodBench::StartGstLaunch;
using VideodBench::Summarise;

namespace
{

constexpr int kRecordRuns = 10;
constexpr int kSnapshotRuns = 20;
constexpr int kCycles = 200;
// Cycles after which the one-time allocations of a capture are taken to be made.
constexpr int kWarmCycles = 10;
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

void RunSeconds(double seconds)
{
    Run(static_cast<int>(seconds * 1000));
}

// The single pipeline run by gst-launch-1.0 as a child process, its files finished with an EOS on SIGINT.
CpuFigures SinglePipelineCpu(Load load, const std::string& dir)
{
    const std::string description = SinglePipeline(load, dir);
    const pid_t pid = StartGstLaunch(description);
    if (pid < 0)
        return {};
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
    const std::string media = scratch.Folder("media");

    int status = 0;
    {
        VideodBench::PrivatePeers peers(source, { "storage=sd=" + media });
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
                kCpuRuns, VideodBench::kCpuWindowSeconds, VideodBench::kCpuSettleSeconds);
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
