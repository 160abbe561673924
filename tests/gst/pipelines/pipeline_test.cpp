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

// A pipeline whose element messages are recorded.
class ElementMessagePipeline : public DescribedPipeline
{
public:
    using DescribedPipeline::DescribedPipeline;
    void OnElementMessage(const char* source_name, GstMessage* message) override
    {
        sources.push_back(source_name);
        names.push_back(gst_structure_get_name(gst_message_get_structure(message)));
    }
    std::vector<std::string> sources;
    std::vector<std::string> names;
};

} // namespace

TEST(Pipeline, IsNamedAfterItsClassWithoutNamespace)
{
    DescribedPipeline pipeline("fakesrc ! fakesink");
    EXPECT_EQ(pipeline.GetName(), "DescribedPipeline");
    Pipeline& base = pipeline;
    EXPECT_EQ(base.GetName(), "DescribedPipeline");
}

TEST(Pipeline, RelaunchBuildsANewPipelineAndEmptyDescriptionKeepsTheOldOne)
{
    DescribedPipeline pipeline("fakesrc name=src num-buffers=5 ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    GstPipeline* first = pipeline.GetPipeline();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(pipeline.GetState(), GST_STATE_NULL);

    // No element state survives a relaunch.
    g_object_set(ElementOf(pipeline, "src").get(), "num-buffers", 99, nullptr);
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_NE(pipeline.GetPipeline(), nullptr);
    gint buffers = 0;
    g_object_get(ElementOf(pipeline, "src").get(), "num-buffers", &buffers, nullptr);
    EXPECT_EQ(buffers, 5);

    GstPipeline* second = pipeline.GetPipeline();
    pipeline.SetDescription("");
    EXPECT_FALSE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.GetPipeline(), second);
}

TEST(Pipeline, EmptyOrBlankDescriptionsCannotLaunchNorChangeState)
{
    class Bare : public Pipeline
    {
    };
    Bare bare;
    EXPECT_EQ(bare.GetDescription(), "");
    EXPECT_EQ(bare.GetSinkName(), "");
    EXPECT_EQ(bare.GetSourceName(), "");
    EXPECT_FALSE(bare.Launch(true, true, true));
    EXPECT_EQ(bare.GetPipeline(), nullptr);
    EXPECT_EQ(bare.GetState(), GST_STATE_NULL);
    EXPECT_EQ(bare.SetState(GST_STATE_PLAYING), -1);
    EXPECT_EQ(bare.GetState(), GST_STATE_NULL);

    // A blank description is not empty, but fails to parse.
    DescribedPipeline blank("      ");
    EXPECT_FALSE(blank.Launch(false, false, false));
    EXPECT_EQ(blank.GetPipeline(), nullptr);
}

TEST(Pipeline, CollapsesRunsOfBlanksEvenInsideQuotedValues)
{
    DescribedPipeline pipeline("fakesrc     name=\"two    blanks\"    !      fakesink");
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_NE(ElementOf(pipeline, "two blanks"), nullptr);
    EXPECT_EQ(ElementOf(pipeline, "two    blanks"), nullptr);
}

TEST(Pipeline, ParseErrorsFailEvenWithAPartialPipeline)
{
    // An unknown property is a recoverable error: gst_parse_launch returns
    // a pipeline and an error. It still counts as a failure.
    DescribedPipeline pipeline("fakesrc no-such-property=1 ! fakesink");
    EXPECT_FALSE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.GetPipeline(), nullptr);

    DescribedPipeline unknown("no_such_element_here ! fakesink");
    EXPECT_FALSE(unknown.Launch(false, false, false));
}

TEST(Pipeline, MonitoredQueuesThatCannotBeConnectedAreReportedAndTheOthersConnected)
{
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
}

TEST(Pipeline, ConnectingTheBusLogsItsSteps)
{
    LogCapture log;
    DescribedPipeline pipeline("fakesrc ! fakesink");
    EXPECT_FALSE(pipeline.ConnectBusMessages());
    ASSERT_TRUE(pipeline.Launch(false, true, false));
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Pipeline] Connect messages from the elements"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Pipeline] Listen for EOS message"));
}

