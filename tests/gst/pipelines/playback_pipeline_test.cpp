// The playback pipeline on a file the tests record: opening paused, rates, seeks, end of stream and the final
// report.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "media_test_support.h"
#include "pipeline_harness.h"
#include "pipelines/playback_pipeline.h"

using PipelineHarness::ElementOf;
using PipelineHarness::RunMainLoopFor;
using PipelineHarness::RunMainLoopUntil;
using VideoDaemon::PlaybackPipeline;

namespace
{

// Three seconds of H.264 with a key frame every half second, AAC stereo, and the thumbnail that the
// capture took when it started.
const std::string& RecordingPath()
{
    static GstTest::TempDir dir;
    static const std::string path = [] {
        const std::string file = dir.File("clip.mp4");
        EXPECT_TRUE(MediaTest::RunToEnd("mp4mux name=mux ! filesink location=\"" + file
            + "\" videotestsrc num-buffers=90 pattern=ball ! video/x-raw,width=320,height=240,framerate=30/1"
              " ! x264enc key-int-max=15 speed-preset=ultrafast ! h264parse ! mux. audiotestsrc "
              "num-buffers=141 samplesperbuffer=1024 ! audio/x-raw,rate=48000,channels=2 ! avenc_aac "
              "! aacparse ! mux."));
        EXPECT_TRUE(MediaTest::WriteJpeg(file + "-thumb.jpg", 320, 240, "snow"));
        return file;
    }();
    return path;
}

struct Report {
    void* user_data;
    bool error, eos;
    double rate;
    int64_t position, duration;
};

// Every progress report the pipeline makes.
struct Reports {
    std::vector<Report> all;

    VideoDaemon::playback_callback_t Callback()
    {
        return
            [this](void* user_data, bool error, bool eos, double rate, int64_t position, int64_t duration) {
                all.push_back({ user_data, error, eos, rate, position, duration });
            };
    }
    size_t EndReports() const
    {
        return static_cast<size_t>(
            std::count_if(all.begin(), all.end(), [](const Report& r) { return r.eos; }));
    }
};

// The seeks that reach the video sink, seen on its pad as they go upstream.
class SeekWatch : public GstTest::PadProbe
{
public:
    struct Seek {
        double rate;
        int flags;
        gint64 start, stop;
    };

    explicit SeekWatch(PlaybackPipeline& playback)
        : PadProbe(ElementOf(playback, "fake-display").get(), "sink")
    {
        Install(GST_PAD_PROBE_TYPE_EVENT_UPSTREAM);
    }
    ~SeekWatch() override { Remove(); }

    std::vector<Seek> Taken()
    {
        std::unique_lock<std::mutex> lock = Lock();
        return std::exchange(seeks_, {});
    }

private:
    GstPadProbeReturn Handle(GstPadProbeInfo* info) override
    {
        GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
        if (GST_EVENT_TYPE(event) != GST_EVENT_SEEK)
            return GST_PAD_PROBE_OK;
        Seek seek {};
        GstFormat format;
        GstSeekFlags flags;
        GstSeekType type;
        gst_event_parse_seek(event, &seek.rate, &format, &flags, &type, &seek.start, &type, &seek.stop);
        seek.flags = flags;
        seeks_.push_back(seek);
        return GST_PAD_PROBE_OK;
    }

    std::vector<Seek> seeks_;
};

// A launched playback pipeline, with fakes for the display's sinks.
class PlaybackTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(playback.Launch(false, true, false)); }
    void TearDown() override { playback.SetState(GST_STATE_NULL, 0); }

    // Waits (bounded) until a flushing seek has prerolled again, as a user would before the next seek.
    void Settle()
    {
        gst_element_get_state(GST_ELEMENT(playback.GetPipeline()), nullptr, nullptr, 2 * GST_SECOND);
    }

    LogCapture log;
    PlaybackPipeline playback { false };
    Reports reports;
};

} // namespace

