// The streamer's configuration from the settings daemon: the stored values at start-up and their changes
// while the daemon runs.
#include "log.h"
#include "streamers/orb_streamer.h"

namespace VideoDaemon
{

OrbStreamer::DebugMetrics OrbStreamer::ReadDebugMetrics()
{
    DebugMetrics metrics;
    Settingsd::SettingsDaemonDbusHandler::GetSetting("development", "renderFramerate", metrics.fps_probes);
    Settingsd::SettingsDaemonDbusHandler::GetSetting(
        "development", "pipelineMetricsEnabled", metrics.queue_signals);
    return metrics;
}

void OrbStreamer::ConfigureFromSettings()
{
    Log::Info("------------------------------------");
    Log::Info(" Configure pipelines using settings ");
    Log::Info("------------------------------------");
    Log::Info("Configure pipeline done");
}

} // namespace VideoDaemon
