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
#include <utility>
#include <vector>

#include "clients/camera_daemon_object.h"
#include "clients/dbus_listener.h"
#include "clients/helm_daemon_dbus_handler.h"
#include "clients/settings_daemon_dbus_handler.h"
#include "common/glib_ptr.h"
#include "pipelines/pipeline.h"
#include "pipelines/playback_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "streamers/motion_handler.h"
#include "streamers/orb_state.h"
#include "streamers/pipeline_graph.h"
#include "streamers/reel_handler.h"
#include "streamers/rotation_handler.h"
#include "streamers/streamer.h"

namespace VideoDaemon
{

class GpuPipeline;
class H264EncodePipeline;
class OverlayModel;

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

    // The three capture kinds, each with its own muxer, state entry and
    // storage write type.
    enum CaptureKind : int { kVideoCapture = 0, kSnapVoiceCapture = 1, kAutoLogCapture = 2 };

    // Where the analogue video decoder reports the standard it detected.
    static constexpr const char* kCameraStandardPath = "/sys/bus/i2c/devices/2-005c/standard";
    // Reported growth steps, and the margin before the size limit that
    // counts as near it (2100 KiB).
    static constexpr uint64_t kGrowthStep = 1048576;
    static constexpr uint64_t kNearLimitMargin = 2150400;
    // The live stream server's address.
    static constexpr const char* kLiveStreamHost = "0.0.0.0";
    static constexpr int kLiveStreamPort = 4000;
    // Pictures kept for each live stream client (two seconds): a client
    // that stops reading must not hold the daemon's memory.
    static constexpr int kLiveStreamQueueSize = 60;

    OrbStreamer();
    // `settings` is the settings client whose section signals the streamer
    // follows; without one the built-in defaults stay.
    explicit OrbStreamer(DebugMetrics metrics, std::string camera_standard_path = kCameraStandardPath,
        std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> settings = nullptr);
    ~OrbStreamer() override;

    // Initialises the pipelines, connects to the peer daemons, selects the
    // input and starts the graph and the live stream server; the result of
    // StartInputs.
    int Start() override;

    // Creates the pipelines in index order, binds their error slots,
    // initialises all but the camera inputs and the input mux, and makes the
    // fixed links.
    void InitializePipelines();
    // The development settings' metrics switches ("renderFramerate" for the
    // frame-rate probes, "pipelineMetricsEnabled" for the queue
    // notifications); off when unreadable.
    static DebugMetrics ReadDebugMetrics();
    // Connects to the system controller and marks the storage devices'
    // capture writes inactive.
    void ConnectToPeers();
    // Applies the stored configuration to the pipelines and handlers, then
    // follows its changes.
    void ConfigureFromSettings();
    // The settings sections' change handlers.
    void DevelopmentSettingsChangedHandler(const TypedPropertyMap& changed);
    void VideoRecordSettingsChangedHandler(const TypedPropertyMap& changed);
    void AutologRecordSettingsChangedHandler(const TypedPropertyMap& changed);
    void CaptureSettingsChangedHandler(const TypedPropertyMap& changed);
    void OverlaySettingsChangedHandler(const TypedPropertyMap& changed);
    void VideoSettingsChangedHandler(const TypedPropertyMap& changed);
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

    // Inputs.
    // Detects the standard, selects the input, starts the video pipelines
    // and the live stream server; the results OR-ed.
    int StartInputs();
    // Tears the other inputs down and launches and links `input`; 0.
    int SetInput(int input);
    // 1 NTSC, 2 PAL, 0 no camera picture or an unknown standard.
    int GetCameraStandard();
    int GetInput() const { return _Input; }
    int StartTcpClient();
    int StopTcpClient();
    int RestartTcpClient();
    void ShowTcpStream();
    void ShowBlankFrame();
    // The unit changed between its own camera and a remote unit's picture.
    void SwitchLocalRemote(bool remote);
    // The system controller's video status changed.
    void OnVideoStatusChanged(int32_t status);
    // The camera daemon's active camera changed; negative for none.
    void ReconnectActiveCamera(int32_t index);
    // The remote unit the TCP client connects to on its next start, and
    // the address of its bus.
    void SetRemote(const std::string& host, int port, const std::string& dbus_address = "");
    void GetRemote(std::string& host, int& port, std::string& dbus_address) const;
    // Live picture (true) or the static image (false) on the live stream.
    void SetTcpLiveStreamEnabled(bool on);
    bool GetTcpLiveStreamEnabled();

