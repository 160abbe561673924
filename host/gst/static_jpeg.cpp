// The "tarnwell-static-jpeg" element: puts one JPEG picture into a stream in place of its frames.
//
// While "silent" is false, the data of every frame is replaced by the JPEG
// file at "location"; timestamps and flags stay those of the frame. The file
// is read once and again after "location" changes. When it cannot be read
// (or is not a JPEG), a warning is posted and a built-in picture of the
// stream's size is used instead. While "silent" is true, frames pass as they are.
//
//   gst-launch-1.0 videotestsrc ! jpegenc ! tarnwell-static-jpeg location=logo.jpg silent=false ! fakesink
#include "static_jpeg.h"

#include "builtin_picture.h"
#include "common/gst_ptr.h"

#include <memory>
#include <string>

GST_DEBUG_CATEGORY_STATIC(static_jpeg_debug);
#define GST_CAT_DEFAULT static_jpeg_debug

namespace
{

constexpr int kDefaultWidth = 640;
constexpr int kDefaultHeight = 480;

using MemoryPtr = VideoDaemon::GstMemoryPtr;

struct StaticJpegState {
    std::string location;
    bool silent = true;
    guint generation = 0; // counts "location" writes, so a stale load is not kept
    MemoryPtr picture;
    int width = kDefaultWidth;
    int height = kDefaultHeight;
};

MemoryPtr WrapBytes(gpointer data, gsize size)
{
    return MemoryPtr(gst_memory_new_wrapped(GST_MEMORY_FLAG_READONLY, data, size, 0, size, data, g_free));
}

} // namespace

struct _StaticJpeg {
    GstBaseTransform parent;
    StaticJpegState* state;
};

enum { PROP_0, PROP_LOCATION, PROP_SILENT };

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));

G_DEFINE_TYPE(StaticJpeg, static_jpeg, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(tarnwell_static_jpeg, "tarnwell-static-jpeg", GST_RANK_NONE, STATIC_TYPE_JPEG)

static void static_jpeg_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    StaticJpeg* self = STATIC_JPEG(object);
    switch (id) {
    case PROP_LOCATION: {
        const char* location = g_value_get_string(value);
        GST_OBJECT_LOCK(self);
        self->state->location = location != nullptr ? location : "";
        self->state->picture.reset();
        ++self->state->generation;
        GST_OBJECT_UNLOCK(self);
        break;
    }
    case PROP_SILENT:
        GST_OBJECT_LOCK(self);
        self->state->silent = g_value_get_boolean(value);
        GST_OBJECT_UNLOCK(self);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
}

static void static_jpeg_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    StaticJpeg* self = STATIC_JPEG(object);
    GST_OBJECT_LOCK(self);
    switch (id) {
    case PROP_LOCATION:
        g_value_set_string(value, self->state->location.empty() ? nullptr : self->state->location.c_str());
        break;
    case PROP_SILENT:
        g_value_set_boolean(value, self->state->silent);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(self);
}

// Reads the picture at location, or makes the built-in one (posting a warning).
// Called without the object lock: posting a message takes it.
static MemoryPtr static_jpeg_load(StaticJpeg* self, const std::string& location, int width, int height)
{
    gchar* contents = nullptr;
    gsize length = 0;
    g_autoptr(GError) error = nullptr;
    if (!location.empty() && g_file_get_contents(location.c_str(), &contents, &length, &error)) {
        const bool jpeg = length >= 2 && static_cast<guint8>(contents[0]) == 0xff
            && static_cast<guint8>(contents[1]) == 0xd8;
        MemoryPtr picture = WrapBytes(contents, length);
        if (jpeg) {
            GST_INFO_OBJECT(self, "showing \"%s\" (%" G_GSIZE_FORMAT " bytes)", location.c_str(), length);
            return picture;
        }
        g_set_error(&error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "not a JPEG picture");
    }
    GST_ELEMENT_WARNING(self, RESOURCE, OPEN_READ,
        ("Could not read the picture \"%s\"; showing the built-in picture", location.c_str()),
        ("%s", error != nullptr ? error->message : "no location set"));
    const std::vector<guint8> builtin = BuiltinPicture::Encode(width, height);
    return WrapBytes(g_memdup2(builtin.data(), builtin.size()), builtin.size());
}

static gboolean static_jpeg_set_caps(GstBaseTransform* trans, GstCaps* incaps, GstCaps* /*outcaps*/)
{
    StaticJpeg* self = STATIC_JPEG(trans);
    const GstStructure* s = gst_caps_get_structure(incaps, 0);
    int width = 0;
    int height = 0;
    if (gst_structure_get_int(s, "width", &width) && gst_structure_get_int(s, "height", &height) && width > 0
        && height > 0) {
        GST_OBJECT_LOCK(self);
        self->state->width = width;
        self->state->height = height;
        GST_OBJECT_UNLOCK(self);
    }
    return TRUE;
}

static GstFlowReturn static_jpeg_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    StaticJpeg* self = STATIC_JPEG(trans);
    StaticJpegState& state = *self->state;

    GST_OBJECT_LOCK(self);
    if (state.silent) {
        GST_OBJECT_UNLOCK(self);
        return GST_FLOW_OK;
    }
    if (!state.picture) {
        const std::string location = state.location;
        const guint generation = state.generation;
        const int width = state.width;
        const int height = state.height;
        GST_OBJECT_UNLOCK(self);
        MemoryPtr loaded = static_jpeg_load(self, location, width, height);
        GST_OBJECT_LOCK(self);
        if (generation == state.generation && !state.picture)
            state.picture = std::move(loaded);
        if (!state.picture) { // "location" changed meanwhile: read it for the next frame
            GST_OBJECT_UNLOCK(self);
            return GST_FLOW_OK;
        }
    }
    GstMemory* picture = gst_memory_ref(state.picture.get());
    GST_OBJECT_UNLOCK(self);

    gst_buffer_remove_all_memory(buffer);
    gst_buffer_append_memory(buffer, picture);
    return GST_FLOW_OK;
}

static void static_jpeg_finalize(GObject* object)
{
    delete STATIC_JPEG(object)->state;
    G_OBJECT_CLASS(static_jpeg_parent_class)->finalize(object);
}

static void static_jpeg_class_init(StaticJpegClass* klass)
{
    GObjectClass* gobjectClass = G_OBJECT_CLASS(klass);
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(static_jpeg_debug, "tarnwell-static-jpeg", 0, "Static JPEG substitution");

    gobjectClass->set_property = static_jpeg_set_property;
    gobjectClass->get_property = static_jpeg_get_property;
    gobjectClass->finalize = static_jpeg_finalize;
    const auto flags
        = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(gobjectClass, PROP_LOCATION,
        g_param_spec_string(
            "location", "Location", "JPEG file shown in place of the frames", nullptr, flags));
    g_object_class_install_property(gobjectClass, PROP_SILENT,
        g_param_spec_boolean("silent", "Silent",
            "Pass the frames as they are; false replaces them with the picture at location", TRUE, flags));

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "Static JPEG (stand-in)", "Filter/Image",
        "Replaces each JPEG frame with a picture read from a file", "videod");

    transClass->set_caps = GST_DEBUG_FUNCPTR(static_jpeg_set_caps);
    transClass->transform_ip = GST_DEBUG_FUNCPTR(static_jpeg_transform_ip);
}

static void static_jpeg_init(StaticJpeg* self)
{
    self->state = new StaticJpegState();
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
