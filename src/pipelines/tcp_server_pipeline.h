// Live MJPEG stream server: JPEG frames in a multipart stream over TCP, with an optional static logo.
#pragma once

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class TcpServerPipeline : public Pipeline
{
public:
    TcpServerPipeline();

    std::string GetDescription() override { return _Description; }
    std::string GetSinkName() override { return "tcp_server_sink"; }
    std::string GetSourceName() override { return "tcp_server_source"; }

    // Adds the serving address to the description for the next Launch.
    // Each call appends, so it is called once, before that launch.
    void SetServerAddress(std::string host, int port);

    // Unsent buffers kept per client ("buffers-max").
    void SetQueueSize(int size);
    // The server's "buffers-max", 0 when the server element is missing.
    int GetQueueSize() const;
    // true shows the logo in place of the live frames.
    void EnableStaticImage(bool enable);

private:
    std::string _Description;
};

} // namespace VideoDaemon
