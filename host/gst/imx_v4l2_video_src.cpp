// imxv4l2videosrc: a live source standing in for the analogue capture of the
// i.MX board. It paces itself on the pipeline clock, draws a moving picture
// whose two fields are taken half a frame apart (as an interlaced camera
// does), and carries the configured crop window as GstVideoCropMeta.
// Interleaved frames are flagged as the capture driver's field order gives
// them: the 525-line standard (NTSC) sends the bottom field first, the
// 625-line one (PAL, 25 frames/s) the top field.
//
// Example: gst-launch-1.0 imxv4l2videosrc fps=30000/1001 crop-meta-x=24
//   crop-meta-y=24 crop-meta-width=672 crop-meta-height=504 !
//   video/x-raw,format=UYVY,width=720,height=504,interlace-mode=interleaved ! fakesink
#include "imx_v4l2_video_src.h"

#include "common/gst_ptr.h"
#include "common/gst_video_ptr.h"

#include <gst/video/video.h>

#include <algorithm>
#include <cstring>
#include <string>

using namespace VideoDaemon;

GST_DEBUG_CATEGORY_STATIC(imx_v4l2_video_src_debug);
#define GST_CAT_DEFAULT imx_v4l2_video_src_debug

namespace
{

constexpr const char* kDefaultDevice = "/dev/video0";
constexpr gint kDefaultFpsN = 30;
constexpr gint kDefaultFpsD = 1;

GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string)UYVY, width=(int)[16, 1920], height=(int)[16, 1080], "
                    "framerate=(fraction)[1/1, 120/1], "
                    "interlace-mode=(string){ interleaved, progressive }"));

enum {
    PROP_0,
    PROP_DEVICE,
    PROP_FPS,
    PROP_CROP_META_X,
    PROP_CROP_META_Y,
    PROP_CROP_META_WIDTH,
    PROP_CROP_META_HEIGHT,
};

// BT.601 studio-range colour bars: white, yellow, cyan, green, magenta, red, blue, black.
struct Yuv {
    guint8 y, u, v;
};
constexpr Yuv kBars[] = { { 235, 128, 128 }, { 210, 16, 146 }, { 170, 166, 16 }, { 145, 54, 34 },
    { 106, 202, 222 }, { 81, 90, 240 }, { 41, 240, 110 }, { 16, 128, 128 } };
constexpr Yuv kBox = { 235, 128, 128 };
constexpr int kBoxSize = 64;

struct State {
    std::string device = kDefaultDevice;
    gint fps_n = kDefaultFpsN;
    gint fps_d = kDefaultFpsD;
    gint crop_x = 0, crop_y = 0, crop_width = 0, crop_height = 0;

    GstVideoInfo info {};
    bool have_info = false;
    guint64 frame_number = 0;
    GstClockTime next_time = GST_CLOCK_TIME_NONE; // running time of the next capture
    GstClockID wait_id = nullptr;
    bool flushing = false;
};

} // namespace

struct _ImxV4l2VideoSrc {
    GstPushSrc parent;
    State* state;
};

G_DEFINE_TYPE(ImxV4l2VideoSrc, imx_v4l2_video_src, GST_TYPE_PUSH_SRC);
GST_ELEMENT_REGISTER_DEFINE(imxv4l2videosrc, "imxv4l2videosrc", GST_RANK_NONE, IMX_TYPE_V4L2_VIDEO_SRC);

