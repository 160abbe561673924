// The speaker: plays whichever audio producer it is pointed at.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class AudioSpeakerPipeline : public Pipeline
{
public:
    AudioSpeakerPipeline() = default;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "audio_speaker_sink"; }
    std::string GetSourceName() override { return "audio_speaker_source"; }
};

} // namespace VideoDaemon