    // Captures: 0 on success, negative on failure.
    int StartRecording(const std::string& videoPath, const std::string& recoveryPath,
        const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality);
    int StartSnapVoice(const std::string& snapvoicePath, const std::string& recoveryPath,
        const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality);
    int StartAutoLog(const std::string& videoPath, const std::string& recoveryPath,
        const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality);
    int StopRecording();
    int StopSnapVoice();
    int StopAutoLog();
    int PauseRecording();
    int PauseSnapVoice();
    int PauseAutoLog();
    int ResumeRecording();
    int ResumeSnapVoice();
    int ResumeAutoLog();
    // Run when a muxer has finished its file after a stop.
    void HandleRecordingEos();
    void HandleSnapvoiceEos();
    void HandleAutologEos();
    // A still picture ("Snapshot") or a capture's thumbnail at `path`; 0
    // when requested, -1 when refused. `callback` gets the outcome.
    int Snapshot(const std::string& name, const std::string& path, uint32_t width, uint32_t height,
        uint32_t quality, SnapshotPipeline::completion_callback_t callback);
    // The file a kind is writing, the one it wrote last and its moov
    // recovery file.
    std::string GetCaptureFile(CaptureKind kind) const;
    std::string GetPreviousCaptureFile(CaptureKind kind) const;
    std::string GetCaptureRecoveryFile(CaptureKind kind) const;

    // Playback.
    int StartPlayback(const std::string& filename, double rate);
    int StopPlayback(bool exit);
    int PausePlayback();
    int ResumePlayback();
    int SeekPlayback(int32_t offsetMs);
    // The playback pipeline's last report; -1 without a playback pipeline.
    int GetPlaybackProgress(
        bool& active, bool& eos, bool& error, double& rate, int64_t& position, int64_t& duration);

    // Storage watch.
    // One pass over the three kinds' files, reporting growth.
    void PeriodicFileWatcher();
    void SetMaximumFilesize(uint64_t bytes) { _MaximumFilesize = bytes; }
    uint64_t GetMaximumFilesize() const { return _MaximumFilesize; }
    // Marks every kind's writes inactive on every mounted storage device.
    void RegisterStorageWritesInactive();
    MotionHandler& Motion() { return _Motion; }

    // What the D-Bus service reads and sets besides the operations above.
    // The capture kind words ("video", "snapVoice", "autolog") in `state`:
    // 1 active, 2 paused, 0 inactive (failed ones included).
    bool GetCaptureList(int state, std::vector<std::string>& kinds);
    std::string GetPlaybackFilename() const;
    // A negative result when there is no playback to change.
    int SetPlaybackRate(double rate);
    double GetPlaybackRate() const;
    int SetSystemMicMute(bool mute);
    bool GetSystemMicMute() const;
    void SetStreamJpegQuality(int quality);
    int GetStreamJpegQuality() const;
    void SetStreamTcpQueueSize(int size);
    int GetStreamTcpQueueSize() const;
    // "low-motion", "medium-motion" or "high-motion", applied to the NTSC
    // camera whenever it runs; -1 for another name.
    int SetDeinterlaceMethod(const std::string& method);
    const std::string& GetDeinterlaceMethod() const { return _DeinterlaceMethod; }
    // Restarts the capture chain on the current input (with `redetect`, on
    // the input the standard selects); stops every pipeline.
    int StartCapture(bool redetect);
    void StopCapture();
    // The capture kind's H.264 encoder (SnapVoice shares the recording's).
    H264EncodePipeline& Encoder(CaptureKind kind) const;
    GpuPipeline& Gpu() const;
    RotationHandler& Rotation() { return _Rotation; }
    OverlayModel& Overlay() { return *_Overlay; }
    ReelHandler& Reel() { return _Reel; }
    // The active camera head's features (none before one is connected).
    struct CameraFeatures {
        bool hdr = false;
        bool awb = false;
        bool plumbline = false;
        bool microphone = false;
        bool tiling = false;
        bool auto_rotate = false;
        bool msl = false;
        bool dsl = false;
    };
    const CameraFeatures& GetCameraFeatures() const { return _CameraFeatures; }

