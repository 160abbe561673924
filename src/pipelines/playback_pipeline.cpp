// Plays a recorded file to the display and speaker with pause, trick-mode rates and seeks, reporting
// progress.
#include "pipelines/playback_pipeline.h"

#include <memory>

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// Two independent branches: the playbin for the recording, and a still
// picture decoded straight to the display.
const char kDescription[] = "playbin name=pipeline0_playbin uri=file:///dev/null "
                            "filesrc name=jpeg_playback_source location=/dev/null "
                            "    ! jpegdec "
                            "    ! imxipuvideosink name=jpeg_playback_sink output-rotation=5";

const GstSeekFlags kExactFlags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
const GstSeekFlags kTrickFlags = static_cast<GstSeekFlags>(
    GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT | GST_SEEK_FLAG_TRICKMODE | GST_SEEK_FLAG_SNAP_BEFORE);
const GstSeekFlags kTrickNoAudioFlags = static_cast<GstSeekFlags>(
    kTrickFlags | GST_SEEK_FLAG_TRICKMODE_KEY_UNITS | GST_SEEK_FLAG_TRICKMODE_NO_AUDIO);
const gint64 kNoStop = -1;
// Handler group of the playback's bus messages.
const char kPlayback[] = "playback";

GstElement* MakeElement(const char* factory, const char* name)
{
    GstElement* element = gst_element_factory_make(factory, name);
    if (element)
        gst_object_ref_sink(element);
    return element;
}

} // namespace

PlaybackPipeline::PlaybackPipeline(bool display)
    : _Display(display)
{
}

std::string PlaybackPipeline::GetDescription()
{
    return kDescription;
}

bool PlaybackPipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    bool result = Pipeline::Launch(attach_probes, connect_bus, connect_queue_signals);
    if (!result)
        return false;

    _Playbin.reset(gst_bin_get_by_name(GST_BIN(pipeline.get()), "pipeline0_playbin"));
    _JpegSource.reset(gst_bin_get_by_name(GST_BIN(pipeline.get()), "jpeg_playback_source"));

    if (_Display) {
        _VideoSink.reset(MakeElement("imxipuvideosink", "imx-ipu-display"));
        if (_VideoSink)
            g_object_set(_VideoSink.get(), "sync", TRUE, "output-rotation", 5, "use-vsync", TRUE, nullptr);
    } else {
        _VideoSink.reset(MakeElement("fakesink", "fake-display"));
        if (_VideoSink)
            g_object_set(_VideoSink.get(), "sync", TRUE, nullptr);
    }
    if (!_VideoSink) {
        ReleaseElements();
        return false;
    }
    _AudioSink.reset(MakeElement("alsasink", "alsa-speaker"));
    if (!_AudioSink) {
        ReleaseElements();
        return false;
    }
    g_object_set(_AudioSink.get(), "sync", TRUE, nullptr);
    g_object_set(_Playbin.get(), "video-sink", _VideoSink.get(), "audio-sink", _AudioSink.get(), nullptr);

    ConnectBusHandler(kPlayback, "message::buffering", G_CALLBACK(&PlaybackPipeline::OnBuffering));
    ConnectBusHandler(kPlayback, "message::eos", G_CALLBACK(&PlaybackPipeline::OnEndOfStream));
    ConnectBusHandler(kPlayback, "message::async-done", G_CALLBACK(&PlaybackPipeline::OnAsyncDone));
    ConnectBusHandler(kPlayback, "message::error", G_CALLBACK(&PlaybackPipeline::OnPlaybackError));
    return result;
}

void PlaybackPipeline::ReleaseElements()
{
    _Playbin.reset();
    _JpegSource.reset();
    _VideoSink.reset();
    _AudioSink.reset();
    ReleasePipeline();
}

