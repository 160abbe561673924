// imxipuvideotransform: converts colour format and scales to whatever the
// downstream caps ask, as the IPU does on the board, using GStreamer's video
// converter. With "input-crop" it reads only the window given by the buffer's
// crop metadata; with "deinterlace" it removes the combing of interleaved
// input by one of three "deinterlace-method" values (an enum, default 1):
//   0 low-motion:    weave, both fields kept as one frame
//   1 high-motion:   the first field alone, interpolated to full height
//   2 medium-motion: the average of the two fields, each interpolated
// Which field comes first is read from each buffer's field flags: TFF set
// means the top field, otherwise the bottom one, as the IPU is told.
//
// Example: gst-launch-1.0 imxv4l2videosrc ! imxipuvideotransform deinterlace=true
//   input-crop=true ! video/x-raw,format=RGBA,width=640,height=480 ! fakesink
#include "imx_ipu_video_transform.h"

#include "common/gst_ptr.h"
#include "common/gst_video_ptr.h"

#include <algorithm>
#include <tuple>

using namespace VideoDaemon;

GST_DEBUG_CATEGORY_STATIC(imx_ipu_video_transform_debug);
#define GST_CAT_DEFAULT imx_ipu_video_transform_debug

namespace
{

#define IMX_IPU_FORMATS                                                                                      \
    "{ RGBA, BGRA, RGBx, BGRx, ARGB, ABGR, xRGB, xBGR, RGB, BGR, RGB16, I420, YV12, NV12, NV21, Y42B, "      \
    "Y444, "                                                                                                 \
    "UYVY, YUY2, GRAY8 }"
#define IMX_IPU_CAPS GST_VIDEO_CAPS_MAKE(IMX_IPU_FORMATS)

GstStaticPadTemplate sink_template
    = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(IMX_IPU_CAPS));
GstStaticPadTemplate src_template
    = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(IMX_IPU_CAPS));

enum {
    PROP_0,
    PROP_INPUT_CROP,
    PROP_DEINTERLACE,
    PROP_DEINTERLACE_METHOD,
};

enum class Picture { Frame, TopField, BottomField };

constexpr gint kMethodLowMotion = 0;
constexpr gint kMethodHighMotion = 1;
constexpr gint kMethodMediumMotion = 2;

GType DeinterlaceMethodType()
{
    static GType type = 0;
    if (g_once_init_enter(&type)) {
        static const GEnumValue values[] = {
            { kMethodLowMotion, "Low motion: weave the two fields", "low-motion" },
            { kMethodHighMotion, "High motion: interpolate the first field", "high-motion" },
            { kMethodMediumMotion, "Medium motion: average the two interpolated fields", "medium-motion" },
            { 0, nullptr, nullptr },
        };
        g_once_init_leave(&type, g_enum_register_static("ImxIpuDeinterlaceMethod", values));
    }
    return type;
}

struct Window {
    int x, y, width, height;
    bool operator==(const Window& o) const
    {
        return std::tie(x, y, width, height) == std::tie(o.x, o.y, o.width, o.height);
    }
};

// One converter per (picture, window): both rarely change within a stream.
struct CachedConverter {
    Picture picture = Picture::Frame;
    Window window {};
    bool weave = false;
    GstVideoConverterPtr converter;
};

struct State {
    bool input_crop = false;
    bool deinterlace = false;
    gint method = kMethodHighMotion;

    bool interlaced_input = false;
    CachedConverter cache[2];
};

} // namespace

struct _ImxIpuVideoTransform {
    GstVideoFilter parent;
    State* state;
};

G_DEFINE_TYPE(ImxIpuVideoTransform, imx_ipu_video_transform, GST_TYPE_VIDEO_FILTER);
GST_ELEMENT_REGISTER_DEFINE(
    imxipuvideotransform, "imxipuvideotransform", GST_RANK_NONE, IMX_TYPE_IPU_VIDEO_TRANSFORM);

