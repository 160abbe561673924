// The streamer's configuration from the settings daemon: the stored values at start-up and their changes
// while the daemon runs.
#include <algorithm>

#include "clients/settings_change.h"
#include "common/function_signature.h"
#include "log.h"
#include "overlay/overlay_model.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

namespace
{

using Settings = Settingsd::SettingsDaemonDbusHandler;
using Settingsd::ChangedValue;

// Reads `key` of `section` into `value`; a failed read keeps the default and
// is logged.
template <typename T> bool Fetch(const char* section, const char* key, T& value)
{
    if (Settings::GetSetting(section, key, value) >= 0)
        return true;
    Log::Warning("Failed to fetch %s setting", key);
    return false;
}

} // namespace

OrbStreamer::DebugMetrics OrbStreamer::ReadDebugMetrics()
{
    DebugMetrics metrics;
    Settings::GetSetting("development", "renderFramerate", metrics.fps_probes);
    Settings::GetSetting("development", "pipelineMetricsEnabled", metrics.queue_signals);
    return metrics;
}

void OrbStreamer::ConfigureFromSettings()
{
    Log::Info("------------------------------------");
    Log::Info(" Configure pipelines using settings ");
    Log::Info("------------------------------------");

    for (CaptureKind kind : { kVideoCapture, kAutoLogCapture }) {
        const char* section = kind == kVideoCapture ? "videoRecording" : "autologRecording";
        EncoderSettings& encoder = _EncoderSettings[kind == kVideoCapture ? 0 : 1];
        if (Fetch(section, "h264EncodingBitrate", encoder.bitrate))
            Encoder(kind).SetBitrate(encoder.bitrate);
        if (Fetch(section, "h264EncodingGop", encoder.gop))
            Encoder(kind).SetGopSize(encoder.gop);
        if (Fetch(section, "h264EncodingQuantization", encoder.quant))
            Encoder(kind).SetQuantParam(encoder.quant);
    }

    std::string deinterlace;
    if (Settings::GetSetting("video", "deinterlaceMethod", deinterlace) < 0)
        Log::Warning("Failed to fetch de-interlace setting");
    else
        ApplyDeinterlaceSetting(deinterlace);

    int override_angle = 0;
    if (Fetch("video", "rotationOverrideAngle", override_angle))
        _Rotation.SetOverrideAngle(override_angle);
    bool rotation_enabled = false;
    if (Fetch("video", "rotationEnabled", rotation_enabled))
        _Rotation.SetEnabled(rotation_enabled);
    int max_tilt = 0;
    if (Fetch("development", "maxTiltAngle", max_tilt))
        _Rotation.SetMaxTiltAngle(max_tilt);
    unsigned long long maximum_filesize = 0;
    if (Fetch("video", "maximumFilesize", maximum_filesize))
        _MaximumFilesize = maximum_filesize;
    if (Fetch("capture", "jpegImageQuality", _JpegImageQuality))
        PipelineAt<SnapshotPipeline>(kSnapshotIndex).SetJpegQuality(_JpegImageQuality);
    bool sharpen = false;
    if (Fetch("video", "sharpen", sharpen)) {
        Log::Info("Sharpen Image: %d", sharpen);
        Gpu().SetImageSharpen(sharpen);
    }
    double sharpen_amount = 0.0;
    if (Fetch("video", "sharpenAmount", sharpen_amount)) {
        Log::Info("Sharpen Image Amount: %f", sharpen_amount);
        Gpu().SetImageSharpenAmount(sharpen_amount);
    }

    std::string record_template;
    if (Settings::GetSetting("overlay", "recordTemplate", record_template) < 0)
        Log::Warning("Failed to fetch overlay record template file");
    else if (!_Overlay->SetRecordTemplate(record_template))
        Log::Error("Failed to set overlay record template %s", record_template.c_str());
    std::string display_template;
    if (Settings::GetSetting("overlay", "displayTemplate", display_template) < 0)
        Log::Warning("Failed to fetch overlay display template file");
    else if (!_Overlay->SetDisplayTemplate(display_template))
        Log::Error("Failed to set overlay display template %s", display_template.c_str());
    std::string mode;
    if (Fetch("overlay", "mode", mode) && !_Overlay->EnableOverlays(mode))
        Log::Warning("EnableOverlays failed");
    const std::pair<const char*, void (OverlayModel::*)(bool)> switches[] = {
        { "enableDate", &OverlayModel::SetDateEnabled },
        { "enableTime", &OverlayModel::SetTimeEnabled },
        { "enablePlumbline", &OverlayModel::SetPlumblineEnabled },
        { "enableCount", &OverlayModel::SetCountEnabled },
        { "enableUserText", &OverlayModel::SetUserTextEnabled },
    };
    for (const auto& [key, setter] : switches) {
        bool enabled = false;
        if (Fetch("overlay", key, enabled))
            ((*_Overlay).*setter)(enabled);
    }

    // The metrics switches take effect at construction; read for the log.
    bool render_framerate = false;
    Fetch("development", "renderFramerate", render_framerate);
    bool pipeline_metrics = false;
    Fetch("development", "pipelineMetricsEnabled", pipeline_metrics);
    uint32_t background_mode = 0;
    if (Fetch("video", "dslBackgroundMode", background_mode)) {
        Log::Info("DSL Background mode: %u", background_mode);
        Gpu().SetDslBackgroundMode(background_mode);
    }

    std::string date_format;
    if (Fetch("overlay", "overlayDateFormat", date_format))
        _Overlay->SetDateFormat(date_format);
    std::string decimal_mark;
    if (Fetch("overlay", "overlayReelCountDecimalMark", decimal_mark)) {
        _Overlay->SetReelCountDecimalMark(decimal_mark);
        _Reel.SetDecimalMark(decimal_mark);
    }
    const std::pair<const char*, void (OverlayModel::*)(uint32_t)> font_sizes[] = {
        { "userTextFontSize", &OverlayModel::SetUserTextFontSize },
        { "dateTimeFontSize", &OverlayModel::SetDateTimeFontSize },
        { "countFontSize", &OverlayModel::SetCountFontSize },
    };
    for (const auto& [key, setter] : font_sizes) {
        uint32_t size = 0;
        if (Fetch("overlay", key, size))
            ((*_Overlay).*setter)(size);
    }

    std::string units;
    if (Settings::GetSetting("reel", "distanceUnits", units) < 0)
        Log::Warning("%s: Something went bad, failed to fetch reel settings", VIDEOD_SIGNATURE);
    else
        _Reel.SetDistanceUnits(units);
    TypedPropertyMap reel;
    if (Helmd::HelmDaemonDbusHandler::GetReelProperties(reel) < 0)
        Log::Warning("%s: Something went bad, failed to fetch reel properties", VIDEOD_SIGNATURE);
    else
        _Reel.OnReelProperties(reel);

    bool tiling = false;
    if (Fetch("motionDetection", "dynamicTilingEnabled", tiling))
        _Motion.SetDynamicTiling(tiling);
    uint32_t detection_period = 0;
    if (Fetch("motionDetection", "detectionPeriod", detection_period))
        _Motion.SetDetectionPeriod(detection_period);

    if (!_Settings) {
        Log::Error("%s: Strange, SettingsDaemon should not be null", VIDEOD_SIGNATURE);
    } else {
        bool mic_enabled = true;
        if (Settings::GetSetting("audio", "micEnabled", mic_enabled) < 0) {
            Log::Error("%s: Failed to get default Mic setting", VIDEOD_SIGNATURE);
        } else {
            Log::Info("%s: Got default Mic state: %d", VIDEOD_SIGNATURE, mic_enabled);
            SetSystemMicMute(!mic_enabled);
        }
    }

    ConfigureZoom();
    ConfigureRotation();

    if (_Settings) {
        _Settings->_ReelSettingsChanged.connect(sigc::mem_fun(_Reel, &ReelHandler::OnSettingsChanged));
        _Settings->_OverlaySettingsChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::OverlaySettingsChangedHandler));
        _Settings->_VideoSettingsChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::VideoSettingsChangedHandler));
        _Settings->_VideoRecordingSettingsChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::VideoRecordSettingsChangedHandler));
        _Settings->_AutologRecordingSettingsChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::AutologRecordSettingsChangedHandler));
        _Settings->_DevelopmentSettingsChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::DevelopmentSettingsChangedHandler));
        _Settings->_CaptureSettingsChanged.connect(
            sigc::mem_fun(*this, &OrbStreamer::CaptureSettingsChangedHandler));
    }
    Log::Info("Configure pipeline done");
}

