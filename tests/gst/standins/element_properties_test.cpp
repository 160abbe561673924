// The stand-in elements' properties as the daemon's descriptions and setters use them, and the pass-through
// elements.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gst/video/video.h>

#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// One row per element: the properties the daemon sets or reads, by how it uses them. Each is
// "name:type", with "=initial" (as g_strdup_value_contents prints a new element's value; an enum's nick)
// or "[min,max]" where the daemon relies on it, and an enum's nicks by value "{a,b}". Types: b boolean,
// i int, u uint, t uint64, d double, s string, f fraction, e enum (set and read as an int).
struct StandIn {
    const char* factory;
    const char* live; // read and written, also while playing
    const char* settable = ""; // read and written, at least before playing
    const char* readOnly = "";
    const char* writeOnly = ""; // also while playing
    const char* writeOnlyIdle = ""; // at least before playing
};

const StandIn kStandIns[] = {
    { "vbiread",
        "line-dup-enabled:b set-tff-flag:b line-dup-top-start:u line-dup-top-stop:u line-dup-bot-start:u "
        "line-dup-bot-stop:u first-top-data-line:u num-top-data-lines:u first-bot-data-line:u "
        "num-bot-data-lines:u" },
    { "idrvalve", "drop:b=FALSE" },
    { "muxpause", "pause_length:t", "", "", "pause:b resume:b reset:b" },
    { "snapvoice", "", "", "", "reset:b" },
    { "tarnwell-static-jpeg", "location:s silent:b" },
    { "tarnwell-valve", "num-buffers-pass:u" },
    { "tarnwell-motion-filter", "roll-filter-coeffs:s" },
    { "imxv4l2videosrc", "", "crop-meta-x:i crop-meta-y:i crop-meta-width:i crop-meta-height:i fps:f" },
    { "imxipuvideotransform", "",
        "deinterlace:b deinterlace-method:e{low-motion,high-motion,medium-motion}=high-motion input-crop:b" },
    { "imxipuvideosink", "drop-frames:b=FALSE",
        "use-vsync:b=FALSE force-aspect-ratio:b=TRUE qos:b=TRUE output-rotation:i",
        "frames-shown:t frames-dropped:t" },
    { "imxvpuenc_h264", "bitrate:u=0 gop-size:u=16 quant-param:u=0 idr-interval:u=0" },
    { "imxvpuenc_mjpeg", "quality-factor:u[1,100]" },
    { "tarnwell-dsl",
        "silent:b dsl-enabled:b plumbline-enabled:b rotation-steps:u[0,2] rotation-threshold:u[0,30] "
        "rotation-frames-trigger:u[0,240] rotation-override:i animation-duration:u max-tilt-angle:i "
        "sharpen:d sharpen-amount:d dsl-auto-zoom-override:b",
        "", "camera-roll:d camera-tilt:d display-roll:d" },
    { "tarnwell-tiling",
        "silent:b background-mode:u zoom:d max-dsl-zoom-in:d dsl-zoom-period:u dsl-zoom-delay:u "
        "dsl-hysteresis:u pan-x:d pan-y:d sharpen:b sharpen-amount:d dsl-auto-zoom-override:b",
        "", "max-dsl-zoom:d pan-x-min:d pan-x-max:d pan-y-min:d pan-y-max:d" },
    { "rsvgoverlaytarnwell", "data:s enabled:b fit-to-frame:b" },
    // As the board's interpipe: the sink with appsink's defaults, write-only settings.
    { "interpipesink", "", "sync:b=FALSE drop:b=TRUE max-buffers:u=3", "num-listeners:u", "",
        "forward-eos:b forward-events:b" },
    { "interpipesrc", "", "listen-to:s format:e=bytes", "", "",
        "block-switch:b allow-renegotiation:b accept-events:b accept-eos-event:b "
        "stream-sync:e{restart-ts,passthrough-ts,compensate-ts}=passthrough-ts" },
};

GType TypeOf(char letter)
{
    static const char kLetters[] = "biutdsf";
    const GType types[] = { G_TYPE_BOOLEAN, G_TYPE_INT, G_TYPE_UINT, G_TYPE_UINT64, G_TYPE_DOUBLE,
        G_TYPE_STRING, GST_TYPE_FRACTION };
    const char* at = std::strchr(kLetters, letter);
    return letter != '\0' && at != nullptr ? types[at - kLetters] : G_TYPE_INVALID;
}

std::pair<gint64, gint64> Limits(GParamSpec* param)
{
    if (G_IS_PARAM_SPEC_INT(param))
        return { G_PARAM_SPEC_INT(param)->minimum, G_PARAM_SPEC_INT(param)->maximum };
    if (G_IS_PARAM_SPEC_UINT(param))
        return { G_PARAM_SPEC_UINT(param)->minimum, G_PARAM_SPEC_UINT(param)->maximum };
    return { 0, 0 };
}

// The value as g_strdup_value_contents prints it, an enum's as its nick; a write-only one's default.
std::string Contents(GstElement* element, GParamSpec* param)
{
    g_auto(GValue) value = G_VALUE_INIT;
    g_value_init(&value, param->value_type);
    if (param->flags & G_PARAM_READABLE)
        g_object_get_property(G_OBJECT(element), param->name, &value);
    else
        g_param_value_set_default(param, &value);
    if (G_IS_PARAM_SPEC_ENUM(param)) {
        GEnumValue* entry = g_enum_get_value(G_PARAM_SPEC_ENUM(param)->enum_class, g_value_get_enum(&value));
        return entry ? entry->value_nick : "";
    }
    g_autofree gchar* text = g_strdup_value_contents(&value);
    return text;
}

