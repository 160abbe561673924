// rsvgoverlaytarnwell: stand-in for the unit's SVG overlay element.
//
// Draws the SVG document in "data" over every BGRA frame with librsvg and
// cairo and pushes the result on its "src_first" pad. The document is parsed
// when it is set and rasterised once per frame size, so each frame only
// blends a ready picture. "fit-to-frame" stretches the document to the whole
// frame; otherwise it is drawn at its own size from the top-left corner.
// With "enabled" false, frames pass unchanged.
//
//   gst-launch-1.0 videotestsrc ! video/x-raw,format=BGRA ! rsvgoverlaytarnwell name=o
//       data="<svg ...>" fit-to-frame=true o.src_first ! videoconvert ! autovideosink
#include "rsvg_overlay_tarnwell.h"

#include "common/glib_ptr.h"
#include "common/gst_ptr.h"
#include "common/gst_video_ptr.h"

#include <cairo.h>
#include <gst/video/video.h>
#include <librsvg/rsvg.h>

#include <cstring>
#include <memory>
#include <string>

GST_DEBUG_CATEGORY_STATIC(rsvg_overlay_tarnwell_debug);
#define GST_CAT_DEFAULT rsvg_overlay_tarnwell_debug

namespace
{

using VideoDaemon::GErrorPtr;
using VideoDaemon::GObjectPtr;
using VideoDaemon::GstBufferPtr;
using VideoDaemon::GstEventPtr;
using VideoDaemon::MappedVideoFrame;

struct SurfaceDestroy {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct CairoDestroy {
    void operator()(cairo_t* cr) const { cairo_destroy(cr); }
};
using HandlePtr = GObjectPtr<RsvgHandle>;
using SurfacePtr = std::unique_ptr<cairo_surface_t, SurfaceDestroy>;
using CairoPtr = std::unique_ptr<cairo_t, CairoDestroy>;

// C++ state of one element, created in _init and deleted in _finalize.
struct OverlayState {
    // Settings, under the object lock. A new generation invalidates the
    // rasterised picture.
    std::string data;
    HandlePtr handle;
    bool enabled = true;
    bool fit_to_frame = false;
    guint generation = 0;

    // Streaming-thread state.
    GstVideoInfo info {};
    bool have_info = false;
    SurfacePtr picture;
    guint picture_generation = 0;
};

} // namespace

struct _RsvgOverlayTarnwell {
    GstElement parent;
    GstPad* sinkpad;
    GstPad* srcpad;
    OverlayState* state;
};

enum {
    PROP_0,
    PROP_DATA,
    PROP_ENABLED,
    PROP_FIT_TO_FRAME,
};

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("BGRA")));
static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src_first", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE("BGRA")));

G_DEFINE_TYPE(RsvgOverlayTarnwell, rsvg_overlay_tarnwell, GST_TYPE_ELEMENT)
GST_ELEMENT_REGISTER_DEFINE(
    rsvgoverlaytarnwell, "rsvgoverlaytarnwell", GST_RANK_NONE, RSVG_TYPE_OVERLAY_TARNWELL)

static constexpr GParamFlags kWritable
    = static_cast<GParamFlags>(G_PARAM_READWRITE | GST_PARAM_MUTABLE_PLAYING | G_PARAM_STATIC_STRINGS);

// Parses outside the object lock: a large document must not stall frames.
static void SetData(RsvgOverlayTarnwell* self, const gchar* text)
{
    HandlePtr handle;
    if (text && *text) {
        GError* error = nullptr;
        handle.reset(rsvg_handle_new_from_data(reinterpret_cast<const guint8*>(text), strlen(text), &error));
        GErrorPtr owned_error(error);
        if (!handle) {
            GST_WARNING_OBJECT(self, "cannot parse the SVG document: %s", error ? error->message : "unknown");
        }
    }
    GST_OBJECT_LOCK(self);
    self->state->data = text ? text : "";
    self->state->handle = std::move(handle);
    self->state->generation++;
    GST_OBJECT_UNLOCK(self);
}