TEST(Pipeline, AsynchronousChangeReturnsAtOnceOrWaitsForTheState)
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
}

TEST(Pipeline, FailedStateChangesAreLoggedWithTheStateReached)
{
    LogCapture log;
    // Nothing ever arrives at the sink, so it never prerolls.
    DescribedPipeline pipeline("appsrc ! fakesink");
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.SetState(GST_STATE_PAUSED, 100), -1);
    EXPECT_TRUE(
        log.Contains(LOG_ERR, "pipeline DescribedPipeline. failed set state(3) curr_state=2 change_ret=2"));
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);

    // An immediate failure reports a state it never queried.
    DescribedPipeline missing("filesrc location=/nonexistent/videod-test ! fakesink");
    ASSERT_TRUE(missing.Launch(false, false, false));
    EXPECT_EQ(missing.SetState(GST_STATE_PLAYING), -1);
    EXPECT_TRUE(
        log.Contains(LOG_ERR, "pipeline DescribedPipeline. failed set state(4) curr_state=-1 change_ret=0"));
    EXPECT_EQ(missing.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, SendEosWaitsForAFreshEosNotAStaleOne)
{
    // EOS never gets through this pipeline: only the stale message could
    // satisfy the wait, and it is drained first.
    LogCapture log;
    DescribedPipeline blocked("appsrc name=src ! valve drop=true ! fakesink async=false");
    ASSERT_TRUE(blocked.Launch(false, false, false));
    ASSERT_EQ(blocked.SetState(GST_STATE_PLAYING), 0);
    GstPtr<GstBus> bus(gst_pipeline_get_bus(blocked.GetPipeline()));
    gst_bus_post(bus.get(), gst_message_new_eos(GST_OBJECT(blocked.GetPipeline())));
    EXPECT_EQ(blocked.SendEos(true), -1);
    EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline: Sending EOS event..."));
    EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline: Waiting for EOS event..."));
    EXPECT_TRUE(log.ContainsText(
        "pipeline DescribedPipeline: After sending EOS, failed to read EOS message from bus after "));
    EXPECT_EQ(blocked.SetState(GST_STATE_NULL), 0);

    // The same with a pipeline that lets EOS through succeeds.
    DescribedPipeline live(kLive);
    ASSERT_TRUE(live.Launch(false, false, false));
    ASSERT_EQ(live.SetState(GST_STATE_PLAYING), 0);
    GstPtr<GstBus> live_bus(gst_pipeline_get_bus(live.GetPipeline()));
    gst_bus_post(live_bus.get(), gst_message_new_eos(GST_OBJECT(live.GetPipeline())));
    EXPECT_EQ(live.SendEos(true), 0);
    EXPECT_TRUE(log.ContainsText("pipeline DescribedPipeline: EOS event handled after "));
    EXPECT_EQ(live.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, EosWithoutWaitIsReportedOnTheMainLoop)
{
    LogCapture log;
    DescribedPipeline pipeline(kLive);
    int eos = 0;
    pipeline.signal_eos.connect([&] { ++eos; });
    ASSERT_TRUE(pipeline.Launch(false, true, false));
    ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
    EXPECT_EQ(pipeline.SendEos(false), 0);
    EXPECT_TRUE(RunMainLoopUntil([&] { return eos > 0; }));
    EXPECT_EQ(eos, 1);
    EXPECT_TRUE(log.Contains(LOG_INFO, "[Pipeline] DescribedPipeline: Posted EOS message"));
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, WaitedEosIsTakenOffTheBusAndNotSignalled)
{
    DescribedPipeline pipeline(kLive);
    int eos = 0;
    pipeline.signal_eos.connect([&] { ++eos; });
    ASSERT_TRUE(pipeline.Launch(false, true, false));
    ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
    EXPECT_EQ(pipeline.SendEos(true), 0);
    RunMainLoopFor(200);
    EXPECT_EQ(eos, 0);
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, WaitForEosWithoutAnEosTimesOut)
{
    LogCapture log;
    DescribedPipeline pipeline("fakesrc ! fakesink");
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    EXPECT_EQ(pipeline.WaitForEos(0), -1);
    EXPECT_TRUE(log.Contains(LOG_INFO, "pipeline DescribedPipeline: Waiting for EOS event..."));
    EXPECT_TRUE(log.ContainsText(
        "pipeline DescribedPipeline: After sending EOS, failed to read EOS message from bus after 0."));
    auto lines = log.Lines();
    EXPECT_EQ(lines.back().first, LOG_WARNING);
}

TEST(Pipeline, TearDownIsRefusedWhilePlaying)
{
    LogCapture log;
    DescribedPipeline pipeline(kLive);
    pipeline.CreateFramerateProbe("rate", "sink", "sink");
    ASSERT_TRUE(pipeline.Launch(true, true, false));
    ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
    GstPipeline* held = pipeline.GetPipeline();
    EXPECT_FALSE(pipeline.TearDown());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "[Pipeline] Pipeline is still in PLAYING state, cannot tear down"));
    EXPECT_EQ(pipeline.GetPipeline(), held);
    EXPECT_EQ(pipeline.GetState(), GST_STATE_PLAYING);

    ASSERT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
    EXPECT_TRUE(pipeline.TearDown());
    EXPECT_EQ(pipeline.GetPipeline(), nullptr);
    EXPECT_TRUE(pipeline.TearDown());
}

