// Prints the CPU the recording graph takes per second of wall-clock time, idle and recording, on the
// simulated NTSC camera and on the test input: the daemon's pipelines from src/pipelines linked as the
// daemon links them (input, GPU, both overlays, display, microphone, H.264 "video" and snapshot at start;
// AAC and the MP4 mux "video" when a recording starts). For comparison, the same chain written as one
// gst-launch pipeline of stock elements (videotestsrc, videoconvert, deinterlace, rsvgoverlay, x264enc,
// avenc_aac, mp4mux). CPU is this process's user + system time (getrusage) over a fixed window.
#include <gst/gst.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/overlay_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "pipelines/test_input_pipeline.h"
#include "support/gst_test_pipeline.h"

using Clock = std::chrono::steady_clock;

namespace
{

constexpr double kSettleSeconds = 1.5;
constexpr double kWindowSeconds = 4.0;

// What the overlays draw: a line of text and a frame, about what the unit's templates hold.
const char kSvg[] = "<svg xmlns='http://www.w3.org/2000/svg' width='640' height='480'>"
                    "<rect x='8' y='8' width='624' height='464' fill='none' stroke='white' stroke-width='2'/>"
                    "<text x='20' y='40' font-size='24' fill='yellow'>REC 00:00:12  12.5 m</text></svg>";

double CpuSeconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec
        + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Turns the main context (bus watches, hand-offs) for `seconds` of wall-clock time.
void Turn(double seconds)
{
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (Clock::now() < end) {
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

struct Figures {
    double cpu; // CPU seconds per wall-clock second
    double fps; // frames per second the counted pad passed
};

// Measures the window after letting the graph settle; `frames` is a counter a probe advances.
Figures Measure(const std::atomic<unsigned>& frames)
{
    Turn(kSettleSeconds);
    const double cpu = CpuSeconds();
    const unsigned counted = frames.load();
    const auto start = Clock::now();
    Turn(kWindowSeconds);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return { (CpuSeconds() - cpu) / seconds, (frames.load() - counted) / seconds };
}

void Print(const char* graph, const char* phase, const Figures& figures)
{
    std::printf("%-40s %-10s CPU %6.1f %% of one core   input %6.1f frames/s\n", graph, phase,
        figures.cpu * 100.0, figures.fps);
}

// Counts the buffers entering the sink pad of a pipeline's element.
class FrameCount
{
public:
    FrameCount(GstPipeline* pipeline, const char* element_name)
    {
        VideoDaemon::GstPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(pipeline), element_name));
        if (element)
            _Probe = std::make_unique<GstTest::BufferProbe>(
                element.get(), "sink", [this](GstBuffer*) { ++_Count; });
    }
    const std::atomic<unsigned>& Count() const { return _Count; }

private:
    std::atomic<unsigned> _Count { 0 };
    std::unique_ptr<GstTest::BufferProbe> _Probe;
};

void SetOverlayData(VideoDaemon::Pipeline& overlay)
{
    VideoDaemon::GstPtr<GstElement> element(
        gst_bin_get_by_name(GST_BIN(overlay.GetPipeline()), "svg_overlay"));
    if (element)
        g_object_set(element.get(), "data", kSvg, nullptr);
}

bool Start(VideoDaemon::Pipeline& pipeline, VideoDaemon::Pipeline* producer)
{
    if (!pipeline.Launch(false, true, false))
        return false;
    if (producer && !pipeline.ListenTo(producer, "", ""))
        return false;
    pipeline.SetState(GST_STATE_PLAYING, 0);
    return true;
}

// The daemon's graph on one input, idle and then recording for a window.
template <typename Input> void DaemonGraph(const char* name)
{
    Input input;
    VideoDaemon::GpuPipeline gpu;
    VideoDaemon::OverlayPipeline overlay_display("display");
    VideoDaemon::OverlayPipeline overlay_recording("recording");
    VideoDaemon::DisplayPipeline display;
    VideoDaemon::MicInputPipeline microphone;
    VideoDaemon::H264EncodePipeline h264("video");
    VideoDaemon::SnapshotPipeline snapshot;
    if (!Start(input, nullptr) || !Start(gpu, &input) || !Start(overlay_display, &gpu)
        || !Start(overlay_recording, &gpu) || !Start(display, &overlay_display) || !Start(microphone, nullptr)
        || !Start(h264, &overlay_recording) || !Start(snapshot, &overlay_recording)) {
        std::printf("%-44s could not be started\n", name);
        return;
    }
    SetOverlayData(overlay_display);
    SetOverlayData(overlay_recording);
    const FrameCount frames(input.GetPipeline(), input.GetSinkName().c_str());
    Print(name, "idle", Measure(frames.Count()));

    VideoDaemon::AacEncodePipeline aac;
    VideoDaemon::Mp4muxPipeline mux("video");
    const std::string file = "/tmp/videod-bench-recording.mp4";
    if (!Start(aac, &microphone) || !mux.Launch(false, true, false)
        || !mux.ListenTo(&h264, "", mux.GetSourceName())
        || !mux.ListenTo(&aac, "", mux.GetAudioSourceName())) {
        std::printf("%-44s could not start recording\n", name);
        return;
    }
    mux.OpenRecord(file);
    mux.SetDropIDR(false);
    h264.SetValve(false);
    mux.SetState(GST_STATE_PLAYING, 0);
    Print(name, "recording", Measure(frames.Count()));

    h264.SetValve(true);
    mux.CloseRecord(true);
    mux.WaitForEos(5);
    for (VideoDaemon::Pipeline* pipeline : std::initializer_list<VideoDaemon::Pipeline*> { &mux, &aac,
             &snapshot, &h264, &microphone, &display, &overlay_recording, &overlay_display, &gpu, &input })
        pipeline->SetState(GST_STATE_NULL);
    std::remove(file.c_str());
}

// The same chain as one pipeline of stock elements: `picture` makes 640x480 RGBA from the input.
void StockGraph(const char* name, const std::string& picture)
{
    const std::string svg = std::string("data=\"") + kSvg + "\"";
    const std::string common = picture
        + " ! identity name=input ! queue max-size-buffers=6 leaky=downstream ! videoconvert ! "
          "video/x-raw,format=BGRA ! tee name=gpu "
          "gpu. ! queue max-size-buffers=1 leaky=downstream ! rsvgoverlay "
        + svg
        + " ! fakesink sync=false "
          "gpu. ! queue max-size-buffers=1 leaky=downstream ! rsvgoverlay "
        + svg + " ! tee name=recording recording. ! queue ! fakesink sync=false ";
    const std::string microphone
        = "alsasrc provide-clock=false ! audio/x-raw,rate=44100,channels=2,format=S16LE ";
    const std::string idle = common + microphone + " ! fakesink sync=false";
    const std::string recording = common
        + "recording. ! queue max-size-buffers=2 leaky=downstream ! videoconvert ! video/x-raw,format=I420 ! "
          "x264enc tune=zerolatency speed-preset=veryfast key-int-max=16 bframes=0 threads=1 ! h264parse ! "
          "video/x-h264,profile=main ! mux. "
        + microphone
        + " ! audioconvert ! audioresample ! audio/x-raw,format=F32LE,rate=48000 ! avenc_aac ! mux. "
          "mp4mux name=mux ! filesink location=/tmp/videod-bench-stock.mp4";
    for (auto [phase, description] : { std::pair { "idle", idle }, { "recording", recording } }) {
        GstTest::TestPipeline pipeline(description);
        if (!pipeline.Parsed() || !pipeline.Start()) {
            std::printf("%-44s %-10s failed: %s\n", name, phase, pipeline.Error().c_str());
            continue;
        }
        const FrameCount frames(GST_PIPELINE(pipeline.Get()), "input");
        Print(name, phase, Measure(frames.Count()));
        if (std::string(phase) == "recording")
            pipeline.Finish();
        std::printf("  gst-launch-1.0 %s\n", description.c_str());
    }
    std::remove("/tmp/videod-bench-stock.mp4");
}

} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    gst_init(nullptr, nullptr);
    std::printf("CPU per wall-clock second (%.0f s windows after %.1f s to settle)\n", kWindowSeconds,
        kSettleSeconds);
    DaemonGraph<VideoDaemon::NtscCameraInputPipeline>("daemon graph, simulated NTSC camera");
    DaemonGraph<VideoDaemon::TestInputPipeline>("daemon graph, test input");
    StockGraph("stock elements, camera-like input",
        "videotestsrc is-live=true pattern=ball ! video/x-raw,format=UYVY,width=720,height=504,"
        "framerate=30000/1001,interlace-mode=interleaved ! deinterlace method=linear fields=top ! videocrop "
        "left=24 "
        "right=24 top=24 ! videoscale ! videoconvert ! video/x-raw,format=RGBA,width=640,height=480");
    StockGraph("stock elements, test input",
        "videotestsrc is-live=true pattern=2 ! "
        "video/x-raw,format=UYVY,width=640,height=480,framerate=30000/1001 ! "
        "videoconvert ! video/x-raw,format=RGBA");
    return 0;
}
