// The "progressive-caps-filter" element: declares deinterlaced video progressive in its caps.
//
// Whatever interlace mode the input caps carry, the output caps say
// "progressive" (without a field order) and the frames lose their field flags.
//
//   gst-launch-1.0 videotestsrc ! video/x-raw,interlace-mode=interleaved ! progressive-caps-filter ! fakesink
#include "progressive_caps_filter.h"

#include <gst/video/video.h>

GST_DEBUG_CATEGORY_STATIC(progressive_caps_filter_debug);
#define GST_CAT_DEFAULT progressive_caps_filter_debug

struct _ProgressiveCapsFilter {
    GstBaseTransform parent;
};

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw(ANY)"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw(ANY)"));

G_DEFINE_TYPE(ProgressiveCapsFilter, progressive_caps_filter, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(
    progressive_caps_filter, "progressive-caps-filter", GST_RANK_NONE, PROGRESSIVE_TYPE_CAPS_FILTER)

static constexpr GstBufferFlags kFieldFlags = static_cast<GstBufferFlags>(GST_VIDEO_BUFFER_FLAG_INTERLACED
    | GST_VIDEO_BUFFER_FLAG_TFF | GST_VIDEO_BUFFER_FLAG_RFF | GST_VIDEO_BUFFER_FLAG_ONEFIELD);

static GstCaps* progressive_caps_filter_transform_caps(
    GstBaseTransform* /*trans*/, GstPadDirection direction, GstCaps* caps, GstCaps* filter)
{
    GstCaps* result = gst_caps_copy(caps);
    for (guint i = 0; i < gst_caps_get_size(result); ++i) {
        GstStructure* s = gst_caps_get_structure(result, i);
        gst_structure_remove_field(s, "field-order");
        if (direction == GST_PAD_SINK)
            gst_structure_set(s, "interlace-mode", G_TYPE_STRING, "progressive", nullptr);
        else
            gst_structure_remove_field(s, "interlace-mode"); // any input mode becomes progressive
    }
    if (filter != nullptr)
        gst_caps_take(&result, gst_caps_intersect_full(filter, result, GST_CAPS_INTERSECT_FIRST));
    return result;
}

static GstFlowReturn progressive_caps_filter_transform_ip(GstBaseTransform* /*trans*/, GstBuffer* buffer)
{
    GST_BUFFER_FLAG_UNSET(buffer, kFieldFlags);
    return GST_FLOW_OK;
}

static void progressive_caps_filter_class_init(ProgressiveCapsFilterClass* klass)
{
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(
        progressive_caps_filter_debug, "progressive-caps-filter", 0, "Progressive caps filter");

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Progressive caps filter (stand-in)", "Filter/Video",
        "Marks the video caps and frames progressive", "videod");

    transClass->transform_caps = GST_DEBUG_FUNCPTR(progressive_caps_filter_transform_caps);
    transClass->transform_ip = GST_DEBUG_FUNCPTR(progressive_caps_filter_transform_ip);
}

static void progressive_caps_filter_init(ProgressiveCapsFilter* self)
{
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
