// Finds an H.264 access unit in MP4 media data: length-prefixed NAL units, one access unit per sample.
#pragma once

#include <cstdint>

#include "recover/media_file.h"

namespace VideoDaemon
{

class AvcSampleScanner
{
public:
    struct AccessUnit {
        std::uint32_t size = 0;
        // Holds an IDR picture.
        bool sync = false;
    };

    // Scans `file` up to `end`; NAL units longer than `max_nal_size` are taken for other data.
    AvcSampleScanner(
        const MediaFile& file, std::uint64_t end, unsigned nal_length_size, std::uint32_t max_nal_size);

    // True when a whole access unit starts at `offset`: NAL units that open an access unit (delimiter,
    // parameter sets, SEI or the first slice of a picture), then more units up to the next access unit,
    // data that is no NAL unit, or the end.
    bool Scan(std::uint64_t offset, AccessUnit& unit) const;

private:
    const MediaFile& _File;
    std::uint64_t _End;
    unsigned _LengthSize;
    std::uint32_t _MaxNalSize;
};

} // namespace VideoDaemon
