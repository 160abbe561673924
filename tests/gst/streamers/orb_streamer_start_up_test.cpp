// The streamer at start-up: its pipelines created and initialised in index order, the fixed links, the
// input links, the start order of the always-on pipelines and the stop sweep.
#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

class OrbStreamerStartUp : public ::testing::Test, public StreamerFixture
{
};

std::string ClassOf(Pipeline& pipeline)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> name(
        abi::__cxa_demangle(typeid(pipeline).name(), nullptr, nullptr, &status), &std::free);
    return status == 0 ? name.get() : "";
}

const std::string kDashes = "---------------------------------------------";

TEST_F(OrbStreamerStartUp, InitialisationCreatesLaunchesAndLinksThePipelinesOfTheGraphTableInIndexOrder)
{
    streamer.InitializePipelines();

    // Each pipeline of the table's class; a name argument is the prefix of its element names.
    for (const PipelineGraph::Node& node : PipelineGraph::Nodes()) {
        ASSERT_NE(nullptr, streamer.GetPipeline(node.index)) << node.index;
        EXPECT_EQ(std::string("VideoDaemon::") + node.class_name, ClassOf(At(node.index))) << node.index;
        if (node.argument && node.index != kPlaybackIndex) {
            EXPECT_NE(std::string::npos, At(node.index).GetSinkName().find(node.argument)) << node.index;
        }
    }
    EXPECT_EQ(nullptr, streamer.GetPipeline(PipelineGraph::kPipelineCount));

    // All but the camera inputs and the input mux launched, not started, each result logged.
    const std::vector<std::string> header = LinesStartingWith(log, LOG_INFO, "");
    ASSERT_GE(header.size(), 3u);
    EXPECT_EQ((std::vector<std::string> { kDashes, " Initialize pipelines ", kDashes }),
        std::vector<std::string>(header.begin(), header.begin() + 3));
    std::vector<std::string> expected;
    for (const char* name : { "TestInputPipeline", "GpuPipeline", "OverlayPipeline", "OverlayPipeline",
             "DisplayPipeline", "AudioSpeakerPipeline", "H264EncodePipeline", "video_Mp4muxPipeline",
             "MjpegEncodePipeline", "TcpServerPipeline", "SnapshotPipeline", "MicInputPipeline",
             "AacEncodePipeline", "TcpClientPipeline", "snapvoice_Mp4muxPipeline", "PlaybackPipeline",
             "H264EncodePipeline", "autolog_Mp4muxPipeline" })
        expected.push_back(std::string("[Streamer] Initialized '") + name + "' pipeline with result:1");
    EXPECT_EQ(expected, LinesStartingWith(log, LOG_INFO, "[Streamer] Initialized '"));
    for (int index = 0; index < static_cast<int>(PipelineGraph::kPipelineCount); ++index) {
        const bool on_demand
            = index == kNtscCameraIndex || index == kPalCameraIndex || index == kInputMuxIndex;
        EXPECT_EQ(on_demand, At(index).GetPipeline() == nullptr) << index;
        EXPECT_EQ(GST_STATE_NULL, At(index).GetState()) << index;
    }
    EXPECT_TRUE(announced.empty());

    // Every fixed link points the listener's source at its producer's sink, and is recorded.
    struct Link {
        int listener;
        std::string source;
        int producer;
    };
    const std::vector<Link> links {
        { kOverlayDisplayIndex, "svg_overlay_source_display", kGpuIndex },
        { kOverlayRecordingIndex, "svg_overlay_source_recording", kGpuIndex },
        { kDisplayIndex, "display_source", kOverlayDisplayIndex },
        { kH264VideoIndex, "video_h264_source", kOverlayRecordingIndex },
        { kSnapshotIndex, "snapshot_source", kOverlayRecordingIndex },
        { kH264AutologIndex, "autolog_h264_source", kOverlayRecordingIndex },
        { kAacEncodeIndex, At(kAacEncodeIndex).GetSourceName(), kMicInputIndex },
        { kMp4muxVideoIndex, "video_mp4mux_video0", kH264VideoIndex },
        { kMp4muxVideoIndex, "video_mp4mux_audio0", kAacEncodeIndex },
        { kTcpServerIndex, "tcp_server_source", kMjpegEncodeIndex },
        { kSnapvoiceIndex, "snapvoice_mp4mux_video0", kH264VideoIndex },
        { kSnapvoiceIndex, "snapvoice_mp4mux_audio0", kAacEncodeIndex },
        { kMp4muxAutologIndex, "autolog_mp4mux_video0", kH264AutologIndex },
        { kMp4muxAutologIndex, "autolog_mp4mux_audio0", kAacEncodeIndex },
    };
    for (const Link& link : links) {
        EXPECT_EQ(At(link.producer).GetSinkName(), ListeningTo(At(link.listener), link.source))
            << link.source;
        auto recorded = At(link.listener).GetListeningTo().find(link.source);
        ASSERT_NE(At(link.listener).GetListeningTo().end(), recorded) << link.source;
        EXPECT_EQ(&At(link.producer), recorded->second) << link.source;
    }
    EXPECT_EQ(1u, LinesStartingWith(log, LOG_INFO, " Connect pipelines ").size());
    // The inputs are linked when one is selected: the GPU, then the MJPEG encoder, which the producer
    // therefore remembers.
    EXPECT_EQ("", ListeningTo(At(kGpuIndex), "gpu_source"));
    const std::vector<std::pair<int, int>> inputs { { 1, kNtscCameraIndex }, { 2, kPalCameraIndex },
        { 3, kTcpClientIndex }, { 0, kTestInputIndex }, { 7, kTestInputIndex } };
    for (const auto& [input, producer] : inputs) {
        log.Clear();
        streamer.ListenToInput(input);
        EXPECT_TRUE(log.Contains(LOG_INFO, "listening to input " + std::to_string(input)));
        const std::string sink = At(producer).GetSinkName();
        EXPECT_EQ(sink, ListeningTo(At(kGpuIndex), "gpu_source")) << input;
        EXPECT_EQ(sink, ListeningTo(At(kMjpegEncodeIndex), "mjpeg_encode_source")) << input;
        EXPECT_EQ(&At(producer), At(kGpuIndex).GetListeningTo().at("gpu_source")) << input;
        EXPECT_EQ(&At(kMjpegEncodeIndex), At(producer).GetListeners().at(sink)) << input;
    }
}

