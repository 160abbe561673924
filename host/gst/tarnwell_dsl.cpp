// tarnwell-dsl: stand-in for the digital self-levelling element.
//
// On the board this element measures the camera's roll and tilt and levels
// the picture. Here there is no sensor: a test plays it with the action
// signal "simulate-camera-angles", which sets the measured angles (and fires
// "camera-roll-changed" when the roll moves); "simulate-plumbline-data"
// fires "plumbline-data" with five values. The picture really is levelled:
// while "dsl-enabled" is true each frame is turned clockwise about its centre
// by "display-roll", which is
//   - "rotation-override" when that is not 0, otherwise
//   - the camera roll, as it is for "rotation-steps" 0 (continuous), snapped
//     to the nearest multiple of 90 degrees for 1 and of 180 degrees for 2.
// "rotation-threshold", "rotation-frames-trigger" and "animation-duration"
// are kept: the turn is applied at once. Packed 32-bit RGB frames are turned
// (corners filled black); frames of other formats pass unchanged.
//
//   gst-launch-1.0 videotestsrc ! video/x-raw,format=RGBA ! tarnwell-dsl dsl-enabled=true
//       rotation-override=30 ! videoconvert ! autovideosink
#include "tarnwell_dsl.h"

#include "frame_rotation.h"

#include <cmath>

GST_DEBUG_CATEGORY_STATIC(tarnwell_dsl_debug);
#define GST_CAT_DEFAULT tarnwell_dsl_debug

struct _TarnwellDsl {
    GstVideoFilter parent;

    gboolean silent;
    gboolean dsl_enabled;
    gboolean plumbline_enabled;
    guint rotation_steps;
    guint rotation_threshold;
    guint rotation_frames_trigger;
    gint rotation_override;
    guint animation_duration;
    gint max_tilt_angle;
    gdouble sharpen;
    gdouble sharpen_amount;
    gboolean auto_zoom_override;
    gdouble camera_roll;
    gdouble camera_tilt;

    // Streaming thread: the turn of the frame being processed.
    gdouble frame_roll;
};

enum {
    PROP_0,
    PROP_SILENT,
    PROP_DSL_ENABLED,
    PROP_PLUMBLINE_ENABLED,
    PROP_ROTATION_STEPS,
    PROP_ROTATION_THRESHOLD,
    PROP_ROTATION_FRAMES_TRIGGER,
    PROP_ROTATION_OVERRIDE,
    PROP_ANIMATION_DURATION,
    PROP_MAX_TILT_ANGLE,
    PROP_SHARPEN,
    PROP_SHARPEN_AMOUNT,
    PROP_DSL_AUTO_ZOOM_OVERRIDE,
    PROP_CAMERA_ROLL,
    PROP_CAMERA_TILT,
    PROP_DISPLAY_ROLL,
};

enum {
    SIGNAL_CAMERA_ROLL_CHANGED,
    SIGNAL_PLUMBLINE_DATA,
    SIGNAL_SIMULATE_CAMERA_ANGLES,
    SIGNAL_SIMULATE_PLUMBLINE_DATA,
    N_SIGNALS,
};

static guint dsl_signals[N_SIGNALS];

static GstStaticPadTemplate sink_template
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw"));
static GstStaticPadTemplate src_template
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw"));

G_DEFINE_TYPE(TarnwellDsl, tarnwell_dsl, GST_TYPE_VIDEO_FILTER)
GST_ELEMENT_REGISTER_DEFINE(tarnwell_dsl, "tarnwell-dsl", GST_RANK_NONE, TARNWELL_TYPE_DSL)

static constexpr GParamFlags kWritable
    = static_cast<GParamFlags>(G_PARAM_READWRITE | GST_PARAM_MUTABLE_PLAYING | G_PARAM_STATIC_STRINGS);
static constexpr GParamFlags kReadOnly = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);

// An angle in degrees brought into (-180, 180].
static gdouble NormalisedAngle(gdouble degrees)
{
    gdouble angle = std::fmod(degrees, 360.0);
    if (angle > 180.0)
        angle -= 360.0;
    else if (angle <= -180.0)
        angle += 360.0;
    return angle;
}

