// The "interpipesink" element: an appsink that publishes its stream, under its name, to every listening
// interpipesrc.
//
// The sink is a node of the process-wide registry from the moment it has a
// name until it is destroyed; a second sink asking for a taken name is
// refused with a warning and publishes nothing. As an appsink it starts with
// "sync" false, "drop" true and "max-buffers" 3; every sample is taken as it
// arrives and handed by reference to every listener at once, on this sink's
// streaming thread. With "forward-events" every downstream event except
// end-of-stream and caps goes to the listeners; with "forward-eos" the
// end-of-stream does.
//
// Caps: without listeners the sink accepts anything. With listeners it
// accepts what all of them can take (an empty intersection detaches them);
// the "caps" property does not restrict that, it reads back the caps last
// set. A listener that attaches with other caps than the sink's makes the
// producer renegotiate when it is the only one, and must be compatible
// otherwise.
//
//   gst-launch-1.0 videotestsrc ! interpipesink name=cam  interpipesrc listen-to=cam ! autovideosink
#include "interpipe_sink.h"

#include "interpipe_registry.h"
#include "interpipe_src.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "common/gst_ptr.h"

GST_DEBUG_CATEGORY_STATIC(interpipe_sink_debug);
#define GST_CAT_DEFAULT interpipe_sink_debug

using VideoDaemon::GstBufferPtr;
using VideoDaemon::GstCapsPtr;
using VideoDaemon::GstPtr;
using VideoDaemon::GstSamplePtr;

namespace
{

struct SinkState {
    std::mutex mutex; // guards sources, which the streaming thread walks
    std::vector<InterpipeSrc*> sources;
    // The name held in the registry; empty when none is held.
    std::string node;
    // Handed on at preroll already: not again when it is rendered (streaming thread only).
    GstBufferPtr prerolled;
};

using Listeners = std::vector<GstPtr<InterpipeSrc>>;

} // namespace

struct _InterpipeSink {
    GstAppSink parent;
    // Properties, under the object lock.
    gboolean forwardEvents;
    gboolean forwardEos;
    gboolean forwardPreroll;
    SinkState* state;
};

enum {
    PROP_0,
    PROP_FORWARD_EOS,
    PROP_FORWARD_EVENTS,
    PROP_FORWARD_PREROLL,
    PROP_NUM_LISTENERS,
};

G_DEFINE_TYPE(InterpipeSink, interpipe_sink, GST_TYPE_APP_SINK)
GST_ELEMENT_REGISTER_DEFINE(interpipesink, "interpipesink", GST_RANK_NONE, INTERPIPE_TYPE_SINK)

// The listeners, each with a reference, for calls that must not hold the listener lock.
static Listeners TakeListeners(InterpipeSink* self)
{
    std::lock_guard<std::mutex> lock(self->state->mutex);
    Listeners listeners;
    for (InterpipeSrc* src : self->state->sources)
        listeners.emplace_back(static_cast<InterpipeSrc*>(gst_object_ref(src)));
    return listeners;
}

// What every listener can take; null when none tells.
static GstCapsPtr ListenersCaps(const Listeners& listeners)
{
    GstCapsPtr common;
    for (const GstPtr<InterpipeSrc>& src : listeners) {
        gboolean negotiated = FALSE;
        GstCapsPtr caps(interpipe_src_listener_caps(src.get(), &negotiated));
        if (!caps)
            continue;
        common.reset(common ? gst_caps_intersect(common.get(), caps.get()) : caps.release());
    }
    return common;
}