// Idle, rates and seeks are ignored; a rewind from the start is refused; opened at rate zero the file is
// paused with its thumbnail shown and reported; the rate chooses the seek's flags; seeks are clamped to
// the file; pause toggles.
TEST_F(PlaybackTest, OpensPausedAtRateZeroAndSeeksWithTheFlagsOfTheRateClampedToTheFile)
{
    EXPECT_EQ(0, playback.SetRate(4.0));
    EXPECT_EQ(0, playback.Seek(1000));
    EXPECT_TRUE(
        log.Contains(LOG_WARNING, "[PlaybackPipeline::SetRate] not playing or paused, so ignoring\n"));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[PlaybackPipeline::Seek] not playing or paused, so ignoring\n"));
    EXPECT_EQ(-1, playback.TogglePause());

    Reports refused;
    EXPECT_EQ(-1, playback.Play(RecordingPath(), -2.0, refused.Callback(), 50, nullptr));
    EXPECT_TRUE(log.Contains(LOG_ERR, "[Playback] can't rewind from start of file\n"));
    EXPECT_EQ(GST_STATE_NULL, playback.GetState());

    int marker = 0;
    ASSERT_EQ(0, playback.Play(RecordingPath(), 0.0, reports.Callback(), 50, &marker));
    EXPECT_EQ(GST_STATE_PAUSED, playback.GetState());
    EXPECT_TRUE(log.ContainsText("[Playback]: PLAY _Uri: file://"));
    EXPECT_TRUE(log.Contains(LOG_INFO,
        "int VideoDaemon::PlaybackPipeline::Play(std::__cxx11::string, gdouble, "
        "VideoDaemon::playback_callback_t, guint, void*): Playing JPEG: "
            + RecordingPath() + "-thumb.jpg"));
    ASSERT_TRUE(RunMainLoopUntil([&] { return reports.all.size() >= 3 && reports.all.back().duration > 0; }));
    RunMainLoopFor(200);
    EXPECT_TRUE(refused.all.empty());
    EXPECT_EQ(GST_STATE_PAUSED, playback.GetState());
    const Report last = reports.all.back();
    EXPECT_EQ(&marker, last.user_data);
    EXPECT_FALSE(last.eos || last.error);
    EXPECT_EQ(0, last.position);
    EXPECT_NEAR(3000, last.duration, 100);
    EXPECT_EQ("", playback.GetCurrentFile());
    bool active = false, eos = true, error = true;
    double rate = -1;
    int64_t position = -1, duration = -1;
    EXPECT_EQ(0, playback.GetPlaybackStatus(active, eos, error, rate, position, duration));
    EXPECT_TRUE(active);
    EXPECT_FALSE(eos || error);
    EXPECT_EQ(last.duration, duration);
    // A second Play is refused while the timer still runs.
    EXPECT_EQ(-1, playback.Play(RecordingPath(), 1.0, reports.Callback(), 50, nullptr));
    EXPECT_TRUE(log.Contains(LOG_ERR, "[Playback] still not done state=3 timer active = 1\n"));

    // Opened paused, the file has no rate to seek at yet.
    SeekWatch watch(playback);
    EXPECT_EQ(-1, playback.Seek(1000));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[Playback] failed to send seek event to set position\n"));
    EXPECT_TRUE(watch.Taken().empty());

    // Rewind plays from the current position back to the start.
    const struct {
        double rate;
        int flags;
        const char* log;
    } rates[] = {
        { 0.5, 53, "FAST FORWARD (SLOW)" },
        { 2.0, 53, "FAST FORWARD (SLOW)" },
        { 4.0, 437, "FAST FORWARD (FAST)" },
        { 8.0, 437, "FAST FORWARD (FAST)" },
        { -2.0, 437, "REWIND" },
        { 1.0, 3, "NORMAL PLAYBACK" },
    };
    for (const auto& row : rates) {
        log.Clear();
        EXPECT_EQ(0, playback.SetRate(row.rate)) << row.rate;
        std::vector<SeekWatch::Seek> seeks = watch.Taken();
        ASSERT_EQ(1u, seeks.size()) << row.rate;
        EXPECT_EQ(row.flags, seeks[0].flags) << row.rate;
        EXPECT_EQ(row.rate, seeks[0].rate);
        if (row.rate > 0) {
            EXPECT_EQ(-1, seeks[0].stop) << row.rate;
        } else {
            EXPECT_EQ(0, seeks[0].start);
            EXPECT_GE(seeks[0].stop, 0);
        }
        EXPECT_DOUBLE_EQ(row.rate, playback.GetRate());
        EXPECT_TRUE(log.Contains(
            LOG_INFO, std::string("int VideoDaemon::PlaybackPipeline::_SetRate(gdouble): ") + row.log))
            << row.rate;
        Settle();
    }
    EXPECT_EQ(-1, playback.SetRate(0.0));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[Playback] failed to set rate to paused\n"));
    EXPECT_TRUE(watch.Taken().empty());
    EXPECT_EQ(1.0, playback.GetRate());

    const std::pair<int64_t, int64_t> seeks[]
        = { { 1000, 1000 }, { -10 * 60 * 1000, 0 }, { 10 * 60 * 1000, last.duration } };
    for (const auto& [offset, start] : seeks) {
        EXPECT_EQ(0, playback.Seek(offset));
        std::vector<SeekWatch::Seek> taken = watch.Taken();
        ASSERT_EQ(1u, taken.size()) << offset;
        EXPECT_EQ(start * static_cast<gint64>(GST_MSECOND), taken[0].start) << offset;
        EXPECT_EQ(3, taken[0].flags);
        EXPECT_EQ(-1, taken[0].stop);
        Settle();
    }

    for (GstState expected : { GST_STATE_PLAYING, GST_STATE_PAUSED }) {
        EXPECT_EQ(0, playback.TogglePause());
        EXPECT_EQ(expected, playback.GetState());
    }
}