void OrbStreamer::ApplyDeinterlaceSetting(const std::string& method)
{
    if (method != "low-motion" && method != "medium-motion" && method != "high-motion") {
        Log::Warning("Invalid de-interlace method in the settings");
        return;
    }
    if (!_InputSelected) {
        // Kept for the camera's launch.
        _DeinterlaceMethod = method;
        Log::Error("Valid deinterlace method, _Input is not set yet. Not setting Deinterlace Method");
        return;
    }
    SetDeinterlaceMethod(method);
}

void OrbStreamer::ConfigureZoom()
{
    const std::pair<const char*, const char*> sets[] = {
        { "zoomLevelsDsl", "Applying DSL zoom settings" },
        { "zoomLevelsNonDsl", "Applying non-DSL zoom settings" },
    };
    for (const auto& [key, line] : sets) {
        std::vector<float> levels;
        if (!Fetch("video", key, levels))
            continue;
        Log::Info("%s", line);
        ApplyZoomLevels(key, levels);
    }
    uint32_t max_zoom_in = 0;
    if (Fetch("video", "dslMaxZoomIn", max_zoom_in))
        Gpu().SetDslMaxZoomIn(max_zoom_in);
    uint32_t period = 0;
    if (Fetch("video", "dslZoomPeriod", period))
        Gpu().SetDslZoomPeriod(period);
    uint32_t delay = 0;
    if (Fetch("video", "dslZoomDelay", delay))
        Gpu().SetDslZoomDelay(delay);
    float hysteresis = 0.0f;
    if (Settings::GetSetting("video", "dslHysteresis", hysteresis) < 0)
        Log::Warning("Failed to get hysteresis value for %s", "dslHysteresis");
    else
        Gpu().SetDslHysteresis(static_cast<uint32_t>(hysteresis));
    bool auto_zoom_override = false;
    if (Fetch("video", "dslAutoZoomOverride", auto_zoom_override)) {
        Gpu().SetDslAutoZoomOverride(auto_zoom_override);
        // The override lasts one session.
        if (Settings::SetSetting("video", "dslAutoZoomOverride", false) < 0)
            Log::Warning("Failed to reset overrideDsl %s", "dslAutoZoomOverride");
    }
}

