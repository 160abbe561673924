// Receives a remote unit's MJPEG stream over TCP and publishes it as 640x480 RGBA; reports connection
// changes.
#pragma once

#include <atomic>
#include <cstdint>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class TcpClientPipeline : public Pipeline
{
public:
    // Emitted when a connected stream ends or fails (main loop).
    sigc::signal<void> signal_connection_lost;
    // Emitted on the main loop after the first buffer since (re)connection.
    sigc::signal<void> signal_connection_acquired;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "tcpclient_video"; }
    std::string GetSourceName() override { return "tcpclient_source_video"; }

    bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals) override;
    bool TearDown() override;

    // Server to connect to. Only on a launched pipeline: a missing source
    // element ends the process.
    void SetHostPort(const std::string& host, uint16_t port);

    // Follows the tracker's buffers and the bus's error and end-of-stream.
    bool ConnectSignals();
    bool DisconnectSignals();

    bool IsConnected() const { return connected; }
    uint64_t GetBytesReceived() const { return bytes_received; }

private:
    static void OnHandoff(GstElement* identity, GstBuffer* buffer, gpointer user_data);
    static void OnBusLost(GstBus* bus, GstMessage* message, gpointer user_data);

    // Set by the tracker's streaming thread, cleared on the main loop.
    std::atomic<bool> connected { false };
    std::atomic<uint64_t> bytes_received { 0 };
};

} // namespace VideoDaemon
