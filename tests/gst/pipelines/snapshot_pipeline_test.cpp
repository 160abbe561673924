// The snapshot pipeline: argument checks, one snapshot at a time, written files and the guard timer.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "live_stream.h"
#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/snapshot_pipeline.h"
#include "support/death_test_style.h"

using PipelineHarness::ElementOf;
using PipelineHarness::PropertyOf;
using PipelineHarness::RunMainLoopUntil;
using VideoDaemon::SnapshotPipeline;

namespace
{

// Collects the GObject warnings while it lives.
class GObjectWarnings
{
public:
    GObjectWarnings()
        : id_(g_log_set_handler("GLib-GObject", G_LOG_LEVEL_WARNING, &GObjectWarnings::Handle, this))
    {
    }
    ~GObjectWarnings() { g_log_remove_handler("GLib-GObject", id_); }
    std::string text;

private:
    static void Handle(const gchar*, GLogLevelFlags, const gchar* message, gpointer self)
    {
        static_cast<GObjectWarnings*>(self)->text += message;
    }
    guint id_;
};

} // namespace

// Without a picture: argument checks, settings before and after the launch, one snapshot at a time with
// its guard, and the sink's announcements judged against the requested file.
TEST(SnapshotPipeline, ChecksItsArgumentsAndSettingsTakesOneSnapshotAtATimeAndJudgesTheSinksAnnouncements)
{
    LogCapture log;
    GstTest::TempDir dir;
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
        EXPECT_EQ(-1,
            snapshot.TakeSnapshotAsync(
                c.location, c.width, c.height, c.quality, false, [&](int s) { status = s; }, error))
            << c.width << "x" << c.height;
        EXPECT_EQ(c.text, error) << c.width << "x" << c.height;
        EXPECT_EQ(1, status) << c.width << "x" << c.height;
        EXPECT_FALSE(snapshot.IsInProgress());
    }
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot] Take snapshot async"));
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot]    location:"));
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot]    width:640, height:480, quality:85"));

    snapshot.SetImageSize(320, 240);
    EXPECT_EQ(320u, snapshot.GetWidth());
    EXPECT_EQ(240u, snapshot.GetHeight());
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot] Set width = 320, height = 240"));
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::SnapshotPipeline::SetImageSize(uint32_t, uint32_t): pipeline == NULL "
        "(jpeg_image_caps)"));
    // Unchanged values return before the lookup.
    snapshot.SetImageSize(320, 240);
    snapshot.SetJpegQuality(85);
    EXPECT_EQ(1u, log.Count(LOG_ERR, "Failed to get element"));
    EXPECT_TRUE(log.Contains(LOG_DEBUG, "[Snapshot] Set quality = 85"));

    ASSERT_TRUE(snapshot.Launch(false, true, false));
    EXPECT_EQ(85u, (PropertyOf<guint>(snapshot, "jpeg_encoder", "quality-factor")));
    snapshot.SetJpegQuality(70);
    EXPECT_EQ(70u, (PropertyOf<guint>(snapshot, "jpeg_encoder", "quality-factor")));
    {
        // The stored quality is clamped, but the encoder is handed the raw
        // value, which it (taking 1 to 100) rejects.
        GObjectWarnings warnings;
        snapshot.SetJpegQuality(150);
        EXPECT_EQ(100u, snapshot.GetQuality());
        EXPECT_NE(std::string::npos, warnings.text.find("150")) << warnings.text;
        EXPECT_EQ(70u, (PropertyOf<guint>(snapshot, "jpeg_encoder", "quality-factor")));
    }

    snapshot.SetImageSize(160, 120);
    VideoDaemon::GstCapsPtr caps(PropertyOf<GstCaps*>(snapshot, "jpeg_image_caps", "caps"));
    VideoDaemon::GstCapsPtr expected(gst_caps_from_string("video/x-raw,format=I420,width=160,height=120"));
    EXPECT_TRUE(gst_caps_is_equal(caps.get(), expected.get()));

    snapshot.SetValveNumBuffers(10);
    EXPECT_EQ(10u, (PropertyOf<guint>(snapshot, "snapshot_valve", "num-buffers-pass")));
    snapshot.SetValveNumBuffers(11);
    EXPECT_EQ(10u, (PropertyOf<guint>(snapshot, "snapshot_valve", "num-buffers-pass")));
    EXPECT_TRUE(log.Contains(LOG_ERR, "[SnapshotPipeline] Max allowed buffers to set is 10"));

    // No picture arrives, so the first snapshot can only end by its guard.
    snapshot.SetState(GST_STATE_PLAYING, 0);

    std::string error;
    int first = -100;
    const auto started = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration waited {};
    ASSERT_EQ(0,
        snapshot.TakeSnapshotAsync(
            dir.File("never.jpg"), 640, 480, 85, false,
            [&](int s) {
                first = s;
                waited = std::chrono::steady_clock::now() - started;
            },
            error));
    int second = -100;
    EXPECT_EQ(-2,
        snapshot.TakeSnapshotAsync(
            dir.File("other.jpg"), 640, 480, 85, false, [&](int s) { second = s; }, error));
    EXPECT_EQ("another snapshot in progress", error);
    EXPECT_EQ(1, second);
    EXPECT_EQ(-100, first);
    // Busy wins over argument faults.
    error.clear();
    EXPECT_EQ(-2, snapshot.TakeSnapshotAsync("", 1000, 480, 85, false, nullptr, error));
    EXPECT_EQ("another snapshot in progress", error);

    ASSERT_TRUE(RunMainLoopUntil([&] { return first != -100; }, 7000));
    EXPECT_EQ(1, first);
    EXPECT_GE(waited, std::chrono::seconds(5))
        << "the guard ends the snapshot after five seconds, not before";
    EXPECT_FALSE(snapshot.IsInProgress());
    EXPECT_TRUE(log.Contains(LOG_WARNING,
        "[Snapshot] Snapshot timeout, this should not happen unless there is some serious issue."));

    const std::string path = dir.File("wanted.jpg");
    VideoDaemon::GstPtr<GstElement> sink = ElementOf(snapshot, "snapshotSink");
    ASSERT_TRUE(sink);
    auto announce = [&](const char* source, const std::string& filename) {
        VideoDaemon::GstMessagePtr message(gst_message_new_element(GST_OBJECT(sink.get()),
            gst_structure_new("GstMultiFileSink", "filename", G_TYPE_STRING, filename.c_str(), nullptr)));
        snapshot.OnElementMessage(source, message.get());
    };
    auto valve_open = [&] { return PropertyOf<guint>(snapshot, "snapshot_valve", "num-buffers-pass"); };
    std::vector<std::string> created;
    snapshot.signal_snapshot_created.connect([&](const std::string& file) { created.push_back(file); });
    int status = -100;
    auto start = [&] {
        status = -100;
        ASSERT_EQ(0,
            snapshot.TakeSnapshotAsync(
                path, 640, 480, 85, false, [&](int s) { status = s; }, error));
        EXPECT_EQ(1u, valve_open());
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
    EXPECT_EQ(0u, valve_open());
    EXPECT_EQ(1u, created.size());
}

