// The "interpipesrc" element: an appsrc that plays, in its own pipeline, the stream of the interpipesink
// named by "listen-to".
//
// The element is an appsrc fed by the sink it listens to: buffers arrive by
// reference on the producer's streaming thread and leave on this element's
// own thread, so "max-buffers", "leaky-type", "format", "is-live" and
// "do-timestamp" (which fills in missing timestamps only) are appsrc's and
// keep appsrc's defaults. A source listens while it is started: "listen-to"
// set before that is only kept; set while started it moves the source to
// the new node, or, when that node's caps refuse it, leaves it where it was.
// Setting the name it already has does nothing.
//
// "stream-sync": 0 restart-ts clears the producer's timestamps and turns
// "do-timestamp" on at start, so buffers carry this pipeline's running time
// as they leave; 1 passthrough-ts (the default) leaves them unchanged;
// 2 compensate-ts moves them by the difference of the two pipelines' base
// times, drops a buffer whose presentation time would go below zero or that
// arrives before this pipeline plays, and clears a decoding time that would
// go below zero. With "allow-renegotiation" false, the first caps stay:
// later caps of the producer are refused quietly while its buffers keep coming.
// Upstream events go on to the producer when this is its only listener.
// Forwarded serialized events leave in order with the buffers; flushes flush
// this pipeline.
//
//   gst-launch-1.0 videotestsrc ! interpipesink name=cam  interpipesrc listen-to=cam ! autovideosink
#include "interpipe_src.h"

#include "interpipe_registry.h"
#include "interpipe_sink.h"

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/gst_ptr.h"

GST_DEBUG_CATEGORY_STATIC(interpipe_src_debug);
#define GST_CAT_DEFAULT interpipe_src_debug

using VideoDaemon::GstCapsPtr;
using VideoDaemon::GstEventPtr;

namespace
{

enum StreamSync { kRestartTs = 0, kPassthroughTs = 1, kCompensateTs = 2 };

// A serialized event of the producer, held until the buffers received before it have left.
struct PendingEvent {
    GstEventPtr event;
    guint64 after;
};

struct SrcState {
    std::mutex mutex; // guards what follows
    std::optional<std::string> listenTo;
    bool listening = false; // started with a name: attached to it or waiting for it
    bool switched = false; // has listened once; "block-switch" keeps it there
    guint64 received = 0; // buffers handed to the appsrc queue
    std::deque<PendingEvent> events;
};

} // namespace

struct _InterpipeSrc {
    GstAppSrc parent;
    // Write-only properties, read by the producers' threads.
    gint streamSync;
    gint allowRenegotiation;
    gint acceptEvents;
    gint acceptEos;
    gint blockSwitch;
    SrcState* state;
};

enum {
    PROP_0,
    PROP_LISTEN_TO,
    PROP_BLOCK_SWITCH,
    PROP_ALLOW_RENEGOTIATION,
    PROP_STREAM_SYNC,
    PROP_ACCEPT_EVENTS,
    PROP_ACCEPT_EOS_EVENT,
};

static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS_ANY);

G_DEFINE_TYPE(InterpipeSrc, interpipe_src, GST_TYPE_APP_SRC)
GST_ELEMENT_REGISTER_DEFINE(interpipesrc, "interpipesrc", GST_RANK_NONE, INTERPIPE_TYPE_SRC)

static GType StreamSyncType()
{
    static GType type = 0;
    static const GEnumValue values[] = {
        { kRestartTs, "Restamp with this pipeline's running time", "restart-ts" },
        { kPassthroughTs, "Pass the producer's timestamps through", "passthrough-ts" },
        { kCompensateTs, "Move timestamps by the difference of the base times", "compensate-ts" },
        { 0, nullptr, nullptr },
    };
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("GstInterPipeSrcStreamSync", values));
    return type;
}

GstCaps* interpipe_src_listener_caps(InterpipeSrc* self, gboolean* negotiated)
{
    GstCapsPtr current(gst_app_src_get_caps(GST_APP_SRC(self)));
    *negotiated = current != nullptr;
    if (current && !g_atomic_int_get(&self->allowRenegotiation))
        return current.release();
    return gst_pad_peer_query_caps(GST_BASE_SRC_PAD(self), nullptr);
}

