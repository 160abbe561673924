// The interpipe stand-ins on real pipelines: routing by name while playing, caps, events and timestamps.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// A live producer of small grey frames: pattern "black" or "white", so a
// listener can tell the producers apart by the first byte.
std::string Producer(const std::string& sink, const std::string& pattern, int width = 16,
    const std::string& sinkProperties = "")
{
    return "videotestsrc is-live=true pattern=" + pattern
        + " ! video/x-raw,format=GRAY8,width=" + std::to_string(width)
        + ",height=16,framerate=100/1 ! interpipesink name=" + sink + " sync=false " + sinkProperties;
}

// A listener ending in an appsink named "out" that keeps every buffer unless told otherwise.
std::string Listener(const std::string& sourceProperties, const std::string& sinkProperties = "")
{
    return "interpipesrc name=src " + sourceProperties + " ! appsink name=out sync=false emit-signals=false "
        + sinkProperties;
}

void ListenTo(const TestPipeline& listener, const char* name)
{
    listener.Set("src", "listen-to", name);
}

guint8 FirstByte(GstSample* sample)
{
    guint8 byte = 0;
    gst_buffer_extract(gst_sample_get_buffer(sample), 0, &byte, 1);
    return byte;
}

bool IsWhite(GstSample* sample)
{
    return FirstByte(sample) > 128;
}

// Pulls until a frame of the wanted producer shows up; false when none comes in time.
bool ReceivesFrom(const TestPipeline& listener, bool white, GstClockTime timeout = 5 * GST_SECOND)
{
    for (int i = 0; i < 200; ++i) {
        SamplePtr sample = listener.Pull("out", timeout);
        if (!sample)
            return false;
        if (IsWhite(sample.get()) == white)
            return true;
    }
    return false;
}

// Empties the listener's appsink, then reports whether anything else arrives within the time.
bool StaysQuiet(const TestPipeline& listener, GstClockTime quiet = 300 * GST_MSECOND)
{
    for (int i = 0; i < 1000 && listener.Pull("out", quiet); ++i)
        ;
    return !listener.Pull("out", quiet);
}

// Whether end-of-stream reaches the listener's bus within the time. The
// appsink holds EOS back until its samples are taken, so they are taken.
bool ReachesEos(const TestPipeline& listener, GstClockTime within)
{
    const gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(within / GST_USECOND);
    while (g_get_monotonic_time() < deadline) {
        listener.Pull("out", 20 * GST_MSECOND);
        if (listener.WaitFor(GST_MESSAGE_EOS, 0))
            return true;
    }
    return false;
}

} // namespace

TEST(InterpipeRouting, SwitchesAndDetachesProducersWhilePlayingWithoutStoppingAnyPipeline)
{
    TestPipeline black(Producer("switch_black", "black"));
    TestPipeline white(Producer("switch_white", "white"));
    TestPipeline listener(Listener("is-live=true listen-to=switch_black"));
    ASSERT_TRUE(black.Play());
    ASSERT_TRUE(white.Play());
    ASSERT_TRUE(listener.Start());

    EXPECT_TRUE(ReceivesFrom(listener, false));
    ListenTo(listener, "switch_white");
    EXPECT_TRUE(ReceivesFrom(listener, true));
    ListenTo(listener, "switch_black");
    EXPECT_TRUE(ReceivesFrom(listener, false));

    // Detached, the listener receives nothing until it listens again.
    ListenTo(listener, nullptr);
    g_autofree gchar* listenTo = nullptr;
    g_object_get(listener.Element("src").get(), "listen-to", &listenTo, nullptr);
    EXPECT_EQ(listenTo, nullptr);
    EXPECT_TRUE(StaysQuiet(listener));
    ListenTo(listener, "switch_white");
    EXPECT_TRUE(ReceivesFrom(listener, true));

    EXPECT_EQ(black.State(), GST_STATE_PLAYING);
    EXPECT_EQ(white.State(), GST_STATE_PLAYING);
    EXPECT_EQ(listener.State(), GST_STATE_PLAYING);
}

