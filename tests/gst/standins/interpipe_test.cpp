// The interpipe stand-ins on real pipelines: nodes and routing by name, caps, events and timestamps.
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// A live producer of small grey frames: pattern "black" or "white", so a
// listener can tell the producers apart by the first byte.
std::string Producer(const std::string& sink, const std::string& pattern,
    const std::string& sinkProperties = "",
    const std::string& caps = "video/x-raw,format=GRAY8,width=16,height=16,framerate=100/1")
{
    return "videotestsrc is-live=true pattern=" + pattern + " ! " + caps + " ! interpipesink name=" + sink
        + " " + sinkProperties;
}

// A producer fed by hand through an appsrc named "in".
std::string HandFedProducer(const std::string& sink, const std::string& sinkProperties = "")
{
    return "appsrc name=in format=time caps=video/x-raw,format=GRAY8,width=16,height=16,framerate=100/1 "
           "! interpipesink async=false name="
        + sink + " " + sinkProperties;
}

// A listener ending in an appsink named "out" that keeps every buffer unless told otherwise.
std::string Listener(const std::string& sourceProperties, const std::string& sinkProperties = "",
    const std::string& middle = "")
{
    return "interpipesrc name=src " + sourceProperties + " ! " + middle
        + " appsink name=out sync=false emit-signals=false " + sinkProperties;
}

void ListenTo(const TestPipeline& listener, const char* name)
{
    listener.Set("src", "listen-to", name);
}

std::string ListeningTo(const TestPipeline& listener)
{
    g_autofree gchar* name = nullptr;
    g_object_get(listener.Element("src").get(), "listen-to", &name, nullptr);
    return name ? name : "";
}

guint Listeners(const TestPipeline& producer, const char* sink)
{
    guint count = 0;
    g_object_get(producer.Element(sink).get(), "num-listeners", &count, nullptr);
    return count;
}

bool IsWhite(GstSample* sample)
{
    guint8 byte = 0;
    gst_buffer_extract(gst_sample_get_buffer(sample), 0, &byte, 1);
    return byte > 128;
}

GstClockTime Pts(const GstSamplePtr& sample)
{
    return GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
}

gint CapsInt(const GstSamplePtr& sample, const char* field)
{
    gint value = 0;
    gst_structure_get_int(gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0), field, &value);
    return value;
}

bool CapsHave(const GstSamplePtr& sample, const char* field)
{
    return gst_structure_has_field(gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0), field);
}

// Pulls until a frame of the wanted producer shows up; false when none comes in time.
bool ReceivesFrom(const TestPipeline& listener, bool white, GstClockTime timeout = 5 * GST_SECOND)
{
    for (int i = 0; i < 200; ++i) {
        GstSamplePtr sample = listener.Pull("out", timeout);
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

GstBuffer* Frame(GstClockTime pts)
{
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, 16 * 16, nullptr);
    gst_buffer_memset(buffer, 0, 0, 16 * 16);
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DURATION(buffer) = 10 * GST_MSECOND;
    return buffer;
}

// Counts the events of one type that pass a pad, in either direction.
class EventCount : public PadProbe
{
public:
    EventCount(GstElement* element, const char* pad, GstEventType type)
        : PadProbe(element, pad)
        , _Type(type)
    {
        Install(static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_BOTH | GST_PAD_PROBE_TYPE_EVENT_FLUSH));
    }
    ~EventCount() override { Remove(); }

    int Value() const
    {
        std::unique_lock<std::mutex> lock = Lock();
        return _Count;
    }

private:
    GstPadProbeReturn Handle(GstPadProbeInfo* info) override
    {
        _Count += GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == _Type;
        return GST_PAD_PROBE_OK;
    }

    GstEventType _Type;
    int _Count = 0;
};

} // namespace