static void rsvg_overlay_tarnwell_set_property(
    GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    RsvgOverlayTarnwell* self = RSVG_OVERLAY_TARNWELL(object);
    switch (id) {
    case PROP_DATA:
        SetData(self, g_value_get_string(value));
        break;
    case PROP_ENABLED:
        GST_OBJECT_LOCK(self);
        self->state->enabled = g_value_get_boolean(value);
        GST_OBJECT_UNLOCK(self);
        break;
    case PROP_FIT_TO_FRAME:
        GST_OBJECT_LOCK(self);
        self->state->fit_to_frame = g_value_get_boolean(value);
        self->state->generation++;
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void rsvg_overlay_tarnwell_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    RsvgOverlayTarnwell* self = RSVG_OVERLAY_TARNWELL(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_DATA:
        g_value_set_string(value, self->state->data.c_str());
        break;
    case PROP_ENABLED:
        g_value_set_boolean(value, self->state->enabled);
        break;
    case PROP_FIT_TO_FRAME:
        g_value_set_boolean(value, self->state->fit_to_frame);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

// Rasterises the document once into a frame-sized surface.
static SurfacePtr Rasterise(RsvgOverlayTarnwell* self, RsvgHandle* handle, bool fit, gint width, gint height)
{
    SurfacePtr surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
    CairoPtr cr(cairo_create(surface.get()));

    gdouble doc_width = width;
    gdouble doc_height = height;
    gdouble own_width = 0;
    gdouble own_height = 0;
    if (rsvg_handle_get_intrinsic_size_in_pixels(handle, &own_width, &own_height) && own_width > 0
        && own_height > 0) {
        doc_width = own_width;
        doc_height = own_height;
    }
    if (fit) {
        cairo_scale(cr.get(), width / doc_width, height / doc_height);
    }
    const RsvgRectangle viewport { 0.0, 0.0, doc_width, doc_height };
    GError* error = nullptr;
    const bool rendered = rsvg_handle_render_document(handle, cr.get(), &viewport, &error);
    GErrorPtr owned_error(error);
    if (!rendered) {
        GST_WARNING_OBJECT(self, "cannot render the SVG document: %s", error ? error->message : "unknown");
    }
    cairo_surface_flush(surface.get());
    return surface;
}

static GstFlowReturn rsvg_overlay_tarnwell_chain(GstPad*, GstObject* parent, GstBuffer* incoming)
{
    RsvgOverlayTarnwell* self = RSVG_OVERLAY_TARNWELL(parent);
    OverlayState* state = self->state;
    GstBufferPtr buffer(incoming);
    if (!state->have_info) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("no caps before the first frame"), (nullptr));
        return GST_FLOW_NOT_NEGOTIATED;
    }

    GST_OBJECT_LOCK(self);
    const bool enabled = state->enabled;
    const bool fit = state->fit_to_frame;
    const guint generation = state->generation;
    HandlePtr handle(state->handle ? static_cast<RsvgHandle*>(g_object_ref(state->handle.get())) : nullptr);
    GST_OBJECT_UNLOCK(self);

    if (!enabled || !handle) {
        return gst_pad_push(self->srcpad, buffer.release());
    }
    const gint width = GST_VIDEO_INFO_WIDTH(&state->info);
    const gint height = GST_VIDEO_INFO_HEIGHT(&state->info);
    if (!state->picture || state->picture_generation != generation
        || cairo_image_surface_get_width(state->picture.get()) != width
        || cairo_image_surface_get_height(state->picture.get()) != height) {
        state->picture = Rasterise(self, handle.get(), fit, width, height);
        state->picture_generation = generation;
    }

    buffer.reset(gst_buffer_make_writable(buffer.release()));
    {
        MappedVideoFrame frame(&state->info, buffer.get(), GST_MAP_READWRITE);
        if (!frame.Ok()) {
            GST_ELEMENT_ERROR(self, STREAM, FAILED, ("cannot map the frame"), (nullptr));
            return GST_FLOW_ERROR;
        }
        // BGRA in memory is cairo's ARGB32 on a little-endian machine.
        SurfacePtr target(cairo_image_surface_create_for_data(
            static_cast<unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(frame.Get(), 0)), CAIRO_FORMAT_ARGB32,
            width, height, GST_VIDEO_FRAME_PLANE_STRIDE(frame.Get(), 0)));
        {
            CairoPtr cr(cairo_create(target.get()));
            cairo_set_source_surface(cr.get(), state->picture.get(), 0, 0);
            cairo_paint(cr.get());
        }
        cairo_surface_flush(target.get());
    }
    return gst_pad_push(self->srcpad, buffer.release());
}

