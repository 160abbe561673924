// Rebuilds the sample index of a capture: first from the recovery file's entries, then, past the last entry
// the file holds, by walking the media data itself up to the last byte that reached the disk.
#include "recover/index_rebuilder.h"

#include <algorithm>

#include "recover/aac_frame_finder.h"
#include "recover/avc_sample_scanner.h"

namespace VideoDaemon
{

namespace
{

// No NAL unit of a capture is larger than a raw picture; at least 1 MiB whatever the picture size says.
std::uint32_t MaxNalSize(const RecoveryTrack& track)
{
    const std::uint64_t raw = static_cast<std::uint64_t>(track.width) * track.height * 3;
    return static_cast<std::uint32_t>(
        std::min<std::uint64_t>(std::max<std::uint64_t>(raw, 1 << 20), 1u << 30));
}

// More equal samples in one entry than raw audio gives in a chunk means a damaged entry.
const std::uint32_t kMaxSamplesPerEntry = 1 << 16;

// Durations of samples found in the media data when the entries give none: 29.97 frames per second for
// video, AAC's 1024 samples per frame for audio.
std::uint32_t DefaultDuration(const RecoveryTrack& track)
{
    if (track.codec == RecoveryTrack::Codec::kAac)
        return 1024;
    return static_cast<std::uint32_t>(std::max<std::uint64_t>(1, track.timescale * 1001ull / 30000));
}

} // namespace

IndexRebuilder::IndexRebuilder(const RecoveryFile& recovery, const CaptureFile& capture)
    : _Recovery(recovery)
    , _Capture(capture)
{
    for (const RecoveryTrack& track : _Recovery.Tracks())
        _Tracks.emplace_back(track.id);
}

TrackIndex* IndexRebuilder::IndexOf(std::uint32_t track_id)
{
    for (TrackIndex& index : _Tracks)
        if (index.TrackId() == track_id)
            return &index;
    return nullptr;
}

bool IndexRebuilder::Rebuild(std::string& error)
{
    PlaceEntries();
    WalkMedia();
    if (_FromEntries + _FromMedia == 0) {
        error = _Capture.File().Path() + ": no whole sample found in the media data (" + _StopReason + ")";
        return false;
    }
    return true;
}

// The entries follow the media data byte for byte: each sample starts where the one before ended, and an
// entry that opens a new chunk names that position. The first entry that disagrees, names an unknown track
// or reaches past the data on disk ends the trusted part.
void IndexRebuilder::PlaceEntries()
{
    std::uint64_t position = 0;
    std::uint64_t chunk = 0;
    bool first = true;
    for (const RecoveryEntry& entry : _Recovery.Entries()) {
        TrackIndex* index = IndexOf(entry.track_id);
        if (!index || entry.sample_count == 0 || entry.sample_count > kMaxSamplesPerEntry || entry.size == 0)
            break;
        if (entry.chunk_offset != chunk || first) {
            if (entry.chunk_offset != position)
                break;
            chunk = entry.chunk_offset;
        }
        const std::uint64_t bytes = static_cast<std::uint64_t>(entry.size) * entry.sample_count;
        if (bytes > _Capture.MediaLength() - position)
            break;
        for (std::uint32_t i = 0; i < entry.sample_count; ++i) {
            TrackIndex::Sample sample;
            sample.offset = position;
            sample.size = entry.size;
            sample.duration = entry.duration;
            sample.sync = entry.sync;
            sample.pts_offset = entry.has_pts_offset ? static_cast<std::int32_t>(entry.pts_offset) : 0;
            index->Add(sample);
            position += entry.size;
            ++_FromEntries;
        }
        first = false;
    }
    _MediaUsed = position;
}

// Past the entries, each position holds either an H.264 access unit, recognised by its NAL units, or an
// AAC frame, whose length the decoder finds. Neither means the end of what can be recovered.
void IndexRebuilder::WalkMedia()
{
    const RecoveryTrack* video = nullptr;
    const RecoveryTrack* audio = nullptr;
    for (const RecoveryTrack& track : _Recovery.Tracks()) {
        if (track.codec == RecoveryTrack::Codec::kAvc && !video)
            video = &track;
        if (track.codec == RecoveryTrack::Codec::kAac && !audio)
            audio = &track;
    }
    const std::uint64_t start = _Capture.MediaStart();
    const std::uint64_t end = start + _Capture.MediaLength();
    std::unique_ptr<AvcSampleScanner> scanner;
    std::uint32_t video_duration = 0;
    if (video) {
        scanner = std::make_unique<AvcSampleScanner>(
            _Capture.File(), end, video->nal_length_size, MaxNalSize(*video));
        video_duration = IndexOf(video->id)->TypicalDuration(DefaultDuration(*video));
    }
    std::unique_ptr<AacFrameFinder> finder;
    std::uint32_t audio_duration = 0;
    if (audio) {
        finder = std::make_unique<AacFrameFinder>(audio->audio_config, audio->sample_rate, audio->channels);
        audio_duration = IndexOf(audio->id)->TypicalDuration(DefaultDuration(*audio));
    }

    _StopReason = "end of the media data";
    while (_MediaUsed < _Capture.MediaLength()) {
        const std::uint64_t position = start + _MediaUsed;
        TrackIndex::Sample sample;
        sample.offset = _MediaUsed;
        AvcSampleScanner::AccessUnit unit;
        if (scanner && scanner->Scan(position, unit)) {
            sample.size = unit.size;
            sample.sync = unit.sync;
            sample.duration = video_duration;
            IndexOf(video->id)->Add(sample);
        } else if (finder && finder->Ready()) {
            const std::size_t length
                = finder->FrameLength(_Capture.File().Read(position, finder->MaxFrameSize()));
            if (length == 0) {
                _StopReason = "no whole sample at media byte " + std::to_string(_MediaUsed);
                break;
            }
            sample.size = static_cast<std::uint32_t>(length);
            sample.sync = true;
            sample.duration = audio_duration;
            IndexOf(audio->id)->Add(sample);
        } else {
            _StopReason = audio && finder && !finder->Ready()
                ? "no AAC decoder (avdec_aac) to find audio frames"
                : "no whole sample at media byte " + std::to_string(_MediaUsed);
            break;
        }
        _MediaUsed += sample.size;
        ++_FromMedia;
    }
}

} // namespace VideoDaemon