gboolean interpipe_src_take_caps(InterpipeSrc* self, GstCaps* caps)
{
    GstCapsPtr current(gst_app_src_get_caps(GST_APP_SRC(self)));
    if (current && !g_atomic_int_get(&self->allowRenegotiation)) {
        GST_DEBUG_OBJECT(self, "renegotiation not allowed: keeping %" GST_PTR_FORMAT, current.get());
        return FALSE;
    }
    GST_DEBUG_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
    gst_app_src_set_caps(GST_APP_SRC(self), caps);
    return TRUE;
}

// Moves a valid time by `offset` (added or taken away); false when it would go below zero.
static bool MoveTime(GstClockTime& time, GstClockTime offset, bool later)
{
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return true;
    if (later) {
        time += offset;
        return true;
    }
    if (time < offset)
        return false;
    time -= offset;
    return true;
}

// The buffer as this source hands it on, or null when it is dropped.
static GstBuffer* Stamped(InterpipeSrc* self, GstBuffer* buffer, GstClockTime nodeBaseTime)
{
    switch (g_atomic_int_get(&self->streamSync)) {
    case kRestartTs: {
        GstBuffer* out = gst_buffer_copy(buffer);
        GST_BUFFER_PTS(out) = GST_CLOCK_TIME_NONE;
        GST_BUFFER_DTS(out) = GST_CLOCK_TIME_NONE;
        return out;
    }
    case kCompensateTs: {
        // This pipeline's base time means something only while it plays.
        if (GST_STATE(self) != GST_STATE_PLAYING) {
            GST_DEBUG_OBJECT(self, "not playing: the producer's buffer cannot be placed yet");
            return nullptr;
        }
        const GstClockTime baseTime = gst_element_get_base_time(GST_ELEMENT(self));
        const bool later = nodeBaseTime >= baseTime;
        const GstClockTime offset = later ? nodeBaseTime - baseTime : baseTime - nodeBaseTime;
        GstClockTime pts = GST_BUFFER_PTS(buffer), dts = GST_BUFFER_DTS(buffer);
        // The presentation time alone decides, as on the board. The decoding
        // time may not even be the producer's: the buffer is shared, and
        // another listener's source that fills in timestamps writes a missing
        // one in place.
        if (!MoveTime(pts, offset, later)) {
            GST_DEBUG_OBJECT(self, "buffer from before this pipeline started dropped");
            return nullptr;
        }
        if (!MoveTime(dts, offset, later)) {
            GST_DEBUG_OBJECT(self, "decoding time before this pipeline started cleared");
            dts = GST_CLOCK_TIME_NONE;
        }
        GstBuffer* out = gst_buffer_copy(buffer);
        GST_BUFFER_PTS(out) = pts;
        GST_BUFFER_DTS(out) = dts;
        return out;
    }
    default:
        return gst_buffer_ref(buffer);
    }
}

void interpipe_src_push_buffer(InterpipeSrc* self, GstBuffer* buffer, GstClockTime nodeBaseTime)
{
    if (GST_STATE(self) < GST_STATE_PAUSED)
        return;
    GstBuffer* out = Stamped(self, buffer, nodeBaseTime);
    if (!out)
        return;
    // Counted with the push, so that events stay between the buffers they came between.
    std::lock_guard<std::mutex> lock(self->state->mutex);
    if (gst_app_src_push_buffer(GST_APP_SRC(self), out) == GST_FLOW_OK)
        ++self->state->received;
}

void interpipe_src_push_event(InterpipeSrc* self, GstEvent* event)
{
    if (!g_atomic_int_get(&self->acceptEvents))
        return;
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_FLUSH_STOP: {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        self->state->events.clear();
    }
        [[fallthrough]];
    case GST_EVENT_FLUSH_START:
        // A flush of the producer flushes this pipeline and restarts its streaming.
        gst_element_send_event(GST_ELEMENT(self), gst_event_ref(event));
        return;
    default:
        break;
    }
    if (!GST_EVENT_IS_SERIALIZED(event)) {
        gst_pad_push_event(GST_BASE_SRC_PAD(self), gst_event_ref(event));
        return;
    }
    std::lock_guard<std::mutex> lock(self->state->mutex);
    self->state->events.push_back({ GstEventPtr(gst_event_ref(event)), self->state->received });
}

