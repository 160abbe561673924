// Prints the time from Launch to PLAYING per pipeline class, and the CPU time per recorded second
// of the recording chain (640x480, 29.97 fps).
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <thread>

#include "gst/pipelines/described_pipeline.h"
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
// A listener is linked to its playing producer first: a live interpipe
// source reaches PLAYING with its first buffer.
double LaunchToPlayingMs(VideoDaemon::Pipeline& pipeline, VideoDaemon::Pipeline* producer)
{
    auto start = Clock::now();
    if (!pipeline.Launch(false, true, false))
        return -1;
    if (producer && !pipeline.ListenTo(producer, "", ""))
        return -1;
    int result = pipeline.SetState(GST_STATE_PLAYING, 2000);
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    pipeline.SetState(GST_STATE_NULL);
    return result == 0 ? ms : -1;
}

void Report(const char* name, VideoDaemon::Pipeline& pipeline, VideoDaemon::Pipeline* producer = nullptr)
{
    constexpr int kRuns = 3;
    double total = 0, worst = 0;
    for (int i = 0; i < kRuns; ++i) {
        double ms = LaunchToPlayingMs(pipeline, producer);
        if (ms < 0) {
            std::printf("%-24s did not reach PLAYING\n", name);
            return;
        }
        total += ms;
        worst = std::max(worst, ms);
    }
    std::printf("%-24s launch->PLAYING mean %7.2f ms  max %7.2f ms\n", name, total / kRuns, worst);
}

void StartFeed(VideoDaemon::Pipeline& feed)
{
    if (!feed.Launch(false, true, false) || feed.SetState(GST_STATE_PLAYING, 2000) != 0)
        std::printf("%s did not start\n", feed.GetName().c_str());
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
        // Producers for the listeners, playing throughout.
        PipelineHarness::DescribedPipeline feed_bgra(
            "videotestsrc is-live=true ! video/x-raw,format=BGRA,width=640,height=480,framerate=30000/1001 "
            "! interpipesink name=bench_bgra_feed sync=false",
            "bench_bgra_feed");
        VideoDaemon::MicInputPipeline feed_mic;
        StartFeed(feed_bgra);

        Report("TestInputPipeline", test_input);
        Report("NtscCameraInputPipeline", ntsc);
        Report("PalCameraInputPipeline", pal);
        Report("InputMuxPipeline", input_mux, &feed_bgra);
        Report("DisplayPipeline", display, &feed_bgra);
        // The microphone's sink name is taken while it is measured.
        Report("MicInputPipeline", mic);
        StartFeed(feed_mic);
        Report("AudioSpeakerPipeline", speaker, &feed_mic);
        Report("H264EncodePipeline", h264);
        Report("AacEncodePipeline", aac, &feed_mic);
        Report("Mp4muxPipeline", mp4mux);
        Report("SnapvoicePipeline", snapvoice);
        feed_bgra.SetState(GST_STATE_NULL);
        feed_mic.SetState(GST_STATE_NULL);
    }

    PipelineHarness::RecordingChain chain;
    if (!chain.Start()) {
        std::printf("recording chain did not start: %s\n", chain.failure.c_str());
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    constexpr int kSeconds = 10;

    // The same chain with the encoder's valve closed and the muxer idle, as
    // it runs between captures: what a recording adds is the difference.
    double cpu_before = CpuSeconds();
    auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
    const double idle_seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const double idle_cpu = CpuSeconds() - cpu_before;

    const std::string file = "/tmp/videod-bench-recording.mp4";
    cpu_before = CpuSeconds();
    start = Clock::now();
    if (!chain.StartRecording(file)) {
        std::printf("recording did not start: %s\n", chain.failure.c_str());
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = CpuSeconds() - cpu_before;
    const guint64 bytes = chain.mux->GetBytesWritten();
    chain.mux->CloseRecord(true);
    chain.mux->WaitForEos(3);
    chain.Stop();
    std::remove(file.c_str());
    std::printf("recording chain 640x480 29.97 fps, %.1f s recorded (%" G_GUINT64_FORMAT " bytes):\n",
        seconds, bytes);
    std::printf("  recording  %.2f CPU s per recorded s\n", cpu / seconds);
    std::printf(
        "  idle chain %.2f CPU s per s (the daemon's graph on the test input; valve closed, AAC idle)\n",
        idle_cpu / idle_seconds);
    std::printf("  recording adds %.2f CPU s per recorded s\n", cpu / seconds - idle_cpu / idle_seconds);
    return 0;
}
