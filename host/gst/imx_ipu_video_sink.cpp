// imxipuvideosink: the display of the PC stand-in. It consumes frames at the
// rate they come (or on the clock with sync=true), counts the frames it shows
// and keeps the last one, so that a test can see what the panel would show:
// "frames-shown" and "last-sample". The last sample is the picture as the
// panel shows it: turned or flipped by "output-rotation" (except for the
// packed 4:2:2 formats, which are kept as they come). With "drop-frames" set,
// frames are taken and thrown away without being shown. "use-vsync" and
// "force-aspect-ratio" are kept as given; nothing is drawn on screen.
//
// Example: gst-launch-1.0 videotestsrc ! imxipuvideosink sync=false output-rotation=5
#include "imx_ipu_video_sink.h"

#include "common/gst_ptr.h"
#include "common/gst_video_ptr.h"

#include <gst/video/video.h>

#include <cstring>

using namespace VideoDaemon;

GST_DEBUG_CATEGORY_STATIC(imx_ipu_video_sink_debug);
#define GST_CAT_DEFAULT imx_ipu_video_sink_debug

namespace
{

#define IMX_SINK_FORMATS                                                                                     \
    "{ RGBA, BGRA, RGBx, BGRx, ARGB, ABGR, xRGB, xBGR, RGB, BGR, RGB16, I420, YV12, NV12, NV21, Y42B, "      \
    "Y444, "                                                                                                 \
    "UYVY, YUY2, GRAY8 }"

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(GST_VIDEO_CAPS_MAKE(IMX_SINK_FORMATS)));

enum {
    PROP_0,
    PROP_OUTPUT_ROTATION,
    PROP_DROP_FRAMES,
    PROP_USE_VSYNC,
    PROP_FORCE_ASPECT_RATIO,
    PROP_FRAMES_SHOWN,
    PROP_FRAMES_DROPPED,
    PROP_LAST_SAMPLE,
};

constexpr gint kRotationNone = 0;
constexpr gint kRotationMax = 7;

struct State {
    gint rotation = kRotationNone;
    bool drop_frames = false;
    bool use_vsync = false;
    bool force_aspect_ratio = true;
    guint64 frames_shown = 0;
    guint64 frames_dropped = 0;
    GstSamplePtr last_sample;
};

} // namespace

struct _ImxIpuVideoSink {
    GstBaseSink parent;
    State* state;
};

G_DEFINE_TYPE(ImxIpuVideoSink, imx_ipu_video_sink, GST_TYPE_BASE_SINK);
GST_ELEMENT_REGISTER_DEFINE(imxipuvideosink, "imxipuvideosink", GST_RANK_NONE, IMX_TYPE_IPU_VIDEO_SINK);

