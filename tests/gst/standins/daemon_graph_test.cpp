// The daemon's whole graph, every description taken from its pipeline class
// and linked through interpipe the way the daemon links them, runs in real
// time and passes buffers end to end.
#include "launch_graph.h"

using namespace LaunchGraph;

namespace
{

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
    TcpServerPipeline server;
    server.SetServerAddress("127.0.0.1", 0);
    TestPipeline tcp_server(server.GetDescription());
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
    for (auto [pipeline, valve] : { std::pair { &h264_video, "video_h264_valve" },
             { &h264_autolog, "autolog_h264_valve" }, { &mux_video, "video_idr_valve" },
             { &mux_autolog, "autolog_idr_valve" }, { &snapvoice, "snapvoice_idr_valve" } })
        Set(*pipeline, valve, "drop", FALSE);
    Set(mux_video, "video_mp4mux_filesink", "location", video_file.c_str());
    Set(mux_autolog, "autolog_mp4mux_filesink", "location", _Dir.File("autolog.mp4").c_str());
    Set(snapvoice, "snapvoice_mp4mux_filesink", "location", _Dir.File("snapvoice.mp4").c_str());
    Set(snapshot, "snapshotSink", "location", _Dir.File("snapshot%d.jpeg").c_str());

    for (auto [pipeline, sink] : { std::pair { &display, "display_sink" }, { &h264_video, "video_h264_sink" },
             { &h264_autolog, "autolog_h264_sink" }, { &snapshot, "snapshotSink" },
             { &jpeg, "jpeg_encode_sink" }, { &aac, aacSink.c_str() },
             { &mux_video, "video_mp4mux_filesink" }, { &mux_autolog, "autolog_mp4mux_filesink" },
             { &tcp_server, "tcp_server_sink" }, { &tcp_client, "tcpclient_video" } })
        Count(*pipeline, sink);
    // SnapVoice keeps one picture, so its muxer writes little before the end.
    Count(snapvoice, "snapvoice_mp4mux_filesink", 1);

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

} // namespace
