// OverlayModel on real overlay pipelines: documents handed over only when their content changed, the clock
// redrawn at most once a second, the mode switching the elements, and the user text on rendered frames.
#include "overlay/overlay_model.h"

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

#include "../pipelines/interpipe_frames.h"
#include "../pipelines/pipeline_harness.h"
#include "log_capture.h"
#include "pipelines/overlay_pipeline.h"

using PipelineHarness::ElementOf;
using VideoDaemon::GstPtr;
using VideoDaemon::OverlayModel;
using VideoDaemon::OverlayPipeline;

namespace
{

// 2023-11-14 22:13:20 UTC.
constexpr std::time_t kNow = 1700000000;

const char kDropWarning[] = "void VideoDaemon::OverlayPipeline::UpdateSvgData(std::__cxx11::string&): "
                            "Reached maximum SVG buffers, drop svg";

std::string TemplateDir()
{
    const char* source = std::getenv("VIDEOD_SOURCE_DIR");
    return std::string(source ? source : ".") + "/data/overlay";
}

bool Holds(const std::string& document, const std::string& fragment)
{
    return document.find(fragment) != std::string::npos;
}

// Every document an overlay pipeline's element receives, in order.
class DocumentLog
{
public:
    explicit DocumentLog(OverlayPipeline& overlay)
        : _Element(ElementOf(overlay, "svg_overlay"))
    {
        EXPECT_TRUE(_Element);
        if (_Element)
            _Handler
                = g_signal_connect(_Element.get(), "notify::data", G_CALLBACK(&DocumentLog::OnData), this);
    }
    ~DocumentLog()
    {
        if (_Handler)
            g_signal_handler_disconnect(_Element.get(), _Handler);
    }
    DocumentLog(const DocumentLog&) = delete;
    DocumentLog& operator=(const DocumentLog&) = delete;

    // Waits (bounded) until the last document received holds `fragment`.
    bool WaitForLast(const std::string& fragment)
    {
        std::unique_lock<std::mutex> lock(_Mutex);
        return _Changed.wait_for(lock, std::chrono::seconds(5),
            [&] { return !_Documents.empty() && Holds(_Documents.back(), fragment); });
    }
    std::vector<std::string> Documents() const
    {
        std::lock_guard<std::mutex> lock(_Mutex);
        return _Documents;
    }

private:
    // On the render thread.
    static void OnData(GObject* element, GParamSpec*, gpointer user_data)
    {
        auto* self = static_cast<DocumentLog*>(user_data);
        VideoDaemon::GCharPtr data;
        {
            gchar* text = nullptr;
            g_object_get(element, "data", &text, nullptr);
            data.reset(text);
        }
        std::lock_guard<std::mutex> lock(self->_Mutex);
        self->_Documents.emplace_back(data ? data.get() : "");
        self->_Changed.notify_all();
    }

    GstPtr<GstElement> _Element;
    gulong _Handler = 0;
    mutable std::mutex _Mutex;
    std::condition_variable _Changed;
    std::vector<std::string> _Documents;
};

bool OverlayEnabled(OverlayPipeline& overlay)
{
    gboolean enabled = FALSE;
    g_object_get(ElementOf(overlay, "svg_overlay").get(), "enabled", &enabled, nullptr);
    return enabled;
}

class OverlayModelOnPipelinesTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_TRUE(display.Launch(false, false, false));
        ASSERT_TRUE(recording.Launch(false, false, false));
    }

    LogCapture log;
    OverlayPipeline display { "display" };
    OverlayPipeline recording { "recording" };
};

// The frame checks: 160x120 mid-grey frames, the overlay canvas (640x480) a quarter of it.
constexpr int kWidth = 160;
constexpr int kHeight = 120;

std::vector<uint8_t> GreyFrame()
{
    std::vector<uint8_t> frame(static_cast<size_t>(kWidth) * kHeight * 4, 128);
    for (size_t alpha = 3; alpha < frame.size(); alpha += 4)
        frame[alpha] = 255;
    return frame;
}

// Canvas (160, 200): four capital Ms of 120 units, drawn 1.2 em lower, so
// their glyphs fill frame rows 64 to 86 from column 40 on.
const OverlayModel::UserText kMarks { 160, 200, "MMMM", 120, "" };

struct Region {
    int x0, y0, x1, y1;
};
constexpr Region kUserTextRegion { 44, 68, 150, 84 };
// The date and time, 20 units high in the top-left corner.
constexpr Region kDateTimeRegion { 2, 2, 60, 9 };

