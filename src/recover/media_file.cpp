// One file opened read-only, read at any offset; the inputs of a recovery are never written.
#include "recover/media_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace VideoDaemon
{

MediaFile::~MediaFile()
{
    if (_Fd >= 0)
        close(_Fd);
}

bool MediaFile::Open(const std::string& path, std::string& error)
{
    _Path = path;
    _Fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (_Fd < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    struct stat status {
    };
    if (fstat(_Fd, &status) != 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        error = path + ": not a regular file";
        return false;
    }
    _Size = static_cast<std::uint64_t>(status.st_size);
    _Device = status.st_dev;
    _Inode = status.st_ino;
    return true;
}

std::vector<std::uint8_t> MediaFile::Read(std::uint64_t offset, std::size_t count) const
{
    std::vector<std::uint8_t> bytes;
    if (_Fd < 0 || offset >= _Size)
        return bytes;
    if (count > _Size - offset)
        count = static_cast<std::size_t>(_Size - offset);
    bytes.resize(count);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t got = pread(_Fd, bytes.data() + done, count - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += static_cast<std::size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

bool MediaFile::SameFileAs(const std::string& path) const
{
    struct stat status {
    };
    if (_Fd < 0 || stat(path.c_str(), &status) != 0)
        return false;
    return status.st_dev == _Device && status.st_ino == _Inode;
}

} // namespace VideoDaemon
