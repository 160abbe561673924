// The pipeline base on real pipelines: launch, state, EOS, tear-down, routing, bus and queue signals.
#include <thread>
#include <vector>

#include "log_capture.h"
#include "pipeline_harness.h"

using PipelineHarness::DescribedPipeline;
using PipelineHarness::ElementOf;
using PipelineHarness::RunMainLoopFor;
using PipelineHarness::RunMainLoopUntil;
using VideoDaemon::GstPtr;
using VideoDaemon::Pipeline;

namespace
{

const char kLive[]
    = "videotestsrc is-live=true ! video/x-raw,width=64,height=48,framerate=30/1 ! fakesink name=sink";

// A pipeline that records its element messages as "source structure-name".
class ElementMessagePipeline : public DescribedPipeline
{
public:
    using DescribedPipeline::DescribedPipeline;
    void OnElementMessage(const char* source_name, GstMessage* message) override
    {
        received.push_back(
            std::string(source_name) + " " + gst_structure_get_name(gst_message_get_structure(message)));
    }
    std::vector<std::string> received;
};

// What a HandlerPipeline's own handlers have seen; outlives the pipeline.
struct HandlerCounts {
    int handoffs = 0;
    int applications = 0;
};

// A pipeline that follows one element signal and one bus message of its own,
// as the pipeline classes do through the base's handler registry.
class HandlerPipeline : public DescribedPipeline
{
public:
    explicit HandlerPipeline(HandlerCounts& counts)
        : DescribedPipeline("fakesrc num-buffers=0 ! identity name=tap ! fakesink")
        , counts_(counts)
    {
    }
    bool Follow()
    {
        GstPtr<GstElement> tap = FindElement(VIDEOD_FUNCTION, "tap");
        return tap && ConnectHandler("test", tap.get(), "handoff", G_CALLBACK(&HandlerPipeline::OnHandoff))
            && ConnectBusHandler("test", "message::application", G_CALLBACK(&HandlerPipeline::OnApplication));
    }
    void Unfollow() { DisconnectHandlers("test"); }

private:
    static void OnHandoff(GstElement*, GstBuffer*, gpointer self)
    {
        static_cast<HandlerPipeline*>(self)->counts_.handoffs++;
    }
    static void OnApplication(GstBus*, GstMessage*, gpointer self)
    {
        static_cast<HandlerPipeline*>(self)->counts_.applications++;
    }
    HandlerCounts& counts_;
};

// Emits the identity's "handoff" as its streaming thread would.
void Handoff(GstElement* tap)
{
    VideoDaemon::GstBufferPtr buffer(gst_buffer_new());
    g_signal_emit_by_name(tap, "handoff", buffer.get());
}

} // namespace