void OrbStreamer::ApplyZoomLevels(const std::string& key, const std::vector<float>& levels)
{
    // The DSL set applies while levelling is on, the other one while it is
    // off.
    const bool dsl = key == "zoomLevelsDsl";
    _ZoomLevels[dsl ? 0 : 1] = levels;
    if (dsl == _Rotation.GetEnabled())
        Gpu().SetZoomLevels(levels);
}

void OrbStreamer::ConfigureRotation()
{
    std::string steps = "180";
    if (Fetch("video", "rotationSteps", steps) && _Rotation.SetSteps(steps))
        Log::Info("Rotation steps: %s", steps.c_str());
    else
        _Rotation.SetSteps("180");
    int threshold = 0;
    if (Fetch("video", "rotationThreshold", threshold)) {
        Log::Info("Rotation threshold: %d", threshold);
        _Rotation.SetThreshold(static_cast<uint32_t>(std::max(threshold, 0)));
    }
    int frames = 0;
    if (Fetch("video", "rotationAfterNumFrames", frames)) {
        Log::Info("Rotation num frames: %d", frames);
        _Rotation.SetNumFrames(static_cast<uint32_t>(std::max(frames, 0)));
    }
    std::string coeffs = "1 1";
    if (!Fetch("video", "rollFilterCoeffs", coeffs))
        coeffs = "1 1";
    Log::Info("Roll filter weights: %s", coeffs.c_str());
    _Rotation.SetRollFilterCoeffs(coeffs);
    uint32_t duration = 0;
    if (Fetch("video", "dslAnimationDuration", duration)) {
        Log::Info("Rotation animation duration: %u", duration);
        _Rotation.SetAnimationDuration(duration);
    }
}

