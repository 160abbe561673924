// The unit elements' properties as the daemon's descriptions and setters use them, and the pass-through
// elements.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <gst/video/video.h>

#include "unit_test_pipeline.h"

using namespace UnitTest;

namespace
{

enum Access { kReadWrite, kWriteOnly };

struct PropertyUse {
    const char* factory;
    const char* property;
    GType type;
    Access access;
};

// Every property the daemon sets or reads; all of them may change while playing.
const PropertyUse kUses[] = {
    { "vbiread", "line-dup-enabled", G_TYPE_BOOLEAN, kReadWrite },
    { "vbiread", "line-dup-top-start", G_TYPE_UINT, kReadWrite },
    { "vbiread", "line-dup-top-stop", G_TYPE_UINT, kReadWrite },
    { "vbiread", "line-dup-bot-start", G_TYPE_UINT, kReadWrite },
    { "vbiread", "line-dup-bot-stop", G_TYPE_UINT, kReadWrite },
    { "vbiread", "first-top-data-line", G_TYPE_UINT, kReadWrite },
    { "vbiread", "num-top-data-lines", G_TYPE_UINT, kReadWrite },
    { "vbiread", "first-bot-data-line", G_TYPE_UINT, kReadWrite },
    { "vbiread", "num-bot-data-lines", G_TYPE_UINT, kReadWrite },
    { "vbiread", "set-tff-flag", G_TYPE_BOOLEAN, kReadWrite },
    { "idrvalve", "drop", G_TYPE_BOOLEAN, kReadWrite },
    { "muxpause", "pause", G_TYPE_BOOLEAN, kWriteOnly },
    { "muxpause", "resume", G_TYPE_BOOLEAN, kWriteOnly },
    { "muxpause", "reset", G_TYPE_BOOLEAN, kWriteOnly },
    { "muxpause", "pause_length", G_TYPE_UINT64, kReadWrite },
    { "snapvoice", "reset", G_TYPE_BOOLEAN, kWriteOnly },
    { "tarnwell-static-jpeg", "location", G_TYPE_STRING, kReadWrite },
    { "tarnwell-static-jpeg", "silent", G_TYPE_BOOLEAN, kReadWrite },
    { "tarnwell-valve", "num-buffers-pass", G_TYPE_UINT, kReadWrite },
    { "tarnwell-motion-filter", "roll-filter-coeffs", G_TYPE_STRING, kReadWrite },
};

} // namespace

TEST(UnitElements, HaveEveryPropertyTheDaemonUsesWithItsTypeAndAccess)
{
    gst_init(nullptr, nullptr);
    for (const PropertyUse& use : kUses) {
        SCOPED_TRACE(std::string(use.factory) + " " + use.property);
        ObjectPtr<GstElement> element(gst_element_factory_make(use.factory, nullptr));
        ASSERT_NE(element, nullptr);
        gst_object_ref_sink(element.get());
        GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), use.property);
        ASSERT_NE(spec, nullptr);
        EXPECT_EQ(G_PARAM_SPEC_VALUE_TYPE(spec), use.type);
        EXPECT_TRUE(spec->flags & G_PARAM_WRITABLE);
        EXPECT_EQ((spec->flags & G_PARAM_READABLE) != 0, use.access == kReadWrite);
        EXPECT_TRUE(spec->flags & GST_PARAM_MUTABLE_PLAYING);
        EXPECT_STRNE(g_param_spec_get_blurb(spec), "");
    }
}

TEST(UnitElements, KeepTheValuesTheDescriptionsSet)
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

TEST(UnitElements, VbiReaderFlagsTopFieldFirstAndTheCapsFilterMakesFramesProgressive)
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
