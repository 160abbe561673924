// The live stream server: its address, its settings, and the multipart JPEG stream a client reads.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "live_stream.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/tcp_server_pipeline.h"

using PipelineHarness::ElementOf;
using VideoDaemon::TcpServerPipeline;

TEST(TcpServerPipeline, ServesMultipartJpegFramesOfTheLivePictureOrTheStaticImageWhileEnabled)
{
    GstTest::TempDir dir;
    const std::string logo = dir.File("logo.jpg");
    ASSERT_TRUE(MediaTest::WriteJpeg(logo, 640, 480, "blue"));
    const std::vector<uint8_t> logo_bytes = MediaTest::ReadFile(logo);

    LiveStream stream("red", "tcp_server_test_picture");
    g_object_set(ElementOf(stream.server, "static_jpeg").get(), "location", logo.c_str(), nullptr);
    ASSERT_GT(stream.Port(), 0);
    // An independent reader: the packaged demuxer splits the stream at the "frame" boundary and takes each
    // part's type from its Content-Type header.
    GstTest::TestPipeline client("tcpclientsrc host=127.0.0.1 port=" + std::to_string(stream.Port())
        + " ! multipartdemux boundary=frame ! appsink name=out sync=false");
    ASSERT_TRUE(client.Parsed()) << client.Error();
    ASSERT_TRUE(client.Start());
    std::vector<uint8_t> body;
    auto next_part = [&] {
        VideoDaemon::GstSamplePtr sample = client.Pull("out", 5 * GST_SECOND);
        body = sample ? GstTest::SampleBytes(sample.get()) : std::vector<uint8_t> {};
        return sample
            && gst_structure_has_name(
                gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0), "image/jpeg");
    };
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(next_part()) << "part " << i << " is a JPEG picture";
        MediaTest::Picture picture = MediaTest::DecodeJpeg(body);
        EXPECT_EQ(640, picture.width);
        EXPECT_EQ(480, picture.height);
        EXPECT_GT(picture.Mean(0), 200);
        EXPECT_LT(picture.Mean(1), 60);
    }

    // The image shows up within 30 parts, and the live picture again once disabled.
    for (const bool enabled : { true, false }) {
        stream.server.EnableStaticImage(enabled);
        bool shown = false;
        for (int i = 0; i < 30 && !shown; i++) {
            ASSERT_TRUE(next_part());
            shown = enabled ? body == logo_bytes
                            : body != logo_bytes && MediaTest::DecodeJpeg(body).Mean(0) > 200;
        }
        EXPECT_TRUE(shown) << (enabled ? "static image" : "live picture");
    }
}

TEST(TcpServerPipeline,
    AppendsTheQuotedAddressToItsDescriptionSetsTheQueueSizeUncheckedAndLogsAMissingPipeline)
{
    LogCapture log;
    TcpServerPipeline server;
    const std::string base = server.GetDescription();
    server.SetServerAddress("0.0.0.0", 4000);
    EXPECT_EQ(base + " host=\"0.0.0.0\" port=4000", server.GetDescription());
    server.SetQueueSize(7);
    EXPECT_EQ(0, server.GetQueueSize());
    server.EnableStaticImage(true);
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::TcpServerPipeline::SetQueueSize(int): pipeline == NULL (tcp_server_sink)"));
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "int VideoDaemon::TcpServerPipeline::GetQueueSize() const: pipeline == NULL (tcp_server_sink)"));
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::TcpServerPipeline::EnableStaticImage(bool): pipeline == NULL (static_jpeg)"));

    ASSERT_TRUE(server.Launch(false, false, false));
    for (int size : { 7, -1 }) {
        server.SetQueueSize(size);
        EXPECT_EQ(size, server.GetQueueSize());
    }
}