TEST(InterpipeRouting, ASourceListeningToAMissingSinkStartsReceivingWhenItAppears)
{
    TestPipeline listener(Listener("is-live=true listen-to=late_sink"));
    ASSERT_TRUE(listener.Start());
    EXPECT_FALSE(listener.Pull("out", 300 * GST_MSECOND));

    TestPipeline late(Producer("late_sink", "white"));
    ASSERT_TRUE(late.Play());
    EXPECT_TRUE(ReceivesFrom(listener, true));

    // The sink going away and coming back again reattaches the source.
    late.SetState(GST_STATE_NULL);
    EXPECT_TRUE(StaysQuiet(listener));
    ASSERT_TRUE(late.Play());
    EXPECT_TRUE(ReceivesFrom(listener, true));
}

TEST(InterpipeRouting, ManyListenersShareTheProducersBuffersWithoutCopies)
{
    TestPipeline producer(Producer("shared_sink", "white", 16, "forward-events=true"));
    TestPipeline first(Listener("is-live=true listen-to=shared_sink"));
    TestPipeline second(Listener("is-live=true listen-to=shared_sink"));
    TestPipeline third(Listener("is-live=true listen-to=shared_sink max-buffers=1 leaky-type=2"));
    // Listeners first, so that every one sees the first buffer.
    ASSERT_TRUE(first.Start());
    ASSERT_TRUE(second.Start());
    ASSERT_TRUE(third.Start());
    ASSERT_TRUE(producer.Play());
    guint listeners = 0;
    g_object_get(producer.Element("shared_sink").get(), "num-listeners", &listeners, nullptr);
    EXPECT_EQ(listeners, 3u);

    // Each listener takes every frame in order; the second frame of each is
    // the producer's own buffer (the first carries a discontinuity mark that
    // each source sets on a metadata copy).
    ASSERT_TRUE(first.Pull("out") && second.Pull("out") && third.Pull("out"));
    SamplePtr a = first.Pull("out");
    SamplePtr b = second.Pull("out");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(gst_sample_get_buffer(a.get()), gst_sample_get_buffer(b.get()));
    GstMemory* memoryA = gst_buffer_peek_memory(gst_sample_get_buffer(a.get()), 0);
    GstMemory* memoryB = gst_buffer_peek_memory(gst_sample_get_buffer(b.get()), 0);
    EXPECT_EQ(memoryA, memoryB);
}

TEST(InterpipeRouting, ASecondSinkWithATakenNameFailsWithAnElementError)
{
    TestPipeline first(Producer("dup_sink", "black"));
    TestPipeline second(Producer("dup_sink", "white"));
    ASSERT_TRUE(first.Start());
    EXPECT_FALSE(second.Start());
    MessagePtr error = second.WaitFor(GST_MESSAGE_ERROR);
    ASSERT_TRUE(error);
    EXPECT_NE(ErrorText(error.get()).find("\"dup_sink\" already exists"), std::string::npos);

    // Once the first is gone, the name is free again.
    first.SetState(GST_STATE_NULL);
    second.SetState(GST_STATE_NULL);
    EXPECT_TRUE(second.Start());
}

TEST(InterpipeEvents, EndOfStreamReachesListenersOnlyWhenForwardedAndAccepted)
{
    TestPipeline forwarding(Producer("eos_fwd", "white", 16, "forward-eos=true"));
    TestPipeline keeping(Producer("eos_keep", "white"));
    TestPipeline accepting(Listener("is-live=true listen-to=eos_fwd"));
    TestPipeline refusing(Listener("is-live=true listen-to=eos_fwd accept-eos-event=false"));
    TestPipeline other(Listener("is-live=true listen-to=eos_keep"));
    ASSERT_TRUE(forwarding.Play());
    ASSERT_TRUE(keeping.Play());
    for (const TestPipeline* p : { &accepting, &refusing, &other })
        ASSERT_TRUE(p->Start());
    ASSERT_TRUE(ReceivesFrom(accepting, true));
    ASSERT_TRUE(ReceivesFrom(refusing, true));
    ASSERT_TRUE(ReceivesFrom(other, true));

    gst_element_send_event(forwarding.Get(), gst_event_new_eos());
    gst_element_send_event(keeping.Get(), gst_event_new_eos());
    ASSERT_TRUE(forwarding.WaitFor(GST_MESSAGE_EOS));
    ASSERT_TRUE(keeping.WaitFor(GST_MESSAGE_EOS));
    EXPECT_TRUE(ReachesEos(accepting, kWait));
    EXPECT_FALSE(ReachesEos(refusing, 500 * GST_MSECOND));
    EXPECT_FALSE(ReachesEos(other, 500 * GST_MSECOND));
}

