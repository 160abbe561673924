// The streamer's storage watch: growth reported in 1 MiB steps with the near-limit flag, the three kinds in
// order, and every mounted device's capture writes marked inactive at start-up.
#include "dbus/dbus_test_env.h"
#include "pipelines/mp4mux_pipeline.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

struct Growth {
    std::string name;
    std::string file;
    bool near_limit;
    bool operator==(const Growth& other) const
    {
        return name == other.name && file == other.file && near_limit == other.near_limit;
    }
};

class OrbStreamerStorage : public VideodTest::DbusTestEnv, public StreamerFixture
{
protected:
    void SetUp() override
    {
        DbusTestEnv::SetUp();
        streamer.InitializePipelines();
        streamer.SetMaximumFilesize(100ull << 20);
        streamer.signal_file_grew.connect([this](std::string name, std::string file, bool near) {
            grew.push_back({ name, file, near });
        });
    }

    // Opens a file on the muxer at `index` as a capture start does.
    Mp4muxPipeline& Open(int index, const std::string& file)
    {
        auto& muxer = static_cast<Mp4muxPipeline&>(At(index));
        muxer.OpenRecord(file);
        return muxer;
    }

    // Passes `bytes` through the muxer's byte counter, as written buffers do.
    static void Write(Mp4muxPipeline& muxer, uint64_t bytes)
    {
        const std::string tracker = muxer.GetName().substr(0, muxer.GetName().find('_')) + "_mp4mux_tracker";
        GstPtr<GstElement> element = muxer.FindElement(VIDEOD_FUNCTION, tracker);
        ASSERT_TRUE(element) << tracker;
        GstBufferPtr buffer(gst_buffer_new_allocate(nullptr, bytes, nullptr));
        g_signal_emit_by_name(element.get(), "handoff", buffer.get());
    }

    std::vector<Growth> grew;
};

TEST_F(OrbStreamerStorage, GrowthIsReportedInWholeMebibyteStepsNearTheLimitFromTheMarginOnVideoFirst)
{
    Mp4muxPipeline& video = Open(kMp4muxVideoIndex, "/media/sd/video.mp4");
    Write(video, 900 * 1024);
    streamer.PeriodicFileWatcher();
    EXPECT_TRUE(grew.empty());
    Write(video, 1048576 - 900 * 1024);
    streamer.PeriodicFileWatcher();
    streamer.PeriodicFileWatcher();
    EXPECT_EQ((std::vector<Growth> { { "VideoGrew", "/media/sd/video.mp4", false } }), grew);
    EXPECT_TRUE(log.Contains(LOG_INFO,
        "PeriodicFileWatcher - Video capture /media/sd/video.mp4 size 1MiB.  Near size limit: False"));

    // 97 MiB and the 2100 KiB margin stay below 100 MiB; 98 MiB does not.
    Write(video, 96ull << 20);
    streamer.PeriodicFileWatcher();
    Write(video, 1ull << 20);
    streamer.PeriodicFileWatcher();
    ASSERT_EQ(3u, grew.size());
    EXPECT_FALSE(grew[1].near_limit);
    EXPECT_TRUE(grew[2].near_limit);
    EXPECT_TRUE(log.Contains(LOG_INFO,
        "PeriodicFileWatcher - Video capture /media/sd/video.mp4 size 98MiB.  Near size limit: True"));

    // Three growing captures are reported independently in one tick, video first.
    Mp4muxPipeline& autolog = Open(kMp4muxAutologIndex, "/media/sd/autolog.mp4");
    Mp4muxPipeline& snapvoice = Open(kSnapvoiceIndex, "/media/sd/snapvoice.mp4");
    Write(autolog, 3ull << 20);
    Write(snapvoice, 2ull << 20);
    Write(video, 1ull << 20);
    streamer.PeriodicFileWatcher();
    EXPECT_EQ((std::vector<Growth> { { "VideoGrew", "/media/sd/video.mp4", true },
                  { "SnapVoiceGrew", "/media/sd/snapvoice.mp4", false },
                  { "AutoLogGrew", "/media/sd/autolog.mp4", false } }),
        std::vector<Growth>(grew.begin() + 3, grew.end()));
    EXPECT_TRUE(log.Contains(LOG_INFO,
        "PeriodicFileWatcher - snapVoice /media/sd/snapvoice.mp4 size 2MiB.  Near size limit: False"));
    EXPECT_TRUE(log.Contains(
        LOG_INFO, "PeriodicFileWatcher - autolog /media/sd/autolog.mp4 size 3MiB.  Near size limit: False"));
    for (Mp4muxPipeline* muxer : { &autolog, &snapvoice, &video })
        muxer->CloseRecord(false);
}

TEST_F(OrbStreamerStorage, StartUpMarksEveryMountedDevicesCaptureWritesInactive)
{
    // Without the storage daemon only its client's failure is logged.
    streamer.RegisterStorageWritesInactive();
    EXPECT_TRUE(log.ContainsText(LOG_ERR, "Storage.GetStorageObjectPaths() failed"));
    EXPECT_FALSE(log.Contains(LOG_INFO, "[Streamer] GetStorageObjectPaths returned:"));

    ASSERT_TRUE(StartPeer("storage", { "sd=" + TempDir(), "usb=" + TempDir() })) << LastError();
    log.Clear();
    streamer.RegisterStorageWritesInactive();
    const std::vector<std::string> lines = LinesStartingWith(log, LOG_INFO, "");
    const std::vector<std::string> expected {
        "[Streamer] Register autolog, snapVoice and video writes inactive "
        "for all mounted storage devices.",
        "[Streamer] GetStorageObjectPaths returned:", "/com/tarnwell/common/StorageDaemon1/sd.",
        "/com/tarnwell/common/StorageDaemon1/usb."
    };
    EXPECT_EQ(expected,
        std::vector<std::string>(lines.begin(), lines.begin() + std::min(lines.size(), expected.size())));
    for (const char* device : { "sd", "usb" })
        EXPECT_EQ("as 4 \"2:false\" \"3:false\" \"4:false\" \"1:false\"",
            Get("com.tarnwell.common.StorageDaemon1",
                std::string("/com/tarnwell/common/StorageDaemon1/") + device, "com.tarnwell.host.Simulation",
                "WriteActiveCalls"))
            << device;
}

} // namespace
