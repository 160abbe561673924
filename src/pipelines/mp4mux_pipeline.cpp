// Writes one capture to an MP4 file: IDR start, gap-free pause and resume, byte counting.
#include "pipelines/mp4mux_pipeline.h"

#include <regex>

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// "%" stands for the prefix. Audio and video pass one multiqueue so they stay
// together; the IDR valve starts closed so every file starts on an IDR frame;
// the file sink idles on /dev/null; the tracker is silent until counting.
const char kTemplate[]
    = "interpipesrc name=%_mp4mux_video0 stream-sync=1 format=time allow-renegotiation=false "
      "    ! video/x-h264 "
      "    ! idrvalve name=%_idr_valve drop=true "
      "    ! multiqueue name=%_mp4mux_mque max-size-buffers=30 max-size-time=0 "
      "  %_mp4mux_mque. "
      "    ! muxpause name=%_mp4mux_vid_pause "
      "    ! mp4mux name=%_mux "
      "    ! queue name=%_mp4mux_queue max-size-buffers=10 "
      "    ! identity name=%_mp4mux_tracker silent=true "
      "    ! filesink name=%_mp4mux_filesink async=false sync=false location=/dev/null "
      "  interpipesrc name=%_mp4mux_audio0 stream-sync=1 format=time allow-renegotiation=false "
      "    ! audio/mpeg "
      "    ! %_mp4mux_mque. "
      "  %_mp4mux_mque. "
      "    ! muxpause name=%_mp4mux_aud_pause "
      "    ! %_mux. ";

// Handler group of the byte counter.
const char kTracker[] = "tracker";

// filesink's "buffer-mode" that hands every buffer to the file as it comes.
// With the default 64 KiB buffer a recording process that is killed loses
// over a second of picture even after recovery; unbuffered, a tenth.
const gint kSinkUnbuffered = 2;

} // namespace

MuxPause::MuxPause(Pipeline* owner, std::string name)
    : pipeline(owner)
    , element_name(std::move(name))
{
}

void MuxPause::Reset()
{
    GstPtr<GstElement> element = pipeline->FindElement(VIDEOD_FUNCTION, element_name);
    g_assert(element);
    g_object_set(element.get(), "reset", TRUE, nullptr);
}

void MuxPause::Pause()
{
    GstPtr<GstElement> element = pipeline->FindElement(VIDEOD_FUNCTION, element_name);
    g_assert(element);
    g_object_set(element.get(), "pause", TRUE, nullptr);
}

void MuxPause::Resume()
{
    GstPtr<GstElement> element = pipeline->FindElement(VIDEOD_FUNCTION, element_name);
    g_assert(element);
    g_object_set(element.get(), "resume", TRUE, nullptr);
}

guint64 MuxPause::GetPauseLength()
{
    GstPtr<GstElement> element = pipeline->FindElement(VIDEOD_FUNCTION, element_name);
    g_assert(element);
    guint64 length = 0;
    g_object_get(element.get(), "pause_length", &length, nullptr);
    return length;
}

void MuxPause::SetPauseLength(guint64 length)
{
    GstPtr<GstElement> element = pipeline->FindElement(VIDEOD_FUNCTION, element_name);
    g_assert(element);
    g_object_set(element.get(), "pause_length", length, nullptr);
}

Mp4muxPipeline::Mp4muxPipeline(const std::string& prefix)
    : Mp4muxPipeline(prefix, kTemplate)
{
}

Mp4muxPipeline::Mp4muxPipeline(const std::string& prefix, const char* description_template)
    : description(std::regex_replace(description_template, std::regex("%"), prefix))
    , name(prefix + "_Mp4muxPipeline")
    , filesink_name(prefix + "_mp4mux_filesink")
    , video_source_name(prefix + "_mp4mux_video0")
    , audio_source_name(prefix + "_mp4mux_audio0")
    , video_pause_name(prefix + "_mp4mux_vid_pause")
    , audio_pause_name(prefix + "_mp4mux_aud_pause")
    , multiqueue_name(prefix + "_mp4mux_mque")
    , idr_valve_name(prefix + "_idr_valve")
    , mux_name(prefix + "_mux")
    , tracker_name(prefix + "_mp4mux_tracker")
    , queue_name(prefix + "_mp4mux_queue")
{
}

