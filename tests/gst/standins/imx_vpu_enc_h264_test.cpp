// The H.264 encoder stand-in: main profile 4:2:0 that an independent reader
// accepts in a recording with sound, IDR and I frame placement, and its two rate-control modes.
#include <gtest/gtest.h>

#include <gst/video/video.h>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

#include <cstdlib>
#include <vector>

using namespace GstTest;

namespace
{

// True when the Annex B access unit holds a slice of an IDR picture (NAL type 5).
bool HasIdrSlice(GstBuffer* buffer)
{
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return false;
    bool idr = false;
    for (gsize i = 0; i + 3 < map.size && !idr; ++i) {
        if (map.data[i] == 0 && map.data[i + 1] == 0 && map.data[i + 2] == 1)
            idr = (map.data[i + 3] & 0x1f) == 5;
    }
    gst_buffer_unmap(buffer, &map);
    return idr;
}

} // namespace

TEST(ImxVpuEncH264, WithTheTransformAndAacMakesAMainProfile420RecordingThatFfprobeReads)
{
    TempDir dir;
    const std::string file = dir.File("recording.mp4");
    // Three seconds of picture (90 frames at 30 fps) and of sound (300 buffers of 10 ms).
    TestPipeline pipeline(
        "videotestsrc num-buffers=90 pattern=ball ! "
        "video/x-raw,format=BGRA,width=640,height=480,framerate=30/1 ! "
        "imxipuvideotransform name=video_video_transform_h264 ! video/x-raw, format=I420 ! imxvpuenc_h264 "
        "name=video_encoder bitrate=0 gop-size=16 quant-param=24 idr-interval=16 ! h264parse ! video/x-h264, "
        "stream-format=avc,alignment=au,profile=main ! mux. "
        "audiotestsrc num-buffers=300 samplesperbuffer=441 ! "
        "audio/x-raw,rate=44100,channels=2 ! audioconvert ! avenc_aac ! mux. "
        "mp4mux name=mux ! filesink location="
        + file);
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();

    auto video
        = FfprobeEntries(file, "stream=codec_name,profile,pix_fmt,width,height,nb_frames,duration", "v:0");
    EXPECT_EQ(video["codec_name"], "h264");
    EXPECT_EQ(video["profile"], "Main");
    EXPECT_EQ(video["pix_fmt"], "yuv420p");
    EXPECT_EQ(video["width"], "640");
    EXPECT_EQ(video["height"], "480");
    EXPECT_EQ(video["nb_frames"], "90");
    EXPECT_NEAR(std::atof(video["duration"].c_str()), 3.0, 0.1);
    auto audio = FfprobeEntries(file, "stream=codec_name,duration", "a:0");
    EXPECT_EQ(audio["codec_name"], "aac");
    EXPECT_NEAR(std::atof(audio["duration"].c_str()), 3.0, 0.15);
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), 3.0, 0.15);
}

TEST(ImxVpuEncH264, PlacesIdrFramesEveryIdrIntervalAndIFramesEveryGop)
{
    TempDir dir;
    const std::string file = dir.File("gop.mp4");
    TestPipeline pipeline(
        "videotestsrc num-buffers=40 pattern=ball ! video/x-raw,format=I420,width=640,height=480,"
        "framerate=30/1 ! imxvpuenc_h264 bitrate=0 quant-param=30 gop-size=8 idr-interval=16 ! "
        "tee name=t t. ! queue ! appsink name=units sync=false wait-on-eos=false "
        "t. ! queue ! h264parse ! mp4mux ! filesink location="
        + file);
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();

    // The encoder's own access units: IDR slices and sync points every 16 frames only.
    for (int i = 0; i < 40; ++i) {
        SamplePtr unit = pipeline.Pull("units", GST_SECOND);
        ASSERT_TRUE(unit) << "frame " << i;
        GstBuffer* buffer = gst_sample_get_buffer(unit.get());
        const bool idr = i % 16 == 0;
        EXPECT_EQ(HasIdrSlice(buffer), idr) << "frame " << i;
        EXPECT_EQ(!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT), idr) << "frame " << i;
    }
    // An independent reader sees I frames every 8 frames and P frames between them.
    const auto types = FfprobeValues(file, "frame=pict_type", "v:0");
    ASSERT_EQ(types.size(), 40u);
    for (size_t i = 0; i < types.size(); ++i)
        EXPECT_EQ(types[i], i % 8 == 0 ? "I" : "P") << "frame " << i;
}

TEST(ImxVpuEncH264, ASettingChangedWhilePlayingRestartsOnAnIdrFrame)
{
    TestPipeline pipeline("appsrc name=in format=time caps=video/x-raw,format=I420,width=320,height=240,"
                          "framerate=30/1 ! imxvpuenc_h264 name=video_encoder gop-size=100 idr-interval=0 ! "
                          "appsink name=units sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.Start());
    // One frame in, one access unit out: whether it is an IDR frame.
    auto encode = [&](int index) {
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 320 * 240 * 3 / 2, nullptr);
        gst_buffer_memset(frame, 0, static_cast<guint8>(16 + index * 8), 320 * 240 * 3 / 2);
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        GST_BUFFER_DURATION(frame) = GST_SECOND / 30;
        EXPECT_TRUE(pipeline.Push("in", frame));
        SamplePtr unit = pipeline.Pull("units");
        EXPECT_TRUE(unit) << "frame " << index;
        return unit && HasIdrSlice(gst_sample_get_buffer(unit.get()));
    };
    EXPECT_TRUE(encode(0));
    EXPECT_FALSE(encode(1));
    EXPECT_FALSE(encode(2));
    pipeline.Set("video_encoder", "bitrate", 800u);
    EXPECT_TRUE(encode(3));
    EXPECT_FALSE(encode(4));
    guint bitrate = 0;
    g_object_get(pipeline.Element("video_encoder").get(), "bitrate", &bitrate, nullptr);
    EXPECT_EQ(bitrate, 800u);
}

TEST(ImxVpuEncH264, QuantParamAndBitrateSetTheSizeOfTheStream)
{
    auto encoded_size = [](const std::string& encoder) {
        TempDir dir;
        TestPipeline pipeline("videotestsrc num-buffers=15 pattern=snow ! video/x-raw,format=I420,width=320,"
                              "height=240,framerate=30/1 ! "
            + encoder + " ! h264parse ! mp4mux ! filesink location=" + dir.File("size.mp4"));
        EXPECT_TRUE(pipeline.RunToEos()) << pipeline.Error();
        return FileSize(dir.File("size.mp4"));
    };
    const auto fine = encoded_size("imxvpuenc_h264 bitrate=0 quant-param=20");
    const auto coarse = encoded_size("imxvpuenc_h264 bitrate=0 quant-param=40");
    EXPECT_GT(fine, coarse * 2);

    // Half a second at 500 kbit/s is about 31 kB; at 4000 kbit/s about 250 kB.
    const auto low = encoded_size("imxvpuenc_h264 bitrate=500");
    const auto high = encoded_size("imxvpuenc_h264 bitrate=4000");
    EXPECT_GT(high, low * 3);
    EXPECT_LT(low, 80u * 1000u) << "high " << high;
}