namespace
{

GstCaps* TransformCaps(
    GstBaseTransform* /*trans*/, GstPadDirection /*direction*/, GstCaps* caps, GstCaps* filter)
{
    if (gst_caps_is_any(caps))
        return filter ? gst_caps_ref(filter) : gst_caps_new_any();
    GstCaps* result = gst_caps_new_empty();
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        GstStructure* structure = gst_structure_copy(gst_caps_get_structure(caps, i));
        gst_structure_remove_fields(structure, "format", "width", "height", "pixel-aspect-ratio",
            "colorimetry", "chroma-site", "interlace-mode", "field-order", "device-mode", nullptr);
        result = gst_caps_merge_structure(result, structure);
    }
    if (!filter)
        return result;
    g_autoptr(GstCaps) unfiltered = result;
    return gst_caps_intersect_full(filter, unfiltered, GST_CAPS_INTERSECT_FIRST);
}

// Keeps whatever the input has where downstream leaves a choice, so that
// equal caps on both sides end in pass-through.
GstCaps* FixateCaps(GstBaseTransform* trans, GstPadDirection /*direction*/, GstCaps* caps, GstCaps* othercaps)
{
    othercaps = gst_caps_truncate(othercaps);
    othercaps = gst_caps_make_writable(othercaps);
    const GstStructure* in = gst_caps_get_structure(caps, 0);
    GstStructure* out = gst_caps_get_structure(othercaps, 0);
    gint value = 0, num = 0, den = 0;
    if (const char* format = gst_structure_get_string(in, "format"))
        gst_structure_fixate_field_string(out, "format", format);
    if (gst_structure_get_int(in, "width", &value))
        gst_structure_fixate_field_nearest_int(out, "width", value);
    if (gst_structure_get_int(in, "height", &value))
        gst_structure_fixate_field_nearest_int(out, "height", value);
    if (gst_structure_get_fraction(in, "framerate", &num, &den))
        gst_structure_fixate_field_nearest_fraction(out, "framerate", num, den);
    // The picture is stretched to the output size, square pixels unless told otherwise.
    if (gst_structure_has_field(out, "pixel-aspect-ratio"))
        gst_structure_fixate_field_nearest_fraction(out, "pixel-aspect-ratio", 1, 1);
    else
        gst_structure_set(out, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
    State* s = IMX_IPU_VIDEO_TRANSFORM(trans)->state;
    GST_OBJECT_LOCK(trans);
    const bool deinterlace = s->deinterlace;
    GST_OBJECT_UNLOCK(trans);
    if (const char* mode = gst_structure_get_string(in, "interlace-mode")) {
        if (!deinterlace && !gst_structure_has_field(out, "interlace-mode"))
            gst_structure_set(out, "interlace-mode", G_TYPE_STRING, mode, nullptr);
    }
    return gst_caps_fixate(othercaps);
}

bool WantsPassthrough(GstBaseTransform* trans)
{
    auto* filter = GST_VIDEO_FILTER(trans);
    State* s = IMX_IPU_VIDEO_TRANSFORM(trans)->state;
    if (!filter->negotiated)
        return false;
    GST_OBJECT_LOCK(trans);
    const bool crop = s->input_crop;
    const bool deinterlace = s->deinterlace && s->interlaced_input;
    GST_OBJECT_UNLOCK(trans);
    return gst_video_info_is_equal(&filter->in_info, &filter->out_info) && !crop && !deinterlace;
}

// The base class stores the new infos only after this returns.
gboolean SetInfo(GstVideoFilter* filter, GstCaps* /*incaps*/, GstVideoInfo* in_info, GstCaps* /*outcaps*/,
    GstVideoInfo* out_info)
{
    State* s = IMX_IPU_VIDEO_TRANSFORM(filter)->state;
    for (auto& entry : s->cache)
        entry.converter.reset();
    const bool same = gst_video_info_is_equal(in_info, out_info);
    GST_OBJECT_LOCK(filter);
    s->interlaced_input = GST_VIDEO_INFO_INTERLACE_MODE(in_info) != GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
    const bool plain = !s->input_crop && !(s->deinterlace && s->interlaced_input);
    GST_OBJECT_UNLOCK(filter);
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(filter), same && plain);
    return TRUE;
}

