// Receives a remote unit's MJPEG stream over TCP and publishes it as 640x480 RGBA; reports connection
// changes.
#include "pipelines/tcp_client_pipeline.h"

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// The source gives up after 5 s without data, which ends the stream on the
// bus and so reports a lost connection. The leaky queue ahead of the decoder
// drops frames rather than stall the network.
const char kDescription[]
    = "tcpclientsrc name=tcpclient_source_video typefind=false do-timestamp=true timeout=5 "
      "    ! multipartdemux boundary=frame "
      "    ! image/jpeg, width=640,height=480,framerate=30000/1001 "
      "    ! identity name=tcp_tracker "
      "    ! tarnwellexifdemux name=exifdemux_src "
      "    ! queue name=tcpclient_queue leaky=downstream max-size-buffers=5 "
      "    ! imxvpudec "
      "    ! video/x-raw, format=I420,width=640,height=480 "
      "    ! imxipuvideotransform name=video_transform_tcp "
      "    ! video/x-raw, format=RGBA,width=640,height=480 "
      "    ! interpipesink max-buffers=2 caps=video/x-raw,format=RGBA,width=640,height=480 "
      "          name=tcpclient_video sync=false forward-events=true";

const char kTracker[] = "tcp_tracker";
// Handler group of the connection tracking.
const char kConnection[] = "connection";

} // namespace

std::string TcpClientPipeline::GetDescription()
{
    return kDescription;
}

bool TcpClientPipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    bool launched = Pipeline::Launch(attach_probes, connect_bus, connect_queue_signals);
    connected = false;
    bytes_received = 0;
    if (!launched)
        return false;
    return ConnectSignals();
}

bool TcpClientPipeline::TearDown()
{
    bool disconnected = DisconnectSignals();
    connected = false;
    bytes_received = 0;
    if (!disconnected)
        return false;
    return Pipeline::TearDown();
}

void TcpClientPipeline::SetHostPort(const std::string& host, uint16_t port)
{
    Log::Info("setting host/port to %s/%d", host.c_str(), port);
    GstPtr<GstElement> source = FindElement(VIDEOD_FUNCTION, GetSourceName());
    g_assert(source);
    g_object_set(source.get(), "host", host.c_str(), "port", static_cast<gint>(port), nullptr);
}

bool TcpClientPipeline::ConnectSignals()
{
    Log::Info("%s: Connecting TCP signals...", VIDEOD_SIGNATURE);
    GstPtr<GstElement> tracker = FindElement(VIDEOD_FUNCTION, kTracker);
    if (!tracker) {
        Log::Error("%s: identity element not found", VIDEOD_SIGNATURE);
        return false;
    }
    DisconnectHandlers(kConnection);
    ConnectHandler(kConnection, tracker.get(), "handoff", G_CALLBACK(&TcpClientPipeline::OnHandoff));
    ConnectBusHandler(kConnection, "message::error", G_CALLBACK(&TcpClientPipeline::OnBusLost));
    ConnectBusHandler(kConnection, "message::eos", G_CALLBACK(&TcpClientPipeline::OnBusLost));
    return true;
}

bool TcpClientPipeline::DisconnectSignals()
{
    GstPtr<GstElement> tracker = FindElement(VIDEOD_FUNCTION, kTracker);
    if (!tracker) {
        Log::Error("%s: identity element not found", VIDEOD_SIGNATURE);
        return false;
    }
    DisconnectHandlers(kConnection);
    return true;
}

// Streaming thread: the first buffer after (re)connection is reported on the
// main loop.
void TcpClientPipeline::OnHandoff(GstElement*, GstBuffer* buffer, gpointer user_data)
{
    auto* self = static_cast<TcpClientPipeline*>(user_data);
    self->bytes_received += gst_buffer_get_size(buffer);
    if (self->connected.exchange(true))
        return;
    Log::Info("[TcpClientPipeline] Connection acquired!!");
    self->PostToMainLoop([self] { self->signal_connection_acquired.emit(); });
}

void TcpClientPipeline::OnBusLost(GstBus*, GstMessage*, gpointer user_data)
{
    auto* self = static_cast<TcpClientPipeline*>(user_data);
    if (!self->connected.exchange(false))
        return;
    Log::Error("[TcpClientPipeline] Connection lost!!");
    self->signal_connection_lost.emit();
}

} // namespace VideoDaemon