namespace
{

bool SwapsSides(gint rotation)
{
    return rotation == 1 || rotation == 3 || rotation == 6 || rotation == 7;
}

// Where the pixel at (x, y) of the picture on the panel comes from.
void SourcePixel(gint rotation, int x, int y, int width, int height, int* sx, int* sy)
{
    switch (rotation) {
    case 1: // 90 degrees clockwise
        *sx = y, *sy = height - 1 - x;
        break;
    case 2: // 180 degrees
        *sx = width - 1 - x, *sy = height - 1 - y;
        break;
    case 3: // 90 degrees counter-clockwise
        *sx = width - 1 - y, *sy = x;
        break;
    case 4: // horizontal flip
        *sx = width - 1 - x, *sy = y;
        break;
    case 5: // vertical flip
        *sx = x, *sy = height - 1 - y;
        break;
    case 6: // upper-left diagonal
        *sx = y, *sy = x;
        break;
    case 7: // upper-right diagonal
        *sx = width - 1 - y, *sy = height - 1 - x;
        break;
    default:
        *sx = x, *sy = y;
        break;
    }
}

// The frame as the rotated panel shows it, or null when the format cannot be
// rotated pixel by pixel (pairs of pixels sharing chroma in one word).
GstSamplePtr RotatedSample(GstBuffer* buffer, GstCaps* caps, const GstSegment* segment, gint rotation)
{
    GstVideoInfo in_info;
    if (!caps || !gst_video_info_from_caps(&in_info, caps))
        return nullptr;
    const GstVideoFormatInfo* finfo = in_info.finfo;
    if (GST_VIDEO_FORMAT_INFO_IS_COMPLEX(finfo) || GST_VIDEO_INFO_FORMAT(&in_info) == GST_VIDEO_FORMAT_UYVY
        || GST_VIDEO_INFO_FORMAT(&in_info) == GST_VIDEO_FORMAT_YUY2)
        return nullptr;
    // Sideways turns need the same subsampling across and down.
    if (SwapsSides(rotation) && finfo->w_sub[1] != finfo->h_sub[1])
        return nullptr;
    GstVideoInfo out_info;
    const int width = GST_VIDEO_INFO_WIDTH(&in_info);
    const int height = GST_VIDEO_INFO_HEIGHT(&in_info);
    gst_video_info_set_format(&out_info, GST_VIDEO_INFO_FORMAT(&in_info),
        SwapsSides(rotation) ? height : width, SwapsSides(rotation) ? width : height);
    GstBufferPtr rotated(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&out_info), nullptr));
    {
        MappedVideoFrame in(&in_info, buffer, GST_MAP_READ);
        MappedVideoFrame out(&out_info, rotated.get(), GST_MAP_WRITE);
        if (!in.Ok() || !out.Ok())
            return nullptr;
        for (guint p = 0; p < GST_VIDEO_INFO_N_PLANES(&in_info); ++p) {
            gint comps[GST_VIDEO_MAX_COMPONENTS];
            gst_video_format_info_component(finfo, p, comps);
            const int pixel = GST_VIDEO_FRAME_COMP_PSTRIDE(in.Get(), comps[0]);
            const int plane_width = GST_VIDEO_FRAME_COMP_WIDTH(in.Get(), comps[0]);
            const int plane_height = GST_VIDEO_FRAME_COMP_HEIGHT(in.Get(), comps[0]);
            const int out_width = GST_VIDEO_FRAME_COMP_WIDTH(out.Get(), comps[0]);
            const int out_height = GST_VIDEO_FRAME_COMP_HEIGHT(out.Get(), comps[0]);
            const auto* src = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(in.Get(), p));
            auto* dst = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(out.Get(), p));
            const int src_stride = GST_VIDEO_FRAME_PLANE_STRIDE(in.Get(), p);
            const int dst_stride = GST_VIDEO_FRAME_PLANE_STRIDE(out.Get(), p);
            for (int y = 0; y < out_height; ++y) {
                for (int x = 0; x < out_width; ++x) {
                    int sx = 0, sy = 0;
                    SourcePixel(rotation, x, y, plane_width, plane_height, &sx, &sy);
                    memcpy(dst + y * dst_stride + x * pixel, src + sy * src_stride + sx * pixel,
                        static_cast<size_t>(pixel));
                }
            }
        }
    }
    gst_buffer_copy_into(rotated.get(), buffer, GST_BUFFER_COPY_METADATA, 0, static_cast<gsize>(-1));
    g_autoptr(GstCaps) out_caps = gst_video_info_to_caps(&out_info);
    return GstSamplePtr(gst_sample_new(rotated.get(), out_caps, segment, nullptr));
}

GstFlowReturn Render(GstBaseSink* sink, GstBuffer* buffer)
{
    State* s = IMX_IPU_VIDEO_SINK(sink)->state;
    GST_OBJECT_LOCK(sink);
    const gint rotation = s->rotation;
    const bool drop = s->drop_frames;
    GST_OBJECT_UNLOCK(sink);
    GstSamplePtr shown;
    if (!drop) {
        g_autoptr(GstCaps) caps = gst_pad_get_current_caps(GST_BASE_SINK_PAD(sink));
        if (rotation != kRotationNone)
            shown = RotatedSample(buffer, caps, &sink->segment, rotation);
        if (!shown)
            shown.reset(gst_sample_new(buffer, caps, &sink->segment, nullptr));
    }
    GST_OBJECT_LOCK(sink);
    if (drop) {
        ++s->frames_dropped;
    } else {
        ++s->frames_shown;
        s->last_sample.swap(shown);
    }
    GST_OBJECT_UNLOCK(sink);
    return GST_FLOW_OK;
}

