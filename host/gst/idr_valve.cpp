// The "idrvalve" element: holds H.264 back, and once opened passes from the next IDR frame on.
//
// While "drop" is true every buffer is dropped. When "drop" turns false (and
// when the element starts), buffers are dropped until an access unit that
// holds an IDR slice arrives, so whatever follows always starts on an IDR;
// opening (or else the first frame dropped that way) asks upstream for a key
// unit, so the encoder need not run a whole IDR interval first. Events are never held back.
//
//   gst-launch-1.0 videotestsrc ! x264enc key-int-max=30 ! h264parse ! idrvalve drop=false ! fakesink
#include "idr_valve.h"

#include "h264_access_unit.h"

#include <gst/video/video-event.h>

GST_DEBUG_CATEGORY_STATIC(idr_valve_debug);
#define GST_CAT_DEFAULT idr_valve_debug

struct _IdrValve {
    GstBaseTransform parent;
    gboolean drop;
    gboolean waitingForIdr;
    gboolean keyUnitAsked; // during this wait
    gint nalLengthSize;
};

enum { PROP_0, PROP_DROP };

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-h264"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-h264"));

G_DEFINE_TYPE(IdrValve, idr_valve, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(idrvalve, "idrvalve", GST_RANK_NONE, IDR_TYPE_VALVE)

static void idr_valve_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    IdrValve* self = IDR_VALVE(object);
    switch (id) {
    case PROP_DROP: {
        const gboolean drop = g_value_get_boolean(value);
        GST_OBJECT_LOCK(self);
        const gboolean opened = self->drop && !drop;
        if (opened) {
            self->waitingForIdr = TRUE;
            self->keyUnitAsked = TRUE;
        }
        self->drop = drop;
        GST_OBJECT_UNLOCK(self);
        if (opened)
            gst_pad_push_event(GST_BASE_TRANSFORM_SINK_PAD(self),
                gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
        GST_DEBUG_OBJECT(self, "drop %d", drop);
        break;
    }
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void idr_valve_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    IdrValve* self = IDR_VALVE(object);
    switch (id) {
    case PROP_DROP:
        GST_OBJECT_LOCK(self);
        g_value_set_boolean(value, self->drop);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static gboolean idr_valve_start(GstBaseTransform* trans)
{
    IdrValve* self = IDR_VALVE(trans);
    GST_OBJECT_LOCK(self);
    self->waitingForIdr = TRUE;
    self->keyUnitAsked = FALSE;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static gboolean idr_valve_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps* /*outcaps*/)
{
    IdrValve* self = IDR_VALVE(trans);
    const int nalLengthSize = H264AccessUnit::NalLengthSizeFromCaps(incaps);
    GST_OBJECT_LOCK(self);
    self->nalLengthSize = nalLengthSize;
    GST_OBJECT_UNLOCK(self);
    return TRUE;
}

static GstFlowReturn idr_valve_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    IdrValve* self = IDR_VALVE(trans);
    GST_OBJECT_LOCK(self);
    const gboolean drop = self->drop;
    const gboolean waiting = self->waitingForIdr;
    const int nalLengthSize = self->nalLengthSize;
    GST_OBJECT_UNLOCK(self);

    if (drop)
        return GST_BASE_TRANSFORM_FLOW_DROPPED;
    if (!waiting)
        return GST_FLOW_OK;
    if (!H264AccessUnit::ContainsIdr(buffer, nalLengthSize)) {
        GST_OBJECT_LOCK(self);
        const gboolean ask = !self->keyUnitAsked;
        self->keyUnitAsked = TRUE;
        GST_OBJECT_UNLOCK(self);
        if (ask)
            gst_pad_push_event(GST_BASE_TRANSFORM_SINK_PAD(trans),
                gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
        return GST_BASE_TRANSFORM_FLOW_DROPPED;
    }

    GST_OBJECT_LOCK(self);
    // A "drop" written meanwhile wins over this IDR.
    const gboolean open = !self->drop;
    if (open)
        self->waitingForIdr = FALSE;
    GST_OBJECT_UNLOCK(self);
    if (!open)
        return GST_BASE_TRANSFORM_FLOW_DROPPED;
    GST_INFO_OBJECT(
        self, "passing from the IDR frame at %" GST_TIME_FORMAT, GST_TIME_ARGS(GST_BUFFER_PTS(buffer)));
    return GST_FLOW_OK;
}

static void idr_valve_class_init(IdrValveClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(idr_valve_debug, "idrvalve", 0, "H.264 valve that opens on an IDR frame");

    gobjectClass->set_property = idr_valve_set_property;
    gobjectClass->get_property = idr_valve_get_property;
    g_object_class_install_property(gobjectClass, PROP_DROP,
        g_param_spec_boolean("drop", "Drop",
            "Drop every buffer; when set to false, pass from the next IDR frame on", FALSE,
            static_cast<GParamFlags>(
                G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "IDR valve (stand-in)", "Filter/Video",
        "Drops H.264 until opened, then passes from the next IDR frame", "videod");

    transClass->start = GST_DEBUG_FUNCPTR(idr_valve_start);
    transClass->set_caps = GST_DEBUG_FUNCPTR(idr_valve_set_caps);
    transClass->transform_ip = GST_DEBUG_FUNCPTR(idr_valve_transform_ip);
}

static void idr_valve_init(IdrValve* self)
{
    self->drop = FALSE;
    self->waitingForIdr = TRUE;
    self->nalLengthSize = H264AccessUnit::kUnknownFormat;
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
