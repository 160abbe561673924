// Pass-through stage that re-publishes whichever input it listens to.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class InputMuxPipeline : public Pipeline
{
public:
    InputMuxPipeline() = default;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "input_mux_sink"; }
    std::string GetSourceName() override { return "input_mux_source"; }
};

} // namespace VideoDaemon