// On the display's sinks a file plays to its end and reports its duration as the position; played again
// and stopped, the pipeline reports once more, at the end; without a callback it logs each tick instead.
TEST(PlaybackOnTheDisplay, ReportsTheDurationAsPositionAtTheEndAndExactlyOneFinalReportAfterStop)
{
    LogCapture log;
    PlaybackPipeline playback(true);
    Reports reports;
    ASSERT_TRUE(playback.Launch(false, true, false));
    ASSERT_EQ(0, playback.Play(RecordingPath(), 1.0, reports.Callback(), 100, nullptr));
    // The playbin takes its sinks in once it opens the file.
    VideoDaemon::GstPtr<GstElement> display = ElementOf(playback, "imx-ipu-display");
    ASSERT_TRUE(display);
    gint rotation = 0;
    gboolean vsync = FALSE, sync = FALSE;
    g_object_get(display.get(), "output-rotation", &rotation, "use-vsync", &vsync, "sync", &sync, nullptr);
    EXPECT_EQ(5, rotation);
    EXPECT_TRUE(vsync && sync);
    EXPECT_TRUE(ElementOf(playback, "alsa-speaker"));
    EXPECT_EQ(RecordingPath(), playback.GetCurrentFile());
    EXPECT_FALSE(log.ContainsText("Playing JPEG"));
    ASSERT_TRUE(RunMainLoopUntil([&] { return reports.EndReports() > 0; }, 8000));
    RunMainLoopFor(400);
    ASSERT_EQ(1u, reports.EndReports());
    const Report& end = reports.all.back();
    EXPECT_TRUE(end.eos);
    EXPECT_FALSE(end.error);
    EXPECT_DOUBLE_EQ(1.0, end.rate);
    EXPECT_NEAR(3000, end.duration, 100);
    EXPECT_EQ(end.duration, end.position);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Playback] End Of Stream\n"));
    EXPECT_EQ(GST_STATE_NULL, playback.GetState());
    guint64 shown = 0;
    g_object_get(display.get(), "frames-shown", &shown, nullptr);
    EXPECT_GT(shown, 60u);

    // Idle again: the file plays once more, and is stopped.
    reports.all.clear();
    ASSERT_EQ(0, playback.Play(RecordingPath(), 1.0, reports.Callback(), 50, nullptr));
    ASSERT_TRUE(RunMainLoopUntil([&] { return reports.all.size() >= 4; }));
    playback.Stop();
    EXPECT_EQ("", playback.GetCurrentFile());
    EXPECT_EQ(GST_STATE_NULL, playback.GetState());
    ASSERT_TRUE(RunMainLoopUntil([&] { return reports.EndReports() > 0; }));
    const size_t count = reports.all.size();
    RunMainLoopFor(400);
    EXPECT_EQ(count, reports.all.size());
    EXPECT_EQ(1u, reports.EndReports());
    EXPECT_TRUE(reports.all.back().eos);
    EXPECT_EQ(reports.all.back().duration, reports.all.back().position);
    EXPECT_TRUE(log.Contains(LOG_INFO, "void VideoDaemon::PlaybackPipeline::Stop()"));
    // With the timer already ended, Stop reports at once.
    playback.Stop();
    EXPECT_EQ(2u, reports.EndReports());
    EXPECT_EQ(count + 1, reports.all.size());

    ASSERT_EQ(0, playback.Play(RecordingPath(), 0.0, nullptr, 50, nullptr));
    const std::string line
        = "static gboolean VideoDaemon::PlaybackPipeline::_UpdateTimerCb(gpointer) _UpdateCb == NULL\n";
    ASSERT_TRUE(RunMainLoopUntil([&] { return log.Count(LOG_INFO, line) >= 2; }));
    playback.Stop();
    ASSERT_TRUE(RunMainLoopUntil([&] { return playback.GetState() == GST_STATE_NULL; }));
    const size_t ticks = log.Count(LOG_INFO, line);
    RunMainLoopFor(300);
    // The tick after Stop was the last one.
    EXPECT_LE(log.Count(LOG_INFO, line), ticks + 1);
    EXPECT_EQ(2u, reports.EndReports());
    playback.SetState(GST_STATE_NULL, 0);
}
