// The VPU stand-ins. The H.264 encoder: main profile 4:2:0 that an independent
// reader accepts in a recording with sound, IDR and I frame placement, its two
// rate-control modes, and settings changed while it runs. The JPEG encoder:
// real pictures whose quality follows "quality-factor". The decoder: JPEG and
// H.264 back to raw pictures in the format they are coded in.
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

// Mean of the luma plane, the first, of a 640x480 planar sample.
double MeanLuma(GstSample* sample)
{
    const std::vector<guint8> bytes = SampleBytes(sample);
    return bytes.size() >= 640 * 480
        ? std::accumulate(bytes.begin(), bytes.begin() + 640 * 480, 0.0) / (640 * 480)
        : -1;
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
        EXPECT_EQ(SliceType(buffer) == kIdr, i % 16 == 0) << "frame " << i;
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
    // 200 kbit/s is about 830 bytes a frame: held to it once settled, and from the next open.
    EXPECT_LT(mean(32, 40), 2 * 830);
    EXPECT_LT(mean(41, 49), 3 * 830);
}

TEST(ImxVpuEncMjpeg, WritesJpegPicturesThatAnIndependentReaderDecodesLargerForAHigherQualityFactor)
{
    TempDir dir;
    std::vector<std::uintmax_t> sizes;
    for (const guint quality : { 10u, 85u, 95u }) {
        // The snapshot chain (without its valve), writing one picture.
        TestPipeline pipeline("videotestsrc num-buffers=1 pattern=smpte ! video/x-raw, format=BGRA,width=640,"
                              "height=480 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter "
                              "name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! "
                              "imxvpuenc_mjpeg name=jpeg_encoder quality-factor="
            + std::to_string(quality) + " ! multifilesink name=snapshotSink post-messages=true location="
            + dir.File(std::to_string(quality) + ".jpeg"));
        ASSERT_TRUE(pipeline.Parsed() && pipeline.RunToEos()) << pipeline.Error();
        sizes.push_back(FileSize(dir.File(std::to_string(quality) + ".jpeg")));
    }
    EXPECT_LT(sizes[0], sizes[1]);
    EXPECT_LT(sizes[1], sizes[2]);
    EXPECT_GT(sizes[2], 2 * sizes[0]);
    // The daemon's setting.
    auto stream = FfprobeEntries(dir.File("85.jpeg"), "stream=codec_name,width,height");
    EXPECT_EQ(stream["codec_name"] + " " + stream["width"] + "x" + stream["height"], "mjpeg 640x480");
    EXPECT_TRUE(FfmpegDecodesCleanly(dir.File("85.jpeg")));
}

// Every frame decoded close to the original, in the format it was coded in, or
// a negotiation error where downstream refuses that format.
TEST(ImxVpuDec, DecodesEveryJpegAndH264FrameCloseToTheOriginalInItsOwnRawFormatOrFailsWhereRefused)
{
    const char* h264 = "imxvpuenc_h264 quant-param=20 ! h264parse";
    const struct {
        const char* raw; // what is coded
        const char* encoder;
        const char* downstream; // caps downstream accepts
        bool decodes; // or fails to negotiate
    } rows[] = {
        { "I420", "jpegenc quality=90", "video/x-raw", true },
        { "Y42B", "jpegenc quality=90", "video/x-raw", true },
        { "GRAY8", "jpegenc quality=90", "video/x-raw", true },
        { "I420", "imxvpuenc_h264 quant-param=20 ! h264parse ! video/x-h264,stream-format=avc,alignment=au",
            "video/x-raw", true },
        { "Y42B", "jpegenc", "video/x-raw,format=I420", false },
        { "I420", "jpegenc", "video/x-raw,format=GRAY8", false },
        { "I420", h264, "video/x-raw,format=Y444", false },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.raw) + " ! " + row.encoder + " into " + row.downstream);
        // The original alongside, where the decoder's picture is compared.
        const std::string tee = row.decodes
            ? " ! tee name=t t. ! queue ! appsink name=original sync=false wait-on-eos=false t. ! queue"
            : "";
        TestPipeline pipeline(std::string("videotestsrc num-buffers=3 pattern=smpte ! video/x-raw,format=")
            + row.raw + ",width=640,height=480,framerate=30000/1001" + tee + " ! " + row.encoder
            + " ! imxvpudec ! " + row.downstream + " ! appsink name=decoded sync=false wait-on-eos=false");
        ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
        const bool ended = pipeline.RunToEos();
        if (!row.decodes) {
            EXPECT_FALSE(ended);
            EXPECT_NE(pipeline.Error().find("not-negotiated"), std::string::npos) << pipeline.Error();
            continue;
        }
        ASSERT_TRUE(ended) << pipeline.Error();
        GstSamplePtr original = pipeline.Pull("original", GST_SECOND);
        std::vector<GstSamplePtr> decoded = pipeline.PullAll("decoded");
        ASSERT_TRUE(original);
        ASSERT_EQ(decoded.size(), 3u);
        const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(decoded.front().get()), 0);
        EXPECT_STREQ(gst_structure_get_string(caps, "format"), row.raw);
        EXPECT_NEAR(MeanLuma(decoded.front().get()), MeanLuma(original.get()), 2.0);
    }
}
