// Big-endian appends to a byte vector, for writing MP4 boxes.
#include "recover/byte_writer.h"

namespace VideoDaemon
{

ByteWriter::ByteWriter(std::vector<std::uint8_t>& out)
    : _Out(out)
{
}

void ByteWriter::U8(std::uint8_t value)
{
    _Out.push_back(value);
}

void ByteWriter::U16(std::uint16_t value)
{
    U8(static_cast<std::uint8_t>(value >> 8));
    U8(static_cast<std::uint8_t>(value));
}

void ByteWriter::U32(std::uint32_t value)
{
    U16(static_cast<std::uint16_t>(value >> 16));
    U16(static_cast<std::uint16_t>(value));
}

void ByteWriter::U64(std::uint64_t value)
{
    U32(static_cast<std::uint32_t>(value >> 32));
    U32(static_cast<std::uint32_t>(value));
}

void ByteWriter::FourCc(const std::string& code)
{
    for (std::size_t i = 0; i < 4; ++i)
        U8(i < code.size() ? static_cast<std::uint8_t>(code[i]) : ' ');
}

void ByteWriter::Bytes(const std::vector<std::uint8_t>& bytes)
{
    _Out.insert(_Out.end(), bytes.begin(), bytes.end());
}

void ByteWriter::PatchU32(std::size_t position, std::uint32_t value)
{
    if (position + 4 > _Out.size())
        return;
    for (int i = 3; i >= 0; --i, value >>= 8)
        _Out[position + i] = static_cast<std::uint8_t>(value);
}

void ByteWriter::PatchU64(std::size_t position, std::uint64_t value)
{
    PatchU32(position, static_cast<std::uint32_t>(value >> 32));
    PatchU32(position + 4, static_cast<std::uint32_t>(value));
}

} // namespace VideoDaemon
