// Prints how much of a recording is lost when its process is killed (SIGKILL) six seconds in, recovered by
// the stock qtmoovrecover element and by videod-recover: a recording process with the daemon's pipelines
// on the simulated camera (tests/gst/recover/recording_process), once with the file sink as the daemon
// launches it and once with a sink that writes each buffer as it comes, for comparison.
//
//   . host/env; build/bench/recovery_bench [RUNS]      (VIDEOD_BUILD_DIR names the build, default build/)
#include <glib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/glib_ptr.h"
#include "gst/recover/killed_recording.h"

using namespace RecoveryTest;

namespace
{

const double kRecordSeconds = 6.0;

struct Loss {
    double video = 0;
    double audio = 0;
};

Loss Lost(const KilledRecording& recording, const std::string& file)
{
    return { recording.recorded - Duration(file, "v:0"), recording.recorded - Duration(file, "a:0") };
}

// The build directory: VIDEOD_BUILD_DIR, else the one this program was built in.
std::string BuildDir()
{
    if (const char* dir = std::getenv("VIDEOD_BUILD_DIR"))
        return dir;
    VideoDaemon::GCharPtr self(g_file_read_link("/proc/self/exe", nullptr));
    VideoDaemon::GCharPtr bench(g_path_get_dirname(self ? self.get() : "."));
    VideoDaemon::GCharPtr build(g_path_get_dirname(bench.get()));
    return build.get();
}

} // namespace

int main(int argc, char** argv)
{
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const std::string build = BuildDir();
    const std::string recorder = build + "/tests/gst/recover/recording_process";
    const std::string recover = build + "/src/videod-recover";

    std::printf(
        "seconds lost of a %.0f s recording killed with SIGKILL (%d runs each)\n", kRecordSeconds, runs);
    for (const char* sink : { "", "0" }) {
        std::printf(
            "file sink %s\n", *sink ? "writing each buffer" : "as the daemon launches it (64 KiB buffer)");
        Loss stock_total;
        Loss ours_total;
        int done = 0;
        for (int run = 0; run < runs; ++run) {
            GstTest::TempDir dir;
            KilledRecording recording(dir, recorder, kRecordSeconds, sink);
            if (!recording.failure.empty()) {
                std::printf("  run %d: %s\n", run + 1, recording.failure.c_str());
                continue;
            }
            const std::string ours = dir.File("recovered.mp4");
            const Outcome outcome = RunCommand({ recover, recording.file, recording.recovery, ours });
            if (outcome.status != 0) {
                std::printf("  run %d: videod-recover failed: %s", run + 1, outcome.err.c_str());
                continue;
            }
            const Loss stock = Lost(recording, StockRecovery(recording, dir.File("stock.mp4")));
            const Loss mine = Lost(recording, ours);
            std::printf(
                "  run %d: recorded %.3f s; qtmoovrecover video %.3f audio %.3f; videod-recover video %.3f "
                "audio %.3f\n",
                run + 1, recording.recorded, stock.video, stock.audio, mine.video, mine.audio);
            stock_total.video += stock.video;
            stock_total.audio += stock.audio;
            ours_total.video += mine.video;
            ours_total.audio += mine.audio;
            ++done;
        }
        if (done > 0)
            std::printf("  mean: qtmoovrecover video %.3f audio %.3f; videod-recover video %.3f audio %.3f\n",
                stock_total.video / done, stock_total.audio / done, ours_total.video / done,
                ours_total.audio / done);
    }
    return 0;
}
