// The stand-in elements' properties as the daemon's descriptions and setters use them, and the pass-through
// elements.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

enum Access {
    kPlaying, // read and written, also while playing
    kWriteOnly, // written only, also while playing
    kReadOnly,
    kSettable, // read and written, at least before playing
};

struct PropertyUse {
    const char* factory;
    const char* property;
    GType type;
    Access access;
    const char* initial = nullptr; // the value of a new element, as g_strdup_value_contents prints it
    gint64 minimum = 0, maximum = 0; // checked when not both 0
};

// Every property the daemon sets or reads (after gst_init, which registers GST_TYPE_FRACTION).
const std::vector<PropertyUse>& Uses()
{
    gst_init(nullptr, nullptr);
    static const std::vector<PropertyUse> uses = {
        { "vbiread", "line-dup-enabled", G_TYPE_BOOLEAN, kPlaying },
        { "vbiread", "line-dup-top-start", G_TYPE_UINT, kPlaying },
        { "vbiread", "line-dup-top-stop", G_TYPE_UINT, kPlaying },
        { "vbiread", "line-dup-bot-start", G_TYPE_UINT, kPlaying },
        { "vbiread", "line-dup-bot-stop", G_TYPE_UINT, kPlaying },
        { "vbiread", "first-top-data-line", G_TYPE_UINT, kPlaying },
        { "vbiread", "num-top-data-lines", G_TYPE_UINT, kPlaying },
        { "vbiread", "first-bot-data-line", G_TYPE_UINT, kPlaying },
        { "vbiread", "num-bot-data-lines", G_TYPE_UINT, kPlaying },
        { "vbiread", "set-tff-flag", G_TYPE_BOOLEAN, kPlaying },
        { "idrvalve", "drop", G_TYPE_BOOLEAN, kPlaying, "FALSE" },
        { "muxpause", "pause", G_TYPE_BOOLEAN, kWriteOnly },
        { "muxpause", "resume", G_TYPE_BOOLEAN, kWriteOnly },
        { "muxpause", "reset", G_TYPE_BOOLEAN, kWriteOnly },
        { "muxpause", "pause_length", G_TYPE_UINT64, kPlaying },
        { "snapvoice", "reset", G_TYPE_BOOLEAN, kWriteOnly },
        { "tarnwell-static-jpeg", "location", G_TYPE_STRING, kPlaying },
        { "tarnwell-static-jpeg", "silent", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-valve", "num-buffers-pass", G_TYPE_UINT, kPlaying },
        { "tarnwell-motion-filter", "roll-filter-coeffs", G_TYPE_STRING, kPlaying },
        { "imxv4l2videosrc", "crop-meta-x", G_TYPE_INT, kSettable },
        { "imxv4l2videosrc", "crop-meta-y", G_TYPE_INT, kSettable },
        { "imxv4l2videosrc", "crop-meta-width", G_TYPE_INT, kSettable },
        { "imxv4l2videosrc", "crop-meta-height", G_TYPE_INT, kSettable },
        { "imxv4l2videosrc", "fps", GST_TYPE_FRACTION, kSettable },
        { "imxipuvideotransform", "deinterlace", G_TYPE_BOOLEAN, kSettable },
        { "imxipuvideotransform", "deinterlace-method", G_TYPE_INT, kSettable, nullptr, 0, 2 },
        { "imxipuvideotransform", "input-crop", G_TYPE_BOOLEAN, kSettable },
        { "imxipuvideosink", "drop-frames", G_TYPE_BOOLEAN, kPlaying, "FALSE" },
        { "imxipuvideosink", "use-vsync", G_TYPE_BOOLEAN, kSettable, "FALSE" },
        { "imxipuvideosink", "force-aspect-ratio", G_TYPE_BOOLEAN, kSettable, "TRUE" },
        { "imxipuvideosink", "qos", G_TYPE_BOOLEAN, kSettable, "TRUE" },
        { "imxipuvideosink", "output-rotation", G_TYPE_INT, kSettable },
        { "imxipuvideosink", "frames-shown", G_TYPE_UINT64, kReadOnly },
        { "imxipuvideosink", "frames-dropped", G_TYPE_UINT64, kReadOnly },
        { "imxvpuenc_h264", "bitrate", G_TYPE_UINT, kPlaying, "0" },
        { "imxvpuenc_h264", "gop-size", G_TYPE_UINT, kPlaying, "16" },
        { "imxvpuenc_h264", "quant-param", G_TYPE_UINT, kPlaying },
        { "imxvpuenc_h264", "idr-interval", G_TYPE_UINT, kPlaying },
        { "imxvpuenc_mjpeg", "quality-factor", G_TYPE_UINT, kPlaying, nullptr, 1, 100 },
        { "tarnwell-dsl", "silent", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-dsl", "dsl-enabled", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-dsl", "plumbline-enabled", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-dsl", "rotation-steps", G_TYPE_UINT, kPlaying, nullptr, 0, 2 },
        { "tarnwell-dsl", "rotation-threshold", G_TYPE_UINT, kPlaying, nullptr, 0, 30 },
        { "tarnwell-dsl", "rotation-frames-trigger", G_TYPE_UINT, kPlaying, nullptr, 0, 240 },
        { "tarnwell-dsl", "rotation-override", G_TYPE_INT, kPlaying },
        { "tarnwell-dsl", "animation-duration", G_TYPE_UINT, kPlaying },
        { "tarnwell-dsl", "max-tilt-angle", G_TYPE_INT, kPlaying },
        { "tarnwell-dsl", "sharpen", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-dsl", "sharpen-amount", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-dsl", "dsl-auto-zoom-override", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-dsl", "camera-roll", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-dsl", "camera-tilt", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-dsl", "display-roll", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-tiling", "silent", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-tiling", "background-mode", G_TYPE_UINT, kPlaying },
        { "tarnwell-tiling", "zoom", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-tiling", "max-dsl-zoom-in", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-tiling", "max-dsl-zoom", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-tiling", "dsl-zoom-period", G_TYPE_UINT, kPlaying },
        { "tarnwell-tiling", "dsl-zoom-delay", G_TYPE_UINT, kPlaying },
        { "tarnwell-tiling", "dsl-hysteresis", G_TYPE_UINT, kPlaying },
        { "tarnwell-tiling", "pan-x", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-tiling", "pan-y", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-tiling", "pan-x-min", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-tiling", "pan-x-max", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-tiling", "pan-y-min", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-tiling", "pan-y-max", G_TYPE_DOUBLE, kReadOnly },
        { "tarnwell-tiling", "sharpen", G_TYPE_BOOLEAN, kPlaying },
        { "tarnwell-tiling", "sharpen-amount", G_TYPE_DOUBLE, kPlaying },
        { "tarnwell-tiling", "dsl-auto-zoom-override", G_TYPE_BOOLEAN, kPlaying },
        { "rsvgoverlaytarnwell", "data", G_TYPE_STRING, kPlaying },
        { "rsvgoverlaytarnwell", "enabled", G_TYPE_BOOLEAN, kPlaying },
        { "rsvgoverlaytarnwell", "fit-to-frame", G_TYPE_BOOLEAN, kPlaying },
    };
    return uses;
}

std::pair<gint64, gint64> Limits(GParamSpec* param)
{
    if (G_IS_PARAM_SPEC_INT(param))
        return { G_PARAM_SPEC_INT(param)->minimum, G_PARAM_SPEC_INT(param)->maximum };
    if (G_IS_PARAM_SPEC_UINT(param))
        return { G_PARAM_SPEC_UINT(param)->minimum, G_PARAM_SPEC_UINT(param)->maximum };
    return { 0, 0 };
}

std::string Contents(GstElement* element, GParamSpec* param)
{
    g_auto(GValue) value = G_VALUE_INIT;
    g_value_init(&value, param->value_type);
    g_object_get_property(G_OBJECT(element), param->name, &value);
    g_autofree gchar* text = g_strdup_value_contents(&value);
    return text;
}

} // namespace

TEST(StandInElements, HaveEveryPropertyTheDaemonUsesWithItsTypeAccessAndRange)
{
    for (const PropertyUse& use : Uses()) {
        SCOPED_TRACE(std::string(use.factory) + " " + use.property);
        ObjectPtr<GstElement> element = MakeElement(use.factory);
        ASSERT_NE(element, nullptr);
        GParamSpec* param = g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), use.property);
        ASSERT_NE(param, nullptr);
        EXPECT_EQ(G_PARAM_SPEC_VALUE_TYPE(param), use.type);
        EXPECT_EQ((param->flags & G_PARAM_WRITABLE) != 0, use.access != kReadOnly);
        EXPECT_EQ((param->flags & G_PARAM_READABLE) != 0, use.access != kWriteOnly);
        const bool whilePlaying = use.access == kPlaying || use.access == kWriteOnly;
        EXPECT_TRUE(!whilePlaying || (param->flags & GST_PARAM_MUTABLE_PLAYING));
        EXPECT_STRNE(g_param_spec_get_blurb(param), "");
        if (use.initial != nullptr) {
            EXPECT_EQ(Contents(element.get(), param), use.initial);
        }
        if (use.minimum != 0 || use.maximum != 0) {
            EXPECT_EQ(Limits(param), std::make_pair(use.minimum, use.maximum));
        }
    }
    // The overlay pipeline links the overlay's extra source pad by name.
    ObjectPtr<GstElement> overlay = MakeElement("rsvgoverlaytarnwell");
    ObjectPtr<GstPad> pad(gst_element_get_static_pad(overlay.get(), "src_first"));
    ASSERT_NE(pad, nullptr);
    EXPECT_EQ(gst_pad_get_direction(pad.get()), GST_PAD_SRC);
}

TEST(StandInElements, KeepTheValuesTheDescriptionsSet)
{
    TestPipeline pipeline(
        "videotestsrc num-buffers=1 ! vbiread name=vbi_read line-dup-enabled=false line-dup-top-start=3 "
        "line-dup-top-stop=33 line-dup-bot-start=433 line-dup-bot-stop=480 first-top-data-line=0 "
        "num-top-data-lines=30 first-bot-data-line=433 num-bot-data-lines=37 set-tff-flag=true ! "
        "tarnwell-motion-filter name=motion_filter roll-filter-coeffs=\"1 1\" ! fakesink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    guint topStop = 0, botData = 0;
    gboolean tff = FALSE;
    g_object_get(pipeline.Element("vbi_read").get(), "line-dup-top-stop", &topStop, "num-bot-data-lines",
        &botData, "set-tff-flag", &tff, nullptr);
    EXPECT_EQ(topStop, 33u);
    EXPECT_EQ(botData, 37u);
    EXPECT_TRUE(tff);

    // A text that is not a list of weights is refused and the last good one stays.
    ObjectPtr<GstElement> motion = pipeline.Element("motion_filter");
    g_object_set(motion.get(), "roll-filter-coeffs", "1 2 1", nullptr);
    g_object_set(motion.get(), "roll-filter-coeffs", "one two", nullptr);
    g_autofree gchar* coeffs = nullptr;
    g_object_get(motion.get(), "roll-filter-coeffs", &coeffs, nullptr);
    EXPECT_STREQ(coeffs, "1 2 1");
    MessagePtr warning = pipeline.WaitFor(GST_MESSAGE_WARNING, 0);
    EXPECT_NE(warning, nullptr);
}

TEST(StandInElements, VbiReaderFlagsTopFieldFirstAndTheCapsFilterMakesFramesProgressive)
{
    TestPipeline pipeline(
        "videotestsrc num-buffers=3 ! video/x-raw,width=64,height=48,interlace-mode=interleaved ! "
        "vbiread name=vbi set-tff-flag=true ! identity name=between ! progressive-caps-filter ! "
        "appsink name=out sync=false");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    std::vector<bool> tffBetween;
    BufferProbe probe(pipeline.Element("between").get(), "src", [&](GstBuffer* buffer) {
        tffBetween.push_back(GST_BUFFER_FLAG_IS_SET(buffer, GST_VIDEO_BUFFER_FLAG_TFF));
    });
    ASSERT_TRUE(pipeline.Play());
    const std::vector<SamplePtr> samples = pipeline.PullAll("out");

    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(tffBetween, std::vector<bool>(3, true));
    for (const SamplePtr& sample : samples) {
        const GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
        EXPECT_STREQ(gst_structure_get_string(s, "interlace-mode"), "progressive");
        EXPECT_FALSE(GST_BUFFER_FLAG_IS_SET(gst_sample_get_buffer(sample.get()), GST_VIDEO_BUFFER_FLAG_TFF));
    }
}
