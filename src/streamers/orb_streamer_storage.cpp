// The streamer's storage watch: capture file growth, the periodic timer and the devices being written.
#include <ctime>
#include <vector>

#include "clients/storage_daemon_dbus_handler.h"
#include "log.h"
#include "overlay/overlay_model.h"
#include "pipelines/mp4mux_pipeline.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

namespace
{

// Per kind, in the order of a pass: its muxer, its growth signal and the
// format of its report.
struct GrowthReport {
    OrbStreamer::CaptureKind kind;
    int muxer;
    const char* signal;
    const char* format;
};

const GrowthReport kGrowthReports[] = {
    { OrbStreamer::kVideoCapture, kMp4muxVideoIndex, "VideoGrew",
        "%s - Video capture %s size %lluMiB.  Near size limit: %s" },
    { OrbStreamer::kSnapVoiceCapture, kSnapvoiceIndex, "SnapVoiceGrew",
        "%s - snapVoice %s size %lluMiB.  Near size limit: %s" },
    { OrbStreamer::kAutoLogCapture, kMp4muxAutologIndex, "AutoLogGrew",
        "%s - autolog %s size %lluMiB.  Near size limit: %s" },
};

// The storage daemon's write types: autolog, SnapVoice and video, then one
// the daemon only ever clears.
const uint8_t kClearedWriteTypes[] = { 2, 3, 4, 1 };

} // namespace

void OrbStreamer::PeriodicFileWatcher()
{
    for (const GrowthReport& report : kGrowthReports) {
        auto& muxer = PipelineAt<Mp4muxPipeline>(report.muxer);
        const uint64_t size = muxer.GetBytesWritten();
        uint64_t& reported = _ReportedSize[report.kind];
        if (size < reported + kGrowthStep)
            continue;
        const std::string file = muxer.GetLocation();
        const bool near_limit = size + kNearLimitMargin >= _MaximumFilesize;
        Log::Info(report.format, "PeriodicFileWatcher", file.c_str(),
            static_cast<unsigned long long>(size >> 20), near_limit ? "True" : "False");
        signal_file_grew.emit(report.signal, file, near_limit);
        reported = size;
    }
}

void OrbStreamer::RegisterStorageWritesInactive()
{
    Log::Info(
        "[Streamer] Register autolog, snapVoice and video writes inactive for all mounted storage devices.");
    std::vector<std::string> devices;
    if (Storaged::StorageDaemonDbusHandler::GetStorageObjectPaths(devices) < 0)
        return;
    Log::Info("[Streamer] GetStorageObjectPaths returned:");
    for (const std::string& device : devices)
        Log::Info("%s.", device.c_str());
    for (const std::string& device : devices) {
        bool mounted = false;
        if (Storaged::StorageDaemonDbusHandler::GetMounted(device, mounted) < 0 || !mounted)
            continue;
        for (uint8_t type : kClearedWriteTypes)
            Storaged::StorageDaemonDbusHandler::SetWriteActive(device, type, false);
    }
}

void OrbStreamer::ArmPeriodicTimer()
{
    _PeriodicTimer = AttachTimeout(_Motion.GetUpdateInterval(), &OrbStreamer::OnPeriodicTimer, this);
}

gboolean OrbStreamer::OnPeriodicTimer(gpointer user_data)
{
    auto* self = static_cast<OrbStreamer*>(user_data);
    self->_Motion.PeriodicUpdate();
    // The overlay's clock.
    self->_Overlay->Update(std::time(nullptr));
    self->PeriodicFileWatcher();
    return G_SOURCE_CONTINUE;
}

} // namespace VideoDaemon
