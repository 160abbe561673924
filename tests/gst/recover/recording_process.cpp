// A process that records one capture with the daemon's pipelines until it is killed: the subject of the
// recovery tests and benchmark. Usage: recording_process FILE.mp4 RECOVERY
#include <gst/gst.h>

#include <cstdio>
#include <string>

#include "../pipelines/recording_chain.h"

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s FILE.mp4 RECOVERY\n", argv[0]);
        return 2;
    }
    gst_init(nullptr, nullptr);
    // The simulated camera, the unit's normal input, paced as the real one.
    PipelineHarness::RecordingChain chain(nullptr, PipelineHarness::RecordingInput::kNtscCamera);
    if (!chain.Start() || !chain.StartRecording(argv[1], argv[2])) {
        std::fprintf(stderr, "recording did not start: %s\n", chain.failure.c_str());
        return 1;
    }
    // The parent counts the recorded time from this line.
    std::printf("recording\n");
    std::fflush(stdout);
    for (;;)
        g_main_context_iteration(nullptr, TRUE);
}
