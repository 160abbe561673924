// ComposeSvgText: the start tag's attributes in order, multi-line splitting, the length cut, no escaping.
#include "overlay/svg_text.h"

#include <gtest/gtest.h>

#include <string>

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

TEST(ComposeSvgText, DefaultStyleGivesWhiteBoldOutlinedTextWithABlankBeforeTheBracket)
{
    OverlayTextStyle style;
    style.text = "A";
    EXPECT_EQ(ComposeSvgText(style), "<text x='0' y='0' " + kDefaultAttributes + ">A</text>");
}

TEST(ComposeSvgText, EveryFieldGoesIntoItsAttributeAndExtraAttributesCloseTheTag)
{
    const OverlayTextStyle style { -5, 300, 32, 3, "monospace", "normal", "#ff8000", "none",
        "text-anchor='end' opacity='0.5'", "12.5 m", false };
    EXPECT_EQ(ComposeSvgText(style),
        "<text x='-5' y='300' font-family='monospace' font-weight='normal' font-size='32' fill='#ff8000' "
        "stroke='none' stroke-width='3' text-anchor='end' opacity='0.5'>12.5 m</text>");
}

TEST(ComposeSvgText, SingleLineTextIsPlacedUnescapedWithItsNewlines)
{
    OverlayTextStyle style;
    style.text = "<tspan>a & b</tspan>\nc";
    EXPECT_EQ(
        ComposeSvgText(style), "<text x='0' y='0' " + kDefaultAttributes + "><tspan>a & b</tspan>\nc</text>");
}

TEST(ComposeSvgText, MultiLineTextBecomesOneSpanPerLineAndDropsEmptyLines)
{
    EXPECT_EQ(ComposeSvgText(MultiLine("a\n\nb", 10)),
        "<text x='10' y='0' " + kDefaultAttributes
            + "><tspan x='10' dy='1.2em'>a</tspan><tspan x='10' dy='1.2em'>b</tspan></text>");
    EXPECT_EQ(ComposeSvgText(MultiLine("\n\nonly\n", 4)),
        "<text x='4' y='0' " + kDefaultAttributes + "><tspan x='4' dy='1.2em'>only</tspan></text>");
}

TEST(ComposeSvgText, EmptyMultiLineTextGivesAnEmptyBody)
{
    EXPECT_EQ(ComposeSvgText(MultiLine("")), "<text x='0' y='0' " + kDefaultAttributes + "></text>");
    EXPECT_EQ(ComposeSvgText(MultiLine("\n\n")), "<text x='0' y='0' " + kDefaultAttributes + "></text>");
}

TEST(ComposeSvgText, MultiLineTextIsCutAt4096CharactersBeforeSplitting)
{
    // Characters 4095 and 4096 are the newline and "b"; "cd" is past the cut.
    const std::string first(4094, 'a');
    EXPECT_EQ(ComposeSvgText(MultiLine(first + "\nbcd")),
        "<text x='0' y='0' " + kDefaultAttributes + "><tspan x='0' dy='1.2em'>" + first
            + "</tspan><tspan x='0' dy='1.2em'>b</tspan></text>");
}

TEST(ComposeSvgText, TheCutCountsCharactersSoNoneIsSplit)
{
    // The 4096th character takes two bytes and is kept whole; the next is cut.
    const std::string kept = std::string(4095, 'a') + "\xC3\xA9";
    EXPECT_EQ(ComposeSvgText(MultiLine(kept + "z")),
        "<text x='0' y='0' " + kDefaultAttributes + "><tspan x='0' dy='1.2em'>" + kept + "</tspan></text>");
}
