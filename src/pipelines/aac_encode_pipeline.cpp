// AAC encoder of the microphone stream (48 kHz stereo), shared by every capture.
#include "pipelines/aac_encode_pipeline.h"

#include <regex>

namespace VideoDaemon
{

namespace
{

// "%" stands for the instance number. Both queues are leaky so audio is
// dropped rather than stalling the microphone. The first queue is spelled
// "acc_queue" here and in the monitored queues alike.
const char kTemplate[]
    = "interpipesrc name=aac_encode_source% "
      "    ! queue name=acc_queue max-size-buffers=10 leaky=downstream "
      "    ! audioconvert "
      "    ! capsfilter name=audio_convert_filter caps=audio/x-raw,format=F32LE,channels=2 "
      "    ! audioresample "
      "    ! capsfilter name=audio_resample_filter caps=audio/x-raw,format=F32LE,channels=2,rate=48000 "
      "    ! queue max-size-buffers=10 leaky=downstream "
      "    ! avenc_aac "
      "    ! capsfilter name=aac_filter caps=audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 "
      "    ! interpipesink max-buffers=2 name=aac_encode_sink% "
      "          caps=audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 forward-events=false";

} // namespace

unsigned AacEncodePipeline::instance_count = 0;

AacEncodePipeline::AacEncodePipeline()
{
    gchar number[16];
    g_snprintf(number, sizeof(number), "%u", instance_count);
    description = std::regex_replace(kTemplate, std::regex("%"), number);
    sink_name = std::string("aac_encode_sink") + number;
    source_name = std::string("aac_encode_source") + number;
    ++instance_count;
    queue_states["acc_queue"] = kQueueUnknown;
}

} // namespace VideoDaemon
