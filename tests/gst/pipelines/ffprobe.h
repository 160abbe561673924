// Reads media files with ffprobe, the independent reader of the tests.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace PipelineHarness
{

// Output lines of a shell command.
inline std::vector<std::string> CommandLines(const std::string& command)
{
    std::vector<std::string> lines;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    if (!pipe)
        return lines;
    char buffer[1024];
    std::string line;
    while (fgets(buffer, sizeof(buffer), pipe.get())) {
        line += buffer;
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
            lines.push_back(line);
            line.clear();
        }
    }
    if (!line.empty())
        lines.push_back(line);
    return lines;
}

// ffprobe's "flat" output of the given entries, as key -> value without quotes,
// e.g. "streams.stream.0.codec_name" -> "h264".
inline std::map<std::string, std::string> ProbeEntries(
    const std::string& path, const std::string& entries, const std::string& extra = "")
{
    std::map<std::string, std::string> result;
    for (const std::string& line : CommandLines(
             "ffprobe -v error " + extra + " -show_entries " + entries + " -of flat '" + path + "'")) {
        size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        std::string value = line.substr(equals + 1);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        result[line.substr(0, equals)] = value;
    }
    return result;
}

// Presentation times (seconds) and flags of a stream's packets, in file order.
struct Packet {
    double pts = 0;
    std::string flags;
};

inline std::vector<Packet> ProbePackets(const std::string& path, const std::string& stream)
{
    std::vector<Packet> packets;
    for (const std::string& line : CommandLines("ffprobe -v error -select_streams " + stream
             + " -show_entries packet=pts_time,flags -of csv=p=0 '" + path + "'")) {
        size_t comma = line.find(',');
        if (comma == std::string::npos)
            continue;
        Packet packet;
        packet.pts = std::strtod(line.substr(0, comma).c_str(), nullptr);
        packet.flags = line.substr(comma + 1);
        packets.push_back(packet);
    }
    return packets;
}

} // namespace PipelineHarness
