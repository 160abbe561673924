// Single JPEG pictures of the processed live picture: one counted frame through a valve, written to a file.
#include "pipelines/snapshot_pipeline.h"

#include <filesystem>
#include <system_error>

#include "common/function_signature.h"
#include "common/normalised_path.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// The valve starts closed: the pipeline runs all the time and a snapshot
// opens it for a counted number of frames.
const char kDescription[]
    = "interpipesrc name=snapshot_source is-live=true allow-renegotiation=false max-buffers=0 leaky-type=2 "
      "    ! video/x-raw, format=BGRA,width=640,height=480 "
      "    ! tarnwell-valve name=snapshot_valve num-buffers-pass=0 "
      "    ! imxipuvideotransform name=snapshot_jpeg_transform "
      "    ! capsfilter name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 "
      "    ! imxvpuenc_mjpeg name=jpeg_encoder quality-factor=85 "
      "    ! multifilesink name=snapshotSink post-messages=true location=/tmp/dummy.jpeg";

// The sink announces every file it writes with an element message.
const char kSink[] = "snapshotSink";
// The guard ends a snapshot whose file never came, after exactly this long:
// a millisecond timer, since GLib's whole-second timers may fire up to a
// quarter of a second early to group their wake-ups.
const guint kGuardMilliseconds = 5000;
// Write type of a snapshot for the storage daemon.
const uint8_t kSnapshotWrite = 1;

} // namespace

std::string SnapshotPipeline::GetDescription()
{
    return kDescription;
}

// Called on the main loop only, at the start and the end of a snapshot.
void SnapshotPipeline::SetWriteActivityHandler(write_activity_t handler)
{
    _WriteActivity = std::move(handler);
}

// Any thread may ask: the flag is read under the lock.
bool SnapshotPipeline::IsInProgress()
{
    std::lock_guard<std::mutex> lock(_Mutex);
    return _InProgress;
}

// The form the capture sessions use for their thumbnails: the stored
// quality, the storage daemon told of the write, and no one waiting for the
// outcome.
int SnapshotPipeline::TakeSnapshot(const std::string& location, uint32_t width, uint32_t height)
{
    std::string error;
    return TakeSnapshotAsync(location, width, height, _Quality, true, nullptr, error);
}

// A snapshot in four steps: the arguments are checked (the last fault found
// names the error, and a snapshot in progress wins over every fault); the
// encoder branch is set up for the picture (file, size, quality); the storage
// daemon is told of the write and the guard is started; and only then does
// the valve let one frame through, so the sink cannot announce the file
// before the snapshot is marked in progress. The outcome comes later, from
// OnElementMessage or the guard.
int SnapshotPipeline::TakeSnapshotAsync(const std::string& location, uint32_t width, uint32_t height,
    uint32_t quality, bool writeActive, completion_callback_t callback, std::string& error)
{
    Log::Debug("[Snapshot] Take snapshot async");
    Log::Debug("[Snapshot]    location:%s", location.c_str());
    Log::Debug("[Snapshot]    width:%u, height:%u, quality:%u", width, height, quality);

    bool invalid = false;
    if (location.empty()) {
        error = "cannot be created in location";
        invalid = true;
    }
    if (width < 16 || width > 640 || height < 16 || height > 480) {
        error = "cannot be created with specified size";
        invalid = true;
    }
    if (quality > 100) {
        error = "quality parameter cannot exceed 10";
        invalid = true;
    }

    int result = 0;
    if (IsInProgress()) {
        error = "another snapshot in progress";
        result = -2;
    } else if (invalid) {
        result = -1;
    }
    if (result != 0) {
        if (callback)
            callback(1);
        return result;
    }

    SetLocation(location);
    SetImageSize(width, height);
    SetJpegQuality(quality);
    _WriteActive = writeActive;
    // The storage daemon hears of the write before the snapshot can end.
    if (_WriteActive && _WriteActivity)
        _WriteActivity(_Location, kSnapshotWrite, true);
    {
        std::lock_guard<std::mutex> lock(_Mutex);
        _Guard = AttachTimeout(kGuardMilliseconds, &SnapshotPipeline::OnGuardTimeout, this);
        _Callback = std::move(callback);
        _InProgress = true;
    }
    SetValveNumBuffers(1);
    return 0;
}