TEST(Pipeline, RelaunchBuildsANewPipelineFaultyDescriptionsLaunchNothingAndTearDownWaitsForNull)
{
    DescribedPipeline pipeline("fakesrc name=src num-buffers=5 ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.GetState(), GST_STATE_NULL);

    // No element state survives a relaunch.
    g_object_set(ElementOf(pipeline, "src").get(), "num-buffers", 99, nullptr);
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    gint buffers = 0;
    g_object_get(ElementOf(pipeline, "src").get(), "num-buffers", &buffers, nullptr);
    EXPECT_EQ(buffers, 5);

    GstPipeline* second = pipeline.GetPipeline();
    pipeline.SetDescription("");
    EXPECT_FALSE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.GetPipeline(), second);

    // An unknown property is a recoverable error: gst_parse_launch returns
    // a pipeline and an error. It still counts as a failure.
    for (const char* description :
        { "", "      ", "fakesrc no-such-property=1 ! fakesink", "no_such_element_here ! fakesink" }) {
        DescribedPipeline faulty(description);
        EXPECT_FALSE(faulty.Launch(true, true, true)) << description;
        EXPECT_EQ(faulty.GetPipeline(), nullptr) << description;
        EXPECT_EQ(faulty.SetState(GST_STATE_PLAYING), -1) << description;
        EXPECT_EQ(faulty.GetState(), GST_STATE_NULL) << description;
    }

    DescribedPipeline collapsed("fakesrc     name=\"two    blanks\"    !      fakesink");
    ASSERT_TRUE(collapsed.Launch(false, false, false));
    EXPECT_NE(ElementOf(collapsed, "two blanks"), nullptr) << "runs of blanks collapse even inside quotes";

    // Flushing needs a pipeline, and tear-down is refused while playing.
    LogCapture log;
    DescribedPipeline live(kLive);
    EXPECT_FALSE(live.SendFlushStart());
    EXPECT_FALSE(live.SendFlushStop(true));
    live.CreateFramerateProbe("rate", "sink", "sink");
    ASSERT_TRUE(live.Launch(true, true, false));
    ASSERT_EQ(live.SetState(GST_STATE_PLAYING), 0);
    GstPipeline* held = live.GetPipeline();
    EXPECT_FALSE(live.TearDown());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[Pipeline] Pipeline is still in PLAYING state, cannot tear down"));
    EXPECT_EQ(live.GetPipeline(), held);
    EXPECT_EQ(live.GetState(), GST_STATE_PLAYING);
    EXPECT_TRUE(live.SendFlushStart());
    EXPECT_TRUE(live.SendFlushStop(false));

    ASSERT_EQ(live.SetState(GST_STATE_NULL), 0);
    EXPECT_TRUE(live.TearDown());
    EXPECT_EQ(live.GetPipeline(), nullptr);
    EXPECT_TRUE(live.TearDown());
}

TEST(Pipeline, InitializeWatchesTheBusAndOnlyTheMetricsAskedForAndQueueSignalsAreReportedOnceOnTheMainLoop)
{
    // The missing pad and queue make each metric's set-up visible in the log.
    const std::string probe_line = "pad == NULL (sink.no_such_pad)";
    const std::string queue_line = "'absent' failed to register queue state signals";
    for (const auto& [probes, queues] : { std::pair { false, false }, { true, false }, { false, true } }) {
        LogCapture log;
        DescribedPipeline pipeline(kLive);
        pipeline.CreateFramerateProbe("rate", "sink", "no_such_pad");
        pipeline.MonitorQueue("absent");
        Pipeline::LaunchFlags flags;
        flags.attach_probes = probes;
        flags.connect_queue_signals = queues;
        EXPECT_EQ(1, pipeline.Initialize(flags));
        EXPECT_EQ(probes, log.ContainsText(probe_line)) << probes << queues;
        EXPECT_EQ(queues, log.ContainsText(queue_line)) << probes << queues;

        // The bus is watched: an element's error reaches signal_error.
        std::string reported;
        pipeline.signal_error.connect([&](std::string message) { reported = message; });
        GstElement* top = GST_ELEMENT(pipeline.GetPipeline());
        VideoDaemon::GErrorPtr error(g_error_new_literal(GST_CORE_ERROR, GST_CORE_ERROR_FAILED, "raised"));
        gst_element_post_message(top, gst_message_new_error(GST_OBJECT(top), error.get(), nullptr));
        EXPECT_TRUE(RunMainLoopUntil([&] { return reported == "raised"; }));
    }

    DescribedPipeline faulty("no_such_element_here ! fakesink");
    EXPECT_EQ(0, faulty.Initialize(Pipeline::LaunchFlags()));
    EXPECT_EQ(nullptr, faulty.GetPipeline());

    // Monitored queues that cannot be connected are reported, the others connected.
    LogCapture log;
    DescribedPipeline failed("no_such_element_here ! queue name=q ! fakesink");
    failed.MonitorQueue("q");
    EXPECT_FALSE(failed.Launch(false, false, true));
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::Pipeline::ConnectQueueStateSignals(): pipeline == NULL (q)"));
    EXPECT_TRUE(log.Contains(LOG_ERR, "'q' failed to register queue state signals"));

    DescribedPipeline pipeline("fakesrc ! queue name=present ! fakesink");
    pipeline.MonitorQueue("absent");
    pipeline.MonitorQueue("present");
    EXPECT_TRUE(pipeline.Launch(false, false, true));
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "void VideoDaemon::Pipeline::ConnectQueueStateSignals(): element == NULL (absent)"));
    EXPECT_TRUE(log.Contains(LOG_ERR, "'absent' failed to register queue state signals"));
    EXPECT_FALSE(log.ContainsText("'present' failed"));

    // Repeated queue signals are reported once, on the main loop, until the pipeline goes.
    auto queues
        = std::make_unique<DescribedPipeline>("fakesrc ! queue name=watched ! queue name=ignored ! fakesink");
    queues->MonitorQueue("watched");
    ASSERT_TRUE(queues->Launch(false, false, true));
    std::vector<std::string> reports;
    queues->signal_queue_overrun.connect([&](std::string name) { reports.push_back("overrun " + name); });
    queues->signal_queue_underrun.connect([&](std::string name) { reports.push_back("underrun " + name); });
    queues->signal_queue_running.connect([&](std::string name) { reports.push_back("running " + name); });

    GstPtr<GstElement> watched = ElementOf(*queues, "watched");
    GstPtr<GstElement> ignored = ElementOf(*queues, "ignored");
    // Queue signals come from streaming threads.
    std::thread streaming([&] {
        for (const char* signal : { "overrun", "overrun", "underrun", "overrun", "running", "running" })
            g_signal_emit_by_name(watched.get(), signal);
        g_signal_emit_by_name(ignored.get(), "overrun");
    });
    streaming.join();
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(queues->GetQueueStates().at("watched"), Pipeline::kQueueRunning);

    RunMainLoopUntil([&] { return reports.size() >= 4; }, 2000);
    RunMainLoopFor(50);
    const std::vector<std::string> expected { "overrun watched", "underrun watched", "overrun watched",
        "running watched" };
    EXPECT_EQ(reports, expected);

    // A report still pending when the pipeline is destroyed is dropped.
    g_signal_emit_by_name(watched.get(), "overrun");
    queues.reset();
    RunMainLoopFor(50);
    EXPECT_EQ(reports, expected);
}

