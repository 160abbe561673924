// The microphone: 44.1 kHz stereo capture with a mute switch, published for the audio encoders.
#include "pipelines/mic_input_pipeline.h"

#include "common/function_signature.h"

namespace VideoDaemon
{

namespace
{
const char kVolumeName[] = "mic_volume0";
}

std::string MicInputPipeline::GetDescription()
{
    return "alsasrc name=mic_input_source provide-clock=false do-timestamp=false "
           "    ! audio/x-raw, rate=44100,channels=2,format=S16LE,layout=interleaved "
           "    ! volume volume=1 name=mic_volume0 "
           "    ! interpipesink max-buffers=2 name=mic_input "
           "          caps=audio/x-raw,rate=44100,channels=2,format=S16LE,layout=interleaved "
           "forward-events=true";
}

int MicInputPipeline::SetMute(bool mute)
{
    return SetElementProperty(VIDEOD_FUNCTION, kVolumeName, "mute", static_cast<gboolean>(mute)) ? 1 : -1;
}

bool MicInputPipeline::GetMute() const
{
    gboolean mute = FALSE;
    return GetElementProperty(VIDEOD_FUNCTION, kVolumeName, "mute", mute) && mute;
}

} // namespace VideoDaemon
