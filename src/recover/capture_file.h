// The capture to recover: where its media data starts and how much of it reached the disk, or that it was
// finished after all.
#pragma once

#include <cstdint>
#include <string>

#include "recover/media_file.h"

namespace VideoDaemon
{

class CaptureFile
{
public:
    // False with `error` set when the file cannot be read or holds no media data box.
    bool Open(const std::string& path, std::string& error);

    const MediaFile& File() const { return _File; }
    // A movie box follows the media data: the muxer finished the file.
    bool IsComplete() const { return _Complete; }
    // File offset of the media data's first byte, and how many bytes of it the file holds.
    std::uint64_t MediaStart() const { return _MediaStart; }
    std::uint64_t MediaLength() const { return _MediaLength; }

private:
    MediaFile _File;
    bool _Complete = false;
    std::uint64_t _MediaStart = 0;
    std::uint64_t _MediaLength = 0;
};

} // namespace VideoDaemon
