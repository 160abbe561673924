// The "tarnwellexifdemux" element: takes the EXIF APP1 segment off each JPEG frame.
//
// Frames without EXIF data pass unchanged; the rest of the picture is shared,
// not copied.
//
//   gst-launch-1.0 filesrc location=a.jpg ! image/jpeg ! tarnwellexifdemux ! jpegdec ! fakesink
#include "exif_demux.h"

#include "jpeg_exif.h"

GST_DEBUG_CATEGORY_STATIC(exif_demux_debug);
#define GST_CAT_DEFAULT exif_demux_debug

struct _ExifDemux {
    GstBaseTransform parent;
};

static GstStaticPadTemplate sinkTemplate
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));
static GstStaticPadTemplate srcTemplate
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS("image/jpeg"));

G_DEFINE_TYPE(ExifDemux, exif_demux, GST_TYPE_BASE_TRANSFORM)
GST_ELEMENT_REGISTER_DEFINE(tarnwellexifdemux, "tarnwellexifdemux", GST_RANK_NONE, EXIF_TYPE_DEMUX)

static GstFlowReturn exif_demux_transform_ip(GstBaseTransform* trans, GstBuffer* buffer)
{
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_OK;
    JpegExif::Segment exif;
    const bool tagged = JpegExif::FindExif(map.data, map.size, exif);
    gst_buffer_unmap(buffer, &map);

    if (tagged) {
        GST_LOG_OBJECT(trans, "removing %" G_GSIZE_FORMAT " bytes of EXIF data", exif.length);
        JpegExif::Splice(buffer, exif.offset, exif.length, nullptr);
    }
    return GST_FLOW_OK;
}

static void exif_demux_class_init(ExifDemuxClass* klass)
{
    GstElementClass* elementClass = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass* transClass = GST_BASE_TRANSFORM_CLASS(klass);

    GST_DEBUG_CATEGORY_INIT(exif_demux_debug, "tarnwellexifdemux", 0, "EXIF removal from JPEG frames");

    gst_element_class_add_static_pad_template(elementClass, &sinkTemplate);
    gst_element_class_add_static_pad_template(elementClass, &srcTemplate);
    gst_element_class_set_static_metadata(elementClass, "EXIF remover (stand-in)", "Filter/Image",
        "Removes the EXIF APP1 segment from each JPEG frame", "videod");

    transClass->transform_ip = GST_DEBUG_FUNCPTR(exif_demux_transform_ip);
}

static void exif_demux_init(ExifDemux* self)
{
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
}
