// The streamer's state table: its nine entries, the line Set writes, and the end of the process for a name
// outside it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log.h"
#include "log_capture.h"
#include "streamers/orb_state.h"
#include "support/death_test_style.h"

using VideoDaemon::OrbState;

namespace
{

const std::vector<std::string> kNames { "CaptureActive", "TcpLiveStreamEnabled", "RecordingState",
    "SnapVoiceState", "AutoLogState", "PlaybackState", "VideoInput", "DisplayContent", "IsExitPlayback" };

// Mirrors the daemon's lines on standard error, where a death test reads them.
void LogToStderr()
{
    VideoDaemon::Log::SetHook(
        [](int priority, const std::string& line) { fprintf(stderr, "<%d>%s\n", priority, line.c_str()); });
}

TEST(OrbState, HoldsNineEntriesAllZeroButTheLiveStreamAndSetLogsTheNameWithItsCount)
{
    LogCapture log;
    OrbState state;
    EXPECT_EQ(kNames.size(), state.Size());
    for (const std::string& name : kNames)
        EXPECT_EQ(name == "TcpLiveStreamEnabled" ? 1 : 0, state.Get(name)) << name;
    state.Set("RecordingState", -1);
    state.Set("VideoInput", 3);
    EXPECT_EQ(-1, state.Get("RecordingState"));
    EXPECT_EQ(3, state.Get("VideoInput"));
    EXPECT_TRUE(
        log.Contains(LOG_INFO, "void VideoDaemon::OrbState::Set(const string&, int): RecordingState 1"));
    EXPECT_TRUE(log.Contains(LOG_INFO, "void VideoDaemon::OrbState::Set(const string&, int): VideoInput 1"));
    EXPECT_EQ(kNames.size(), state.Size()) << "setting never grows the table";
}

TEST(OrbStateDeathTest, SetOfANameOutsideTheTableEndsTheProcessAfterLoggingItsCount)
{
    GstTest::UseFreshProcessDeathTests();
    OrbState state;
    EXPECT_DEATH(
        {
            LogToStderr();
            state.Set("RecordingStatus", 1);
        },
        "<6>void VideoDaemon::OrbState::Set\\(const string&, int\\): RecordingStatus 0.*"
        "src/streamers/orb_streamer\\.cpp:60:.*assertion failed: \\(map\\.count\\(member\\) == 1\\)");
}

TEST(OrbStateDeathTest, GetOfANameOutsideTheTableEndsTheProcess)
{
    GstTest::UseFreshProcessDeathTests();
    OrbState state;
    EXPECT_DEATH(state.Get("Recordingstate"),
        "src/streamers/orb_streamer\\.cpp:67:.*OrbState::Get.*assertion failed: "
        "\\(map\\.count\\(member\\) == 1\\)");
}

} // namespace