// Pixels of `region` that are no longer the input's grey.
int Ink(const std::vector<uint8_t>& frame, const Region& region)
{
    int inked = 0;
    for (int y = region.y0; y < region.y1; y++) {
        for (int x = region.x0; x < region.x1; x++) {
            const Rgba p = PixelAt(frame, kWidth, x, y);
            if (std::abs(p.r - 128) > 60 || std::abs(p.g - 128) > 60 || std::abs(p.b - 128) > 60)
                inked++;
        }
    }
    return inked;
}

// Both overlays running on one grey input, each published to a consumer.
class OverlayModelFramesTest : public OverlayModelOnPipelinesTest
{
protected:
    void SetUp() override
    {
        OverlayModelOnPipelinesTest::SetUp();
        for (OverlayPipeline* overlay : { &display, &recording }) {
            GstPtr<GstElement> source = ElementOf(*overlay, overlay->GetSourceName());
            ASSERT_TRUE(source);
            g_object_set(source.get(), "listen-to", "overlay_model_input", nullptr);
            ASSERT_EQ(overlay->SetState(GST_STATE_PLAYING), 0);
        }
    }
    void TearDown() override
    {
        display.SetState(GST_STATE_NULL);
        recording.SetState(GST_STATE_NULL);
    }

    // Ten seconds: the first text an overlay draws waits for the font set up, which frames outrun.
    bool WaitFor(FrameConsumer& output, const std::function<bool(const std::vector<uint8_t>&)>& check)
    {
        return WaitForFrame(input, output, picture, check) || WaitForFrame(input, output, picture, check);
    }

    FrameProducer input { "overlay_model_input", kWidth, kHeight };
    FrameConsumer display_output { display.GetSinkName() };
    FrameConsumer recording_output { recording.GetSinkName() };
    const std::vector<uint8_t> picture = GreyFrame();
};

} // namespace

TEST_F(OverlayModelOnPipelinesTest, HandsADocumentOverOnlyWhenItsContentChangedAndOnlyToShownOverlays)
{
    OverlayModel model(&display, &recording, TemplateDir());
    DocumentLog shown(display);
    DocumentLog recorded(recording);
    // Settings before the first tick are drawn together by it.
    model.SetPlumblineEnabled(true);
    model.SetCountEnabled(false);
    model.SetReelCount("4.5 m");
    model.SetDateTimeStyle(OverlayModel::kTopRight);
    model.SetUserText({ 10, 10, "early", 0, "" });
    model.Update(kNow);
    ASSERT_TRUE(shown.WaitForLast("early"));
    ASSERT_TRUE(recorded.WaitForLast("early"));
    const std::vector<std::string> documents = shown.Documents();
    ASSERT_EQ(documents.size(), 1u);
    EXPECT_TRUE(Holds(documents[0], "<line") && !Holds(documents[0], "4.5 m")
        && Holds(documents[0], "text-anchor='end'>2023-11-14 22:13:20<"));
    EXPECT_EQ(recorded.Documents().size(), 1u);

    // Settings as they already are, the same second again, and a reel count while the count is hidden: no
    // content changes. Documents are applied in the order handed over, so any repeat would arrive before
    // the next change (and a dropped one would be logged).
    model.SetDateEnabled(true);
    model.SetUserText(model.GetUserText());
    model.SetCountStyle(model.GetCountStyle());
    model.Update(kNow);
    model.SetReelCount("1.5 m");
    model.Update(kNow);
    model.SetCountEnabled(true);
    ASSERT_TRUE(shown.WaitForLast(">1.5 m<"));
    ASSERT_TRUE(recorded.WaitForLast(">1.5 m<"));
    EXPECT_EQ(shown.Documents().size(), 2u);
    EXPECT_EQ(recorded.Documents().size(), 2u);
    EXPECT_EQ(log.Count(VideoDaemon::Log::kWarning, kDropWarning), 0u);

    // The mode switches the elements; a hidden overlay gets nothing and catches up when shown again.
    ASSERT_TRUE(model.EnableOverlays("display"));
    EXPECT_TRUE(OverlayEnabled(display));
    EXPECT_FALSE(OverlayEnabled(recording));
    EXPECT_FALSE(model.EnableOverlays("sometimes"));
    EXPECT_TRUE(OverlayEnabled(display));
    EXPECT_FALSE(OverlayEnabled(recording));
    model.SetUserText({ 10, 10, "while hidden", 0, "" });
    ASSERT_TRUE(shown.WaitForLast("while hidden"));
    ASSERT_TRUE(model.EnableOverlays("off"));
    EXPECT_FALSE(OverlayEnabled(display));
    EXPECT_FALSE(OverlayEnabled(recording));
    EXPECT_EQ(recorded.Documents().size(), 2u) << "the hidden recording overlay got nothing";
    ASSERT_TRUE(model.EnableOverlays("both"));
    EXPECT_TRUE(OverlayEnabled(display));
    EXPECT_TRUE(OverlayEnabled(recording));
    ASSERT_TRUE(recorded.WaitForLast("while hidden")) << "shown again, it catches up";
    EXPECT_EQ(shown.Documents().size(), 3u);
}

