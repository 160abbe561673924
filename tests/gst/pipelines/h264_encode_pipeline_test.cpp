// H264EncodePipeline: element names per prefix, the valve in front of the encoder, encoder properties,
// frames without a time kept out.
#include <gst/app/gstappsrc.h>
#include <syslog.h>

#include "log_capture.h"
#include "pipeline_harness.h"
#include "pipelines/h264_encode_pipeline.h"
#include "support/gst_test_pipeline.h"

using namespace PipelineHarness;
using VideoDaemon::H264EncodePipeline;

namespace
{

const char kGetterSignature[]
    = "void VideoDaemon::H264EncodePipeline::GetH264EncoderProperty(const char*, T&) "
      "const [with T = unsigned int]";
const char kSetterSignature[]
    = "void VideoDaemon::H264EncodePipeline::SetH264EncoderProperty(const char*, T) [with T = unsigned int]";

// An encoder fed with a live BGRA picture at the rate it expects, as the overlay hands it over.
struct FedEncoder {
    DescribedPipeline feed { "videotestsrc is-live=true pattern=18 "
                             "! video/x-raw,format=BGRA,width=640,height=480,framerate=30000/1001 "
                             "! interpipesink name=h264_test_feed sync=false forward-events=true",
        "h264_test_feed" };
    H264EncodePipeline h264 { "video" };

    bool Start()
    {
        return feed.Launch(false, true, false) && h264.Launch(false, true, false)
            && h264.ListenTo(&feed, "", "") && h264.SetState(GST_STATE_PLAYING, 2000) == 0
            && feed.SetState(GST_STATE_PLAYING, 2000) == 0;
    }
    ~FedEncoder()
    {
        feed.SetState(GST_STATE_NULL);
        h264.SetState(GST_STATE_NULL);
    }
};

} // namespace

TEST(H264EncodePipeline,
    BeforeLaunchGettersReturnZeroAndSettersChangeNothingAfterItNamesEveryElementAfterItsPrefix)
{
    LogCapture log;
    H264EncodePipeline h264("video");
    EXPECT_EQ(h264.GetBitrate() + h264.GetGopSize() + h264.GetQuantParam(), 0u);
    EXPECT_EQ(log.Count(LOG_ERR, std::string(kGetterSignature) + ": pipeline == NULL (video_encoder)"), 3u);
    h264.SetBitrate(500);
    EXPECT_TRUE(log.Contains(LOG_ERR, std::string(kSetterSignature) + ": pipeline == NULL (video_encoder)"));
    h264.SetValve(false);
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Set H264 valve to :0"));
    EXPECT_TRUE(log.Contains(LOG_ERR,
        "void VideoDaemon::H264EncodePipeline::SetValve(bool): pipeline == NULL (video_h264_valve)"));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Failed to find idr_valve element"));
    // The generic getter leaves the value alone for an unknown element.
    unsigned value = 77;
    h264.GetH264EncoderProperty("bitrate", value);
    EXPECT_EQ(value, 77u);

    ASSERT_TRUE(h264.Launch(false, false, false));
    for (const char* name : { "video_h264_source", "video_h264_valve", "video_video_transform_h264",
             "video_h264_queue", "video_encoder", "video_h264_sink" })
        EXPECT_NE(ElementOf(h264, name), nullptr) << name;
    // A second prefix gives a disjoint set of names, so both run in one process.
    H264EncodePipeline autolog("autolog");
    ASSERT_TRUE(autolog.Launch(false, false, false));
    EXPECT_NE(ElementOf(autolog, "autolog_encoder"), nullptr);
    EXPECT_EQ(ElementOf(autolog, "video_encoder"), nullptr);
}

