// The "interpipesink" element: publishes its stream under its name to every interpipesrc listening to it.
//
// The sink registers its element name in the process-wide registry when it
// goes to READY; a second sink with the same name fails that state change
// with an element error. Each rendered buffer is handed by reference to
// every listener, on this sink's streaming thread; listeners queue it and
// push it from their own thread, so a slow consumer never holds the
// producer up. Caps go to the listeners as they are set; events follow
// "forward-events" (custom and tag events) and "forward-eos".
//
//   gst-launch-1.0 videotestsrc ! interpipesink name=cam  interpipesrc listen-to=cam ! autovideosink
#include "interpipe_sink.h"

#include "interpipe_registry.h"
#include "interpipe_src.h"

#include <algorithm>
#include <mutex>
#include <vector>

GST_DEBUG_CATEGORY_STATIC(interpipe_sink_debug);
#define GST_CAT_DEFAULT interpipe_sink_debug

namespace
{

// What the streaming thread and the registry share, under one lock.
struct Listeners {
    std::mutex mutex;
    std::vector<InterpipeSrc*> sources;
    GstCaps* caps = nullptr; // the caps currently set on the sink pad
};

} // namespace

struct _InterpipeSink {
    GstBaseSink parent;
    // Properties, under the object lock.
    guint maxBuffers;
    gboolean drop;
    GstCaps* filterCaps;
    gboolean forwardEvents;
    gboolean forwardEos;
    gboolean forwardPreroll;
    // Streaming-thread state.
    GstBuffer* prerolled; // handed on at preroll already; not again at render
    gboolean registered;
    Listeners* listeners;
};

enum {
    PROP_0,
    PROP_MAX_BUFFERS,
    PROP_DROP,
    PROP_CAPS,
    PROP_FORWARD_EVENTS,
    PROP_FORWARD_EOS,
    PROP_FORWARD_PREROLL,
    PROP_NUM_LISTENERS,
};

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

G_DEFINE_TYPE(InterpipeSink, interpipe_sink, GST_TYPE_BASE_SINK)
GST_ELEMENT_REGISTER_DEFINE(interpipesink, "interpipesink", GST_RANK_NONE, INTERPIPE_TYPE_SINK)

void interpipe_sink_attach(InterpipeSink* sink, InterpipeSrc* src)
{
    std::lock_guard<std::mutex> lock(sink->listeners->mutex);
    auto& sources = sink->listeners->sources;
    if (std::find(sources.begin(), sources.end(), src) != sources.end())
        return;
    sources.push_back(src);
    interpipe_src_producer_changed(src);
    if (sink->listeners->caps)
        interpipe_src_producer_caps(src, sink->listeners->caps, GST_OBJECT_NAME(sink));
    GST_DEBUG_OBJECT(sink, "%s listens, %zu listener(s)", GST_OBJECT_NAME(src), sources.size());
}

void interpipe_sink_detach(InterpipeSink* sink, InterpipeSrc* src)
{
    std::lock_guard<std::mutex> lock(sink->listeners->mutex);
    auto& sources = sink->listeners->sources;
    sources.erase(std::remove(sources.begin(), sources.end(), src), sources.end());
    GST_DEBUG_OBJECT(sink, "%s left, %zu listener(s)", GST_OBJECT_NAME(src), sources.size());
}

void interpipe_sink_detach_all(InterpipeSink* sink)
{
    std::lock_guard<std::mutex> lock(sink->listeners->mutex);
    sink->listeners->sources.clear();
}

static void ForgetPrerolled(InterpipeSink* self)
{
    gst_clear_buffer(&self->prerolled);
}

static void Deliver(InterpipeSink* self, GstBuffer* buffer)
{
    GstBaseSink* base = GST_BASE_SINK(self);
    InterpipeOrigin origin;
    GST_OBJECT_LOCK(self);
    origin.baseTime = GST_ELEMENT_CAST(self)->base_time;
    origin.maxBuffers = self->drop ? self->maxBuffers : 0;
    GST_OBJECT_UNLOCK(self);
    origin.segment = &base->segment;

    std::lock_guard<std::mutex> lock(self->listeners->mutex);
    for (InterpipeSrc* src : self->listeners->sources)
        interpipe_src_receive(src, buffer, &origin);
}

static GstFlowReturn interpipe_sink_preroll(GstBaseSink* base, GstBuffer* buffer)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    GST_OBJECT_LOCK(self);
    const gboolean forward = self->forwardPreroll;
    GST_OBJECT_UNLOCK(self);
    if (forward) {
        Deliver(self, buffer);
        gst_buffer_replace(&self->prerolled, buffer);
    }
    return GST_FLOW_OK;
}

