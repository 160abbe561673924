// The "interpipesrc" element: plays, in its own pipeline, the stream of the interpipesink named by
// "listen-to".
//
// The element is an appsrc whose queue is fed by the sink it listens to:
// buffers arrive by reference on the producer's streaming thread and leave
// on this element's own thread, so "max-buffers" and "leaky-type" bound and
// drop at the hand-over. "listen-to" may change in any state; the source
// then takes the new producer's caps (or, with allow-renegotiation=false,
// keeps its negotiated caps when the new ones are compatible and otherwise
// posts a not-negotiated error and drops the producer's data).
//
// "format" starts as time rather than appsrc's bytes.
//
// "stream-sync" decides the timestamps (unless "do-timestamp" restamps
// them on the way out): 0 passes them through, 1 moves them
// from the producer's running time to this pipeline's (both pipelines'
// base times, one clock), so they stay monotonic across pipelines started
// at different times and across producer switches, 2 restarts them at zero
// with the first buffer of each producer. Only 1 and 2 need a writable
// buffer; they take a metadata copy that shares the producer's memory.
#include "interpipe_src.h"

#include "interpipe_registry.h"

#include <mutex>
#include <string>

GST_DEBUG_CATEGORY_STATIC(interpipe_src_debug);
#define GST_CAT_DEFAULT interpipe_src_debug

namespace
{

enum StreamSync { kPassthrough = 0, kCompensate = 1, kRestart = 2 };

// Marks a queued buffer whose timestamps are still absolute clock times;
// they are moved to this pipeline's running time when the buffer leaves.
constexpr guint kAbsoluteTimesFlag = GST_BUFFER_FLAG_LAST << 4;

// What producer threads and this element's threads share, under one lock.
struct Link {
    std::mutex mutex;
    std::string listenTo;
    GstCaps* producerCaps = nullptr; // the latest caps of the producer
    GstCaps* negotiated = nullptr; // the caps this source last handed downstream
    bool incompatible = false; // the producer's caps were refused
    bool restartPending = true;
    GstClockTime restartOffset = 0;
    GstClockTime lastPts = GST_CLOCK_TIME_NONE;
};


} // namespace

struct _InterpipeSrc {
    GstAppSrc parent;
    // Properties, read by the producers' threads without a lock.
    gint streamSync;
    gint allowRenegotiation;
    gint acceptEvents;
    gint acceptEos;
    gint started;
    Link* link;
};

enum {
    PROP_0,
    PROP_LISTEN_TO,
    PROP_STREAM_SYNC,
    PROP_ALLOW_RENEGOTIATION,
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
        { kPassthrough, "Pass the producer's timestamps through", "passthrough-ts" },
        { kCompensate, "Compensate for the pipelines' different base times", "compensate-ts" },
        { kRestart, "Restart timestamps at zero", "restart-ts" },
        { 0, nullptr, nullptr },
    };
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("InterpipeSrcStreamSync", values));
    return type;
}

// Decides, under the link lock, what the producer's caps do to this source. New caps are handed on
// here, under the lock, so that neither a buffer of the producer nor an older caps change can overtake
// them. Returns false when the caps are refused.
static bool TakeCapsLocked(InterpipeSrc* self, GstCaps* caps)
{
    Link& link = *self->link;
    if (!link.negotiated || g_atomic_int_get(&self->allowRenegotiation)) {
        gst_caps_replace(&link.negotiated, caps);
        link.incompatible = false;
        GST_DEBUG_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
        gst_app_src_set_caps(GST_APP_SRC(self), caps);
        return true;
    }
    link.incompatible = !gst_caps_can_intersect(link.negotiated, caps);
    return !link.incompatible;
}

static void RefuseCaps(InterpipeSrc* self, GstCaps* caps, const gchar* sinkName)
{
    GST_ELEMENT_ERROR(self, CORE, NEGOTIATION,
        ("not-negotiated: the caps of interpipesink \"%s\" differ from the negotiated "
         "caps and renegotiation is not allowed",
            sinkName),
        ("new caps %" GST_PTR_FORMAT, caps));
}