void OrbStreamer::DevelopmentSettingsChangedHandler(const TypedPropertyMap& changed)
{
    int max_tilt = 0;
    if (ChangedValue(changed, "maxTiltAngle", max_tilt))
        _Rotation.SetMaxTiltAngle(max_tilt);
}

void OrbStreamer::VideoRecordSettingsChangedHandler(const TypedPropertyMap& changed)
{
    EncoderSettingsChanged(kVideoCapture, changed);
}

void OrbStreamer::AutologRecordSettingsChangedHandler(const TypedPropertyMap& changed)
{
    EncoderSettingsChanged(kAutoLogCapture, changed);
}

void OrbStreamer::EncoderSettingsChanged(CaptureKind kind, const TypedPropertyMap& changed)
{
    EncoderSettings& encoder = _EncoderSettings[kind == kVideoCapture ? 0 : 1];
    if (ChangedValue(changed, "h264EncodingGop", encoder.gop))
        Encoder(kind).SetGopSize(encoder.gop);
    if (ChangedValue(changed, "h264EncodingBitrate", encoder.bitrate))
        Encoder(kind).SetBitrate(encoder.bitrate);
    if (ChangedValue(changed, "h264EncodingQuantization", encoder.quant))
        Encoder(kind).SetQuantParam(encoder.quant);
}

void OrbStreamer::CaptureSettingsChangedHandler(const TypedPropertyMap& changed)
{
    if (ChangedValue(changed, "jpegImageQuality", _JpegImageQuality))
        PipelineAt<SnapshotPipeline>(kSnapshotIndex).SetJpegQuality(_JpegImageQuality);
}

void OrbStreamer::OverlaySettingsChangedHandler(const TypedPropertyMap& changed)
{
    std::string text;
    bool enabled = false;
    uint32_t size = 0;
    if (ChangedValue(changed, "recordTemplate", text) && !_Overlay->SetRecordTemplate(text))
        Log::Error("%s: Failed to set overlay record template to: %s", VIDEOD_SIGNATURE, text.c_str());
    if (ChangedValue(changed, "enableDate", enabled))
        _Overlay->SetDateEnabled(enabled);
    if (ChangedValue(changed, "enableTime", enabled))
        _Overlay->SetTimeEnabled(enabled);
    if (ChangedValue(changed, "displayTemplate", text) && !_Overlay->SetDisplayTemplate(text))
        Log::Error("%s: Failed to set overlay display template to: %s", VIDEOD_SIGNATURE, text.c_str());
    if (ChangedValue(changed, "mode", text) && !_Overlay->EnableOverlays(text))
        Log::Warning("EnableOverlays failed");
    if (ChangedValue(changed, "enablePlumbline", enabled))
        _Overlay->SetPlumblineEnabled(enabled);
    if (ChangedValue(changed, "enableCount", enabled))
        _Overlay->SetCountEnabled(enabled);
    if (ChangedValue(changed, "enableUserText", enabled))
        _Overlay->SetUserTextEnabled(enabled);
    if (ChangedValue(changed, "overlayTimeFormat", text))
        _Overlay->SetTimeFormat(text);
    if (ChangedValue(changed, "overlayDateFormat", text))
        _Overlay->SetDateFormat(text);
    if (ChangedValue(changed, "overlayReelCountDecimalMark", text)) {
        _Overlay->SetReelCountDecimalMark(text);
        _Reel.SetDecimalMark(text);
    }
    if (ChangedValue(changed, "userTextFontSize", size))
        _Overlay->SetUserTextFontSize(size);
    if (ChangedValue(changed, "dateTimeFontSize", size))
        _Overlay->SetDateTimeFontSize(size);
    if (ChangedValue(changed, "countFontSize", size))
        _Overlay->SetCountFontSize(size);
}

