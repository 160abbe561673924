// File paths are compared absolute and lexically normalised, by the snapshot pipeline and the storage client
// alike.
#include <gtest/gtest.h>

#include <filesystem>

#include "common/normalised_path.h"

using VideoDaemon::NormalisedPath;

TEST(NormalisedPath, IsAbsoluteWithoutDotsRepeatedOrTrailingSlashes)
{
    EXPECT_EQ(NormalisedPath("/media//sd/./DCIM/../video.mp4"), "/media/sd/video.mp4");
    EXPECT_EQ(NormalisedPath("/media/sd/"), "/media/sd");
    EXPECT_EQ(NormalisedPath("/tmp/snap/.//wanted.jpg"), "/tmp/snap/wanted.jpg");
    EXPECT_EQ(NormalisedPath("/"), "/");
    EXPECT_EQ(NormalisedPath("/.."), "/");
    EXPECT_EQ(NormalisedPath(""), "");
}

TEST(NormalisedPath, TakesRelativePathsFromTheWorkingDirectory)
{
    EXPECT_EQ(NormalisedPath("clip.mp4"), (std::filesystem::current_path() / "clip.mp4").string());
    EXPECT_EQ(NormalisedPath("./a/../clip.mp4"), (std::filesystem::current_path() / "clip.mp4").string());
}