void interpipe_src_producer_caps(InterpipeSrc* self, GstCaps* caps, const gchar* sinkName)
{
    bool accepted = true;
    {
        std::lock_guard<std::mutex> lock(self->link->mutex);
        gst_caps_replace(&self->link->producerCaps, caps);
        if (g_atomic_int_get(&self->started))
            accepted = TakeCapsLocked(self, caps);
    }
    if (!accepted)
        RefuseCaps(self, caps, sinkName);
}

void interpipe_src_producer_changed(InterpipeSrc* self)
{
    std::lock_guard<std::mutex> lock(self->link->mutex);
    self->link->restartPending = true;
    self->link->incompatible = false;
    gst_caps_replace(&self->link->producerCaps, nullptr);
}

static GstClockTime ToAbsolute(GstClockTime time, const InterpipeOrigin* origin)
{
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return time;
    GstClockTime running = time;
    if (origin->segment && origin->segment->format == GST_FORMAT_TIME)
        running = gst_segment_to_running_time(origin->segment, GST_FORMAT_TIME, time);
    return GST_CLOCK_TIME_IS_VALID(running) ? running + origin->baseTime : running;
}

static GstClockTime Shift(GstClockTime time, GstClockTime offset)
{
    if (!GST_CLOCK_TIME_IS_VALID(time))
        return time;
    return time > offset ? time - offset : 0;
}

void interpipe_src_receive(InterpipeSrc* self, GstBuffer* buffer, const InterpipeOrigin* origin)
{
    if (!g_atomic_int_get(&self->started))
        return;
    GstAppSrc* appsrc = GST_APP_SRC(self);
    if (origin->maxBuffers && gst_app_src_get_max_buffers(appsrc) == 0
        && gst_app_src_get_current_level_buffers(appsrc) >= origin->maxBuffers)
        return;

    // With "do-timestamp" the frame is stamped with this pipeline's running
    // time as it leaves, the way a capture source stamps what it captures,
    // so a producer whose timestamps run ahead of the clock cannot hold up
    // a listener that syncs.
    const bool restamp = gst_base_src_get_do_timestamp(GST_BASE_SRC(self));
    GstBuffer* out = nullptr;
    {
        std::lock_guard<std::mutex> lock(self->link->mutex);
        Link& link = *self->link;
        if (link.incompatible)
            return;
        switch (g_atomic_int_get(&self->streamSync)) {
        case kCompensate:
            out = gst_buffer_copy(buffer);
            GST_BUFFER_PTS(out) = ToAbsolute(GST_BUFFER_PTS(buffer), origin);
            GST_BUFFER_DTS(out) = ToAbsolute(GST_BUFFER_DTS(buffer), origin);
            GST_BUFFER_FLAG_SET(out, kAbsoluteTimesFlag);
            break;
        case kRestart: {
            const GstClockTime start = GST_BUFFER_DTS_OR_PTS(buffer);
            if (link.restartPending && GST_CLOCK_TIME_IS_VALID(start)) {
                link.restartOffset = start;
                link.restartPending = false;
            }
            out = gst_buffer_copy(buffer);
            GST_BUFFER_PTS(out) = Shift(GST_BUFFER_PTS(buffer), link.restartOffset);
            GST_BUFFER_DTS(out) = Shift(GST_BUFFER_DTS(buffer), link.restartOffset);
            break;
        }
        default:
            if (restamp) {
                out = gst_buffer_copy(buffer);
                GST_BUFFER_PTS(out) = GST_CLOCK_TIME_NONE;
                GST_BUFFER_DTS(out) = GST_CLOCK_TIME_NONE;
            } else {
                out = gst_buffer_ref(buffer);
            }
            break;
        }
    }
    gst_app_src_push_buffer(appsrc, out);
}

