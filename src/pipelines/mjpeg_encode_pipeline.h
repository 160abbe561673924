// Motion-JPEG encoder for the live stream: raw input to EXIF-tagged JPEG frames on an interpipe sink.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class MjpegEncodePipeline : public Pipeline
{
public:
    MjpegEncodePipeline();

    std::string GetDescription() override;
    std::string GetSinkName() override { return "mjpeg_encode_sink"; }
    std::string GetSourceName() override { return "mjpeg_encode_source"; }

    // Encoder quality factor; values above 99 become 100, below 1 become 1.
    void SetQuality(int quality);
    // The encoder's quality factor, 0 when the encoder is missing.
    int GetQuality() const;
};

} // namespace VideoDaemon