// The turn applied to the picture (see the top of the file); called under the object lock.
static gdouble DisplayRoll(const TarnwellDsl* self)
{
    if (!self->dsl_enabled)
        return 0.0;
    if (self->rotation_override != 0)
        return NormalisedAngle(self->rotation_override);
    const gdouble step = self->rotation_steps == 1 ? 90.0 : self->rotation_steps == 2 ? 180.0 : 0.0;
    const gdouble roll = step > 0.0 ? std::round(self->camera_roll / step) * step : self->camera_roll;
    // Avoids -0: a level picture passes untouched.
    return roll == 0.0 ? 0.0 : NormalisedAngle(roll);
}

// Decides per frame whether it is turned; an unturned frame passes without a copy.
static void tarnwell_dsl_before_transform(GstBaseTransform* trans, GstBuffer* /*buffer*/)
{
    TarnwellDsl* self = TARNWELL_DSL(trans);
    GST_OBJECT_LOCK(self);
    const gdouble roll = DisplayRoll(self);
    GST_OBJECT_UNLOCK(self);
    GstVideoFilter* filter = GST_VIDEO_FILTER(trans);
    const bool turned = roll != 0.0 && filter->negotiated && CanRotateFrames(&filter->in_info);
    self->frame_roll = roll;
    if (gst_base_transform_is_passthrough(trans) == turned)
        gst_base_transform_set_passthrough(trans, !turned);
}

static GstFlowReturn tarnwell_dsl_transform_frame(
    GstVideoFilter* filter, GstVideoFrame* in, GstVideoFrame* out)
{
    RotateFrame(in, out, TARNWELL_DSL(filter)->frame_roll);
    return GST_FLOW_OK;
}

static gboolean tarnwell_dsl_set_info(GstVideoFilter* filter, GstCaps* /*incaps*/, GstVideoInfo* in_info,
    GstCaps* /*outcaps*/, GstVideoInfo* /*out_info*/)
{
    if (!CanRotateFrames(in_info))
        GST_INFO_OBJECT(filter, "%s frames pass unlevelled", GST_VIDEO_INFO_NAME(in_info));
    return TRUE;
}

