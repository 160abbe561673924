// Prints the time from Launch to PLAYING per pipeline class, and the CPU time per recorded second
// of the recording chain (640x480, 29.97 fps).
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <thread>

#include "gst/pipelines/recording_chain.h"
#include "pipelines/audio_speaker_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/input_mux_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/pal_camera_input_pipeline.h"
#include "pipelines/snapvoice_pipeline.h"

using Clock = std::chrono::steady_clock;

namespace
{

double CpuSeconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Launch, then PLAYING with a bounded wait; -1 when PLAYING is not reached.
double LaunchToPlayingMs(VideoDaemon::Pipeline& pipeline)
{
    auto start = Clock::now();
    if (!pipeline.Launch(false, true, false))
        return -1;
    int result = pipeline.SetState(GST_STATE_PLAYING, 2000);
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    pipeline.SetState(GST_STATE_NULL);
    return result == 0 ? ms : -1;
}

void Report(const char* name, VideoDaemon::Pipeline& pipeline)
{
    constexpr int kRuns = 3;
    double total = 0, worst = 0;
    for (int i = 0; i < kRuns; ++i) {
        double ms = LaunchToPlayingMs(pipeline);
        if (ms < 0) {
            std::printf("%-24s did not reach PLAYING\n", name);
            return;
        }
        total += ms;
        worst = std::max(worst, ms);
    }
    std::printf("%-24s launch->PLAYING mean %7.2f ms  max %7.2f ms\n", name, total / kRuns, worst);
}

} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    gst_init(nullptr, nullptr);

    {
        VideoDaemon::TestInputPipeline test_input;
        VideoDaemon::NtscCameraInputPipeline ntsc;
        VideoDaemon::PalCameraInputPipeline pal;
        VideoDaemon::InputMuxPipeline input_mux;
        VideoDaemon::DisplayPipeline display;
        VideoDaemon::MicInputPipeline mic;
        VideoDaemon::AudioSpeakerPipeline speaker;
        VideoDaemon::H264EncodePipeline h264("bench");
        VideoDaemon::AacEncodePipeline aac;
        VideoDaemon::Mp4muxPipeline mp4mux("bench");
        VideoDaemon::SnapvoicePipeline snapvoice;
        Report("TestInputPipeline", test_input);
        Report("NtscCameraInputPipeline", ntsc);
        Report("PalCameraInputPipeline", pal);
        Report("InputMuxPipeline", input_mux);
        Report("DisplayPipeline", display);
        Report("MicInputPipeline", mic);
        Report("AudioSpeakerPipeline", speaker);
        Report("H264EncodePipeline", h264);
        Report("AacEncodePipeline", aac);
        Report("Mp4muxPipeline", mp4mux);
        Report("SnapvoicePipeline", snapvoice);
    }

    PipelineHarness::RecordingChain chain;
    if (!chain.Start()) {
        std::printf("recording chain did not start\n");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const std::string file = "/tmp/videod-bench-recording.mp4";
    double cpu_before = CpuSeconds();
    auto start = Clock::now();
    chain.StartRecording(file);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    double cpu = CpuSeconds() - cpu_before;
    guint64 bytes = chain.mux->GetBytesWritten();
    chain.mux->CloseRecord(true);
    chain.mux->WaitForEos(3);
    chain.Stop();
    std::remove(file.c_str());
    std::printf(
        "recording chain 640x480 29.97 fps: %.2f CPU s per recorded s (%.1f s recorded, %" G_GUINT64_FORMAT
        " bytes)\n",
        cpu / seconds, seconds, bytes);
    return 0;
}