static GstFlowReturn interpipe_sink_render(GstBaseSink* base, GstBuffer* buffer)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    if (self->prerolled == buffer) {
        ForgetPrerolled(self);
        return GST_FLOW_OK;
    }
    ForgetPrerolled(self);
    Deliver(self, buffer);
    return GST_FLOW_OK;
}

static gboolean IsForwardedEvent(GstEvent* event)
{
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_CUSTOM_DOWNSTREAM:
    case GST_EVENT_CUSTOM_DOWNSTREAM_OOB:
    case GST_EVENT_CUSTOM_DOWNSTREAM_STICKY:
    case GST_EVENT_CUSTOM_BOTH:
    case GST_EVENT_CUSTOM_BOTH_OOB:
    case GST_EVENT_TAG:
        return TRUE;
    default:
        return FALSE;
    }
}

static gboolean interpipe_sink_event(GstBaseSink* base, GstEvent* event)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    GST_OBJECT_LOCK(self);
    const gboolean forwardEvents = self->forwardEvents;
    const gboolean forwardEos = self->forwardEos;
    GST_OBJECT_UNLOCK(self);

    if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP)
        ForgetPrerolled(self);
    if (GST_EVENT_TYPE(event) == GST_EVENT_EOS && forwardEos) {
        GST_DEBUG_OBJECT(self, "forwarding EOS");
        std::lock_guard<std::mutex> lock(self->listeners->mutex);
        for (InterpipeSrc* src : self->listeners->sources)
            interpipe_src_end_of_stream(src);
    } else if (forwardEvents && IsForwardedEvent(event)) {
        std::lock_guard<std::mutex> lock(self->listeners->mutex);
        for (InterpipeSrc* src : self->listeners->sources)
            interpipe_src_forward_event(src, event);
    }
    return GST_BASE_SINK_CLASS(interpipe_sink_parent_class)->event(base, event);
}

static gboolean interpipe_sink_set_caps(GstBaseSink* base, GstCaps* caps)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    GST_DEBUG_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
    std::lock_guard<std::mutex> lock(self->listeners->mutex);
    gst_caps_replace(&self->listeners->caps, caps);
    for (InterpipeSrc* src : self->listeners->sources)
        interpipe_src_producer_caps(src, caps, GST_OBJECT_NAME(self));
    return TRUE;
}

static GstCaps* interpipe_sink_get_caps(GstBaseSink* base, GstCaps* filter)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    GST_OBJECT_LOCK(self);
    g_autoptr(GstCaps) allowed = self->filterCaps ? gst_caps_ref(self->filterCaps) : nullptr;
    GST_OBJECT_UNLOCK(self);
    if (!allowed)
        return filter ? gst_caps_ref(filter) : gst_caps_new_any();
    if (!filter)
        return static_cast<GstCaps*>(g_steal_pointer(&allowed));
    return gst_caps_intersect_full(filter, allowed, GST_CAPS_INTERSECT_FIRST);
}

static gboolean interpipe_sink_stop(GstBaseSink* base)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    ForgetPrerolled(self);
    std::lock_guard<std::mutex> lock(self->listeners->mutex);
    gst_caps_replace(&self->listeners->caps, nullptr);
    return TRUE;
}

static void Unregister(InterpipeSink* self)
{
    if (!self->registered)
        return;
    InterpipeRegistry::Instance().RemoveSink(self);
    self->registered = FALSE;
}

static GstStateChangeReturn interpipe_sink_change_state(GstElement* element, GstStateChange transition)
{
    InterpipeSink* self = INTERPIPE_SINK(element);
    if (transition == GST_STATE_CHANGE_NULL_TO_READY) {
        g_autofree gchar* name = gst_object_get_name(GST_OBJECT(self));
        const bool added = InterpipeRegistry::Instance().AddSink(name, self);
        if (!added)
            GST_ELEMENT_ERROR(self, RESOURCE, BUSY,
                ("An interpipesink named \"%s\" already exists in this process", name),
                ("interpipesink names must be unique"));
        if (!added)
            return GST_STATE_CHANGE_FAILURE;
        self->registered = TRUE;
    }
    const GstStateChangeReturn result
        = GST_ELEMENT_CLASS(interpipe_sink_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_READY_TO_NULL
        || (transition == GST_STATE_CHANGE_NULL_TO_READY && result == GST_STATE_CHANGE_FAILURE))
        Unregister(self);
    return result;
}

