// imxvpuenc_h264: real H.264 through x264, shaped like the VPU encoder: 4:2:0
// main profile, no B-frames and no look-ahead (one frame in, one access unit
// out), byte-stream with SPS/PPS before every IDR frame. "bitrate" in kbit/s,
// 0 meaning a constant quantiser "quant-param"; an I frame every "gop-size"
// frames (0: none but the IDR frames) and an IDR frame every "idr-interval"
// frames (0: only at the start).
// As on the VPU, the encoder is opened when the input format is set, and
// "gop-size" is read then. "bitrate" and "quant-param" act from the next
// frame on the open encoder (x264 is reconfigured, or the frame's quantiser
// forced), without an IDR frame; the IDR interval counts frames since the
// encoder was opened, whatever changes on the way.
//
// Example: gst-launch-1.0 videotestsrc ! video/x-raw,format=I420 !
//   imxvpuenc_h264 bitrate=0 quant-param=24 gop-size=16 idr-interval=16 ! h264parse ! fakesink
#include "imx_vpu_enc_h264.h"

#include "common/gst_video_ptr.h"

#include <gst/video/video.h>

#include <cstdint>
#include <memory>

extern "C" {
#include <x264.h>
}

using VideoDaemon::GstVideoCodecFramePtr;
using VideoDaemon::GstVideoCodecStatePtr;
using VideoDaemon::MappedVideoFrame;

GST_DEBUG_CATEGORY_STATIC(imx_vpu_enc_h264_debug);
#define GST_CAT_DEFAULT imx_vpu_enc_h264_debug

namespace
{

GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw, format=(string){ I420, NV12 }, width=(int)[16, 1920], "
                    "height=(int)[16, 1088], framerate=(fraction)[0/1, MAX]"));
GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-h264, stream-format=(string)byte-stream, "
                    "alignment=(string)au, profile=(string)main"));

enum {
    PROP_0,
    PROP_BITRATE,
    PROP_QUANT_PARAM,
    PROP_GOP_SIZE,
    PROP_IDR_INTERVAL,
};

constexpr guint kDefaultBitrate = 0;
constexpr guint kDefaultQuantParam = 0;
constexpr guint kDefaultGopSize = 16;
constexpr guint kDefaultIdrInterval = 0;
constexpr guint kMaxQuantParam = 51;
constexpr guint kMaxGopSize = 32767;
// Rate control is always opened with a bitrate so that a later "bitrate" can
// be applied to the running encoder. While "bitrate" is 0 every frame's
// quantiser is forced and the rate buffer runs at the most level 4 allows
// (the VPU's 1920x1088 need level 4), so it does not hold the quantiser back.
constexpr int kLevel = 40;
constexpr guint kNominalBitrate = 20000;

struct EncoderClose {
    void operator()(x264_t* encoder) const { x264_encoder_close(encoder); }
};
using EncoderPtr = std::unique_ptr<x264_t, EncoderClose>;

struct Settings {
    guint bitrate = kDefaultBitrate;
    guint quant_param = kDefaultQuantParam;
    guint gop_size = kDefaultGopSize;
    guint idr_interval = kDefaultIdrInterval;
};

struct State {
    Settings settings; // under the object lock

    GstVideoCodecStatePtr input; // the negotiated input
    EncoderPtr encoder;
    guint open_gop_size = kDefaultGopSize;
    guint applied_bitrate = 0; // what x264's rate control runs at
    guint64 frames_since_open = 0;
    bool caps_sent = false;
};

} // namespace

struct _ImxVpuEncH264 {
    GstVideoEncoder parent;
    State* state;
};

G_DEFINE_TYPE(ImxVpuEncH264, imx_vpu_enc_h264, GST_TYPE_VIDEO_ENCODER);
GST_ELEMENT_REGISTER_DEFINE(imxvpuenc_h264, "imxvpuenc_h264", GST_RANK_NONE, IMX_TYPE_VPU_ENC_H264);

