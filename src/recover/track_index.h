// The samples of one track found in the media data, and the sample tables that describe them.
#pragma once

#include <cstdint>
#include <vector>

#include "recover/mp4_box.h"

namespace VideoDaemon
{

class TrackIndex
{
public:
    struct Sample {
        // From the start of the media data.
        std::uint64_t offset = 0;
        std::uint32_t size = 0;
        std::uint32_t duration = 0;
        std::int32_t pts_offset = 0;
        bool sync = false;
    };

    explicit TrackIndex(std::uint32_t track_id);

    void Add(const Sample& sample);
    std::uint32_t TrackId() const { return _TrackId; }
    std::size_t Count() const { return _Samples.size(); }
    const std::vector<Sample>& Samples() const { return _Samples; }
    // In the track's timescale.
    std::uint64_t Duration() const { return _Duration; }
    // The median sample duration so far, `fallback` when there is none.
    std::uint32_t TypicalDuration(std::uint32_t fallback) const;

    // The sample tables after the sample description: stts, stss (unless every sample is a sync sample),
    // ctts (when a presentation offset is set), stsc, stsz and stco (co64 past 4 GiB), one sample per chunk.
    // `media_start` is the file offset of the media data's first byte.
    std::vector<Mp4Box> Tables(std::uint64_t media_start) const;

private:
    std::uint32_t _TrackId;
    std::vector<Sample> _Samples;
    std::uint64_t _Duration = 0;
};

} // namespace VideoDaemon
