// The sending side of the live stream for tests: a live picture, the MJPEG
// encoder and the TCP server on a free port, linked as the daemon links them.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "pipeline_harness.h"
#include "pipelines/mjpeg_encode_pipeline.h"
#include "pipelines/tcp_server_pipeline.h"

// A live 640x480 BGRA picture of one videotestsrc pattern on the interpipesink
// `sink_name`, as the picture processing hands it on.
inline PipelineHarness::DescribedPipeline LivePicture(
    const std::string& pattern, const std::string& sink_name)
{
    return PipelineHarness::DescribedPipeline("videotestsrc is-live=true pattern=" + pattern
            + " ! video/x-raw,format=BGRA,width=640,height=480,framerate=30/1 ! interpipesink name="
            + sink_name + " sync=false async=false",
        sink_name);
}

class LiveStream
{
public:
    // `picture_sink` names the picture's interpipesink, unique per test program.
    LiveStream(const std::string& pattern, const std::string& picture_sink)
        : picture(LivePicture(pattern, picture_sink))
    {
        // Port 0: the system picks a free port, so tests can run side by side.
        server.SetServerAddress("127.0.0.1", 0);
        EXPECT_TRUE(picture.Launch(false, true, false));
        EXPECT_TRUE(mjpeg.Launch(false, true, true));
        EXPECT_TRUE(server.Launch(false, true, true));
        EXPECT_TRUE(mjpeg.ListenTo(&picture, "", ""));
        EXPECT_TRUE(server.ListenTo(&mjpeg, "", ""));
        EXPECT_EQ(0, server.SetState(GST_STATE_PLAYING, 0));
        EXPECT_EQ(0, mjpeg.SetState(GST_STATE_PLAYING, 0));
        EXPECT_EQ(0, picture.SetState(GST_STATE_PLAYING, 0));
    }
    ~LiveStream() { Stop(); }
    LiveStream(const LiveStream&) = delete;
    LiveStream& operator=(const LiveStream&) = delete;

    // The port the server listens on; 0 before it is listening.
    int Port()
    {
        int port = 0;
        VideoDaemon::GstPtr<GstElement> sink = PipelineHarness::ElementOf(server, "tcp_server_sink");
        if (sink)
            g_object_get(sink.get(), "current-port", &port, nullptr);
        return port;
    }

    // Closes the server and its client connections.
    void Stop()
    {
        server.SetState(GST_STATE_NULL);
        mjpeg.SetState(GST_STATE_NULL);
        picture.SetState(GST_STATE_NULL);
    }

    PipelineHarness::DescribedPipeline picture;
    VideoDaemon::MjpegEncodePipeline mjpeg;
    VideoDaemon::TcpServerPipeline server;
};
