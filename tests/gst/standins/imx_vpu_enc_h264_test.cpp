// The H.264 encoder stand-in: main profile 4:2:0 that an independent reader
// accepts, IDR and I frame placement, and its two rate-control modes.
#include "imx_test_pipeline.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

using namespace ImxTest;

namespace
{

// The encode pipeline's chain, fed by a test source and written to an MP4 file.
std::string EncodeToFile(int frames, const std::string& encoder, const std::string& path)
{
    return "videotestsrc num-buffers=" + std::to_string(frames)
        + " pattern=ball ! video/x-raw, format=BGRA,width=640,height=480,framerate=30000/1001 ! "
          "imxipuvideotransform "
          "name=video_video_transform_h264 ! video/x-raw, format=I420 ! "
        + encoder
        + " ! h264parse ! video/x-h264, stream-format=avc,alignment=au,profile=main ! mp4mux ! filesink "
          "location="
        + path;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

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

TEST(ImxVpuEncH264, WritesMainProfile420ThatFfprobeReads)
{
    TempFile file(".mp4");
    TestPipeline pipeline(EncodeToFile(48,
        "imxvpuenc_h264 name=video_encoder bitrate=0 gop-size=16 quant-param=24 idr-interval=16",
        file.Path()));
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.ParseError();
    ASSERT_TRUE(pipeline.RunToEos()) << pipeline.Error();

    auto stream = ProbeAll(file.Path(), "v:0", "stream=codec_name,profile,pix_fmt,width,height,nb_frames");
    EXPECT_EQ(stream["codec_name"], "h264");
    EXPECT_EQ(stream["profile"], "Main");
    EXPECT_EQ(stream["pix_fmt"], "yuv420p");
    EXPECT_EQ(stream["width"], "640");
    EXPECT_EQ(stream["height"], "480");
    EXPECT_EQ(stream["nb_frames"], "48");
}

TEST(ImxVpuEncH264, PlacesIdrFramesEveryIdrIntervalAndIFramesEveryGop)
{
    TempFile file(".mp4");
    TestPipeline pipeline(
        "videotestsrc num-buffers=40 pattern=ball ! video/x-raw,format=I420,width=640,height=480,"
        "framerate=30/1 ! imxvpuenc_h264 bitrate=0 quant-param=30 gop-size=8 idr-interval=16 ! "
        "tee name=t t. ! queue ! appsink name=units sync=false wait-on-eos=false "
        "t. ! queue ! h264parse ! mp4mux ! filesink location="
        + file.Path());
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.ParseError();
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
    const auto types = Lines(Probe(file.Path(), "v:0", "frame=pict_type"));
    ASSERT_EQ(types.size(), 40u);
    for (size_t i = 0; i < types.size(); ++i)
        EXPECT_EQ(types[i], i % 8 == 0 ? "I" : "P") << "frame " << i;
}

TEST(ImxVpuEncH264, ASettingChangedWhilePlayingRestartsOnAnIdrFrame)
{
    TestPipeline pipeline("appsrc name=in format=time caps=video/x-raw,format=I420,width=320,height=240,"
                          "framerate=30/1 ! imxvpuenc_h264 name=video_encoder gop-size=100 idr-interval=0 ! "
                          "appsink name=units sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.ParseError();
    ASSERT_NE(pipeline.Play(), GST_STATE_CHANGE_FAILURE);
    GstAppSrc* source = GST_APP_SRC(pipeline.Element("in"));
    GstElement* encoder = pipeline.Element("video_encoder");
    // One frame in, one access unit out: whether it is an IDR frame.
    auto encode = [&](int index) {
        GstBuffer* frame = gst_buffer_new_allocate(nullptr, 320 * 240 * 3 / 2, nullptr);
        gst_buffer_memset(frame, 0, static_cast<guint8>(16 + index * 8), 320 * 240 * 3 / 2);
        GST_BUFFER_PTS(frame) = static_cast<GstClockTime>(index) * GST_SECOND / 30;
        GST_BUFFER_DURATION(frame) = GST_SECOND / 30;
        EXPECT_EQ(gst_app_src_push_buffer(source, frame), GST_FLOW_OK);
        SamplePtr unit = pipeline.Pull("units");
        EXPECT_TRUE(unit) << "frame " << index;
        return unit && HasIdrSlice(gst_sample_get_buffer(unit.get()));
    };
    EXPECT_TRUE(encode(0));
    EXPECT_FALSE(encode(1));
    EXPECT_FALSE(encode(2));
    g_object_set(encoder, "bitrate", 800u, nullptr);
    EXPECT_TRUE(encode(3));
    EXPECT_FALSE(encode(4));
    guint bitrate = 0;
    g_object_get(encoder, "bitrate", &bitrate, nullptr);
    EXPECT_EQ(bitrate, 800u);
}

TEST(ImxVpuEncH264, QuantParamAndBitrateSetTheSizeOfTheStream)
{
    auto encoded_size = [](const std::string& encoder) {
        TempFile file(".mp4");
        TestPipeline pipeline("videotestsrc num-buffers=15 pattern=snow ! video/x-raw,format=I420,width=320,"
                              "height=240,framerate=30/1 ! "
            + encoder + " ! h264parse ! mp4mux ! filesink location=" + file.Path());
        EXPECT_TRUE(pipeline.RunToEos()) << pipeline.Error();
        return FileSize(file.Path());
    };
    const gsize fine = encoded_size("imxvpuenc_h264 bitrate=0 quant-param=20");
    const gsize coarse = encoded_size("imxvpuenc_h264 bitrate=0 quant-param=40");
    EXPECT_GT(fine, coarse * 2);

    // Half a second at 500 kbit/s is about 31 kB; at 4000 kbit/s about 250 kB.
    const gsize low = encoded_size("imxvpuenc_h264 bitrate=500");
    const gsize high = encoded_size("imxvpuenc_h264 bitrate=4000");
    EXPECT_GT(high, low * 3);
    EXPECT_LT(low, 80u * 1000u) << "high " << high;
}

TEST(ImxVpuEncH264, EncoderPropertiesAreUnsignedWithTheDescriptionsDefaults)
{
    gst_init(nullptr, nullptr);
    ElementPtr encoder(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("imxvpuenc_h264", nullptr))));
    ASSERT_TRUE(encoder);
    for (const char* name : { "bitrate", "gop-size", "quant-param", "idr-interval" }) {
        GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(encoder.get()), name);
        ASSERT_NE(spec, nullptr) << name;
        EXPECT_EQ(spec->value_type, G_TYPE_UINT) << name;
        EXPECT_TRUE(spec->flags & GST_PARAM_MUTABLE_PLAYING) << name;
    }
    guint bitrate = 1, gop = 0;
    g_object_get(encoder.get(), "bitrate", &bitrate, "gop-size", &gop, nullptr);
    EXPECT_EQ(bitrate, 0u);
    EXPECT_EQ(gop, 16u);
    g_object_set(encoder.get(), "bitrate", 2000u, nullptr);
    g_object_get(encoder.get(), "bitrate", &bitrate, nullptr);
    EXPECT_EQ(bitrate, 2000u);
}
