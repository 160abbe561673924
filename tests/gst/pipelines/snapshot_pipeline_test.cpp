// The snapshot pipeline: argument checks, one snapshot at a time, written files and the guard timer.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/snapshot_pipeline.h"
#include "support/death_test_style.h"

using PipelineHarness::DescribedPipeline;
using PipelineHarness::ElementOf;
using PipelineHarness::RunMainLoopUntil;
using VideoDaemon::SnapshotPipeline;

namespace
{

// The processed live picture as the snapshot pipeline receives it.
DescribedPipeline LivePicture()
{
    return DescribedPipeline("videotestsrc is-live=true pattern=red "
                             "! video/x-raw,format=BGRA,width=640,height=480,framerate=30/1 "
                             "! interpipesink name=snapshot_test_picture sync=false async=false",
        "snapshot_test_picture");
}

guint QualityFactor(SnapshotPipeline& snapshot)
{
    guint quality = 0;
    VideoDaemon::GstPtr<GstElement> encoder = ElementOf(snapshot, "jpeg_encoder");
    if (encoder)
        g_object_get(encoder.get(), "quality-factor", &quality, nullptr);
    return quality;
}

// Collects GLib warnings of one domain while it lives.
class GLibWarnings
{
public:
    explicit GLibWarnings(const char* domain)
        : domain_(domain)
    {
        id_ = g_log_set_handler(domain, G_LOG_LEVEL_WARNING, &GLibWarnings::Handle, this);
    }
    ~GLibWarnings() { g_log_remove_handler(domain_, id_); }
    bool Contains(const std::string& fragment) const
    {
        for (const std::string& message : messages_)
            if (message.find(fragment) != std::string::npos)
                return true;
        return false;
    }

private:
    static void Handle(const gchar*, GLogLevelFlags, const gchar* message, gpointer self)
    {
        static_cast<GLibWarnings*>(self)->messages_.emplace_back(message);
    }
    const char* domain_;
    guint id_ = 0;
    std::vector<std::string> messages_;
};

} // namespace

TEST(SnapshotPipeline, RefusesInvalidArgumentsWithTheirTextsAndCallsTheCallbackWithOne)
{
    SnapshotPipeline snapshot;
    struct Case {
        std::string location;
        uint32_t width, height, quality;
        std::string text;
    };
    const Case cases[] = {
        { "", 640, 480, 85, "cannot be created in location" },
        { "/tmp/a.jpg", 641, 480, 85, "cannot be created with specified size" },
        { "/tmp/a.jpg", 640, 481, 85, "cannot be created with specified size" },
        { "/tmp/a.jpg", 15, 240, 85, "cannot be created with specified size" },
        { "/tmp/a.jpg", 320, 15, 85, "cannot be created with specified size" },
        { "/tmp/a.jpg", 320, 240, 101, "quality parameter cannot exceed 10" },
        // The last fault found wins: size before quality.
        { "", 700, 240, 101, "quality parameter cannot exceed 10" },
        { "", 700, 240, 50, "cannot be created with specified size" },
    };
    for (const Case& c : cases) {
        std::string error;
        int status = -100;
        int result = snapshot.TakeSnapshotAsync(
            c.location, c.width, c.height, c.quality, false, [&](int s) { status = s; }, error);
        EXPECT_EQ(-1, result) << c.text;
        EXPECT_EQ(c.text, error);
        EXPECT_EQ(1, status) << c.text;
        EXPECT_FALSE(snapshot.IsInProgress());
    }
}

TEST(SnapshotPipeline, LogsTheRequestAtDebugPriority)
{
    LogCapture log;
    SnapshotPipeline snapshot;
    std::string error;
    snapshot.TakeSnapshotAsync("", 20, 30, 40, false, nullptr, error);
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot] Take snapshot async"));
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot]    location:"));
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot]    width:20, height:30, quality:40"));
}

