// Rebuilds the sample index of a capture: first from the recovery file's entries, then, past the last entry
// the file holds, by walking the media data itself up to the last byte that reached the disk.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "recover/capture_file.h"
#include "recover/recovery_file.h"
#include "recover/track_index.h"

namespace VideoDaemon
{

class IndexRebuilder
{
public:
    IndexRebuilder(const RecoveryFile& recovery, const CaptureFile& capture);

    // False with `error` set when no sample at all could be placed.
    bool Rebuild(std::string& error);

    // One per track of the recovery file, in its order.
    const std::vector<TrackIndex>& Tracks() const { return _Tracks; }
    // Bytes of media data the index covers, from its start.
    std::uint64_t MediaUsed() const { return _MediaUsed; }
    std::size_t SamplesFromEntries() const { return _FromEntries; }
    std::size_t SamplesFromMedia() const { return _FromMedia; }
    // Why the walk of the media data stopped, for the summary.
    const std::string& StopReason() const { return _StopReason; }

private:
    void PlaceEntries();
    void WalkMedia();
    TrackIndex* IndexOf(std::uint32_t track_id);

    const RecoveryFile& _Recovery;
    const CaptureFile& _Capture;
    std::vector<TrackIndex> _Tracks;
    std::uint64_t _MediaUsed = 0;
    std::size_t _FromEntries = 0;
    std::size_t _FromMedia = 0;
    std::string _StopReason;
};

} // namespace VideoDaemon
