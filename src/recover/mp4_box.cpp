// One ISO base media box held in memory: a leaf with its payload, or a container with its children.
#include "recover/mp4_box.h"

#include <set>

#include "recover/byte_reader.h"
#include "recover/byte_writer.h"

namespace VideoDaemon
{

namespace
{

// Boxes whose children the recovery edits or looks into; everything else is copied as it is.
const std::set<std::string> kContainers = { "moov", "trak", "mdia", "minf", "stbl", "edts" };

// Nesting deeper than any file the muxer writes means damaged input.
const int kMaxDepth = 8;

bool ParseLevel(const std::uint8_t* data, std::size_t size, std::vector<Mp4Box>& boxes, int depth)
{
    if (depth > kMaxDepth)
        return false;
    ByteReader reader(data, size);
    while (reader.Remaining() > 0) {
        std::uint32_t size32 = 0;
        std::vector<std::uint8_t> type_bytes;
        if (!reader.ReadU32(size32) || !reader.ReadBytes(4, type_bytes))
            return false;
        std::uint64_t box_size = size32;
        std::size_t header = 8;
        if (size32 == 1) {
            if (!reader.ReadU64(box_size))
                return false;
            header = 16;
        }
        if (box_size < header || box_size - header > reader.Remaining())
            return false;
        const std::string type(type_bytes.begin(), type_bytes.end());
        const std::size_t content = static_cast<std::size_t>(box_size - header);
        if (kContainers.count(type) != 0) {
            Mp4Box box(type);
            if (!ParseLevel(reader.Current(), content, box.Children(), depth + 1))
                return false;
            boxes.push_back(std::move(box));
        } else {
            boxes.emplace_back(type, std::vector<std::uint8_t>(reader.Current(), reader.Current() + content));
        }
        reader.Skip(content);
    }
    return true;
}

} // namespace

Mp4Box::Mp4Box(std::string type, std::vector<std::uint8_t> payload)
    : _Type(std::move(type))
    , _Payload(std::move(payload))
{
}

Mp4Box::Mp4Box(std::string type)
    : _Type(std::move(type))
    , _Container(true)
{
}

bool Mp4Box::ParseAll(const std::uint8_t* data, std::size_t size, std::vector<Mp4Box>& boxes)
{
    return ParseLevel(data, size, boxes, 0);
}

Mp4Box* Mp4Box::Find(const std::string& path)
{
    return const_cast<Mp4Box*>(static_cast<const Mp4Box*>(this)->Find(path));
}

const Mp4Box* Mp4Box::Find(const std::string& path) const
{
    const std::size_t slash = path.find('/');
    const std::string first = path.substr(0, slash);
    for (const Mp4Box& child : _Children) {
        if (child.Type() != first)
            continue;
        if (slash == std::string::npos)
            return &child;
        return child.Find(path.substr(slash + 1));
    }
    return nullptr;
}

void Mp4Box::Serialize(std::vector<std::uint8_t>& out) const
{
    std::vector<std::uint8_t> content;
    if (_Container) {
        for (const Mp4Box& child : _Children)
            child.Serialize(content);
    } else {
        content = _Payload;
    }
    ByteWriter writer(out);
    const std::uint64_t total = content.size() + 8;
    if (total <= 0xffffffffu) {
        writer.U32(static_cast<std::uint32_t>(total));
        writer.FourCc(_Type);
    } else {
        writer.U32(1);
        writer.FourCc(_Type);
        writer.U64(total + 8);
    }
    writer.Bytes(content);
}

} // namespace VideoDaemon