TEST(SnapshotPipeline, WritesAJpegOfTheRequestedSizeAndReportsSuccess)
{
    GstTest::TempDir dir;
    const std::string path = dir.File("still.jpg");
    DescribedPipeline picture = LivePicture();
    ASSERT_TRUE(picture.Launch(false, true, false));
    ASSERT_EQ(0, picture.SetState(GST_STATE_PLAYING));

    SnapshotPipeline snapshot;
    ASSERT_TRUE(snapshot.Launch(false, true, false));
    ASSERT_TRUE(snapshot.ListenTo(&picture, "", ""));
    snapshot.SetState(GST_STATE_PLAYING, 0);

    std::vector<std::tuple<std::string, int, bool>> writes;
    snapshot.SetWriteActivityHandler([&](const std::string& location, uint8_t type, bool active) {
        writes.emplace_back(location, type, active);
    });
    std::vector<std::string> created;
    snapshot.signal_snapshot_created.connect([&](const std::string& file) { created.push_back(file); });

    std::string error;
    int status = -100;
    ASSERT_EQ(0,
        snapshot.TakeSnapshotAsync(
            path, 320, 240, 90, true, [&](int s) { status = s; }, error));
    EXPECT_TRUE(snapshot.IsInProgress());
    ASSERT_TRUE(RunMainLoopUntil([&] { return status != -100; }, 4000));
    EXPECT_EQ(0, status);
    EXPECT_FALSE(snapshot.IsInProgress());
    EXPECT_EQ("mjpeg,320,240", MediaTest::ProbeVideo(path));
    EXPECT_EQ(std::vector<std::string> { path }, created);
    ASSERT_EQ(2u, writes.size());
    EXPECT_EQ(std::make_tuple(path, 1, true), writes[0]);
    EXPECT_EQ(std::make_tuple(path, 1, false), writes[1]);

    // A second picture at a new size, without telling the storage daemon.
    const std::string second = dir.File("second.jpg");
    status = -100;
    ASSERT_EQ(0,
        snapshot.TakeSnapshotAsync(
            second, 640, 480, 60, false, [&](int s) { status = s; }, error));
    ASSERT_TRUE(RunMainLoopUntil([&] { return status != -100; }, 4000));
    EXPECT_EQ(0, status);
    EXPECT_EQ("mjpeg,640,480", MediaTest::ProbeVideo(second));
    EXPECT_EQ(2u, writes.size());
    MediaTest::Picture decoded = MediaTest::DecodeJpeg(MediaTest::ReadFile(second));
    EXPECT_EQ(640, decoded.width);
    EXPECT_GT(decoded.Mean(0), 200); // the live picture is red
    EXPECT_LT(decoded.Mean(2), 60);

    snapshot.SetState(GST_STATE_NULL);
    picture.SetState(GST_STATE_NULL);
}

TEST(SnapshotPipeline, RefusesASecondSnapshotWhileOneIsInProgressAndEndsTheFirstAfterFiveSeconds)
{
    LogCapture log;
    GstTest::TempDir dir;
    // No picture arrives, so the first snapshot can only end by its guard.
    SnapshotPipeline snapshot;
    ASSERT_TRUE(snapshot.Launch(false, true, false));
    snapshot.SetState(GST_STATE_PLAYING, 0);

    std::string error;
    int first = -100;
    ASSERT_EQ(0,
        snapshot.TakeSnapshotAsync(
            dir.File("never.jpg"), 640, 480, 85, false, [&](int s) { first = s; }, error));
    int second = -100;
    EXPECT_EQ(-2,
        snapshot.TakeSnapshotAsync(
            dir.File("other.jpg"), 640, 480, 85, false, [&](int s) { second = s; }, error));
    EXPECT_EQ("another snapshot in progress", error);
    EXPECT_EQ(1, second);
    EXPECT_EQ(-100, first);
    // Busy wins over argument faults.
    EXPECT_EQ(-2, snapshot.TakeSnapshotAsync("", 1000, 480, 85, false, nullptr, error));
    EXPECT_EQ("another snapshot in progress", error);

    ASSERT_TRUE(RunMainLoopUntil([&] { return first != -100; }, 7000));
    EXPECT_EQ(1, first);
    EXPECT_FALSE(snapshot.IsInProgress());
    EXPECT_TRUE(log.Contains(LOG_WARNING,
        "[Snapshot] Snapshot timeout, this should not happen unless there is some serious issue."));
    snapshot.SetState(GST_STATE_NULL);
}

TEST(SnapshotPipeline, KeepsTheQualityClampedButHandsTheEncoderTheValueAsGiven)
{
    SnapshotPipeline snapshot;
    ASSERT_TRUE(snapshot.Launch(false, false, false));
    EXPECT_EQ(85u, QualityFactor(snapshot));

    snapshot.SetJpegQuality(70);
    EXPECT_EQ(70u, snapshot.GetQuality());
    EXPECT_EQ(70u, QualityFactor(snapshot));

    GLibWarnings warnings("GLib-GObject");
    snapshot.SetJpegQuality(150);
    EXPECT_EQ(100u, snapshot.GetQuality());
    // The encoder here takes 1 to 100, so it rejects the raw value it was given.
    EXPECT_TRUE(warnings.Contains("150"));
    EXPECT_EQ(70u, QualityFactor(snapshot));
}

TEST(SnapshotPipeline, StoresSizeAndQualityEvenWithoutAPipelineAndLogsTheMissingElement)
{
    LogCapture log;
    SnapshotPipeline snapshot;
    snapshot.SetImageSize(320, 240);
    EXPECT_EQ(320u, snapshot.GetWidth());
    EXPECT_EQ(240u, snapshot.GetHeight());
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot] Set width = 320, height = 240"));
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::SnapshotPipeline::SetImageSize(uint32_t, uint32_t): pipeline == NULL "
        "(jpeg_image_caps)"));
    EXPECT_EQ(1u, log.Count(LOG_ERR, "Failed to get element"));

    // Unchanged values return before the lookup.
    snapshot.SetImageSize(320, 240);
    snapshot.SetJpegQuality(85);
    EXPECT_EQ(1u, log.Count(LOG_ERR, "Failed to get element"));
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot] Set quality = 85"));
}