int PlaybackPipeline::Play(
    std::string file, gdouble rate, playback_callback_t callback, guint interval, void* userData)
{
    GstState state = GetState();
    if (state == GST_STATE_PLAYING || _Timer) {
        Log::Error("[Playback] still not done state=%d timer active = %d\n", state, _Timer ? 1 : 0);
        return -1;
    }
    if (rate < 0.0) {
        Log::Error("[Playback] can't rewind from start of file\n");
        return -1;
    }

    _Uri.reset(gst_filename_to_uri(file.c_str(), nullptr));
    if (!_Uri) {
        Log::Error("[Playback] can't encode the playback URI\n");
        return -1;
    }
    Log::Info("[Playback]: PLAY _Uri: %s", _Uri.get());

    if (!_Display) {
        std::string thumbnail = file + "-thumb.jpg";
        if (_JpegSource)
            g_object_set(_JpegSource.get(), "location", thumbnail.c_str(), nullptr);
        Log::Info("%s: Playing JPEG: %s", VIDEOD_SIGNATURE, thumbnail.c_str());
    }

    if (!G_IS_OBJECT(_Playbin.get()))
        Log::Error("[Playback]: _Playbin is Not a G_OBJECT");
    else
        g_object_set(_Playbin.get(), "uri", _Uri.get(), nullptr);

    _UpdateCb = std::move(callback);
    _UserData = userData;
    _Error = false;
    _Eos = false;
    _Timer = AttachTimeout(interval, &PlaybackPipeline::_UpdateTimerCb, this);

    int result = SetState(GST_STATE_PAUSED);
    if (rate == 0.0)
        return result;

    _SetRate(rate);
    result = SetState(GST_STATE_PLAYING);
    _CurrentFile = file;
    return result;
}

void PlaybackPipeline::Stop()
{
    Log::Info("%s", VIDEOD_SIGNATURE);
    if (!_Eos)
        QueryPosition();
    SetState(GST_STATE_NULL);
    _Eos = true;
    if (!_Timer) {
        if (_UpdateCb)
            _UpdateCb(_UserData, _Error, true, _Rate, _Position, _Duration);
        else
            Log::Info("%s _UpdateCb == NULL", VIDEOD_SIGNATURE);
    }
    _CurrentFile.clear();
}

int PlaybackPipeline::SetRate(gdouble rate)
{
    GstState state = GetState();
    if (state != GST_STATE_PLAYING && state != GST_STATE_PAUSED) {
        Log::Warning("[PlaybackPipeline::SetRate] not playing or paused, so ignoring\n");
        return 0;
    }
    return _SetRate(rate);
}

int PlaybackPipeline::Seek(int offsetMs)
{
    GstState state = GetState();
    if (state != GST_STATE_PLAYING && state != GST_STATE_PAUSED) {
        Log::Warning("[PlaybackPipeline::Seek] not playing or paused, so ignoring\n");
        return 0;
    }
    return _Seek(offsetMs);
}

int PlaybackPipeline::TogglePause()
{
    switch (GetState()) {
    case GST_STATE_PLAYING:
        return SetState(GST_STATE_PAUSED);
    case GST_STATE_PAUSED:
        return SetState(GST_STATE_PLAYING);
    default:
        return -1;
    }
}

int PlaybackPipeline::GetPlaybackStatus(
    bool& active, bool& eos, bool& error, double& rate, int64_t& position, int64_t& duration)
{
    GstState state = GetState();
    active = state == GST_STATE_PLAYING || state == GST_STATE_PAUSED;
    eos = _Eos;
    error = _Error;
    rate = _Rate;
    position = _Position;
    duration = _Duration;
    return 0;
}

bool PlaybackPipeline::QueryPosition()
{
    gint64 position = 0;
    if (!_Playbin || !gst_element_query_position(_Playbin.get(), GST_FORMAT_TIME, &position))
        return false;
    _Position = position / GST_MSECOND;
    return true;
}

int PlaybackPipeline::_SetRate(gdouble rate)
{
    Log::Info("%s: rate %lf", VIDEOD_SIGNATURE, rate);
    if (!QueryPosition()) {
        Log::Warning("[Playback] send seek event failed to query playback position\n");
        return -1;
    }
    const gint64 position = _Position * GST_MSECOND;

    GstSeekFlags flags;
    gint64 start = position;
    gint64 stop = kNoStop;
    const char* failure;
    if (rate == 0.0) {
        Log::Warning("[Playback] failed to set rate to paused\n");
        return -1;
    } else if (rate == 1.0) {
        Log::Info("%s: NORMAL PLAYBACK", VIDEOD_SIGNATURE);
        flags = kExactFlags;
        failure = "[Playback] failed to set rate to normal playback\n";
    } else if (rate >= 4.0) {
        Log::Info("%s: FAST FORWARD (FAST)", VIDEOD_SIGNATURE);
        flags = kTrickNoAudioFlags;
        failure = "[Playback] failed to set rate to fast forward without audio\n";
    } else if (rate > 0.0) {
        // Rates below 1 take this row too.
        Log::Info("%s: FAST FORWARD (SLOW)", VIDEOD_SIGNATURE);
        flags = kTrickFlags;
        failure = "[Playback] failed to set rate to fast forward with audio\n";
    } else {
        Log::Info("%s: REWIND", VIDEOD_SIGNATURE);
        flags = kTrickNoAudioFlags;
        start = 0;
        stop = position;
        failure = "[Playback] failed to set rate to rewind\n";
    }

    if (!_VideoSink
        || !gst_element_seek(_VideoSink.get(), rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, start,
            GST_SEEK_TYPE_SET, stop)) {
        Log::Warning("%s", failure);
        return -1;
    }
    _Rate = rate;
    return 0;
}

