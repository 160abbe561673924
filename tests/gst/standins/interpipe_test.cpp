// The interpipe stand-ins on real pipelines: routing by name while playing, caps, events and timestamps.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// A live producer of small grey frames: pattern "black" or "white", so a
// listener can tell the producers apart by the first byte.
std::string Producer(
    const std::string& sink, const std::string& pattern, const std::string& sinkProperties = "")
{
    return "videotestsrc is-live=true pattern=" + pattern
        + " ! video/x-raw,format=GRAY8,width=16,height=16,framerate=100/1 ! interpipesink name=" + sink
        + " sync=false " + sinkProperties;
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

bool IsWhite(GstSample* sample)
{
    guint8 byte = 0;
    gst_buffer_extract(gst_sample_get_buffer(sample), 0, &byte, 1);
    return byte > 128;
}

GstClockTime Pts(const SamplePtr& sample)
{
    return GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
}

gint Width(const SamplePtr& sample)
{
    gint width = 0;
    gst_structure_get_int(gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0), "width", &width);
    return width;
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

// One listener, started on a sink that does not exist yet, follows every
// change of its producer while all pipelines keep playing.
TEST(InterpipeRouting, ASourceFollowsSwitchesDetachingAndLateOrReturningSinksWithoutStoppingAnyPipeline)
{
    TestPipeline black(Producer("switch_black", "black"));
    TestPipeline white(Producer("switch_white", "white"));
    TestPipeline listener(Listener("is-live=true listen-to=switch_white"));
    ASSERT_TRUE(black.Play());
    ASSERT_TRUE(listener.Start());
    EXPECT_FALSE(listener.Pull("out", 300 * GST_MSECOND));
    ASSERT_TRUE(white.Play());
    EXPECT_TRUE(ReceivesFrom(listener, true));

    ListenTo(listener, "switch_black");
    EXPECT_TRUE(ReceivesFrom(listener, false));
    ListenTo(listener, "switch_white");
    EXPECT_TRUE(ReceivesFrom(listener, true));
    // Detached, the listener receives nothing until it listens again.
    ListenTo(listener, nullptr);
    EXPECT_TRUE(StaysQuiet(listener));
    ListenTo(listener, "switch_black");
    EXPECT_TRUE(ReceivesFrom(listener, false));
    for (const TestPipeline* p : { &black, &white, &listener })
        EXPECT_EQ(p->State(), GST_STATE_PLAYING);

    // The sink going away and coming back again reattaches the source.
    ListenTo(listener, "switch_white");
    white.SetState(GST_STATE_NULL);
    EXPECT_TRUE(StaysQuiet(listener));
    ASSERT_TRUE(white.Play());
    EXPECT_TRUE(ReceivesFrom(listener, true));
}

TEST(InterpipeRouting, ManyListenersShareTheProducersBuffersWithoutCopies)
{
    TestPipeline producer(Producer("shared_sink", "white"));
    TestPipeline first(Listener("is-live=true listen-to=shared_sink"));
    TestPipeline second(Listener("is-live=true listen-to=shared_sink"));
    TestPipeline third(Listener("is-live=true listen-to=shared_sink max-buffers=1 leaky-type=2"));
    // Listeners first, so that every one sees the first buffer.
    for (const TestPipeline* p : { &first, &second, &third })
        ASSERT_TRUE(p->Start());
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
    EXPECT_EQ(gst_buffer_peek_memory(gst_sample_get_buffer(a.get()), 0),
        gst_buffer_peek_memory(gst_sample_get_buffer(b.get()), 0));
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

// A custom event sent into each producer's sink pad, then end-of-stream:
// each listener sees what its producer forwards and it accepts, and nothing else.
TEST(InterpipeEvents, EventsAndEndOfStreamReachListenersOnlyWhenForwardedAndAccepted)
{
    // Each listener's appsink keeps only the newest frame, so pulls see the present.
    const std::string kNewest = "max-buffers=1 drop=true";
    TestPipeline forwarding(Producer("event_fwd", "white", "forward-events=true forward-eos=true"));
    TestPipeline keeping(Producer("event_keep", "white", "forward-events=false forward-eos=false"));
    struct Row {
        const char* properties;
        int markers;
        bool eos;
        std::atomic<int> seen { 0 }; // outlives the listener, whose probe counts into it
        std::unique_ptr<TestPipeline> listener {};
    } rows[] = {
        { "listen-to=event_fwd", 1, true },
        { "listen-to=event_fwd accept-events=false", 0, true },
        { "listen-to=event_fwd accept-eos-event=false", 1, false },
        { "listen-to=event_keep", 0, false },
    };
    ASSERT_TRUE(forwarding.Play());
    ASSERT_TRUE(keeping.Play());
    for (Row& row : rows) {
        row.listener = std::make_unique<TestPipeline>(
            Listener(std::string("is-live=true ") + row.properties, kNewest));
        ObjectPtr<GstPad> pad(gst_element_get_static_pad(row.listener->Element("out").get(), "sink"));
        gst_pad_add_probe(
            pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
            [](GstPad*, GstPadProbeInfo* info, gpointer data) {
                GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
                if (GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_DOWNSTREAM
                    && gst_structure_has_name(gst_event_get_structure(event), "marker"))
                    ++*static_cast<std::atomic<int>*>(data);
                return GST_PAD_PROBE_OK;
            },
            &row.seen, nullptr);
        ASSERT_TRUE(row.listener->Start());
        ASSERT_TRUE(ReceivesFrom(*row.listener, true)) << row.properties;
    }

    // Sent into the sink's pad from upstream, so it travels in order with the buffers.
    for (const TestPipeline* producer : { &forwarding, &keeping }) {
        ObjectPtr<GstElement> sink = producer->Element(producer == &forwarding ? "event_fwd" : "event_keep");
        ObjectPtr<GstPad> pad(gst_element_get_static_pad(sink.get(), "sink"));
        gst_pad_send_event(
            pad.get(), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("marker")));
    }
    // Once later frames are out, the event has passed (each pull waits for a new frame).
    for (Row& row : rows) {
        for (int i = 0; i < 10; ++i)
            ASSERT_TRUE(row.listener->Pull("out")) << row.properties;
        EXPECT_EQ(row.seen.load(), row.markers) << row.properties;
    }

    for (const TestPipeline* producer : { &forwarding, &keeping }) {
        gst_element_send_event(producer->Get(), gst_event_new_eos());
        ASSERT_TRUE(producer->WaitFor(GST_MESSAGE_EOS));
    }
    for (Row& row : rows)
        EXPECT_EQ(ReachesEos(*row.listener, row.eos ? kWait : 500 * GST_MSECOND), row.eos) << row.properties;
}

// Two producers started some time apart run on different base times; a
// compensating listener switches from one to the other and its timestamps
// stay strictly increasing (held back, they would repeat) and go on.
TEST(InterpipeTimestamps, CompensationKeepsTimestampsMonotonicAcrossPipelinesAndSwitches)
{
    TestPipeline early(Producer("sync_early", "black"));
    ASSERT_TRUE(early.Play());
    // Non-live, like a muxer's sources: it prerolls on the first buffer. The
    // appsink keeps only the newest frame, so each pull sees the present.
    TestPipeline listener(
        Listener("format=time stream-sync=1 listen-to=sync_early", "max-buffers=1 drop=true"));
    ASSERT_TRUE(listener.Start());
    g_usleep(700 * 1000);
    TestPipeline late(Producer("sync_late", "white"));
    ASSERT_TRUE(late.Play());

    // Frames of the early producer, then of the late one after the switch.
    std::vector<GstClockTime> stamps;
    auto collect = [&](bool white, size_t count) {
        const size_t until = stamps.size() + count;
        for (int i = 0; i < 500 && stamps.size() < until; ++i) {
            SamplePtr sample = listener.Pull("out");
            if (!sample)
                return;
            if (IsWhite(sample.get()) == white)
                stamps.push_back(Pts(sample));
        }
    };
    collect(false, 10);
    ListenTo(listener, "sync_late");
    collect(true, 20);
    ASSERT_EQ(stamps.size(), 30u);
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_GT(stamps[i], stamps[i - 1]) << "frame " << i;
    // 20 frames at 100/s span at least 0.1 s.
    EXPECT_GT(stamps.back(), stamps[10] + 100 * GST_MSECOND);
}

// A producer whose timestamps run far ahead of any clock (1000 s): passed
// through they stay, restarted they begin at zero, restamped they are the
// listener's own running time.
TEST(InterpipeTimestamps, PassRestartAndDoTimestampEachStampTheProducersFrames)
{
    constexpr GstClockTime kAhead = 1000 * GST_SECOND, kStep = 10 * GST_MSECOND;
    TestPipeline producer("appsrc name=in format=time caps=video/x-raw,format=GRAY8,width=16,height=16,"
                          "framerate=100/1 ! interpipesink name=stamp_sink sync=false async=false");
    TestPipeline pass(Listener("is-live=true stream-sync=0 listen-to=stamp_sink"));
    TestPipeline restart(Listener("is-live=true stream-sync=2 listen-to=stamp_sink"));
    TestPipeline restamp(Listener("is-live=true stream-sync=0 do-timestamp=true listen-to=stamp_sink"));
    for (const TestPipeline* p : { &pass, &restart, &restamp })
        ASSERT_TRUE(p->Start());
    ASSERT_TRUE(producer.Play());
    for (int i = 0; i < 2; ++i) {
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, 16 * 16, nullptr);
        GST_BUFFER_PTS(buffer) = kAhead + i * kStep;
        GST_BUFFER_DURATION(buffer) = kStep;
        ASSERT_TRUE(producer.Push("in", buffer));
    }

    for (int i = 0; i < 2; ++i) {
        SamplePtr passed = pass.Pull("out"), restarted = restart.Pull("out"), restamped = restamp.Pull("out");
        ASSERT_TRUE(passed && restarted && restamped) << "frame " << i;
        EXPECT_EQ(Pts(passed), kAhead + i * kStep);
        EXPECT_EQ(Pts(restarted), i * kStep);
        ObjectPtr<GstClock> clock(gst_element_get_clock(restamp.Get()));
        ASSERT_TRUE(clock);
        EXPECT_LE(Pts(restamped), gst_clock_get_time(clock.get()) - gst_element_get_base_time(restamp.Get()))
            << "frame " << i;
    }
}

