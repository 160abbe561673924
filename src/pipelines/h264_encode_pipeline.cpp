// H.264 encoder behind a valve, publishing access units for the MP4 muxers; one instance per prefix.
#include "pipelines/h264_encode_pipeline.h"

#include <regex>

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// "%" stands for the instance's prefix. The valve starts closed; the encoder
// runs at a constant quantiser with an IDR frame every 16 frames; the sink
// forwards EOS, so an EOS sent into the encoder reaches the muxer.
const char kTemplate[]
    = "interpipesrc name=%_h264_source allow-renegotiation=false format=time max-buffers=1 leaky-type=2 "
      "    ! video/x-raw, format=BGRA,width=640,height=480,framerate=30000/1001 "
      "    ! valve name=%_h264_valve drop=true "
      "    ! imxipuvideotransform name=%_video_transform_h264 "
      "    ! video/x-raw, format=I420 "
      "    ! queue name=%_h264_queue leaky=downstream max-size-buffers=2 "
      "    ! imxvpuenc_h264 name=%_encoder bitrate=0 gop-size=16 quant-param=24 idr-interval=16 "
      "    ! h264parse "
      "    ! video/x-h264, stream-format=avc,alignment=au,profile=main "
      "    ! interpipesink sync=false async=false max-buffers=5 name=%_h264_sink "
      "          caps=video/x-h264,stream-format=avc,alignment=au "
      "          forward-events=false forward-eos=true forward-preroll=false";

} // namespace

H264EncodePipeline::H264EncodePipeline(std::string prefix)
    : description(std::regex_replace(kTemplate, std::regex("%"), prefix))
    , sink_name(prefix + "_h264_sink")
    , source_name(prefix + "_h264_source")
    , encoder_name(prefix + "_encoder")
    , valve_name(prefix + "_h264_valve")
    , queue_name(prefix + "_h264_queue")
{
    queue_states[queue_name] = kQueueUnknown;
}

// The live picture is restamped by the GPU pipeline's source from its clock,
// which it gets only on going to PLAYING: the frames it passes on while
// prerolling carry no time. A recording started then would take one as its
// first IDR frame, and the muxer, which always writes the stream with the
// earliest time next, would hold the whole video track behind it and fail on
// it at the end of the file.
bool H264EncodePipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    const bool result = Pipeline::Launch(attach_probes, connect_bus, connect_queue_signals);
    if (result)
        untimed_frames.Attach(*this, source_name, "src", GST_PAD_PROBE_TYPE_BUFFER,
            &H264EncodePipeline::DropUntimedFrame, nullptr);
    return result;
}

GstPadProbeReturn H264EncodePipeline::DropUntimedFrame(GstPad*, GstPadProbeInfo* info, gpointer)
{
    return GST_BUFFER_PTS_IS_VALID(GST_PAD_PROBE_INFO_BUFFER(info)) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

void H264EncodePipeline::SetValve(bool drop)
{
    Log::Warning("Set H264 valve to :%d", drop);
    if (!SetElementProperty(VIDEOD_FUNCTION, valve_name, "drop", static_cast<gboolean>(drop)))
        Log::Warning("Failed to find idr_valve element");
}

// The encoder's properties differ from other elements' only in the element
// they name.
template <typename T> void H264EncodePipeline::SetH264EncoderProperty(const char* name, T value)
{
    SetElementProperty(VIDEOD_FUNCTION, encoder_name, name, value);
}

template <typename T> void H264EncodePipeline::GetH264EncoderProperty(const char* name, T& value) const
{
    GetElementProperty(VIDEOD_FUNCTION, encoder_name, name, value);
}

template void H264EncodePipeline::SetH264EncoderProperty<unsigned>(const char*, unsigned);
template void H264EncodePipeline::GetH264EncoderProperty<unsigned>(const char*, unsigned&) const;

void H264EncodePipeline::SetBitrate(unsigned bitrate)
{
    SetH264EncoderProperty("bitrate", bitrate);
}

void H264EncodePipeline::SetGopSize(unsigned gop_size)
{
    SetH264EncoderProperty("gop-size", gop_size);
}

void H264EncodePipeline::SetQuantParam(unsigned quant_param)
{
    SetH264EncoderProperty("quant-param", quant_param);
}

unsigned H264EncodePipeline::GetBitrate() const
{
    unsigned value = 0;
    GetH264EncoderProperty("bitrate", value);
    return value;
}

unsigned H264EncodePipeline::GetGopSize() const
{
    unsigned value = 0;
    GetH264EncoderProperty("gop-size", value);
    return value;
}

unsigned H264EncodePipeline::GetQuantParam() const
{
    unsigned value = 0;
    GetH264EncoderProperty("quant-param", value);
    return value;
}

} // namespace VideoDaemon