// Describes one field of an interleaved frame as a frame of half the height.
GstVideoInfo FieldInfo(const GstVideoInfo* frame_info)
{
    GstVideoInfo field = *frame_info;
    GST_VIDEO_INFO_INTERLACE_MODE(&field) = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
    GST_VIDEO_INFO_HEIGHT(&field) = GST_VIDEO_INFO_HEIGHT(frame_info) / 2;
    for (guint p = 0; p < GST_VIDEO_INFO_N_PLANES(frame_info); ++p)
        GST_VIDEO_INFO_PLANE_STRIDE(&field, p) = GST_VIDEO_INFO_PLANE_STRIDE(frame_info, p) * 2;
    return field;
}

// The converter follows the frame's interlaced flag, so a picture read as
// progressive must not carry it.
GstVideoFrame ProgressiveFrame(const GstVideoFrame* frame, Picture picture)
{
    GstVideoFrame field = *frame;
    field.flags = static_cast<GstVideoFrameFlags>(field.flags
        & ~(GST_VIDEO_FRAME_FLAG_INTERLACED | GST_VIDEO_FRAME_FLAG_TFF | GST_VIDEO_FRAME_FLAG_RFF
            | GST_VIDEO_FRAME_FLAG_ONEFIELD));
    if (picture == Picture::Frame) {
        GST_VIDEO_INFO_INTERLACE_MODE(&field.info) = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
        return field;
    }
    field.info = FieldInfo(&frame->info);
    if (picture == Picture::BottomField) {
        for (guint p = 0; p < GST_VIDEO_FRAME_N_PLANES(frame); ++p)
            field.data[p] = static_cast<guint8*>(frame->data[p]) + GST_VIDEO_FRAME_PLANE_STRIDE(frame, p);
    }
    return field;
}

GstVideoConverter* ConverterFor(ImxIpuVideoTransform* self, Picture picture, const Window& window, bool weave,
    const GstVideoInfo* in_info, const GstVideoInfo* out_info)
{
    State* s = self->state;
    const size_t slot = picture == Picture::BottomField ? 1 : 0;
    CachedConverter& entry = s->cache[slot];
    if (entry.converter && entry.picture == picture && entry.window == window && entry.weave == weave)
        return entry.converter.get();

    GstVideoInfo source = picture == Picture::Frame ? *in_info : FieldInfo(in_info);
    Window area = window;
    if (picture != Picture::Frame) {
        area.y /= 2;
        area.height = std::max(1, area.height / 2);
    } else if (weave) {
        // Weave: both fields are read as one progressive picture.
        GST_VIDEO_INFO_INTERLACE_MODE(&source) = GST_VIDEO_INTERLACE_MODE_PROGRESSIVE;
    }
    GstStructure* config = gst_structure_new("GstVideoConverter", GST_VIDEO_CONVERTER_OPT_SRC_X, G_TYPE_INT,
        area.x, GST_VIDEO_CONVERTER_OPT_SRC_Y, G_TYPE_INT, area.y, GST_VIDEO_CONVERTER_OPT_SRC_WIDTH,
        G_TYPE_INT, area.width, GST_VIDEO_CONVERTER_OPT_SRC_HEIGHT, G_TYPE_INT, area.height,
        // Bilinear scaling without dithering, as the IPU does; far cheaper than the defaults.
        GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
        GST_VIDEO_RESAMPLER_METHOD_LINEAR, GST_VIDEO_CONVERTER_OPT_CHROMA_RESAMPLER_METHOD,
        GST_TYPE_VIDEO_RESAMPLER_METHOD, GST_VIDEO_RESAMPLER_METHOD_LINEAR,
        GST_VIDEO_CONVERTER_OPT_DITHER_METHOD, GST_TYPE_VIDEO_DITHER_METHOD, GST_VIDEO_DITHER_NONE, nullptr);
    entry.converter.reset(gst_video_converter_new(&source, const_cast<GstVideoInfo*>(out_info), config));
    entry.picture = picture;
    entry.window = window;
    entry.weave = weave;
    return entry.converter.get();
}

