// Which storage device holds a file: the mount point is matched on whole components of the normalised paths.
#include <gtest/gtest.h>

#include "clients/storage_path.h"

using Storaged::StoragePath;

TEST(StoragePath, MatchesWholePathComponentsOnly)
{
    EXPECT_TRUE(StoragePath::Contains("/media/sd", "/media/sd/video.mp4"));
    EXPECT_TRUE(StoragePath::Contains("/media/sd/", "/media/sd/video.mp4"));
    EXPECT_TRUE(StoragePath::Contains("/media/sd", "/media/sd"));
    EXPECT_TRUE(StoragePath::Contains("/", "/anything"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sd2/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sdcard"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sd/../sd2/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("", "/media/sd/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", ""));
}
