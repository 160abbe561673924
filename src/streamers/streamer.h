// The interface the D-Bus service starts the daemon's media side through.
#pragma once

namespace VideoDaemon
{

class Streamer
{
public:
    Streamer() = default;
    virtual ~Streamer() = default;
    Streamer(const Streamer&) = delete;
    Streamer& operator=(const Streamer&) = delete;

    // Builds and starts the media graph; run once, on the main loop, after
    // the service owns its name. 0 on success.
    virtual int Start() = 0;
};

} // namespace VideoDaemon
