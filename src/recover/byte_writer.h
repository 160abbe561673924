// Big-endian appends to a byte vector, for writing MP4 boxes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VideoDaemon
{

class ByteWriter
{
public:
    explicit ByteWriter(std::vector<std::uint8_t>& out);

    void U8(std::uint8_t value);
    void U16(std::uint16_t value);
    void U32(std::uint32_t value);
    void U64(std::uint64_t value);
    // Four characters, as box types are written.
    void FourCc(const std::string& code);
    void Bytes(const std::vector<std::uint8_t>& bytes);

    // Overwrites a value written earlier at `position`.
    void PatchU32(std::size_t position, std::uint32_t value);
    void PatchU64(std::size_t position, std::uint64_t value);

private:
    std::vector<std::uint8_t>& _Out;
};

} // namespace VideoDaemon