// A sink is a node from the moment it has a name: no pipeline state is needed
// to be found. A second sink with a taken name starts but publishes nothing.
TEST(InterpipeNodes, ASinkIsFoundByItsNameFromCreationAndOnceRenamedButNotUnderATakenName)
{
    TestPipeline producer(Producer("node_first", "white"));
    TestPipeline listener(Listener("is-live=true listen-to=node_second"));
    ASSERT_TRUE(listener.Start());
    EXPECT_EQ(Listeners(producer, "node_first"), 0u);
    // Renamed outside a bin, as gst_parse_launch names what it creates.
    GstPtr<GstElement> sink(GST_ELEMENT(gst_object_ref(producer.Element("node_first").get())));
    gst_bin_remove(GST_BIN(producer.Get()), sink.get());
    gst_object_set_name(GST_OBJECT(sink.get()), "node_second");
    guint count = 0;
    g_object_get(sink.get(), "num-listeners", &count, nullptr);
    EXPECT_EQ(count, 1u);

    TestPipeline first(Producer("dup_sink", "black"));
    TestPipeline second(Producer("dup_sink", "white"));
    TestPipeline dupListener(Listener("is-live=true listen-to=dup_sink"));
    ASSERT_TRUE(first.Play());
    ASSERT_TRUE(second.Play());
    EXPECT_FALSE(second.WaitFor(GST_MESSAGE_ERROR, 0));
    ASSERT_TRUE(dupListener.Start());
    EXPECT_TRUE(ReceivesFrom(dupListener, false));
    EXPECT_EQ(Listeners(first, "dup_sink"), 1u);
    EXPECT_EQ(Listeners(second, "dup_sink"), 0u);
}

// Stopping a producer keeps its node; destroying it detaches its listeners
// for good: a new sink of the same name is not followed until the source listens again.
TEST(InterpipeNodes, AStoppedSinkKeepsItsListenersAndADestroyedOneLosesThemUntilTheSourceListensAgain)
{
    auto producer = std::make_unique<TestPipeline>(Producer("node_life", "white"));
    TestPipeline listener(Listener("is-live=true listen-to=node_life"));
    ASSERT_TRUE(listener.Start());
    ASSERT_TRUE(producer->Play());
    EXPECT_TRUE(ReceivesFrom(listener, true));
    ASSERT_TRUE(producer->SetState(GST_STATE_NULL));
    EXPECT_TRUE(StaysQuiet(listener));
    EXPECT_EQ(Listeners(*producer, "node_life"), 1u);
    ASSERT_TRUE(producer->Play());
    EXPECT_TRUE(ReceivesFrom(listener, true));

    producer.reset();
    producer = std::make_unique<TestPipeline>(Producer("node_life", "black"));
    ASSERT_TRUE(producer->Play());
    EXPECT_TRUE(StaysQuiet(listener));
    EXPECT_EQ(ListeningTo(listener), "node_life");
    ListenTo(listener, "node_life"); // the same name again changes nothing
    EXPECT_TRUE(StaysQuiet(listener));
    ASSERT_TRUE(listener.SetState(GST_STATE_READY));
    ASSERT_TRUE(listener.Start());
    EXPECT_TRUE(ReceivesFrom(listener, false));
}

// A listener, started before its sink exists, follows every change of its
// producer while all pipelines keep playing. Listeners of one producer share
// its buffers without copies.
TEST(InterpipeRouting, ASourceFollowsSwitchesAndDetachingWithoutStoppingAnyPipelineAndListenersShareBuffers)
{
    TestPipeline listener(Listener("is-live=true listen-to=switch_white"));
    TestPipeline first(Listener("is-live=true listen-to=switch_white"));
    TestPipeline second(Listener("is-live=true listen-to=switch_white"));
    TestPipeline third(Listener("is-live=true listen-to=switch_white max-buffers=1 leaky-type=2"));
    for (const TestPipeline* p : { &listener, &first, &second, &third })
        ASSERT_TRUE(p->Start());
    EXPECT_FALSE(listener.Pull("out", 300 * GST_MSECOND));
    TestPipeline black(Producer("switch_black", "black"));
    TestPipeline white(Producer("switch_white", "white"));
    ASSERT_TRUE(black.Play());
    ASSERT_TRUE(white.Play());
    EXPECT_EQ(Listeners(white, "switch_white"), 4u);
    // Each listener takes every frame in order; the second frame of each is
    // the producer's own buffer (the first carries a discontinuity mark that
    // each source sets on a metadata copy).
    ASSERT_TRUE(first.Pull("out") && second.Pull("out") && third.Pull("out"));
    GstSamplePtr a = first.Pull("out");
    GstSamplePtr b = second.Pull("out");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(gst_sample_get_buffer(a.get()), gst_sample_get_buffer(b.get()));
    EXPECT_TRUE(ReceivesFrom(listener, true));

    ListenTo(listener, "switch_black");
    EXPECT_TRUE(ReceivesFrom(listener, false));
    ListenTo(listener, "switch_white");
    EXPECT_TRUE(ReceivesFrom(listener, true));
    ListenTo(listener, nullptr);
    EXPECT_TRUE(StaysQuiet(listener));
    EXPECT_EQ(ListeningTo(listener), "");
    ListenTo(listener, "switch_black");
    EXPECT_TRUE(ReceivesFrom(listener, false));
    for (const TestPipeline* p : { &black, &white, &listener })
        EXPECT_EQ(p->State(), GST_STATE_PLAYING);
}

