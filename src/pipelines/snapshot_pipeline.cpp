// Single JPEG pictures of the processed live picture: one counted frame through a valve, written to a file.
#include "pipelines/snapshot_pipeline.h"

#include <filesystem>
#include <system_error>

#include "log.h"
#include "common/function_signature.h"

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

const char kSink[] = "snapshotSink";
const guint kGuardSeconds = 5;
// Write type of a snapshot for the storage daemon.
const uint8_t kSnapshotWrite = 1;

std::filesystem::path Normalised(const std::string& path)
{
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error)
        absolute = path;
    return absolute.lexically_normal();
}

} // namespace

// Holds the snapshot mutex for one scope.
class SnapshotPipeline::Lock
{
public:
    explicit Lock(GMutex* mutex)
        : _Mutex(mutex)
    {
        g_mutex_lock(_Mutex);
    }
    ~Lock() { g_mutex_unlock(_Mutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    GMutex* _Mutex;
};

SnapshotPipeline::SnapshotPipeline()
{
    g_mutex_init(&_Mutex);
}

SnapshotPipeline::~SnapshotPipeline()
{
    {
        Lock lock(&_Mutex);
        if (_TimerId != 0)
            g_source_remove(_TimerId);
        _TimerId = 0;
    }
    g_mutex_clear(&_Mutex);
}

std::string SnapshotPipeline::GetDescription()
{
    return kDescription;
}

void SnapshotPipeline::SetWriteActivityHandler(write_activity_t handler)
{
    _WriteActivity = std::move(handler);
}

bool SnapshotPipeline::IsInProgress()
{
    Lock lock(&_Mutex);
    return _InProgress;
}

void SnapshotPipeline::SetImageSize(uint32_t width, uint32_t height)
{
    Log::Debug("[Snapshot] Set width = %u, height = %u", width, height);
    if (width == _Width && height == _Height)
        return;
    _Width = width;
    _Height = height;
    GstPtr<GstElement> filter = FindElement(VIDEOD_SIGNATURE, "jpeg_image_caps");
    if (!filter) {
        Log::Error("Failed to get element");
        return;
    }
    GstCapsPtr caps(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", "width", G_TYPE_INT,
        static_cast<gint>(width), "height", G_TYPE_INT, static_cast<gint>(height), nullptr));
    g_object_set(filter.get(), "caps", caps.get(), nullptr);
}

void SnapshotPipeline::SetJpegQuality(uint32_t quality)
{
    Log::Debug("[Snapshot] Set quality = %u", quality);
    if (quality == _Quality)
        return;
    _Quality = quality > 100 ? 100 : quality;
    GstPtr<GstElement> encoder = FindElement(VIDEOD_SIGNATURE, "jpeg_encoder");
    if (!encoder) {
        Log::Error("Failed to get element");
        return;
    }
    // The encoder gets the value as requested, not the stored clamp.
    g_object_set(encoder.get(), "quality-factor", static_cast<guint>(quality), nullptr);
}

// Every snapshot goes through here before it opens the valve. Without the
// sink the picture could not be written where it was promised, and the
// completion would wait for a file that never comes: that is a fault in the
// daemon itself, not a condition to recover from.
void SnapshotPipeline::SetLocation(const std::string& location)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_SIGNATURE, kSink);
    g_assert(element);
    g_object_set(element.get(), "location", location.c_str(), nullptr);
    _Location = location;
}

void SnapshotPipeline::SetValveNumBuffers(uint32_t count)
{
    if (count > 10) {
        Log::Error("[SnapshotPipeline] Max allowed buffers to set is 10");
        return;
    }
    GstPtr<GstElement> valve = FindElement(VIDEOD_SIGNATURE, "snapshot_valve");
    if (!valve) {
        Log::Error("Failed to get element");
        return;
    }
    g_object_set(valve.get(), "num-buffers-pass", static_cast<guint>(count), nullptr);
}

int SnapshotPipeline::TakeSnapshot(const std::string& location, uint32_t width, uint32_t height)
{
    std::string error;
    return TakeSnapshotAsync(location, width, height, _Quality, true, nullptr, error);
}

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
    {
        Lock lock(&_Mutex);
        if (_WriteActive && _WriteActivity)
            _WriteActivity(_Location, kSnapshotWrite, true);
        guint timer = g_timeout_add_seconds(kGuardSeconds, &SnapshotPipeline::OnGuardTimeout, this);
        _Callback = std::move(callback);
        _InProgress = true;
        _TimerId = timer;
    }
    SetValveNumBuffers(1);
    return 0;
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
    if (Normalised(filename) != Normalised(_Location)) {
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

void SnapshotPipeline::Complete(int status)
{
    Lock lock(&_Mutex);
    if (_Callback) {
        completion_callback_t callback = std::move(_Callback);
        _Callback = nullptr;
        callback(status);
    }
    if (_TimerId != 0)
        g_source_remove(_TimerId);
    _TimerId = 0;
    _InProgress = false;
    if (_WriteActive && _WriteActivity)
        _WriteActivity(_Location, kSnapshotWrite, false);
}

gboolean SnapshotPipeline::OnGuardTimeout(gpointer user_data)
{
    auto* self = static_cast<SnapshotPipeline*>(user_data);
    Log::Warning("[Snapshot] Snapshot timeout, this should not happen unless there is some serious issue.");
    bool in_progress = false;
    {
        Lock lock(&self->_Mutex);
        // This source ends by returning false; nothing else may remove it.
        self->_TimerId = 0;
        in_progress = self->_InProgress;
    }
    if (in_progress)
        self->Complete(1);
    return FALSE;
}

} // namespace VideoDaemon
