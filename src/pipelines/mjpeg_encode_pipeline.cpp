// Motion-JPEG encoder for the live stream: raw input to EXIF-tagged JPEG frames on an interpipe sink.
#include "pipelines/mjpeg_encode_pipeline.h"

#include "common/function_signature.h"

namespace VideoDaemon
{

namespace
{

// The source's initial listen-to names no sink; the streamer links it.
const char kDescription[]
    = "interpipesrc name=mjpeg_encode_source listen-to=test is-live=true do-timestamp=true "
      "      format=time max-buffers=1 leaky-type=2 "
      "    ! queue name=mjpeg_queue leaky=downstream max-size-buffers=2 "
      "    ! imxipuvideotransform name=video_transform_mjpeg "
      "    ! video/x-raw, format=I420 "
      "    ! imxvpuenc_mjpeg name=mjpeg_enc "
      "    ! tarnwellexif "
      "    ! capsfilter caps=\"image/jpeg\" "
      "    ! interpipesink max-buffers=2 name=mjpeg_encode_sink forward-events=true";

} // namespace

MjpegEncodePipeline::MjpegEncodePipeline()
{
    CreateFramerateProbe("mjpeg", "mjpeg_encode_sink", "sink");
    queue_states["mjpeg_queue"] = kQueueUnknown;
}

std::string MjpegEncodePipeline::GetDescription()
{
    return kDescription;
}

void MjpegEncodePipeline::SetQuality(int quality)
{
    if (quality > 99)
        quality = 100;
    else if (quality < 1)
        quality = 1;
    SetElementProperty(VIDEOD_FUNCTION, "mjpeg_enc", "quality-factor", quality);
}

int MjpegEncodePipeline::GetQuality() const
{
    int quality = 0;
    GetElementProperty(VIDEOD_FUNCTION, "mjpeg_enc", "quality-factor", quality);
    return quality;
}

} // namespace VideoDaemon