static void tarnwell_dsl_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    TarnwellDsl* self = TARNWELL_DSL(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_SILENT:
        self->silent = g_value_get_boolean(value);
        break;
    case PROP_DSL_ENABLED:
        self->dsl_enabled = g_value_get_boolean(value);
        break;
    case PROP_PLUMBLINE_ENABLED:
        self->plumbline_enabled = g_value_get_boolean(value);
        break;
    case PROP_ROTATION_STEPS:
        self->rotation_steps = g_value_get_uint(value);
        break;
    case PROP_ROTATION_THRESHOLD:
        self->rotation_threshold = g_value_get_uint(value);
        break;
    case PROP_ROTATION_FRAMES_TRIGGER:
        self->rotation_frames_trigger = g_value_get_uint(value);
        break;
    case PROP_ROTATION_OVERRIDE:
        self->rotation_override = g_value_get_int(value);
        break;
    case PROP_ANIMATION_DURATION:
        self->animation_duration = g_value_get_uint(value);
        break;
    case PROP_MAX_TILT_ANGLE:
        self->max_tilt_angle = g_value_get_int(value);
        break;
    case PROP_SHARPEN:
        self->sharpen = g_value_get_double(value);
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

static void tarnwell_dsl_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    TarnwellDsl* self = TARNWELL_DSL(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_SILENT:
        g_value_set_boolean(value, self->silent);
        break;
    case PROP_DSL_ENABLED:
        g_value_set_boolean(value, self->dsl_enabled);
        break;
    case PROP_PLUMBLINE_ENABLED:
        g_value_set_boolean(value, self->plumbline_enabled);
        break;
    case PROP_ROTATION_STEPS:
        g_value_set_uint(value, self->rotation_steps);
        break;
    case PROP_ROTATION_THRESHOLD:
        g_value_set_uint(value, self->rotation_threshold);
        break;
    case PROP_ROTATION_FRAMES_TRIGGER:
        g_value_set_uint(value, self->rotation_frames_trigger);
        break;
    case PROP_ROTATION_OVERRIDE:
        g_value_set_int(value, self->rotation_override);
        break;
    case PROP_ANIMATION_DURATION:
        g_value_set_uint(value, self->animation_duration);
        break;
    case PROP_MAX_TILT_ANGLE:
        g_value_set_int(value, self->max_tilt_angle);
        break;
    case PROP_SHARPEN:
        g_value_set_double(value, self->sharpen);
        break;
    case PROP_SHARPEN_AMOUNT:
        g_value_set_double(value, self->sharpen_amount);
        break;
    case PROP_DSL_AUTO_ZOOM_OVERRIDE:
        g_value_set_boolean(value, self->auto_zoom_override);
        break;
    case PROP_CAMERA_ROLL:
        g_value_set_double(value, self->camera_roll);
        break;
    case PROP_CAMERA_TILT:
        g_value_set_double(value, self->camera_tilt);
        break;
    case PROP_DISPLAY_ROLL:
        g_value_set_double(value, DisplayRoll(self));
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

// Class handler of "simulate-camera-angles": stands for a new sensor reading.
static void tarnwell_dsl_simulate_camera_angles(TarnwellDsl* self, gdouble roll, gdouble tilt)
{
    const gdouble clamped_roll = CLAMP(roll, -180.0, 180.0);
    GST_OBJECT_LOCK(self);
    const gboolean roll_changed = self->camera_roll != clamped_roll;
    self->camera_roll = clamped_roll;
    self->camera_tilt = CLAMP(tilt, -90.0, 90.0);
    const gdouble reported = self->camera_roll;
    GST_OBJECT_UNLOCK(self);

    GST_DEBUG_OBJECT(self, "camera roll %f tilt %f", roll, tilt);
    if (roll_changed) {
        g_signal_emit(self, dsl_signals[SIGNAL_CAMERA_ROLL_CHANGED], 0, reported);
    }
}

// Class handler of "simulate-plumbline-data": passes the values on in order.
static void tarnwell_dsl_simulate_plumbline_data(
    TarnwellDsl* self, gdouble a, gdouble b, gdouble c, gdouble d, gdouble e)
{
    g_signal_emit(self, dsl_signals[SIGNAL_PLUMBLINE_DATA], 0, a, b, c, d, e);
}

static void tarnwell_dsl_class_init(TarnwellDslClass* klass)
{
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
    GstVideoFilterClass* filter_class = GST_VIDEO_FILTER_CLASS(klass);

    gobject_class->set_property = tarnwell_dsl_set_property;
    gobject_class->get_property = tarnwell_dsl_get_property;

    g_object_class_install_property(gobject_class, PROP_SILENT,
        g_param_spec_boolean("silent", "Silent", "Produce no debug output", FALSE, kWritable));
    g_object_class_install_property(gobject_class, PROP_DSL_ENABLED,
        g_param_spec_boolean(
            "dsl-enabled", "Levelling enabled", "Level the picture by the camera roll", FALSE, kWritable));
    g_object_class_install_property(gobject_class, PROP_PLUMBLINE_ENABLED,
        g_param_spec_boolean(
            "plumbline-enabled", "Plumbline enabled", "Measure the plumbline", FALSE, kWritable));
    g_object_class_install_property(gobject_class, PROP_ROTATION_STEPS,
        g_param_spec_uint("rotation-steps", "Rotation steps",
            "Rotation steps mode (0 continuous, 1 steps of 90 degrees, 2 steps of 180 degrees)", 0, 2, 0,
            kWritable));
    g_object_class_install_property(gobject_class, PROP_ROTATION_THRESHOLD,
        g_param_spec_uint("rotation-threshold", "Rotation threshold",
            "Roll in degrees that starts a rotation", 0, 30, 7, kWritable));
    g_object_class_install_property(gobject_class, PROP_ROTATION_FRAMES_TRIGGER,
        g_param_spec_uint("rotation-frames-trigger", "Rotation frames trigger",
            "Frames the roll must stay beyond the threshold before rotating", 0, 240, 15, kWritable));
    g_object_class_install_property(gobject_class, PROP_ROTATION_OVERRIDE,
        g_param_spec_int(
            "rotation-override", "Rotation override", "Fixed rotation in degrees", -360, 360, 0, kWritable));
    g_object_class_install_property(gobject_class, PROP_ANIMATION_DURATION,
        g_param_spec_uint("animation-duration", "Animation duration",
            "Duration of a rotation animation in milliseconds", 0, G_MAXUINT, 500, kWritable));
    g_object_class_install_property(gobject_class, PROP_MAX_TILT_ANGLE,
        g_param_spec_int("max-tilt-angle", "Maximum tilt angle",
            "Tilt in degrees beyond which levelling stops", -180, 180, 60, kWritable));
    g_object_class_install_property(gobject_class, PROP_SHARPEN,
        g_param_spec_double(
            "sharpen", "Sharpen", "Sharpening in effect (0 off, 1 on)", 0.0, 1.0, 0.0, kWritable));
    g_object_class_install_property(gobject_class, PROP_SHARPEN_AMOUNT,
        g_param_spec_double(
            "sharpen-amount", "Sharpen amount", "Sharpening strength in effect", 0.0, 100.0, 1.0, kWritable));
    g_object_class_install_property(gobject_class, PROP_DSL_AUTO_ZOOM_OVERRIDE,
        g_param_spec_boolean("dsl-auto-zoom-override", "Auto zoom override",
            "Automatic levelling zoom is overridden", FALSE, kWritable));
    g_object_class_install_property(gobject_class, PROP_CAMERA_ROLL,
        g_param_spec_double(
            "camera-roll", "Camera roll", "Measured camera roll in degrees", -180.0, 180.0, 0.0, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_CAMERA_TILT,
        g_param_spec_double(
            "camera-tilt", "Camera tilt", "Measured camera tilt in degrees", -90.0, 90.0, 0.0, kReadOnly));
    g_object_class_install_property(gobject_class, PROP_DISPLAY_ROLL,
        g_param_spec_double("display-roll", "Display roll",
            "Clockwise turn applied to the picture in degrees", -180.0, 180.0, 0.0, kReadOnly));

    dsl_signals[SIGNAL_CAMERA_ROLL_CHANGED] = g_signal_new("camera-roll-changed", G_TYPE_FROM_CLASS(klass),
        G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_DOUBLE);
    dsl_signals[SIGNAL_PLUMBLINE_DATA] = g_signal_new("plumbline-data", G_TYPE_FROM_CLASS(klass),
        G_SIGNAL_RUN_LAST, 0, nullptr, nullptr, nullptr, G_TYPE_NONE, 5, G_TYPE_DOUBLE, G_TYPE_DOUBLE,
        G_TYPE_DOUBLE, G_TYPE_DOUBLE, G_TYPE_DOUBLE);
    // Test hooks: the closures call the class handlers directly.
    dsl_signals[SIGNAL_SIMULATE_CAMERA_ANGLES] = g_signal_new_class_handler("simulate-camera-angles",
        G_TYPE_FROM_CLASS(klass), static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION),
        G_CALLBACK(tarnwell_dsl_simulate_camera_angles), nullptr, nullptr, nullptr, G_TYPE_NONE, 2,
        G_TYPE_DOUBLE, G_TYPE_DOUBLE);
    dsl_signals[SIGNAL_SIMULATE_PLUMBLINE_DATA] = g_signal_new_class_handler("simulate-plumbline-data",
        G_TYPE_FROM_CLASS(klass), static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION),
        G_CALLBACK(tarnwell_dsl_simulate_plumbline_data), nullptr, nullptr, nullptr, G_TYPE_NONE, 5,
        G_TYPE_DOUBLE, G_TYPE_DOUBLE, G_TYPE_DOUBLE, G_TYPE_DOUBLE, G_TYPE_DOUBLE);

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "Digital self-levelling (stand-in)",
        "Filter/Effect/Video",
        "Turns the picture by the camera roll (or a fixed angle) while levelling, and reports camera roll, "
        "tilt and plumbline data set by its simulate-* action signals",
        "videod");

    trans_class->before_transform = tarnwell_dsl_before_transform;
    filter_class->set_info = tarnwell_dsl_set_info;
    filter_class->transform_frame = tarnwell_dsl_transform_frame;

    GST_DEBUG_CATEGORY_INIT(tarnwell_dsl_debug, "tarnwell-dsl", 0, "digital self-levelling stand-in");
}

static void tarnwell_dsl_init(TarnwellDsl* self)
{
    self->silent = FALSE;
    self->dsl_enabled = FALSE;
    self->plumbline_enabled = FALSE;
    self->rotation_steps = 0;
    self->rotation_threshold = 7;
    self->rotation_frames_trigger = 15;
    self->rotation_override = 0;
    self->animation_duration = 500;
    self->max_tilt_angle = 60;
    self->sharpen = 0.0;
    self->sharpen_amount = 1.0;
    self->auto_zoom_override = FALSE;
    self->camera_roll = 0.0;
    self->camera_tilt = 0.0;
    self->frame_roll = 0.0;
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
