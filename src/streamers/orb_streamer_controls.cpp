// The streamer's settings that the D-Bus service reads and writes: capture lists, playback rate, microphone,
// live stream quality, de-interlacing, the capture chain and the pipelines behind the encoder and GPU
// properties.
#include <cmath>

#include "log.h"
#include "pipelines/deinterlace_method.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "pipelines/mjpeg_encode_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

bool OrbStreamer::GetCaptureList(int state, std::vector<std::string>& kinds)
{
    static const std::pair<const char*, const char*> kKinds[] = {
        { "RecordingState", "video" },
        { "SnapVoiceState", "snapVoice" },
        { "AutoLogState", "autolog" },
    };
    if (state < 0 || state > 2)
        return false;
    kinds.clear();
    for (const auto& [entry, word] : kKinds) {
        const int value = _State.Get(entry);
        // A failed capture is not running: it counts as inactive.
        if (value == state || (state == 0 && value == -1))
            kinds.push_back(word);
    }
    return true;
}

std::string OrbStreamer::GetPlaybackFilename() const
{
    return PipelineAt<PlaybackPipeline>(kPlaybackIndex).GetCurrentFile();
}

int OrbStreamer::SetPlaybackRate(double rate)
{
    if (!std::isfinite(rate))
        return -1;
    return PipelineAt<PlaybackPipeline>(kPlaybackIndex).SetRate(rate);
}

double OrbStreamer::GetPlaybackRate() const
{
    return PipelineAt<PlaybackPipeline>(kPlaybackIndex).GetRate();
}

int OrbStreamer::SetSystemMicMute(bool mute)
{
    return PipelineAt<MicInputPipeline>(kMicInputIndex).SetMute(mute);
}

bool OrbStreamer::GetSystemMicMute() const
{
    return PipelineAt<MicInputPipeline>(kMicInputIndex).GetMute();
}

void OrbStreamer::SetStreamJpegQuality(int quality)
{
    PipelineAt<MjpegEncodePipeline>(kMjpegEncodeIndex).SetQuality(quality);
}

int OrbStreamer::GetStreamJpegQuality() const
{
    return PipelineAt<MjpegEncodePipeline>(kMjpegEncodeIndex).GetQuality();
}

void OrbStreamer::SetStreamTcpQueueSize(int size)
{
    // Kept for the server's next launch too.
    _LiveStreamQueueSize = size;
    PipelineAt<TcpServerPipeline>(kTcpServerIndex).SetQueueSize(size);
}

int OrbStreamer::GetStreamTcpQueueSize() const
{
    return PipelineAt<TcpServerPipeline>(kTcpServerIndex).GetQueueSize();
}

int OrbStreamer::SetDeinterlaceMethod(const std::string& method)
{
    if (!DeinterlaceMethodValue(method))
        return -1;
    _DeinterlaceMethod = method;
    auto& ntsc = PipelineAt<NtscCameraInputPipeline>(kNtscCameraIndex);
    if (ntsc.GetPipeline())
        ntsc.SetDeinterlaceMethod(method);
    return 0;
}

int OrbStreamer::StartCapture(bool redetect)
{
    if (redetect) {
        const int standard = GetCameraStandard();
        if (standard == 1 || standard == 2)
            _Input = standard;
    }
    int result = SetInput(_Input);
    result |= StartVideoPipelines();
    return result;
}

void OrbStreamer::StopCapture()
{
    StopPipelines();
}

H264EncodePipeline& OrbStreamer::Encoder(CaptureKind kind) const
{
    return PipelineAt<H264EncodePipeline>(kind == kAutoLogCapture ? kH264AutologIndex : kH264VideoIndex);
}

GpuPipeline& OrbStreamer::Gpu() const
{
    return PipelineAt<GpuPipeline>(kGpuIndex);
}

} // namespace VideoDaemon