// An enum's nicks, by value from 0, as "{a,b,c}".
std::string Nicks(GParamSpec* param)
{
    GEnumClass* values = G_PARAM_SPEC_ENUM(param)->enum_class;
    std::string nicks;
    for (guint i = 0; i < values->n_values; ++i) {
        GEnumValue* entry = g_enum_get_value(values, static_cast<gint>(i));
        nicks += std::string(i ? "," : "{") + (entry ? entry->value_nick : "?");
    }
    return nicks + "}";
}

struct Access {
    bool readable, writable, whilePlaying;
};

// Checks one "name:type[=initial|[min,max]]" of an element against how the daemon uses it.
void ExpectProperty(GstElement* element, const std::string& use, Access access)
{
    SCOPED_TRACE(std::string(GST_OBJECT_NAME(gst_element_get_factory(element))) + " " + use);
    const size_t colon = use.find(':');
    ASSERT_NE(colon, std::string::npos);
    GParamSpec* param
        = g_object_class_find_property(G_OBJECT_GET_CLASS(element), use.substr(0, colon).c_str());
    ASSERT_NE(param, nullptr);
    std::string rest = use.substr(colon + 2);
    if (use[colon + 1] == 'e') {
        ASSERT_TRUE(G_IS_PARAM_SPEC_ENUM(param));
        if (!rest.empty() && rest[0] == '{') {
            EXPECT_EQ(Nicks(param), rest.substr(0, rest.find('}') + 1));
            rest = rest.substr(rest.find('}') + 1);
        }
    } else {
        EXPECT_EQ(G_PARAM_SPEC_VALUE_TYPE(param), TypeOf(use[colon + 1]));
    }
    EXPECT_EQ((param->flags & G_PARAM_READABLE) != 0, access.readable);
    EXPECT_EQ((param->flags & G_PARAM_WRITABLE) != 0, access.writable);
    EXPECT_TRUE(!access.whilePlaying || (param->flags & GST_PARAM_MUTABLE_PLAYING));
    if (!rest.empty() && rest[0] == '=') {
        EXPECT_EQ(Contents(element, param), rest.substr(1));
    }
    gint64 minimum = 0, maximum = 0;
    if (sscanf(rest.c_str(), "[%" G_GINT64_FORMAT ",%" G_GINT64_FORMAT "]", &minimum, &maximum) == 2) {
        EXPECT_EQ(Limits(param), std::make_pair(minimum, maximum));
    }
}

} // namespace

TEST(StandInElements, HaveEveryPropertyTheDaemonUsesWithItsTypeAccessAndRange)
{
    for (const StandIn& standIn : kStandIns) {
        GstPtr<GstElement> element = MakeElement(standIn.factory);
        ASSERT_NE(element, nullptr) << standIn.factory;
        const std::pair<const char*, Access> uses[] = { { standIn.live, { true, true, true } },
            { standIn.settable, { true, true, false } }, { standIn.readOnly, { true, false, false } },
            { standIn.writeOnly, { false, true, true } }, { standIn.writeOnlyIdle, { false, true, false } } };
        for (const auto& [list, access] : uses) {
            std::istringstream words(list);
            for (std::string use; words >> use;)
                ExpectProperty(element.get(), use, access);
        }
    }
    // The overlay pipeline links the overlay's extra source pad by name.
    GstPtr<GstElement> overlay = MakeElement("rsvgoverlaytarnwell");
    GstPtr<GstPad> pad(gst_element_get_static_pad(overlay.get(), "src_first"));
    ASSERT_NE(pad, nullptr);
    EXPECT_EQ(gst_pad_get_direction(pad.get()), GST_PAD_SRC);
}

TEST(StandInElements, TheMotionFilterRefusesWeightsThatAreNotNumbersAndKeepsTheLastGoodOnes)
{
    TestPipeline pipeline("videotestsrc num-buffers=1 ! tarnwell-motion-filter name=motion_filter "
                          "roll-filter-coeffs=\"1 1\" ! fakesink");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    GstPtr<GstElement> motion = pipeline.Element("motion_filter");
    g_object_set(motion.get(), "roll-filter-coeffs", "1 2 1", nullptr);
    g_object_set(motion.get(), "roll-filter-coeffs", "one two", nullptr);
    g_autofree gchar* coeffs = nullptr;
    g_object_get(motion.get(), "roll-filter-coeffs", &coeffs, nullptr);
    EXPECT_STREQ(coeffs, "1 2 1");
    EXPECT_NE(pipeline.WaitFor(GST_MESSAGE_WARNING, 0), nullptr);
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
    const std::vector<GstSamplePtr> samples = pipeline.PullAll("out");

    ASSERT_EQ(samples.size(), 3u);
    EXPECT_EQ(tffBetween, std::vector<bool>(3, true));
    for (const GstSamplePtr& sample : samples) {
        const GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
        EXPECT_STREQ(gst_structure_get_string(s, "interlace-mode"), "progressive");
        EXPECT_FALSE(GST_BUFFER_FLAG_IS_SET(gst_sample_get_buffer(sample.get()), GST_VIDEO_BUFFER_FLAG_TFF));
    }
}
