// AAC encoder of the microphone stream (48 kHz stereo), shared by every capture.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class AacEncodePipeline : public Pipeline
{
public:
    // Each instance numbers its element names with the next instance number.
    AacEncodePipeline();

    std::string GetDescription() override { return description; }
    std::string GetSinkName() override { return sink_name; }
    std::string GetSourceName() override { return source_name; }

private:
    static unsigned instance_count;

    std::string description;
    std::string sink_name;
    std::string source_name;
};

} // namespace VideoDaemon
