// Bounds-checked big-endian reads over a byte range, for parsing files that may be damaged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VideoDaemon
{

// Every read fails (returns false, value untouched) instead of running past the end.
class ByteReader
{
public:
    ByteReader(const std::uint8_t* data, std::size_t size);

    bool ReadU8(std::uint8_t& value);
    bool ReadU16(std::uint16_t& value);
    bool ReadU32(std::uint32_t& value);
    bool ReadU64(std::uint64_t& value);
    bool ReadBytes(std::size_t count, std::vector<std::uint8_t>& bytes);
    bool Skip(std::size_t count);

    std::size_t Position() const { return _Position; }
    std::size_t Remaining() const { return _Size - _Position; }
    const std::uint8_t* Current() const { return _Data + _Position; }

private:
    bool ReadBigEndian(std::size_t width, std::uint64_t& value);

    const std::uint8_t* _Data;
    std::size_t _Size;
    std::size_t _Position = 0;
};

} // namespace VideoDaemon
