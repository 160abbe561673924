// A pipeline whose description and endpoint names a test or benchmark chooses.
#pragma once

#include <string>

#include "pipelines/pipeline.h"

namespace PipelineHarness
{

class DescribedPipeline : public VideoDaemon::Pipeline
{
public:
    explicit DescribedPipeline(
        std::string description, std::string sink_name = "", std::string source_name = "")
        : description_(std::move(description))
        , sink_name_(std::move(sink_name))
        , source_name_(std::move(source_name))
    {
    }
    std::string GetDescription() override { return description_; }
    std::string GetSinkName() override { return sink_name_; }
    std::string GetSourceName() override { return source_name_; }

    void SetDescription(std::string description) { description_ = std::move(description); }
    void MonitorQueue(const std::string& name) { queue_states[name] = kQueueUnknown; }

private:
    std::string description_;
    std::string sink_name_;
    std::string source_name_;
};

} // namespace PipelineHarness
