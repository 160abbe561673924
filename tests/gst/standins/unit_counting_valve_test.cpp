// The tarnwell-valve stand-in: exactly the written number of buffers pass, each write re-arms.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

TEST(CountingValve, PassesExactlyTheWrittenNumberAndEachWriteRearmsIt)
{
    TestPipeline pipeline("videotestsrc num-buffers=40 ! video/x-raw,width=64,height=48,framerate=10/1 ! "
                          "tarnwell-valve name=valve num-buffers-pass=3 ! fakesink name=sink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    GstPtr<GstElement> valve = pipeline.Element("valve");
    // Counts written ahead of input buffers: the same count again still re-arms,
    // a write while open restarts the count.
    const std::map<guint64, guint> writes { { 10, 2 }, { 20, 2 }, { 21, 4 } };
    guint64 index = 0;
    BufferProbe inputProbe(valve.get(), "sink", [&](GstBuffer*) {
        if (writes.count(index) != 0)
            g_object_set(valve.get(), "num-buffers-pass", writes.at(index), nullptr);
        ++index;
    });
    std::vector<guint64> passed;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { passed.push_back(GST_BUFFER_OFFSET(buffer)); });

    ASSERT_TRUE(pipeline.Play());
    ASSERT_TRUE(pipeline.WaitForEos());
    pipeline.SetState(GST_STATE_NULL);

    EXPECT_EQ(passed, (std::vector<guint64> { 0, 1, 2, 10, 11, 20, 21, 22, 23, 24 }));
}

TEST(CountingValve, ClosedLiveValvePassesOneBufferPerSnapshotRequest)
{
    TestPipeline pipeline(
        "videotestsrc is-live=true ! video/x-raw,width=64,height=48,framerate=30/1 ! "
        "tarnwell-valve name=valve num-buffers-pass=0 ! appsink name=out sync=false async=false");
    ASSERT_TRUE(pipeline.Play());

    const GstClockTime quiet = 300 * GST_MSECOND; // ten frames' time
    EXPECT_FALSE(pipeline.Pull("out", quiet));
    for (int request = 0; request < 2; ++request) {
        pipeline.Set("valve", "num-buffers-pass", 1u);
        EXPECT_TRUE(pipeline.Pull("out")) << "request " << request;
        EXPECT_FALSE(pipeline.Pull("out", quiet)) << "request " << request;
    }
}
