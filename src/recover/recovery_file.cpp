// The muxer's moov recovery file: the file's header as the muxer began it, and one entry per sample
// written, in the order the samples went into the media data.
#include "recover/recovery_file.h"

#include <fstream>
#include <iterator>

#include "recover/byte_reader.h"

namespace VideoDaemon
{

namespace
{

// The only layout the muxer writes.
const std::uint16_t kVersion = 1;
// track id, sample count, duration, size (4 bytes each), chunk offset (8), sync, has pts offset (1 each),
// pts offset (8).
const std::size_t kEntrySize = 34;
// More tracks than a capture ever has means damaged input.
const std::uint32_t kMaxTracks = 64;
// A recovery file of an hour's capture is a few MiB; far more is not one.
const std::uint64_t kMaxFileSize = 1024ull * 1024 * 1024;

// Reads one box header at the reader's position: its type and the size of its content.
bool ReadBoxHeader(ByteReader& reader, std::string& type, std::size_t& content)
{
    std::uint32_t size = 0;
    std::vector<std::uint8_t> type_bytes;
    if (!reader.ReadU32(size) || !reader.ReadBytes(4, type_bytes) || size < 8
        || size - 8 > reader.Remaining())
        return false;
    type.assign(type_bytes.begin(), type_bytes.end());
    content = size - 8;
    return true;
}

// The descriptor length of an MPEG-4 elementary stream descriptor: up to four 7-bit groups.
bool ReadDescriptorLength(ByteReader& reader, std::size_t& length)
{
    length = 0;
    for (int i = 0; i < 4; ++i) {
        std::uint8_t byte = 0;
        if (!reader.ReadU8(byte))
            return false;
        length = (length << 7) | (byte & 0x7f);
        if ((byte & 0x80) == 0)
            return true;
    }
    return true;
}

// The AudioSpecificConfig inside an esds box's ES descriptor.
bool ReadAudioConfig(const std::vector<std::uint8_t>& esds, std::vector<std::uint8_t>& config)
{
    ByteReader reader(esds.data(), esds.size());
    std::uint8_t tag = 0;
    std::size_t length = 0;
    std::uint8_t flags = 0;
    if (!reader.Skip(4) || !reader.ReadU8(tag) || tag != 0x03 || !ReadDescriptorLength(reader, length)
        || !reader.Skip(2) || !reader.ReadU8(flags))
        return false;
    if (flags & 0x80)
        reader.Skip(2);
    if (flags & 0x40) {
        std::uint8_t url_length = 0;
        if (!reader.ReadU8(url_length) || !reader.Skip(url_length))
            return false;
    }
    if (flags & 0x20)
        reader.Skip(2);
    if (!reader.ReadU8(tag) || tag != 0x04 || !ReadDescriptorLength(reader, length) || !reader.Skip(13))
        return false;
    if (!reader.ReadU8(tag) || tag != 0x05 || !ReadDescriptorLength(reader, length) || length == 0)
        return false;
    return reader.ReadBytes(length, config);
}

// The fields of a full box header's version: offsets of a value in version 0 and version 1 boxes.
std::size_t VersionedOffset(const std::vector<std::uint8_t>& payload, std::size_t v0, std::size_t v1)
{
    return !payload.empty() && payload[0] == 1 ? v1 : v0;
}

std::uint32_t U32At(const std::vector<std::uint8_t>& bytes, std::size_t offset)
{
    std::uint32_t value = 0;
    if (offset <= bytes.size()) {
        ByteReader reader(bytes.data() + offset, bytes.size() - offset);
        reader.ReadU32(value);
    }
    return value;
}

} // namespace

bool RecoveryFile::Load(const std::string& path, std::string& error)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = path + ": cannot open the recovery file";
        return false;
    }
    file.seekg(0, std::ios::end);
    const std::streamoff length = file.tellg();
    file.seekg(0, std::ios::beg);
    if (length <= 0) {
        error = path + ": the recovery file is empty";
        return false;
    }
    if (static_cast<std::uint64_t>(length) > kMaxFileSize) {
        error = path + ": too large for a recovery file";
        return false;
    }
    const std::vector<std::uint8_t> bytes(
        (std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::string not_one = path + ": not a moov recovery file (";
    ByteReader reader(bytes.data(), bytes.size());

    std::uint16_t version = 0;
    if (!reader.ReadU16(version) || version != kVersion) {
        error = not_one + "unknown version)";
        return false;
    }
    // An optional prefix box, then the ftyp box.
    std::string type;
    std::size_t content = 0;
    const std::size_t file_type_start = reader.Position();
    if (!ReadBoxHeader(reader, type, content) || !reader.Skip(content)) {
        error = not_one + "no file type box)";
        return false;
    }
    if (type != "ftyp"
        && (!ReadBoxHeader(reader, type, content) || !reader.Skip(content) || type != "ftyp")) {
        error = not_one + "no file type box)";
        return false;
    }
    _FileType.assign(bytes.begin() + file_type_start, bytes.begin() + reader.Position());

    const std::size_t header_start = reader.Position();
    if (!ReadBoxHeader(reader, type, content) || type != "mvhd" || !reader.Skip(content)) {
        error = not_one + "no movie header)";
        return false;
    }
    std::vector<Mp4Box> header;
    if (!Mp4Box::ParseAll(bytes.data() + header_start, reader.Position() - header_start, header)) {
        error = not_one + "damaged movie header)";
        return false;
    }
    _MovieHeader = header.front();

    std::uint32_t track_count = 0;
    if (!reader.ReadU32(_MovieTimescale) || !reader.ReadU32(track_count) || _MovieTimescale == 0
        || track_count == 0 || track_count > kMaxTracks) {
        error = not_one + "damaged track count or timescale)";
        return false;
    }
    for (std::uint32_t i = 0; i < track_count; ++i) {
        const std::size_t start = reader.Position();
        if (!ReadBoxHeader(reader, type, content) || type != "trak" || !reader.Skip(content)) {
            error = not_one + "track " + std::to_string(i + 1) + " is missing or damaged)";
            return false;
        }
        RecoveryTrack track;
        if (!ParseTrack(bytes.data() + start, reader.Position() - start, track, error)) {
            error = not_one + "track " + std::to_string(i + 1) + ": " + error + ")";
            return false;
        }
        _Tracks.push_back(std::move(track));
    }

    while (reader.Remaining() >= kEntrySize) {
        RecoveryEntry entry;
        std::uint8_t sync = 0;
        std::uint8_t has_pts = 0;
        std::uint64_t pts = 0;
        reader.ReadU32(entry.track_id);
        reader.ReadU32(entry.sample_count);
        reader.ReadU32(entry.duration);
        reader.ReadU32(entry.size);
        reader.ReadU64(entry.chunk_offset);
        reader.ReadU8(sync);
        reader.ReadU8(has_pts);
        reader.ReadU64(pts);
        entry.sync = sync != 0;
        entry.has_pts_offset = has_pts != 0;
        entry.pts_offset = static_cast<std::int64_t>(pts);
        _Entries.push_back(entry);
    }
    _TrailingBytes = reader.Remaining();
    return true;
}

bool RecoveryFile::ParseTrack(
    const std::uint8_t* data, std::size_t size, RecoveryTrack& track, std::string& error)
{
    std::vector<Mp4Box> boxes;
    if (!Mp4Box::ParseAll(data, size, boxes) || boxes.size() != 1) {
        error = "malformed boxes";
        return false;
    }
    track.trak = std::move(boxes.front());
    const Mp4Box* tkhd = track.trak.Find("tkhd");
    const Mp4Box* mdhd = track.trak.Find("mdia/mdhd");
    const Mp4Box* hdlr = track.trak.Find("mdia/hdlr");
    const Mp4Box* stsd = track.trak.Find("mdia/minf/stbl/stsd");
    if (!tkhd || !mdhd || !hdlr || !stsd) {
        error = "no track header, media header, handler or sample description";
        return false;
    }
    track.id = U32At(tkhd->Payload(), VersionedOffset(tkhd->Payload(), 12, 20));
    track.timescale = U32At(mdhd->Payload(), VersionedOffset(mdhd->Payload(), 12, 20));
    if (track.id == 0 || track.timescale == 0) {
        error = "no track id or timescale";
        return false;
    }

    // The first sample description names the codec.
    const std::vector<std::uint8_t>& description = stsd->Payload();
    if (description.size() < 8 + 8) {
        error = "empty sample description";
        return false;
    }
    std::vector<Mp4Box> entries;
    const std::uint32_t first_size = U32At(description, 8);
    if (first_size < 8 || first_size > description.size() - 8
        || !Mp4Box::ParseAll(description.data() + 8, first_size, entries)) {
        error = "damaged sample description";
        return false;
    }
    const Mp4Box& entry = entries.front();
    const std::vector<std::uint8_t>& fields = entry.Payload();
    std::vector<Mp4Box> extensions;
    if (entry.Type() == "avc1" || entry.Type() == "avc3") {
        // A visual sample entry's fixed part is 78 bytes; the codec's boxes follow.
        if (fields.size() < 78 || !Mp4Box::ParseAll(fields.data() + 78, fields.size() - 78, extensions)) {
            error = "damaged H.264 sample entry";
            return false;
        }
        track.width = U32At(fields, 22) & 0xffff;
        track.height = U32At(fields, 24) & 0xffff;
        for (const Mp4Box& extension : extensions)
            if (extension.Type() == "avcC" && extension.Payload().size() >= 5)
                track.nal_length_size = (extension.Payload()[4] & 3) + 1;
        track.codec = RecoveryTrack::Codec::kAvc;
    } else if (entry.Type() == "mp4a") {
        // An audio sample entry's fixed part is 28 bytes in version 0, 44 in 1 and 64 in 2.
        const std::uint16_t version = static_cast<std::uint16_t>(U32At(fields, 6) & 0xffff);
        const std::size_t fixed = version == 1 ? 44 : version == 2 ? 64 : 28;
        if (fields.size() < fixed
            || !Mp4Box::ParseAll(fields.data() + fixed, fields.size() - fixed, extensions)) {
            error = "damaged AAC sample entry";
            return false;
        }
        track.channels = U32At(fields, 14) & 0xffff;
        track.sample_rate = U32At(fields, 24) >> 16;
        for (const Mp4Box& extension : extensions)
            if (extension.Type() == "esds")
                ReadAudioConfig(extension.Payload(), track.audio_config);
        track.codec = track.audio_config.empty() ? RecoveryTrack::Codec::kOther : RecoveryTrack::Codec::kAac;
    }
    return true;
}

} // namespace VideoDaemon