gboolean interpipe_sink_add_listener(InterpipeSink* self, InterpipeSrc* src)
{
    {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        const auto& sources = self->state->sources;
        if (std::find(sources.begin(), sources.end(), src) != sources.end())
            return TRUE;
    }
    gboolean negotiated = FALSE;
    GstCapsPtr srcCaps(interpipe_src_listener_caps(src, &negotiated));
    // The caps last set on the sink; before that, those of the "caps" property.
    GstCapsPtr sinkCaps(gst_app_sink_get_caps(GST_APP_SINK(self)));
    const bool others = !TakeListeners(self).empty();
    if (negotiated && srcCaps && sinkCaps && !gst_caps_is_equal(srcCaps.get(), sinkCaps.get())) {
        if (!others) {
            // The only listener: the producer renegotiates for it, and until then it has the sink's caps
            // (quietly kept out where it keeps its own).
            if (!gst_pad_push_event(GST_BASE_SINK_PAD(self), gst_event_new_reconfigure())) {
                GST_ERROR_OBJECT(self, "%s: the producer cannot be reconfigured", GST_OBJECT_NAME(src));
                return FALSE;
            }
            GstCapsPtr current(gst_pad_get_current_caps(GST_BASE_SINK_PAD(self)));
            if (current)
                interpipe_src_take_caps(src, current.get());
        } else if (!gst_caps_can_intersect(srcCaps.get(), sinkCaps.get())) {
            GST_ERROR_OBJECT(self,
                "%s: caps %" GST_PTR_FORMAT " do not intersect the sink's %" GST_PTR_FORMAT,
                GST_OBJECT_NAME(src), srcCaps.get(), sinkCaps.get());
            return FALSE;
        } else if (!interpipe_src_take_caps(src, sinkCaps.get())) {
            GST_ERROR_OBJECT(self, "%s refuses the sink's caps", GST_OBJECT_NAME(src));
            return FALSE;
        }
    } else if (!negotiated) {
        GstCapsPtr current(gst_pad_get_current_caps(GST_BASE_SINK_PAD(self)));
        if (current)
            interpipe_src_take_caps(src, current.get());
    }
    std::lock_guard<std::mutex> lock(self->state->mutex);
    self->state->sources.push_back(src);
    GST_DEBUG_OBJECT(self, "%s listens, %zu listener(s)", GST_OBJECT_NAME(src), self->state->sources.size());
    return TRUE;
}

void interpipe_sink_remove_listener(InterpipeSink* self, InterpipeSrc* src)
{
    std::lock_guard<std::mutex> lock(self->state->mutex);
    auto& sources = self->state->sources;
    sources.erase(std::remove(sources.begin(), sources.end(), src), sources.end());
    GST_DEBUG_OBJECT(self, "%s left, %zu listener(s)", GST_OBJECT_NAME(src), sources.size());
}

gboolean interpipe_sink_receive_event(InterpipeSink* self, GstEvent* event)
{
    VideoDaemon::GstEventPtr owned(event);
    if (TakeListeners(self).size() != 1) {
        GST_DEBUG_OBJECT(self, "%s not passed upstream: more than one listener", GST_EVENT_TYPE_NAME(event));
        return FALSE;
    }
    return gst_pad_push_event(GST_BASE_SINK_PAD(self), owned.release());
}

static void Deliver(InterpipeSink* self, GstBuffer* buffer)
{
    const GstClockTime baseTime = gst_element_get_base_time(GST_ELEMENT(self));
    std::lock_guard<std::mutex> lock(self->state->mutex);
    for (InterpipeSrc* src : self->state->sources)
        interpipe_src_push_buffer(src, buffer, baseTime);
}

static GstFlowReturn OnNewPreroll(GstAppSink* appsink, gpointer)
{
    InterpipeSink* self = INTERPIPE_SINK(appsink);
    GST_OBJECT_LOCK(self);
    const gboolean forward = self->forwardPreroll;
    GST_OBJECT_UNLOCK(self);
    if (!forward)
        return GST_FLOW_OK;
    GstSamplePtr sample(gst_app_sink_pull_preroll(appsink));
    GstBuffer* buffer = sample ? gst_sample_get_buffer(sample.get()) : nullptr;
    if (!buffer)
        return GST_FLOW_OK;
    Deliver(self, buffer);
    self->state->prerolled.reset(gst_buffer_ref(buffer));
    return GST_FLOW_OK;
}

static GstFlowReturn OnNewSample(GstAppSink* appsink, gpointer)
{
    InterpipeSink* self = INTERPIPE_SINK(appsink);
    GstSamplePtr sample(gst_app_sink_pull_sample(appsink));
    GstBuffer* buffer = sample ? gst_sample_get_buffer(sample.get()) : nullptr;
    if (!buffer)
        return GST_FLOW_OK;
    const bool handedOn = self->state->prerolled.get() == buffer;
    self->state->prerolled.reset();
    if (!handedOn)
        Deliver(self, buffer);
    return GST_FLOW_OK;
}