// Each event kind sent into the producer's sink pad, then a frame: a
// listener sees every kind but caps and end-of-stream when the producer
// forwards events and it accepts them, and none otherwise; end-of-stream
// follows "forward-eos" and "accept-eos-event".
TEST(InterpipeEvents, EveryDownstreamEventButCapsAndEosReachesListenersOnlyWhenForwardedAndAccepted)
{
    TestPipeline forwarding(HandFedProducer("event_fwd", "forward-eos=true"));
    TestPipeline keeping(HandFedProducer("event_keep", "forward-events=false"));
    struct Row {
        const char* properties;
        bool events;
        bool eos;
        std::unique_ptr<TestPipeline> listener {};
        std::vector<std::unique_ptr<EventCount>> counts {};
    } rows[] = {
        { "listen-to=event_fwd", true, true },
        { "listen-to=event_fwd accept-events=false", false, true },
        { "listen-to=event_fwd accept-eos-event=false", true, false },
        { "listen-to=event_keep", false, false },
    };
    const GstEventType kinds[] = { GST_EVENT_GAP, GST_EVENT_CUSTOM_DOWNSTREAM, GST_EVENT_TAG,
        GST_EVENT_STREAM_START, GST_EVENT_SEGMENT };
    for (Row& row : rows) {
        row.listener
            = std::make_unique<TestPipeline>(Listener(std::string("is-live=true ") + row.properties));
        GstPtr<GstElement> out = row.listener->Element("out");
        for (GstEventType kind : kinds)
            row.counts.push_back(std::make_unique<EventCount>(out.get(), "sink", kind));
        ASSERT_TRUE(row.listener->Start());
    }
    for (const TestPipeline* producer : { &forwarding, &keeping }) {
        ASSERT_TRUE(producer->Play());
        ASSERT_TRUE(producer->Push("in", Frame(0)));
    }
    for (Row& row : rows)
        ASSERT_TRUE(row.listener->Pull("out")) << row.properties;
    // Counted from here on: what each listener's own start sent is through with its first frame.
    std::vector<std::vector<int>> before;
    for (Row& row : rows) {
        before.emplace_back();
        for (const auto& count : row.counts)
            before.back().push_back(count->Value());
    }

    for (const TestPipeline* producer : { &forwarding, &keeping }) {
        GstPtr<GstElement> sink = producer->Element(producer == &forwarding ? "event_fwd" : "event_keep");
        GstPtr<GstPad> pad(gst_element_get_static_pad(sink.get(), "sink"));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        for (GstEvent* event : { gst_event_new_gap(0, GST_MSECOND),
                 gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("marker")),
                 gst_event_new_tag(gst_tag_list_new(GST_TAG_TITLE, "marker", nullptr)),
                 gst_event_new_stream_start("marker"), gst_event_new_segment(&segment) })
            ASSERT_TRUE(gst_pad_send_event(pad.get(), event));
        ASSERT_TRUE(producer->Push("in", Frame(10 * GST_MSECOND)));
    }
    for (size_t r = 0; r < std::size(rows); ++r) {
        Row& row = rows[r];
        ASSERT_TRUE(row.listener->Pull("out")) << row.properties;
        for (size_t k = 0; k < std::size(kinds); ++k)
            EXPECT_EQ(row.counts[k]->Value() - before[r][k], row.events ? 1 : 0)
                << row.properties << ": " << gst_event_type_get_name(kinds[k]);
    }

    for (const TestPipeline* producer : { &forwarding, &keeping }) {
        producer->EndOfStream("in");
        ASSERT_TRUE(producer->WaitFor(GST_MESSAGE_EOS));
    }
    for (Row& row : rows)
        EXPECT_EQ(ReachesEos(*row.listener, row.eos ? kWait : 500 * GST_MSECOND), row.eos) << row.properties;
}

