// The SnapVoice muxer: an MP4 mux pipeline with the narration filter after its IDR valve.
#include "pipelines/snapvoice_pipeline.h"

namespace VideoDaemon
{

namespace
{

// As the MP4 mux pipeline, with "snapvoice_filter" after the IDR valve.
const char kTemplate[]
    = "interpipesrc name=%_mp4mux_video0 stream-sync=1 format=time allow-renegotiation=false "
      "    ! video/x-h264 "
      "    ! idrvalve name=%_idr_valve drop=true "
      "    ! snapvoice name=snapvoice_filter reset=true "
      "    ! multiqueue name=%_mp4mux_mque max-size-buffers=30 max-size-time=0 "
      "  %_mp4mux_mque. "
      "    ! muxpause name=%_mp4mux_vid_pause "
      "    ! mp4mux name=%_mux "
      "    ! queue name=snapvoice_mp4mux_queue max-size-buffers=10 "
      "    ! identity name=%_mp4mux_tracker silent=true "
      "    ! filesink name=%_mp4mux_filesink async=false sync=false location=/dev/null "
      "  interpipesrc name=%_mp4mux_audio0 stream-sync=1 format=time allow-renegotiation=false "
      "    ! audio/mpeg "
      "    ! %_mp4mux_mque. "
      "  %_mp4mux_mque. "
      "    ! muxpause name=%_mp4mux_aud_pause "
      "    ! %_mux. ";

} // namespace

SnapvoicePipeline::SnapvoicePipeline()
    : Mp4muxPipeline("snapvoice", kTemplate)
{
}

} // namespace VideoDaemon
