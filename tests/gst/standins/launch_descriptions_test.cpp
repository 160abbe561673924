// The daemon's launch descriptions, taken from its pipeline classes, parse
// against the stand-in elements and, linked through interpipe the way the
// daemon links them, run and pass buffers end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/input_mux_pipeline.h"
#include "pipelines/jpeg_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "pipelines/mjpeg_encode_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/overlay_pipeline.h"
#include "pipelines/pal_camera_input_pipeline.h"
#include "pipelines/playback_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "pipelines/snapvoice_pipeline.h"
#include "pipelines/tcp_client_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"
#include "pipelines/test_input_pipeline.h"

using namespace GstTest;
using namespace VideoDaemon;

namespace
{

// A description exactly as the daemon's pipeline class writes it.
template <typename Daemon, typename... Args> std::string DescriptionOf(Args&&... args)
{
    gst_init(nullptr, nullptr);
    Daemon pipeline(std::forward<Args>(args)...);
    return pipeline.GetDescription();
}

std::string TcpServerDescription(const std::string& host, int port)
{
    TcpServerPipeline server;
    server.SetServerAddress(host, port);
    return server.GetDescription();
}

class LaunchDescriptions : public ::testing::Test
{
protected:
    // Counts the buffers entering a child's sink pad; `most` caps what a wait asks of this pad.
    void Count(const TestPipeline& pipeline, const char* child, unsigned most = UINT_MAX)
    {
        ObjectPtr<GstElement> element = pipeline.Element(child);
        ASSERT_TRUE(element) << "no element " << child;
        _Counters.push_back({ &pipeline, child, std::make_unique<BufferCount>(element.get(), "sink"), most });
    }

    template <typename T>
    void Set(const TestPipeline& pipeline, const char* child, const char* property, T value)
    {
        ObjectPtr<GstElement> element = pipeline.Element(child);
        ASSERT_TRUE(element) << "no element " << child;
        g_object_set(element.get(), property, value, nullptr);
    }

    unsigned Counted(const char* child) const
    {
        for (const Counter& counter : _Counters)
            if (counter.child == child)
                return counter.count->Value();
        return 0;
    }

    // Runs until every counter of the pipelines has seen `minimum` buffers, a bus error appears, or the
    // time runs out.
    void RunUntilCounted(const std::vector<const TestPipeline*>& graph, unsigned minimum, int seconds)
    {
        std::string report;
        const gint64 deadline = g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND;
        while (g_get_monotonic_time() < deadline) {
            bool done = true;
            report.clear();
            for (const Counter& counter : _Counters) {
                if (std::find(graph.begin(), graph.end(), counter.pipeline) == graph.end())
                    continue;
                report += counter.child + "=" + std::to_string(counter.count->Value()) + " ";
                done = done && counter.count->Value() >= std::min(minimum, counter.most);
            }
            for (const TestPipeline* pipeline : graph) {
                MessagePtr error = pipeline->WaitFor(GST_MESSAGE_ERROR, 0);
                ASSERT_FALSE(error) << ErrorText(error.get()) << "; counted: " << report;
            }
            if (done)
                return;
            g_usleep(50000);
        }
        FAIL() << "not every stage passed " << minimum << " buffers: " << report;
    }