// Every snapshot goes through here before it opens the valve. Without the
// sink the picture could not be written where it was promised, and the
// completion would wait for a file that never comes: that is a fault in the
// daemon itself, not a condition to recover from.
void SnapshotPipeline::SetLocation(const std::string& location)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kSink);
    g_assert(element);
    g_object_set(element.get(), "location", location.c_str(), nullptr);
    _Location = location;
}

void SnapshotPipeline::SetImageSize(uint32_t width, uint32_t height)
{
    Log::Debug("[Snapshot] Set width = %u, height = %u", width, height);
    if (width == _Width && height == _Height)
        return;
    _Width = width;
    _Height = height;
    GstCapsPtr caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT,
        static_cast<gint>(width), "height", G_TYPE_INT, static_cast<gint>(height), nullptr));
    if (!SetElementProperty(VIDEOD_FUNCTION, "jpeg_image_caps", "caps", caps.get()))
        Log::Error("Failed to get element");
}

void SnapshotPipeline::SetJpegQuality(uint32_t quality)
{
    Log::Debug("[Snapshot] Set quality = %u", quality);
    if (quality == _Quality)
        return;
    _Quality = quality > 100 ? 100 : quality;
    // The encoder gets the value as requested, not the stored clamp.
    if (!SetElementProperty(VIDEOD_FUNCTION, "jpeg_encoder", "quality-factor", static_cast<guint>(quality)))
        Log::Error("Failed to get element");
}

void SnapshotPipeline::SetValveNumBuffers(uint32_t count)
{
    if (count > 10) {
        Log::Error("[SnapshotPipeline] Max allowed buffers to set is 10");
        return;
    }
    if (!SetElementProperty(VIDEOD_FUNCTION, "snapshot_valve", "num-buffers-pass", static_cast<guint>(count)))
        Log::Error("Failed to get element");
}

void SnapshotPipeline::OnElementMessage(const char* source_name, GstMessage* message)
{
    Log::Debug("[Snapshot] Got element message from [%s]", source_name ? source_name : "");
    if (!source_name || std::string(source_name) != kSink)
        return;
    const GstStructure* structure = gst_message_get_structure(message);
    const gchar* filename = structure ? gst_structure_get_string(structure, "filename") : nullptr;
    if (!filename)
        return;
    Log::Debug("[Snapshot] Multifile sink is sayig that it might created a new file:%s", filename);

    if (!IsInProgress()) {
        SetValveNumBuffers(0);
        return;
    }
    if (NormalisedPath(filename) != NormalisedPath(_Location)) {
        Complete(1);
        return;
    }
    Log::Debug("[Snapshot] Snapshot file exist and match requested:%s", filename);
    std::error_code size_error;
    std::uintmax_t size = std::filesystem::file_size(filename, size_error);
    if (size_error || size == 0) {
        Complete(1);
        return;
    }
    std::string written(filename);
    Complete(0);
    signal_snapshot_created.emit(written);
}

// Runs on the main loop (the sink's message through the bus watch, or the
// guard). In order: the callback hears the status while the snapshot still
// counts as in progress, then the guard and the flag are cleared, then the
// storage daemon hears that the write has ended. The lock is held only to
// move the state, never across the callback or the storage call.
void SnapshotPipeline::Complete(int status)
{
    completion_callback_t callback;
    {
        std::lock_guard<std::mutex> lock(_Mutex);
        callback = std::move(_Callback);
        _Callback = nullptr;
    }
    if (callback)
        callback(status);
    GSourcePtr guard;
    {
        std::lock_guard<std::mutex> lock(_Mutex);
        guard = std::move(_Guard);
        _InProgress = false;
    }
    if (_WriteActive && _WriteActivity)
        _WriteActivity(_Location, kSnapshotWrite, false);
}

gboolean SnapshotPipeline::OnGuardTimeout(gpointer user_data)
{
    auto* self = static_cast<SnapshotPipeline*>(user_data);
    Log::Warning("[Snapshot] Snapshot timeout, this should not happen unless there is some serious issue.");
    if (self->IsInProgress())
        self->Complete(1);
    return G_SOURCE_REMOVE;
}

} // namespace VideoDaemon
