// The local display: shows the processed 640x480 picture through the IPU sink.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class DisplayPipeline : public Pipeline
{
public:
    DisplayPipeline();

    std::string GetDescription() override;
    std::string GetSinkName() override { return "display_sink"; }
    std::string GetSourceName() override { return "display_source"; }

    // Turns the picture upside down (rotation 5 on the sink) or back.
    void Invert(bool invert);
    void DropFrames(bool drop);
};

} // namespace VideoDaemon
