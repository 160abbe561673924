// The streamer's captures: video recording, SnapVoice and autolog into MP4 files, their thumbnails and
// still pictures.
#include <array>

#include "clients/storage_daemon_dbus_handler.h"
#include "common/function_signature.h"
#include "log.h"
#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

// What tells the three capture kinds apart: their pipelines, their texts and
// which other kinds share their encoder and the AAC encoder.
struct OrbStreamer::CaptureRules {
    CaptureKind kind;
    const char* state;
    int muxer;
    int encoder;
    // The kind that shares the encoder and its valve, or -1 for an encoder
    // of its own.
    int valve_sharer;
    std::array<CaptureKind, 2> aac_sharers;
    uint8_t write_type;
    const char* thumbnail;
    const char* start_line;
    const char* already_active;
    const char* path_empty;
    const char* snapshot_path_empty;
    const char* snapshot_failed;
    const char* stop_line;
    const char* pause_line;
    const char* resume_line;
    // Logged when a paused capture is resumed to be stopped; null when it is
    // stopped as it stands.
    const char* resume_before_stop;
};

namespace
{

// The storage daemon's write types.
const uint8_t kVideoWrite = 4;
const uint8_t kSnapVoiceWrite = 3;
const uint8_t kAutoLogWrite = 2;

// How long a paused or failed capture that is started again may take to
// finish its file.
const unsigned kFinishWaitSeconds = 2;

const OrbStreamer::CaptureRules kVideoRules { OrbStreamer::kVideoCapture, "RecordingState", kMp4muxVideoIndex,
    kH264VideoIndex, OrbStreamer::kSnapVoiceCapture,
    { OrbStreamer::kAutoLogCapture, OrbStreamer::kSnapVoiceCapture }, kVideoWrite, "RecordThumbnail",
    "[Streamer] START recording", "OrbStreamer::StartRecording - Video recording already active",
    "OrbStreamer::StartRecording - Video path empty", "OrbStreamer::StartRecording - Snapshot path empty",
    "OrbStreamer::StartRecording - Snapshot failed", "[Streamer] STOP recording",
    "[Streamer] PAUSE recording", "[Streamer] RESUME recording", "Recording paused, resuming..." };

const OrbStreamer::CaptureRules kSnapVoiceRules { OrbStreamer::kSnapVoiceCapture, "SnapVoiceState",
    kSnapvoiceIndex, kH264VideoIndex, OrbStreamer::kVideoCapture,
    { OrbStreamer::kVideoCapture, OrbStreamer::kAutoLogCapture }, kSnapVoiceWrite, "SnapVoiceThumbnail",
    "[Streamer] START snapVoice", "OrbStreamer::StartSnapVoice - SnapVoice recording already active",
    "OrbStreamer::StartSnapVoice - Snapvoice path empty", "OrbStreamer::StartSnapVoice - Snapshot path empty",
    "OrbStreamer::StartSnapVoice - Snapshot failed", "[Streamer] STOP snapVoice",
    "[Streamer] PAUSE snapVoice", "[Streamer] RESUME snap-voice", nullptr };

const OrbStreamer::CaptureRules kAutoLogRules { OrbStreamer::kAutoLogCapture, "AutoLogState",
    kMp4muxAutologIndex, kH264AutologIndex, -1,
    { OrbStreamer::kVideoCapture, OrbStreamer::kSnapVoiceCapture }, kAutoLogWrite, "AutoLogThumbnail",
    "[Streamer] START autolog", "OrbStreamer::StartAutoLog - Autolog recording already active",
    "OrbStreamer::StartAutoLog - Autolog path empty", "OrbStreamer::StartAutoLog - Snapshot path empty",
    "OrbStreamer::StartAutoLog - Snapshot failed", "[Streamer] STOP autolog", "[Streamer] PAUSE autolog",
    "[Streamer] RESUME autolog", "Autolog paused, resuming..." };

const OrbStreamer::CaptureRules& RulesOf(OrbStreamer::CaptureKind kind)
{
    static const std::array<const OrbStreamer::CaptureRules*, 3> rules { &kVideoRules, &kSnapVoiceRules,
        &kAutoLogRules };
    return *rules.at(static_cast<size_t>(kind));
}

} // namespace

