// The test-pattern input: a 640x480 RGBA picture published for the consumers of an input.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class TestInputPipeline : public Pipeline
{
public:
    TestInputPipeline() = default;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "test_input_sink"; }
    std::string GetSourceName() override { return "test_input_src"; }
};

} // namespace VideoDaemon