TEST(Pipeline, ListenToPointsTheSourceAtTheProducerAndRecordsBothSides)
{
    LogCapture log;
    DescribedPipeline producer(
        "videotestsrc is-live=true ! interpipesink name=base_producer_sink", "base_producer_sink");
    DescribedPipeline other(
        "videotestsrc is-live=true ! interpipesink name=base_other_sink", "base_other_sink");
    DescribedPipeline consumer("interpipesrc name=base_consumer_src ! fakesink", "", "base_consumer_src");
    DescribedPipeline second("interpipesrc name=base_second_src ! fakesink", "", "base_second_src");
    ASSERT_TRUE(producer.Launch(false, false, false));
    ASSERT_TRUE(other.Launch(false, false, false));
    ASSERT_TRUE(consumer.Launch(false, false, false));
    ASSERT_TRUE(second.Launch(false, false, false));

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
}

TEST(Pipeline, ListenToSwitchesProducersWhilePlaying)
{
    DescribedPipeline first(
        "videotestsrc is-live=true pattern=white ! video/x-raw,format=GRAY8,width=8,height=8 "
        "! interpipesink name=base_white_sink",
        "base_white_sink");
    DescribedPipeline second(
        "videotestsrc is-live=true pattern=black ! video/x-raw,format=GRAY8,width=8,height=8 "
        "! interpipesink name=base_black_sink",
        "base_black_sink");
    PipelineHarness::Consumer consumer("base_switch_src");
    ASSERT_TRUE(first.Launch(false, false, false));
    ASSERT_TRUE(second.Launch(false, false, false));
    ASSERT_TRUE(consumer.Launch(false, false, false));
    ASSERT_EQ(first.SetState(GST_STATE_PLAYING), 0);
    ASSERT_EQ(second.SetState(GST_STATE_PLAYING), 0);
    ASSERT_TRUE(consumer.ListenTo(&first, "", ""));
    ASSERT_EQ(consumer.SetState(GST_STATE_PLAYING), 0);

    auto first_byte = [&]() -> int {
        PipelineHarness::SamplePtr sample(consumer.Pull());
        if (!sample)
            return -1;
        GstMapInfo map;
        GstBuffer* buffer = gst_sample_get_buffer(sample.get());
        if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
            return -1;
        int value = map.data[0];
        gst_buffer_unmap(buffer, &map);
        return value;
    };
    // Limited range: white is near 235, black near 16.
    EXPECT_GT(first_byte(), 200);
    ASSERT_TRUE(consumer.ListenTo(&second, "", ""));
    // Frames already on their way may still be white.
    bool black = false;
    for (int i = 0; i < 20 && !black; ++i) {
        int value = first_byte();
        black = value >= 0 && value < 50;
    }
    EXPECT_TRUE(black);

    consumer.SetState(GST_STATE_NULL);
    first.SetState(GST_STATE_NULL);
    second.SetState(GST_STATE_NULL);
}

