// The daemon's orchestrator: owns the 21 media pipelines, links them into one graph and keeps the state
// table.
#pragma once

#include <gst/gst.h>
#include <sigc++/sigc++.h>

#include <array>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/glib_ptr.h"
#include "pipelines/pipeline.h"
#include "streamers/orb_state.h"
#include "streamers/pipeline_graph.h"
#include "streamers/streamer.h"

namespace VideoDaemon
{

class OrbStreamer : public Streamer, public sigc::trackable
{
public:
    // Pipeline metrics, switched on by the development settings; meant for
    // development systems only.
    struct DebugMetrics {
        // A frame-rate probe on every pipeline but the camera inputs and the
        // input mux, reported every second.
        bool fps_probes = false;
        // The pipelines' queue notifications, passed on.
        bool queue_signals = false;
    };

    // What the streamer reports upward, always on the main loop.
    // Property names to announce as changed, and whether the announcement
    // waits for the next turn of the loop.
    sigc::signal<void, std::vector<std::string>, bool> signal_properties_changed;
    sigc::signal<void, std::string, bool> signal_property_changed;
    // Error, end of stream, rate, position (ms), duration (ms).
    sigc::signal<void, bool, bool, double, int64_t, int64_t> signal_playback_progress;
    // The path of a finished still image.
    sigc::signal<void, std::string> signal_snapshot_created;
    // "VideoGrew", "SnapVoiceGrew" or "AutoLogGrew", the file, near the size limit.
    sigc::signal<void, std::string, std::string, bool> signal_file_grew;
    sigc::signal<void, int32_t, std::string> signal_motion_detected;
    // Debug metrics: frames per second of a probed pipeline (by name), and
    // the queue notifications (by queue name).
    sigc::signal<void, std::string, int32_t> signal_metrics_probe_fps;
    sigc::signal<void, std::string> signal_metrics_overrun;
    sigc::signal<void, std::string> signal_metrics_underrun;
    sigc::signal<void, std::string> signal_metrics_running;

    OrbStreamer();
    explicit OrbStreamer(DebugMetrics metrics);
    ~OrbStreamer() override;

    // Initialises the pipelines and starts the always-on part of the graph.
    int Start() override;

    // Creates the pipelines in index order, binds their error slots,
    // initialises all but the camera inputs and the input mux, and makes the
    // fixed links.
    void InitializePipelines();
    // Starts the always-on part of the graph; 0.
    int StartVideoPipelines();
    // Points the GPU and the MJPEG encoder at input `input` (0 test input,
    // 1 NTSC camera, 2 PAL camera, 3 TCP client).
    void ListenToInput(int input);
    // Brings every pipeline to NULL.
    void StopPipelines();
    // Marks the captures that pipeline `index` breaks as failed.
    void PipelineError(int index, std::string message);
    // Asks the display daemon to reapply its colour-space set-up; the call's
    // result.
    int DisplayDResetCscParams();

    OrbState& State() { return _State; }
    // The pipeline at `index` (PipelineIndex); null before InitializePipelines.
    Pipeline* GetPipeline(int index) const;

private:
    // Puts `pipeline` at `index`, its error slot bound with that index and
    // its queue notifications passed on when asked for; used at creation and
    // when the playback pipeline is rebuilt.
    void InstallPipeline(int index, std::unique_ptr<Pipeline> pipeline);
    template <typename T> T& PipelineAt(int index) const;
    Pipeline::LaunchFlags LaunchFlags() const;
    // Announces `names` as changed properties.
    void Announce(std::vector<std::string> names);
    void OnInputStateChanged(GstState old_state, GstState new_state);
    void ActivateFpsProbe(int index);
    static gboolean OnFpsTimer(gpointer user_data);

    // In index order (PipelineIndex); the array's order is the creation
    // order, the index an error slot carries and the order of the stop sweep.
    std::array<std::unique_ptr<Pipeline>, PipelineGraph::kPipelineCount> _Pipelines;
    OrbState _State;
    const DebugMetrics _Metrics;
    // Indexes whose frame rates the metrics report.
    std::set<int> _ProbedPipelines;
    GSourcePtr _FpsTimer;
};

template <typename T> T& OrbStreamer::PipelineAt(int index) const
{
    // The graph's table fixes the class at each index.
    return static_cast<T&>(*_Pipelines.at(static_cast<size_t>(index)));
}

} // namespace VideoDaemon
