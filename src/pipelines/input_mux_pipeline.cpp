// Pass-through stage that re-publishes whichever input it listens to.
#include "pipelines/input_mux_pipeline.h"

namespace VideoDaemon
{

std::string InputMuxPipeline::GetDescription()
{
    // One buffer at a time, renegotiating when the producer changes.
    return "interpipesrc name=input_mux_source is-live=false max-buffers=1 stream-sync=0 "
           "          do-timestamp=true leaky-type=2 allow-renegotiation=true "
           "    ! interpipesink name=input_mux_sink max-buffers=1 sync=false forward-events=true";
}

} // namespace VideoDaemon
