// Software JPEG encoder for small stills (320x240 unless resized) on an interpipe sink.
#include "pipelines/jpeg_encode_pipeline.h"

#include <cstdio>

#include "common/function_signature.h"

namespace VideoDaemon
{

namespace
{

// The source's initial listen-to names no sink; the streamer links it.
const char kDescription[]
    = "interpipesrc name=jpeg_encode_source listen-to=test is-live=true max-buffers=1 leaky-type=2 "
      "    ! queue name=jpeg_queue max-size-buffers=1 "
      "    ! videoscale "
      "    ! capsfilter name=jpeg_image_caps caps=video/x-raw,width=320,height=240 "
      "    ! videoconvert "
      "    ! jpegenc "
      "    ! jifmux "
      "    ! interpipesink max-buffers=2 name=jpeg_encode_sink caps=image/jpeg forward-events=true";

} // namespace

std::string JpegEncodePipeline::GetDescription()
{
    return kDescription;
}

void JpegEncodePipeline::SetImageSize(uint32_t width, uint32_t height)
{
    GstCapsPtr caps(gst_caps_new_simple("video/x-raw", "width", G_TYPE_INT, static_cast<gint>(width),
        "height", G_TYPE_INT, static_cast<gint>(height), nullptr));
    if (!SetElementProperty(VIDEOD_FUNCTION, "jpeg_image_caps", "caps", caps.get())) {
        // The one message the daemon writes on standard output.
        std::printf("Failed to get element\n");
        std::fflush(stdout);
    }
}

} // namespace VideoDaemon
