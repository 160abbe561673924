// A process that records one capture with the daemon's pipelines until it is killed: the subject of the
// recovery tests and benchmark.
//
//   recording_process FILE.mp4 RECOVERY [SINK_BUFFER_BYTES]
//
// SINK_BUFFER_BYTES, for comparisons only, replaces the file sink's buffering (the daemon's muxer writes
// every buffer as it comes): a size buffers that many bytes, as filesink does by default with 65536; 0
// writes every buffer as it comes.
#include <gst/gst.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "../pipelines/recording_chain.h"

int main(int argc, char** argv)
{
    if (argc != 3 && argc != 4) {
        std::fprintf(stderr, "usage: %s FILE.mp4 RECOVERY [SINK_BUFFER_BYTES]\n", argv[0]);
        return 2;
    }
    gst_init(nullptr, nullptr);
    // The simulated camera, the unit's normal input, paced as the real one.
    PipelineHarness::RecordingChain chain(nullptr, PipelineHarness::RecordingInput::kNtscCamera);
    if (!chain.Start()) {
        std::fprintf(stderr, "recording did not start: %s\n", chain.failure.c_str());
        return 1;
    }
    if (argc == 4) {
        VideoDaemon::GstPtr<GstElement> sink(
            gst_bin_get_by_name(GST_BIN(chain.mux->GetPipeline()), chain.mux->GetSinkName().c_str()));
        const guint size = static_cast<guint>(std::strtoul(argv[3], nullptr, 10));
        // Unbuffered (2) for 0, else fully buffered (0) with the given size.
        g_object_set(sink.get(), "buffer-mode", size == 0 ? 2 : 0, "buffer-size", size, nullptr);
    }
    if (!chain.StartRecording(argv[1], argv[2])) {
        std::fprintf(stderr, "recording did not start: %s\n", chain.failure.c_str());
        return 1;
    }
    // The parent counts the recorded time from this line.
    std::printf("recording\n");
    std::fflush(stdout);
    for (;;)
        g_main_context_iteration(nullptr, TRUE);
}