void interpipe_src_forward_event(InterpipeSrc* self, GstEvent* event)
{
    if (!g_atomic_int_get(&self->started) || !g_atomic_int_get(&self->acceptEvents))
        return;
    // Serialized events queue up in order with the buffers; the others go out at once.
    if (GST_EVENT_IS_SERIALIZED(event))
        gst_element_send_event(GST_ELEMENT(self), gst_event_ref(event));
    else
        gst_pad_push_event(GST_BASE_SRC_PAD(self), gst_event_ref(event));
}

void interpipe_src_end_of_stream(InterpipeSrc* self)
{
    if (!g_atomic_int_get(&self->started) || !g_atomic_int_get(&self->acceptEos))
        return;
    GST_DEBUG_OBJECT(self, "end of stream from the producer");
    gst_app_src_end_of_stream(GST_APP_SRC(self));
}

// This pipeline's base time; before it plays, the running time is taken to be zero now.
static GstClockTime ListenerBaseTime(InterpipeSrc* self)
{
    GstElement* element = GST_ELEMENT(self);
    GST_OBJECT_LOCK(self);
    const bool playing = GST_STATE(element) == GST_STATE_PLAYING;
    const GstClockTime base = element->base_time;
    g_autoptr(GstClock) clock = element->clock ? GST_CLOCK(gst_object_ref(element->clock)) : nullptr;
    GST_OBJECT_UNLOCK(self);
    if (playing)
        return base;
    if (!clock)
        clock = gst_system_clock_obtain();
    return gst_clock_get_time(clock);
}

static void MoveToRunningTime(InterpipeSrc* self, GstBuffer* buffer)
{
    const GstClockTime base = ListenerBaseTime(self);
    GstClockTime pts = Shift(GST_BUFFER_PTS(buffer), base);
    GstClockTime dts = Shift(GST_BUFFER_DTS(buffer), base);
    std::lock_guard<std::mutex> lock(self->link->mutex);
    // A producer that ran ahead of the clock must not make the next one look late.
    GstClockTime& last = self->link->lastPts;
    if (GST_CLOCK_TIME_IS_VALID(pts)) {
        if (GST_CLOCK_TIME_IS_VALID(last) && pts < last) {
            if (GST_CLOCK_TIME_IS_VALID(dts))
                dts += last - pts;
            pts = last;
        }
        last = pts;
    }
    GST_BUFFER_PTS(buffer) = pts;
    GST_BUFFER_DTS(buffer) = dts;
}

static GstFlowReturn interpipe_src_create(GstBaseSrc* base, guint64 offset, guint size, GstBuffer** buffer)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    const GstFlowReturn result
        = GST_BASE_SRC_CLASS(interpipe_src_parent_class)->create(base, offset, size, buffer);
    if (result == GST_FLOW_OK && *buffer && GST_BUFFER_FLAG_IS_SET(*buffer, kAbsoluteTimesFlag)) {
        *buffer = gst_buffer_make_writable(*buffer);
        GST_BUFFER_FLAG_UNSET(*buffer, kAbsoluteTimesFlag);
        MoveToRunningTime(self, *buffer);
    }
    return result;
}

static gboolean interpipe_src_start(GstBaseSrc* base)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    if (!GST_BASE_SRC_CLASS(interpipe_src_parent_class)->start(base))
        return FALSE;
    // Started under the lock: caps that a producer announces from now on are taken at once, and
    // those it announced before are taken here.
    std::lock_guard<std::mutex> lock(self->link->mutex);
    Link& link = *self->link;
    link.restartPending = true;
    link.lastPts = GST_CLOCK_TIME_NONE;
    link.incompatible = false;
    gst_caps_replace(&link.negotiated, nullptr);
    if (link.producerCaps)
        TakeCapsLocked(self, link.producerCaps);
    g_atomic_int_set(&self->started, 1);
    return TRUE;
}

static gboolean interpipe_src_stop(GstBaseSrc* base)
{
    InterpipeSrc* self = INTERPIPE_SRC(base);
    g_atomic_int_set(&self->started, 0);
    return GST_BASE_SRC_CLASS(interpipe_src_parent_class)->stop(base);
}