TEST(Pipeline, ListenToReportsMissingPipelineAndElement)
{
    LogCapture log;
    DescribedPipeline producer("fakesrc ! interpipesink name=base_lonely_sink", "base_lonely_sink");
    DescribedPipeline consumer("interpipesrc name=base_present_src ! fakesink", "", "base_missing_src");
    const std::string signature
        = "bool VideoDaemon::Pipeline::ListenTo(VideoDaemon::Pipeline*, std::__cxx11::string, "
          "std::__cxx11::string)";

    EXPECT_FALSE(consumer.ListenTo(&producer, "", ""));
    EXPECT_TRUE(log.Contains(LOG_ERR, signature + ": pipeline == NULL (base_missing_src)"));
    EXPECT_FALSE(consumer.ListenTo(nullptr, "", ""));
    EXPECT_FALSE(consumer.IsListening());
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "bool VideoDaemon::Pipeline::IsListening(): pipeline == NULL (base_missing_src)"));

    ASSERT_TRUE(consumer.Launch(false, false, false));
    EXPECT_FALSE(consumer.ListenTo(&producer, "", ""));
    EXPECT_TRUE(log.Contains(LOG_ERR, signature + ": element == NULL (base_missing_src)"));
    EXPECT_TRUE(consumer.GetListeningTo().empty());
    EXPECT_TRUE(producer.GetListeners().empty());
    EXPECT_FALSE(consumer.ListenTo(nullptr, "", ""));
    EXPECT_FALSE(consumer.IsListening());
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "bool VideoDaemon::Pipeline::IsListening(): element == NULL (base_missing_src)"));

    // Explicit names override the defaults.
    EXPECT_TRUE(consumer.ListenTo(&producer, "elsewhere", "base_present_src"));
    EXPECT_EQ(producer.GetListeners().at("elsewhere"), &consumer);
}

TEST(Pipeline, RepeatedQueueSignalsAreReportedOnceOnTheMainLoop)
{
    DescribedPipeline pipeline("fakesrc ! queue name=watched ! queue name=ignored ! fakesink");
    pipeline.MonitorQueue("watched");
    ASSERT_TRUE(pipeline.Launch(false, false, true));
    std::vector<std::string> reports;
    pipeline.signal_queue_overrun.connect([&](std::string name) { reports.push_back("overrun " + name); });
    pipeline.signal_queue_underrun.connect([&](std::string name) { reports.push_back("underrun " + name); });
    pipeline.signal_queue_running.connect([&](std::string name) { reports.push_back("running " + name); });

    GstPtr<GstElement> watched = ElementOf(pipeline, "watched");
    GstPtr<GstElement> ignored = ElementOf(pipeline, "ignored");
    // Queue signals come from streaming threads.
    std::thread streaming([&] {
        for (const char* signal : { "overrun", "overrun", "underrun", "overrun", "running", "running" })
            g_signal_emit_by_name(watched.get(), signal);
        g_signal_emit_by_name(ignored.get(), "overrun");
    });
    streaming.join();
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(pipeline.GetQueueStates().at("watched"), Pipeline::kQueueRunning);

    RunMainLoopUntil([&] { return reports.size() >= 4; }, 2000);
    RunMainLoopFor(50);
    EXPECT_EQ(reports,
        (std::vector<std::string> {
            "overrun watched", "underrun watched", "overrun watched", "running watched" }));
}