namespace
{

// Draws one line of the picture: bars scrolling left and a box moving diagonally.
void DrawLine(guint8* line, int width, int y, int height, guint64 phase)
{
    const int bar_width = std::max(2, width / 8);
    const int box_x = static_cast<int>((phase * 4) % static_cast<guint64>(std::max(1, width - kBoxSize)));
    const int box_y = static_cast<int>((phase * 2) % static_cast<guint64>(std::max(1, height - kBoxSize)));
    const bool box_line = y >= box_y && y < box_y + kBoxSize;
    for (int x = 0; x + 1 < width; x += 2) {
        const int bar = ((x + static_cast<int>(phase * 2)) / bar_width) % 8;
        const bool in_box = box_line && x >= box_x && x < box_x + kBoxSize;
        const Yuv& c = in_box ? kBox : kBars[bar];
        guint8* p = line + x * 2;
        p[0] = c.u;
        p[1] = in_box ? c.y : static_cast<guint8>(c.y - (y * 16) / height);
        p[2] = c.v;
        p[3] = p[1];
    }
}

enum class Fields { Progressive, TopFirst, BottomFirst };

// Frame rates below 27/s are the 625-line standard's.
Fields FieldOrder(const GstVideoInfo* info)
{
    if (!GST_VIDEO_INFO_IS_INTERLACED(info))
        return Fields::Progressive;
    const bool six_twenty_five
        = GST_VIDEO_INFO_FPS_N(info) > 0 && GST_VIDEO_INFO_FPS_N(info) < 27 * GST_VIDEO_INFO_FPS_D(info);
    return six_twenty_five ? Fields::TopFirst : Fields::BottomFirst;
}

void DrawPicture(GstVideoFrame* frame, guint64 frame_number, Fields fields)
{
    const int width = GST_VIDEO_FRAME_WIDTH(frame);
    const int height = GST_VIDEO_FRAME_HEIGHT(frame);
    const int stride = GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0);
    auto* data = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(frame, 0));
    // Even lines are the top field. The second field is captured half a frame after the first.
    const int second_field = fields == Fields::TopFirst ? 1 : 0;
    for (int y = 0; y < height; ++y) {
        const bool later = fields != Fields::Progressive && (y & 1) == second_field;
        const guint64 phase = frame_number * 2 + (later ? 1 : 0);
        DrawLine(data + static_cast<gsize>(y) * stride, width, y, height, phase);
    }
}

GstClockTime FrameDuration(const State* state)
{
    gint n = state->fps_n, d = state->fps_d;
    if (state->have_info && GST_VIDEO_INFO_FPS_N(&state->info) > 0) {
        n = GST_VIDEO_INFO_FPS_N(&state->info);
        d = GST_VIDEO_INFO_FPS_D(&state->info);
    }
    if (n <= 0)
        return GST_SECOND / 30;
    return gst_util_uint64_scale_int(GST_SECOND, d, n);
}

// Waits on the pipeline clock until the running time of the next capture.
GstFlowReturn WaitForCapture(ImxV4l2VideoSrc* self, GstClockTime* capture_time)
{
    State* s = self->state;
    const GstClockTime duration = FrameDuration(s);
    GstPtr<GstClock> clock(gst_element_get_clock(GST_ELEMENT(self)));
    if (!clock) {
        g_usleep(duration / GST_USECOND);
        *capture_time = s->frame_number * duration;
        return GST_FLOW_OK;
    }
    const GstClockTime base_time = gst_element_get_base_time(GST_ELEMENT(self));
    const GstClockTime now = gst_clock_get_time(clock.get()) - base_time;
    GST_OBJECT_LOCK(self);
    if (s->flushing) {
        GST_OBJECT_UNLOCK(self);
        return GST_FLOW_FLUSHING;
    }
    // Start on the current time, and skip frames a slow consumer could not take.
    if (!GST_CLOCK_TIME_IS_VALID(s->next_time) || now > s->next_time + duration)
        s->next_time = now;
    const GstClockTime target = s->next_time;
    GstClockIdPtr id(gst_clock_new_single_shot_id(clock.get(), base_time + target));
    s->wait_id = id.get();
    GST_OBJECT_UNLOCK(self);

    const GstClockReturn result = gst_clock_id_wait(id.get(), nullptr);

    GST_OBJECT_LOCK(self);
    s->wait_id = nullptr;
    const bool flushing = s->flushing;
    GST_OBJECT_UNLOCK(self);
    if (flushing || result == GST_CLOCK_UNSCHEDULED)
        return GST_FLOW_FLUSHING;
    *capture_time = target;
    s->next_time = target + duration;
    return GST_FLOW_OK;
}

