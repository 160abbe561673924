// The microphone: 44.1 kHz stereo capture with a mute switch, published for the audio encoders.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class MicInputPipeline : public Pipeline
{
public:
    MicInputPipeline() = default;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "mic_input"; }
    std::string GetSourceName() override { return "mic_input_source"; }

    // 1 on success, -1 when the pipeline or the volume element is missing.
    int SetMute(bool mute);
    // The mute switch; false when the pipeline or the element is missing.
    bool GetMute() const;
};

} // namespace VideoDaemon
