// The "snapvoice" element: keeps one still picture of an H.264 stream for a narrated note.
//
// After a reset (writing "reset" true, or the element starting) the first
// access unit holding an IDR frame passes and every later video frame is
// dropped, so the file holds one picture beside the narration.
//
//   gst-launch-1.0 videotestsrc ! x264enc ! h264parse ! snapvoice reset=true ! fakesink
#include "snap_voice.h"

#include "h264_access_unit.h"

GST_DEBUG_CATEGORY_STATIC(snap_voice_debug);
#define GST_CAT_DEFAULT snap_voice_debug

struct _SnapVoice {
    GstBaseTransform parent;
    gboolean armed; // waiting for the picture to keep
    gint nalLengthSize;
};

enum { PROP_0, PROP_RESET };

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-h264"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-h264"));

G_DEFINE_TYPE(SnapVoice, snap_voice, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(snapvoice, "snapvoice", GST_RANK_NONE, SNAP_TYPE_VOICE)

static void snap_voice_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    SnapVoice* self = SNAP_VOICE(object);
    switch (id) {
    case PROP_RESET:
        if (g_value_get_boolean(value)) {
            GST_OBJECT_LOCK(self);
            self->armed = TRUE;
            GST_OBJECT_UNLOCK(self);
            GST_DEBUG_OBJECT(self, "reset");
        }
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void snap_voice_get_property(GObject* object, guint id, GValue* /*value*/, GParamSpec* pspec)
{
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

static gboolean snap_voice_start(GstBaseTransform* trans)
{
    SnapVoice* self = SNAP_VOICE(trans);
    GST_OBJECT_LOCK(self);
    self->armed = TRUE;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static gboolean snap_voice_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps* /*outcaps*/)
{
    SnapVoice* self = SNAP_VOICE(trans);
    const int nalLengthSize = H264AccessUnit::NalLengthSizeFromCaps(incaps);
    GST_OBJECT_LOCK(self);
    self->nalLengthSize = nalLengthSize;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static GstFlowReturn snap_voice_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    SnapVoice* self = SNAP_VOICE(trans);
    GST_OBJECT_LOCK(self);
    const gboolean armed = self->armed;
    const int nalLengthSize = self->nalLengthSize;
    GST_OBJECT_UNLOCK(self);

    if (!armed || !H264AccessUnit::ContainsIdr(buffer, nalLengthSize))
        return GST_BASE_TRANSFORM_FLOW_DROPPED;

    GST_OBJECT_LOCK(self);
    self->armed = FALSE;
    GST_OBJECT_UNLOCK(self);
    GST_INFO_OBJECT(self, "keeping the picture at %" GST_TIME_FORMAT, GST_TIME_ARGS(GST_BUFFER_PTS(buffer)));
    return GST_FLOW_OK;
}

static void snap_voice_class_init(SnapVoiceClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(snap_voice_debug, "snapvoice", 0, "One still picture for a narrated note");

    gobjectClass->set_property = snap_voice_set_property;
    gobjectClass->get_property = snap_voice_get_property;
    g_object_class_install_property(gobjectClass, PROP_RESET,
        g_param_spec_boolean("reset", "Reset",
            "Writing true keeps the next IDR frame and drops the frames after it", FALSE,
            static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "SnapVoice picture filter (stand-in)", "Filter/Video",
        "Passes the first IDR frame after a reset and drops later frames", "videod");

    transClass->start = GST_DEBUG_FUNCPTR(snap_voice_start);
    transClass->set_caps = GST_DEBUG_FUNCPTR(snap_voice_set_caps);
    transClass->transform_ip = GST_DEBUG_FUNCPTR(snap_voice_transform_ip);
}

static void snap_voice_init(SnapVoice* self)
{
    self->armed = TRUE;
    self->nalLengthSize = H264AccessUnit::kUnknownFormat;
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
