// The daemon's pipeline graph as data: its pipelines in index order and the fixed interpipe links between
// them.
#include "streamers/pipeline_graph.h"

#include <glib.h>

#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/audio_speaker_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/input_mux_pipeline.h"
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

namespace VideoDaemon
{

namespace
{

template <typename T> std::unique_ptr<Pipeline> Make()
{
    return std::make_unique<T>();
}

} // namespace

const std::array<PipelineGraph::Node, PipelineGraph::kPipelineCount>& PipelineGraph::Nodes()
{
    static const std::array<Node, kPipelineCount> nodes { {
        { kTestInputIndex, "TestInputPipeline", nullptr, &Make<TestInputPipeline> },
        { kNtscCameraIndex, "NtscCameraInputPipeline", nullptr, &Make<NtscCameraInputPipeline> },
        { kPalCameraIndex, "PalCameraInputPipeline", nullptr, &Make<PalCameraInputPipeline> },
        { kInputMuxIndex, "InputMuxPipeline", nullptr, &Make<InputMuxPipeline> },
        { kGpuIndex, "GpuPipeline", nullptr, &Make<GpuPipeline> },
        { kOverlayDisplayIndex, "OverlayPipeline", "display",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<OverlayPipeline>("display")); } },
        { kOverlayRecordingIndex, "OverlayPipeline", "recording",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<OverlayPipeline>("recording")); } },
        { kDisplayIndex, "DisplayPipeline", nullptr, &Make<DisplayPipeline> },
        { kAudioSpeakerIndex, "AudioSpeakerPipeline", nullptr, &Make<AudioSpeakerPipeline> },
        { kH264VideoIndex, "H264EncodePipeline", "video",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<H264EncodePipeline>("video")); } },
        { kMp4muxVideoIndex, "Mp4muxPipeline", "video",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<Mp4muxPipeline>("video")); } },
        { kMjpegEncodeIndex, "MjpegEncodePipeline", nullptr, &Make<MjpegEncodePipeline> },
        { kTcpServerIndex, "TcpServerPipeline", nullptr, &Make<TcpServerPipeline> },
        { kSnapshotIndex, "SnapshotPipeline", nullptr, &Make<SnapshotPipeline> },
        { kMicInputIndex, "MicInputPipeline", nullptr, &Make<MicInputPipeline> },
        { kAacEncodeIndex, "AacEncodePipeline", nullptr, &Make<AacEncodePipeline> },
        { kTcpClientIndex, "TcpClientPipeline", nullptr, &Make<TcpClientPipeline> },
        { kSnapvoiceIndex, "SnapvoicePipeline", nullptr, &Make<SnapvoicePipeline> },
        // Recreated for every file played; an ordinary video file to start with.
        { kPlaybackIndex, "PlaybackPipeline", "1",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<PlaybackPipeline>(true)); } },
        { kH264AutologIndex, "H264EncodePipeline", "autolog",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<H264EncodePipeline>("autolog")); } },
        { kMp4muxAutologIndex, "Mp4muxPipeline", "autolog",
            [] { return std::unique_ptr<Pipeline>(std::make_unique<Mp4muxPipeline>("autolog")); } },
    } };
    return nodes;
}

const std::array<PipelineGraph::Link, PipelineGraph::kLinkCount>& PipelineGraph::Links()
{
    static const std::array<Link, kLinkCount> links { {
        { kOverlayDisplayIndex, kGpuIndex, ListenerSource::kDefault },
        { kOverlayRecordingIndex, kGpuIndex, ListenerSource::kDefault },
        { kDisplayIndex, kOverlayDisplayIndex, ListenerSource::kDefault },
        { kH264VideoIndex, kOverlayRecordingIndex, ListenerSource::kDefault },
        { kSnapshotIndex, kOverlayRecordingIndex, ListenerSource::kDefault },
        { kH264AutologIndex, kOverlayRecordingIndex, ListenerSource::kDefault },
        { kAacEncodeIndex, kMicInputIndex, ListenerSource::kDefault },
        { kMp4muxVideoIndex, kH264VideoIndex, ListenerSource::kDefault },
        { kMp4muxVideoIndex, kAacEncodeIndex, ListenerSource::kMuxAudio },
        { kTcpServerIndex, kMjpegEncodeIndex, ListenerSource::kDefault },
        { kSnapvoiceIndex, kH264VideoIndex, ListenerSource::kDefault },
        { kSnapvoiceIndex, kAacEncodeIndex, ListenerSource::kMuxAudio },
        { kMp4muxAutologIndex, kH264AutologIndex, ListenerSource::kDefault },
        { kMp4muxAutologIndex, kAacEncodeIndex, ListenerSource::kMuxAudio },
    } };
    return links;
}

const std::array<int, 2>& PipelineGraph::InputListeners()
{
    static const std::array<int, 2> listeners { kGpuIndex, kMjpegEncodeIndex };
    return listeners;
}

int PipelineGraph::InputIndex(int input)
{
    switch (input) {
    case 1:
        return kNtscCameraIndex;
    case 2:
        return kPalCameraIndex;
    case 3:
        return kTcpClientIndex;
    default:
        return kTestInputIndex;
    }
}

std::unique_ptr<Pipeline> PipelineGraph::Create(int index)
{
    g_assert(index >= 0 && static_cast<size_t>(index) < kPipelineCount);
    return Nodes()[static_cast<size_t>(index)].create();
}

std::string PipelineGraph::ListenerSourceName(const Link& link, Pipeline& listener)
{
    if (link.source == ListenerSource::kDefault)
        return listener.GetSourceName();
    // Only the muxers have an audio source: the table names nothing else.
    auto* mux = dynamic_cast<Mp4muxPipeline*>(&listener);
    g_assert(mux);
    return mux->GetAudioSourceName();
}

} // namespace VideoDaemon