namespace
{

bool OpenEncoder(ImxVpuEncH264* self, const Settings& settings)
{
    State* s = self->state;
    const GstVideoInfo* info = &s->input->info;
    x264_param_t param;
    if (x264_param_default_preset(&param, "veryfast", "zerolatency") < 0)
        return false;
    param.i_threads = 1;
    param.i_width = GST_VIDEO_INFO_WIDTH(info);
    param.i_height = GST_VIDEO_INFO_HEIGHT(info);
    param.i_csp = GST_VIDEO_INFO_FORMAT(info) == GST_VIDEO_FORMAT_NV12 ? X264_CSP_NV12 : X264_CSP_I420;
    param.i_fps_num = GST_VIDEO_INFO_FPS_N(info) > 0 ? GST_VIDEO_INFO_FPS_N(info) : 30;
    param.i_fps_den = GST_VIDEO_INFO_FPS_N(info) > 0 ? GST_VIDEO_INFO_FPS_D(info) : 1;
    param.b_vfr_input = 0;
    param.b_repeat_headers = 1;
    param.b_annexb = 1;
    param.i_log_level = X264_LOG_WARNING;
    // IDR and I frames are placed by handle_frame, never by scene cuts.
    param.i_keyint_max = X264_KEYINT_MAX_INFINITE;
    param.i_scenecut_threshold = 0;
    param.i_bframe = 0;
    // CABAC makes x264 signal main rather than baseline profile.
    param.b_cabac = 1;
    param.i_level_idc = kLevel;
    // x264 changes a running bitrate only under a rate buffer (VBV), one second long here.
    const guint bitrate = settings.bitrate > 0 ? settings.bitrate : kNominalBitrate;
    param.rc.i_rc_method = X264_RC_ABR;
    param.rc.i_bitrate = static_cast<int>(bitrate);
    param.rc.i_vbv_max_bitrate = static_cast<int>(bitrate);
    param.rc.i_vbv_buffer_size = static_cast<int>(bitrate);
    if (x264_param_apply_profile(&param, "main") < 0)
        return false;
    s->encoder.reset(x264_encoder_open(&param));
    s->open_gop_size = settings.gop_size;
    s->applied_bitrate = bitrate;
    s->frames_since_open = 0;
    return s->encoder != nullptr;
}

// A new "bitrate" goes to the running rate control, as the VPU is reconfigured.
void ApplyBitrate(ImxVpuEncH264* self, guint bitrate)
{
    State* s = self->state;
    if (bitrate == 0 || bitrate == s->applied_bitrate)
        return;
    x264_param_t param;
    x264_encoder_parameters(s->encoder.get(), &param);
    param.rc.i_bitrate = static_cast<int>(bitrate);
    param.rc.i_vbv_max_bitrate = static_cast<int>(bitrate);
    param.rc.i_vbv_buffer_size = static_cast<int>(bitrate);
    if (x264_encoder_reconfig(s->encoder.get(), &param) < 0)
        GST_WARNING_OBJECT(self, "x264 refused the bitrate %u kbit/s", bitrate);
    else
        s->applied_bitrate = bitrate;
}

GstFlowReturn PushEncoded(ImxVpuEncH264* self, x264_nal_t* nals, int nal_count, x264_picture_t* picture)
{
    auto* encoder = GST_VIDEO_ENCODER(self);
    State* s = self->state;
    gsize size = 0;
    for (int i = 0; i < nal_count; ++i)
        size += static_cast<gsize>(nals[i].i_payload);
    if (size == 0)
        return GST_FLOW_OK;
    // Frames are numbered in the picture's pts (no reordering without B-frames).
    GstVideoCodecFramePtr frame(gst_video_encoder_get_frame(encoder, static_cast<int>(picture->i_pts)));
    if (!frame)
        return GST_FLOW_OK;
    if (!s->caps_sent) {
        GstCaps* caps = gst_caps_new_simple("video/x-h264", "stream-format", G_TYPE_STRING, "byte-stream",
            "alignment", G_TYPE_STRING, "au", "profile", G_TYPE_STRING, "main", nullptr);
        GstVideoCodecStatePtr output(gst_video_encoder_set_output_state(encoder, caps, s->input.get()));
        if (!gst_video_encoder_negotiate(encoder))
            return GST_FLOW_NOT_NEGOTIATED;
        s->caps_sent = true;
    }
    // x264 lays the payloads out back to back.
    frame->output_buffer = gst_buffer_new_memdup(nals[0].p_payload, size);
    // Only IDR frames are points a decoder can start from; plain I frames are not.
    if (picture->i_type == X264_TYPE_IDR)
        GST_VIDEO_CODEC_FRAME_SET_SYNC_POINT(frame.get());
    else
        GST_VIDEO_CODEC_FRAME_UNSET_SYNC_POINT(frame.get());
    return gst_video_encoder_finish_frame(encoder, frame.release());
}

gboolean SetFormat(GstVideoEncoder* encoder, GstVideoCodecState* state)
{
    auto* self = IMX_VPU_ENC_H264(encoder);
    self->state->input.reset(gst_video_codec_state_ref(state));
    self->state->encoder.reset();
    self->state->caps_sent = false;
    gst_video_encoder_set_latency(encoder, 0, 0);
    return TRUE;
}

GstFlowReturn HandleFrame(GstVideoEncoder* encoder, GstVideoCodecFrame* codec_frame)
{
    auto* self = IMX_VPU_ENC_H264(encoder);
    State* s = self->state;
    GstVideoCodecFramePtr frame(codec_frame);

    GST_OBJECT_LOCK(self);
    const Settings settings = s->settings;
    GST_OBJECT_UNLOCK(self);
    if (!s->encoder && !OpenEncoder(self, settings)) {
        GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("Could not open the H.264 encoder"), (nullptr));
        return GST_FLOW_ERROR;
    }
    ApplyBitrate(self, settings.bitrate);