// The capture driver hands the window on as configured, without fitting it
// to the frame, and only when one of its values is set.
void AddCropMeta(const State* s, GstBuffer* buffer)
{
    if (s->crop_x == 0 && s->crop_y == 0 && s->crop_width == 0 && s->crop_height == 0)
        return;
    GstVideoCropMeta* crop = gst_buffer_add_video_crop_meta(buffer);
    crop->x = static_cast<guint>(s->crop_x);
    crop->y = static_cast<guint>(s->crop_y);
    crop->width = static_cast<guint>(s->crop_width);
    crop->height = static_cast<guint>(s->crop_height);
}

GstFlowReturn Create(GstPushSrc* src, GstBuffer** out)
{
    auto* self = IMX_V4L2_VIDEO_SRC(src);
    State* s = self->state;
    if (!s->have_info)
        return GST_FLOW_NOT_NEGOTIATED;

    GstClockTime capture_time = 0;
    const GstFlowReturn waited = WaitForCapture(self, &capture_time);
    if (waited != GST_FLOW_OK)
        return waited;

    GstBufferPtr buffer(gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&s->info), nullptr));
    const Fields fields = FieldOrder(&s->info);
    {
        MappedVideoFrame frame(&s->info, buffer.get(), GST_MAP_WRITE);
        if (!frame.Ok())
            return GST_FLOW_ERROR;
        DrawPicture(frame.Get(), s->frame_number, fields);
    }
    GST_OBJECT_LOCK(self);
    AddCropMeta(s, buffer.get());
    GST_OBJECT_UNLOCK(self);
    if (fields != Fields::Progressive)
        GST_BUFFER_FLAG_SET(buffer.get(), GST_VIDEO_BUFFER_FLAG_INTERLACED);
    if (fields == Fields::TopFirst)
        GST_BUFFER_FLAG_SET(buffer.get(), GST_VIDEO_BUFFER_FLAG_TFF);
    GST_BUFFER_PTS(buffer.get()) = capture_time;
    GST_BUFFER_DURATION(buffer.get()) = FrameDuration(s);
    GST_BUFFER_OFFSET(buffer.get()) = s->frame_number;
    GST_BUFFER_OFFSET_END(buffer.get()) = s->frame_number + 1;
    ++s->frame_number;
    *out = buffer.release();
    return GST_FLOW_OK;
}

gboolean SetCaps(GstBaseSrc* src, GstCaps* caps)
{
    State* s = IMX_V4L2_VIDEO_SRC(src)->state;
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps))
        return FALSE;
    s->info = info;
    s->have_info = true;
    return TRUE;
}

GstCaps* Fixate(GstBaseSrc* src, GstCaps* caps)
{
    State* s = IMX_V4L2_VIDEO_SRC(src)->state;
    caps = gst_caps_make_writable(caps);
    GstStructure* structure = gst_caps_get_structure(caps, 0);
    gst_structure_fixate_field_nearest_int(structure, "width", 720);
    gst_structure_fixate_field_nearest_int(structure, "height", 576);
    GST_OBJECT_LOCK(src);
    gst_structure_fixate_field_nearest_fraction(structure, "framerate", s->fps_n, s->fps_d);
    GST_OBJECT_UNLOCK(src);
    gst_structure_fixate_field_string(structure, "interlace-mode", "interleaved");
    return GST_BASE_SRC_CLASS(imx_v4l2_video_src_parent_class)->fixate(src, caps);
}

gboolean Start(GstBaseSrc* src)
{
    State* s = IMX_V4L2_VIDEO_SRC(src)->state;
    s->frame_number = 0;
    s->next_time = GST_CLOCK_TIME_NONE;
    return TRUE;
}

gboolean Unlock(GstBaseSrc* src)
{
    State* s = IMX_V4L2_VIDEO_SRC(src)->state;
    GST_OBJECT_LOCK(src);
    s->flushing = true;
    if (s->wait_id)
        gst_clock_id_unschedule(s->wait_id);
    GST_OBJECT_UNLOCK(src);
    return TRUE;
}