static void OnEos(GstAppSink* appsink, gpointer)
{
    InterpipeSink* self = INTERPIPE_SINK(appsink);
    GST_OBJECT_LOCK(self);
    const gboolean forward = self->forwardEos;
    GST_OBJECT_UNLOCK(self);
    if (!forward)
        return;
    GST_DEBUG_OBJECT(self, "forwarding end-of-stream");
    std::lock_guard<std::mutex> lock(self->state->mutex);
    for (InterpipeSrc* src : self->state->sources)
        interpipe_src_end_of_stream(src);
}

static gboolean interpipe_sink_event(GstBaseSink* base, GstEvent* event)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    GST_OBJECT_LOCK(self);
    const gboolean forward = self->forwardEvents;
    GST_OBJECT_UNLOCK(self);
    const GstEventType type = GST_EVENT_TYPE(event);
    if (type == GST_EVENT_FLUSH_STOP)
        self->state->prerolled.reset();
    if (forward && type != GST_EVENT_EOS && type != GST_EVENT_CAPS) {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        for (InterpipeSrc* src : self->state->sources)
            interpipe_src_push_event(src, event);
    }
    return GST_BASE_SINK_CLASS(interpipe_sink_parent_class)->event(base, event);
}

static void DetachAll(InterpipeSink* self, const Listeners& listeners)
{
    for (const GstPtr<InterpipeSrc>& src : listeners)
        InterpipeRegistry::Instance().Leave(src.get());
    GST_WARNING_OBJECT(self, "no caps all listeners can take: %zu listener(s) detached", listeners.size());
}

static GstCaps* interpipe_sink_get_caps(GstBaseSink* base, GstCaps* filter)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    const Listeners listeners = TakeListeners(self);
    if (listeners.empty())
        return filter ? gst_caps_ref(filter) : nullptr;
    GstCapsPtr common = ListenersCaps(listeners);
    if (common && filter)
        common.reset(gst_caps_intersect_full(filter, common.get(), GST_CAPS_INTERSECT_FIRST));
    if (common && gst_caps_is_empty(common.get())) {
        DetachAll(self, listeners);
        return nullptr;
    }
    if (!common)
        return filter ? gst_caps_ref(filter) : nullptr;
    GST_LOG_OBJECT(self, "listeners take %" GST_PTR_FORMAT, common.get());
    return common.release();
}

static gboolean interpipe_sink_set_caps(GstBaseSink* base, GstCaps* caps)
{
    InterpipeSink* self = INTERPIPE_SINK(base);
    GstBaseSinkClass* parent = GST_BASE_SINK_CLASS(interpipe_sink_parent_class);
    if (parent->set_caps && !parent->set_caps(base, caps))
        return FALSE;
    GST_DEBUG_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
    gst_app_sink_set_caps(GST_APP_SINK(self), caps);
    const Listeners listeners = TakeListeners(self);
    if (listeners.empty())
        return TRUE;
    GstCapsPtr common = ListenersCaps(listeners);
    if (common && !gst_caps_can_intersect(common.get(), caps)) {
        GST_WARNING_OBJECT(self, "caps %" GST_PTR_FORMAT " are not for the listeners", caps);
        return FALSE;
    }
    std::lock_guard<std::mutex> lock(self->state->mutex);
    for (InterpipeSrc* src : self->state->sources)
        interpipe_src_take_caps(src, caps);
    return TRUE;
}

static gboolean interpipe_sink_stop(GstBaseSink* base)
{
    INTERPIPE_SINK(base)->state->prerolled.reset();
    return GST_BASE_SINK_CLASS(interpipe_sink_parent_class)->stop(base);
}

static void Unregister(InterpipeSink* self)
{
    // Also withdraws a sink still waiting for its name.
    InterpipeRegistry::Instance().RemoveNode(self);
    self->state->node.clear();
}

void interpipe_sink_published(InterpipeSink* sink, const gchar* name)
{
    sink->state->node = name;
}