TEST(InterpipeEvents, CustomEventsAreForwardedInOrderUnlessTheSinkOrSourceSaysNo)
{
    TestPipeline producer(Producer("event_sink", "white", 16, "forward-events=true"));
    TestPipeline quiet(Producer("event_quiet", "white", 16, "forward-events=false"));
    TestPipeline accepting(Listener("is-live=true listen-to=event_sink"));
    TestPipeline refusing(Listener("is-live=true listen-to=event_sink accept-events=false"));
    TestPipeline other(Listener("is-live=true listen-to=event_quiet"));

    // Markers that reach each listener's appsink.
    auto watch = [](const TestPipeline& listener, std::atomic<int>* seen) {
        ObjectPtr<GstPad> pad(gst_element_get_static_pad(listener.Element("out").get(), "sink"));
        gst_pad_add_probe(
            pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
            [](GstPad*, GstPadProbeInfo* info, gpointer data) {
                GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
                if (GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_DOWNSTREAM
                    && gst_structure_has_name(gst_event_get_structure(event), "marker"))
                    ++*static_cast<std::atomic<int>*>(data);
                return GST_PAD_PROBE_OK;
            },
            seen, nullptr);
    };
    std::atomic<int> seenAccepting { 0 }, seenRefusing { 0 }, seenOther { 0 };
    watch(accepting, &seenAccepting);
    watch(refusing, &seenRefusing);
    watch(other, &seenOther);
    ASSERT_TRUE(producer.Play());
    ASSERT_TRUE(quiet.Play());
    for (const TestPipeline* p : { &accepting, &refusing, &other })
        ASSERT_TRUE(p->Start());
    ASSERT_TRUE(ReceivesFrom(accepting, true));
    ASSERT_TRUE(ReceivesFrom(refusing, true));
    ASSERT_TRUE(ReceivesFrom(other, true));

    auto marker
        = [] { return gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("marker")); };
    // Sent into the sink's pad from upstream, so it travels in order with the buffers.
    ObjectPtr<GstPad> pad(gst_element_get_static_pad(producer.Element("event_sink").get(), "sink"));
    ObjectPtr<GstPad> quietPad(gst_element_get_static_pad(quiet.Element("event_quiet").get(), "sink"));
    gst_pad_send_event(pad.get(), marker());
    gst_pad_send_event(quietPad.get(), marker());
    // The event travels with the buffers: once later frames are out, it is too.
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(accepting.Pull("out"));
        ASSERT_TRUE(refusing.Pull("out"));
        ASSERT_TRUE(other.Pull("out"));
    }
    EXPECT_EQ(seenAccepting.load(), 1);
    EXPECT_EQ(seenRefusing.load(), 0);
    EXPECT_EQ(seenOther.load(), 0);
}

// Two producers started some time apart run on different base times; the
// listener switches from one to the other and records its timestamps.
static std::vector<GstClockTime> TimestampsAcrossASwitch(const char* streamSync, const std::string& prefix)
{
    const std::string first = prefix + "_early";
    const std::string second = prefix + "_late";
    TestPipeline early(Producer(first, "black"));
    EXPECT_TRUE(early.Play());
    // Non-live, like a muxer's sources: it prerolls on the first buffer. The
    // appsink keeps only the newest frame, so each pull sees the present.
    TestPipeline listener(
        Listener(std::string("format=time stream-sync=") + streamSync + " listen-to=" + first,
            "max-buffers=1 drop=true"));
    EXPECT_TRUE(listener.Start());
    g_usleep(700 * 1000);
    TestPipeline late(Producer(second, "white"));
    EXPECT_TRUE(late.Play());

    // Frames of the early producer, then of the late one after the switch.
    std::vector<GstClockTime> stamps;
    auto collect = [&](bool white, size_t count) {
        const size_t until = stamps.size() + count;
        for (int i = 0; i < 500 && stamps.size() < until; ++i) {
            SamplePtr sample = listener.Pull("out");
            if (!sample)
                return;
            if (IsWhite(sample.get()) == white)
                stamps.push_back(GST_BUFFER_PTS(gst_sample_get_buffer(sample.get())));
        }
    };
    collect(false, 10);
    ListenTo(listener, second.c_str());
    collect(true, 20);
    return stamps;
}

// Strictly: a source that merely held its timestamps back would repeat them.
static bool Increasing(const std::vector<GstClockTime>& stamps)
{
    for (size_t i = 1; i < stamps.size(); ++i)
        if (stamps[i] <= stamps[i - 1])
            return false;
    return true;
}

