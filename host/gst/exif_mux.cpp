// The "tarnwellexif" element: tags each JPEG frame with an EXIF APP1 segment.
//
// The segment names the maker, model and software and the local time of the
// frame; it goes after SOI (and after a JFIF APP0 segment). Frames that carry
// EXIF data already, and data that is not JPEG, pass unchanged.
//
//   gst-launch-1.0 videotestsrc num-buffers=1 ! jpegenc ! tarnwellexif ! filesink location=a.jpg
#include "exif_mux.h"

#include "jpeg_exif.h"

GST_DEBUG_CATEGORY_STATIC(exif_mux_debug);
#define GST_CAT_DEFAULT exif_mux_debug

struct _ExifMux {
    GstBaseTransform parent;
};

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));

G_DEFINE_TYPE(ExifMux, exif_mux, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(tarnwellexif, "tarnwellexif", GST_RANK_NONE, EXIF_TYPE_MUX)

static GstMemory* exif_mux_new_segment()
{
    g_autoptr(GDateTime) now = g_date_time_new_now_local();
    g_autofree gchar* dateTime = g_date_time_format(now, "%Y:%m:%d %H:%M:%S");
    const std::vector<guint8> segment = JpegExif::BuildExif(dateTime);
    gpointer data = g_memdup2(segment.data(), segment.size());
    return gst_memory_new_wrapped(
        GST_MEMORY_FLAG_READONLY, data, segment.size(), 0, segment.size(), data, g_free);
}

static GstFlowReturn exif_mux_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_OK;
    JpegExif::Segment existing;
    gsize insertAt = 0;
    const bool tagged = JpegExif::FindExif(map.data, map.size, existing);
    const bool jpeg = JpegExif::InsertionPoint(map.data, map.size, insertAt);
    gst_buffer_unmap(buffer, &map);

    if (tagged || !jpeg) {
        GST_LOG_OBJECT(trans, "frame left as it is (tagged %d, jpeg %d)", tagged, jpeg);
        return GST_FLOW_OK;
    }
    JpegExif::Splice(buffer, insertAt, 0, exif_mux_new_segment());
    return GST_FLOW_OK;
}

static void exif_mux_class_init(ExifMuxClass* klass)
{
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(exif_mux_debug, "tarnwellexif", 0, "EXIF tagging of JPEG frames");

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "EXIF tagger (stand-in)", "Filter/Image",
        "Adds an EXIF APP1 segment to each JPEG frame", "videod");

    transClass->transform_ip = GST_DEBUG_FUNCPTR(exif_mux_transform_ip);
}

static void exif_mux_init(ExifMux* self)
{
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
