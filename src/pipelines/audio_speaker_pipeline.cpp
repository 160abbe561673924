// The speaker: plays whichever audio producer it is pointed at.
#include "pipelines/audio_speaker_pipeline.h"

namespace VideoDaemon
{

std::string AudioSpeakerPipeline::GetDescription()
{
    return "interpipesrc name=audio_speaker_source is-live=true "
           "    ! alsasink name=audio_speaker_sink sync=false enable-last-sample=false";
}

} // namespace VideoDaemon