    struct Counter {
        const TestPipeline* pipeline;
        std::string child;
        std::unique_ptr<BufferCount> count;
        unsigned most;
    };
    std::vector<Counter> _Counters;
    TempDir _Dir;
};

// The whole graph with the NTSC camera selected: camera -> GPU -> overlays ->
// display, encoders, snapshot; camera -> MJPEG -> TCP server -> TCP client;
// microphone -> AAC -> the three muxers.
TEST_F(LaunchDescriptions, LinkedAsTheDaemonLinksThemEveryStagePassesBuffers)
{
    TestPipeline camera(DescriptionOf<NtscCameraInputPipeline>());
    TestPipeline gpu(DescriptionOf<GpuPipeline>());
    TestPipeline overlay_display(DescriptionOf<OverlayPipeline>("display"));
    TestPipeline overlay_recording(DescriptionOf<OverlayPipeline>("recording"));
    TestPipeline display(DescriptionOf<DisplayPipeline>());
    TestPipeline h264_video(DescriptionOf<H264EncodePipeline>("video"));
    TestPipeline h264_autolog(DescriptionOf<H264EncodePipeline>("autolog"));
    TestPipeline snapshot(DescriptionOf<SnapshotPipeline>());
    TestPipeline jpeg(DescriptionOf<JpegEncodePipeline>());
    TestPipeline microphone(DescriptionOf<MicInputPipeline>());
    // Each AAC encoder numbers its interpipe names.
    AacEncodePipeline aacNames;
    const std::string aacSource = aacNames.GetSourceName(), aacSink = aacNames.GetSinkName();
    TestPipeline aac(aacNames.GetDescription());
    TestPipeline mux_video(DescriptionOf<Mp4muxPipeline>("video"));
    TestPipeline mux_autolog(DescriptionOf<Mp4muxPipeline>("autolog"));
    TestPipeline snapvoice(DescriptionOf<SnapvoicePipeline>());
    TestPipeline mjpeg(DescriptionOf<MjpegEncodePipeline>());
    // Port 0: the server picks a free port, so this test needs no lock.
    TestPipeline tcp_server(TcpServerDescription("127.0.0.1", 0));
    TestPipeline tcp_client(DescriptionOf<TcpClientPipeline>());
    std::vector<const TestPipeline*> graph = { &camera, &gpu, &overlay_display, &overlay_recording, &display,
        &h264_video, &h264_autolog, &snapshot, &jpeg, &microphone, &aac, &mux_video, &mux_autolog, &snapvoice,
        &mjpeg, &tcp_server, &tcp_client };
    for (const TestPipeline* pipeline : graph)
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    Set(gpu, "gpu_source", "listen-to", "camera_input_video");
    Set(mjpeg, "mjpeg_encode_source", "listen-to", "camera_input_video");
    Set(overlay_display, "svg_overlay_source_display", "listen-to", "gpu_sink");
    Set(overlay_recording, "svg_overlay_source_recording", "listen-to", "gpu_sink");
    Set(display, "display_source", "listen-to", "svg_overlay_sink_first_display");
    Set(h264_video, "video_h264_source", "listen-to", "svg_overlay_sink_first_recording");
    Set(snapshot, "snapshot_source", "listen-to", "svg_overlay_sink_first_recording");
    Set(h264_autolog, "autolog_h264_source", "listen-to", "svg_overlay_sink_first_recording");
    Set(jpeg, "jpeg_encode_source", "listen-to", "svg_overlay_sink_first_recording");
    Set(aac, aacSource.c_str(), "listen-to", "mic_input");
    Set(mux_video, "video_mp4mux_video0", "listen-to", "video_h264_sink");
    Set(mux_video, "video_mp4mux_audio0", "listen-to", aacSink.c_str());
    Set(tcp_server, "tcp_server_source", "listen-to", "mjpeg_encode_sink");
    Set(snapvoice, "snapvoice_mp4mux_video0", "listen-to", "video_h264_sink");
    Set(snapvoice, "snapvoice_mp4mux_audio0", "listen-to", aacSink.c_str());
    Set(mux_autolog, "autolog_mp4mux_video0", "listen-to", "autolog_h264_sink");
    Set(mux_autolog, "autolog_mp4mux_audio0", "listen-to", aacSink.c_str());

    // What a capture does: open the valves and give the muxers files.
    const std::string video_file = _Dir.File("video.mp4");
    Set(h264_video, "video_h264_valve", "drop", FALSE);
    Set(h264_autolog, "autolog_h264_valve", "drop", FALSE);
    Set(mux_video, "video_mp4mux_filesink", "location", video_file.c_str());
    Set(mux_autolog, "autolog_mp4mux_filesink", "location", _Dir.File("autolog.mp4").c_str());
    Set(snapvoice, "snapvoice_mp4mux_filesink", "location", _Dir.File("snapvoice.mp4").c_str());
    Set(mux_video, "video_idr_valve", "drop", FALSE);
    Set(mux_autolog, "autolog_idr_valve", "drop", FALSE);
    Set(snapvoice, "snapvoice_idr_valve", "drop", FALSE);
    Set(snapshot, "snapshotSink", "location", _Dir.File("snapshot%d.jpeg").c_str());

    Count(display, "display_sink");
    Count(h264_video, "video_h264_sink");
    Count(h264_autolog, "autolog_h264_sink");
    Count(snapshot, "snapshotSink");
    Count(jpeg, "jpeg_encode_sink");
    Count(aac, aacSink.c_str());
    Count(mux_video, "video_mp4mux_filesink");
    Count(mux_autolog, "autolog_mp4mux_filesink");
    // SnapVoice keeps one picture, so its muxer writes little before the end.
    Count(snapvoice, "snapvoice_mp4mux_filesink", 1);
    Count(tcp_server, "tcp_server_sink");
    Count(tcp_client, "tcpclient_video");

    // Consumers start before their producers, as at start-up, except the TCP
    // client, which needs the server's port.
    for (const TestPipeline* pipeline : graph) {
        if (pipeline != &tcp_client) {
            ASSERT_TRUE(pipeline->Start()) << pipeline->Error();
        }
    }
    Set(snapshot, "snapshot_valve", "num-buffers-pass", 3u);

    ASSERT_TRUE(tcp_server.Play());
    gint port = 0;
    g_object_get(tcp_server.Element("tcp_server_sink").get(), "current-port", &port, nullptr);
    ASSERT_GT(port, 0);
    Set(tcp_client, "tcpclient_source_video", "host", "127.0.0.1");
    Set(tcp_client, "tcpclient_source_video", "port", port);
    ASSERT_TRUE(tcp_client.Start());

    ASSERT_NO_FATAL_FAILURE(RunUntilCounted(graph, 3, 30));

    // The video muxer finishes its file on end-of-stream; an independent
    // reader finds H.264 and AAC in it.
    ASSERT_TRUE(mux_video.Finish()) << mux_video.Error();
    const std::vector<std::string> streams = FfprobeValues(video_file, "stream=codec_name");
    EXPECT_NE(std::find(streams.begin(), streams.end(), "h264"), streams.end());
    EXPECT_NE(std::find(streams.begin(), streams.end(), "aac"), streams.end());
}

// Every input publishes 640x480 RGBA on its sink; the input mux and the GPU
// follow a switch between inputs while everything plays.
TEST_F(LaunchDescriptions, InputsFeedTheInputMuxAndTheGpuAcrossSwitches)
{
    TestPipeline test_input(DescriptionOf<TestInputPipeline>());
    TestPipeline ntsc(DescriptionOf<NtscCameraInputPipeline>());
    TestPipeline pal(DescriptionOf<PalCameraInputPipeline>());
    TestPipeline input_mux(DescriptionOf<InputMuxPipeline>());
    TestPipeline gpu(DescriptionOf<GpuPipeline>());
    for (const TestPipeline* pipeline : { &test_input, &ntsc, &pal, &input_mux, &gpu })
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    Set(input_mux, "input_mux_source", "listen-to", "test_input_sink");
    Set(gpu, "gpu_source", "listen-to", "test_input_sink");
    Count(test_input, "test_input_sink");
    Count(ntsc, "camera_input_video");
    Count(pal, "pal_camera_sink");
    Count(input_mux, "input_mux_sink");
    Count(gpu, "gpu_sink");
    for (const TestPipeline* pipeline : { &input_mux, &gpu, &test_input, &ntsc, &pal })
        ASSERT_TRUE(pipeline->Start());
    ASSERT_NO_FATAL_FAILURE(RunUntilCounted({ &test_input, &ntsc, &pal, &input_mux, &gpu }, 3, 20));

    for (const char* input : { "camera_input_video", "pal_camera_sink" }) {
        Set(input_mux, "input_mux_source", "listen-to", input);
        Set(gpu, "gpu_source", "listen-to", input);
        unsigned counted = std::max(Counted("input_mux_sink"), Counted("gpu_sink"));
        ASSERT_NO_FATAL_FAILURE(RunUntilCounted({ &input_mux, &gpu }, counted + 5, 20)) << input;
    }
}

// Playback: a recorded file through playbin and a still JPEG through the
// decoder to the display sink, both to end-of-stream.
TEST_F(LaunchDescriptions, PlaybackPlaysARecordingAndAStillPictureToTheEnd)
{
    const std::string movie = _Dir.File("movie.mp4");
    const std::string still = _Dir.File("still.jpg");
    TestPipeline maker("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240 ! "
                       "x264enc ! mp4mux ! filesink location="
        + movie + " videotestsrc num-buffers=1 ! jpegenc ! filesink location=" + still);
    ASSERT_TRUE(maker.RunToEos()) << maker.Error();

    TestPipeline playback(DescriptionOf<PlaybackPipeline>(true));
    ASSERT_TRUE(playback.Parsed()) << playback.Error();
    ObjectPtr<GstElement> playbin = playback.Element("pipeline0_playbin");
    ASSERT_TRUE(playbin);
    GstElement* video_sink = gst_element_factory_make("imxipuvideosink", nullptr);
    ASSERT_NE(video_sink, nullptr);
    g_object_set(playbin.get(), "uri", ("file://" + movie).c_str(), "video-sink", video_sink, "audio-sink",
        gst_element_factory_make("fakesink", nullptr), nullptr);
    Set(playback, "jpeg_playback_source", "location", still.c_str());
    Count(playback, "jpeg_playback_sink");
    EXPECT_TRUE(playback.RunToEos()) << playback.Error();
    EXPECT_GE(Counted("jpeg_playback_sink"), 1u);
}

} // namespace
