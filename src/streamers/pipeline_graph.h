// The daemon's pipeline graph as data: its pipelines in index order and the fixed interpipe links between
// them.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

// Where each pipeline sits in the streamer's array: the creation order, the
// index its error slot carries and the order of the stop sweep.
enum PipelineIndex : int {
    kTestInputIndex = 0,
    kNtscCameraIndex = 1,
    kPalCameraIndex = 2,
    kInputMuxIndex = 3,
    kGpuIndex = 4,
    kOverlayDisplayIndex = 5,
    kOverlayRecordingIndex = 6,
    kDisplayIndex = 7,
    kAudioSpeakerIndex = 8,
    kH264VideoIndex = 9,
    kMp4muxVideoIndex = 10,
    kMjpegEncodeIndex = 11,
    kTcpServerIndex = 12,
    kSnapshotIndex = 13,
    kMicInputIndex = 14,
    kAacEncodeIndex = 15,
    kTcpClientIndex = 16,
    kSnapvoiceIndex = 17,
    kPlaybackIndex = 18,
    kH264AutologIndex = 19,
    kMp4muxAutologIndex = 20,
};

class PipelineGraph
{
public:
    static constexpr size_t kPipelineCount = 21;
    static constexpr size_t kLinkCount = 14;

    // One pipeline of the graph. `argument` is what its constructor is given:
    // the prefix of its element names, "1" for the playback pipeline's
    // ordinary-file flag, or null for a class that takes nothing.
    struct Node {
        int index;
        const char* class_name;
        const char* argument;
        std::unique_ptr<Pipeline> (*create)();
    };

    // Which interpipesrc of the listener a link sets: its default source, or
    // the MP4 mux's audio source.
    enum class ListenerSource { kDefault, kMuxAudio };

    // `listener` listens to `producer`'s interpipesink.
    struct Link {
        int listener;
        int producer;
        ListenerSource source;
    };

    // The pipelines, in index order.
    static const std::array<Node, kPipelineCount>& Nodes();
    // The links made at start-up, in the order they are made.
    static const std::array<Link, kLinkCount>& Links();
    // The pipelines that take the selected input directly, in the order they
    // are pointed at it: the GPU first, then the MJPEG live stream.
    static const std::array<int, 2>& InputListeners();
    // The pipeline that produces input `input`: 1 NTSC camera, 2 PAL camera,
    // 3 TCP client, any other value the test input.
    static int InputIndex(int input);

    // A new, unlaunched pipeline object for `index`.
    static std::unique_ptr<Pipeline> Create(int index);
    // The name of the listener's interpipesrc that `link` sets; `listener` is
    // the pipeline at link.listener.
    static std::string ListenerSourceName(const Link& link, Pipeline& listener);
};

} // namespace VideoDaemon