    const GstVideoInfo* info = &s->input->info;
    MappedVideoFrame mapped(info, frame->input_buffer, GST_MAP_READ);
    if (!mapped.Ok())
        return GST_FLOW_ERROR;
    GstVideoFrame& video = *mapped.Get();
    x264_picture_t picture;
    x264_picture_init(&picture);
    picture.img.i_csp = GST_VIDEO_INFO_FORMAT(info) == GST_VIDEO_FORMAT_NV12 ? X264_CSP_NV12 : X264_CSP_I420;
    picture.img.i_plane = static_cast<int>(GST_VIDEO_FRAME_N_PLANES(&video));
    for (int p = 0; p < picture.img.i_plane; ++p) {
        picture.img.plane[p] = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&video, p));
        picture.img.i_stride[p] = GST_VIDEO_FRAME_PLANE_STRIDE(&video, p);
    }
    picture.i_pts = static_cast<int64_t>(frame->system_frame_number);
    // Without a bitrate the frame is coded at the constant quantiser.
    if (settings.bitrate == 0)
        picture.i_qpplus1 = static_cast<int>(settings.quant_param) + 1;

    // A key-unit request adds an IDR frame; the interval keeps its own count.
    const guint64 n = s->frames_since_open++;
    const bool forced = GST_VIDEO_CODEC_FRAME_IS_FORCE_KEYFRAME(frame.get());
    if (n == 0 || forced || (settings.idr_interval > 0 && n % settings.idr_interval == 0))
        picture.i_type = X264_TYPE_IDR;
    else if (s->open_gop_size > 0 && n % s->open_gop_size == 0)
        picture.i_type = X264_TYPE_I;

    x264_nal_t* nals = nullptr;
    int nal_count = 0;
    x264_picture_t encoded;
    const int bytes = x264_encoder_encode(s->encoder.get(), &nals, &nal_count, &picture, &encoded);
    if (bytes < 0) {
        GST_ELEMENT_ERROR(self, STREAM, ENCODE, ("H.264 encoding failed"), (nullptr));
        return GST_FLOW_ERROR;
    }
    return PushEncoded(self, nals, nal_count, &encoded);
}

GstFlowReturn Finish(GstVideoEncoder* encoder)
{
    auto* self = IMX_VPU_ENC_H264(encoder);
    State* s = self->state;
    GstFlowReturn result = GST_FLOW_OK;
    while (s->encoder && result == GST_FLOW_OK && x264_encoder_delayed_frames(s->encoder.get()) > 0) {
        x264_nal_t* nals = nullptr;
        int nal_count = 0;
        x264_picture_t encoded;
        if (x264_encoder_encode(s->encoder.get(), &nals, &nal_count, nullptr, &encoded) < 0)
            return GST_FLOW_ERROR;
        result = PushEncoded(self, nals, nal_count, &encoded);
    }
    return result;
}

