// Bounds-checked big-endian reads over a byte range, for parsing files that may be damaged.
#include "recover/byte_reader.h"

namespace VideoDaemon
{

ByteReader::ByteReader(const std::uint8_t* data, std::size_t size)
    : _Data(data)
    , _Size(data ? size : 0)
{
}

bool ByteReader::ReadBigEndian(std::size_t width, std::uint64_t& value)
{
    if (Remaining() < width)
        return false;
    std::uint64_t result = 0;
    for (std::size_t i = 0; i < width; ++i)
        result = (result << 8) | _Data[_Position + i];
    _Position += width;
    value = result;
    return true;
}

bool ByteReader::ReadU8(std::uint8_t& value)
{
    std::uint64_t wide = 0;
    if (!ReadBigEndian(1, wide))
        return false;
    value = static_cast<std::uint8_t>(wide);
    return true;
}

bool ByteReader::ReadU16(std::uint16_t& value)
{
    std::uint64_t wide = 0;
    if (!ReadBigEndian(2, wide))
        return false;
    value = static_cast<std::uint16_t>(wide);
    return true;
}

bool ByteReader::ReadU32(std::uint32_t& value)
{
    std::uint64_t wide = 0;
    if (!ReadBigEndian(4, wide))
        return false;
    value = static_cast<std::uint32_t>(wide);
    return true;
}

bool ByteReader::ReadU64(std::uint64_t& value)
{
    return ReadBigEndian(8, value);
}

bool ByteReader::ReadBytes(std::size_t count, std::vector<std::uint8_t>& bytes)
{
    if (Remaining() < count)
        return false;
    bytes.assign(_Data + _Position, _Data + _Position + count);
    _Position += count;
    return true;
}

bool ByteReader::Skip(std::size_t count)
{
    if (Remaining() < count)
        return false;
    _Position += count;
    return true;
}

} // namespace VideoDaemon