TEST_F(OrbStreamerStartUp, TheAlwaysOnPipelinesStartInTheirOrderAndTheStopSweepBringsAllToNull)
{
    streamer.InitializePipelines();
    streamer.ListenToInput(0);
    ASSERT_EQ(0, At(kTestInputIndex).SetState(GST_STATE_PLAYING));
    log.Clear();
    EXPECT_EQ(0, streamer.StartVideoPipelines());

    const std::vector<std::string> lines = LinesStartingWith(log, LOG_INFO, "");
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(" Starting video pipelines ", lines[1]);
    EXPECT_EQ(kDashes, lines.back());
    std::vector<std::string> started;
    for (const std::string& line : lines)
        if (line.find("] Set state [") != std::string::npos)
            started.push_back(line);
    EXPECT_EQ((std::vector<std::string> { "[AudioSpeakerPipeline] Set state [PLAYING]",
                  "[GpuPipeline] Set state [PLAYING]", "[OverlayPipeline] Set state [PLAYING]",
                  "[MicInputPipeline] Set state [PLAYING]", "[OverlayPipeline] Set state [PLAYING]",
                  "[DisplayPipeline] Set state [PLAYING]", "[H264EncodePipeline] Set state [PLAYING]",
                  "[SnapshotPipeline] Set state [PLAYING]" }),
        started);
    // Those with a picture to pass play; the speaker and the snapshot sink wait for their first buffer
    // (sound from playback, a snapshot request).
    EXPECT_TRUE(AllPlaying({ kGpuIndex, kOverlayDisplayIndex, kMicInputIndex, kOverlayRecordingIndex,
        kDisplayIndex, kH264VideoIndex }));
    for (int index : { kAudioSpeakerIndex, kSnapshotIndex })
        EXPECT_EQ(GST_STATE_PLAYING, GST_STATE_TARGET(At(index).GetPipeline())) << index;
    for (int index : { kMp4muxVideoIndex, kMjpegEncodeIndex, kTcpServerIndex, kAacEncodeIndex,
             kTcpClientIndex, kSnapvoiceIndex, kPlaybackIndex, kH264AutologIndex, kMp4muxAutologIndex })
        EXPECT_EQ(GST_STATE_NULL, At(index).GetState()) << index;
    EXPECT_TRUE(LinesStartingWith(log, LOG_ERR, "").empty()) << "nothing failed to change";
    // The display is turned upside down (rotation 5 of the IPU sink).
    int rotation = 0;
    EXPECT_TRUE(
        At(kDisplayIndex).GetElementProperty(VIDEOD_FUNCTION, "display_sink", "output-rotation", rotation));
    EXPECT_EQ(5, rotation);

    // The stop sweep, with the capture on; the only announcement so far.
    streamer.State().Set("CaptureActive", 1);
    streamer.StopPipelines();
    EXPECT_TRUE(log.Contains(LOG_INFO, "orb_streamer: stopping pipelines\n"));
    for (int index = 0; index < static_cast<int>(PipelineGraph::kPipelineCount); ++index)
        EXPECT_EQ(GST_STATE_NULL, At(index).GetState()) << index;
    EXPECT_EQ(0, State("CaptureActive"));
    EXPECT_EQ((std::vector<Announcement> { { { "CaptureActive", "InactiveCaptures" }, true } }), announced);
}

} // namespace
