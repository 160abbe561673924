// The H.264 encoder stand-in: main profile 4:2:0 that an independent reader
// accepts in a recording with sound, IDR and I frame placement, its two rate-control modes, and settings
// changed while it runs.
#include <gtest/gtest.h>

#include "common/gst_ptr.h"
#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

#include <map>
#include <numeric>
#include <string>
#include <utility>
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

constexpr int kIdr = 5, kI = 2, kP = 0;

// The first slice of an Annex B access unit: kIdr for an IDR slice, otherwise its slice_type modulo 5
// (kP, kI, ...), read from the slice header's first two Exp-Golomb numbers; -1 without a slice.
int SliceType(GstBuffer* buffer)
{
    const std::vector<guint8> unit = BufferBytes(buffer);
    for (size_t i = 0; i + 4 < unit.size(); ++i) {
        if (unit[i] != 0 || unit[i + 1] != 0 || unit[i + 2] != 1)
            continue;
        const int nal_type = unit[i + 3] & 0x1f;
        if (nal_type == 5)
            return kIdr;
        if (nal_type != 1)
            continue;
        size_t bit = (i + 4) * 8;
        auto next_bit = [&] {
            const int value = (unit.at(bit / 8) >> (7 - bit % 8)) & 1;
            ++bit;
            return value;
        };
        auto exp_golomb = [&] {
            int zeros = 0;
            while (next_bit() == 0)
                ++zeros;
            int value = 1;
            for (int z = 0; z < zeros; ++z)
                value = value * 2 + next_bit();
            return value - 1;
        };
        exp_golomb(); // first_mb_in_slice
        return exp_golomb() % 5;
    }
    return -1;
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
        GstSamplePtr unit = pipeline.Pull("units", GST_SECOND);
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

TEST(ImxVpuEncH264, QuantiserAndBitrateChangesActFromTheNextFrameWithoutAnIdrAndGopSizeFromTheNextOpen)
{
    TestPipeline pipeline("appsrc name=in format=time caps=video/x-raw,format=I420,width=320,height=240,"
                          "framerate=30/1 ! imxvpuenc_h264 name=video_encoder bitrate=0 quant-param=20 "
                          "gop-size=0 idr-interval=16 ! appsink name=units sync=false");
    ASSERT_TRUE(pipeline.Parsed() && pipeline.Start()) << pipeline.Error();
    // What changes before which frame; from frame 40 on the input is 352x288, which opens the encoder again.
    const std::map<int, std::pair<const char*, guint>> changes = { { 6, { "quant-param", 44 } },
        { 12, { "gop-size", 4 } }, { 20, { "bitrate", 4000 } }, { 28, { "bitrate", 200 } } };
    GRand* noise = g_rand_new_with_seed(8);
    std::vector<gsize> sizes;
    std::vector<int> types;
    for (int index = 0; index < 49; ++index) {
        SCOPED_TRACE("frame " + std::to_string(index));
        if (const auto change = changes.find(index); change != changes.end())
            pipeline.Set("video_encoder", change->second.first, change->second.second);
        const bool reopened = index >= 40;
        if (index == 40) {
            VideoDaemon::GstCapsPtr caps(
                gst_caps_from_string("video/x-raw,format=I420,width=352,height=288,framerate=30/1"));
            g_object_set(pipeline.Element("in").get(), "caps", caps.get(), nullptr);
        }
        std::vector<guint8> picture(reopened ? 352 * 288 * 3 / 2 : 320 * 240 * 3 / 2);
        for (guint8& byte : picture)
            byte = static_cast<guint8>(g_rand_int_range(noise, 16, 236));
        GstBuffer* frame = gst_buffer_new_memdup(picture.data(), picture.size());
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        GST_BUFFER_DURATION(frame) = GST_SECOND / 30;
        ASSERT_TRUE(pipeline.Push("in", frame));
        GstSamplePtr unit = pipeline.Pull("units");
        ASSERT_TRUE(unit);
        sizes.push_back(gst_buffer_get_size(gst_sample_get_buffer(unit.get())));
        types.push_back(SliceType(gst_sample_get_buffer(unit.get())));
    }
    g_rand_free(noise);
    // IDR frames every 16 frames from the first and no I frames, whatever changed: the GOP size is read
    // when the encoder opens. Opened again, it counts from there and places an I frame every 4 frames.
    for (int index = 0; index < 49; ++index) {
        const int since_open = index < 40 ? index : index - 40;
        const int gop = index < 40 ? 0 : 4;
        const int expected = since_open % 16 == 0 ? kIdr : (gop > 0 && since_open % gop == 0 ? kI : kP);
        EXPECT_EQ(types[index], expected) << "frame " << index;
    }
    // A coarser quantiser shrinks the very next frame; a bitrate takes over from the quantiser and
    // a lower one shrinks the frames that follow.
    auto mean = [&](int from, int to) {
        return std::accumulate(sizes.begin() + from, sizes.begin() + to, 0.0) / (to - from);
    };
    EXPECT_LT(sizes[6] * 3, sizes[5]);
    EXPECT_GT(mean(21, 28), mean(6, 12) * 2);
    EXPECT_LT(mean(32, 40) * 3, mean(21, 28));
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