TEST(SnapshotPipeline, SetsImageSizeCapsWithI420)
{
    SnapshotPipeline snapshot;
    ASSERT_TRUE(snapshot.Launch(false, false, false));
    snapshot.SetImageSize(160, 120);
    VideoDaemon::GstPtr<GstElement> filter = ElementOf(snapshot, "jpeg_image_caps");
    ASSERT_TRUE(filter);
    GstCaps* raw = nullptr;
    g_object_get(filter.get(), "caps", &raw, nullptr);
    VideoDaemon::GstCapsPtr caps(raw);
    VideoDaemon::GstCapsPtr expected(gst_caps_from_string("video/x-raw,format=I420,width=160,height=120"));
    EXPECT_TRUE(gst_caps_is_equal(caps.get(), expected.get()));
}

TEST(SnapshotPipeline, LetsAtMostTenBuffersThroughTheValve)
{
    LogCapture log;
    SnapshotPipeline snapshot;
    ASSERT_TRUE(snapshot.Launch(false, false, false));
    VideoDaemon::GstPtr<GstElement> valve = ElementOf(snapshot, "snapshot_valve");
    ASSERT_TRUE(valve);
    guint count = 99;
    snapshot.SetValveNumBuffers(10);
    g_object_get(valve.get(), "num-buffers-pass", &count, nullptr);
    EXPECT_EQ(10u, count);
    snapshot.SetValveNumBuffers(11);
    g_object_get(valve.get(), "num-buffers-pass", &count, nullptr);
    EXPECT_EQ(10u, count);
    EXPECT_TRUE(log.Contains(LOG_ERR, "[SnapshotPipeline] Max allowed buffers to set is 10"));
}

TEST(SnapshotPipelineDeathTest, EndsTheProcessWhenTheLocationCannotBeSet)
{
    GstTest::UseFreshProcessDeathTests();
    EXPECT_DEATH(
        {
            SnapshotPipeline snapshot;
            snapshot.SetLocation("/tmp/x.jpg");
        },
        "src/pipelines/snapshot_pipeline.cpp:131:.*assertion failed: \\(element\\)");
}

TEST(SnapshotPipeline, JudgesTheSinksAnnouncementsAgainstTheRequestedFile)
{
    GstTest::TempDir dir;
    const std::string path = dir.File("wanted.jpg");
    SnapshotPipeline snapshot;
    ASSERT_TRUE(snapshot.Launch(false, false, false));
    VideoDaemon::GstPtr<GstElement> sink = ElementOf(snapshot, "snapshotSink");
    VideoDaemon::GstPtr<GstElement> valve = ElementOf(snapshot, "snapshot_valve");
    ASSERT_TRUE(sink && valve);
    auto announce = [&](const char* source, const std::string& filename) {
        VideoDaemon::GstMessagePtr message(gst_message_new_element(GST_OBJECT(sink.get()),
            gst_structure_new("GstMultiFileSink", "filename", G_TYPE_STRING, filename.c_str(), nullptr)));
        snapshot.OnElementMessage(source, message.get());
    };
    std::vector<std::string> created;
    snapshot.signal_snapshot_created.connect([&](const std::string& file) { created.push_back(file); });
    std::string error;
    int status = -100;
    auto start = [&] {
        status = -100;
        ASSERT_EQ(0,
            snapshot.TakeSnapshotAsync(
                path, 640, 480, 85, false, [&](int s) { status = s; }, error));
        guint open = 0;
        g_object_get(valve.get(), "num-buffers-pass", &open, nullptr);
        EXPECT_EQ(1u, open);
    };

    // Another element, or another file, is not the snapshot.
    start();
    announce("somethingElse", path);
    EXPECT_EQ(-100, status);
    announce("snapshotSink", dir.File("other.jpg"));
    EXPECT_EQ(1, status);

    // The requested file, but empty.
    start();
    ASSERT_TRUE(MediaTest::WriteJpeg(path, 64, 48, "black"));
    std::filesystem::resize_file(path, 0);
    announce("snapshotSink", path);
    EXPECT_EQ(1, status);
    EXPECT_TRUE(created.empty());

    // The requested file, named another way.
    start();
    ASSERT_TRUE(MediaTest::WriteJpeg(path, 64, 48, "black"));
    announce("snapshotSink", dir.File(".//wanted.jpg"));
    EXPECT_EQ(0, status);
    EXPECT_EQ(1u, created.size());

    // With nothing in progress, an announcement closes the valve.
    announce("snapshotSink", path);
    guint open = 99;
    g_object_get(valve.get(), "num-buffers-pass", &open, nullptr);
    EXPECT_EQ(0u, open);
    EXPECT_EQ(1u, created.size());
}
