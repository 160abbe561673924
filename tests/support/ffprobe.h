// Reads media files with ffprobe (and ffmpeg), the independent readers of the tests.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/glib_ptr.h"

namespace GstTest
{

// Runs a program found on PATH; true when it ran and exited with status 0.
inline bool RunProgram(
    const std::vector<std::string>& arguments, std::string* out, std::string* err = nullptr)
{
    std::vector<gchar*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<gchar*>(argument.c_str()));
    argv.push_back(nullptr);
    gchar* raw_output = nullptr;
    gchar* raw_errors = nullptr;
    gint status = 0;
    const bool ran = g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr,
        &raw_output, &raw_errors, &status, nullptr);
    VideoDaemon::GCharPtr output(raw_output);
    VideoDaemon::GCharPtr errors(raw_errors);
    if (out != nullptr)
        *out = output ? output.get() : "";
    if (err != nullptr)
        *err = errors ? errors.get() : "";
    return ran && g_spawn_check_wait_status(status, nullptr);
}

// What ffprobe prints for the arguments; "" when it fails.
inline std::string Ffprobe(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), { "ffprobe", "-v", "error" });
    std::string output;
    return RunProgram(arguments, &output) ? output : "";
}

// The values of entries ("stream=codec_name", "frame=pict_type", ...) in file order, one per line;
// streams selects ("v:0", "a") or is empty for all.
inline std::vector<std::string> FfprobeValues(
    const std::string& file, const std::string& entries, const std::string& streams = "")
{
    std::vector<std::string> arguments;
    if (!streams.empty())
        arguments.insert(arguments.end(), { "-select_streams", streams });
    if (entries.find("nb_read_frames") != std::string::npos)
        arguments.push_back("-count_frames");
    arguments.insert(arguments.end(), { "-show_entries", entries, "-of", "default=nw=1:nk=1", file });
    std::vector<std::string> values;
    std::istringstream lines(Ffprobe(arguments));
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            values.push_back(line);
    return values;
}

// One numeric entry ("format=duration", "stream=nb_read_frames", ...) of a file; -1 when absent.
inline double FfprobeNumber(
    const std::string& file, const std::string& entry, const std::string& streams = "")
{
    const std::vector<std::string> values = FfprobeValues(file, entry, streams);
    if (values.empty())
        return -1;
    char* end = nullptr;
    const double value = g_ascii_strtod(values.front().c_str(), &end);
    return end == values.front().c_str() ? -1 : value;
}

// Several entries by key, e.g. FfprobeEntries(file, "stream=codec_name,profile", "v:0")["profile"].
inline std::map<std::string, std::string> FfprobeEntries(
    const std::string& file, const std::string& entries, const std::string& streams = "")
{
    std::vector<std::string> arguments;
    if (!streams.empty())
        arguments.insert(arguments.end(), { "-select_streams", streams });
    arguments.insert(arguments.end(), { "-show_entries", entries, "-of", "default=nw=1", file });
    std::map<std::string, std::string> values;
    std::istringstream lines(Ffprobe(arguments));
    for (std::string line; std::getline(lines, line);) {
        const auto equals = line.find('=');
        if (equals != std::string::npos)
            values[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return values;
}

// One packet of a stream: its presentation time (seconds) and flags ("K_" for a key frame).
struct Packet {
    double pts = 0;
    std::string flags;
};

// The packets of one stream ("v:0", "a:0") in file order.
inline std::vector<Packet> FfprobePackets(const std::string& file, const std::string& streams)
{
    std::vector<Packet> packets;
    std::istringstream lines(Ffprobe(
        { "-select_streams", streams, "-show_entries", "packet=pts_time,flags", "-of", "csv=p=0", file }));
    for (std::string line; std::getline(lines, line);) {
        const auto comma = line.find(',');
        if (comma == std::string::npos)
            continue;
        packets.push_back({ g_ascii_strtod(line.substr(0, comma).c_str(), nullptr), line.substr(comma + 1) });
    }
    return packets;
}

// Largest distance (seconds) between consecutive presentation times of the packets.
inline double LargestGap(const std::vector<Packet>& packets)
{
    std::vector<double> times;
    for (const Packet& packet : packets)
        times.push_back(packet.pts);
    std::sort(times.begin(), times.end());
    double gap = 0;
    for (size_t at = 1; at < times.size(); ++at)
        gap = std::max(gap, times[at] - times[at - 1]);
    return gap;
}

// True when ffmpeg decodes the whole file without a complaint.
inline bool FfmpegDecodesCleanly(const std::string& file)
{
    std::string errors;
    // The frames keep their own times: a null output's frame rate would
    // round live-stamped frames together and complain of the order.
    return RunProgram({ "ffmpeg", "-v", "error", "-i", file, "-fps_mode", "passthrough", "-enc_time_base",
                          "-1", "-f", "null", "-" },
               nullptr, &errors)
        && errors.empty();
}

// The streams every capture of the unit holds: H.264 Main 640x480 and AAC
// 48 kHz stereo.
inline void ExpectCaptureStreamFormats(const std::string& file)
{
    auto video = FfprobeEntries(file, "stream=codec_name,profile,width,height", "v:0");
    EXPECT_EQ(video["codec_name"], "h264");
    EXPECT_EQ(video["profile"], "Main");
    EXPECT_EQ(video["width"], "640");
    EXPECT_EQ(video["height"], "480");
    auto audio = FfprobeEntries(file, "stream=codec_name,sample_rate,channels", "a:0");
    EXPECT_EQ(audio["codec_name"], "aac");
    EXPECT_EQ(audio["sample_rate"], "48000");
    EXPECT_EQ(audio["channels"], "2");
}

} // namespace GstTest