bool OrbStreamer::IsCaptureActive(CaptureKind kind)
{
    return _State.Get(RulesOf(kind).state) == 1;
}

void OrbStreamer::SetStorageWriteActive(const std::string& file, uint8_t type, bool active)
{
    // The client logs its own failures; a file on no known device is not
    // the storage daemon's business.
    std::string device;
    if (Storaged::StorageDaemonDbusHandler::GetStorageDeviceForFile(file, device) < 0)
        return;
    Storaged::StorageDaemonDbusHandler::SetWriteActive(device, type, active);
}

int OrbStreamer::Snapshot(const std::string& name, const std::string& path, uint32_t width, uint32_t height,
    uint32_t quality, SnapshotPipeline::completion_callback_t callback)
{
    // A plain still picture tells the storage daemon of its write itself; a
    // thumbnail's capture has already done so.
    const bool plain = name == "Snapshot";
    std::string error;
    const int result
        = PipelineAt<SnapshotPipeline>(kSnapshotIndex)
              .TakeSnapshotAsync(path, width, height, quality, plain, std::move(callback), error);
    // The pipeline refuses with -1 (invalid request) or -2 (busy).
    if (result < 0) {
        Log::Error("[Streamer] Snapshot error:%s", error.c_str());
        return -1;
    }
    return result;
}

int OrbStreamer::StartRecording(const std::string& videoPath, const std::string& recoveryPath,
    const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality)
{
    return StartCapture(kVideoRules, videoPath, recoveryPath, snapshotPath, width, height, quality);
}

int OrbStreamer::StartSnapVoice(const std::string& snapvoicePath, const std::string& recoveryPath,
    const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality)
{
    return StartCapture(kSnapVoiceRules, snapvoicePath, recoveryPath, snapshotPath, width, height, quality);
}

int OrbStreamer::StartAutoLog(const std::string& videoPath, const std::string& recoveryPath,
    const std::string& snapshotPath, uint32_t width, uint32_t height, uint32_t quality)
{
    return StartCapture(kAutoLogRules, videoPath, recoveryPath, snapshotPath, width, height, quality);
}

int OrbStreamer::StartCapture(const CaptureRules& rules, const std::string& path,
    const std::string& recoveryPath, const std::string& snapshotPath, uint32_t width, uint32_t height,
    uint32_t quality)
{
    Log::Info("%s", rules.start_line);
    // Only an active capture is refused: a paused or failed one starts
    // again.
    if (_State.Get(rules.state) == 1) {
        Log::Error("%s", rules.already_active);
        return -1;
    }
    if (path.empty()) {
        Log::Error("%s", rules.path_empty);
        return -2;
    }
    if (snapshotPath.empty()) {
        Log::Error("%s", rules.snapshot_path_empty);
        return -2;
    }

    SetStorageWriteActive(path, rules.write_type, true);
    SnapshotPipeline::completion_callback_t on_thumbnail;
    // SnapVoice turns active once its picture exists.
    if (rules.kind == kSnapVoiceCapture) {
        on_thumbnail = [this](int) { OnSnapVoiceThumbnail(); };
    }
    if (Snapshot(rules.thumbnail, snapshotPath, width, height, quality, std::move(on_thumbnail)) < 0) {
        Log::Error("%s", rules.snapshot_failed);
        SetStorageWriteActive(path, rules.write_type, false);
        return -3;
    }

    FinishInterruptedCapture(rules);
    StartCapturePipelines(rules, path, recoveryPath);
    if (rules.kind == kSnapVoiceCapture)
        return 0;
    _State.Set(rules.state, 1);
    Announce({ rules.state, "ActiveCaptures" });
    return 0;
}

void OrbStreamer::OnSnapVoiceThumbnail()
{
    // A SnapVoice stopped before its picture was written stays stopped.
    if (PipelineAt<Mp4muxPipeline>(kSnapvoiceIndex).GetLocation().empty())
        return;
    _State.Set("SnapVoiceState", 1);
    Announce({ "SnapVoiceState", "ActiveCaptures" });
}

