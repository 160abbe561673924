// The tarnwell-valve stand-in: exactly the written number of buffers pass, each write re-arms.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

void ArmValve(GstElement* valve, guint count)
{
    g_object_set(valve, "num-buffers-pass", count, nullptr);
}

} // namespace

TEST(CountingValve, PassesExactlyTheWrittenNumberAndEachWriteRearmsIt)
{
    TestPipeline pipeline("videotestsrc num-buffers=40 ! video/x-raw,width=64,height=48,framerate=10/1 ! "
                          "tarnwell-valve name=valve num-buffers-pass=3 ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> valve = pipeline.Element("valve");
    guint64 index = 0;
    BufferProbe inputProbe(valve.get(), "sink", [&](GstBuffer*) {
        if (index == 10)
            ArmValve(valve.get(), 2);
        if (index == 20) // the same count again still re-arms
            ArmValve(valve.get(), 2);
        if (index == 21) // a write while open restarts the count
            ArmValve(valve.get(), 4);
        if (index == 30)
            ArmValve(valve.get(), 0);
        ++index;
    });
    std::vector<guint64> passed;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { passed.push_back(GST_BUFFER_OFFSET(buffer)); });

    ASSERT_TRUE(pipeline.Play());
    ASSERT_TRUE(pipeline.WaitForEos());
    pipeline.SetState(GST_STATE_NULL);

    const std::vector<guint64> expected { 0, 1, 2, 10, 11, 20, 21, 22, 23, 24 };
    EXPECT_EQ(passed, expected);
    guint count = 99;
    g_object_get(valve.get(), "num-buffers-pass", &count, nullptr);
    EXPECT_EQ(count, 0u);
}

TEST(CountingValve, ClosedLiveValvePassesOneBufferPerSnapshotRequest)
{
    TestPipeline pipeline(
        "videotestsrc is-live=true ! video/x-raw,width=64,height=48,framerate=30/1 ! "
        "tarnwell-valve name=valve num-buffers-pass=0 ! appsink name=out sync=false async=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ObjectPtr<GstElement> valve = pipeline.Element("valve");
    ObjectPtr<GstElement> out = pipeline.Element("out");
    ASSERT_TRUE(pipeline.Play());

    const GstClockTime quiet = 300 * GST_MSECOND; // ten frames' time
    EXPECT_EQ(SamplePtr(gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), quiet)), nullptr);
    for (int request = 0; request < 2; ++request) {
        ArmValve(valve.get(), 1);
        EXPECT_NE(SamplePtr(gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), kWait)), nullptr);
        EXPECT_EQ(SamplePtr(gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), quiet)), nullptr);
    }
}