gboolean Start(GstBaseSink* sink)
{
    State* s = IMX_IPU_VIDEO_SINK(sink)->state;
    GST_OBJECT_LOCK(sink);
    s->frames_shown = 0;
    s->frames_dropped = 0;
    s->last_sample.reset();
    GST_OBJECT_UNLOCK(sink);
    return TRUE;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    State* s = IMX_IPU_VIDEO_SINK(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_OUTPUT_ROTATION:
        s->rotation = g_value_get_int(value);
        break;
    case PROP_DROP_FRAMES:
        s->drop_frames = g_value_get_boolean(value);
        break;
    case PROP_USE_VSYNC:
        s->use_vsync = g_value_get_boolean(value);
        break;
    case PROP_FORCE_ASPECT_RATIO:
        s->force_aspect_ratio = g_value_get_boolean(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    State* s = IMX_IPU_VIDEO_SINK(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_OUTPUT_ROTATION:
        g_value_set_int(value, s->rotation);
        break;
    case PROP_DROP_FRAMES:
        g_value_set_boolean(value, s->drop_frames);
        break;
    case PROP_USE_VSYNC:
        g_value_set_boolean(value, s->use_vsync);
        break;
    case PROP_FORCE_ASPECT_RATIO:
        g_value_set_boolean(value, s->force_aspect_ratio);
        break;
    case PROP_FRAMES_SHOWN:
        g_value_set_uint64(value, s->frames_shown);
        break;
    case PROP_FRAMES_DROPPED:
        g_value_set_uint64(value, s->frames_dropped);
        break;
    case PROP_LAST_SAMPLE:
        g_value_set_boxed(value, s->last_sample.get());
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void Finalize(GObject* object)
{
    delete IMX_IPU_VIDEO_SINK(object)->state;
    G_OBJECT_CLASS(imx_ipu_video_sink_parent_class)->finalize(object);
}

} // namespace

static void imx_ipu_video_sink_class_init(ImxIpuVideoSinkClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(imx_ipu_video_sink_debug, "imxipuvideosink", 0, "i.MX IPU display stand-in");
    auto* gobject_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    auto* basesink_class = GST_BASE_SINK_CLASS(klass);

    gobject_class->set_property = SetProperty;
    gobject_class->get_property = GetProperty;
    gobject_class->finalize = Finalize;

    const auto flags
        = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    const auto read_only = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(gobject_class, PROP_OUTPUT_ROTATION,
        g_param_spec_int("output-rotation", "Output rotation",
            "0: none, 1: 90 degrees clockwise, 2: 180 degrees, 3: 90 degrees counter-clockwise, "
            "4: horizontal flip, 5: vertical flip, 6: upper-left diagonal, 7: upper-right diagonal",
            kRotationNone, kRotationMax, kRotationNone, flags));
    g_object_class_install_property(gobject_class, PROP_DROP_FRAMES,
        g_param_spec_boolean("drop-frames", "Drop frames", "Take frames without showing them", FALSE, flags));
    g_object_class_install_property(gobject_class, PROP_USE_VSYNC,
        g_param_spec_boolean("use-vsync", "Use vsync", "Show frames on the vertical blanking", FALSE, flags));
    g_object_class_install_property(gobject_class, PROP_FORCE_ASPECT_RATIO,
        g_param_spec_boolean("force-aspect-ratio", "Force aspect ratio",
            "Keep the picture's aspect ratio instead of stretching it to the panel", TRUE, flags));
    g_object_class_install_property(gobject_class, PROP_FRAMES_SHOWN,
        g_param_spec_uint64("frames-shown", "Frames shown", "Number of frames shown since start", 0,
            G_MAXUINT64, 0, read_only));
    g_object_class_install_property(gobject_class, PROP_FRAMES_DROPPED,
        g_param_spec_uint64("frames-dropped", "Frames dropped",
            "Number of frames taken but not shown because of drop-frames", 0, G_MAXUINT64, 0, read_only));
    // The base class's last sample is replaced by the last frame really shown.
    g_object_class_override_property(gobject_class, PROP_LAST_SAMPLE, "last-sample");

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_set_static_metadata(element_class, "i.MX IPU video sink (stand-in)", "Sink/Video",
        "Counts the frames shown and keeps the last one", "videod");

    basesink_class->render = Render;
    basesink_class->start = Start;
}

static void imx_ipu_video_sink_init(ImxIpuVideoSink* self)
{
    self->state = new State();
    auto* sink = GST_BASE_SINK(self);
    gst_base_sink_set_last_sample_enabled(sink, FALSE);
    gst_base_sink_set_qos_enabled(sink, TRUE);
    gst_base_sink_set_max_lateness(sink, 20 * GST_MSECOND);
}