static gboolean rsvg_overlay_tarnwell_sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    RsvgOverlayTarnwell* self = RSVG_OVERLAY_TARNWELL(parent);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        GstVideoInfo info;
        if (!gst_video_info_from_caps(&info, caps)) {
            GstEventPtr refused(event);
            return FALSE;
        }
        self->state->info = info;
        self->state->have_info = true;
        self->state->picture.reset();
    }
    return gst_pad_event_default(pad, parent, event);
}

static GstStateChangeReturn rsvg_overlay_tarnwell_change_state(GstElement* element, GstStateChange transition)
{
    RsvgOverlayTarnwell* self = RSVG_OVERLAY_TARNWELL(element);
    const GstStateChangeReturn result
        = GST_ELEMENT_CLASS(rsvg_overlay_tarnwell_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        self->state->have_info = false;
        self->state->picture.reset();
    }
    return result;
}

static void rsvg_overlay_tarnwell_finalize(GObject* object)
{
    RsvgOverlayTarnwell* self = RSVG_OVERLAY_TARNWELL(object);
    delete self->state;
    self->state = nullptr;
    G_OBJECT_CLASS(rsvg_overlay_tarnwell_parent_class)->finalize(object);
}

static void rsvg_overlay_tarnwell_class_init(RsvgOverlayTarnwellClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);

    gobject_class->set_property = rsvg_overlay_tarnwell_set_property;
    gobject_class->get_property = rsvg_overlay_tarnwell_get_property;
    gobject_class->finalize = rsvg_overlay_tarnwell_finalize;
    element_class->change_state = rsvg_overlay_tarnwell_change_state;

    g_object_class_install_property(gobject_class, PROP_DATA,
        g_param_spec_string("data", "SVG data", "SVG document drawn over the frames", "", kWritable));
    g_object_class_install_property(gobject_class, PROP_ENABLED,
        g_param_spec_boolean(
            "enabled", "Enabled", "Draw the overlay; false passes frames unchanged", TRUE, kWritable));
    g_object_class_install_property(gobject_class, PROP_FIT_TO_FRAME,
        g_param_spec_boolean("fit-to-frame", "Fit to frame", "Stretch the SVG document over the whole frame",
            FALSE, kWritable));

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "SVG overlay (stand-in)", "Filter/Editor/Video",
        "Draws an SVG document over BGRA frames with librsvg; the "
        "overlaid picture leaves on the src_first pad",
        "videod");

    GST_DEBUG_CATEGORY_INIT(rsvg_overlay_tarnwell_debug, "rsvgoverlaytarnwell", 0, "SVG overlay stand-in");
}

static void rsvg_overlay_tarnwell_init(RsvgOverlayTarnwell* self)
{
    self->state = new OverlayState();

    self->sinkpad = gst_pad_new_from_static_template(&sink_template, "sink");
    gst_pad_set_chain_function(self->sinkpad, rsvg_overlay_tarnwell_chain);
    gst_pad_set_event_function(self->sinkpad, rsvg_overlay_tarnwell_sink_event);
    GST_PAD_SET_PROXY_CAPS(self->sinkpad);
    GST_PAD_SET_PROXY_ALLOCATION(self->sinkpad);
    gst_element_add_pad(GST_ELEMENT(self), self->sinkpad);

    self->srcpad = gst_pad_new_from_static_template(&src_template, "src_first");
    GST_PAD_SET_PROXY_CAPS(self->srcpad);
    GST_PAD_SET_PROXY_ALLOCATION(self->srcpad);
    gst_element_add_pad(GST_ELEMENT(self), self->srcpad);
}
