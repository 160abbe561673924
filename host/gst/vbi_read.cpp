// The "vbiread" element: the analogue capture's vertical-blanking reader, passing frames through.
//
// The PC has no blanking-interval data to read, so the line settings are
// only kept; frames pass unchanged, except that "set-tff-flag" marks them
// top-field-first as the board's reader does for the deinterlacer.
//
//   gst-launch-1.0 videotestsrc ! vbiread set-tff-flag=true num-top-data-lines=30 ! fakesink
#include "vbi_read.h"

#include <gst/video/video.h>

GST_DEBUG_CATEGORY_STATIC(vbi_read_debug);
#define GST_CAT_DEFAULT vbi_read_debug

namespace
{

enum {
    PROP_0,
    PROP_LINE_DUP_ENABLED,
    PROP_LINE_DUP_TOP_START,
    PROP_LINE_DUP_TOP_STOP,
    PROP_LINE_DUP_BOT_START,
    PROP_LINE_DUP_BOT_STOP,
    PROP_FIRST_TOP_DATA_LINE,
    PROP_NUM_TOP_DATA_LINES,
    PROP_FIRST_BOT_DATA_LINE,
    PROP_NUM_BOT_DATA_LINES,
    PROP_SET_TFF_FLAG,
    PROP_LAST
};

// Line numbers of one frame (625-line systems have 576 active lines).
constexpr guint kMaxLine = 1023;

struct LineProperty {
    guint id;
    const char* name;
    const char* nick;
    const char* blurb;
};

const LineProperty kLineProperties[] = {
    { PROP_LINE_DUP_TOP_START, "line-dup-top-start", "Top duplication start",
        "First line of the top duplication range" },
    { PROP_LINE_DUP_TOP_STOP, "line-dup-top-stop", "Top duplication stop",
        "Last line of the top duplication range" },
    { PROP_LINE_DUP_BOT_START, "line-dup-bot-start", "Bottom duplication start",
        "First line of the bottom duplication range" },
    { PROP_LINE_DUP_BOT_STOP, "line-dup-bot-stop", "Bottom duplication stop",
        "Last line of the bottom duplication range" },
    { PROP_FIRST_TOP_DATA_LINE, "first-top-data-line", "First top data line",
        "First line of data in the top blanking interval" },
    { PROP_NUM_TOP_DATA_LINES, "num-top-data-lines", "Top data lines",
        "Number of data lines in the top blanking interval" },
    { PROP_FIRST_BOT_DATA_LINE, "first-bot-data-line", "First bottom data line",
        "First line of data in the bottom blanking interval" },
    { PROP_NUM_BOT_DATA_LINES, "num-bot-data-lines", "Bottom data lines",
        "Number of data lines in the bottom blanking interval" },
};

} // namespace

struct _VbiRead {
    GstBaseTransform parent;
    gboolean lineDupEnabled;
    gboolean setTffFlag;
    guint lines[PROP_LAST]; // indexed by property id
};

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw(ANY)"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("video/x-raw(ANY)"));

G_DEFINE_TYPE(VbiRead, vbi_read, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(vbiread, "vbiread", GST_RANK_NONE, VBI_TYPE_READ)

static void vbi_read_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    VbiRead* self = VBI_READ(object);
    switch (id) {
    case PROP_LINE_DUP_ENABLED:
        GST_OBJECT_LOCK(self);
        self->lineDupEnabled = g_value_get_boolean(value);
        GST_OBJECT_UNLOCK(self);
        break;
    case PROP_SET_TFF_FLAG: {
        const gboolean tff = g_value_get_boolean(value);
        GST_OBJECT_LOCK(self);
        self->setTffFlag = tff;
        GST_OBJECT_UNLOCK(self);
        // Frames are only touched while they need the flag.
        gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), !tff);
        break;
    }
    case PROP_LINE_DUP_TOP_START:
    case PROP_LINE_DUP_TOP_STOP:
    case PROP_LINE_DUP_BOT_START:
    case PROP_LINE_DUP_BOT_STOP:
    case PROP_FIRST_TOP_DATA_LINE:
    case PROP_NUM_TOP_DATA_LINES:
    case PROP_FIRST_BOT_DATA_LINE:
    case PROP_NUM_BOT_DATA_LINES:
        GST_OBJECT_LOCK(self);
        self->lines[id] = g_value_get_uint(value);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void vbi_read_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    VbiRead* self = VBI_READ(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_LINE_DUP_ENABLED:
        g_value_set_boolean(value, self->lineDupEnabled);
        break;
    case PROP_SET_TFF_FLAG:
        g_value_set_boolean(value, self->setTffFlag);
        break;
    case PROP_LINE_DUP_TOP_START:
    case PROP_LINE_DUP_TOP_STOP:
    case PROP_LINE_DUP_BOT_START:
    case PROP_LINE_DUP_BOT_STOP:
    case PROP_FIRST_TOP_DATA_LINE:
    case PROP_NUM_TOP_DATA_LINES:
    case PROP_FIRST_BOT_DATA_LINE:
    case PROP_NUM_BOT_DATA_LINES:
        g_value_set_uint(value, self->lines[id]);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

static GstFlowReturn vbi_read_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    VbiRead* self = VBI_READ(trans);
    GST_OBJECT_LOCK(self);
    const gboolean tff = self->setTffFlag;
    GST_OBJECT_UNLOCK(self);
    if (tff)
        GST_BUFFER_FLAG_SET(buffer, GST_VIDEO_BUFFER_FLAG_TFF);
    return GST_FLOW_OK;
}

static void vbi_read_class_init(VbiReadClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(vbi_read_debug, "vbiread", 0, "Vertical blanking interval reader");

    gobjectClass->set_property = vbi_read_set_property;
    gobjectClass->get_property = vbi_read_get_property;
    const auto flags
        = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(gobjectClass, PROP_LINE_DUP_ENABLED,
        g_param_spec_boolean("line-dup-enabled", "Line duplication",
            "Duplicate the lines of the duplication ranges", FALSE, flags));
    for (const LineProperty& line : kLineProperties)
        g_object_class_install_property(gobjectClass, line.id,
            g_param_spec_uint(line.name, line.nick, line.blurb, 0, kMaxLine, 0, flags));
    g_object_class_install_property(gobjectClass, PROP_SET_TFF_FLAG,
        g_param_spec_boolean("set-tff-flag", "Top field first", "Mark frames top-field-first", FALSE, flags));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "VBI reader (stand-in)", "Filter/Video",
        "Reads the vertical blanking interval of analogue video "
        "(frames pass unchanged on a PC)",
        "videod");

    transClass->transform_ip = GST_DEBUG_FUNCPTR(vbi_read_transform_ip);
    transClass->transform_ip_on_passthrough = FALSE;
}

static void vbi_read_init(VbiRead* self)
{
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
}
