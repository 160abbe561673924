// The streamer configured from the settings daemon: every key read in order with its default kept when the
// read fails, the stored values applied, and the section changes reaching the encoders, the rotation handler
// and the zoom while the daemon runs.
#include "dbus/dbus_test_env.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

const char kService[] = "com.tarnwell.common.Settings1";
const char kBase[] = "/com/tarnwell/common/Settings1/";
const char kSimulation[] = "com.tarnwell.host.Simulation";
const char kSignature[] = "void VideoDaemon::OrbStreamer::ConfigureFromSettings()";

// The settings client, made before the streamer that is given it.
struct SettingsClient {
    std::shared_ptr<Settingsd::SettingsDaemonDbusHandler> settings
        = std::make_shared<Settingsd::SettingsDaemonDbusHandler>(nullptr);
};

class OrbStreamerSettings : public VideodTest::DbusTestEnv, public SettingsClient, public StreamerFixture
{
protected:
    OrbStreamerSettings()
        : StreamerFixture(OrbStreamer::DebugMetrics(), OrbStreamer::kCameraStandardPath, settings)
    {
    }

    int SetSetting(const std::string& section, const std::string& key, const std::vector<std::string>& value)
    {
        return Set(kService, kBase + section, kService, key, value);
    }

    // Announces a change of `section` as the settings daemon does, with any value, and waits until the
    // client has passed it on.
    bool Announce(const std::string& section, const std::vector<std::string>& changed)
    {
        bool seen = false;
        sigc::connection connection
            = settings->SectionSignal(section)->connect([&](const TypedPropertyMap&) { seen = true; });
        std::vector<std::string> args { "osa{sv}", std::string(kBase) + section, kService };
        args.insert(args.end(), changed.begin(), changed.end());
        const bool sent
            = Call(kService, "/com/tarnwell/common/Settings1", kSimulation, "EmitPropertiesChanged", args)
            == 0;
        const bool passed = sent && RunMainLoopUntil([&] { return seen; }, 5000);
        connection.disconnect();
        return passed;
    }
};

TEST_F(OrbStreamerSettings, WithoutTheSettingsDaemonEveryKeyKeepsItsDefaultAndConfigurationCompletes)
{
    streamer.InitializePipelines();
    streamer.ConfigureFromSettings();

    const std::vector<std::string> info = LinesStartingWith(log, LOG_INFO, "");
    const auto title = std::find(info.begin(), info.end(), " Configure pipelines using settings ");
    ASSERT_TRUE(title != info.end() && title != info.begin() && title + 1 != info.end());
    EXPECT_EQ("------------------------------------", *(title - 1));
    EXPECT_EQ("------------------------------------", *(title + 1));
    EXPECT_TRUE(log.Contains(LOG_INFO, "Configure pipeline done"));
    // One line per key, in the table's order, then the zoom and rotation groups.
    const std::vector<std::string> failed = LinesStartingWith(log, LOG_WARNING, "Failed to fetch ");
    ASSERT_GE(failed.size(), 30u);
    EXPECT_EQ("Failed to fetch h264EncodingBitrate setting", failed.front());
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Failed to fetch de-interlace setting"));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Failed to fetch overlay record template file"));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Failed to fetch overlay display template file"));
    EXPECT_TRUE(log.Contains(
        LOG_WARNING, std::string(kSignature) + ": Something went bad, failed to fetch reel settings"));
    EXPECT_TRUE(log.Contains(LOG_ERR, std::string(kSignature) + ": Failed to get default Mic setting"));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Failed to get hysteresis value for dslHysteresis"));
    // The built-in defaults.
    EXPECT_EQ(24u, streamer.Encoder(OrbStreamer::kVideoCapture).GetQuantParam());
    EXPECT_EQ("180", streamer.Rotation().GetSteps());
    EXPECT_EQ("1 1", streamer.Rotation().GetRollFilterCoeffs());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Roll filter weights: 1 1"));
    EXPECT_EQ(4294967295ull, streamer.GetMaximumFilesize());
    EXPECT_FALSE(streamer.GetSystemMicMute());
}

