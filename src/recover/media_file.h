// One file opened read-only, read at any offset; the inputs of a recovery are never written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VideoDaemon
{

class MediaFile
{
public:
    MediaFile() = default;
    ~MediaFile();
    MediaFile(const MediaFile&) = delete;
    MediaFile& operator=(const MediaFile&) = delete;

    // False with `error` set when the file cannot be opened or is not a regular file.
    bool Open(const std::string& path, std::string& error);
    std::uint64_t Size() const { return _Size; }
    const std::string& Path() const { return _Path; }
    // Up to `count` bytes from `offset`; fewer at the end of the file or on a read error.
    std::vector<std::uint8_t> Read(std::uint64_t offset, std::size_t count) const;
    // The device and inode, to tell whether two paths name the same file.
    bool SameFileAs(const std::string& path) const;

private:
    int _Fd = -1;
    std::uint64_t _Size = 0;
    std::uint64_t _Device = 0;
    std::uint64_t _Inode = 0;
    std::string _Path;
};

} // namespace VideoDaemon