// An upstream event sent from a listener's end reaches the producer only
// while that listener is its only one; a flush of the producer flushes its
// listeners, which go on with the frames after it.
TEST(InterpipeEvents, UpstreamEventsReachTheProducerFromItsOnlyListenerAndAFlushReachesEveryListener)
{
    TestPipeline producer(HandFedProducer("flush_sink"));
    EventCount custom(producer.Element("flush_sink").get(), "sink", GST_EVENT_CUSTOM_UPSTREAM);
    TestPipeline first(Listener("is-live=true listen-to=flush_sink"));
    TestPipeline second(Listener("is-live=true listen-to=flush_sink"));
    EventCount flushes(first.Element("out").get(), "sink", GST_EVENT_FLUSH_STOP);
    ASSERT_TRUE(producer.Play());
    ASSERT_TRUE(first.Start());
    auto sendUpstream = [&] {
        gst_element_send_event(first.Element("out").get(),
            gst_event_new_custom(GST_EVENT_CUSTOM_UPSTREAM, gst_structure_new_empty("up")));
    };
    sendUpstream();
    EXPECT_EQ(custom.Value(), 1) << "from the only listener";
    ASSERT_TRUE(second.Start());
    ASSERT_EQ(Listeners(producer, "flush_sink"), 2u);
    sendUpstream();
    EXPECT_EQ(custom.Value(), 1) << "from one of two listeners";

    ASSERT_TRUE(producer.Push("in", Frame(0)));
    ASSERT_TRUE(first.Pull("out"));
    GstPtr<GstPad> pad(gst_element_get_static_pad(producer.Element("flush_sink").get(), "sink"));
    ASSERT_TRUE(gst_pad_send_event(pad.get(), gst_event_new_flush_start()));
    ASSERT_TRUE(gst_pad_send_event(pad.get(), gst_event_new_flush_stop(FALSE)));
    EXPECT_EQ(flushes.Value(), 1);
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_pad_send_event(pad.get(), gst_event_new_segment(&segment)));
    ASSERT_TRUE(producer.Push("in", Frame(20 * GST_MSECOND)));
    GstSamplePtr after = first.Pull("out");
    ASSERT_TRUE(after);
    EXPECT_EQ(Pts(after), 20 * GST_MSECOND);
    EXPECT_FALSE(first.WaitFor(GST_MESSAGE_ERROR, 0));
}

// Frames stamped far ahead of any clock (1000 s), one unstamped, one at zero: each stream-sync mode
// hands them on as the board's source does.
TEST(InterpipeTimestamps, EachStreamSyncModeStampsTheProducersFramesAsTheBoardDoes)
{
    constexpr GstClockTime kAhead = 1000 * GST_SECOND;
    TestPipeline producer(HandFedProducer("stamp_sink"));
    ASSERT_TRUE(producer.Play());
    enum Stamp { kSame, kRunning, kNone, kShifted, kDropped };
    struct Row {
        const char* properties;
        Stamp ahead, unstamped, zero;
        std::unique_ptr<TestPipeline> listener {};
    } rows[] = {
        { "stream-sync=passthrough-ts", kSame, kNone, kSame },
        { "do-timestamp=true", kSame, kRunning, kSame },
        { "stream-sync=restart-ts", kRunning, kRunning, kRunning },
        { "stream-sync=compensate-ts", kShifted, kNone, kDropped },
    };
    // Listeners start after the producer, so compensation moves the frames back.
    for (Row& row : rows) {
        row.listener = std::make_unique<TestPipeline>(
            Listener(std::string("is-live=true listen-to=stamp_sink ") + row.properties));
        ASSERT_TRUE(row.listener->Start()) << row.properties;
        // Compensation places frames only once the source plays.
        ASSERT_EQ(gst_element_get_state(row.listener->Element("src").get(), nullptr, nullptr, kWait),
            GST_STATE_CHANGE_SUCCESS);
    }
    for (GstClockTime pts : { kAhead, GST_CLOCK_TIME_NONE, GstClockTime(0) })
        ASSERT_TRUE(producer.Push("in", Frame(pts)));

    const GstClockTime producerBase = gst_element_get_base_time(producer.Get());
    // Only the PTS is judged: these frames carry no DTS, and the do-timestamp
    // row's source writes its own into the buffer every row shares.
    for (Row& row : rows) {
        SCOPED_TRACE(row.properties);
        const GstClockTime base = gst_element_get_base_time(row.listener->Get());
        GstPtr<GstClock> clock(gst_element_get_clock(row.listener->Get()));
        ASSERT_TRUE(clock);
        const GstClockTime sent[] = { kAhead, GST_CLOCK_TIME_NONE, 0 };
        const Stamp expected[] = { row.ahead, row.unstamped, row.zero };
        for (size_t i = 0; i < 3; ++i) {
            if (expected[i] == kDropped) {
                EXPECT_FALSE(row.listener->Pull("out", 300 * GST_MSECOND)) << "frame " << i;
                continue;
            }
            GstSamplePtr sample = row.listener->Pull("out");
            ASSERT_TRUE(sample) << "frame " << i;
            const GstClockTime pts = Pts(sample);
            switch (expected[i]) {
            case kSame:
                EXPECT_EQ(pts, sent[i]) << "frame " << i;
                break;
            case kNone:
                EXPECT_EQ(pts, GST_CLOCK_TIME_NONE) << "frame " << i;
                break;
            case kShifted:
                EXPECT_EQ(pts, sent[i] + producerBase - base) << "frame " << i;
                break;
            default:
                ASSERT_NE(pts, GST_CLOCK_TIME_NONE) << "frame " << i;
                EXPECT_LE(pts, gst_clock_get_time(clock.get()) - base) << "frame " << i;
                break;
            }
        }
    }
}