Window CropWindow(GstBuffer* buffer, const GstVideoInfo* info, bool use_crop_meta)
{
    const int width = GST_VIDEO_INFO_WIDTH(info);
    const int height = GST_VIDEO_INFO_HEIGHT(info);
    Window window { 0, 0, width, height };
    const GstVideoCropMeta* crop = use_crop_meta ? gst_buffer_get_video_crop_meta(buffer) : nullptr;
    if (!crop || crop->width == 0 || crop->height == 0)
        return window;
    window.x = std::min(static_cast<int>(crop->x), width - 1);
    window.y = std::min(static_cast<int>(crop->y), height - 1);
    window.width = std::min(static_cast<int>(crop->width), width - window.x);
    window.height = std::min(static_cast<int>(crop->height), height - window.y);
    return window;
}

// Averages two pictures of the same layout, byte by byte (every format
// offered here has 8-bit components).
void Average(GstVideoFrame* into, GstVideoFrame* other)
{
    for (guint p = 0; p < GST_VIDEO_FRAME_N_PLANES(into); ++p) {
        gint comps[GST_VIDEO_MAX_COMPONENTS];
        gst_video_format_info_component(into->info.finfo, p, comps);
        const gsize rows = static_cast<gsize>(GST_VIDEO_FRAME_COMP_HEIGHT(into, comps[0]));
        const gsize row_bytes = static_cast<gsize>(GST_VIDEO_FRAME_COMP_WIDTH(into, comps[0]))
            * static_cast<gsize>(GST_VIDEO_FRAME_COMP_PSTRIDE(into, comps[0]));
        for (gsize y = 0; y < rows; ++y) {
            auto* a = static_cast<guint8*>(into->data[p]) + y * GST_VIDEO_FRAME_PLANE_STRIDE(into, p);
            auto* b = static_cast<guint8*>(other->data[p]) + y * GST_VIDEO_FRAME_PLANE_STRIDE(other, p);
            for (gsize x = 0; x < row_bytes; ++x)
                a[x] = static_cast<guint8>((a[x] + b[x] + 1) / 2);
        }
    }
}

GstFlowReturn TransformFrame(GstVideoFilter* filter, GstVideoFrame* in_frame, GstVideoFrame* out_frame)
{
    auto* self = IMX_IPU_VIDEO_TRANSFORM(filter);
    State* s = self->state;
    GST_OBJECT_LOCK(filter);
    const bool use_crop = s->input_crop;
    const bool deinterlace = s->deinterlace && s->interlaced_input;
    const gint method = s->method;
    GST_OBJECT_UNLOCK(filter);

    const Window window = CropWindow(in_frame->buffer, &filter->in_info, use_crop);
    if (!deinterlace || method == kMethodLowMotion) {
        GstVideoConverter* converter
            = ConverterFor(self, Picture::Frame, window, deinterlace, &filter->in_info, &filter->out_info);
        if (!converter)
            return GST_FLOW_NOT_NEGOTIATED;
        if (deinterlace) {
            GstVideoFrame woven = ProgressiveFrame(in_frame, Picture::Frame);
            gst_video_converter_frame(converter, &woven, out_frame);
        } else {
            gst_video_converter_frame(converter, in_frame, out_frame);
        }
        return GST_FLOW_OK;
    }

    const bool top_first = GST_VIDEO_FRAME_IS_TFF(in_frame);
    const Picture first = top_first ? Picture::TopField : Picture::BottomField;
    const Picture second = top_first ? Picture::BottomField : Picture::TopField;
    GstVideoConverter* first_converter
        = ConverterFor(self, first, window, true, &filter->in_info, &filter->out_info);
    if (!first_converter)
        return GST_FLOW_NOT_NEGOTIATED;
    GstVideoFrame first_field = ProgressiveFrame(in_frame, first);
    gst_video_converter_frame(first_converter, &first_field, out_frame);
    if (method == kMethodHighMotion)
        return GST_FLOW_OK;

    GstVideoConverter* second_converter
        = ConverterFor(self, second, window, true, &filter->in_info, &filter->out_info);
    if (!second_converter)
        return GST_FLOW_NOT_NEGOTIATED;
    GstBufferPtr scratch(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&filter->out_info), nullptr));
    MappedVideoFrame second_out(&filter->out_info, scratch.get(), GST_MAP_READWRITE);
    if (!second_out.Ok())
        return GST_FLOW_ERROR;
    GstVideoFrame second_field = ProgressiveFrame(in_frame, second);
    gst_video_converter_frame(second_converter, &second_field, second_out.Get());
    Average(out_frame, second_out.Get());
    return GST_FLOW_OK;
}

