// OverlayModel's documents: the shipped templates filled from the settings, escaping, switches, styles,
// modes and template files.
#include "overlay/overlay_model.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include "log_capture.h"
#include "support/gst_test_pipeline.h"

using VideoDaemon::OverlayModel;

namespace
{

// 2023-11-14 22:13:20 UTC.
constexpr std::time_t kNow = 1700000000;

const std::string kStroke = "font-weight='bold' font-size='20' fill='white' stroke='black' stroke-width='2' ";

std::string TemplateDir()
{
    const char* source = std::getenv("VIDEOD_SOURCE_DIR");
    return std::string(source ? source : ".") + "/data/overlay";
}

size_t Occurrences(const std::string& text, const std::string& fragment)
{
    size_t count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1))
        count++;
    return count;
}

// Whether `document` holds `fragment`; the document is shown when not.
::testing::AssertionResult Holds(const std::string& document, const std::string& fragment)
{
    if (document.find(fragment) != std::string::npos)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no " << fragment << " in " << document;
}

class OverlayModelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    std::string Display() const { return model.RenderDocument(false, kNow); }
    std::string Recording() const { return model.RenderDocument(true, kNow); }
    std::string WriteTemplate(const std::string& name, const std::string& text)
    {
        std::ofstream(dir.File(name)) << text;
        return dir.File(name);
    }

    LogCapture log;
    GstTest::TempDir dir;
    OverlayModel model { nullptr, nullptr, TemplateDir() };
};

} // namespace