TEST(SnapshotPipeline, WritesAJpegOfTheRequestedSizeAndReportsSuccess)
{
    GstTest::TempDir dir;
    PipelineHarness::DescribedPipeline picture = LivePicture("red", "snapshot_test_picture");
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

    // The second picture has a new size and does not tell the storage daemon.
    const std::tuple<std::string, uint32_t, uint32_t, uint32_t, bool> requests[]
        = { { dir.File("still.jpg"), 320, 240, 90, true }, { dir.File("second.jpg"), 640, 480, 60, false } };
    for (const auto& [path, width, height, quality, notify] : requests) {
        std::string error;
        int status = -100;
        // The callback hears first, while the snapshot still counts as in
        // progress; the storage daemon hears of the write's end after it.
        bool in_progress_at_callback = false;
        size_t writes_at_callback = 0;
        auto callback = [&](int s) {
            status = s;
            in_progress_at_callback = snapshot.IsInProgress();
            writes_at_callback = writes.size();
        };
        ASSERT_EQ(0, snapshot.TakeSnapshotAsync(path, width, height, quality, notify, callback, error));
        EXPECT_TRUE(snapshot.IsInProgress());
        ASSERT_TRUE(RunMainLoopUntil([&] { return status != -100; }, 4000)) << path;
        EXPECT_EQ(0, status) << path;
        EXPECT_TRUE(in_progress_at_callback) << path;
        EXPECT_EQ(notify ? 1u : writes.size(), writes_at_callback) << path;
        EXPECT_FALSE(snapshot.IsInProgress());
        EXPECT_EQ(path, created.back());
        MediaTest::Picture decoded = MediaTest::DecodeJpeg(MediaTest::ReadFile(path));
        EXPECT_EQ(static_cast<int>(width), decoded.width) << path;
        EXPECT_EQ(static_cast<int>(height), decoded.height) << path;
        EXPECT_GT(decoded.Mean(0), 200) << path; // the live picture is red
        EXPECT_LT(decoded.Mean(2), 60) << path;
    }
    const std::string first = std::get<0>(requests[0]);
    EXPECT_EQ(2u, created.size());
    EXPECT_EQ((std::vector<std::tuple<std::string, int, bool>> { { first, 1, true }, { first, 1, false } }),
        writes);

    snapshot.SetState(GST_STATE_NULL);
    picture.SetState(GST_STATE_NULL);
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
