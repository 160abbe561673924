// Software JPEG encoder for small stills (320x240 unless resized) on an interpipe sink.
#pragma once

#include <cstdint>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class JpegEncodePipeline : public Pipeline
{
public:
    std::string GetDescription() override;
    std::string GetSinkName() override { return "jpeg_encode_sink"; }
    std::string GetSourceName() override { return "jpeg_encode_source"; }

    // Size of the encoded pictures.
    void SetImageSize(uint32_t width, uint32_t height);
};

} // namespace VideoDaemon