    OrbState& State() { return _State; }
    // The pipeline at `index` (PipelineIndex); null before InitializePipelines.
    Pipeline* GetPipeline(int index) const;

private:
public:
    struct CaptureRules;

private:
    int StartLiveStreamServer();
    static gboolean OnVideoStatusTimer(gpointer user_data);
    // The system controller's remote credentials changed.
    void OnControllerProperties(const TypedPropertyMap& changed);
    void LogCameraFeatures();
    // The connection check; false once the client is connected.
    bool OnTcpConnectionCheck();
    static gboolean OnTcpConnectionTimer(gpointer user_data);
    int StartCapture(const CaptureRules& rules, const std::string& path, const std::string& recoveryPath,
        const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality);
    int StopCapture(const CaptureRules& rules, FunctionSignature caller);
    int PauseCapture(const CaptureRules& rules, FunctionSignature caller);
    int ResumeCapture(const CaptureRules& rules, FunctionSignature caller);
    void StartCapturePipelines(
        const CaptureRules& rules, const std::string& path, const std::string& recoveryPath);
    void StopCapturePipelines(const CaptureRules& rules);
    void ResumeCapturePipelines(const CaptureRules& rules);
    // Ends what a paused or failed capture left running before it starts
    // again.
    void FinishInterruptedCapture(const CaptureRules& rules);
    void HandleEos(const CaptureRules& rules);
    void OnSnapVoiceThumbnail();
    // Whether capture `kind` is active (state 1): only an active capture
    // keeps the shared encoder valve and the AAC encoder in use.
    bool IsCaptureActive(CaptureKind kind);
    // Tells the storage daemon whether the device holding `file` is being
    // written with `type`.
    static void SetStorageWriteActive(const std::string& file, uint8_t type, bool active);
    void OnPlaybackProgress(bool error, bool eos, double rate, int64_t position, int64_t duration);
    // Points the overlay model at the two overlay pipelines.
    void BindOverlayModel();
    void ApplyDeinterlaceSetting(const std::string& method);
    void ConfigureZoom();
    void ConfigureRotation();
    // Keeps the zoom set of `key` and applies it when the levelling it
    // belongs to is in use.
    void ApplyZoomLevels(const std::string& key, const std::vector<float>& levels);
    void EncoderSettingsChanged(CaptureKind kind, const TypedPropertyMap& changed);
    // (Re)arms the periodic timer on the motion handler's interval.
    void ArmPeriodicTimer();
    static gboolean OnPeriodicTimer(gpointer user_data);
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

    const std::string _CameraStandardPath;
    std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> _Settings;
    // The selected input, as the switching logic reads it.
    int _Input = 0;
    std::string _RemoteHost;
    // The remote unit's live stream server.
    int _RemotePort = kLiveStreamPort;
    std::string _RemoteDbusAddress;
    std::string _DeinterlaceMethod = "high-motion";
    bool _LiveStreamAddressSet = false;
    int _LiveStreamQueueSize = kLiveStreamQueueSize;
    bool _InputSelected = false;
    CameraFeatures _CameraFeatures;
    // The recording and autolog encoders' stored settings.
    struct EncoderSettings {
        uint32_t bitrate = 0;
        uint32_t gop = 16;
        uint32_t quant = 24;
    };
    std::array<EncoderSettings, 2> _EncoderSettings;
    uint32_t _JpegImageQuality = 85;
    // The DSL and non-DSL zoom sets, [default, min, max].
    std::array<std::vector<float>, 2> _ZoomLevels;
    std::unique_ptr<OverlayModel> _Overlay;
    RotationHandler _Rotation;
    ReelHandler _Reel;
    // Runs the TCP client's connection check until it is connected.
    GSourcePtr _TcpConnectionCheck;
    // The system controller; none until the streamer connects to the peers.
    std::unique_ptr<Helmd::HelmDaemonDbusHandler> _Helm;
    // The camera daemon, on the system controller's connection.
    std::unique_ptr<Camerad::CameraDaemonObject> _Cameras;
    // The camera's motion samples, from this unit or the remote one.
    VideoDaemon::DbusListener _MotionListener;
    // Re-detects the input after the camera's picture came back.
    GSourcePtr _VideoStatusTimer;

    // The last reported file size per capture kind.
    std::array<uint64_t, 3> _ReportedSize {};
    // FAT's largest file.
    uint64_t _MaximumFilesize = 4294967295ull;
    MotionHandler _Motion;
    GSourcePtr _PeriodicTimer;
};

template <typename T> T& OrbStreamer::PipelineAt(int index) const
{
    // The graph's table fixes the class at each index.
    return static_cast<T&>(*_Pipelines.at(static_cast<size_t>(index)));
}

} // namespace VideoDaemon
