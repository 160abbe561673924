// Writes the recovered capture: the file type, the media data the index covers, and a movie box built from
// the recovery file's track headers and the rebuilt sample tables.
#pragma once

#include <string>
#include <vector>

#include "recover/capture_file.h"
#include "recover/recovery_file.h"
#include "recover/track_index.h"

namespace VideoDaemon
{

class RecoveredFileWriter
{
public:
    RecoveredFileWriter(const RecoveryFile& recovery, const CaptureFile& capture);

    // Writes `path` through a temporary file beside it, so a failure never leaves half a file under that
    // name. False with `error` set on failure.
    bool Write(const std::string& path, const std::vector<TrackIndex>& tracks, std::uint64_t media_used,
        std::string& error) const;

    // Copies a finished capture unchanged.
    bool Copy(const std::string& path, std::string& error) const;

private:
    std::vector<std::uint8_t> MovieBox(
        const std::vector<TrackIndex>& tracks, std::uint64_t media_start) const;
    bool WriteFile(const std::string& path, const std::vector<std::uint8_t>& head, std::uint64_t from,
        std::uint64_t length, const std::vector<std::uint8_t>& tail, std::string& error) const;

    const RecoveryFile& _Recovery;
    const CaptureFile& _Capture;
};

} // namespace VideoDaemon