static void interpipe_sink_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    InterpipeSink* self = INTERPIPE_SINK(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_MAX_BUFFERS:
        self->maxBuffers = g_value_get_uint(value);
        break;
    case PROP_DROP:
        self->drop = g_value_get_boolean(value);
        break;
    case PROP_CAPS: {
        const GstCaps* caps = gst_value_get_caps(value);
        GstCaps* copy = caps ? gst_caps_copy(caps) : nullptr;
        gst_caps_take(&self->filterCaps, copy);
        break;
    }
    case PROP_FORWARD_EVENTS:
        self->forwardEvents = g_value_get_boolean(value);
        break;
    case PROP_FORWARD_EOS:
        self->forwardEos = g_value_get_boolean(value);
        break;
    case PROP_FORWARD_PREROLL:
        self->forwardPreroll = g_value_get_boolean(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void interpipe_sink_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    InterpipeSink* self = INTERPIPE_SINK(object);
    if (id == PROP_NUM_LISTENERS) {
        std::lock_guard<std::mutex> lock(self->listeners->mutex);
        g_value_set_uint(value, static_cast<guint>(self->listeners->sources.size()));
        return;
    }
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_MAX_BUFFERS:
        g_value_set_uint(value, self->maxBuffers);
        break;
    case PROP_DROP:
        g_value_set_boolean(value, self->drop);
        break;
    case PROP_CAPS:
        gst_value_set_caps(value, self->filterCaps);
        break;
    case PROP_FORWARD_EVENTS:
        g_value_set_boolean(value, self->forwardEvents);
        break;
    case PROP_FORWARD_EOS:
        g_value_set_boolean(value, self->forwardEos);
        break;
    case PROP_FORWARD_PREROLL:
        g_value_set_boolean(value, self->forwardPreroll);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void interpipe_sink_dispose(GObject* object)
{
    Unregister(INTERPIPE_SINK(object));
    G_OBJECT_CLASS(interpipe_sink_parent_class)->dispose(object);
}

static void interpipe_sink_finalize(GObject* object)
{
    InterpipeSink* self = INTERPIPE_SINK(object);
    ForgetPrerolled(self);
    gst_caps_replace(&self->filterCaps, nullptr);
    gst_caps_replace(&self->listeners->caps, nullptr);
    delete self->listeners;
    G_OBJECT_CLASS(interpipe_sink_parent_class)->finalize(object);
}

static void interpipe_sink_class_init(InterpipeSinkClass* klass)
{
    GObjectClass* objectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseSinkClass* sinkClass = GST_BASE_SINK_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(interpipe_sink_debug, "interpipesink", 0, "interpipe sink stand-in");

    objectClass->set_property = interpipe_sink_set_property;
    objectClass->get_property = interpipe_sink_get_property;
    objectClass->dispose = interpipe_sink_dispose;
    objectClass->finalize = interpipe_sink_finalize;

    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(objectClass, PROP_MAX_BUFFERS,
        g_param_spec_uint("max-buffers", "Max buffers",
            "With drop=true, the most buffers a listener without a limit of its own may hold "
            "(0 = unlimited)",
            0, G_MAXUINT, 0, rw));
    g_object_class_install_property(objectClass, PROP_DROP,
        g_param_spec_boolean("drop", "Drop",
            "Drop buffers for listeners that already hold max-buffers instead of queueing "
            "them",
            FALSE, rw));
    g_object_class_install_property(objectClass, PROP_CAPS,
        g_param_spec_boxed("caps", "Caps", "The caps the sink accepts (none: any)", GST_TYPE_CAPS, rw));
    g_object_class_install_property(objectClass, PROP_FORWARD_EVENTS,
        g_param_spec_boolean(
            "forward-events", "Forward events", "Hand custom and tag events on to the listeners", TRUE, rw));
    g_object_class_install_property(objectClass, PROP_FORWARD_EOS,
        g_param_spec_boolean(
            "forward-eos", "Forward EOS", "Hand end-of-stream on to the listeners", FALSE, rw));
    g_object_class_install_property(objectClass, PROP_FORWARD_PREROLL,
        g_param_spec_boolean("forward-preroll", "Forward preroll",
            "Hand the preroll buffer on to the listeners while paused", TRUE, rw));
    g_object_class_install_property(objectClass, PROP_NUM_LISTENERS,
        g_param_spec_uint("num-listeners", "Listeners", "How many sources are attached", 0, G_MAXUINT, 0,
            static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_set_static_metadata(elementClass, "Inter-pipeline sink", "Sink/Generic",
        "Publishes its stream under its name to the interpipesrc elements of any pipeline in the process",
        "videod");
    elementClass->change_state = interpipe_sink_change_state;

    sinkClass->preroll = interpipe_sink_preroll;
    sinkClass->render = interpipe_sink_render;
    sinkClass->event = interpipe_sink_event;
    sinkClass->set_caps = interpipe_sink_set_caps;
    sinkClass->get_caps = interpipe_sink_get_caps;
    sinkClass->stop = interpipe_sink_stop;
}

static void interpipe_sink_init(InterpipeSink* self)
{
    self->forwardEvents = TRUE;
    self->forwardPreroll = TRUE;
    self->listeners = new Listeners();
    // Nobody looks at the last sample of a hand-over; keeping it costs a lock per buffer.
    gst_base_sink_set_last_sample_enabled(GST_BASE_SINK(self), FALSE);
}