void OrbStreamer::VideoSettingsChangedHandler(const TypedPropertyMap& changed)
{
    std::string text;
    int angle = 0;
    bool flag = false;
    uint32_t number = 0;
    double amount = 0.0;
    if (ChangedValue(changed, "deinterlaceMethod", text))
        ApplyDeinterlaceSetting(text);
    if (ChangedValue(changed, "rotationOverrideAngle", angle))
        _Rotation.SetOverrideAngle(angle);
    if (ChangedValue(changed, "rotationEnabled", flag)) {
        _Rotation.SetEnabled(flag);
        // The zoom set follows the levelling.
        const std::vector<float>& levels = _ZoomLevels[flag ? 0 : 1];
        if (levels.size() == 3)
            Gpu().SetZoomLevels(levels);
    }
    for (const char* key : { "zoomLevelsDsl", "zoomLevelsNonDsl" }) {
        std::vector<double> levels;
        if (!ChangedValue(changed, key, levels))
            continue;
        if (levels.size() != 3) {
            Log::Warning("DSL zoom settings should be [default, min, max], but array length is %d",
                static_cast<int>(levels.size()));
            continue;
        }
        const std::vector<float> set(levels.begin(), levels.end());
        Log::Info("Zoom set changed: %s", key);
        Log::Info("Values: %f %f %f", levels[0], levels[1], levels[2]);
        ApplyZoomLevels(key, set);
    }
    if (ChangedValue(changed, "rotationSteps", text)) {
        Log::Info("Rotation steps changed: %s", text.c_str());
        _Rotation.SetSteps(text);
    }
    if (ChangedValue(changed, "rotationThreshold", angle)) {
        Log::Info("Rotation threshold: %d", angle);
        _Rotation.SetThreshold(static_cast<uint32_t>(std::max(angle, 0)));
    }
    if (ChangedValue(changed, "rotationAfterNumFrames", angle)) {
        Log::Info("Rotation num frames: %d", angle);
        _Rotation.SetNumFrames(static_cast<uint32_t>(std::max(angle, 0)));
    }
    if (ChangedValue(changed, "dslAnimationDuration", number)) {
        Log::Info("Rotation animation duration: %u", number);
        _Rotation.SetAnimationDuration(number);
    }
    if (ChangedValue(changed, "rollFilterCoeffs", text)) {
        Log::Info("Roll filter coefficients changed: %s", text.c_str());
        _Rotation.SetRollFilterCoeffs(text);
    }
    uint64_t maximum = 0;
    if (ChangedValue(changed, "maximumFilesize", maximum))
        _MaximumFilesize = maximum;
    if (ChangedValue(changed, "dslBackgroundMode", number)) {
        Log::Info("DSL background mode changed to: %u", number);
        Gpu().SetDslBackgroundMode(number);
    }
    if (ChangedValue(changed, "sharpen", flag)) {
        Log::Info("Image sharpening changed to: %d", flag);
        Gpu().SetImageSharpen(flag);
    }
    if (ChangedValue(changed, "sharpenAmount", amount)) {
        Log::Info("Image sharpening amount changed to: %f", amount);
        Gpu().SetImageSharpenAmount(amount);
    }
    if (ChangedValue(changed, "dslMaxZoomIn", number))
        Gpu().SetDslMaxZoomIn(number);
    if (ChangedValue(changed, "dslZoomPeriod", number))
        Gpu().SetDslZoomPeriod(number);
    if (ChangedValue(changed, "dslZoomDelay", number))
        Gpu().SetDslZoomDelay(number);
    if (ChangedValue(changed, "dslHysteresis", amount))
        Gpu().SetDslHysteresis(static_cast<uint32_t>(amount));
    if (ChangedValue(changed, "dslAutoZoomOverride", flag))
        Gpu().SetDslAutoZoomOverride(flag);
}

} // namespace VideoDaemon
