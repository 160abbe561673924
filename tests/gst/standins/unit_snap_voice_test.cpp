// The snapvoice stand-in: one IDR picture per reset, and a file of one picture with its narration.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

TEST(SnapVoice, PassesTheFirstIdrFrameAfterEachResetAndDropsTheRest)
{
    TestPipeline pipeline(
        "videotestsrc num-buffers=60 pattern=ball ! video/x-raw,width=320,height=240,framerate=30/1 ! "
        "x264enc key-int-max=12 speed-preset=ultrafast ! h264parse ! "
        "video/x-h264,stream-format=avc,alignment=au ! snapvoice name=filter reset=true ! "
        "fakesink name=sink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    GstPtr<GstElement> filter = pipeline.Element("filter");

    // Started mid-GOP; reset again on a non-key frame after 30.
    DropFirstBuffers skip(filter.get(), "sink", 2);
    std::vector<GstClockTime> keyFrames;
    size_t index = 0;
    GstClockTime resetAt = GST_CLOCK_TIME_NONE;
    BufferProbe inputProbe(filter.get(), "sink", [&](GstBuffer* buffer) {
        const bool key = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        if (key)
            keyFrames.push_back(GST_BUFFER_PTS(buffer));
        if (!GST_CLOCK_TIME_IS_VALID(resetAt) && index >= 30 && !key) {
            resetAt = GST_BUFFER_PTS(buffer);
            g_object_set(filter.get(), "reset", TRUE, nullptr);
        }
        ++index;
    });
    std::vector<GstClockTime> output;
    BufferProbe outputProbe(pipeline.Element("sink").get(), "sink",
        [&](GstBuffer* buffer) { output.push_back(GST_BUFFER_PTS(buffer)); });

    ASSERT_TRUE(pipeline.Play() && pipeline.WaitForEos()) << pipeline.Error();
    pipeline.SetState(GST_STATE_NULL);

    ASSERT_TRUE(GST_CLOCK_TIME_IS_VALID(resetAt));
    ASSERT_GE(keyFrames.size(), 3u);
    const auto keyAfterReset
        = std::find_if(keyFrames.begin(), keyFrames.end(), [&](GstClockTime pts) { return pts > resetAt; });
    ASSERT_NE(keyAfterReset, keyFrames.end());
    EXPECT_EQ(output, (std::vector<GstClockTime> { keyFrames.front(), *keyAfterReset }));
}

TEST(SnapVoice, MakesAnMp4FileOfOnePictureAndTheWholeNarration)
{
    TempDir dir;
    const std::string file = dir.File("note.mp4");
    // 90 frames at 30/s and 130 x 1024 samples at 44.1 kHz: three seconds each.
    TestPipeline pipeline(
        "videotestsrc num-buffers=90 ! video/x-raw,width=320,height=240,framerate=30/1 ! "
        "x264enc key-int-max=15 speed-preset=ultrafast ! h264parse ! snapvoice reset=true ! "
        "queue ! mp4mux name=mux ! filesink location="
        + file
        + " audiotestsrc num-buffers=130 ! audio/x-raw,rate=44100 ! audioconvert ! avenc_aac ! "
          "queue ! mux.");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.RunToEos()) << pipeline.Error();
    EXPECT_EQ(FfprobeValues(file, "stream=codec_name"), (std::vector<std::string> { "h264", "aac" }));
    EXPECT_EQ(FfprobeNumber(file, "stream=nb_read_frames", "v"), 1);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "a"), 3.0, 0.2);
}
