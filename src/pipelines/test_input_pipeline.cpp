// The test-pattern input: a 640x480 RGBA picture published for the consumers of an input.
#include "pipelines/test_input_pipeline.h"

namespace VideoDaemon
{

std::string TestInputPipeline::GetDescription()
{
    return "videotestsrc name=test_input_src pattern=2 do-timestamp=true "
           "    ! video/x-raw, format=UYVY,width=640,height=480,framerate=30000/1001 "
           "    ! imxipuvideotransform "
           "    ! video/x-raw, format=RGBA,width=640,height=480 "
           "    ! interpipesink max-buffers=1 name=test_input_sink "
           "          caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true";
}

} // namespace VideoDaemon