void interpipe_src_end_of_stream(InterpipeSrc* self)
{
    if (!g_atomic_int_get(&self->acceptEos))
        return;
    GST_DEBUG_OBJECT(self, "end of stream from the producer");
    gst_app_src_end_of_stream(GST_APP_SRC(self));
}

static GstFlowReturn interpipe_src_create(GstBaseSrc* base, guint64 offset, guint size, GstBuffer** buffer)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    const GstFlowReturn result
        = GST_BASE_SRC_CLASS(interpipe_src_parent_class)->create(base, offset, size, buffer);
    if (result != GST_FLOW_OK)
        return result;
    // The events that came before this buffer go out ahead of it.
    std::vector<GstEventPtr> due;
    {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        const guint64 taken
            = self->state->received - gst_app_src_get_current_level_buffers(GST_APP_SRC(self));
        auto& events = self->state->events;
        while (!events.empty() && events.front().after < taken) {
            due.push_back(std::move(events.front().event));
            events.pop_front();
        }
    }
    for (GstEventPtr& event : due)
        gst_pad_push_event(GST_BASE_SRC_PAD(self), event.release());
    return result;
}

static gboolean interpipe_src_event(GstBaseSrc* base, GstEvent* event)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    if (GST_EVENT_IS_UPSTREAM(event)) {
        VideoDaemon::GstPtr<InterpipeSink> node = InterpipeRegistry::Instance().NodeOf(self);
        if (node)
            interpipe_sink_receive_event(node.get(), gst_event_ref(event));
    }
    return GST_BASE_SRC_CLASS(interpipe_src_parent_class)->event(base, event);
}

// Listens to the node called name; false when "block-switch" or the node's caps refuse.
static bool ListenNode(InterpipeSrc* self, const std::string& name)
{
    {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        if (self->state->switched && g_atomic_int_get(&self->blockSwitch)) {
            GST_ERROR_OBJECT(self, "cannot listen to %s: switching is blocked", name.c_str());
            return false;
        }
        self->state->switched = true;
    }
    return InterpipeRegistry::Instance().Listen(self, name);
}

static gboolean interpipe_src_start(GstBaseSrc* base)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    if (!GST_BASE_SRC_CLASS(interpipe_src_parent_class)->start(base))
        return FALSE;
    std::optional<std::string> name;
    {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        self->state->events.clear();
        self->state->received = 0;
        name = self->state->listenTo;
    }
    if (name) {
        if (!ListenNode(self, *name)) {
            GST_ERROR_OBJECT(self, "could not listen to %s", name->c_str());
            return FALSE;
        }
        std::lock_guard<std::mutex> lock(self->state->mutex);
        self->state->listening = true;
    }
    if (g_atomic_int_get(&self->streamSync) == kRestartTs)
        gst_base_src_set_do_timestamp(base, TRUE);
    return TRUE;
}

static gboolean interpipe_src_stop(GstBaseSrc* base)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    InterpipeRegistry::Instance().Leave(self);
    {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        self->state->listening = false;
        self->state->events.clear();
    }
    return GST_BASE_SRC_CLASS(interpipe_src_parent_class)->stop(base);
}

static void SetListenTo(InterpipeSrc* self, const gchar* name)
{
    bool listening = false;
    {
        std::lock_guard<std::mutex> lock(self->state->mutex);
        const auto& current = self->state->listenTo;
        if ((!name && !current) || (name && current && *current == name)) {
            GST_INFO_OBJECT(self, "already listening to %s", GST_STR_NULL(name));
            return;
        }
        listening = self->state->listening;
    }
    if (!name) {
        if (listening)
            InterpipeRegistry::Instance().Leave(self);
        std::lock_guard<std::mutex> lock(self->state->mutex);
        self->state->listenTo.reset();
        self->state->listening = false;
        return;
    }
    if (GST_BASE_SRC_IS_STARTED(self)) {
        const bool listened = ListenNode(self, name);
        if (!listened)
            GST_ERROR_OBJECT(self, "could not listen to %s", name);
        std::lock_guard<std::mutex> lock(self->state->mutex);
        if (listened)
            self->state->listenTo = name;
        self->state->listening = true;
        return;
    }
    std::lock_guard<std::mutex> lock(self->state->mutex);
    self->state->listenTo = name;
}

