// The frame-rate probe's window: buffers of the last second count, older ones fall out.
#include <gtest/gtest.h>

#include "pipelines/framerate_probe.h"

using VideoDaemon::FramerateProbe;

namespace
{
constexpr int64_t kSecondUs = 1000000;
}

TEST(FramerateProbe, CountsTheBuffersOfTheLastSecondOnly)
{
    FramerateProbe probe;
    EXPECT_EQ(probe.GetFramesPerSecond(0), 0u);
    for (int64_t frame = 0; frame < 30; ++frame)
        probe.Count(frame * kSecondUs / 30);
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs - 1), 30u);
    // A buffer exactly one second old is out of the window.
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs), 29u);
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs + kSecondUs / 2), 14u);
    EXPECT_EQ(probe.GetFramesPerSecond(2 * kSecondUs), 0u);
}

TEST(FramerateProbe, ABufferListCountsEachOfItsBuffers)
{
    FramerateProbe probe;
    probe.Count(0, 4);
    probe.Count(kSecondUs / 2);
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs / 2), 5u);
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs), 1u);
}
