// One styled piece of overlay text as an SVG text element, optionally split into lines.
#include "overlay/svg_text.h"

#include <new>

#include "log.h"

namespace VideoDaemon
{

namespace
{

constexpr size_t kMaxMultiLineCharacters = 4096;

// The byte length of the first `limit` characters of UTF-8 `text`, so that
// a cut never splits a character.
size_t PrefixLength(const std::string& text, size_t limit)
{
    size_t characters = 0;
    for (size_t at = 0; at < text.size(); at++) {
        const bool continuation = (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80;
        if (!continuation && characters++ == limit)
            return at;
    }
    return text.size();
}

// Every non-empty line of `text` as a tspan at `x`, each 1.2 em below the previous baseline.
std::string LineSpans(const std::string& text, int x)
{
    const std::string open = "<tspan x='" + std::to_string(x) + "' dy='1.2em'>";
    std::string body;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            body += open + text.substr(start, end - start) + "</tspan>";
        start = end + 1;
    }
    return body;
}

} // namespace

std::string ComposeSvgText(const OverlayTextStyle& style)
{
    std::string body;
    if (!style.multi_line) {
        body = style.text;
    } else {
        std::string copy;
        try {
            copy.assign(style.text, 0, PrefixLength(style.text, kMaxMultiLineCharacters));
        } catch (const std::bad_alloc&) {
            Log::Error("orb_overlay: allocation failure");
            return "<svg><text></text></svg>";
        }
        body = LineSpans(copy, style.x);
    }
    return "<text x='" + std::to_string(style.x) + "' y='" + std::to_string(style.y) + "' " + "font-family='"
        + style.font_family + "' " + "font-weight='" + style.font_weight + "' " + "font-size='"
        + std::to_string(style.font_size) + "' " + "fill='" + style.fill + "' " + "stroke='" + style.stroke
        + "' " + "stroke-width='" + std::to_string(style.stroke_width) + "' " + style.extra_attributes + ">"
        + body + "</text>";
}

} // namespace VideoDaemon
