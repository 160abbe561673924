// The "tarnwell-motion-filter" element: smooths the camera's roll readings, passing frames through.
//
// "roll-filter-coeffs" holds the weights of the roll filter as blank-separated
// numbers ("1 1" averages the last two readings). The PC has no motion sensor,
// so frames pass unchanged; a string that is not a list of numbers is refused
// with a warning and the previous weights stay.
//
//   gst-launch-1.0 videotestsrc ! tarnwell-motion-filter roll-filter-coeffs="1 2 1" ! fakesink
#include "motion_filter.h"

#include <string>
#include <vector>

GST_DEBUG_CATEGORY_STATIC(motion_filter_debug);
#define GST_CAT_DEFAULT motion_filter_debug

namespace
{

constexpr const char* kDefaultCoeffs = "1 1";

// Parses blank-separated weights; false when the text holds anything else or nothing.
bool ParseWeights(const char* text, std::vector<double>& weights)
{
    weights.clear();
    if (text == nullptr)
        return false;
    const char* pos = text;
    while (*pos != '\0') {
        while (g_ascii_isspace(*pos))
            ++pos;
        if (*pos == '\0')
            break;
        char* end = nullptr;
        const double weight = g_ascii_strtod(pos, &end);
        if (end == pos)
            return false;
        weights.push_back(weight);
        pos = end;
    }
    return !weights.empty();
}

struct MotionFilterState {
    std::string coeffs = kDefaultCoeffs;
    std::vector<double> weights { 1.0, 1.0 };
};

} // namespace

struct _MotionFilter {
    GstBaseTransform parent;
    MotionFilterState* state;
};

enum { PROP_0, PROP_ROLL_FILTER_COEFFS };

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw(ANY)"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw(ANY)"));

G_DEFINE_TYPE(MotionFilter, motion_filter, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(
    tarnwell_motion_filter, "tarnwell-motion-filter", GST_RANK_NONE, MOTION_TYPE_FILTER)

static void motion_filter_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    MotionFilter* self = MOTION_FILTER(object);
    switch (id) {
    case PROP_ROLL_FILTER_COEFFS: {
        const char* text = g_value_get_string(value);
        std::vector<double> weights;
        if (!ParseWeights(text, weights)) {
            GST_ELEMENT_WARNING(self, LIBRARY, SETTINGS,
                ("Roll filter weights \"%s\" refused", text ? text : ""),
                ("expected blank-separated numbers"));
            break;
        }
        GST_OBJECT_LOCK(self);
        self->state->coeffs = text;
        self->state->weights = std::move(weights);
        GST_OBJECT_UNLOCK(self);
        break;
    }
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void motion_filter_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    MotionFilter* self = MOTION_FILTER(object);
    switch (id) {
    case PROP_ROLL_FILTER_COEFFS:
        GST_OBJECT_LOCK(self);
        g_value_set_string(value, self->state->coeffs.c_str());
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void motion_filter_finalize(GObject* object)
{
    delete MOTION_FILTER(object)->state;
    G_OBJECT_CLASS(motion_filter_parent_class)->finalize(object);
}

static void motion_filter_class_init(MotionFilterClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(motion_filter_debug, "tarnwell-motion-filter", 0, "Camera roll filter");

    gobjectClass->set_property = motion_filter_set_property;
    gobjectClass->get_property = motion_filter_get_property;
    gobjectClass->finalize = motion_filter_finalize;
    g_object_class_install_property(gobjectClass, PROP_ROLL_FILTER_COEFFS,
        g_param_spec_string("roll-filter-coeffs", "Roll filter weights",
            "Blank-separated weights of the camera roll filter, newest reading first", kDefaultCoeffs,
            static_cast<GParamFlags>(
                G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING)));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Motion filter (stand-in)", "Filter/Video",
        "Filters the camera roll readings (frames pass unchanged on a PC)", "videod");
}

static void motion_filter_init(MotionFilter* self)
{
    self->state = new MotionFilterState();
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