TEST(Pipeline,
    StateChangesReturnAtOnceOrWaitFailuresAreLoggedAndOnlyTopLevelChangesAndElementMessagesReachHooks)
{
    LogCapture log;
    DescribedPipeline pipeline(kLive);
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.SetState(GST_STATE_PLAYING, 0), 0);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[DescribedPipeline] Set state [PLAYING]"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline. will switch to 4 ASYNC"));
    EXPECT_FALSE(log.ContainsText("Wait ASYNC switch"));
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL, 0), 0);

    // With a wait, the change completes before the call returns.
    EXPECT_EQ(pipeline.SetState(GST_STATE_PLAYING, 2000), 0);
    EXPECT_TRUE(log.Contains(LOG_INFO, "Wait ASYNC switch for 2000"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline. curr_state=4 change_ret=1"));
    EXPECT_EQ(pipeline.GetState(), GST_STATE_PLAYING);
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);

    // Failures are logged with the state reached. The sink of the first never prerolls; the second fails at
    // once and reports a state it never queried.
    const struct {
        const char* description;
        GstState target;
        guint wait;
        const char* line;
    } rows[] = {
        { "appsrc ! fakesink", GST_STATE_PAUSED, 100,
            "pipeline DescribedPipeline. failed set state(3) curr_state=2 change_ret=2" },
        { "filesrc name=reader location=/nonexistent/videod-test ! fakesink", GST_STATE_PLAYING, 0,
            "pipeline DescribedPipeline. failed set state(4) curr_state=-1 change_ret=0" },
    };
    for (const auto& row : rows) {
        DescribedPipeline failing(row.description);
        std::vector<std::string> errors;
        failing.signal_error.connect([&](std::string message) { errors.push_back(message); });
        ASSERT_TRUE(failing.Launch(false, true, false));
        EXPECT_EQ(failing.SetState(row.target, row.wait), -1) << row.description;
        EXPECT_TRUE(log.Contains(LOG_ERR, row.line)) << row.description;
        if (row.target == GST_STATE_PLAYING) {
            ASSERT_TRUE(RunMainLoopUntil([&] { return !errors.empty(); }));
            EXPECT_FALSE(errors.front().empty());
            EXPECT_TRUE(log.Contains(LOG_ERR, "Error from element reader: " + errors.front() + "\n"));
            EXPECT_TRUE(log.ContainsText("Debugging info:"));
        }
        EXPECT_EQ(failing.SetState(GST_STATE_NULL), 0);
    }

    // Only top-level state changes and element messages reach their hooks.
    ElementMessagePipeline hooked(kLive);
    std::vector<std::pair<GstState, GstState>> changes;
    hooked.signal_state_changed.connect([&](GstState from, GstState to) { changes.emplace_back(from, to); });
    ASSERT_TRUE(hooked.Launch(false, true, false));
    ASSERT_EQ(hooked.SetState(GST_STATE_PLAYING), 0);
    GstPtr<GstElement> sink = ElementOf(hooked, "sink");
    gst_element_post_message(
        sink.get(), gst_message_new_element(GST_OBJECT(sink.get()), gst_structure_new_empty("hello")));
    // Other message types are not element messages.
    gst_element_post_message(sink.get(), gst_message_new_info(GST_OBJECT(sink.get()), nullptr, "note"));
    ASSERT_TRUE(RunMainLoopUntil([&] {
        return !hooked.received.empty() && !changes.empty() && changes.back().second == GST_STATE_PLAYING;
    }));
    RunMainLoopFor(100);

    // Three elements change state too, but only the pipeline is reported.
    std::vector<std::pair<GstState, GstState>> expected { { GST_STATE_NULL, GST_STATE_READY },
        { GST_STATE_READY, GST_STATE_PAUSED }, { GST_STATE_PAUSED, GST_STATE_PLAYING } };
    EXPECT_EQ(changes, expected);
    std::string name = GST_OBJECT_NAME(hooked.GetPipeline());
    EXPECT_TRUE(log.Contains(LOG_DEBUG,
        "[ElementMessagePipeline (" + name + ")], State changed [PAUSED -> PLAYING], target VOID_PENDING"));
    EXPECT_EQ(hooked.received, std::vector<std::string> { "sink hello" });
    EXPECT_EQ(hooked.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, SendEosWaitsForAFreshEosNotAStaleOneSignalsOnlyOneNotWaitedForAndTimesOutWithoutOne)
{
    // EOS never gets through the first pipeline: only the stale message
    // could satisfy the wait, and it is drained first.
    const struct {
        const char* description;
        int result;
        const char* line;
    } rows[] = {
        { "appsrc name=src ! valve drop=true ! fakesink async=false", -1,
            "pipeline DescribedPipeline: After sending EOS, failed to read EOS message from bus after " },
        { kLive, 0, "pipeline DescribedPipeline: EOS event handled after " },
    };
    for (const auto& row : rows) {
        LogCapture log;
        DescribedPipeline pipeline(row.description);
        ASSERT_TRUE(pipeline.Launch(false, false, false));
        ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
        GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.GetPipeline()));
        gst_bus_post(bus.get(), gst_message_new_eos(GST_OBJECT(pipeline.GetPipeline())));
        EXPECT_EQ(pipeline.SendEos(true), row.result) << row.description;
        EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline: Sending EOS event..."));
        EXPECT_TRUE(log.ContainsText(row.line)) << row.description;
        EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
    }

    // Only an EOS not waited for is signalled, on the main loop.
    for (bool wait : { false, true }) {
        LogCapture log;
        DescribedPipeline pipeline(kLive);
        int eos = 0;
        pipeline.signal_eos.connect([&] { ++eos; });
        EXPECT_FALSE(pipeline.ConnectBusMessages());
        ASSERT_TRUE(pipeline.Launch(false, true, false));
        EXPECT_TRUE(log.Contains(LOG_INFO, "[Pipeline] Connect messages from the elements"));
        EXPECT_TRUE(log.Contains(LOG_INFO, "[Pipeline] Listen for EOS message"));
        ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
        EXPECT_EQ(pipeline.SendEos(wait), 0);
        RunMainLoopUntil([&] { return eos > 0; }, wait ? 200 : 5000);
        RunMainLoopFor(50);
        EXPECT_EQ(eos, wait ? 0 : 1) << "wait " << wait;
        EXPECT_EQ(log.Contains(LOG_INFO, "[Pipeline] DescribedPipeline: Posted EOS message"), !wait);
        EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
    }

    // Waiting without an EOS times out.
    LogCapture log;
    DescribedPipeline pipeline("fakesrc ! fakesink");
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.WaitForEos(0), -1);
    EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline: Waiting for EOS event..."));
    EXPECT_TRUE(log.ContainsText(
        "pipeline DescribedPipeline: After sending EOS, failed to read EOS message from bus after 0."));
    EXPECT_EQ(log.Lines().back().first, LOG_WARNING);
}

