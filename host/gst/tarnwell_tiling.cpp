// tarnwell-tiling: stand-in for the zoom, pan and sharpening element.
//
// Digital zoom and pan are real: each frame is cropped to a window of
// 1/zoom of its width and height and scaled back to the full frame. Pan moves
// the window's centre away from the frame centre, in fractions of the frame
// size; it is clamped to [-(1 - 1/zoom) / 2, (1 - 1/zoom) / 2] so the window
// stays inside the frame, and "pan-*-min"/"pan-*-max" report that range for
// the current zoom. The levelling zoom, sharpening and background settings
// are kept and reported but do not change the picture.
//
//   gst-launch-1.0 videotestsrc ! tarnwell-tiling zoom=2 pan-x=0.25 ! autovideosink
#include "tarnwell_tiling.h"

#include "common/gst_video_ptr.h"

#include <cmath>
#include <utility>

GST_DEBUG_CATEGORY_STATIC(tarnwell_tiling_debug);
#define GST_CAT_DEFAULT tarnwell_tiling_debug

namespace
{

struct CropWindow {
    gint x = 0;
    gint y = 0;
    gint width = 0;
    gint height = 0;
    bool operator==(const CropWindow& other) const
    {
        return x == other.x && y == other.y && width == other.width && height == other.height;
    }
};

} // namespace

struct _TarnwellTiling {
    GstVideoFilter parent;

    // Settings, under the object lock.
    gboolean silent;
    guint background_mode;
    gdouble zoom;
    gdouble pan_x;
    gdouble pan_y;
    gdouble max_dsl_zoom_in;
    guint dsl_zoom_period;
    guint dsl_zoom_delay;
    guint dsl_hysteresis;
    gboolean sharpen;
    gdouble sharpen_amount;
    gboolean auto_zoom_override;

    // Streaming-thread state: the converter for the last crop window.
    GstVideoConverter* converter;
    CropWindow converter_window;
};

enum {
    PROP_0,
    PROP_SILENT,
    PROP_BACKGROUND_MODE,
    PROP_ZOOM,
    PROP_PAN_X,
    PROP_PAN_Y,
    PROP_PAN_X_MIN,
    PROP_PAN_X_MAX,
    PROP_PAN_Y_MIN,
    PROP_PAN_Y_MAX,
    PROP_MAX_DSL_ZOOM_IN,
    PROP_MAX_DSL_ZOOM,
    PROP_DSL_ZOOM_PERIOD,
    PROP_DSL_ZOOM_DELAY,
    PROP_DSL_HYSTERESIS,
    PROP_SHARPEN,
    PROP_SHARPEN_AMOUNT,
    PROP_DSL_AUTO_ZOOM_OVERRIDE,
};

static constexpr gdouble kMinZoom = 1.0;
static constexpr gdouble kMaxZoom = 16.0;

#define TILING_FORMATS "{ RGBA, BGRA, RGBx, BGRx, ARGB, ABGR, xRGB, xBGR, RGB, BGR, UYVY, YUY2, I420, NV12 }"

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(TILING_FORMATS)));
static GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(TILING_FORMATS)));

G_DEFINE_TYPE(TarnwellTiling, tarnwell_tiling, GST_TYPE_VIDEO_FILTER)
GST_ELEMENT_REGISTER_DEFINE(tarnwell_tiling, "tarnwell-tiling", GST_RANK_NONE, TARNWELL_TYPE_TILING)

static constexpr GParamFlags kWritable
    = static_cast<GParamFlags>(G_PARAM_READWRITE | GST_PARAM_MUTABLE_PLAYING | G_PARAM_STATIC_STRINGS);
static constexpr GParamFlags kReadOnly = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

// Largest pan, in fractions of the frame, that keeps the window inside it.
static gdouble PanLimit(gdouble zoom)
{
    return (1.0 - 1.0 / zoom) / 2.0;
}

static gdouble ClampPan(gdouble pan, gdouble zoom)
{
    const gdouble limit = PanLimit(zoom);
    return CLAMP(pan, -limit, limit);
}

