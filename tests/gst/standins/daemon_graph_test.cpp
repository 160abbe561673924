// The daemon's whole graph, every description taken from its pipeline class
// and linked through interpipe the way the daemon links them, runs in real
// time and passes buffers end to end.
#include "launch_graph.h"

#include <array>
#include <map>

#include "streamers/pipeline_graph.h"

using namespace LaunchGraph;

namespace
{

// The whole graph with the NTSC camera selected: camera -> GPU -> overlays ->
// display, encoders, snapshot; camera -> MJPEG -> TCP server -> TCP client;
// microphone -> AAC -> the three muxers. The links are the streamer's own
// table.
TEST_F(LaunchDescriptions, LinkedAsTheDaemonLinksThemEveryStagePassesBuffers)
{
    // The daemon's pipeline objects write every description and name every
    // interpipe end (each AAC encoder numbers its names).
    std::array<std::unique_ptr<Pipeline>, PipelineGraph::kPipelineCount> daemon;
    for (const PipelineGraph::Node& node : PipelineGraph::Nodes())
        daemon[static_cast<size_t>(node.index)] = node.create();
    auto daemon_at = [&](int index) -> Pipeline& { return *daemon[static_cast<size_t>(index)]; };
    // Port 0: the server picks a free port, so this test needs no lock.
    static_cast<TcpServerPipeline&>(daemon_at(kTcpServerIndex)).SetServerAddress("127.0.0.1", 0);

    // Every pipeline of the graph but the inputs not selected, the input mux,
    // the speaker and playback.
    std::map<int, std::unique_ptr<TestPipeline>> staged;
    for (int index : { kNtscCameraIndex, kGpuIndex, kOverlayDisplayIndex, kOverlayRecordingIndex,
             kDisplayIndex, kH264VideoIndex, kH264AutologIndex, kSnapshotIndex, kMicInputIndex,
             kAacEncodeIndex, kMp4muxVideoIndex, kMp4muxAutologIndex, kSnapvoiceIndex, kMjpegEncodeIndex,
             kTcpServerIndex, kTcpClientIndex })
        staged[index] = std::make_unique<TestPipeline>(daemon_at(index).GetDescription());
    TestPipeline& camera = *staged[kNtscCameraIndex];
    TestPipeline& gpu = *staged[kGpuIndex];
    TestPipeline& overlay_display = *staged[kOverlayDisplayIndex];
    TestPipeline& overlay_recording = *staged[kOverlayRecordingIndex];
    TestPipeline& display = *staged[kDisplayIndex];
    TestPipeline& h264_video = *staged[kH264VideoIndex];
    TestPipeline& h264_autolog = *staged[kH264AutologIndex];
    TestPipeline& snapshot = *staged[kSnapshotIndex];
    TestPipeline& microphone = *staged[kMicInputIndex];
    TestPipeline& aac = *staged[kAacEncodeIndex];
    TestPipeline& mux_video = *staged[kMp4muxVideoIndex];
    TestPipeline& mux_autolog = *staged[kMp4muxAutologIndex];
    TestPipeline& snapvoice = *staged[kSnapvoiceIndex];
    TestPipeline& mjpeg = *staged[kMjpegEncodeIndex];
    TestPipeline& tcp_server = *staged[kTcpServerIndex];
    TestPipeline& tcp_client = *staged[kTcpClientIndex];
    // Beside the streamer's graph: the still-image encoder on the
    // "recording" overlay.
    TestPipeline jpeg(DescriptionOf<JpegEncodePipeline>());
    const std::string aacSink = daemon_at(kAacEncodeIndex).GetSinkName();
    std::vector<const TestPipeline*> graph = { &camera, &gpu, &overlay_display, &overlay_recording, &display,
        &h264_video, &h264_autolog, &snapshot, &jpeg, &microphone, &aac, &mux_video, &mux_autolog, &snapvoice,
        &mjpeg, &tcp_server, &tcp_client };
    for (const TestPipeline* pipeline : graph)
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    for (int index : PipelineGraph::InputListeners())
        Set(*staged.at(index), daemon_at(index).GetSourceName().c_str(), "listen-to",
            daemon_at(kNtscCameraIndex).GetSinkName().c_str());
    for (const PipelineGraph::Link& link : PipelineGraph::Links()) {
        const std::string source = PipelineGraph::ListenerSourceName(link, daemon_at(link.listener));
        Set(*staged.at(link.listener), source.c_str(), "listen-to",
            daemon_at(link.producer).GetSinkName().c_str());
    }
    Set(jpeg, "jpeg_encode_source", "listen-to", daemon_at(kOverlayRecordingIndex).GetSinkName().c_str());

    // What a capture does: open the valves and give the muxers files. The
    // encoders' valves open only once the live picture runs, as a capture
    // starts on the unit: the frame a restamping source prerolls with carries
    // no time yet, and a muxer refuses it.
    const std::string video_file = _Dir.File("video.mp4");
    for (auto [pipeline, valve] : { std::pair { &mux_video, "video_idr_valve" },
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

    ASSERT_NO_FATAL_FAILURE(RunUntilCounted({ &display }, 3, 30));
    for (auto [pipeline, valve] :
        { std::pair { &h264_video, "video_h264_valve" }, { &h264_autolog, "autolog_h264_valve" } })
        Set(*pipeline, valve, "drop", FALSE);
    ASSERT_NO_FATAL_FAILURE(RunUntilCounted(graph, 3, 30));

    // The video muxer finishes its file on end-of-stream; an independent
    // reader finds H.264 and AAC in it.
    ASSERT_TRUE(mux_video.Finish()) << mux_video.Error();
    const std::vector<std::string> streams = FfprobeValues(video_file, "stream=codec_name");
    EXPECT_NE(std::find(streams.begin(), streams.end(), "h264"), streams.end());
    EXPECT_NE(std::find(streams.begin(), streams.end(), "aac"), streams.end());
}

} // namespace
