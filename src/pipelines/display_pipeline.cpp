// The local display: shows the processed 640x480 picture through the IPU sink.
#include "pipelines/display_pipeline.h"

#include "common/function_signature.h"

namespace VideoDaemon
{

DisplayPipeline::DisplayPipeline()
{
    CreateFramerateProbe("display", "display_sink", "sink");
    queue_states["display_queue"] = kQueueUnknown;
}

std::string DisplayPipeline::GetDescription()
{
    // At most two frames queued, the oldest dropped when the screen falls
    // behind; frames shown as they come, on the vertical blanking.
    return "interpipesrc name=display_source is-live=true max-buffers=1 leaky-type=2 "
           "    ! video/x-raw, format=BGRA,width=640,height=480 "
           "    ! queue name=display_queue max-size-buffers=2 leaky=downstream "
           "    ! imxipuvideotransform name=video_transform_display "
           "    ! imxipuvideosink name=display_sink qos=false use-vsync=true sync=false "
           "          force-aspect-ratio=false";
}

void DisplayPipeline::Invert(bool invert)
{
    SetElementProperty(VIDEOD_FUNCTION, GetSinkName(), "output-rotation", invert ? 5 : 0);
}

void DisplayPipeline::DropFrames(bool drop)
{
    SetElementProperty(VIDEOD_FUNCTION, GetSinkName(), "drop-frames", static_cast<gboolean>(drop));
}

} // namespace VideoDaemon