static void tarnwell_tiling_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    TarnwellTiling* self = TARNWELL_TILING(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_SILENT:
        self->silent = g_value_get_boolean(value);
        break;
    case PROP_BACKGROUND_MODE:
        self->background_mode = g_value_get_uint(value);
        break;
    case PROP_ZOOM:
        // A smaller zoom narrows the pan range; keep the pan inside it.
        self->zoom = g_value_get_double(value);
        self->pan_x = ClampPan(self->pan_x, self->zoom);
        self->pan_y = ClampPan(self->pan_y, self->zoom);
        break;
    case PROP_PAN_X:
        self->pan_x = ClampPan(g_value_get_double(value), self->zoom);
        break;
    case PROP_PAN_Y:
        self->pan_y = ClampPan(g_value_get_double(value), self->zoom);
        break;
    case PROP_MAX_DSL_ZOOM_IN:
        self->max_dsl_zoom_in = g_value_get_double(value);
        break;
    case PROP_DSL_ZOOM_PERIOD:
        self->dsl_zoom_period = g_value_get_uint(value);
        break;
    case PROP_DSL_ZOOM_DELAY:
        self->dsl_zoom_delay = g_value_get_uint(value);
        break;
    case PROP_DSL_HYSTERESIS:
        self->dsl_hysteresis = g_value_get_uint(value);
        break;
    case PROP_SHARPEN:
        self->sharpen = g_value_get_boolean(value);
        break;
    case PROP_SHARPEN_AMOUNT:
        self->sharpen_amount = g_value_get_double(value);
        break;
    case PROP_DSL_AUTO_ZOOM_OVERRIDE:
        self->auto_zoom_override = g_value_get_boolean(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void tarnwell_tiling_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    TarnwellTiling* self = TARNWELL_TILING(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_SILENT:
        g_value_set_boolean(value, self->silent);
        break;
    case PROP_BACKGROUND_MODE:
        g_value_set_uint(value, self->background_mode);
        break;
    case PROP_ZOOM:
        g_value_set_double(value, self->zoom);
        break;
    case PROP_PAN_X:
        g_value_set_double(value, self->pan_x);
        break;
    case PROP_PAN_Y:
        g_value_set_double(value, self->pan_y);
        break;
    case PROP_PAN_X_MIN:
    case PROP_PAN_Y_MIN:
        g_value_set_double(value, -PanLimit(self->zoom));
        break;
    case PROP_PAN_X_MAX:
    case PROP_PAN_Y_MAX:
        g_value_set_double(value, PanLimit(self->zoom));
        break;
    case PROP_MAX_DSL_ZOOM_IN:
    case PROP_MAX_DSL_ZOOM:
        g_value_set_double(value, self->max_dsl_zoom_in);
        break;
    case PROP_DSL_ZOOM_PERIOD:
        g_value_set_uint(value, self->dsl_zoom_period);
        break;
    case PROP_DSL_ZOOM_DELAY:
        g_value_set_uint(value, self->dsl_zoom_delay);
        break;
    case PROP_DSL_HYSTERESIS:
        g_value_set_uint(value, self->dsl_hysteresis);
        break;
    case PROP_SHARPEN:
        g_value_set_boolean(value, self->sharpen);
        break;
    case PROP_SHARPEN_AMOUNT:
        g_value_set_double(value, self->sharpen_amount);
        break;
    case PROP_DSL_AUTO_ZOOM_OVERRIDE:
        g_value_set_boolean(value, self->auto_zoom_override);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static void DropConverter(TarnwellTiling* self)
{
    VideoDaemon::GstVideoConverterPtr dropped(std::exchange(self->converter, nullptr));
    self->converter_window = CropWindow {};
}

// The window of the input frame shown for the current zoom and pan. Origin
// and size are kept even so subsampled chroma stays aligned.
static CropWindow ComputeWindow(TarnwellTiling* self, gint frame_width, gint frame_height)
{
    GST_OBJECT_LOCK(self);
    const gdouble zoom = self->zoom;
    const gdouble pan_x = self->pan_x;
    const gdouble pan_y = self->pan_y;
    GST_OBJECT_UNLOCK(self);

    auto place = [zoom](gint frame, gdouble pan, gint* origin, gint* size) {
        gint length = static_cast<gint>(std::lround(frame / zoom)) & ~1;
        length = CLAMP(length, MIN(2, frame), frame);
        const gdouble left = frame * (PanLimit(zoom) + pan);
        gint start = static_cast<gint>(std::lround(left)) & ~1;
        *origin = CLAMP(start, 0, frame - length);
        *size = length;
    };
    CropWindow window;
    place(frame_width, pan_x, &window.x, &window.width);
    place(frame_height, pan_y, &window.y, &window.height);
    return window;
}

static GstFlowReturn tarnwell_tiling_transform_frame(
    GstVideoFilter* filter, GstVideoFrame* in, GstVideoFrame* out)
{
    TarnwellTiling* self = TARNWELL_TILING(filter);
    const gint width = GST_VIDEO_FRAME_WIDTH(in);
    const gint height = GST_VIDEO_FRAME_HEIGHT(in);
    const CropWindow window = ComputeWindow(self, width, height);

    if (window.width == width && window.height == height) {
        return gst_video_frame_copy(out, in) ? GST_FLOW_OK : GST_FLOW_ERROR;
    }
    if (!self->converter || !(window == self->converter_window)) {
        DropConverter(self);
        GstStructure* config = gst_structure_new("tiling", GST_VIDEO_CONVERTER_OPT_SRC_X, G_TYPE_INT,
            window.x, GST_VIDEO_CONVERTER_OPT_SRC_Y, G_TYPE_INT, window.y, GST_VIDEO_CONVERTER_OPT_SRC_WIDTH,
            G_TYPE_INT, window.width, GST_VIDEO_CONVERTER_OPT_SRC_HEIGHT, G_TYPE_INT, window.height,
            GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
            GST_VIDEO_RESAMPLER_METHOD_LINEAR, nullptr);
        self->converter = gst_video_converter_new(&filter->in_info, &filter->out_info, config);
        if (!self->converter) {
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("cannot scale the zoom window"), (nullptr));
            return GST_FLOW_ERROR;
        }
        self->converter_window = window;
        GST_DEBUG_OBJECT(self, "window %dx%d at %d,%d", window.width, window.height, window.x, window.y);
    }
    gst_video_converter_frame(self->converter, in, out);
    return GST_FLOW_OK;
}

static gboolean tarnwell_tiling_set_info(
    GstVideoFilter* filter, GstCaps*, GstVideoInfo* in_info, GstCaps*, GstVideoInfo* out_info)
{
    TarnwellTiling* self = TARNWELL_TILING(filter);
    DropConverter(self);
    if (GST_VIDEO_INFO_WIDTH(in_info) != GST_VIDEO_INFO_WIDTH(out_info)
        || GST_VIDEO_INFO_HEIGHT(in_info) != GST_VIDEO_INFO_HEIGHT(out_info)
        || GST_VIDEO_INFO_FORMAT(in_info) != GST_VIDEO_INFO_FORMAT(out_info)) {
        GST_ERROR_OBJECT(self, "input and output must have the same format and size");
        return FALSE;
    }
    return TRUE;
}

static gboolean tarnwell_tiling_stop(GstBaseTransform* trans)
{
    DropConverter(TARNWELL_TILING(trans));
    return TRUE;
}

static void tarnwell_tiling_finalize(GObject* object)
{
    DropConverter(TARNWELL_TILING(object));
    G_OBJECT_CLASS(tarnwell_tiling_parent_class)->finalize(object);
}

static void tarnwell_tiling_class_init(TarnwellTilingClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    GstVideoFilterClass* filter_class = GST_VIDEO_FILTER_CLASS(klass);

    gobject_class->set_property = tarnwell_tiling_set_property;
    gobject_class->get_property = tarnwell_tiling_get_property;
    gobject_class->finalize = tarnwell_tiling_finalize;
    transform_class->stop = tarnwell_tiling_stop;
    filter_class->set_info = tarnwell_tiling_set_info;
    filter_class->transform_frame = tarnwell_tiling_transform_frame;

    g_object_class_install_property(gobject_class, PROP_SILENT,
        g_param_spec_boolean("silent", "Silent", "Produce no debug output", FALSE, kWritable));
    g_object_class_install_property(gobject_class, PROP_BACKGROUND_MODE,
        g_param_spec_uint("background-mode", "Background mode",
            "Fill of the area uncovered by levelling (0 black, 1 blur, 2 mirror, 3 last frame)", 0, 3, 0,
            kWritable));
    g_object_class_install_property(gobject_class, PROP_ZOOM,
        g_param_spec_double("zoom", "Zoom", "Digital zoom factor", kMinZoom, kMaxZoom, kMinZoom, kWritable));
    g_object_class_install_property(gobject_class, PROP_PAN_X,
        g_param_spec_double("pan-x", "Pan X",
            "Horizontal offset of the zoom window's centre in frame widths; clamped to "
            "[pan-x-min, pan-x-max]",
            -G_MAXDOUBLE, G_MAXDOUBLE, 0.0, kWritable));
    g_object_class_install_property(gobject_class, PROP_PAN_Y,
        g_param_spec_double("pan-y", "Pan Y",
            "Vertical offset of the zoom window's centre in frame heights; clamped to "
            "[pan-y-min, pan-y-max]",
            -G_MAXDOUBLE, G_MAXDOUBLE, 0.0, kWritable));
    g_object_class_install_property(gobject_class, PROP_PAN_X_MIN,
        g_param_spec_double(
            "pan-x-min", "Pan X minimum", "Smallest pan-x at the current zoom", -0.5, 0.0, 0.0, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_PAN_X_MAX,
        g_param_spec_double(
            "pan-x-max", "Pan X maximum", "Largest pan-x at the current zoom", 0.0, 0.5, 0.0, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_PAN_Y_MIN,
        g_param_spec_double(
            "pan-y-min", "Pan Y minimum", "Smallest pan-y at the current zoom", -0.5, 0.0, 0.0, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_PAN_Y_MAX,
        g_param_spec_double(
            "pan-y-max", "Pan Y maximum", "Largest pan-y at the current zoom", 0.0, 0.5, 0.0, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_MAX_DSL_ZOOM_IN,
        g_param_spec_double("max-dsl-zoom-in", "Maximum levelling zoom",
            "Largest zoom the levelling may apply to hide the corners", 0.5, 4.0, 1.25, kWritable));
    g_object_class_install_property(gobject_class, PROP_MAX_DSL_ZOOM,
        g_param_spec_double("max-dsl-zoom", "Maximum levelling zoom in effect",
            "The levelling zoom limit in effect", 0.5, 4.0, 1.25, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_DSL_ZOOM_PERIOD,
        g_param_spec_uint("dsl-zoom-period", "Levelling zoom period",
            "Duration of a levelling zoom step in ms", 0, G_MAXUINT, 1000, kWritable));
    g_object_class_install_property(gobject_class, PROP_DSL_ZOOM_DELAY,
        g_param_spec_uint("dsl-zoom-delay", "Levelling zoom delay", "Delay before a levelling zoom in ms", 0,
            G_MAXUINT, 500, kWritable));
    g_object_class_install_property(gobject_class, PROP_DSL_HYSTERESIS,
        g_param_spec_uint("dsl-hysteresis", "Levelling hysteresis", "Roll change in degrees that re-zooms", 0,
            G_MAXUINT, 2, kWritable));
    g_object_class_install_property(gobject_class, PROP_SHARPEN,
        g_param_spec_boolean("sharpen", "Sharpen", "Sharpen the picture", FALSE, kWritable));
    g_object_class_install_property(gobject_class, PROP_SHARPEN_AMOUNT,
        g_param_spec_double(
            "sharpen-amount", "Sharpen amount", "Sharpening strength", 0.0, 100.0, 1.0, kWritable));
    g_object_class_install_property(gobject_class, PROP_DSL_AUTO_ZOOM_OVERRIDE,
        g_param_spec_boolean("dsl-auto-zoom-override", "Auto zoom override",
            "Override the automatic levelling zoom", FALSE, kWritable));

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "Zoom and pan (stand-in)", "Filter/Effect/Video",
        "Crops the picture to the zoom window moved by the pan and "
        "scales it back to the full frame",
        "videod");

    GST_DEBUG_CATEGORY_INIT(tarnwell_tiling_debug, "tarnwell-tiling", 0, "zoom and pan stand-in");
}

static void tarnwell_tiling_init(TarnwellTiling* self)
{
    self->silent = FALSE;
    self->background_mode = 0;
    self->zoom = kMinZoom;
    self->pan_x = 0.0;
    self->pan_y = 0.0;
    self->max_dsl_zoom_in = 1.25;
    self->dsl_zoom_period = 1000;
    self->dsl_zoom_delay = 500;
    self->dsl_hysteresis = 2;
    self->sharpen = FALSE;
    self->sharpen_amount = 1.0;
    self->auto_zoom_override = FALSE;
    self->converter = nullptr;
    self->converter_window = CropWindow {};
}
