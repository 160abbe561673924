// The live stream server: its address, its settings, and the multipart JPEG stream a client reads.
#include <gio/gio.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "live_stream.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/tcp_server_pipeline.h"

using PipelineHarness::ElementOf;
using VideoDaemon::TcpServerPipeline;

namespace
{

// A plain TCP client that splits the stream at the "frame" boundary.
class StreamClient
{
public:
    explicit StreamClient(int port)
    {
        g_autoptr(GSocketClient) client = g_socket_client_new();
        connection_ = g_socket_client_connect_to_host(
            client, "127.0.0.1", static_cast<guint16>(port), nullptr, nullptr);
        if (connection_)
            g_socket_set_timeout(g_socket_connection_get_socket(connection_), 1);
    }
    ~StreamClient() { g_clear_object(&connection_); }
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    bool Connected() const { return connection_ != nullptr; }

    // The next whole part's headers and body; false after 5 s or at the end of the stream.
    bool NextPart(std::string& headers, std::vector<uint8_t>& body)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!TakePart(headers, body)) {
            char chunk[65536];
            const gssize got = g_socket_receive(
                g_socket_connection_get_socket(connection_), chunk, sizeof chunk, nullptr, nullptr);
            if (got == 0 || std::chrono::steady_clock::now() > deadline)
                return false;
            if (got > 0)
                data_.append(chunk, static_cast<size_t>(got));
        }
        return true;
    }

private:
    bool TakePart(std::string& headers, std::vector<uint8_t>& body)
    {
        static const std::string boundary = "--frame\r\n";
        const size_t start = data_.find(boundary);
        const size_t header_end = data_.find("\r\n\r\n", start);
        if (start == std::string::npos || header_end == std::string::npos)
            return false;
        headers = data_.substr(start + boundary.size(), header_end - start - boundary.size());
        const size_t length_at = headers.find("Content-Length: ");
        if (length_at == std::string::npos) {
            data_.erase(0, header_end);
            return false;
        }
        const size_t length = std::stoul(headers.substr(length_at + 16));
        const size_t body_start = header_end + 4;
        if (data_.size() < body_start + length)
            return false;
        body.assign(data_.begin() + body_start, data_.begin() + body_start + length);
        data_.erase(0, body_start + length);
        return true;
    }

    GSocketConnection* connection_ = nullptr;
    std::string data_;
};

} // namespace

TEST(TcpServerPipeline, ServesMultipartJpegFramesOfTheLivePictureOrTheStaticImageWhileEnabled)
{
    GstTest::TempDir dir;
    const std::string logo = dir.File("logo.jpg");
    ASSERT_TRUE(MediaTest::WriteJpeg(logo, 640, 480, "blue"));
    const std::vector<uint8_t> logo_bytes = MediaTest::ReadFile(logo);

    LiveStream stream("red", "tcp_server_test_picture");
    g_object_set(ElementOf(stream.server, "static_jpeg").get(), "location", logo.c_str(), nullptr);
    ASSERT_GT(stream.Port(), 0);
    StreamClient client(stream.Port());
    ASSERT_TRUE(client.Connected());

    std::string headers;
    std::vector<uint8_t> body;
    for (int i = 0; i < 3; i++) {
        ASSERT_TRUE(client.NextPart(headers, body));
        EXPECT_NE(std::string::npos, headers.find("Content-Type: image/jpeg")) << headers;
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
            ASSERT_TRUE(client.NextPart(headers, body));
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
