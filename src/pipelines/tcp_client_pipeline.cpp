// Receives a remote unit's MJPEG stream over TCP and publishes it as 640x480 RGBA; reports connection
// changes.
#include "pipelines/tcp_client_pipeline.h"

#include "log.h"
#include "common/function_signature.h"

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

} // namespace

TcpClientPipeline::~TcpClientPipeline()
{
    // The tracker may still be streaming; it must not call into a dead object.
    ForgetHandlers();
}

std::string TcpClientPipeline::GetDescription()
{
    return kDescription;
}

bool TcpClientPipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    ForgetHandlers();
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
    GstPtr<GstElement> source = FindElement(VIDEOD_SIGNATURE, GetSourceName());
    g_assert(source);
    g_object_set(source.get(), "host", host.c_str(), "port", static_cast<gint>(port), nullptr);
}

bool TcpClientPipeline::ConnectSignals()
{
    Log::Info("%s: Connecting TCP signals...", VIDEOD_SIGNATURE);
    GstPtr<GstElement> tracker = FindElement(VIDEOD_SIGNATURE, kTracker);
    if (!tracker) {
        Log::Error("%s: identity element not found", VIDEOD_SIGNATURE);
        return false;
    }
    ForgetHandlers();
    _HandoffId = g_signal_connect(tracker.get(), "handoff", G_CALLBACK(&TcpClientPipeline::OnHandoff), this);
    GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.get()));
    _ErrorId = g_signal_connect(bus.get(), "message::error", G_CALLBACK(&TcpClientPipeline::OnBusLost), this);
    _EosId = g_signal_connect(bus.get(), "message::eos", G_CALLBACK(&TcpClientPipeline::OnBusLost), this);
    return true;
}

bool TcpClientPipeline::DisconnectSignals()
{
    GstPtr<GstElement> tracker = FindElement(VIDEOD_SIGNATURE, kTracker);
    if (!tracker) {
        Log::Error("%s: identity element not found", VIDEOD_SIGNATURE);
        return false;
    }
    ForgetHandlers();
    return true;
}

void TcpClientPipeline::ForgetHandlers()
{
    if (!pipeline) {
        _HandoffId = _ErrorId = _EosId = 0;
        return;
    }
    if (_HandoffId != 0) {
        GstPtr<GstElement> tracker(gst_bin_get_by_name(GST_BIN(pipeline.get()), kTracker));
        if (tracker && g_signal_handler_is_connected(tracker.get(), _HandoffId))
            g_signal_handler_disconnect(tracker.get(), _HandoffId);
    }
    GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.get()));
    for (gulong id : { _ErrorId, _EosId }) {
        if (id != 0 && g_signal_handler_is_connected(bus.get(), id))
            g_signal_handler_disconnect(bus.get(), id);
    }
    _HandoffId = _ErrorId = _EosId = 0;
}

void TcpClientPipeline::OnHandoff(GstElement*, GstBuffer* buffer, gpointer user_data)
{
    auto* self = static_cast<TcpClientPipeline*>(user_data);
    self->bytes_received += gst_buffer_get_size(buffer);
    if (!self->connected) {
        Log::Info("[TcpClientPipeline] Connection acquired!!");
        self->connected = true;
        self->signal_connection_acquired.emit();
    }
}

void TcpClientPipeline::OnBusLost(GstBus*, GstMessage*, gpointer user_data)
{
    auto* self = static_cast<TcpClientPipeline*>(user_data);
    if (!self->connected)
        return;
    self->connected = false;
    Log::Error("[TcpClientPipeline] Connection lost!!");
    self->signal_connection_lost.emit();
}

} // namespace VideoDaemon