static void interpipe_src_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    InterpipeSrc* self = INTERPIPE_SRC(object);
    switch (id) {
    case PROP_LISTEN_TO: {
        const gchar* name = g_value_get_string(value);
        const std::string wanted = name ? name : "";
        {
            std::lock_guard<std::mutex> lock(self->link->mutex);
            self->link->listenTo = wanted;
        }
        GST_DEBUG_OBJECT(self, "listen to \"%s\"", wanted.c_str());
        InterpipeRegistry::Instance().Listen(self, wanted);
        break;
    }
    case PROP_STREAM_SYNC:
        g_atomic_int_set(&self->streamSync, g_value_get_enum(value));
        break;
    case PROP_ALLOW_RENEGOTIATION:
        g_atomic_int_set(&self->allowRenegotiation, g_value_get_boolean(value));
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
    switch (id) {
    case PROP_LISTEN_TO: {
        std::lock_guard<std::mutex> lock(self->link->mutex);
        g_value_set_string(value, self->link->listenTo.empty() ? nullptr : self->link->listenTo.c_str());
        break;
    }
    case PROP_STREAM_SYNC:
        g_value_set_enum(value, g_atomic_int_get(&self->streamSync));
        break;
    case PROP_ALLOW_RENEGOTIATION:
        g_value_set_boolean(value, g_atomic_int_get(&self->allowRenegotiation));
        break;
    case PROP_ACCEPT_EVENTS:
        g_value_set_boolean(value, g_atomic_int_get(&self->acceptEvents));
        break;
    case PROP_ACCEPT_EOS_EVENT:
        g_value_set_boolean(value, g_atomic_int_get(&self->acceptEos));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void interpipe_src_dispose(GObject* object)
{
    InterpipeRegistry::Instance().Listen(INTERPIPE_SRC(object), "");
    G_OBJECT_CLASS(interpipe_src_parent_class)->dispose(object);
}

static void interpipe_src_finalize(GObject* object)
{
    InterpipeSrc* self = INTERPIPE_SRC(object);
    gst_caps_replace(&self->link->producerCaps, nullptr);
    gst_caps_replace(&self->link->negotiated, nullptr);
    delete self->link;
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

    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(objectClass, PROP_LISTEN_TO,
        g_param_spec_string("listen-to", "Listen to",
            "Name of the interpipesink to take the stream from (none: detached); may "
            "change in any state",
            nullptr, rw));
    g_object_class_install_property(objectClass, PROP_STREAM_SYNC,
        g_param_spec_enum("stream-sync", "Stream sync", "How the producer's timestamps are handled",
            StreamSyncType(), kPassthrough, rw));
    g_object_class_install_property(objectClass, PROP_ALLOW_RENEGOTIATION,
        g_param_spec_boolean("allow-renegotiation", "Allow renegotiation",
            "Renegotiate when a new producer has other caps (false: not-negotiated error)", TRUE, rw));
    g_object_class_install_property(objectClass, PROP_ACCEPT_EVENTS,
        g_param_spec_boolean(
            "accept-events", "Accept events", "Push the events the producer forwards", TRUE, rw));
    g_object_class_install_property(objectClass, PROP_ACCEPT_EOS_EVENT,
        g_param_spec_boolean("accept-eos-event", "Accept EOS",
            "End the stream when the producer forwards end-of-stream", TRUE, rw));

    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Inter-pipeline source", "Source/Generic",
        "Plays the stream of the interpipesink named by listen-to, from any pipeline in the process",
        "videod");

    srcClass->create = interpipe_src_create;
    srcClass->start = interpipe_src_start;
    srcClass->stop = interpipe_src_stop;
}

static void interpipe_src_init(InterpipeSrc* self)
{
    self->allowRenegotiation = TRUE;
    self->acceptEvents = TRUE;
    self->acceptEos = TRUE;
    self->link = new Link();
    // Everything that crosses an interpipe is timestamped, and encoders and
    // muxers drop segments in bytes, so the stream is in time unless told otherwise.
    g_object_set(self, "format", GST_FORMAT_TIME, nullptr);
}
