// The capture to recover: where its media data starts and how much of it reached the disk, or that it was
// finished after all.
#include "recover/capture_file.h"

#include <algorithm>
#include <vector>

#include "recover/byte_reader.h"

namespace VideoDaemon
{

bool CaptureFile::Open(const std::string& path, std::string& error)
{
    if (!_File.Open(path, error))
        return false;
    if (_File.Size() == 0) {
        error = path + ": the file is empty";
        return false;
    }
    // Top-level boxes until the media data. The muxer writes ftyp, a free box it may turn into a 64-bit
    // mdat header later, then mdat, whose size stays 0 (to the end of the file) until the file is finished.
    std::uint64_t position = 0;
    bool found = false;
    while (position + 8 <= _File.Size()) {
        const std::vector<std::uint8_t> header = _File.Read(position, 16);
        ByteReader reader(header.data(), header.size());
        std::uint32_t size32 = 0;
        std::vector<std::uint8_t> type_bytes;
        reader.ReadU32(size32);
        reader.ReadBytes(4, type_bytes);
        const std::string type(type_bytes.begin(), type_bytes.end());
        std::uint64_t size = size32;
        std::uint64_t header_size = 8;
        if (size32 == 1) {
            if (!reader.ReadU64(size)) {
                error = path + ": truncated box header";
                return false;
            }
            header_size = 16;
        } else if (size32 == 0) {
            size = _File.Size() - position;
        }
        if (size < header_size) {
            error = path + ": damaged box header at byte " + std::to_string(position);
            return false;
        }
        if (type == "mdat") {
            found = true;
            _MediaStart = position + header_size;
            const std::uint64_t available = _File.Size() - _MediaStart;
            _MediaLength = size32 == 0 ? available : std::min(size - header_size, available);
        } else if (type == "moov") {
            _Complete = found && position + size <= _File.Size();
        }
        if (size > _File.Size() - position)
            break;
        position += size;
    }
    if (!found) {
        error = path + ": no media data box (mdat): not an MP4 capture";
        return false;
    }
    return true;
}

} // namespace VideoDaemon