int PlaybackPipeline::_Seek(int offsetMs)
{
    if (!QueryPosition()) {
        Log::Warning("[Playback] send seek event failed to query playback position\n");
        return -1;
    }
    int64_t target = _Position + offsetMs;
    if (target < 0)
        target = 0;
    if (target > _Duration)
        target = _Duration;

    // A file opened paused has no rate yet, and a seek needs one.
    if (!_VideoSink || _Rate == 0.0
        || !gst_element_seek(_VideoSink.get(), _Rate, GST_FORMAT_TIME, kExactFlags, GST_SEEK_TYPE_SET,
            target * GST_MSECOND, GST_SEEK_TYPE_SET, kNoStop)) {
        Log::Warning("[Playback] failed to send seek event to set position\n");
        return -1;
    }
    return 0;
}

void PlaybackPipeline::Report()
{
    if (_UpdateCb)
        _UpdateCb(_UserData, _Error, _Eos, _Rate, _Position, _Duration);
}

gboolean PlaybackPipeline::_UpdateTimerCb(gpointer user_data)
{
    auto* self = static_cast<PlaybackPipeline*>(user_data);
    if (!self->_Eos) {
        if (!self->QueryPosition())
            Log::Warning("[Playback] Failed to query playback position\n");
    } else {
        self->_Position = self->_Rate > 0.0 ? self->_Duration : 0;
    }

    // The last report goes out with the timer no longer active, so that its
    // receiver may start the next playback (GLib keeps the source alive until
    // this callback returns).
    GSourcePtr ending;
    if (self->_Eos || self->_Error) {
        self->SetState(GST_STATE_NULL);
        ending = std::move(self->_Timer);
    }

    if (self->_UpdateCb)
        self->Report();
    else
        Log::Info("%s _UpdateCb == NULL\n", VIDEOD_SIGNATURE);
    return ending ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void PlaybackPipeline::OnBuffering(GstBus*, GstMessage* message, gpointer user_data)
{
    auto* self = static_cast<PlaybackPipeline*>(user_data);
    gint percent = 0;
    gst_message_parse_buffering(message, &percent);
    Log::Info("[Playback] Buffering (%u percent done)\n", static_cast<unsigned>(percent));
    self->SetState(percent < 100 ? GST_STATE_PAUSED : GST_STATE_PLAYING, 0);
}

void PlaybackPipeline::OnEndOfStream(GstBus*, GstMessage*, gpointer user_data)
{
    auto* self = static_cast<PlaybackPipeline*>(user_data);
    Log::Info("[Playback] End Of Stream\n");
    self->_Eos = true;
    self->_Position = self->_Rate > 0.0 ? self->_Duration : 0;
}

void PlaybackPipeline::OnAsyncDone(GstBus*, GstMessage*, gpointer user_data)
{
    auto* self = static_cast<PlaybackPipeline*>(user_data);
    if (!self->_Playbin)
        return;
    gdouble rate = 0.0;
    GstFormat format = GST_FORMAT_UNDEFINED;
    gint64 start = 0;
    gint64 stop = 0;
    GstQueryPtr query(gst_query_new_segment(GST_FORMAT_TIME));
    if (gst_element_query(self->_Playbin.get(), query.get()))
        gst_query_parse_segment(query.get(), &rate, &format, &start, &stop);

    gint64 duration = 0;
    if (gst_element_query_duration(self->_Playbin.get(), GST_FORMAT_TIME, &duration))
        self->_Duration = duration / GST_MSECOND;
    if (!self->QueryPosition())
        Log::Warning("[Playback] Failed to query playback position\n");
    Log::Info("[Playback] async done. query segment: rate %f fmt %d start %lld stop %lld position %lld\n",
        rate, static_cast<int>(format), static_cast<long long>(start), static_cast<long long>(stop),
        static_cast<long long>(self->_Position));
}

void PlaybackPipeline::OnPlaybackError(GstBus*, GstMessage*, gpointer user_data)
{
    static_cast<PlaybackPipeline*>(user_data)->_Error = true;
}

} // namespace VideoDaemon