// Compensation keeps or drops a frame by its PTS alone; a DTS that would go below zero is cleared.
TEST(InterpipeTimestamps, CompensationDropsByThePresentationTimeAlone)
{
    constexpr GstClockTime kAhead = 1000 * GST_SECOND;
    TestPipeline producer(HandFedProducer("compensate_sink"));
    ASSERT_TRUE(producer.Play());
    TestPipeline listener(Listener("is-live=true listen-to=compensate_sink stream-sync=compensate-ts"));
    ASSERT_TRUE(listener.Start());
    ASSERT_EQ(gst_element_get_state(listener.Element("src").get(), nullptr, nullptr, kWait),
        GST_STATE_CHANGE_SUCCESS);
    auto frame = [](GstClockTime pts, GstClockTime dts) {
        GstBuffer* buffer = Frame(pts);
        GST_BUFFER_DTS(buffer) = dts;
        return buffer;
    };
    ASSERT_TRUE(producer.Push("in", frame(kAhead, 0)));
    ASSERT_TRUE(producer.Push("in", frame(0, kAhead)));
    ASSERT_TRUE(producer.Push("in", frame(kAhead + 10 * GST_MSECOND, kAhead)));

    // The listener started after the producer: its frames move back by the difference.
    const GstClockTime back
        = gst_element_get_base_time(listener.Get()) - gst_element_get_base_time(producer.Get());
    GstSamplePtr lowDts = listener.Pull("out");
    ASSERT_TRUE(lowDts);
    EXPECT_EQ(Pts(lowDts), kAhead - back);
    EXPECT_EQ(GST_BUFFER_DTS(gst_sample_get_buffer(lowDts.get())), GST_CLOCK_TIME_NONE);
    GstSamplePtr next = listener.Pull("out");
    ASSERT_TRUE(next);
    EXPECT_EQ(Pts(next), kAhead + 10 * GST_MSECOND - back);
    EXPECT_EQ(GST_BUFFER_DTS(gst_sample_get_buffer(next.get())), kAhead - back);
}

// Restamped with its own running time, a listener's frames keep increasing
// across a switch between producers started at different times.
TEST(InterpipeTimestamps, RestartedStampsKeepIncreasingAcrossPipelinesAndSwitches)
{
    TestPipeline early(Producer("sync_early", "black"));
    ASSERT_TRUE(early.Play());
    // Non-live, as the picture processing's source: it prerolls on the first buffer.
    TestPipeline listener(Listener("stream-sync=restart-ts listen-to=sync_early", "max-buffers=1 drop=true"));
    ASSERT_TRUE(listener.Start());
    g_usleep(300 * 1000);
    TestPipeline late(Producer("sync_late", "white"));
    ASSERT_TRUE(late.Play());

    std::vector<GstClockTime> stamps;
    auto collect = [&](bool white, size_t count) {
        const size_t until = stamps.size() + count;
        for (int i = 0; i < 500 && stamps.size() < until; ++i) {
            GstSamplePtr sample = listener.Pull("out");
            if (!sample)
                return;
            if (IsWhite(sample.get()) == white)
                stamps.push_back(Pts(sample));
        }
    };
    collect(false, 10);
    ListenTo(listener, "sync_late");
    collect(true, 10);
    ASSERT_EQ(stamps.size(), 20u);
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_GT(stamps[i], stamps[i - 1]) << "frame " << i;
}

