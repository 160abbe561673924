// One ISO base media box held in memory: a leaf with its payload, or a container with its children.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VideoDaemon
{

class Mp4Box
{
public:
    Mp4Box() = default;
    // A leaf box with the bytes that follow its header.
    Mp4Box(std::string type, std::vector<std::uint8_t> payload);
    // An empty container box.
    explicit Mp4Box(std::string type);

    // Reads the boxes that fill `size` bytes exactly; the sample table's parents become containers,
    // every other box a leaf. False on a malformed or truncated box.
    static bool ParseAll(const std::uint8_t* data, std::size_t size, std::vector<Mp4Box>& boxes);

    const std::string& Type() const { return _Type; }
    bool IsContainer() const { return _Container; }
    std::vector<std::uint8_t>& Payload() { return _Payload; }
    const std::vector<std::uint8_t>& Payload() const { return _Payload; }
    std::vector<Mp4Box>& Children() { return _Children; }
    const std::vector<Mp4Box>& Children() const { return _Children; }

    // The first descendant along a path of types ("mdia/minf/stbl"), nullptr when absent.
    Mp4Box* Find(const std::string& path);
    const Mp4Box* Find(const std::string& path) const;

    // Header and content, with sizes computed from the content (64-bit when needed).
    void Serialize(std::vector<std::uint8_t>& out) const;

private:
    std::string _Type;
    bool _Container = false;
    std::vector<std::uint8_t> _Payload;
    std::vector<Mp4Box> _Children;
};

} // namespace VideoDaemon
