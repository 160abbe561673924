// Writes the recovered capture: the file type, the media data the index covers, and a movie box built from
// the recovery file's track headers and the rebuilt sample tables.
#include "recover/recovered_file_writer.h"

#include <gst/gst.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "recover/byte_writer.h"

namespace VideoDaemon
{

namespace
{

const std::size_t kCopyBlock = 1 << 20;

// Sets a duration field of a movie, track or media header in version 0 (32 bits) or 1 (64 bits).
void SetDuration(Mp4Box& box, std::size_t v0_offset, std::size_t v1_offset, std::uint64_t duration)
{
    std::vector<std::uint8_t>& payload = box.Payload();
    ByteWriter writer(payload);
    if (!payload.empty() && payload[0] == 1)
        writer.PatchU64(v1_offset, duration);
    else
        writer.PatchU32(
            v0_offset, static_cast<std::uint32_t>(std::min<std::uint64_t>(duration, 0xffffffffu)));
}

std::uint64_t Rescale(std::uint64_t value, std::uint32_t to, std::uint32_t from)
{
    if (from == 0)
        return 0;
    return gst_util_uint64_scale_round(value, to, from);
}

} // namespace

RecoveredFileWriter::RecoveredFileWriter(const RecoveryFile& recovery, const CaptureFile& capture)
    : _Recovery(recovery)
    , _Capture(capture)
{
}

std::vector<std::uint8_t> RecoveredFileWriter::MovieBox(
    const std::vector<TrackIndex>& tracks, std::uint64_t media_start) const
{
    const std::uint32_t movie_timescale = _Recovery.MovieTimescale();
    Mp4Box moov("moov");
    Mp4Box header = _Recovery.MovieHeader();
    std::uint64_t longest = 0;

    std::vector<Mp4Box> traks;
    for (std::size_t i = 0; i < tracks.size() && i < _Recovery.Tracks().size(); ++i) {
        const TrackIndex& index = tracks[i];
        const RecoveryTrack& description = _Recovery.Tracks()[i];
        if (index.Count() == 0)
            continue; // a track without samples only confuses players
        Mp4Box trak = description.trak;
        const std::uint64_t movie_duration
            = Rescale(index.Duration(), movie_timescale, description.timescale);
        longest = std::max(longest, movie_duration);
        if (Mp4Box* tkhd = trak.Find("tkhd"))
            SetDuration(*tkhd, 20, 28, movie_duration);
        if (Mp4Box* mdhd = trak.Find("mdia/mdhd"))
            SetDuration(*mdhd, 16, 24, index.Duration());
        Mp4Box* stbl = trak.Find("mdia/minf/stbl");
        const Mp4Box* stsd = stbl ? stbl->Find("stsd") : nullptr;
        if (!stbl || !stsd)
            continue;
        std::vector<Mp4Box> children { *stsd };
        for (Mp4Box& table : index.Tables(media_start))
            children.push_back(std::move(table));
        stbl->Children() = std::move(children);
        traks.push_back(std::move(trak));
    }

    ByteWriter header_writer(header.Payload());
    const bool wide = !header.Payload().empty() && header.Payload()[0] == 1;
    header_writer.PatchU32(wide ? 20 : 12, movie_timescale);
    SetDuration(header, 16, 24, longest);
    moov.Children().push_back(std::move(header));
    for (Mp4Box& trak : traks)
        moov.Children().push_back(std::move(trak));

    std::vector<std::uint8_t> bytes;
    moov.Serialize(bytes);
    return bytes;
}

bool RecoveredFileWriter::Write(const std::string& path, const std::vector<TrackIndex>& tracks,
    std::uint64_t media_used, std::string& error) const
{
    std::vector<std::uint8_t> head = _Recovery.FileTypeBytes();
    // A 64-bit media data header, whatever the size.
    ByteWriter writer(head);
    writer.U32(1);
    writer.FourCc("mdat");
    writer.U64(media_used + 16);
    const std::uint64_t media_start = head.size();
    return WriteFile(path, head, _Capture.MediaStart(), media_used, MovieBox(tracks, media_start), error);
}

bool RecoveredFileWriter::Copy(const std::string& path, std::string& error) const
{
    return WriteFile(path, {}, 0, _Capture.File().Size(), {}, error);
}

bool RecoveredFileWriter::WriteFile(const std::string& path, const std::vector<std::uint8_t>& head,
    std::uint64_t from, std::uint64_t length, const std::vector<std::uint8_t>& tail, std::string& error) const
{
    const std::string temporary = path + ".partial";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out) {
            error = temporary + ": " + std::strerror(errno);
            return false;
        }
        out.write(reinterpret_cast<const char*>(head.data()), static_cast<std::streamsize>(head.size()));
        for (std::uint64_t done = 0; done < length && out;) {
            const std::size_t block
                = static_cast<std::size_t>(std::min<std::uint64_t>(kCopyBlock, length - done));
            const std::vector<std::uint8_t> bytes = _Capture.File().Read(from + done, block);
            if (bytes.size() != block) {
                error = _Capture.File().Path() + ": read failed at byte " + std::to_string(from + done);
                out.close();
                std::remove(temporary.c_str());
                return false;
            }
            out.write(
                reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
            done += block;
        }
        out.write(reinterpret_cast<const char*>(tail.data()), static_cast<std::streamsize>(tail.size()));
        out.flush();
        if (!out) {
            error = temporary + ": write failed: " + std::strerror(errno);
            out.close();
            std::remove(temporary.c_str());
            return false;
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = path + ": " + std::strerror(errno);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

} // namespace VideoDaemon
