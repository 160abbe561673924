// The streamer's table of named states that the D-Bus service reads and publishes.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace VideoDaemon
{

// Exactly nine entries, created once and never grown: "CaptureActive",
// "TcpLiveStreamEnabled" (starts at 1), "RecordingState", "SnapVoiceState",
// "AutoLogState", "PlaybackState", "VideoInput", "DisplayContent",
// "IsExitPlayback". Capture and playback states: 0 inactive, 1 active,
// 2 paused, -1 error. A name outside the table is a programming error and
// ends the process.
//
// Defined in orb_streamer.cpp: its assertions name that source unit.
class OrbState
{
public:
    OrbState();

    // Logs the name and how many entries carry it, then stores the value.
    void Set(const std::string& member, int value);
    int Get(const std::string& member);
    size_t Size() const { return map.size(); }

private:
    // 32-bit signed values.
    std::map<std::string, int> map;
};

} // namespace VideoDaemon
