// The SnapVoice muxer: an MP4 mux pipeline with the narration filter after its IDR valve.
#pragma once

#include "pipelines/mp4mux_pipeline.h"

namespace VideoDaemon
{

class SnapvoicePipeline : public Mp4muxPipeline
{
public:
    // Element names carry the prefix "snapvoice".
    SnapvoicePipeline();
};

} // namespace VideoDaemon
