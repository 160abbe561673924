// The NTSC analogue camera: capture, VBI read-out, deinterlace and scale to 640x480 RGBA.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class NtscCameraInputPipeline : public Pipeline
{
public:
    NtscCameraInputPipeline();

    std::string GetDescription() override;
    std::string GetSinkName() override { return "camera_input_video"; }
    std::string GetSourceName() override { return "camera_input_source"; }

    // These controls need a launched pipeline: called before Launch they
    // end the process.
    void SetInputCrop(bool enable);
    // "low-motion", "high-motion" or "medium-motion".
    void SetDeinterlaceMethod(const std::string& method);
    // "low-motion", "high-motion", "median-motion" or "".
    std::string GetDeinterlaceMethod();
};

} // namespace VideoDaemon
