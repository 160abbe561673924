// The muxer's moov recovery file: the file's header as the muxer began it, and one entry per sample
// written, in the order the samples went into the media data.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "recover/mp4_box.h"

namespace VideoDaemon
{

// What a track's header says about the samples of the media data.
struct RecoveryTrack {
    enum class Codec { kAvc, kAac, kOther };

    std::uint32_t id = 0;
    std::uint32_t timescale = 0;
    Codec codec = Codec::kOther;
    // The trak box as the muxer began it: headers and sample description, empty sample tables.
    Mp4Box trak;
    // H.264: bytes of each NAL unit's length prefix, picture size.
    unsigned nal_length_size = 4;
    unsigned width = 0;
    unsigned height = 0;
    // AAC: the decoder configuration (AudioSpecificConfig), sample rate, channels.
    std::vector<std::uint8_t> audio_config;
    unsigned sample_rate = 0;
    unsigned channels = 0;
};

// One sample (or run of equal samples) as the muxer recorded it. `chunk_offset` counts from the start of
// the media data.
struct RecoveryEntry {
    std::uint32_t track_id = 0;
    std::uint32_t sample_count = 0;
    std::uint32_t duration = 0;
    std::uint32_t size = 0;
    std::uint64_t chunk_offset = 0;
    bool sync = false;
    bool has_pts_offset = false;
    std::int64_t pts_offset = 0;
};

class RecoveryFile
{
public:
    // False with `error` set when the file is missing, empty or not a recovery file this tool reads.
    bool Load(const std::string& path, std::string& error);

    // The boxes that open the file (ftyp, with any prefix box before it).
    const std::vector<std::uint8_t>& FileTypeBytes() const { return _FileType; }
    const Mp4Box& MovieHeader() const { return _MovieHeader; }
    std::uint32_t MovieTimescale() const { return _MovieTimescale; }
    const std::vector<RecoveryTrack>& Tracks() const { return _Tracks; }
    const std::vector<RecoveryEntry>& Entries() const { return _Entries; }
    // Bytes after the last whole entry: an entry cut off when the process ended.
    std::size_t TrailingBytes() const { return _TrailingBytes; }

private:
    bool ParseTrack(const std::uint8_t* data, std::size_t size, RecoveryTrack& track, std::string& error);

    std::vector<std::uint8_t> _FileType;
    Mp4Box _MovieHeader;
    std::uint32_t _MovieTimescale = 0;
    std::vector<RecoveryTrack> _Tracks;
    std::vector<RecoveryEntry> _Entries;
    std::size_t _TrailingBytes = 0;
};

} // namespace VideoDaemon