TEST_F(OverlayModelTest, ShippedTemplatesDrawDateTimeTopLeftCountBottomRightAndUserTextWhereItIsPlaced)
{
    model.SetReelCount("12.5 m");
    model.SetUserText({ 100, 200, "Pipe 3", 0, "" });
    for (const std::string& document : { Display(), Recording() }) {
        EXPECT_EQ(document.rfind("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"640\" height=\"480\" "
                                 "viewBox=\"0 0 640 480\">",
                      0),
            0u)
            << document;
        EXPECT_TRUE(Holds(document,
            "<text x='12' y='32' font-family='sans-serif' " + kStroke + ">2023-11-14 22:13:20</text>"));
        EXPECT_TRUE(Holds(document,
            "<text x='628' y='468' font-family='sans-serif' " + kStroke + "text-anchor='end'>12.5 m</text>"));
        EXPECT_TRUE(Holds(document,
            "<text x='100' y='200' font-family='sans-serif' font-weight='bold' "
            "font-size='24' fill='white' stroke='black' stroke-width='2' >"
            "<tspan x='100' dy='1.2em'>Pipe 3</tspan></text>"));
        EXPECT_EQ(Occurrences(document, "<text"), 3u);
        EXPECT_EQ(Occurrences(document, "<line"), 0u) << "the plumbline is off by default";
        EXPECT_EQ(document.substr(document.size() - 7), "</svg>\n");
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(OverlayModelTest, UserTextItsColourTheDateFormatAndTheReelCountAreEscapedBeforeTheyReachTheDocument)
{
    model.SetUserText({ 0, 0, "<&>\"'", 0, "red' onload='x" });
    model.SetDateFormat("<%d&%m>");
    model.SetTimeEnabled(false);
    model.SetReelCount("<1.5 m>");
    const std::string document = Display();
    EXPECT_TRUE(Holds(document, "fill='red&apos; onload=&apos;x' "));
    EXPECT_TRUE(Holds(document, "<tspan x='0' dy='1.2em'>&lt;&amp;&gt;&quot;&apos;</tspan>"));
    EXPECT_TRUE(Holds(document, ">&lt;14&amp;11&gt;</text>"));
    EXPECT_TRUE(Holds(document, ">&lt;1.5 m&gt;</text>"));
    EXPECT_EQ(document.find("<&>"), std::string::npos);
    EXPECT_EQ(model.GetUserText().text, "<&>\"'") << "the model keeps the text as it was set";
}

TEST_F(OverlayModelTest, DisabledSwitchesRemoveTheirElements)
{
    model.SetReelCount("3.0 m");
    model.SetUserText({ 10, 10, "note", 0, "" });
    model.SetPlumblineEnabled(true);
    EXPECT_EQ(Occurrences(Display(), "<line"), 2u) << "the plumbline's outline and line";
    EXPECT_TRUE(Holds(Display(), "<line x1=\"320\" y1=\"0\" x2=\"320\" y2=\"480\" stroke=\"white\""));

    model.SetDateEnabled(false);
    EXPECT_TRUE(Holds(Display(), ">22:13:20</text>"));
    model.SetDateEnabled(true);
    model.SetTimeEnabled(false);
    EXPECT_TRUE(Holds(Display(), ">2023-11-14</text>"));
    model.SetDateEnabled(false);
    EXPECT_EQ(Display().find("2023"), std::string::npos);
    EXPECT_EQ(Occurrences(Display(), "<text"), 2u);

    model.SetCountEnabled(false);
    EXPECT_EQ(Display().find("3.0 m"), std::string::npos);
    model.SetUserTextEnabled(false);
    EXPECT_EQ(Display().find("note"), std::string::npos);
    model.SetPlumblineEnabled(false);
    for (const std::string& document : { Display(), Recording() }) {
        EXPECT_EQ(document,
            "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"640\" height=\"480\" viewBox=\"0 0 640 "
            "480\">\n\n\n\n</svg>\n");
    }

    model.SetCountEnabled(true);
    model.SetReelCount("");
    EXPECT_EQ(Occurrences(Display(), "<text"), 0u) << "no reel, no count";
    model.SetUserTextEnabled(true);
    model.SetUserText({ 10, 10, "", 0, "" });
    EXPECT_EQ(Occurrences(Display(), "<text"), 0u) << "no user text, no element";
}

TEST_F(OverlayModelTest, FormatsFontSizesStylesColoursAndTheDecimalMarkShapeTheTexts)
{
    model.SetDateFormat("%d/%m/%Y");
    model.SetTimeFormat("%H.%M");
    model.SetDateTimeFontSize(30);
    model.SetCountFontSize(16);
    model.SetReelCount("1012.5 ft");
    model.SetReelCountDecimalMark(",");
    std::string document = Display();
    EXPECT_TRUE(Holds(document,
        "<text x='12' y='42' font-family='sans-serif' font-weight='bold' font-size='30' "
        "fill='white' stroke='black' stroke-width='2' >14/11/2023 22.13</text>"));
    EXPECT_TRUE(Holds(document,
        "font-size='16' fill='white' stroke='black' stroke-width='2' "
        "text-anchor='end'>1012,5 ft</text>"));

    // The styles choose the corners; unknown styles are kept but drawn at the default.
    model.SetDateFormat(OverlayModel::kDefaultDateFormat);
    model.SetTimeFormat(OverlayModel::kDefaultTimeFormat);
    model.SetDateTimeFontSize(20);
    model.SetCountFontSize(20);
    model.SetReelCount("7.5 m");
    const struct {
        int32_t date_time;
        int32_t count;
        std::string date_time_at;
        std::string count_at;
    } corners[] = {
        { OverlayModel::kBottomRight, OverlayModel::kTopLeft, "x='628' y='468'", "x='12' y='32'" },
        { OverlayModel::kTopRight, OverlayModel::kBottomLeft, "x='628' y='32'", "x='12' y='468'" },
        { 7, -1, "x='12' y='32'", "x='628' y='468'" },
    };
    for (const auto& row : corners) {
        model.SetDateTimeStyle(row.date_time);
        model.SetCountStyle(row.count);
        EXPECT_EQ(model.GetDateTimeStyle(), row.date_time);
        EXPECT_EQ(model.GetCountStyle(), row.count);
        const auto anchor
            = [](const std::string& at) { return at.find("x='628'") == 0 ? "text-anchor='end'" : ""; };
        document = Display();
        EXPECT_TRUE(Holds(document,
            "<text " + row.date_time_at + " font-family='sans-serif' " + kStroke + anchor(row.date_time_at)
                + ">2023-11-14 22:13:20</text>"));
        EXPECT_TRUE(Holds(document,
            "<text " + row.count_at + " font-family='sans-serif' " + kStroke + anchor(row.count_at)
                + ">7,5 m</text>"));
    }

    // The user text takes its own size and colour and splits into lines; without a size, the setting's.
    model.SetUserText({ 40, 60, "line one\nline two", 36, "#ff8000" });
    EXPECT_TRUE(Holds(Display(),
        "<text x='40' y='60' font-family='sans-serif' font-weight='bold' font-size='36' "
        "fill='#ff8000' stroke='black' stroke-width='2' ><tspan x='40' dy='1.2em'>line "
        "one</tspan><tspan x='40' dy='1.2em'>line two</tspan></text>"));
    model.SetUserTextFontSize(50);
    model.SetUserText({ 40, 60, "sized by the setting", -1, "" });
    EXPECT_TRUE(Holds(Display(), "font-size='50' fill='white'"));
}

TEST_F(OverlayModelTest, OnlyTheFourModesAreAccepted)
{
    EXPECT_EQ(model.GetMode(), "both");
    for (const char* mode : { "off", "display", "recording", "both" }) {
        EXPECT_TRUE(model.EnableOverlays(mode)) << mode;
        EXPECT_EQ(model.GetMode(), mode);
    }
    EXPECT_TRUE(model.EnableOverlays("display"));
    EXPECT_FALSE(model.EnableOverlays("sometimes"));
    EXPECT_FALSE(model.EnableOverlays(""));
    EXPECT_FALSE(model.EnableOverlays("Both"));
    EXPECT_EQ(model.GetMode(), "display");
}

TEST_F(OverlayModelTest, TemplateFilesSeeTheEscapedModelDataAndTheirOwnKindAndRefusedOnesLeaveTheOneInUse)
{
    // Without its templates the model renders nothing.
    OverlayModel bare(nullptr, nullptr, dir.File("no-such-dir"));
    EXPECT_EQ(bare.RenderDocument(false, kNow), "");
    EXPECT_EQ(bare.RenderDocument(true, kNow), "");
    EXPECT_TRUE(bare.SetDisplayTemplate(TemplateDir() + "/display.svg.mustache"));
    EXPECT_NE(bare.RenderDocument(false, kNow).find("2023-11-14 22:13:20"), std::string::npos);
    EXPECT_EQ(bare.RenderDocument(true, kNow), "");

    const std::string shipped = Display();
    EXPECT_FALSE(model.SetDisplayTemplate(dir.File("missing.svg")));
    EXPECT_FALSE(model.SetDisplayTemplate(WriteTemplate("unclosed.svg", "<svg>{{#showDate}}</svg>")));
    EXPECT_FALSE(model.SetRecordTemplate(WriteTemplate("plain.txt", "{{date}}")));
    EXPECT_FALSE(model.SetRecordTemplate(WriteTemplate("empty.svg", "")));
    EXPECT_EQ(Display(), shipped);
    EXPECT_TRUE(Holds(Recording(), "<svg xmlns"));
    EXPECT_TRUE(log.ContainsText(
        VideoDaemon::Log::kWarning, "cannot read overlay template " + dir.File("missing.svg")));
    EXPECT_TRUE(log.ContainsText(
        VideoDaemon::Log::kWarning, "overlay template " + dir.File("unclosed.svg") + " does not parse"));
    EXPECT_TRUE(log.ContainsText(
        VideoDaemon::Log::kWarning, "overlay template " + dir.File("plain.txt") + " has no <svg> element"));

    model.SetReelCount("2.5 m");
    model.SetReelCountDecimalMark(",");
    model.SetUserText({ 0, 0, "a&b", 0, "" });
    model.SetPlumblineEnabled(true);
    const std::string fields
        = "{{date}}|{{time}}|{{count}}|{{userText}}|{{#showPlumbline}}P{{/showPlumbline}}|"
          "{{#recording}}R{{/recording}}{{^recording}}D{{/recording}}|{{width}}x{{height}}";
    ASSERT_TRUE(model.SetDisplayTemplate(WriteTemplate("display.svg", "<svg>" + fields + "</svg>")));
    ASSERT_TRUE(model.SetRecordTemplate(WriteTemplate("recording.svg", "<svg>" + fields + "</svg>")));
    EXPECT_EQ(Display(), "<svg>2023-11-14|22:13:20|2,5 m|a&amp;b|P|D|640x480</svg>");
    EXPECT_EQ(Recording(), "<svg>2023-11-14|22:13:20|2,5 m|a&amp;b|P|R|640x480</svg>");
    model.SetUserTextEnabled(false);
    model.SetCountEnabled(false);
    EXPECT_EQ(Display(), "<svg>2023-11-14|22:13:20|||P|D|640x480</svg>");
}