static void interpipe_src_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    InterpipeSrc* self = INTERPIPE_SRC(object);
    switch (id) {
    case PROP_LISTEN_TO:
        SetListenTo(self, g_value_get_string(value));
        break;
    case PROP_BLOCK_SWITCH:
        g_atomic_int_set(&self->blockSwitch, g_value_get_boolean(value));
        break;
    case PROP_ALLOW_RENEGOTIATION:
        g_atomic_int_set(&self->allowRenegotiation, g_value_get_boolean(value));
        break;
    case PROP_STREAM_SYNC:
        g_atomic_int_set(&self->streamSync, g_value_get_enum(value));
        break;
    case PROP_ACCEPT_EVENTS:
        g_atomic_int_set(&self->acceptEvents, g_value_get_boolean(value));
        break;
    case PROP_ACCEPT_EOS_EVENT:
        g_atomic_int_set(&self->acceptEos, g_value_get_boolean(value));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void interpipe_src_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    InterpipeSrc* self = INTERPIPE_SRC(object);
    if (id != PROP_LISTEN_TO) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    std::lock_guard<std::mutex> lock(self->state->mutex);
    g_value_set_string(value, self->state->listenTo ? self->state->listenTo->c_str() : nullptr);
}

static void interpipe_src_dispose(GObject* object)
{
    InterpipeRegistry::Instance().Leave(INTERPIPE_SRC(object));
    G_OBJECT_CLASS(interpipe_src_parent_class)->dispose(object);
}

static void interpipe_src_finalize(GObject* object)
{
    delete INTERPIPE_SRC(object)->state;
    G_OBJECT_CLASS(interpipe_src_parent_class)->finalize(object);
}

static void interpipe_src_class_init(InterpipeSrcClass* klass)
{
    GObjectClass* objectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseSrcClass* srcClass = GST_BASE_SRC_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(interpipe_src_debug, "interpipesrc", 0, "interpipe source stand-in");

    objectClass->set_property = interpipe_src_set_property;
    objectClass->get_property = interpipe_src_get_property;
    objectClass->dispose = interpipe_src_dispose;
    objectClass->finalize = interpipe_src_finalize;

    const auto writeOnly = static_cast<GParamFlags>(G_PARAM_WRITABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(objectClass, PROP_LISTEN_TO,
        g_param_spec_string("listen-to", "Listen to",
            "Name of the interpipesink to take the stream from (none: detached); may change in any state",
            nullptr, static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    g_object_class_install_property(objectClass, PROP_BLOCK_SWITCH,
        g_param_spec_boolean(
            "block-switch", "Block switch", "Stay with the first sink listened to", FALSE, writeOnly));
    g_object_class_install_property(objectClass, PROP_ALLOW_RENEGOTIATION,
        g_param_spec_boolean("allow-renegotiation", "Allow renegotiation",
            "Take new caps from the producer (false: keep the first caps)", TRUE, writeOnly));
    g_object_class_install_property(objectClass, PROP_STREAM_SYNC,
        g_param_spec_enum("stream-sync", "Stream sync", "How the producer's timestamps are handed on",
            StreamSyncType(), kPassthroughTs, writeOnly));
    g_object_class_install_property(objectClass, PROP_ACCEPT_EVENTS,
        g_param_spec_boolean(
            "accept-events", "Accept events", "Push the events the producer forwards", TRUE, writeOnly));
    g_object_class_install_property(objectClass, PROP_ACCEPT_EOS_EVENT,
        g_param_spec_boolean("accept-eos-event", "Accept EOS",
            "End the stream when the producer forwards end-of-stream", TRUE, writeOnly));

    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Inter-pipeline source", "Source/Generic",
        "Plays the stream of the interpipesink named by listen-to, from any pipeline in the process",
        "videod");

    srcClass->create = interpipe_src_create;
    srcClass->event = interpipe_src_event;
    srcClass->start = interpipe_src_start;
    srcClass->stop = interpipe_src_stop;
}

static void interpipe_src_init(InterpipeSrc* self)
{
    self->streamSync = kPassthroughTs;
    self->allowRenegotiation = TRUE;
    self->acceptEvents = TRUE;
    self->acceptEos = TRUE;
    self->state = new SrcState();
    gst_app_src_set_emit_signals(GST_APP_SRC(self), FALSE);
}
