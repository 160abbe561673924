// The "tarnwell-valve" element: lets a counted number of buffers through, then drops.
//
// Every write of "num-buffers-pass" re-arms the valve: exactly that many
// buffers pass from then on, the rest are dropped. 0 keeps it closed.
//
//   gst-launch-1.0 videotestsrc is-live=true ! tarnwell-valve num-buffers-pass=1 ! jpegenc ! filesink
//   location=a.jpg
#include "counting_valve.h"

GST_DEBUG_CATEGORY_STATIC(counting_valve_debug);
#define GST_CAT_DEFAULT counting_valve_debug

struct _CountingValve {
    GstBaseTransform parent;
    guint numBuffersPass;
    guint remaining;
};

enum { PROP_0, PROP_NUM_BUFFERS_PASS };

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

G_DEFINE_TYPE(CountingValve, counting_valve, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(tarnwell_valve, "tarnwell-valve", GST_RANK_NONE, COUNTING_TYPE_VALVE)

static void counting_valve_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    CountingValve* self = COUNTING_VALVE(object);
    switch (id) {
    case PROP_NUM_BUFFERS_PASS:
        GST_OBJECT_LOCK(self);
        self->numBuffersPass = g_value_get_uint(value);
        self->remaining = self->numBuffersPass;
        GST_OBJECT_UNLOCK(self);
        GST_DEBUG_OBJECT(self, "armed for %u buffers", g_value_get_uint(value));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void counting_valve_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    CountingValve* self = COUNTING_VALVE(object);
    switch (id) {
    case PROP_NUM_BUFFERS_PASS:
        GST_OBJECT_LOCK(self);
        g_value_set_uint(value, self->numBuffersPass);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static GstFlowReturn counting_valve_transform_ip(GstBaseTransform* trans, GstBuffer* /*buffer*/)
{
    CountingValve* self = COUNTING_VALVE(trans);
    GST_OBJECT_LOCK(self);
    const bool pass = self->remaining > 0;
    if (pass)
        --self->remaining;
    GST_OBJECT_UNLOCK(self);
    return pass ? GST_FLOW_OK : GST_BASE_TRANSFORM_FLOW_DROPPED;
}

static void counting_valve_class_init(CountingValveClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(counting_valve_debug, "tarnwell-valve", 0, "Counting valve");

    gobjectClass->set_property = counting_valve_set_property;
    gobjectClass->get_property = counting_valve_get_property;
    g_object_class_install_property(gobjectClass, PROP_NUM_BUFFERS_PASS,
        g_param_spec_uint("num-buffers-pass", "Buffers to pass",
            "Number of buffers let through before the valve closes; each write re-arms it", 0, G_MAXUINT, 0,
            static_cast<GParamFlags>(
                G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Counting valve (stand-in)", "Filter",
        "Lets a set number of buffers through, then drops the rest", "videod");

    transClass->transform_ip = GST_DEBUG_FUNCPTR(counting_valve_transform_ip);
}

static void counting_valve_init(CountingValve* self)
{
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
