// The streamer's small handlers on their own: rotation and tilt (ranges, steps, published angles), motion
// detection from the rate samples, and the reel's count text.
#include <gtest/gtest.h>

#include <any>
#include <cstdlib>

#include "streamers/motion_handler.h"
#include "streamers/reel_handler.h"
#include "streamers/rotation_handler.h"

using namespace VideoDaemon;

namespace
{

TEST(RotationHandler, KeepsOnlySettingsWithinTheLevellingElementsRanges)
{
    RotationHandler handler;
    EXPECT_EQ("180", handler.GetSteps());
    for (const char* steps : { "0", "90", "180" })
        EXPECT_TRUE(handler.SetSteps(steps)) << steps;
    EXPECT_FALSE(handler.SetSteps("45"));
    EXPECT_EQ("180", handler.GetSteps());

    EXPECT_TRUE(handler.SetOverrideAngleText("-90"));
    EXPECT_EQ(-90, handler.GetOverrideAngle());
    for (const char* bad : { "", "12x", "360", "99999999999" })
        EXPECT_FALSE(handler.SetOverrideAngleText(bad)) << bad;
    EXPECT_EQ("-90", handler.GetOverrideAngleText());
    EXPECT_FALSE(handler.SetThreshold(31));
    EXPECT_FALSE(handler.SetNumFrames(241));
    EXPECT_FALSE(handler.SetMaxTiltAngle(91));
    EXPECT_FALSE(handler.SetMaxTiltAngle(-1));
    EXPECT_TRUE(handler.SetMaxTiltAngle(45));
    EXPECT_EQ(45, handler.GetMaxTiltAngle());
}

TEST(RotationHandler, PublishesTheRollPitchAndTheRotationTheLevellingApplies)
{
    RotationHandler handler;
    std::vector<std::vector<std::string>> changes;
    std::vector<bool> from_settings;
    handler.signal_angles_changed.connect([&](std::vector<std::string> names, bool from_setting) {
        changes.push_back(names);
        from_settings.push_back(from_setting);
    });

    handler.OnCameraRoll(-100.4);
    EXPECT_EQ(-100, handler.GetRollAngle());
    EXPECT_EQ("-100°", handler.GetRollAngleText());
    // Levelling off: the picture is not turned.
    EXPECT_EQ(0, handler.GetRotationAngle());
    handler.SetEnabled(true);
    // The nearest half turn.
    EXPECT_EQ(180, std::abs(handler.GetRotationAngle()));
    handler.SetSteps("90");
    EXPECT_EQ(-90, handler.GetRotationAngle());
    handler.SetSteps("0");
    EXPECT_EQ(-100, handler.GetRotationAngle());
    handler.SetOverrideAngle(30);
    EXPECT_EQ(30, handler.GetRotationAngle());
    handler.OnCameraRoll(-100.2);
    EXPECT_EQ((std::vector<std::string> { "CameraRollAngle", "CameraRollAngleRaw" }), changes.front());
    EXPECT_FALSE(from_settings.front());
    // A setting's change is announced after the call that made it.
    EXPECT_TRUE(from_settings[1]);
    const size_t before = changes.size();
    handler.OnCameraRoll(-99.6);
    EXPECT_EQ(before, changes.size());

    // A remote unit's samples: gravity along the picture's right edge is a
    // quarter turn, tilted down by half the rest.
    handler.OnRemoteMotion(1.0, 0.0, -1.0, 0, 0, 0, 0);
    EXPECT_EQ(90, handler.GetRollAngle());
    EXPECT_EQ(-45, handler.GetPitchAngle());
    EXPECT_EQ("-45°", handler.GetPitchText());
}

TEST(MotionHandler, ReportsOneMovementOnceItHasLastedTheDetectionPeriod)
{
    MotionHandler handler;
    handler.SetDetectionPeriod(200);
    std::vector<int32_t> detected;
    handler.signal_motion_detected.connect(
        [&](int32_t strength, std::string) { detected.push_back(strength); });

    handler.OnRawMotion(0, 0, 0, 5, 5, 5, 0.0);
    handler.OnRawMotion(0, 0, 0, 30, 0, 0, 1.0);
    handler.OnRawMotion(0, 0, 0, 30, 40, 0, 1.1);
    EXPECT_TRUE(detected.empty());
    handler.OnRawMotion(0, 0, 0, 30, 40, 0, 1.25);
    handler.OnRawMotion(0, 0, 0, 30, 40, 0, 1.5);
    EXPECT_EQ(std::vector<int32_t> { 50 }, detected);
    // At rest, then moving again.
    handler.OnRawMotion(0, 0, 0, 1, 0, 0, 2.0);
    handler.OnRawMotion(0, 0, 0, 0, 0, -25, 2.1);
    handler.OnRawMotion(0, 0, 0, 0, 0, -25, 2.4);
    EXPECT_EQ((std::vector<int32_t> { 50, 25 }), detected);

    std::vector<uint32_t> intervals;
    handler.signal_update_interval_changed.connect([&](uint32_t interval) { intervals.push_back(interval); });
    EXPECT_FALSE(handler.SetUpdateInterval(0));
    EXPECT_TRUE(handler.SetUpdateInterval(1000));
    EXPECT_TRUE(handler.SetUpdateInterval(250));
    EXPECT_EQ(std::vector<uint32_t> { 250 }, intervals);
}

TEST(ReelHandler, ShowsTheConnectedReelsCountInItsUnitsWithTheDecimalMark)
{
    ReelHandler handler;
    std::vector<std::string> texts;
    handler.signal_count_changed.connect([&](std::string text) { texts.push_back(text); });
    handler.OnReelProperties({ { "Count", { "d", std::any(12.34) } } });
    EXPECT_EQ("", handler.GetCountText());
    handler.OnReelProperties({ { "Connected", { "b", std::any(true) } } });
    EXPECT_EQ("12.3 m", handler.GetCountText());
    handler.SetDecimalMark(",");
    handler.OnSettingsChanged({ { "distanceUnits", { "s", std::any(std::string("ft")) } } });
    EXPECT_EQ("40,5 ft", handler.GetCountText());
    EXPECT_FALSE(handler.SetDistanceUnits("yd"));
    handler.CameraLost();
    EXPECT_EQ((std::vector<std::string> { "12.3 m", "12,3 m", "40,5 ft", "" }), texts);
}

} // namespace