bool Mp4muxPipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    bool result = Pipeline::Launch(attach_probes, connect_bus, connect_queue_signals);
    if (result) {
        Log::Info("Initialising mux pause objects");
        video_pause = std::make_unique<MuxPause>(this, video_pause_name);
        audio_pause = std::make_unique<MuxPause>(this, audio_pause_name);
        // The handoff connection went with the previous pipeline, but the
        // flag stays: an enable after a relaunch while counting still turns
        // the counting off, as any second enable does.
        SetElementProperty(VIDEOD_FUNCTION, filesink_name, "buffer-mode", kSinkUnbuffered);
    }
    return result;
}

void Mp4muxPipeline::OpenRecord(const std::string& path)
{
    Log::Info("OpenRecord '%s'", path.c_str());
    bytes_written = 0;
    EnableTrackerSignals(true);
    ResetMuxPause();
    SetLocation(path);
}

int Mp4muxPipeline::CloseRecord(bool send_eos)
{
    EnableTrackerSignals(false);
    bytes_written = 0;
    previous_location = location;
    location.clear();
    if (send_eos)
        return SendEos(false);

    Log::Error("Killing off MP4 pipeline without sending EOS...");
    ResetMuxPause();
    SetDropIDR(true);
    SetState(GST_STATE_NULL);
    return 0;
}

void Mp4muxPipeline::SetLocation(const std::string& path)
{
    Log::Info("SetLocation '%s'", path.c_str());
    if (!SetElementProperty(VIDEOD_FUNCTION, GetSinkName(), "location", path)) {
        Log::Error("%s: element not found", GetSinkName().c_str());
        return;
    }
    location = path;
}

void Mp4muxPipeline::SetDropIDR(bool drop)
{
    Log::Warning("Set Drop IDR to : %d", drop);
    if (!SetElementProperty(VIDEOD_FUNCTION, idr_valve_name, "drop", static_cast<gboolean>(drop)))
        Log::Warning("Failed to find %s element", idr_valve_name.c_str());
}

void Mp4muxPipeline::SetMoovRecoveryFile(const std::string& path)
{
    Log::Info("SetMoovRecoveryFile '%s'", path.c_str());
    // An empty path clears the recovery file.
    SetElementProperty(
        VIDEOD_FUNCTION, mux_name, "moov-recovery-file", path.empty() ? nullptr : path.c_str());
}

std::string Mp4muxPipeline::GetMoovRecoveryFile() const
{
    std::string path;
    GetElementProperty(VIDEOD_FUNCTION, mux_name, "moov-recovery-file", path);
    return path;
}

bool Mp4muxPipeline::EnableTrackerSignals(bool enable)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, tracker_name);
    if (!element) {
        Log::Error("%s: identity element not found", tracker_name.c_str());
        return false;
    }
    g_object_set(element.get(), "silent", enable ? FALSE : TRUE, nullptr);
    // A second enable toggles the counting off; callers rely on pairs.
    if (enable && !tracker_connected)
        tracker_connected
            = ConnectHandler(kTracker, element.get(), "handoff", G_CALLBACK(&Mp4muxPipeline::OnHandoff));
    else {
        DisconnectHandlers(kTracker);
        tracker_connected = false;
    }
    return true;
}

void Mp4muxPipeline::OnHandoff(GstElement*, GstBuffer* buffer, gpointer user_data)
{
    static_cast<Mp4muxPipeline*>(user_data)->bytes_written += gst_buffer_get_size(buffer);
}

// Before the first launch the objects report the missing pipeline.
void Mp4muxPipeline::EnsureMuxPause()
{
    if (!video_pause)
        video_pause = std::make_unique<MuxPause>(this, video_pause_name);
    if (!audio_pause)
        audio_pause = std::make_unique<MuxPause>(this, audio_pause_name);
}

void Mp4muxPipeline::ResetMuxPause()
{
    Log::Info("Mp4muxPipeline::ResetMuxPause");
    EnsureMuxPause();
    video_pause->Reset();
    audio_pause->Reset();
}

void Mp4muxPipeline::SetMuxPause(bool pause)
{
    Log::Error("Mp4muxPipeline::SetMuxPause (%s)", pause ? "pause" : "resume");
    EnsureMuxPause();
    if (pause) {
        audio_pause->SetPauseLength(video_pause->GetPauseLength());
        video_pause->Pause();
        audio_pause->Pause();
    } else {
        video_pause->Resume();
        audio_pause->Resume();
    }
}

} // namespace VideoDaemon
