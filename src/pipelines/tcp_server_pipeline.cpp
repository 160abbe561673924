// Live MJPEG stream server: JPEG frames in a multipart stream over TCP, with an optional static logo.
#include "pipelines/tcp_server_pipeline.h"

#include <glib.h>

#include "common/function_signature.h"

namespace VideoDaemon
{

namespace
{

// The source's initial listen-to names no sink; the streamer links it. The
// boundary "frame" is what the receiving unit's demuxer expects.
const char kBaseDescription[]
    = "interpipesrc name=tcp_server_source listen-to=mjpeg_encode is-live=true format=time max-buffers=1 "
      "leaky-type=2 "
      "    ! queue name=tcp_server_queue leaky=downstream "
      "    ! tarnwell-static-jpeg name=static_jpeg location=/etc/rig/tarnwellLogo.jpg silent=true "
      "    ! multipartmux boundary=frame "
      "    ! tcpserversink name=tcp_server_sink sync=false async=false";

} // namespace

TcpServerPipeline::TcpServerPipeline()
    : _Description(kBaseDescription)
{
    queue_states["tcp_server_queue"] = kQueueUnknown;
}

void TcpServerPipeline::SetServerAddress(std::string host, int port)
{
    GCharPtr port_text(g_strdup_printf("%d", port));
    _Description += " host=\"" + host + "\" port=" + port_text.get();
}

void TcpServerPipeline::SetQueueSize(int size)
{
    SetElementProperty(VIDEOD_FUNCTION, "tcp_server_sink", "buffers-max", size);
}

int TcpServerPipeline::GetQueueSize() const
{
    int size = 0;
    GetElementProperty(VIDEOD_FUNCTION, "tcp_server_sink", "buffers-max", size);
    return size;
}

void TcpServerPipeline::EnableStaticImage(bool enable)
{
    SetElementProperty(VIDEOD_FUNCTION, "static_jpeg", "silent", static_cast<gboolean>(!enable));
}

} // namespace VideoDaemon