TEST_F(OverlayModelOnPipelinesTest, RedrawsTheClockAtMostOnceASecond)
{
    OverlayModel model(&display, nullptr, TemplateDir());
    DocumentLog shown(display);
    // Each change is awaited before the next: the pipeline keeps only the
    // newest two documents that wait.
    model.Update(kNow);
    ASSERT_TRUE(shown.WaitForLast("22:13:20"));
    model.Update(kNow);
    model.Update(kNow);
    // A setting is drawn at the second last drawn, not at a new one.
    model.SetUserText({ 10, 10, "same second", 0, "" });
    ASSERT_TRUE(shown.WaitForLast("same second"));
    model.Update(kNow);
    model.Update(kNow + 1);
    ASSERT_TRUE(shown.WaitForLast("22:13:21"));
    std::vector<std::string> documents = shown.Documents();
    ASSERT_EQ(documents.size(), 3u);
    EXPECT_TRUE(Holds(documents[0], "22:13:20") && !Holds(documents[0], "same second"));
    EXPECT_TRUE(Holds(documents[1], "22:13:20") && Holds(documents[1], "same second"));

    // A clock shown to the minute changes the document once a minute.
    model.SetTimeFormat("%H:%M");
    ASSERT_TRUE(shown.WaitForLast(" 22:13<"));
    for (std::time_t second = kNow + 2; second < kNow + 40; second++)
        model.Update(second);
    model.Update(kNow + 40);
    ASSERT_TRUE(shown.WaitForLast(" 22:14<"));
    documents = shown.Documents();
    ASSERT_EQ(documents.size(), 5u);
    EXPECT_TRUE(Holds(documents[3], " 22:13<"));
    EXPECT_EQ(log.Count(VideoDaemon::Log::kWarning, kDropWarning), 0u);
}

TEST_F(OverlayModelFramesTest, UserTextIsDrawnInItsRegionOfTheFrameOnlyWhileItsOverlayIsEnabled)
{
    OverlayModel model(&display, &recording, TemplateDir());
    model.Update(kNow);
    EXPECT_TRUE(WaitFor(display_output, [](const std::vector<uint8_t>& frame) {
        return Ink(frame, kDateTimeRegion) > 20 && Ink(frame, kUserTextRegion) == 0;
    })) << "the date and time are drawn, the user text's region is clear";

    const auto marked = [](const std::vector<uint8_t>& frame) { return Ink(frame, kUserTextRegion) > 300; };
    model.SetUserText(kMarks);
    EXPECT_TRUE(WaitFor(display_output, marked)) << "the user text covers its region";
    EXPECT_TRUE(WaitFor(recording_output, marked)) << "and is burnt into the recorded picture";

    // The display overlay disabled: once the frames under way have passed, none is drawn on.
    ASSERT_TRUE(model.EnableOverlays("recording"));
    const auto clear = [](const std::vector<uint8_t>& frame) {
        return Ink(frame, kUserTextRegion) == 0 && Ink(frame, kDateTimeRegion) == 0;
    };
    ASSERT_TRUE(WaitFor(display_output, clear));
    int frames = 0;
    for (int i = 0; i < 20; i++) {
        input.Push(picture);
        const std::vector<uint8_t> frame = display_output.Pull(GST_SECOND / 10);
        if (frame.empty())
            continue;
        frames++;
        EXPECT_TRUE(clear(frame)) << "frame " << i;
    }
    EXPECT_GT(frames, 5) << "the display kept publishing frames";
    EXPECT_TRUE(WaitFor(recording_output, marked)) << "the recording overlay still draws it";

    ASSERT_TRUE(model.EnableOverlays("both"));
    EXPECT_TRUE(WaitFor(display_output, marked)) << "enabled again, the display shows it";
}
