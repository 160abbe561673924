// The H.264 encoder stand-in: main profile 4:2:0 that an independent reader
// accepts in a recording with sound, IDR and I frame placement, and its two rate-control modes.
#include <gtest/gtest.h>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

#include <vector>

using namespace GstTest;

namespace
{

// True when the Annex B access unit holds a slice of an IDR picture (NAL type 5).
bool HasIdrSlice(GstBuffer* buffer)
{
    const std::vector<guint8> unit = BufferBytes(buffer);
    for (size_t i = 0; i + 3 < unit.size(); ++i)
        if (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1 && (unit[i + 3] & 0x1f) == 5)
            return true;
    return false;
}

} // namespace

TEST(ImxVpuEncH264, MakesAMainProfileRecordingWithSoundAndIdrFramesEveryIdrIntervalAndIFramesEveryGop)
{
    TempDir dir;
    const std::string file = dir.File("recording.mp4");
    // Three seconds of picture (90 frames at 30 fps) and of sound (300 buffers of 10 ms).
    TestPipeline pipeline(
        "videotestsrc num-buffers=90 pattern=ball ! "
        "video/x-raw,format=BGRA,width=640,height=480,framerate=30/1 ! "
        "imxipuvideotransform name=video_video_transform_h264 ! video/x-raw, format=I420 ! imxvpuenc_h264 "
        "name=video_encoder bitrate=0 gop-size=8 quant-param=24 idr-interval=16 ! tee name=t "
        "t. ! queue ! appsink name=units sync=false wait-on-eos=false "
        "t. ! queue ! h264parse ! video/x-h264, stream-format=avc,alignment=au,profile=main ! mux. "
        "audiotestsrc num-buffers=300 samplesperbuffer=441 ! "
        "audio/x-raw,rate=44100,channels=2 ! audioconvert ! avenc_aac ! mux. "
        "mp4mux name=mux ! filesink location="
        + file);
    ASSERT_TRUE(pipeline.Parsed() && pipeline.RunToEos()) << pipeline.Error();

    // The encoder's own access units: IDR slices and sync points every 16 frames only.
    for (int i = 0; i < 90; ++i) {
        SamplePtr unit = pipeline.Pull("units", GST_SECOND);
        ASSERT_TRUE(unit) << "frame " << i;
        GstBuffer* buffer = gst_sample_get_buffer(unit.get());
        EXPECT_EQ(HasIdrSlice(buffer), i % 16 == 0) << "frame " << i;
        EXPECT_EQ(!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT), i % 16 == 0) << "frame " << i;
    }
    // An independent reader: main profile 4:2:0, I frames every 8 frames and P frames between them.
    EXPECT_EQ(FfprobeValues(file, "stream=codec_name,profile,width,height,pix_fmt,nb_frames", "v:0"),
        (std::vector<std::string> { "h264", "Main", "640", "480", "yuv420p", "90" }));
    const auto types = FfprobeValues(file, "frame=pict_type", "v:0");
    ASSERT_EQ(types.size(), 90u);
    for (size_t i = 0; i < types.size(); ++i)
        EXPECT_EQ(types[i], i % 8 == 0 ? "I" : "P") << "frame " << i;
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "v:0"), 3.0, 0.1);
    EXPECT_EQ(FfprobeValues(file, "stream=codec_name", "a"), std::vector<std::string> { "aac" });
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), 3.0, 0.15);
}

TEST(ImxVpuEncH264, ASettingChangedWhilePlayingRestartsOnAnIdrFrame)
{
    TestPipeline pipeline("appsrc name=in format=time caps=video/x-raw,format=I420,width=320,height=240,"
                          "framerate=30/1 ! imxvpuenc_h264 name=video_encoder gop-size=100 idr-interval=0 ! "
                          "appsink name=units sync=false");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
    // Frame by frame: whether its access unit is an IDR picture; "bitrate" changes before frame 3.
    for (int index = 0; index < 5; ++index) {
        if (index == 3)
            pipeline.Set("video_encoder", "bitrate", 800u);
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 320 * 240 * 3 / 2, nullptr);
        gst_buffer_memset(frame, 0, static_cast<guint8>(16 + index * 8), 320 * 240 * 3 / 2);
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        GST_BUFFER_DURATION(frame) = GST_SECOND / 30;
        ASSERT_TRUE(pipeline.Push("in", frame));
        SamplePtr unit = pipeline.Pull("units");
        ASSERT_TRUE(unit) << "frame " << index;
        EXPECT_EQ(HasIdrSlice(gst_sample_get_buffer(unit.get())), index == 0 || index == 3)
            << "frame " << index;
    }
}

TEST(ImxVpuEncH264, QuantParamAndBitrateSetTheSizeOfTheStream)
{
    auto encoded_size = [](const std::string& settings) {
        TempDir dir;
        TestPipeline pipeline("videotestsrc num-buffers=15 pattern=snow ! video/x-raw,format=I420,width=320,"
                              "height=240,framerate=30/1 ! imxvpuenc_h264 "
            + settings + " ! h264parse ! mp4mux ! filesink location=" + dir.File("size.mp4"));
        EXPECT_TRUE(pipeline.RunToEos()) << pipeline.Error();
        return FileSize(dir.File("size.mp4"));
    };
    EXPECT_GT(encoded_size("bitrate=0 quant-param=20"), encoded_size("bitrate=0 quant-param=40") * 2);

    // Half a second at 500 kbit/s is about 31 kB; at 4000 kbit/s about 250 kB.
    const auto low = encoded_size("bitrate=500");
    const auto high = encoded_size("bitrate=4000");
    EXPECT_GT(high, low * 3);
    EXPECT_LT(low, 80u * 1000u) << "high " << high;
}