void OrbStreamer::FinishInterruptedCapture(const CaptureRules& rules)
{
    auto& muxer = PipelineAt<Mp4muxPipeline>(rules.muxer);
    if (muxer.GetState() == GST_STATE_NULL)
        return;
    // A paused file is finished before the new one starts; a failed one is
    // killed, as its stop would.
    const bool finish = _State.Get(rules.state) == 2;
    if (finish)
        ResumeCapturePipelines(rules);
    muxer.CloseRecord(finish);
    if (finish)
        muxer.WaitForEos(kFinishWaitSeconds);
    HandleEos(rules);
}

void OrbStreamer::StartCapturePipelines(
    const CaptureRules& rules, const std::string& path, const std::string& recoveryPath)
{
    auto& muxer = PipelineAt<Mp4muxPipeline>(rules.muxer);
    auto& encoder = PipelineAt<H264EncodePipeline>(rules.encoder);
    _ReportedSize[rules.kind] = 0;
    if (!recoveryPath.empty())
        muxer.SetMoovRecoveryFile(recoveryPath);
    muxer.OpenRecord(path);
    if (rules.valve_sharer < 0)
        encoder.SetState(GST_STATE_PLAYING, 0);
    if (rules.valve_sharer < 0 || !IsCaptureActive(static_cast<CaptureKind>(rules.valve_sharer)))
        encoder.SetValve(false);
    if (!IsCaptureActive(rules.aac_sharers[0]) && !IsCaptureActive(rules.aac_sharers[1]))
        _Pipelines[kAacEncodeIndex]->SetState(GST_STATE_PLAYING, 0);
    muxer.SetState(GST_STATE_PLAYING, 0);
    muxer.SetDropIDR(false);
}

int OrbStreamer::StopRecording()
{
    return StopCapture(kVideoRules, VIDEOD_FUNCTION);
}

int OrbStreamer::StopSnapVoice()
{
    return StopCapture(kSnapVoiceRules, VIDEOD_FUNCTION);
}

int OrbStreamer::StopAutoLog()
{
    return StopCapture(kAutoLogRules, VIDEOD_FUNCTION);
}

int OrbStreamer::StopCapture(const CaptureRules& rules, FunctionSignature caller)
{
    Log::Info("%s", rules.stop_line);
    if (_State.Get(rules.state) == 0) {
        if (rules.kind == kAutoLogCapture)
            Log::Info("%s: not recording", caller.Text().c_str());
        return 0;
    }
    StopCapturePipelines(rules);
    _State.Set(rules.state, 0);
    Announce({ rules.state, "InactiveCaptures" });
    return 0;
}

void OrbStreamer::StopCapturePipelines(const CaptureRules& rules)
{
    auto& muxer = PipelineAt<Mp4muxPipeline>(rules.muxer);
    const int state = _State.Get(rules.state);
    if (state == 2 && rules.resume_before_stop) {
        Log::Info("%s", rules.resume_before_stop);
        ResumeCapturePipelines(rules);
    }
    // A failed capture's file is not finished: its chain may not carry the
    // end of stream.
    muxer.CloseRecord(state != -1);
    if (rules.valve_sharer >= 0 && !IsCaptureActive(static_cast<CaptureKind>(rules.valve_sharer)))
        PipelineAt<H264EncodePipeline>(rules.encoder).SetValve(true);
    if (!IsCaptureActive(rules.aac_sharers[0]) && !IsCaptureActive(rules.aac_sharers[1]))
        _Pipelines[kAacEncodeIndex]->SetState(GST_STATE_NULL);
    muxer.SetMoovRecoveryFile("");
}

int OrbStreamer::PauseRecording()
{
    return PauseCapture(kVideoRules, VIDEOD_FUNCTION);
}

int OrbStreamer::PauseSnapVoice()
{
    return PauseCapture(kSnapVoiceRules, VIDEOD_FUNCTION);
}

int OrbStreamer::PauseAutoLog()
{
    return PauseCapture(kAutoLogRules, VIDEOD_FUNCTION);
}