gboolean UnlockStop(GstBaseSrc* src)
{
    State* s = IMX_V4L2_VIDEO_SRC(src)->state;
    GST_OBJECT_LOCK(src);
    s->flushing = false;
    s->next_time = GST_CLOCK_TIME_NONE;
    GST_OBJECT_UNLOCK(src);
    return TRUE;
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    State* s = IMX_V4L2_VIDEO_SRC(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_DEVICE: {
        const char* device = g_value_get_string(value);
        s->device = device ? device : kDefaultDevice;
        break;
    }
    case PROP_FPS:
        s->fps_n = gst_value_get_fraction_numerator(value);
        s->fps_d = gst_value_get_fraction_denominator(value);
        break;
    case PROP_CROP_META_X:
        s->crop_x = g_value_get_int(value);
        break;
    case PROP_CROP_META_Y:
        s->crop_y = g_value_get_int(value);
        break;
    case PROP_CROP_META_WIDTH:
        s->crop_width = g_value_get_int(value);
        break;
    case PROP_CROP_META_HEIGHT:
        s->crop_height = g_value_get_int(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    State* s = IMX_V4L2_VIDEO_SRC(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_DEVICE:
        g_value_set_string(value, s->device.c_str());
        break;
    case PROP_FPS:
        gst_value_set_fraction(value, s->fps_n, s->fps_d);
        break;
    case PROP_CROP_META_X:
        g_value_set_int(value, s->crop_x);
        break;
    case PROP_CROP_META_Y:
        g_value_set_int(value, s->crop_y);
        break;
    case PROP_CROP_META_WIDTH:
        g_value_set_int(value, s->crop_width);
        break;
    case PROP_CROP_META_HEIGHT:
        g_value_set_int(value, s->crop_height);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void Finalize(GObject* object)
{
    delete IMX_V4L2_VIDEO_SRC(object)->state;
    G_OBJECT_CLASS(imx_v4l2_video_src_parent_class)->finalize(object);
}

GParamSpec* CropSpec(const char* name, const char* nick, const char* blurb)
{
    return g_param_spec_int(name, nick, blurb, 0, G_MAXINT, 0,
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING));
}

} // namespace

static void imx_v4l2_video_src_class_init(ImxV4l2VideoSrcClass* klass)
{
    GST_DEBUG_CATEGORY_INIT(imx_v4l2_video_src_debug, "imxv4l2videosrc", 0, "i.MX capture stand-in");
    auto* gobject_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    auto* basesrc_class = GST_BASE_SRC_CLASS(klass);
    auto* pushsrc_class = GST_PUSH_SRC_CLASS(klass);

    gobject_class->set_property = SetProperty;
    gobject_class->get_property = GetProperty;
    gobject_class->finalize = Finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(gobject_class, PROP_DEVICE,
        g_param_spec_string(
            "device", "Device", "Capture device node (not opened on a PC)", kDefaultDevice, flags));
    g_object_class_install_property(gobject_class, PROP_FPS,
        gst_param_spec_fraction(
            "fps", "Frame rate", "Capture frame rate", 1, 1, 120, 1, kDefaultFpsN, kDefaultFpsD, flags));
    g_object_class_install_property(
        gobject_class, PROP_CROP_META_X, CropSpec("crop-meta-x", "Crop X", "Left edge of the crop window"));
    g_object_class_install_property(
        gobject_class, PROP_CROP_META_Y, CropSpec("crop-meta-y", "Crop Y", "Top edge of the crop window"));
    g_object_class_install_property(gobject_class, PROP_CROP_META_WIDTH,
        CropSpec("crop-meta-width", "Crop width", "Width of the crop window"));
    g_object_class_install_property(gobject_class, PROP_CROP_META_HEIGHT,
        CropSpec("crop-meta-height", "Crop height", "Height of the crop window"));

    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "i.MX V4L2 video source (stand-in)", "Source/Video",
        "Live moving test picture with the capture crop window as metadata", "videod");

    basesrc_class->set_caps = SetCaps;
    basesrc_class->fixate = Fixate;
    basesrc_class->start = Start;
    basesrc_class->unlock = Unlock;
    basesrc_class->unlock_stop = UnlockStop;
    pushsrc_class->create = Create;
}

static void imx_v4l2_video_src_init(ImxV4l2VideoSrc* self)
{
    self->state = new State();
    gst_base_src_set_live(GST_BASE_SRC(self), TRUE);
    gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}