TEST(H264EncodePipeline, TheValveGatesTheFlowIntoTheEncoderWhoseSettingsApplyWhileItRuns)
{
    FedEncoder fed;
    ASSERT_TRUE(fed.Start());
    H264EncodePipeline& h264 = fed.h264;
    GstTest::BufferCount at_valve(ElementOf(h264, "video_h264_valve").get(), "sink");
    GstTest::BufferCount into_encoder(ElementOf(h264, "video_encoder").get(), "sink");
    GstTest::BufferCount out(ElementOf(h264, "video_h264_sink").get(), "sink");

    // Closed by the description: frames reach the valve, none pass it.
    ASSERT_TRUE(RunMainLoopUntil([&] { return at_valve.Value() >= 10; }, 3000));
    EXPECT_EQ(into_encoder.Value(), 0u);

    h264.SetValve(false);
    ASSERT_TRUE(RunMainLoopUntil([&] { return out.Value() >= 10; }, 3000));
    Consumer consumer("h264_test_out");
    ASSERT_TRUE(consumer.Launch(false, false, false));
    ASSERT_TRUE(consumer.ListenTo(&h264, "", ""));
    ASSERT_EQ(consumer.SetState(GST_STATE_PLAYING, 2000), 0);
    GstSamplePtr sample(consumer.Pull());
    consumer.SetState(GST_STATE_NULL);
    ASSERT_TRUE(sample);
    const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
    EXPECT_STREQ(gst_structure_get_name(caps), "video/x-h264");
    EXPECT_STREQ(gst_structure_get_string(caps, "stream-format"), "avc");
    EXPECT_STREQ(gst_structure_get_string(caps, "profile"), "main");

    LogCapture log;
    h264.SetValve(true);
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Set H264 valve to :1"));
    // Let the frames already past the valve drain, then nothing more enters.
    RunMainLoopFor(300);
    const unsigned entered = into_encoder.Value();
    const unsigned reached = at_valve.Value();
    ASSERT_TRUE(RunMainLoopUntil([&] { return at_valve.Value() >= reached + 10; }, 3000));
    EXPECT_EQ(into_encoder.Value(), entered);

    // The description's GOP and quantiser, then settings of the running encoder.
    EXPECT_EQ(h264.GetGopSize(), 16u);
    EXPECT_EQ(h264.GetQuantParam(), 24u);
    h264.SetBitrate(2000);
    h264.SetGopSize(30);
    h264.SetQuantParam(30);
    guint bitrate = 0;
    g_object_get(ElementOf(h264, "video_encoder").get(), "bitrate", &bitrate, nullptr);
    EXPECT_EQ(bitrate, 2000u);
    EXPECT_EQ(h264.GetBitrate(), 2000u);
    EXPECT_EQ(h264.GetGopSize(), 30u);
    EXPECT_EQ(h264.GetQuantParam(), 30u);
}

// The GPU's restamping source has no clock while its pipeline prerolls, so
// the frames it passes on then carry no time; a file cannot place such a
// frame. Each frame is handed to the encoder pipeline's source once the one
// before has left it, so none is lost to its one-buffer queue.
TEST(H264EncodePipeline, FramesWithoutATimeStopAtItsSourceAndTheTimedOnesAroundThemPass)
{
    H264EncodePipeline h264("video");
    ASSERT_TRUE(h264.Launch(false, true, false));
    ASSERT_EQ(h264.SetState(GST_STATE_PLAYING, 2000), 0);
    VideoDaemon::GstPtr<GstElement> source = ElementOf(h264, "video_h264_source");
    unsigned timed = 0;
    unsigned untimed = 0;
    GstTest::BufferProbe at_valve(ElementOf(h264, "video_h264_valve").get(), "sink",
        [&](GstBuffer* buffer) { ++(GST_BUFFER_PTS_IS_VALID(buffer) ? timed : untimed); });

    const gsize size = 640 * 480 * 4;
    GstClockTime pts = 0;
    for (bool stamped : { false, true, true, false, true }) {
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, size, nullptr);
        gst_buffer_memset(frame, 0, 0, size);
        if (stamped)
            GST_BUFFER_PTS(frame) = pts;
        pts += GST_SECOND / 30;
        ASSERT_EQ(gst_app_src_push_buffer(GST_APP_SRC(source.get()), frame), GST_FLOW_OK);
        ASSERT_TRUE(RunMainLoopUntil(
            [&] { return gst_app_src_get_current_level_buffers(GST_APP_SRC(source.get())) == 0; }, 3000));
    }
    ASSERT_TRUE(RunMainLoopUntil([&] { return at_valve.Locked([&] { return timed; }) == 3; }, 3000));
    EXPECT_EQ(at_valve.Locked([&] { return untimed; }), 0u);
    h264.SetState(GST_STATE_NULL);
}