gboolean ProposeAllocation(GstBaseTransform* trans, GstQuery* decide_query, GstQuery* query)
{
    if (!GST_BASE_TRANSFORM_CLASS(imx_ipu_video_transform_parent_class)
             ->propose_allocation(trans, decide_query, query))
        return FALSE;
    if (!gst_base_transform_is_passthrough(trans))
        gst_query_add_allocation_meta(query, GST_VIDEO_CROP_META_API_TYPE, nullptr);
    return TRUE;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    State* s = IMX_IPU_VIDEO_TRANSFORM(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_INPUT_CROP:
        s->input_crop = g_value_get_boolean(value);
        break;
    case PROP_DEINTERLACE:
        s->deinterlace = g_value_get_boolean(value);
        break;
    case PROP_DEINTERLACE_METHOD:
        s->method = g_value_get_enum(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
    if (id == PROP_INPUT_CROP || id == PROP_DEINTERLACE) {
        auto* trans = GST_BASE_TRANSFORM(object);
        gst_base_transform_set_passthrough(trans, WantsPassthrough(trans));
    }
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    State* s = IMX_IPU_VIDEO_TRANSFORM(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_INPUT_CROP:
        g_value_set_boolean(value, s->input_crop);
        break;
    case PROP_DEINTERLACE:
        g_value_set_boolean(value, s->deinterlace);
        break;
    case PROP_DEINTERLACE_METHOD:
        g_value_set_enum(value, s->method);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void Finalize(GObject* object)
{
    delete IMX_IPU_VIDEO_TRANSFORM(object)->state;
    G_OBJECT_CLASS(imx_ipu_video_transform_parent_class)->finalize(object);
}

} // namespace

static void imx_ipu_video_transform_class_init(ImxIpuVideoTransformClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(
        imx_ipu_video_transform_debug, "imxipuvideotransform", 0, "i.MX IPU transform stand-in");
    auto* gobject_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    auto* trans_class = GST_BASE_TRANSFORM_CLASS(klass);
    auto* filter_class = GST_VIDEO_FILTER_CLASS(klass);

    gobject_class->set_property = SetProperty;
    gobject_class->get_property = GetProperty;
    gobject_class->finalize = Finalize;

    const auto flags
        = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(gobject_class, PROP_INPUT_CROP,
        g_param_spec_boolean(
            "input-crop", "Input crop", "Read only the window given by the crop metadata", FALSE, flags));
    g_object_class_install_property(gobject_class, PROP_DEINTERLACE,
        g_param_spec_boolean("deinterlace", "Deinterlace", "Deinterlace interleaved input", FALSE, flags));
    g_object_class_install_property(gobject_class, PROP_DEINTERLACE_METHOD,
        g_param_spec_enum("deinterlace-method", "Deinterlace method",
            "How the two fields of an interleaved frame become one progressive frame",
            DeinterlaceMethodType(), kMethodHighMotion, flags));

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "i.MX IPU video transform (stand-in)",
        "Filter/Converter/Video/Scaler",
        "Colour conversion, scaling, input crop and deinterlacing in software", "videod");

    trans_class->transform_caps = TransformCaps;
    trans_class->fixate_caps = FixateCaps;
    trans_class->propose_allocation = ProposeAllocation;
    filter_class->set_info = SetInfo;
    filter_class->transform_frame = TransformFrame;
}

static void imx_ipu_video_transform_init(ImxIpuVideoTransform* self)
{
    self->state = new State();
}
