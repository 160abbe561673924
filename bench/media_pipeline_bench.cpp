// Prints, for the stream, snapshot and playback pipelines, the time from Launch to PLAYING with a
// live producer, the snapshot turnaround, and the delay until a TCP client sees its first frame.
#include <gst/gst.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "pipelines/jpeg_encode_pipeline.h"
#include "pipelines/mjpeg_encode_pipeline.h"
#include "pipelines/playback_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "pipelines/tcp_client_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"
#include "support/gst_test_pipeline.h"

using Clock = std::chrono::steady_clock;

namespace
{

constexpr int kRuns = 5;

double Since(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Turns the main context until `done` holds; false after `timeout_ms`.
template <typename Done> bool Turn(Done done, int timeout_ms)
{
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done()) {
        if (Clock::now() > deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A live 640x480 BGRA picture on an interpipe sink.
class LivePicture : public VideoDaemon::Pipeline
{
public:
    std::string GetDescription() override
    {
        return "videotestsrc is-live=true pattern=ball ! video/x-raw,format=BGRA,width=640,height=480,"
               "framerate=30000/1001 ! interpipesink name=bench_picture sync=false async=false";
    }
    std::string GetSinkName() override { return "bench_picture"; }
};

bool ReachesPlaying(VideoDaemon::Pipeline& pipeline, int timeout_ms)
{
    return Turn([&] { return pipeline.GetState() == GST_STATE_PLAYING; }, timeout_ms);
}

void Print(const char* what, std::vector<double> ms)
{
    if (ms.empty()) {
        std::printf("%-44s failed\n", what);
        return;
    }
    std::sort(ms.begin(), ms.end());
    std::printf(
        "%-44s median %7.2f ms  max %7.2f ms  (%zu runs)\n", what, ms[ms.size() / 2], ms.back(), ms.size());
}

// Launch, listen to the picture, request PLAYING, wait until it is reached.
template <typename P> void LaunchToPlaying(const char* name, LivePicture& picture)
{
    std::vector<double> ms;
    for (int i = 0; i < kRuns; i++) {
        P pipeline;
        auto start = Clock::now();
        if (!pipeline.Launch(true, true, true) || !pipeline.ListenTo(&picture, "", ""))
            break;
        pipeline.SetState(GST_STATE_PLAYING, 0);
        if (!ReachesPlaying(pipeline, 3000))
            break;
        ms.push_back(Since(start));
        pipeline.SetState(GST_STATE_NULL);
    }
    Print(name, ms);
}

void TcpServerAndClient(LivePicture& picture)
{
    std::vector<double> server_ms, client_ms;
    VideoDaemon::MjpegEncodePipeline mjpeg;
    mjpeg.Launch(false, true, false);
    mjpeg.ListenTo(&picture, "", "");
    mjpeg.SetState(GST_STATE_PLAYING, 0);
    for (int i = 0; i < kRuns; i++) {
        VideoDaemon::TcpServerPipeline server;
        server.SetServerAddress("127.0.0.1", 0);
        auto start = Clock::now();
        if (!server.Launch(false, true, true) || !server.ListenTo(&mjpeg, "", ""))
            break;
        server.SetState(GST_STATE_PLAYING, 0);
        if (!ReachesPlaying(server, 3000))
            break;
        server_ms.push_back(Since(start));

        int port = 0;
        VideoDaemon::GstPtr<GstElement> sink(
            gst_bin_get_by_name(GST_BIN(server.GetPipeline()), "tcp_server_sink"));
        g_object_get(sink.get(), "current-port", &port, nullptr);

        VideoDaemon::TcpClientPipeline client;
        bool acquired = false;
        client.signal_connection_acquired.connect([&] { acquired = true; });
        start = Clock::now();
        client.Launch(false, true, false);
        client.SetHostPort("127.0.0.1", static_cast<uint16_t>(port));
        client.SetState(GST_STATE_PLAYING, 0);
        if (Turn([&] { return acquired; }, 5000))
            client_ms.push_back(Since(start));
        client.SetState(GST_STATE_NULL);
        server.SetState(GST_STATE_NULL);
    }
    mjpeg.SetState(GST_STATE_NULL);
    Print("TcpServerPipeline launch->PLAYING", server_ms);
    Print("TcpClientPipeline launch->first frame", client_ms);
}

void Snapshots(LivePicture& picture)
{
    std::vector<double> launch_ms, take_ms;
    VideoDaemon::SnapshotPipeline snapshot;
    auto start = Clock::now();
    snapshot.Launch(false, true, false);
    snapshot.ListenTo(&picture, "", "");
    snapshot.SetState(GST_STATE_PLAYING, 0);
    // The valve is closed, so the sink prerolls only with the first snapshot.
    launch_ms.push_back(Since(start));
    for (int i = 0; i < kRuns; i++) {
        std::string error;
        int status = -1;
        start = Clock::now();
        std::string file = "/tmp/videod-bench-snapshot-" + std::to_string(i) + ".jpg";
        snapshot.TakeSnapshotAsync(
            file, 640, 480, 85, false, [&](int s) { status = s; }, error);
        if (Turn([&] { return status != -1; }, 6000) && status == 0)
            take_ms.push_back(Since(start));
        std::remove(file.c_str());
    }
    snapshot.SetState(GST_STATE_NULL);
    Print("SnapshotPipeline launch->PLAYING requested", launch_ms);
    Print("SnapshotPipeline request->file written", take_ms);
}

void Playback()
{
    const std::string file = "/tmp/videod-bench-playback.mp4";
    GstTest::TestPipeline record("mp4mux name=mux ! filesink location=" + file
        + " videotestsrc num-buffers=60 ! video/x-raw,width=640,height=480,framerate=30/1 "
          "! x264enc speed-preset=ultrafast key-int-max=15 ! h264parse ! mux. "
          "audiotestsrc num-buffers=94 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 "
          "! avenc_aac ! aacparse ! mux.");
    if (!record.RunToEos()) {
        std::fprintf(stderr, "the recording to play did not finish: %s\n", record.Error().c_str());
        return;
    }
    record.SetState(GST_STATE_NULL);

    std::vector<double> ms;
    for (int i = 0; i < kRuns; i++) {
        VideoDaemon::PlaybackPipeline playback(true);
        auto start = Clock::now();
        if (!playback.Launch(false, true, false))
            break;
        bool ended = false;
        auto report = [&](void*, bool, bool eos, double, int64_t, int64_t) { ended = ended || eos; };
        if (playback.Play(file, 1.0, report, 100, nullptr) != 0 || !ReachesPlaying(playback, 3000))
            break;
        ms.push_back(Since(start));
        playback.Stop();
        Turn([&] { return ended; }, 2000);
    }
    std::remove(file.c_str());
    Print("PlaybackPipeline launch->PLAYING (Play 1.0)", ms);
}

} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    gst_init(nullptr, nullptr);
    {
        LivePicture picture;
        picture.Launch(false, true, false);
        picture.SetState(GST_STATE_PLAYING, 0);
        LaunchToPlaying<VideoDaemon::MjpegEncodePipeline>("MjpegEncodePipeline launch->PLAYING", picture);
        LaunchToPlaying<VideoDaemon::JpegEncodePipeline>("JpegEncodePipeline launch->PLAYING", picture);
        TcpServerAndClient(picture);
        Snapshots(picture);
        Playback();
        picture.SetState(GST_STATE_NULL);
    }
    return 0;
}
