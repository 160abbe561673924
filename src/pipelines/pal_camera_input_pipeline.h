// The PAL analogue camera: capture, deinterlace and scale to 640x480 RGBA re-stamped as 29.97 fps.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class PalCameraInputPipeline : public Pipeline
{
public:
    PalCameraInputPipeline() = default;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "pal_camera_sink"; }
    std::string GetSourceName() override { return "pal_camera_input_source"; }

    // These controls need a launched pipeline: called before Launch they
    // end the process.
    void SetInputCrop(bool enable);
    // "low-motion", "high-motion" or "medium-motion".
    void SetDeinterlaceMethod(std::string method);
    // "low-motion", "high-motion", "median-motion" or "".
    std::string GetDeinterlaceMethod() const;
};

} // namespace VideoDaemon