gboolean Stop(GstVideoEncoder* encoder)
{
    auto* self = IMX_VPU_ENC_H264(encoder);
    self->state->encoder.reset();
    self->state->caps_sent = false;
    self->state->input.reset();
    return TRUE;
}

gboolean ProposeAllocation(GstVideoEncoder* encoder, GstQuery* query)
{
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return GST_VIDEO_ENCODER_CLASS(imx_vpu_enc_h264_parent_class)->propose_allocation(encoder, query);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    State* s = IMX_VPU_ENC_H264(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_BITRATE:
        s->settings.bitrate = g_value_get_uint(value);
        break;
    case PROP_QUANT_PARAM:
        s->settings.quant_param = g_value_get_uint(value);
        break;
    case PROP_GOP_SIZE:
        s->settings.gop_size = g_value_get_uint(value);
        break;
    case PROP_IDR_INTERVAL:
        s->settings.idr_interval = g_value_get_uint(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    State* s = IMX_VPU_ENC_H264(object)->state;
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PROP_BITRATE:
        g_value_set_uint(value, s->settings.bitrate);
        break;
    case PROP_QUANT_PARAM:
        g_value_set_uint(value, s->settings.quant_param);
        break;
    case PROP_GOP_SIZE:
        g_value_set_uint(value, s->settings.gop_size);
        break;
    case PROP_IDR_INTERVAL:
        g_value_set_uint(value, s->settings.idr_interval);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void Finalize(GObject* object)
{
    auto* self = IMX_VPU_ENC_H264(object);
    delete self->state;
    G_OBJECT_CLASS(imx_vpu_enc_h264_parent_class)->finalize(object);
}

} // namespace

static void imx_vpu_enc_h264_class_init(ImxVpuEncH264Class* klass)
{
    GST_DEBUG_CATEGORY_INIT(imx_vpu_enc_h264_debug, "imxvpuenc_h264", 0, "i.MX VPU H.264 encoder stand-in");
    auto* gobject_class = G_OBJECT_CLASS(klass);
    auto* element_class = GST_ELEMENT_CLASS(klass);
    auto* encoder_class = GST_VIDEO_ENCODER_CLASS(klass);

    gobject_class->set_property = SetProperty;
    gobject_class->get_property = GetProperty;
    gobject_class->finalize = Finalize;

    const auto flags
        = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(gobject_class, PROP_BITRATE,
        g_param_spec_uint("bitrate", "Bitrate",
            "Target bitrate in kbit/s (0: constant quantiser quant-param)", 0, G_MAXUINT, kDefaultBitrate,
            flags));
    g_object_class_install_property(gobject_class, PROP_QUANT_PARAM,
        g_param_spec_uint("quant-param", "Quantiser", "Constant quantiser used while bitrate is 0", 0,
            kMaxQuantParam, kDefaultQuantParam, flags));
    g_object_class_install_property(gobject_class, PROP_GOP_SIZE,
        g_param_spec_uint("gop-size", "GOP size",
            "Distance between I frames, in frames (0: IDR frames only), read when the encoder opens", 0,
            kMaxGopSize, kDefaultGopSize, flags));
    g_object_class_install_property(gobject_class, PROP_IDR_INTERVAL,
        g_param_spec_uint("idr-interval", "IDR interval",
            "Distance between IDR frames, in frames (0: only the first frame)", 0, G_MAXUINT,
            kDefaultIdrInterval, flags));

    gst_element_class_add_static_pad_template(element_class, &sink_template);
    gst_element_class_add_static_pad_template(element_class, &src_template);
    gst_element_class_set_static_metadata(element_class, "i.MX VPU H.264 encoder (stand-in)",
        "Codec/Encoder/Video", "H.264 main profile through x264", "videod");

    encoder_class->set_format = SetFormat;
    encoder_class->handle_frame = HandleFrame;
    encoder_class->finish = Finish;
    encoder_class->stop = Stop;
    encoder_class->propose_allocation = ProposeAllocation;
}

static void imx_vpu_enc_h264_init(ImxVpuEncH264* self)
{
    self->state = new State();
}