TEST(InterpipeTimestamps, CompensationKeepsTimestampsMonotonicAcrossPipelinesAndSwitches)
{
    const std::vector<GstClockTime> compensated = TimestampsAcrossASwitch("1", "sync_comp");
    ASSERT_EQ(compensated.size(), 30u);
    EXPECT_TRUE(Increasing(compensated));
    // Time goes on after the switch: 20 frames at 100/s span at least 0.1 s.
    EXPECT_GT(compensated.back(), compensated[10] + 100 * GST_MSECOND);

    // Passed through, the later producer's younger timestamps run backwards.
    const std::vector<GstClockTime> passed = TimestampsAcrossASwitch("0", "sync_pass");
    ASSERT_EQ(passed.size(), 30u);
    EXPECT_FALSE(Increasing(passed));
}

TEST(InterpipeTimestamps, RestartBeginsEachProducerAtZero)
{
    TestPipeline producer(Producer("restart_sink", "white"));
    ASSERT_TRUE(producer.Play());
    g_usleep(300 * 1000);
    TestPipeline listener(Listener("is-live=true stream-sync=2 listen-to=restart_sink"));
    ASSERT_TRUE(listener.Start());
    SamplePtr sample = listener.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(GST_BUFFER_PTS(gst_sample_get_buffer(sample.get())), 0u);
    SamplePtr next = listener.Pull("out");
    ASSERT_TRUE(next);
    EXPECT_GT(GST_BUFFER_PTS(gst_sample_get_buffer(next.get())), 0u);
}

static gint Width(GstSample* sample)
{
    gint width = 0;
    gst_structure_get_int(gst_caps_get_structure(gst_sample_get_caps(sample), 0), "width", &width);
    return width;
}

TEST(InterpipeCaps, ASwitchToOtherCapsRenegotiatesOnlyWhenAllowed)
{
    TestPipeline narrow(Producer("caps_narrow", "black", 16));
    TestPipeline wide(Producer("caps_wide", "white", 32));
    TestPipeline allowing(Listener("is-live=true listen-to=caps_narrow"));
    TestPipeline fixed(Listener("is-live=true allow-renegotiation=false listen-to=caps_narrow"));
    ASSERT_TRUE(narrow.Play());
    ASSERT_TRUE(wide.Play());
    ASSERT_TRUE(allowing.Start());
    ASSERT_TRUE(fixed.Start());
    SamplePtr sample = allowing.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(Width(sample.get()), 16);
    ASSERT_TRUE(ReceivesFrom(fixed, false));

    ListenTo(allowing, "caps_wide");
    ListenTo(fixed, "caps_wide");
    ASSERT_TRUE(ReceivesFrom(allowing, true));
    sample = allowing.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(Width(sample.get()), 32);
    EXPECT_FALSE(allowing.WaitFor(GST_MESSAGE_ERROR, 0));

    MessagePtr error = fixed.WaitFor(GST_MESSAGE_ERROR);
    ASSERT_TRUE(error);
    EXPECT_NE(ErrorText(error.get()).find("not-negotiated"), std::string::npos);
    // None of the refused producer's frames get through.
    EXPECT_FALSE(ReceivesFrom(fixed, true, 500 * GST_MSECOND));
}

TEST(InterpipeCaps, TheSinkCapsPropertyDecidesWhatTheProducerNegotiates)
{
    // An unconstrained producer takes the sink's caps, and listeners see them.
    TestPipeline producer("videotestsrc is-live=true ! interpipesink name=restricted_sink sync=false "
                          "caps=video/x-raw,format=GRAY8,width=24,height=16,framerate=100/1");
    TestPipeline listener(Listener("is-live=true listen-to=restricted_sink"));
    ASSERT_TRUE(producer.Play());
    ASSERT_TRUE(listener.Start());
    SamplePtr sample = listener.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(Width(sample.get()), 24);

    // Caps outside the sink's are refused when the producer is linked.
    GError* error = nullptr;
    GstElement* refused = gst_parse_launch("videotestsrc ! video/x-raw,width=16 ! interpipesink "
                                           "name=refusing_sink caps=video/x-raw,width=32",
        &error);
    EXPECT_NE(error, nullptr);
    g_clear_error(&error);
    g_clear_object(&refused);
}
