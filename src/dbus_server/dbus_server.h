// The daemon's own D-Bus service "com.tarnwell.common.Video1": owns the bus connection, the settings client,
// the capture image backend and the streamer, and publishes them as one object with one interface.
#pragma once

#include <glib.h>
#include <sigc++/sigc++.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/main_loop_handoff.h"
#include "dbus-helper/bus_event_source.h"
#include "dbus-helper/sd_bus_ptr.h"
#include "streamers/orb_streamer.h"

namespace Settingsd
{
class SettingsDaemonDbusHandler;
}

namespace VideoDaemon
{

class ImageCaptureSettingsV4L2Backend;

class DbusServer : public sigc::trackable
{
public:
    static constexpr const char* kBusName = "com.tarnwell.common.Video1";
    static constexpr const char* kObjectPath = "/com/tarnwell/common/Video1";
    static constexpr const char* kInterface = "com.tarnwell.common.Video1.Control";
    // Names per PropertiesChanged message.
    static constexpr size_t kPropertiesPerBatch = 32;
    // Start, 25 methods, 59 properties, 7 signals, end; the rest stays zero.
    static constexpr size_t kVtableSize = 96;

    // The fixed platform files the daemon reads; a PC run places them under
    // a directory of its own.
    struct PlatformPaths {
        std::string camera_standard = OrbStreamer::kCameraStandardPath;
        std::string video_device = "/dev/video0";
    };

    // The process-level requests the daemon entry answers: quit the loop,
    // and the text "Echo" replies with.
    sigc::signal<void> signal_exit;
    sigc::signal<std::string, std::string> signal_echo;

    // Opens the user bus and builds the settings client, the capture image
    // backend and the streamer. Without a bus nothing else is built and
    // Start fails.
    DbusServer(GMainLoop* loop, PlatformPaths paths);
    ~DbusServer();
    DbusServer(const DbusServer&) = delete;
    DbusServer& operator=(const DbusServer&) = delete;

    // Attaches the bus to the main loop, registers the object, takes the
    // name and schedules the streamer's start on the next turn of the loop.
    // 0, or -3 (event source), -4 (object), -5 (name).
    int Start();
    int InitializeEventSource();

    // Announces property changes at once, or on the next turn of the loop
    // (after the reply of the call being handled).
    int EmitPropertyChanged(const std::string& name, bool deferred);
    void EmitPropertiesChanged(const std::vector<std::string>& names, bool deferred);
    // Declared on the interface; nothing in the daemon sends it.
    int SendHeartBeat(int32_t value);

    // The interface as one table, in interface order.
    struct Member {
        enum Kind { kMethod, kProperty, kSignal };
        Kind kind;
        const char* name;
        // Input (methods), type (properties) or arguments (signals).
        const char* signature;
        const char* result;
        uint64_t flags;
        sd_bus_message_handler_t method;
        sd_bus_property_get_t get;
        sd_bus_property_set_t set;
    };
    static const std::vector<Member>& Members();
    const sd_bus_vtable* Vtable() const { return _Vtable.data(); }

private:
    using MethodHandler = int (DbusServer::*)(sd_bus_message* call, sd_bus_error* error);
    using PropertyGetter = int (DbusServer::*)(sd_bus_message* reply, sd_bus_error* error);
    using PropertySetter = int (DbusServer::*)(sd_bus_message* value, sd_bus_error* error);

