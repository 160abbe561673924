// Cost of an interpipe hop: 640x480 BGRA frames through K interpipe hops against one pipeline with K queues.
//
// Every hop is an interpipesink/interpipesrc pair between two pipelines; the
// single-pipeline equivalent puts a queue (the same thread boundary) where
// each hop is. A frame is made once and repeated by reference, so the
// figures are the cost of moving buffers, not of drawing them. Each case
// runs a few times and the cheapest run counts. The cost is the process's
// CPU time (all threads, user and system), which other load on a shared
// machine disturbs far less than the wall-clock time, printed alongside.
#include <gst/gst.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using GstTest::TestPipeline;

namespace
{

constexpr int kFrames = 20000;
constexpr int kRuns = 5;

using PipelinePtr = std::unique_ptr<TestPipeline>;

const std::string kSource = "videotestsrc num-buffers=1 ! video/x-raw,format=BGRA,width=640,height=480,"
                            "framerate=30/1 ! imagefreeze num-buffers="
    + std::to_string(kFrames) + " ! video/x-raw,format=BGRA,width=640,height=480";
const std::string kSink = "fakesink sync=false";
// Bounded like the queue (200 buffers) and blocking rather than dropping, so every frame arrives.
const std::string kHopSource = "max-bytes=0 max-buffers=200 block=true";

PipelinePtr Launch(const std::string& description)
{
    auto pipeline = std::make_unique<TestPipeline>(description);
    if (pipeline->Parsed())
        return pipeline;
    std::fprintf(stderr, "%s\n", pipeline->Error().c_str());
    return nullptr;
}

double CpuSeconds()
{
    timespec now {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Cost {
    double cpu = -1; // seconds of CPU time, negative when the run failed
    double wall = -1;
};

// Starts the pipelines, the first (the producer) last, and measures until
// the last one reports end-of-stream.
Cost Run(const std::vector<PipelinePtr>& pipelines)
{
    for (size_t i = pipelines.size(); i-- > 1;)
        pipelines[i]->Start();
    const double cpuStart = CpuSeconds();
    const auto start = std::chrono::steady_clock::now();
    pipelines.front()->Start();
    const bool ended = pipelines.back()->WaitForEos(120 * GST_SECOND);
    const auto end = std::chrono::steady_clock::now();
    const double cpuEnd = CpuSeconds();
    if (!ended)
        return {};
    return { cpuEnd - cpuStart, std::chrono::duration<double>(end - start).count() };
}

std::vector<PipelinePtr> Direct(int queues)
{
    std::string description = kSource;
    for (int i = 0; i < queues; ++i)
        description += " ! queue max-size-buffers=200 max-size-bytes=0 max-size-time=0";
    std::vector<PipelinePtr> pipelines;
    pipelines.push_back(Launch(description + " ! " + kSink));
    return pipelines;
}

std::vector<PipelinePtr> Hops(int hops, int round)
{
    auto name = [&](int i) { return "bench_hop_" + std::to_string(round) + "_" + std::to_string(i); };
    std::vector<PipelinePtr> pipelines;
    pipelines.push_back(Launch(kSource + " ! interpipesink sync=false forward-eos=true name=" + name(0)));
    for (int i = 1; i < hops; ++i)
        pipelines.push_back(Launch("interpipesrc " + kHopSource + " listen-to=" + name(i - 1)
            + " ! interpipesink sync=false forward-eos=true name=" + name(i)));
    pipelines.push_back(
        Launch("interpipesrc " + kHopSource + " listen-to=" + name(hops - 1) + " ! " + kSink));
    return pipelines;
}

template <typename Make> Cost Cheapest(Make make)
{
    Cost best;
    for (int run = 0; run < kRuns; ++run) {
        std::vector<PipelinePtr> pipelines = make();
        if (std::any_of(pipelines.begin(), pipelines.end(), [](const PipelinePtr& p) { return !p; }))
            return {};
        const Cost cost = Run(pipelines);
        if (cost.cpu < 0)
            return {};
        if (best.cpu < 0 || cost.cpu < best.cpu)
            best.cpu = cost.cpu;
        if (best.wall < 0 || cost.wall < best.wall)
            best.wall = cost.wall;
    }
    return best;
}

double PerBuffer(double seconds)
{
    return seconds * 1e6 / kFrames;
}

} // namespace

int main(int argc, char** argv)
{
    gst_init(&argc, &argv);
    int round = 0;
    const Cost none = Cheapest([] { return Direct(0); });
    if (none.cpu < 0) {
        std::fprintf(stderr, "the reference pipeline did not run\n");
        return 1;
    }
    std::printf("%d frames of 640x480 BGRA; no hop: %.2f us CPU (%.2f us wall) per buffer\n", kFrames,
        PerBuffer(none.cpu), PerBuffer(none.wall));
    std::printf("%2s | %-33s | %-33s | %s\n", "K", "K queues, one pipeline", "K interpipe hops", "ratio");
    std::printf("%2s | %10s %10s %11s | %10s %10s %11s | %s\n", "", "CPU us/buf", "wall us/buf", "CPU us/hop",
        "CPU us/buf", "wall us/buf", "CPU us/hop", "interpipe/queues CPU");
    for (int k : { 1, 2, 4 }) {
        const Cost queues = Cheapest([k] { return Direct(k); });
        const Cost hops = Cheapest([k, &round] { return Hops(k, round++); });
        if (queues.cpu < 0 || hops.cpu < 0) {
            std::fprintf(stderr, "K=%d did not run\n", k);
            return 1;
        }
        std::printf("%2d | %10.2f %10.2f %11.2f | %10.2f %10.2f %11.2f | %.3f\n", k, PerBuffer(queues.cpu),
            PerBuffer(queues.wall), (PerBuffer(queues.cpu) - PerBuffer(none.cpu)) / k, PerBuffer(hops.cpu),
            PerBuffer(hops.wall), (PerBuffer(hops.cpu) - PerBuffer(none.cpu)) / k, hops.cpu / queues.cpu);
    }
    return 0;
}
