// ComposeSvgText: the start tag's attributes in order, multi-line splitting, the length cut, no escaping.
#include "overlay/svg_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

using VideoDaemon::ComposeSvgText;
using VideoDaemon::OverlayTextStyle;

namespace
{

const std::string kDefaultAttributes
    = "font-family='sans-serif' font-weight='bold' font-size='18' fill='white' "
      "stroke='black' stroke-width='2' ";

OverlayTextStyle MultiLine(const std::string& text, int x = 0)
{
    OverlayTextStyle style;
    style.x = x;
    style.text = text;
    style.multi_line = true;
    return style;
}

} // namespace

TEST(ComposeSvgText, TheStartTagsAttributesInOrderThenTheTextUnescapedOrOneSpanPerLine)
{
    OverlayTextStyle plain;
    plain.text = "A";
    const OverlayTextStyle styled { -5, 300, 32, 3, "monospace", "normal", "#ff8000", "none",
        "text-anchor='end' opacity='0.5'", "12.5 m", false };
    OverlayTextStyle markup;
    markup.text = "<tspan>a & b</tspan>\nc";
    const std::string start = "<text x='0' y='0' " + kDefaultAttributes + ">";
    const std::pair<OverlayTextStyle, std::string> cases[] = {
        // The default style: white bold outlined text, a blank before the bracket.
        { plain, start + "A</text>" },
        // Every field in its attribute; extra attributes close the tag.
        { styled,
            "<text x='-5' y='300' font-family='monospace' font-weight='normal' font-size='32' fill='#ff8000' "
            "stroke='none' stroke-width='3' text-anchor='end' opacity='0.5'>12.5 m</text>" },
        // Single-line text is placed unescaped with its newlines.
        { markup, start + "<tspan>a & b</tspan>\nc</text>" },
        // Multi-line text: one span per line, empty lines dropped.
        { MultiLine("a\n\nb", 10),
            "<text x='10' y='0' " + kDefaultAttributes
                + "><tspan x='10' dy='1.2em'>a</tspan><tspan x='10' dy='1.2em'>b</tspan></text>" },
        { MultiLine("\n\nonly\n", 4),
            "<text x='4' y='0' " + kDefaultAttributes + "><tspan x='4' dy='1.2em'>only</tspan></text>" },
        { MultiLine(""), start + "</text>" },
        { MultiLine("\n\n"), start + "</text>" },
    };
    for (const auto& [style, expected] : cases)
        EXPECT_EQ(ComposeSvgText(style), expected) << style.text;
}

TEST(ComposeSvgText, MultiLineTextIsCutAt4096CharactersBeforeSplittingAndNoCharacterIsSplit)
{
    // Characters 4095 and 4096 are the newline and "b"; "cd" is past the cut.
    const std::string first(4094, 'a');
    EXPECT_EQ(ComposeSvgText(MultiLine(first + "\nbcd")),
        "<text x='0' y='0' " + kDefaultAttributes + "><tspan x='0' dy='1.2em'>" + first
            + "</tspan><tspan x='0' dy='1.2em'>b</tspan></text>");
    // The 4096th character takes two bytes and is kept whole; the next is cut.
    const std::string kept = std::string(4095, 'a') + "\xC3\xA9";
    EXPECT_EQ(ComposeSvgText(MultiLine(kept + "z")),
        "<text x='0' y='0' " + kDefaultAttributes + "><tspan x='0' dy='1.2em'>" + kept + "</tspan></text>");
}
