// The daemon's whole graph, every description taken from its pipeline class
// and linked through interpipe the way the daemon links them, runs in real
// time and passes buffers end to end on the stand-in elements.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pipelines/jpeg_encode_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"
#include "streamers/pipeline_graph.h"
#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;
using namespace VideoDaemon;

namespace
{

template <typename T> void Set(const TestPipeline& pipeline, const char* child, const char* property, T value)
{
    GstPtr<GstElement> element = pipeline.Element(child);
    ASSERT_TRUE(element) << "no element " << child;
    g_object_set(element.get(), property, value, nullptr);
}

// Buffers entering a child's sink pad; `most` caps what a wait asks of this pad.
struct Counter {
    const TestPipeline* pipeline;
    std::string child;
    std::unique_ptr<BufferCount> count;
    unsigned most;
};

// Runs until every counter of the pipelines has seen `minimum` buffers, a bus error appears, or the
// time runs out.
void RunUntilCounted(const std::vector<Counter>& counters, const std::vector<const TestPipeline*>& graph,
    unsigned minimum, int seconds)
{
    std::string report;
    const gint64 deadline = g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND;
    while (g_get_monotonic_time() < deadline) {
        bool done = true;
        report.clear();
        for (const Counter& counter : counters) {
            if (std::find(graph.begin(), graph.end(), counter.pipeline) == graph.end())
                continue;
            report += counter.child + "=" + std::to_string(counter.count->Value()) + " ";
            done = done && counter.count->Value() >= std::min(minimum, counter.most);
        }
        for (const TestPipeline* pipeline : graph) {
            GstMessagePtr error = pipeline->WaitFor(GST_MESSAGE_ERROR, 0);
            ASSERT_FALSE(error) << ErrorText(error.get()) << "; counted: " << report;
        }
        if (done)
            return;
        g_usleep(50000);
    }
    FAIL() << "not every stage passed " << minimum << " buffers: " << report;
}

// The whole graph with the NTSC camera selected: camera -> GPU -> overlays ->
// display, encoders, snapshot; camera -> MJPEG -> TCP server -> TCP client;
// microphone -> AAC -> the three muxers. The links are the streamer's own
// table.
TEST(LaunchDescriptions, LinkedAsTheDaemonLinksThemEveryStagePassesBuffers)
{
    // The daemon's pipeline objects write every description and name every
    // interpipe end (each AAC encoder numbers its names).
    gst_init(nullptr, nullptr);
    TempDir dir;
    std::array<std::unique_ptr<Pipeline>, PipelineGraph::kPipelineCount> daemon;
    for (const PipelineGraph::Node& node : PipelineGraph::Nodes())
        daemon[static_cast<size_t>(node.index)] = node.create();
    auto daemon_at = [&](int index) -> Pipeline& { return *daemon[static_cast<size_t>(index)]; };
    // Port 0: the server picks a free port, so this test needs no lock.
    static_cast<TcpServerPipeline&>(daemon_at(kTcpServerIndex)).SetServerAddress("127.0.0.1", 0);

    // Every pipeline of the graph but the inputs not selected, the input mux,
    // the speaker and playback; beside the streamer's graph, the still-image
    // encoder on the "recording" overlay.
    std::map<int, std::unique_ptr<TestPipeline>> staged;
    std::vector<const TestPipeline*> graph;
    for (int index : { kNtscCameraIndex, kGpuIndex, kOverlayDisplayIndex, kOverlayRecordingIndex,
             kDisplayIndex, kH264VideoIndex, kH264AutologIndex, kSnapshotIndex, kMicInputIndex,
             kAacEncodeIndex, kMp4muxVideoIndex, kMp4muxAutologIndex, kSnapvoiceIndex, kMjpegEncodeIndex,
             kTcpServerIndex, kTcpClientIndex }) {
        staged[index] = std::make_unique<TestPipeline>(daemon_at(index).GetDescription());
        graph.push_back(staged[index].get());
    }
    auto at = [&](int index) -> TestPipeline& { return *staged.at(index); };
    TestPipeline jpeg(JpegEncodePipeline().GetDescription());
    graph.push_back(&jpeg);
    for (const TestPipeline* pipeline : graph)
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    for (int index : PipelineGraph::InputListeners())
        Set(at(index), daemon_at(index).GetSourceName().c_str(), "listen-to",
            daemon_at(kNtscCameraIndex).GetSinkName().c_str());
    for (const PipelineGraph::Link& link : PipelineGraph::Links()) {
        const std::string source = PipelineGraph::ListenerSourceName(link, daemon_at(link.listener));
        Set(at(link.listener), source.c_str(), "listen-to", daemon_at(link.producer).GetSinkName().c_str());
    }
    Set(jpeg, "jpeg_encode_source", "listen-to", daemon_at(kOverlayRecordingIndex).GetSinkName().c_str());

    // What a capture does: open the valves and give the muxers files. The
    // encoders' valves open only once the live picture runs, as a capture
    // starts on the unit: the frame a restamping source prerolls with carries
    // no time yet, and a muxer refuses it.
    const std::string video_file = dir.File("video.mp4");
    for (auto [index, valve] : { std::pair { kMp4muxVideoIndex, "video_idr_valve" },
             { kMp4muxAutologIndex, "autolog_idr_valve" }, { kSnapvoiceIndex, "snapvoice_idr_valve" } })
        Set(at(index), valve, "drop", FALSE);
    Set(at(kMp4muxVideoIndex), "video_mp4mux_filesink", "location", video_file.c_str());
    Set(at(kMp4muxAutologIndex), "autolog_mp4mux_filesink", "location", dir.File("autolog.mp4").c_str());
    Set(at(kSnapvoiceIndex), "snapvoice_mp4mux_filesink", "location", dir.File("snapvoice.mp4").c_str());
    Set(at(kSnapshotIndex), "snapshotSink", "location", dir.File("snapshot%d.jpeg").c_str());

    const std::string aacSink = daemon_at(kAacEncodeIndex).GetSinkName();
    std::vector<Counter> counters;
    auto count = [&](const TestPipeline& pipeline, const char* child, unsigned most) {
        GstPtr<GstElement> element = pipeline.Element(child);
        ASSERT_TRUE(element) << "no element " << child;
        counters.push_back({ &pipeline, child, std::make_unique<BufferCount>(element.get(), "sink"), most });
    };
    for (auto [pipeline, sink] : { std::pair { &at(kDisplayIndex), "display_sink" },
             { &at(kH264VideoIndex), "video_h264_sink" }, { &at(kH264AutologIndex), "autolog_h264_sink" },
             { &at(kSnapshotIndex), "snapshotSink" }, { &jpeg, "jpeg_encode_sink" },
             { &at(kAacEncodeIndex), aacSink.c_str() }, { &at(kMp4muxVideoIndex), "video_mp4mux_filesink" },
             { &at(kMp4muxAutologIndex), "autolog_mp4mux_filesink" },
             { &at(kTcpServerIndex), "tcp_server_sink" }, { &at(kTcpClientIndex), "tcpclient_video" } })
        ASSERT_NO_FATAL_FAILURE(count(*pipeline, sink, UINT_MAX));
    // SnapVoice keeps one picture, so its muxer writes little before the end.
    ASSERT_NO_FATAL_FAILURE(count(at(kSnapvoiceIndex), "snapvoice_mp4mux_filesink", 1));

    // Consumers start before their producers, as at start-up, except the TCP
    // client, which needs the server's port.
    TestPipeline& tcp_client = at(kTcpClientIndex);
    for (const TestPipeline* pipeline : graph) {
        if (pipeline != &tcp_client) {
            ASSERT_TRUE(pipeline->Start()) << pipeline->Error();
        }
    }
    Set(at(kSnapshotIndex), "snapshot_valve", "num-buffers-pass", 3u);

    ASSERT_TRUE(at(kTcpServerIndex).Play());
    gint port = 0;
    g_object_get(at(kTcpServerIndex).Element("tcp_server_sink").get(), "current-port", &port, nullptr);
    ASSERT_GT(port, 0);
    Set(tcp_client, "tcpclient_source_video", "host", "127.0.0.1");
    Set(tcp_client, "tcpclient_source_video", "port", port);
    ASSERT_TRUE(tcp_client.Start());

    ASSERT_NO_FATAL_FAILURE(RunUntilCounted(counters, { &at(kDisplayIndex) }, 3, 30));
    Set(at(kH264VideoIndex), "video_h264_valve", "drop", FALSE);
    Set(at(kH264AutologIndex), "autolog_h264_valve", "drop", FALSE);
    ASSERT_NO_FATAL_FAILURE(RunUntilCounted(counters, graph, 3, 30));

    // The video muxer finishes its file on end-of-stream; an independent
    // reader finds H.264 and AAC in it.
    ASSERT_TRUE(at(kMp4muxVideoIndex).Finish()) << at(kMp4muxVideoIndex).Error();
    const std::vector<std::string> streams = FfprobeValues(video_file, "stream=codec_name");
    EXPECT_NE(std::find(streams.begin(), streams.end(), "h264"), streams.end());
    EXPECT_NE(std::find(streams.begin(), streams.end(), "aac"), streams.end());
}

} // namespace
