// Single JPEG pictures of the processed live picture: one counted frame through a valve, written to a file.
#pragma once

#include <glib.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class SnapshotPipeline : public Pipeline
{
public:
    // Completion of a snapshot: 0 when the file was written, 1 otherwise.
    using completion_callback_t = std::function<void(int status)>;
    // Tells the storage daemon that the device holding `location` is being
    // written (`active` true) or no longer (false); `type` is the write type.
    using write_activity_t = std::function<void(const std::string& location, uint8_t type, bool active)>;

    // Emitted with the file name after a successful snapshot.
    sigc::signal<void, const std::string&> signal_snapshot_created;

    std::string GetDescription() override;
    std::string GetSinkName() override { return "snapshotSink"; }
    std::string GetSourceName() override { return "snapshot_source"; }

    // Takes the sink's announcement of each written file.
    void OnElementMessage(const char* source_name, GstMessage* message) override;

    // File name of the next picture. Only on a launched pipeline: a missing
    // sink ends the process.
    void SetLocation(const std::string& location);
    void SetImageSize(uint32_t width, uint32_t height);
    // Keeps the quality clamped to 100 but hands the encoder the value as given.
    void SetJpegQuality(uint32_t quality);
    // Frames the valve lets through before it closes again; at most 10.
    void SetValveNumBuffers(uint32_t count);

    // Starts a snapshot and returns at once: 0 started, -1 invalid arguments,
    // -2 another snapshot in progress (`error` says why). The pipeline owns
    // `callback` from here on; it is called once with the outcome, on the
    // main loop, without the snapshot lock held but while the snapshot still
    // counts as in progress (a request from it is refused with -2); a refused
    // request's callback is called at once with 1.
    int TakeSnapshotAsync(const std::string& location, uint32_t width, uint32_t height, uint32_t quality,
        bool writeActive, completion_callback_t callback, std::string& error);
    // A snapshot at the stored quality, with the storage daemon told of the write.
    int TakeSnapshot(const std::string& location, uint32_t width, uint32_t height);

    // How the storage daemon is told of writes; none by default.
    void SetWriteActivityHandler(write_activity_t handler);

    uint32_t GetWidth() const { return _Width; }
    uint32_t GetHeight() const { return _Height; }
    uint32_t GetQuality() const { return _Quality; }
    const std::string& GetLocation() const { return _Location; }
    bool IsInProgress();

private:
    void Complete(int status);
    static gboolean OnGuardTimeout(gpointer user_data);

    uint32_t _Width = 640;
    uint32_t _Height = 480;
    uint32_t _Quality = 85;
    std::string _Location;
    bool _WriteActive = false;
    write_activity_t _WriteActivity;

    // Guards _InProgress, _Guard and _Callback.
    std::mutex _Mutex;
    bool _InProgress = false;
    // Ends a snapshot whose file never comes; removed with its handle.
    GSourcePtr _Guard;
    completion_callback_t _Callback;
};

} // namespace VideoDaemon
