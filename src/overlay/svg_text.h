// One styled piece of overlay text as an SVG text element, optionally split into lines.
#pragma once

#include <string>

namespace VideoDaemon
{

// By default the text is white, bold, 18 units, sans-serif with a black
// outline of width 2, which keeps it readable over any picture.
struct OverlayTextStyle {
    int x = 0; // left position in pixels
    int y = 0; // baseline of the first line
    int font_size = 18;
    int stroke_width = 2;
    std::string font_family = "sans-serif";
    std::string font_weight = "bold";
    std::string fill = "white";
    std::string stroke = "black";
    // Raw attribute text copied into the start tag (e.g. "text-anchor='end'").
    std::string extra_attributes;
    std::string text;
    // Splits the text at newlines into tspans, each 1.2 em below the one
    // before (the first one too).
    bool multi_line = false;
};

// The fragment for the caller to embed in a document. The text is placed as
// it is, without escaping: the caller must not pass markup it does not mean.
std::string ComposeSvgText(const OverlayTextStyle& style);

} // namespace VideoDaemon
