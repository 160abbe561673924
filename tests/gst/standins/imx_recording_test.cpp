// A recording made only of stand-ins and packaged elements, checked with ffprobe.
#include "imx_test_pipeline.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace ImxTest;

TEST(ImxRecording, TestSourceH264StandInAndAacMakeAnMp4ThatFfprobeReads)
{
    TempFile file(".mp4");
    // Three seconds of picture (90 frames at 30 fps) and of sound (300 buffers of 10 ms).
    TestPipeline pipeline(
        "videotestsrc num-buffers=90 ! video/x-raw,format=BGRA,width=640,height=480,framerate=30/1 ! "
        "imxipuvideotransform ! video/x-raw, format=I420 ! imxvpuenc_h264 bitrate=0 gop-size=16 "
        "quant-param=24 idr-interval=16 ! h264parse ! video/x-h264, "
        "stream-format=avc,alignment=au,profile=main ! mux. "
        "audiotestsrc num-buffers=300 samplesperbuffer=441 ! "
        "audio/x-raw,rate=44100,channels=2 ! audioconvert ! avenc_aac ! mux. "
        "mp4mux name=mux ! filesink location="
        + file.Path());
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.ParseError();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();

    auto video = ProbeAll(file.Path(), "v:0", "stream=codec_name,profile,duration");
    EXPECT_EQ(video["codec_name"], "h264");
    EXPECT_EQ(video["profile"], "Main");
    EXPECT_NEAR(std::atof(video["duration"].c_str()), 3.0, 0.1);
    auto audio = ProbeAll(file.Path(), "a:0", "stream=codec_name,duration");
    EXPECT_EQ(audio["codec_name"], "aac");
    EXPECT_NEAR(std::atof(audio["duration"].c_str()), 3.0, 0.15);
    EXPECT_NEAR(std::atof(Probe(file.Path(), "", "format=duration").c_str()), 3.0, 0.15);
}