TEST(Pipeline, QueueReportsPendingWhenThePipelineIsDestroyedAreDropped)
{
    auto pipeline = std::make_unique<DescribedPipeline>("fakesrc ! queue name=watched ! fakesink");
    pipeline->MonitorQueue("watched");
    ASSERT_TRUE(pipeline->Launch(false, false, true));
    g_signal_emit_by_name(ElementOf(*pipeline, "watched").get(), "overrun");
    pipeline.reset();
    RunMainLoopFor(50);
    SUCCEED();
}

TEST(Pipeline, OnlyTheTopLevelStateChangesAreSignalled)
{
    LogCapture log;
    DescribedPipeline pipeline(kLive);
    std::vector<std::pair<GstState, GstState>> changes;
    pipeline.signal_state_changed.connect(
        [&](GstState from, GstState to) { changes.emplace_back(from, to); });
    ASSERT_TRUE(pipeline.Launch(false, true, false));
    ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
    ASSERT_TRUE(
        RunMainLoopUntil([&] { return !changes.empty() && changes.back().second == GST_STATE_PLAYING; }));
    RunMainLoopFor(100);

    // Three elements change state too, but only the pipeline is reported.
    std::vector<std::pair<GstState, GstState>> expected { { GST_STATE_NULL, GST_STATE_READY },
        { GST_STATE_READY, GST_STATE_PAUSED }, { GST_STATE_PAUSED, GST_STATE_PLAYING } };
    EXPECT_EQ(changes, expected);
    std::string name = GST_OBJECT_NAME(pipeline.GetPipeline());
    EXPECT_TRUE(log.Contains(LOG_DEBUG,
        "[DescribedPipeline (" + name + ")], State changed [PAUSED -> PLAYING], target VOID_PENDING"));
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, BusErrorsAreLoggedAndSignalled)
{
    LogCapture log;
    DescribedPipeline pipeline("filesrc name=reader location=/nonexistent/videod-test ! fakesink");
    std::vector<std::string> errors;
    pipeline.signal_error.connect([&](std::string message) { errors.push_back(message); });
    ASSERT_TRUE(pipeline.Launch(false, true, false));
    EXPECT_EQ(pipeline.SetState(GST_STATE_PLAYING), -1);
    ASSERT_TRUE(RunMainLoopUntil([&] { return !errors.empty(); }));
    EXPECT_FALSE(errors.front().empty());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Error from element reader: " + errors.front() + "\n"));
    EXPECT_TRUE(log.ContainsText("Debugging info:"));
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
}

TEST(Pipeline, ElementMessagesReachTheHook)
{
    ElementMessagePipeline pipeline("fakesrc name=talker ! fakesink");
    ASSERT_TRUE(pipeline.Launch(false, true, false));
    GstPtr<GstElement> talker = ElementOf(pipeline, "talker");
    gst_element_post_message(
        talker.get(), gst_message_new_element(GST_OBJECT(talker.get()), gst_structure_new_empty("hello")));
    // Other message types are not element messages.
    gst_element_post_message(talker.get(), gst_message_new_info(GST_OBJECT(talker.get()), nullptr, "note"));
    ASSERT_TRUE(RunMainLoopUntil([&] { return !pipeline.sources.empty(); }));
    RunMainLoopFor(50);
    EXPECT_EQ(pipeline.sources, std::vector<std::string> { "talker" });
    EXPECT_EQ(pipeline.names, std::vector<std::string> { "hello" });
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

TEST(Pipeline, FlushEventsNeedAPipeline)
{
    DescribedPipeline pipeline(kLive);
    EXPECT_FALSE(pipeline.SendFlushStart());
    EXPECT_FALSE(pipeline.SendFlushStop(true));
    ASSERT_TRUE(pipeline.Launch(false, false, false));
    ASSERT_EQ(pipeline.SetState(GST_STATE_PLAYING), 0);
    EXPECT_TRUE(pipeline.SendFlushStart());
    EXPECT_TRUE(pipeline.SendFlushStop(false));
    EXPECT_EQ(pipeline.SetState(GST_STATE_NULL), 0);
}