// Listeners whose ends want different sizes: an unconstrained producer
// negotiates what all of them take, whatever its "caps" say; when they
// want sizes that exclude each other, they are detached.
TEST(InterpipeCaps, AProducerNegotiatesWhatAllListenersTakeAndLosesThemWhenNothingIs)
{
    struct Case {
        const char* sink;
        const char* firstEnd;
        const char* secondEnd;
        bool agree;
    } cases[] = {
        { "caps_agree", "video/x-raw,width=32 !", "video/x-raw,height=24 !", true },
        { "caps_clash", "video/x-raw,width=32 !", "video/x-raw,width=48 !", false },
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.sink);
        TestPipeline producer("videotestsrc is-live=true ! video/x-raw,format=GRAY8,framerate=100/1 "
                              "! interpipesink caps=video/x-raw,width=64 name="
            + std::string(c.sink));
        const std::string source = std::string("is-live=true listen-to=") + c.sink;
        TestPipeline first(Listener(source, "", c.firstEnd));
        TestPipeline second(Listener(source, "", c.secondEnd));
        ASSERT_TRUE(first.Start() && second.Start());
        ASSERT_EQ(Listeners(producer, c.sink), 2u);
        ASSERT_TRUE(producer.Play());
        EXPECT_FALSE(producer.WaitFor(GST_MESSAGE_ERROR, 0));
        if (!c.agree) {
            EXPECT_EQ(Listeners(producer, c.sink), 0u);
            EXPECT_FALSE(first.Pull("out", 300 * GST_MSECOND));
            continue;
        }
        for (const TestPipeline* listener : { &first, &second }) {
            GstSamplePtr sample = listener->Pull("out");
            ASSERT_TRUE(sample);
            EXPECT_EQ(CapsInt(sample, "width"), 32);
            EXPECT_EQ(CapsInt(sample, "height"), 24);
        }
    }
}

// A later caps change of the producer: a listener that keeps its caps
// refuses it quietly and goes on receiving frames; one that renegotiates
// takes it. A switch to a producer with other caps: as its only listener the
// source renegotiates; a source that keeps its caps cannot join a producer
// whose listeners' caps exclude them, and stays with the one it had.
TEST(InterpipeCaps, OtherCapsAreTakenOnlyWhereRenegotiationIsAllowedAndAFixedSourceKeepsItsProducer)
{
    TestPipeline producer(HandFedProducer("caps_change"));
    TestPipeline wide(
        Producer("caps_wide", "white", "", "video/x-raw,format=GRAY8,width=32,height=16,framerate=100/1"));
    TestPipeline allowing(Listener("is-live=true listen-to=caps_change"));
    TestPipeline fixed(Listener("is-live=true allow-renegotiation=false listen-to=caps_change"));
    for (const TestPipeline* p : { &allowing, &fixed })
        ASSERT_TRUE(p->Start());
    ASSERT_TRUE(producer.Play() && wide.Play());
    ASSERT_TRUE(producer.Push("in", Frame(0)));
    for (const TestPipeline* p : { &allowing, &fixed })
        ASSERT_TRUE(p->Pull("out"));

    g_autoptr(GstCaps) changed = gst_caps_from_string(
        "video/x-raw,format=GRAY8,width=16,height=16,framerate=100/1,pixel-aspect-ratio=1/1");
    gst_app_src_set_caps(GST_APP_SRC(producer.Element("in").get()), changed);
    ASSERT_TRUE(producer.Push("in", Frame(10 * GST_MSECOND)));
    GstSamplePtr taken = allowing.Pull("out");
    GstSamplePtr refused = fixed.Pull("out");
    ASSERT_TRUE(taken && refused);
    EXPECT_TRUE(CapsHave(taken, "pixel-aspect-ratio"));
    EXPECT_FALSE(CapsHave(refused, "pixel-aspect-ratio"));

    ListenTo(allowing, "caps_wide");
    ASSERT_TRUE(ReceivesFrom(allowing, true));
    GstSamplePtr sample = allowing.Pull("out");
    ASSERT_TRUE(sample);
    EXPECT_EQ(CapsInt(sample, "width"), 32);

    ListenTo(fixed, "caps_wide");
    EXPECT_EQ(ListeningTo(fixed), "caps_change");
    EXPECT_EQ(Listeners(wide, "caps_wide"), 1u);
    ASSERT_TRUE(producer.Push("in", Frame(20 * GST_MSECOND)));
    GstSamplePtr kept = fixed.Pull("out");
    ASSERT_TRUE(kept);
    EXPECT_EQ(Pts(kept), 20 * GST_MSECOND);
    for (const TestPipeline* p : { &producer, &wide, &allowing, &fixed })
        EXPECT_FALSE(p->WaitFor(GST_MESSAGE_ERROR, 0));
}