    // Thin trampolines from sd-bus to the member handlers. Everything but
    // Exit and Echo needs the streamer's pipelines, which exist only once
    // the streamer has started.
    template <MethodHandler H> static int FrameMethod(sd_bus_message* call, void* self, sd_bus_error* error);
    template <MethodHandler H> static int Method(sd_bus_message* call, void* self, sd_bus_error* error);
    template <PropertyGetter G>
    static int Get(sd_bus* bus, const char* path, const char* interface, const char* property,
        sd_bus_message* reply, void* self, sd_bus_error* error);
    template <PropertySetter S>
    static int Set(sd_bus* bus, const char* path, const char* interface, const char* property,
        sd_bus_message* value, void* self, sd_bus_error* error);
    static Member MethodEntry(
        const char* name, const char* signature, const char* result, sd_bus_message_handler_t handler);
    static Member PropertyEntry(const char* name, const char* signature, uint64_t flags,
        sd_bus_property_get_t get, sd_bus_property_set_t set = nullptr);
    static Member SignalEntry(const char* name, const char* signature);
    // 0 once the streamer has started, else the failed call's error.
    int RequireStreamer(sd_bus_error* error) const;
    void BuildVtable();
    void ConnectStreamer();
    void StartStreamer();
    int EmitSignal(const char* member, const char* signature, ...);
    // Logs a failed argument read of `method` and passes the code on.
    static int ReadFailed(const char* method, int result);

    // Methods.
    int Exit(sd_bus_message* call, sd_bus_error* error);
    int Echo(sd_bus_message* call, sd_bus_error* error);
    int Snapshot(sd_bus_message* call, sd_bus_error* error);
    int StartRecording(sd_bus_message* call, sd_bus_error* error);
    int PauseRecording(sd_bus_message* call, sd_bus_error* error);
    int ResumeRecording(sd_bus_message* call, sd_bus_error* error);
    int StopRecording(sd_bus_message* call, sd_bus_error* error);
    int StartSnapVoice(sd_bus_message* call, sd_bus_error* error);
    int StopSnapVoice(sd_bus_message* call, sd_bus_error* error);
    int PauseSnapVoice(sd_bus_message* call, sd_bus_error* error);
    int ResumeSnapVoice(sd_bus_message* call, sd_bus_error* error);
    int SetMotionDetectionPeriod(sd_bus_message* call, sd_bus_error* error);
    int StartAutoLog(sd_bus_message* call, sd_bus_error* error);
    int StopAutoLog(sd_bus_message* call, sd_bus_error* error);
    int PauseAutoLog(sd_bus_message* call, sd_bus_error* error);
    int ResumeAutoLog(sd_bus_message* call, sd_bus_error* error);
    int StartPlayback(sd_bus_message* call, sd_bus_error* error);
    int StopPlayback(sd_bus_message* call, sd_bus_error* error);
    int PausePlayback(sd_bus_message* call, sd_bus_error* error);
    int ResumePlayback(sd_bus_message* call, sd_bus_error* error);
    int SeekPlayback(sd_bus_message* call, sd_bus_error* error);
    int GetPlaybackProgress(sd_bus_message* call, sd_bus_error* error);
    int StartCapture(sd_bus_message* call, sd_bus_error* error);
    int StopCapture(sd_bus_message* call, sd_bus_error* error);
    int CaptureResetToDefaults(sd_bus_message* call, sd_bus_error* error);
    // The three capture starts share their argument read and log line.
    using CaptureStart = int (OrbStreamer::*)(
        const std::string&, const std::string&, const std::string&, uint32_t, uint32_t, uint32_t);
    int StartCaptureKind(sd_bus_message* call, const char* method, const char* format, CaptureStart start);
    // A method without arguments that replies with the operation's "i".
    int ReplyResult(sd_bus_message* call, int result);

