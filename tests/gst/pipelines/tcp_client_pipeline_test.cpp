// The remote-picture receiver: 640x480 frames from a live stream server, and connection gained and lost
// reports.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "live_stream.h"
#include "log_capture.h"
#include "pipeline_harness.h"
#include "pipelines/tcp_client_pipeline.h"
#include "support/death_test_style.h"

using PipelineHarness::RunMainLoopFor;
using PipelineHarness::RunMainLoopUntil;
using VideoDaemon::TcpClientPipeline;

namespace
{

const char kAcquired[] = "[TcpClientPipeline] Connection acquired!!";
const char kLost[] = "[TcpClientPipeline] Connection lost!!";

} // namespace

TEST(TcpClientPipeline,
    ReceivesTheRemotePictureAndReportsConnectionAcquiredAndLostOnceOnTheMainLoopAfterABusReconnect)
{
    LogCapture log;
    LiveStream unit("green", "tcp_client_test_picture");
    ASSERT_GT(unit.Port(), 0);

    TcpClientPipeline client;
    ASSERT_TRUE(client.Launch(false, true, false));
    // The base's bus handlers are connected anew; the client's own stay, so the loss is still reported.
    ASSERT_TRUE(client.ConnectBusMessages());
    int acquired = 0;
    int lost = 0;
    std::thread::id acquired_on;
    client.signal_connection_acquired.connect([&] {
        acquired++;
        acquired_on = std::this_thread::get_id();
    });
    client.signal_connection_lost.connect([&] { lost++; });
    client.SetHostPort("127.0.0.1", static_cast<uint16_t>(unit.Port()));
    EXPECT_TRUE(log.Contains(LOG_INFO, "setting host/port to 127.0.0.1/" + std::to_string(unit.Port())));

    PipelineHarness::Consumer viewer("tcp_client_test_view");
    ASSERT_TRUE(viewer.Launch(false, true, false));
    ASSERT_TRUE(viewer.ListenTo(&client, "", ""));
    ASSERT_EQ(0, viewer.SetState(GST_STATE_PLAYING, 0));
    ASSERT_EQ(0, client.SetState(GST_STATE_PLAYING, 0));

    for (int i = 0; i < 3; i++) {
        VideoDaemon::GstSamplePtr sample(viewer.Pull(5000));
        ASSERT_TRUE(sample);
        PipelineHarness::VideoFormat format = PipelineHarness::FormatOf(sample.get());
        EXPECT_EQ(640, format.width);
        EXPECT_EQ(480, format.height);
        EXPECT_EQ("RGBA", format.format);
        const std::vector<guint8> rgba = GstTest::SampleBytes(sample.get());
        ASSERT_GE(rgba.size(), 640u * 480 * 4);
        const guint8* centre = &rgba[(240 * 640 + 320) * 4];
        EXPECT_LT(centre[0], 60); // green picture
        EXPECT_GT(centre[1], 200);
    }
    EXPECT_TRUE(client.IsConnected());
    EXPECT_GT(client.GetBytesReceived(), 0u);
    // The first frame arrived on a streaming thread; the report waits for
    // the main loop.
    EXPECT_EQ(1u, log.Count(LOG_INFO, kAcquired));
    EXPECT_EQ(0, acquired);
    ASSERT_TRUE(RunMainLoopUntil([&] { return acquired > 0; }));
    EXPECT_EQ(std::this_thread::get_id(), acquired_on);
    EXPECT_EQ(0, lost);

    // The server goes away: the stream ends, and the loss is reported once.
    unit.Stop();
    ASSERT_TRUE(RunMainLoopUntil([&] { return lost > 0; }, 8000));
    RunMainLoopFor(300);
    EXPECT_EQ(1, lost);
    EXPECT_EQ(1u, log.Count(LOG_ERR, kLost));
    EXPECT_EQ(1, acquired);
    EXPECT_FALSE(client.IsConnected());

    viewer.SetState(GST_STATE_NULL);
    client.SetState(GST_STATE_NULL);
    EXPECT_TRUE(client.TearDown());
    EXPECT_EQ(0u, client.GetBytesReceived());
}

// Signals connect only on a launched pipeline; a peer that takes the connection (the system accepts it)
// and never sends anything is neither acquired nor lost, and the source gives up after five seconds.
TEST(TcpClientPipeline, ConnectsItsSignalsOnlyWhenLaunchedAndReportsNothingWhenTheServerNeverSends)
{
    LogCapture log;
    TcpClientPipeline client;
    EXPECT_FALSE(client.TearDown());
    EXPECT_FALSE(client.ConnectSignals());
    const char* const lines[] = {
        "bool VideoDaemon::TcpClientPipeline::DisconnectSignals(): pipeline == NULL (tcp_tracker)",
        "bool VideoDaemon::TcpClientPipeline::DisconnectSignals(): identity element not found",
        "bool VideoDaemon::TcpClientPipeline::ConnectSignals(): pipeline == NULL (tcp_tracker)",
    };
    for (const char* line : lines)
        EXPECT_TRUE(log.Contains(LOG_ERR, line)) << line;
    EXPECT_TRUE(log.Contains(
        LOG_INFO, "bool VideoDaemon::TcpClientPipeline::ConnectSignals(): Connecting TCP signals..."));
    ASSERT_TRUE(client.Launch(false, false, false));
    EXPECT_TRUE(client.DisconnectSignals());
    EXPECT_TRUE(client.ConnectSignals());
    // Relaunching builds a new pipeline with its own connections.
    ASSERT_TRUE(client.Launch(false, true, false));

    g_autoptr(GSocketListener) server = g_socket_listener_new();
    const guint16 port = g_socket_listener_add_any_inet_port(server, nullptr, nullptr);
    ASSERT_NE(0, port);
    int ended = 0;
    std::chrono::steady_clock::time_point ended_at;
    auto end = [&] {
        if (ended++ == 0)
            ended_at = std::chrono::steady_clock::now();
    };
    client.signal_error.connect([&](std::string) { end(); });
    client.signal_eos.connect(end);
    client.SetHostPort("127.0.0.1", port);
    const auto started = std::chrono::steady_clock::now();
    client.SetState(GST_STATE_PLAYING, 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return ended > 0; }, 9000));
    EXPECT_GE(ended_at - started, std::chrono::seconds(5)) << "the source waits five seconds for data";
    EXPECT_EQ(0u, log.Count(LOG_INFO, kAcquired));
    EXPECT_EQ(0u, log.Count(LOG_ERR, kLost));
    EXPECT_EQ(0u, client.GetBytesReceived());
    client.SetState(GST_STATE_NULL);
    EXPECT_TRUE(client.TearDown());
    EXPECT_EQ(nullptr, client.GetPipeline());
}

TEST(TcpClientPipelineDeathTest, EndsTheProcessWhenTheAddressIsSetWithoutAPipeline)
{
    GstTest::UseFreshProcessDeathTests();
    EXPECT_DEATH(
        {
            TcpClientPipeline client;
            client.SetHostPort("127.0.0.1", 4000);
        },
        "src/pipelines/tcp_client_pipeline.cpp:[0-9]+:.*SetHostPort.*assertion failed");
}