// Takes the sink's current name as its node name.
static void Register(InterpipeSink* self)
{
    g_autofree gchar* name = gst_object_get_name(GST_OBJECT(self));
    if (!name || self->state->node == name)
        return;
    Unregister(self);
    if (!InterpipeRegistry::Instance().AddNode(name, self))
        GST_WARNING_OBJECT(self,
            "an interpipesink named \"%s\" already exists: this one is published when that one goes", name);
}

static void interpipe_sink_notify(GObject* object, GParamSpec* pspec)
{
    if (g_strcmp0(pspec->name, "name") == 0)
        Register(INTERPIPE_SINK(object));
    if (G_OBJECT_CLASS(interpipe_sink_parent_class)->notify)
        G_OBJECT_CLASS(interpipe_sink_parent_class)->notify(object, pspec);
}

static void interpipe_sink_constructed(GObject* object)
{
    G_OBJECT_CLASS(interpipe_sink_parent_class)->constructed(object);
    Register(INTERPIPE_SINK(object));
}

static void interpipe_sink_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    InterpipeSink* self = INTERPIPE_SINK(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_FORWARD_EOS:
        self->forwardEos = g_value_get_boolean(value);
        break;
    case PROP_FORWARD_EVENTS:
        self->forwardEvents = g_value_get_boolean(value);
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
    switch (id) {
    case PROP_NUM_LISTENERS: {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        g_value_set_uint(value, static_cast<guint>(self->state->sources.size()));
        break;
    }
    case PROP_FORWARD_PREROLL:
        GST_OBJECT_LOCK(self);
        g_value_set_boolean(value, self->forwardPreroll);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

// The name is withdrawn when the sink is destroyed (here rather than in
// finalize: the registry may still take a reference until then).
static void interpipe_sink_dispose(GObject* object)
{
    Unregister(INTERPIPE_SINK(object));
    G_OBJECT_CLASS(interpipe_sink_parent_class)->dispose(object);
}

static void interpipe_sink_finalize(GObject* object)
{
    delete INTERPIPE_SINK(object)->state;
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
    objectClass->constructed = interpipe_sink_constructed;
    objectClass->notify = interpipe_sink_notify;
    objectClass->dispose = interpipe_sink_dispose;
    objectClass->finalize = interpipe_sink_finalize;

    const auto writeOnly = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(objectClass, PROP_FORWARD_EOS,
        g_param_spec_boolean(
            "forward-eos", "Forward EOS", "Hand end-of-stream on to the listeners", FALSE, writeOnly));
    g_object_class_install_property(objectClass, PROP_FORWARD_EVENTS,
        g_param_spec_boolean("forward-events", "Forward events",
            "Hand every downstream event but end-of-stream and caps on to the listeners", TRUE, writeOnly));
    g_object_class_install_property(objectClass, PROP_FORWARD_PREROLL,
        g_param_spec_boolean("forward-preroll", "Forward preroll",
            "Hand the preroll buffer on to the listeners while paused", TRUE,
            static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(objectClass, PROP_NUM_LISTENERS,
        g_param_spec_uint("num-listeners", "Listeners", "How many sources are attached", 0, G_MAXUINT, 0,
            static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_set_static_metadata(elementClass, "Inter-pipeline sink", "Sink/Generic",
        "Publishes its stream under its name to the interpipesrc elements of any pipeline in the process",
        "videod");

    sinkClass->event = interpipe_sink_event;
    sinkClass->set_caps = interpipe_sink_set_caps;
    sinkClass->get_caps = interpipe_sink_get_caps;
    sinkClass->stop = interpipe_sink_stop;
}

static void interpipe_sink_init(InterpipeSink* self)
{
    self->forwardEvents = TRUE;
    self->forwardPreroll = TRUE;
    self->state = new SinkState();

    GstAppSinkCallbacks callbacks = {};
    callbacks.eos = OnEos;
    callbacks.new_preroll = OnNewPreroll;
    callbacks.new_sample = OnNewSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(self), &callbacks, nullptr, nullptr);
    gst_app_sink_set_drop(GST_APP_SINK(self), TRUE);
    gst_app_sink_set_max_buffers(GST_APP_SINK(self), 3);
    gst_base_sink_set_sync(GST_BASE_SINK(self), FALSE);
}