TEST_F(OrbStreamerSettings, StoredValuesAreAppliedAndChangesReachTheEncodersRotationAndZoomButBadValuesNot)
{
    ASSERT_TRUE(StartPeer("settings")) << LastError();
    ASSERT_EQ(0, settings->Listen());
    ASSERT_EQ(0, SetSetting("videoRecording", "h264EncodingQuantization", { "u", "30" }));
    ASSERT_EQ(0, SetSetting("autologRecording", "h264EncodingGop", { "u", "8" }));
    ASSERT_EQ(0, SetSetting("video", "rotationSteps", { "s", "90" }));
    ASSERT_EQ(0, SetSetting("video", "maximumFilesize", { "t", "104857600" }));
    ASSERT_EQ(0, SetSetting("audio", "micEnabled", { "b", "false" }));
    ASSERT_EQ(0, SetSetting("video", "deinterlaceMethod", { "s", "low-motion" }));
    streamer.InitializePipelines();
    streamer.ConfigureFromSettings();

    EXPECT_EQ(30u, streamer.Encoder(OrbStreamer::kVideoCapture).GetQuantParam());
    EXPECT_EQ(8u, streamer.Encoder(OrbStreamer::kAutoLogCapture).GetGopSize());
    EXPECT_EQ("90", streamer.Rotation().GetSteps());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Rotation steps: 90"));
    EXPECT_EQ(104857600ull, streamer.GetMaximumFilesize());
    EXPECT_TRUE(log.Contains(LOG_INFO, std::string(kSignature) + ": Got default Mic state: 0"));
    EXPECT_TRUE(streamer.GetSystemMicMute());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Applying DSL zoom settings"));
    // Before an input is selected the method is kept for the camera only.
    EXPECT_TRUE(log.Contains(
        LOG_ERR, "Valid deinterlace method, _Input is not set yet. Not setting Deinterlace Method"));
    EXPECT_EQ("low-motion", streamer.GetDeinterlaceMethod());
    EXPECT_TRUE(LinesStartingWith(log, LOG_WARNING, "Failed to fetch ").empty());

    // Changes while the daemon runs reach the encoders, rotation and zoom; bad values are refused.
    ASSERT_TRUE(Announce("videoRecording", { "1", "h264EncodingBitrate", "u", "2000" }));
    EXPECT_EQ(2000u, streamer.Encoder(OrbStreamer::kVideoCapture).GetBitrate());
    EXPECT_EQ(0u, streamer.Encoder(OrbStreamer::kAutoLogCapture).GetBitrate());
    ASSERT_TRUE(Announce("autologRecording", { "1", "h264EncodingQuantization", "u", "35" }));
    EXPECT_EQ(35u, streamer.Encoder(OrbStreamer::kAutoLogCapture).GetQuantParam());

    ASSERT_TRUE(Announce("video", { "2", "rotationSteps", "s", "0", "rollFilterCoeffs", "s", "1 2 1" }));
    EXPECT_EQ("0", streamer.Rotation().GetSteps());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Rotation steps changed: 0"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "Roll filter coefficients changed: 1 2 1"));

    // A zoom set is [default, min, max]; two values are refused.
    ASSERT_TRUE(Announce("video", { "1", "zoomLevelsNonDsl", "ad", "3", "1.5", "1", "3" }));
    EXPECT_DOUBLE_EQ(3.0, streamer.Gpu().GetZoomMax());
    EXPECT_TRUE(log.Contains(LOG_INFO, "Zoom set changed: zoomLevelsNonDsl"));
    ASSERT_TRUE(Announce("video", { "1", "zoomLevelsNonDsl", "ad", "2", "1", "2" }));
    EXPECT_TRUE(
        log.Contains(LOG_WARNING, "DSL zoom settings should be [default, min, max], but array length is 2"));
    EXPECT_DOUBLE_EQ(3.0, streamer.Gpu().GetZoomMax());

    // No such de-interlacing; a value of the wrong type.
    ASSERT_TRUE(Announce("video", { "1", "deinterlaceMethod", "s", "none" }));
    EXPECT_TRUE(log.Contains(LOG_WARNING, "Invalid de-interlace method in the settings"));
    ASSERT_TRUE(Announce("development", { "1", "maxTiltAngle", "s", "45" }));
    EXPECT_TRUE(log.Contains(LOG_ERR, "cast error: maxTiltAngle"));
    ASSERT_TRUE(Announce("development", { "1", "maxTiltAngle", "i", "45" }));
    EXPECT_EQ(45, streamer.Rotation().GetMaxTiltAngle());
}

} // namespace
