// The streamer's playback of recorded files on the display in place of the live picture.
#include <unistd.h>

#include <cmath>

#include "common/function_signature.h"
#include "log.h"
#include "pipelines/display_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

namespace
{

// How often a playing file reports its progress.
const guint kProgressIntervalMs = 500;

} // namespace

int OrbStreamer::StartPlayback(const std::string& filename, double rate)
{
    Log::Info("[Streamer] START playback: filename: %s", filename.c_str());
    if (filename.empty()) {
        Log::Error("%s: filename is empty", VIDEOD_SIGNATURE);
        return -1;
    }
    if (!std::isfinite(rate)) {
        Log::Error("%s: rate %f is not a number", VIDEOD_SIGNATURE, rate);
        return -1;
    }
    if (access(filename.c_str(), F_OK) != 0) {
        Log::Error("%s: filename %s doesn't exist", VIDEOD_SIGNATURE, filename.c_str());
        return -1;
    }
    // A SnapVoice file plays its narration under its picture.
    const bool snapvoice = filename.find("snapvoice") != std::string::npos;

    if (_Pipelines[kPlaybackIndex]) {
        Log::Info("[Streamer] Deleting Playback Pipeline");
        _Pipelines[kPlaybackIndex]->SetState(GST_STATE_NULL);
        _Pipelines[kPlaybackIndex].reset();
    }
    InstallPipeline(kPlaybackIndex, std::make_unique<PlaybackPipeline>(!snapvoice));
    auto& playback = PipelineAt<PlaybackPipeline>(kPlaybackIndex);
    const int initialised = playback.Initialize(LaunchFlags());
    Log::Info("[Streamer] Initialized '%s' pipline with result:%d", playback.GetName().c_str(), initialised);
    if (initialised == 0) {
        Log::Error("%s: Failed to launch playback pipeline", VIDEOD_SIGNATURE);
        return -1;
    }

    // Only the media reaches the screen while it plays.
    PipelineAt<DisplayPipeline>(kDisplayIndex).DropFrames(true);
    _State.Set("IsExitPlayback", 0);
    const int result = playback.Play(
        filename, rate,
        [](void* user_data, bool error, bool eos, double report_rate, int64_t position, int64_t duration) {
            static_cast<OrbStreamer*>(user_data)->OnPlaybackProgress(
                error, eos, report_rate, position, duration);
        },
        kProgressIntervalMs, this);
    if (result < 0) {
        Log::Error("%s: _Playback.Play failed", VIDEOD_SIGNATURE);
        return result;
    }
    _State.Set("PlaybackState", 1);
    Announce({ "PlaybackState" });
    _State.Set("DisplayContent", 1);
    Announce({ "DisplayContent" });
    return result;
}

int OrbStreamer::StopPlayback(bool exit)
{
    Log::Info("[Streamer] STOP playback");
    _State.Set("IsExitPlayback", exit ? 1 : 0);
    // The end-of-stream report of the stop changes the states.
    PipelineAt<PlaybackPipeline>(kPlaybackIndex).Stop();
    return 0;
}

int OrbStreamer::PausePlayback()
{
    Log::Info("[Streamer] PAUSE playback");
    if (_State.Get("PlaybackState") != 1)
        return -1;
    const int result = PipelineAt<PlaybackPipeline>(kPlaybackIndex).TogglePause();
    if (result < 0)
        return result;
    _State.Set("PlaybackState", 2);
    Announce({ "PlaybackState" });
    return result;
}

int OrbStreamer::ResumePlayback()
{
    Log::Info("[Streamer] RESUME playback");
    if (_State.Get("PlaybackState") != 2)
        return -1;
    const int result = PipelineAt<PlaybackPipeline>(kPlaybackIndex).TogglePause();
    if (result < 0)
        return result;
    _State.Set("PlaybackState", 1);
    Announce({ "PlaybackState" });
    return result;
}

int OrbStreamer::SeekPlayback(int32_t offsetMs)
{
    Log::Info("[Streamer] SEEK playback: offset:%d ms", offsetMs);
    return PipelineAt<PlaybackPipeline>(kPlaybackIndex).Seek(offsetMs);
}

int OrbStreamer::GetPlaybackProgress(
    bool& active, bool& eos, bool& error, double& rate, int64_t& position, int64_t& duration)
{
    return PipelineAt<PlaybackPipeline>(kPlaybackIndex)
        .GetPlaybackStatus(active, eos, error, rate, position, duration);
}

void OrbStreamer::OnPlaybackProgress(bool error, bool eos, double rate, int64_t position, int64_t duration)
{
    const long long position_ms = static_cast<long long>(position);
    const long long duration_ms = static_cast<long long>(duration);
    if (_State.Get("PlaybackState") == 1)
        signal_playback_progress.emit(error, eos, rate, position, duration);

    // The end of the stream wins over an error reported with it.
    if (eos) {
        if (_State.Get("PlaybackState") != 0) {
            _State.Set("PlaybackState", 0);
            _State.Set("DisplayContent", 2);
            Announce({ "PlaybackState" });
            Announce({ "DisplayContent" });
        }
    } else if (!error) {
        Log::Info("orb_streamer: playback state: error=%d eos=%d rate=%f position=%lld duration=%lld\n",
            error, eos, rate, position_ms, duration_ms);
        return;
    } else {
        _State.Set("PlaybackState", -1);
        Announce({ "PlaybackState" });
        Log::Error("orb_streamer: playback error: error=%d eos=%d rate=%f position=%lld duration=%lld\n",
            error, eos, rate, position_ms, duration_ms);
        return;
    }

    // Back to the live picture, or the last frame stays.
    if (_State.Get("IsExitPlayback") != 0) {
        PipelineAt<DisplayPipeline>(kDisplayIndex).DropFrames(false);
        _State.Set("DisplayContent", 0);
        Announce({ "DisplayContent" });
    }
    Log::Info("orb_streamer: playback stopped: error=%d eos=%d rate=%f position=%lld duration=%lld\n", error,
        eos, rate, position_ms, duration_ms);
}

} // namespace VideoDaemon
