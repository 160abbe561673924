// The samples of one track found in the media data, and the sample tables that describe them.
#include "recover/track_index.h"

#include <algorithm>

#include "recover/byte_writer.h"

namespace VideoDaemon
{

namespace
{

// A full box payload begins with version and flags.
void FullBoxHeader(ByteWriter& writer, std::uint8_t version = 0)
{
    writer.U32(static_cast<std::uint32_t>(version) << 24);
}

} // namespace

TrackIndex::TrackIndex(std::uint32_t track_id)
    : _TrackId(track_id)
{
}

void TrackIndex::Add(const Sample& sample)
{
    _Samples.push_back(sample);
    _Duration += sample.duration;
}

std::uint32_t TrackIndex::TypicalDuration(std::uint32_t fallback) const
{
    std::vector<std::uint32_t> durations;
    for (const Sample& sample : _Samples)
        if (sample.duration != 0)
            durations.push_back(sample.duration);
    if (durations.empty())
        return fallback;
    std::nth_element(durations.begin(), durations.begin() + durations.size() / 2, durations.end());
    return durations[durations.size() / 2];
}

std::vector<Mp4Box> TrackIndex::Tables(std::uint64_t media_start) const
{
    std::vector<Mp4Box> tables;

    // Decoding times: runs of equal durations.
    std::vector<std::uint8_t> stts;
    {
        ByteWriter writer(stts);
        FullBoxHeader(writer);
        std::vector<std::pair<std::uint32_t, std::uint32_t>> runs;
        for (const Sample& sample : _Samples) {
            if (!runs.empty() && runs.back().second == sample.duration)
                ++runs.back().first;
            else
                runs.emplace_back(1, sample.duration);
        }
        writer.U32(static_cast<std::uint32_t>(runs.size()));
        for (const auto& [count, duration] : runs) {
            writer.U32(count);
            writer.U32(duration);
        }
    }
    tables.emplace_back("stts", std::move(stts));

    std::vector<std::uint32_t> sync_samples;
    bool offsets = false;
    for (std::size_t i = 0; i < _Samples.size(); ++i) {
        if (_Samples[i].sync)
            sync_samples.push_back(static_cast<std::uint32_t>(i + 1));
        offsets = offsets || _Samples[i].pts_offset != 0;
    }
    if (sync_samples.size() != _Samples.size()) {
        std::vector<std::uint8_t> stss;
        ByteWriter writer(stss);
        FullBoxHeader(writer);
        writer.U32(static_cast<std::uint32_t>(sync_samples.size()));
        for (std::uint32_t number : sync_samples)
            writer.U32(number);
        tables.emplace_back("stss", std::move(stss));
    }
    if (offsets) {
        // Version 1: signed offsets.
        std::vector<std::uint8_t> ctts;
        ByteWriter writer(ctts);
        FullBoxHeader(writer, 1);
        std::vector<std::pair<std::uint32_t, std::int32_t>> runs;
        for (const Sample& sample : _Samples) {
            if (!runs.empty() && runs.back().second == sample.pts_offset)
                ++runs.back().first;
            else
                runs.emplace_back(1, sample.pts_offset);
        }
        writer.U32(static_cast<std::uint32_t>(runs.size()));
        for (const auto& [count, offset] : runs) {
            writer.U32(count);
            writer.U32(static_cast<std::uint32_t>(offset));
        }
        tables.emplace_back("ctts", std::move(ctts));
    }

    std::vector<std::uint8_t> stsc;
    {
        ByteWriter writer(stsc);
        FullBoxHeader(writer);
        writer.U32(_Samples.empty() ? 0 : 1);
        if (!_Samples.empty()) {
            writer.U32(1); // first chunk
            writer.U32(1); // samples per chunk
            writer.U32(1); // sample description
        }
    }
    tables.emplace_back("stsc", std::move(stsc));

    std::vector<std::uint8_t> stsz;
    {
        ByteWriter writer(stsz);
        FullBoxHeader(writer);
        writer.U32(0); // sizes differ: one per sample
        writer.U32(static_cast<std::uint32_t>(_Samples.size()));
        for (const Sample& sample : _Samples)
            writer.U32(sample.size);
    }
    tables.emplace_back("stsz", std::move(stsz));

    const bool wide = !_Samples.empty() && media_start + _Samples.back().offset > 0xffffffffu;
    std::vector<std::uint8_t> chunks;
    {
        ByteWriter writer(chunks);
        FullBoxHeader(writer);
        writer.U32(static_cast<std::uint32_t>(_Samples.size()));
        for (const Sample& sample : _Samples) {
            if (wide)
                writer.U64(media_start + sample.offset);
            else
                writer.U32(static_cast<std::uint32_t>(media_start + sample.offset));
        }
    }
    tables.emplace_back(wide ? "co64" : "stco", std::move(chunks));
    return tables;
}

} // namespace VideoDaemon