// Switching producers while frames flow is shown by the input mux.
TEST(Pipeline, ListenToPointsTheSourceAtTheProducerRecordsBothSidesAndReportsWhatIsMissing)
{
    LogCapture log;
    DescribedPipeline producer("fakesrc ! interpipesink name=base_producer_sink", "base_producer_sink");
    DescribedPipeline other("fakesrc ! interpipesink name=base_other_sink", "base_other_sink");
    DescribedPipeline consumer("interpipesrc name=base_consumer_src ! fakesink", "", "base_consumer_src");
    DescribedPipeline second("interpipesrc name=base_second_src ! fakesink", "", "base_second_src");
    for (Pipeline* p : std::initializer_list<Pipeline*> { &producer, &other, &consumer, &second })
        ASSERT_TRUE(p->Launch(false, false, false));

    EXPECT_FALSE(consumer.IsListening());
    EXPECT_TRUE(consumer.ListenTo(&producer, "", ""));
    EXPECT_TRUE(consumer.IsListening());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Listening to: base_producer_sink"));
    EXPECT_EQ(consumer.GetListeningTo().at("base_consumer_src"), &producer);
    EXPECT_EQ(producer.GetListeners().at("base_producer_sink"), &consumer);

    // Only the last consumer of a sink is remembered; a source's earlier
    // producer is replaced.
    EXPECT_TRUE(second.ListenTo(&producer, "", ""));
    EXPECT_EQ(producer.GetListeners().at("base_producer_sink"), &second);
    EXPECT_TRUE(consumer.ListenTo(&other, "", ""));
    EXPECT_EQ(consumer.GetListeningTo().at("base_consumer_src"), &other);
    gchar* listen_to = nullptr;
    g_object_get(ElementOf(consumer, "base_consumer_src").get(), "listen-to", &listen_to, nullptr);
    EXPECT_STREQ(listen_to, "base_other_sink");
    g_free(listen_to);

    EXPECT_TRUE(consumer.ListenTo(nullptr, "", ""));
    EXPECT_FALSE(consumer.IsListening());

    // A missing pipeline or element is reported.
    DescribedPipeline lonely("fakesrc ! interpipesink name=base_lonely_sink", "base_lonely_sink");
    DescribedPipeline misnamed("interpipesrc name=base_present_src ! fakesink", "", "base_missing_src");
    const std::string signature
        = "bool VideoDaemon::Pipeline::ListenTo(VideoDaemon::Pipeline*, std::__cxx11::string, "
          "std::__cxx11::string)";

    // Before the launch the pipeline is missing, after it the element.
    for (const std::string missing : { "pipeline", "element" }) {
        EXPECT_FALSE(misnamed.ListenTo(&lonely, "", ""));
        EXPECT_TRUE(log.Contains(LOG_ERR, signature + ": " + missing + " == NULL (base_missing_src)"));
        EXPECT_FALSE(misnamed.ListenTo(nullptr, "", ""));
        EXPECT_FALSE(misnamed.IsListening());
        EXPECT_TRUE(log.Contains(LOG_ERR,
            "bool VideoDaemon::Pipeline::IsListening(): " + missing + " == NULL (base_missing_src)"));
        EXPECT_TRUE(misnamed.GetListeningTo().empty());
        EXPECT_TRUE(lonely.GetListeners().empty());
        ASSERT_TRUE(misnamed.Launch(false, false, false));
    }

    // Explicit names override the defaults.
    EXPECT_TRUE(misnamed.ListenTo(&lonely, "elsewhere", "base_present_src"));
    EXPECT_EQ(lonely.GetListeners().at("elsewhere"), &misnamed);
}