int OrbStreamer::PauseCapture(const CaptureRules& rules, FunctionSignature caller)
{
    Log::Info("%s", rules.pause_line);
    if (_State.Get(rules.state) != 1) {
        Log::Info("%s: not ACTIVE", caller.Text().c_str());
        return -1;
    }
    auto& muxer = PipelineAt<Mp4muxPipeline>(rules.muxer);
    // Detached from both encoders, the muxer's timeline stops; the mux
    // pause removes the gap on resume.
    muxer.SetElementProperty(VIDEOD_FUNCTION, muxer.GetSourceName(), "listen-to", std::string("null"));
    muxer.SetElementProperty(VIDEOD_FUNCTION, muxer.GetAudioSourceName(), "listen-to", std::string("null"));
    muxer.SetMuxPause(true);
    muxer.SetDropIDR(true);
    muxer.SetState(GST_STATE_PAUSED, 0);
    _State.Set(rules.state, 2);
    Announce({ rules.state, "PausedCaptures" });
    return 0;
}

int OrbStreamer::ResumeRecording()
{
    return ResumeCapture(kVideoRules, VIDEOD_FUNCTION);
}

int OrbStreamer::ResumeSnapVoice()
{
    return ResumeCapture(kSnapVoiceRules, VIDEOD_FUNCTION);
}

int OrbStreamer::ResumeAutoLog()
{
    return ResumeCapture(kAutoLogRules, VIDEOD_FUNCTION);
}

int OrbStreamer::ResumeCapture(const CaptureRules& rules, FunctionSignature caller)
{
    Log::Info("%s", rules.resume_line);
    if (_State.Get(rules.state) != 2) {
        Log::Info("%s: not PAUSED", caller.Text().c_str());
        return -1;
    }
    ResumeCapturePipelines(rules);
    _State.Set(rules.state, 1);
    Announce({ rules.state, "ActiveCaptures" });
    return 0;
}

void OrbStreamer::ResumeCapturePipelines(const CaptureRules& rules)
{
    auto& muxer = PipelineAt<Mp4muxPipeline>(rules.muxer);
    muxer.ListenTo(_Pipelines[static_cast<size_t>(rules.encoder)].get(), "", "");
    muxer.ListenTo(_Pipelines[kAacEncodeIndex].get(), "", muxer.GetAudioSourceName());
    muxer.SetMuxPause(false);
    muxer.SetDropIDR(false);
    muxer.SetState(GST_STATE_PLAYING, 0);
}

void OrbStreamer::HandleRecordingEos()
{
    Log::Info("%s: Handling EOS...", "HandleRecordingEos");
    HandleEos(kVideoRules);
}

void OrbStreamer::HandleSnapvoiceEos()
{
    Log::Info("%s: Handling EOS...", "HandleSnapvoiceEos");
    HandleEos(kSnapVoiceRules);
}

void OrbStreamer::HandleAutologEos()
{
    Log::Info("%s: Handling EOS...", "HandleAutologEos");
    HandleEos(kAutoLogRules);
}

void OrbStreamer::HandleEos(const CaptureRules& rules)
{
    auto& muxer = PipelineAt<Mp4muxPipeline>(rules.muxer);
    // The SnapVoice muxer keeps its pause state.
    if (rules.kind != kSnapVoiceCapture)
        muxer.ResetMuxPause();
    if (rules.kind == kAutoLogCapture)
        PipelineAt<H264EncodePipeline>(rules.encoder).SetValve(true);
    muxer.SetDropIDR(true);
    muxer.SetState(GST_STATE_NULL);
    if (rules.kind == kAutoLogCapture)
        _Pipelines[static_cast<size_t>(rules.encoder)]->SetState(GST_STATE_NULL);
}

std::string OrbStreamer::GetCaptureFile(CaptureKind kind) const
{
    return PipelineAt<Mp4muxPipeline>(RulesOf(kind).muxer).GetLocation();
}

std::string OrbStreamer::GetPreviousCaptureFile(CaptureKind kind) const
{
    return PipelineAt<Mp4muxPipeline>(RulesOf(kind).muxer).GetPreviousLocation();
}

std::string OrbStreamer::GetCaptureRecoveryFile(CaptureKind kind) const
{
    return PipelineAt<Mp4muxPipeline>(RulesOf(kind).muxer).GetMoovRecoveryFile();
}

} // namespace VideoDaemon
