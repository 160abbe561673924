// The camera's roll on the running graph: with levelling on, the GPU turns the picture by the roll snapped to
// the rotation steps, and the streamer announces the published angles.
#include "pipelines/gpu_pipeline.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

class OrbStreamerRotation : public ::testing::Test, public StreamerFixture
{
protected:
    // The levelling element measures a new roll, as the camera turns.
    void Roll(double degrees)
    {
        GstPtr<GstElement> dsl = At(kGpuIndex).FindElement(VIDEOD_FUNCTION, "dsl");
        ASSERT_TRUE(dsl);
        g_signal_emit_by_name(dsl.get(), "simulate-camera-angles", degrees, 0.0);
    }

    // The turn the levelling element gives the displayed picture.
    double DisplayRoll()
    {
        gdouble roll = 0.0;
        EXPECT_TRUE(At(kGpuIndex).GetElementProperty(VIDEOD_FUNCTION, "dsl", "display-roll", roll));
        return roll;
    }
};

TEST_F(OrbStreamerRotation, ACameraRollWithLevellingOnTurnsThePictureAndIsAnnounced)
{
    streamer.InitializePipelines();
    streamer.SetInput(1);
    streamer.StartVideoPipelines();
    ASSERT_TRUE(AllPlaying({ kNtscCameraIndex, kGpuIndex, kDisplayIndex }));
    streamer.Rotation().SetEnabled(true);
    ASSERT_TRUE(streamer.Rotation().SetSteps("90"));
    announced.clear();

    Roll(80.0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return streamer.Rotation().GetRollAngle() == 80; }, 3000));
    EXPECT_EQ(90, streamer.Rotation().GetRotationAngle());
    EXPECT_DOUBLE_EQ(90.0, DisplayRoll());
    EXPECT_EQ("80°", streamer.Rotation().GetRollAngleText());
    ASSERT_FALSE(announced.empty());
    EXPECT_EQ(
        Announcement({ "CameraRollAngle", "CameraRollAngleRaw", "RotationAngle" }, false), announced.back());

    // Continuous levelling follows the roll itself; off, nothing turns.
    ASSERT_TRUE(streamer.Rotation().SetSteps("0"));
    EXPECT_DOUBLE_EQ(80.0, DisplayRoll());
    streamer.Rotation().SetEnabled(false);
    EXPECT_EQ(0, streamer.Rotation().GetRotationAngle());
    Roll(-30.0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return streamer.Rotation().GetRollAngle() == -30; }, 3000));
    EXPECT_EQ(0, streamer.Rotation().GetRotationAngle());
}

} // namespace