TEST(Pipeline, FramerateProbeCountsFramesOverTheLastSecond)
{
    LogCapture log;
    DescribedPipeline pipeline(kLive);
    pipeline.CreateFramerateProbe("rate", "sink", "sink");
    pipeline.CreateFramerateProbe("rate", "sink", "sink");
    EXPECT_TRUE(log.Contains(LOG_ERR, "CreateFramerateProbe - removing duplicate"));
    pipeline.CreateFramerateProbe("broken", "no_such_element", "sink");
    ASSERT_TRUE(pipeline.Launch(true, false, false));
    EXPECT_EQ(pipeline.GetProbeRates().size(), 2u);
    ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    auto rates = pipeline.GetProbeRates();
    // A 30 fps live source cannot deliver more than 31 frames in a second.
    EXPECT_GT(rates.at("rate"), 0u);
    EXPECT_LE(rates.at("rate"), 31u);
    EXPECT_EQ(rates.at("broken"), 0u);
    ASSERT_EQ(pipeline.SetState(GST_STATE_NULL), 0);

    // Once the flow stops the rate falls to zero.
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
    EXPECT_EQ(pipeline.GetProbeRates().at("rate"), 0u);
}

TEST(Pipeline, OwnHandlersSurviveABusReconnectAndGoOnRelaunchTearDownAndDestruction)
{
    HandlerCounts counts;
    auto pipeline = std::make_unique<HandlerPipeline>(counts);
    int eos = 0;
    pipeline->signal_eos.connect([&] { ++eos; });
    ASSERT_TRUE(pipeline->Launch(false, true, false));
    ASSERT_TRUE(pipeline->Follow());
    // Connecting the bus again replaces the base's handlers, not the others.
    ASSERT_TRUE(pipeline->ConnectBusMessages());
    GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline->GetPipeline()));
    GstObject* source = GST_OBJECT(pipeline->GetPipeline());
    gst_bus_post(bus.get(), gst_message_new_application(source, gst_structure_new_empty("note")));
    gst_bus_post(bus.get(), gst_message_new_eos(source));
    ASSERT_TRUE(RunMainLoopUntil([&] { return counts.applications == 1 && eos == 1; }));
    RunMainLoopFor(50);
    EXPECT_EQ(eos, 1) << "the base's handlers are connected once";
    GstPtr<GstElement> tap = ElementOf(*pipeline, "tap");
    Handoff(tap.get());
    EXPECT_EQ(counts.handoffs, 1);

    // A group can go by itself.
    pipeline->Unfollow();
    Handoff(tap.get());
    EXPECT_EQ(counts.handoffs, 1);

    // Relaunch: the old elements call nothing, the new ones only what is
    // connected again.
    ASSERT_TRUE(pipeline->Follow());
    ASSERT_TRUE(pipeline->Launch(false, true, false));
    Handoff(tap.get());
    EXPECT_EQ(counts.handoffs, 1);
    tap = ElementOf(*pipeline, "tap");
    Handoff(tap.get());
    EXPECT_EQ(counts.handoffs, 1);

    ASSERT_TRUE(pipeline->Follow());
    EXPECT_TRUE(pipeline->TearDown());
    Handoff(tap.get());
    EXPECT_EQ(counts.handoffs, 1);

    // Destruction: an element that outlives the pipeline object calls
    // nothing.
    ASSERT_TRUE(pipeline->Launch(false, true, false));
    ASSERT_TRUE(pipeline->Follow());
    tap = ElementOf(*pipeline, "tap");
    pipeline.reset();
    Handoff(tap.get());
    EXPECT_EQ(counts.handoffs, 1);
}