    // Property getters and setters.
    int GetCaptureActive(sd_bus_message* reply, sd_bus_error* error);
    int GetVideoInput(sd_bus_message* reply, sd_bus_error* error);
    int GetRecordingState(sd_bus_message* reply, sd_bus_error* error);
    int GetRecordingFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetPreviousRecordingFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetSnapVoiceState(sd_bus_message* reply, sd_bus_error* error);
    int GetSnapVoiceFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetPreviousSnapVoiceFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetAutoLogState(sd_bus_message* reply, sd_bus_error* error);
    int GetAutoLogFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetPreviousAutoLogFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetPlaybackState(sd_bus_message* reply, sd_bus_error* error);
    int GetPlaybackFilename(sd_bus_message* reply, sd_bus_error* error);
    int GetPlaybackDuration(sd_bus_message* reply, sd_bus_error* error);
    int GetPlaybackPosition(sd_bus_message* reply, sd_bus_error* error);
    int GetActiveCaptures(sd_bus_message* reply, sd_bus_error* error);
    int GetInactiveCaptures(sd_bus_message* reply, sd_bus_error* error);
    int GetPausedCaptures(sd_bus_message* reply, sd_bus_error* error);
    int GetDisplayContent(sd_bus_message* reply, sd_bus_error* error);
    int GetSystemMicMute(sd_bus_message* reply, sd_bus_error* error);
    int SetSystemMicMute(sd_bus_message* value, sd_bus_error* error);
    int GetStreamJpegQuality(sd_bus_message* reply, sd_bus_error* error);
    int SetStreamJpegQuality(sd_bus_message* value, sd_bus_error* error);
    int GetStreamTcpQueueSize(sd_bus_message* reply, sd_bus_error* error);
    int SetStreamTcpQueueSize(sd_bus_message* value, sd_bus_error* error);
    int GetPlaybackRate(sd_bus_message* reply, sd_bus_error* error);
    int SetPlaybackRate(sd_bus_message* value, sd_bus_error* error);
    int GetRemote(sd_bus_message* reply, sd_bus_error* error);
    int SetRemote(sd_bus_message* value, sd_bus_error* error);
    int GetOverlayUserText(sd_bus_message* reply, sd_bus_error* error);
    int SetOverlayUserText(sd_bus_message* value, sd_bus_error* error);
    int GetOverlayDateTimeStyle(sd_bus_message* reply, sd_bus_error* error);
    int SetOverlayDateTimeStyle(sd_bus_message* value, sd_bus_error* error);
    int GetOverlayCountStyle(sd_bus_message* reply, sd_bus_error* error);
    int SetOverlayCountStyle(sd_bus_message* value, sd_bus_error* error);
    int GetH264EncoderBitrate(sd_bus_message* reply, sd_bus_error* error);
    int SetH264EncoderBitrate(sd_bus_message* value, sd_bus_error* error);
    int GetH264EncoderGop(sd_bus_message* reply, sd_bus_error* error);
    int SetH264EncoderGop(sd_bus_message* value, sd_bus_error* error);
    int GetH264EncoderQuant(sd_bus_message* reply, sd_bus_error* error);
    int SetH264EncoderQuant(sd_bus_message* value, sd_bus_error* error);
    int GetAutoLogH264EncoderBitrate(sd_bus_message* reply, sd_bus_error* error);
    int SetAutoLogH264EncoderBitrate(sd_bus_message* value, sd_bus_error* error);
    int GetAutoLogH264EncoderGop(sd_bus_message* reply, sd_bus_error* error);
    int SetAutoLogH264EncoderGop(sd_bus_message* value, sd_bus_error* error);
    int GetAutoLogH264EncoderQuant(sd_bus_message* reply, sd_bus_error* error);
    int SetAutoLogH264EncoderQuant(sd_bus_message* value, sd_bus_error* error);
    int GetDeinterlaceMethod(sd_bus_message* reply, sd_bus_error* error);
    int SetDeinterlaceMethod(sd_bus_message* value, sd_bus_error* error);
    int GetTcpLiveStreamEnabled(sd_bus_message* reply, sd_bus_error* error);
    int SetTcpLiveStreamEnabled(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureZoom(sd_bus_message* reply, sd_bus_error* error);
    int SetCaptureZoom(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureZoomMin(sd_bus_message* reply, sd_bus_error* error);
    int GetCaptureZoomMax(sd_bus_message* reply, sd_bus_error* error);
    int GetCapturePanX(sd_bus_message* reply, sd_bus_error* error);
    int SetCapturePanX(sd_bus_message* value, sd_bus_error* error);
    int GetCapturePanXMin(sd_bus_message* reply, sd_bus_error* error);
    int GetCapturePanXMax(sd_bus_message* reply, sd_bus_error* error);
    int GetCapturePanY(sd_bus_message* reply, sd_bus_error* error);
    int SetCapturePanY(sd_bus_message* value, sd_bus_error* error);
    int GetCapturePanYMin(sd_bus_message* reply, sd_bus_error* error);
    int GetCapturePanYMax(sd_bus_message* reply, sd_bus_error* error);
    int GetPlumblineCapable(sd_bus_message* reply, sd_bus_error* error);
    int GetAutoRotateCapable(sd_bus_message* reply, sd_bus_error* error);
    int GetCameraRollAngle(sd_bus_message* reply, sd_bus_error* error);
    int GetCameraRollAngleRaw(sd_bus_message* reply, sd_bus_error* error);
    int GetCameraPitch(sd_bus_message* reply, sd_bus_error* error);
    int GetCameraPitchAngle(sd_bus_message* reply, sd_bus_error* error);
    int GetRotationAngle(sd_bus_message* reply, sd_bus_error* error);
    int GetRotationOverrideAngle(sd_bus_message* reply, sd_bus_error* error);
    int SetRotationOverrideAngle(sd_bus_message* value, sd_bus_error* error);
    int GetRotationEnabled(sd_bus_message* reply, sd_bus_error* error);
    int SetRotationEnabled(sd_bus_message* value, sd_bus_error* error);
    int GetRotationSteps(sd_bus_message* reply, sd_bus_error* error);
    int SetRotationSteps(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureAutogain(sd_bus_message* reply, sd_bus_error* error);
    int SetCaptureAutogain(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureBrightness(sd_bus_message* reply, sd_bus_error* error);
    int SetCaptureBrightness(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureContrast(sd_bus_message* reply, sd_bus_error* error);
    int SetCaptureContrast(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureHue(sd_bus_message* reply, sd_bus_error* error);
    int SetCaptureHue(sd_bus_message* value, sd_bus_error* error);
    int GetCaptureSaturation(sd_bus_message* reply, sd_bus_error* error);
    int SetCaptureSaturation(sd_bus_message* value, sd_bus_error* error);

    // Shared shapes of the property handlers.
    int GetState(sd_bus_message* reply, const char* entry);
    int GetCaptures(sd_bus_message* reply, sd_bus_error* error, int state, const char* what);
    using EncoderSetter = void (H264EncodePipeline::*)(unsigned);
    int SetEncoderValue(
        sd_bus_message* value, const char* setter, OrbStreamer::CaptureKind kind, EncoderSetter set);
    using GpuSetter = int (GpuPipeline::*)(double);
    int SetGpuValue(sd_bus_message* value, sd_bus_error* error, const char* setter, const char* property,
        const char* what, GpuSetter set);
    using ControlGetter = bool (ImageCaptureSettingsV4L2Backend::*)(int&);
    using ControlSetter = bool (ImageCaptureSettingsV4L2Backend::*)(int);
    int GetControl(sd_bus_message* reply, sd_bus_error* error, ControlGetter get);
    int SetControl(sd_bus_message* value, sd_bus_error* error, const char* setter, const char* property,
        ControlGetter get, ControlSetter set);
    // Overlay setters announce their property themselves, at once.
    void AnnounceOverlay(const char* setter, const char* property);

    const std::string _BusName = kBusName;
    const std::string _ObjectPath = kObjectPath;
    const std::string _Interface = kInterface;
    const PlatformPaths _Paths;
    GMainLoop* const _Loop;
    DbusHelper::SdBusPtr _Bus;
    std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> _Settings;
    std::unique_ptr<ImageCaptureSettingsV4L2Backend> _CaptureImage;
    std::shared_ptr<OrbStreamer> _Streamer;
    bool _StreamerStarted = false;
    const std::map<int, std::string> _DisplayContentNames = {
        { 0, "Live Feed" },
        { 1, "Media Playing" },
        { 2, "Media Last Frame" },
    };
    std::array<sd_bus_vtable, kVtableSize> _Vtable;
    DbusHelper::BusEventSource _EventSource;
    GSourcePtr _StreamerStart;
    // Deferred announcements, dropped with the server.
    MainLoopHandoff _Deferred;
};

} // namespace VideoDaemon