// The sink's "caps" decide what an unconstrained producer negotiates, and
// they reach the listeners; a switch to them renegotiates only where allowed.
TEST(InterpipeCaps, TheSinksCapsReachItsListenersWhichRenegotiateOnASwitchOnlyWhenAllowed)
{
    TestPipeline narrow(Producer("caps_narrow", "black"));
    TestPipeline wide("videotestsrc is-live=true pattern=white ! interpipesink name=caps_wide sync=false "
                      "caps=video/x-raw,format=GRAY8,width=32,height=16,framerate=100/1");
    TestPipeline allowing(Listener("is-live=true listen-to=caps_narrow"));
    TestPipeline fixed(Listener("is-live=true allow-renegotiation=false listen-to=caps_narrow"));
    for (const TestPipeline* p : { &narrow, &wide })
        ASSERT_TRUE(p->Play());
    for (const TestPipeline* p : { &allowing, &fixed })
        ASSERT_TRUE(p->Start());
    SamplePtr sample = allowing.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(Width(sample), 16);
    ASSERT_TRUE(ReceivesFrom(fixed, false));

    ListenTo(allowing, "caps_wide");
    ListenTo(fixed, "caps_wide");
    ASSERT_TRUE(ReceivesFrom(allowing, true));
    sample = allowing.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(Width(sample), 32);
    EXPECT_FALSE(allowing.WaitFor(GST_MESSAGE_ERROR, 0));

    MessagePtr error = fixed.WaitFor(GST_MESSAGE_ERROR);
    ASSERT_TRUE(error);
    EXPECT_NE(ErrorText(error.get()).find("not-negotiated"), std::string::npos);
    // None of the refused producer's frames get through.
    EXPECT_FALSE(ReceivesFrom(fixed, true, 500 * GST_MSECOND));

    // Caps outside the sink's are refused when the producer is linked.
    TestPipeline refused("videotestsrc ! video/x-raw,width=16 ! interpipesink name=refusing_sink "
                         "caps=video/x-raw,width=32");
    EXPECT_FALSE(refused.Parsed());
}
