// The on-screen and recorded overlays' data: renders both SVG documents from their templates and hands each
// to its overlay pipeline when its content changed.
#include "overlay/overlay_model.h"

#include <algorithm>
#include <climits>
#include <utility>

#include "common/glib_ptr.h"
#include "overlay/svg_text.h"
#include "pipelines/overlay_pipeline.h"

namespace VideoDaemon
{

namespace
{

enum : size_t { kDisplay = 0, kRecording = 1 };

// Distance of corner-placed text from the canvas edges.
constexpr int kMargin = 12;

struct Mode {
    const char* name;
    bool display;
    bool recording;
};
constexpr Mode kModes[] = {
    { "off", false, false },
    { "display", true, false },
    { "recording", false, true },
    { "both", true, true },
};

std::string EscapeXml(const std::string& text)
{
    GCharPtr escaped(g_markup_escape_text(text.c_str(), static_cast<gssize>(text.size())));
    return escaped.get();
}

// Local time of `now` in strftime `format`; empty when the text would not fit.
std::string FormatTime(const std::string& format, std::time_t now)
{
    if (format.empty())
        return "";
    std::tm local {};
    localtime_r(&now, &local);
    char text[256];
    const size_t length = std::strftime(text, sizeof text, format.c_str(), &local);
    return std::string(text, length);
}

int FontSize(uint32_t size)
{
    return static_cast<int>(std::min<uint32_t>(size, INT_MAX));
}

// A style for one line of text in `corner` (or `fallback` for an unknown
// corner), right-aligned on the right side.
OverlayTextStyle CornerStyle(int32_t corner, int32_t fallback, int font_size)
{
    if (corner < OverlayModel::kTopLeft || corner > OverlayModel::kBottomRight)
        corner = fallback;
    const bool right = corner == OverlayModel::kTopRight || corner == OverlayModel::kBottomRight;
    const bool bottom = corner == OverlayModel::kBottomLeft || corner == OverlayModel::kBottomRight;
    OverlayTextStyle style;
    style.x = right ? OverlayModel::kCanvasWidth - kMargin : kMargin;
    style.y = bottom ? OverlayModel::kCanvasHeight - kMargin : kMargin + font_size;
    style.font_size = font_size;
    if (right)
        style.extra_attributes = "text-anchor='end'";
    return style;
}

} // namespace

OverlayModel::OverlayModel(
    OverlayPipeline* display, OverlayPipeline* recording, const std::string& template_dir)
{
    _Overlays[kDisplay].pipeline = display;
    _Overlays[kRecording].pipeline = recording;
    _Overlays[kDisplay].document.Load(template_dir + "/display.svg.mustache");
    _Overlays[kRecording].document.Load(template_dir + "/recording.svg.mustache");
}

OverlayModel::OverlayModel(OverlayPipeline* display, OverlayPipeline* recording)
    : OverlayModel(display, recording, VIDEOD_OVERLAY_TEMPLATE_DIR)
{
}

bool OverlayModel::SetRecordTemplate(const std::string& path)
{
    if (!_Overlays[kRecording].document.Load(path))
        return false;
    Changed();
    return true;
}

bool OverlayModel::SetDisplayTemplate(const std::string& path)
{
    if (!_Overlays[kDisplay].document.Load(path))
        return false;
    Changed();
    return true;
}

bool OverlayModel::EnableOverlays(const std::string& mode)
{
    const Mode* found = std::find_if(
        std::begin(kModes), std::end(kModes), [&](const Mode& known) { return mode == known.name; });
    if (found == std::end(kModes))
        return false;
    _Mode = mode;
    _Overlays[kDisplay].shown = found->display;
    _Overlays[kRecording].shown = found->recording;
    bool switched = true;
    for (Overlay& overlay : _Overlays) {
        if (overlay.pipeline && !overlay.pipeline->EnableOverlay(overlay.shown))
            switched = false;
    }
    Changed();
    return switched;
}

void OverlayModel::SetDateEnabled(bool value)
{
    Store(_DateEnabled, value);
}

void OverlayModel::SetTimeEnabled(bool value)
{
    Store(_TimeEnabled, value);
}

void OverlayModel::SetPlumblineEnabled(bool value)
{
    Store(_PlumblineEnabled, value);
}

void OverlayModel::SetCountEnabled(bool value)
{
    Store(_CountEnabled, value);
}

void OverlayModel::SetUserTextEnabled(bool value)
{
    Store(_UserTextEnabled, value);
}

void OverlayModel::SetDateFormat(const std::string& value)
{
    Store(_DateFormat, value);
}

void OverlayModel::SetTimeFormat(const std::string& value)
{
    Store(_TimeFormat, value);
}

void OverlayModel::SetReelCountDecimalMark(const std::string& value)
{
    Store(_DecimalMark, value);
}

void OverlayModel::SetUserTextFontSize(uint32_t value)
{
    Store(_UserTextFontSize, value);
}

void OverlayModel::SetDateTimeFontSize(uint32_t value)
{
    Store(_DateTimeFontSize, value);
}

void OverlayModel::SetCountFontSize(uint32_t value)
{
    Store(_CountFontSize, value);
}

void OverlayModel::SetUserText(const UserText& value)
{
    Store(_UserText, value);
}

void OverlayModel::SetDateTimeStyle(int32_t value)
{
    Store(_DateTimeStyle, value);
}

void OverlayModel::SetCountStyle(int32_t value)
{
    Store(_CountStyle, value);
}

void OverlayModel::SetReelCount(const std::string& value)
{
    Store(_ReelCount, value);
}

void OverlayModel::Update(std::time_t now)
{
    if (!_Dirty && _RenderedAt == now)
        return;
    _RenderedAt = now;
    _Dirty = false;
    for (size_t index : { kDisplay, kRecording }) {
        Overlay& overlay = _Overlays[index];
        if (!overlay.pipeline || !overlay.shown)
            continue;
        std::string document = RenderDocument(index == kRecording, now);
        if (document.empty() || document == overlay.handed)
            continue;
        overlay.handed = document;
        overlay.pipeline->UpdateSvgData(document);
    }
}

std::string OverlayModel::RenderDocument(bool recording, std::time_t now) const
{
    return _Overlays[recording ? kRecording : kDisplay].document.Render(View(recording, now));
}

void OverlayModel::Changed()
{
    _Dirty = true;
    // The clock stays at the second last drawn; the streamer's tick moves it.
    // Before the first tick there is nothing to redraw: the settings applied
    // at start-up are drawn together by it.
    if (_RenderedAt)
        Update(*_RenderedAt);
}

nlohmann::json OverlayModel::View(bool recording, std::time_t now) const
{
    const std::string date = _DateEnabled ? EscapeXml(FormatTime(_DateFormat, now)) : "";
    const std::string time = _TimeEnabled ? EscapeXml(FormatTime(_TimeFormat, now)) : "";
    std::string count;
    if (_CountEnabled) {
        std::string marked = _ReelCount;
        for (size_t at = marked.find('.'); at != std::string::npos;
             at = marked.find('.', at + _DecimalMark.size()))
            marked.replace(at, 1, _DecimalMark);
        count = EscapeXml(marked);
    }
    const bool show_user_text = _UserTextEnabled && !_UserText.text.empty();

    return nlohmann::json {
        { "width", kCanvasWidth },
        { "height", kCanvasHeight },
        { "centreX", kCanvasWidth / 2 },
        { "centreY", kCanvasHeight / 2 },
        { "recording", recording },
        { "showDate", !date.empty() },
        { "date", date },
        { "showTime", !time.empty() },
        { "time", time },
        { "showCount", !count.empty() },
        { "count", count },
        { "showUserText", show_user_text },
        { "userText", show_user_text ? EscapeXml(_UserText.text) : "" },
        { "showPlumbline", _PlumblineEnabled },
        { "dateTimeSvg", DateTimeSvg(date, time) },
        { "countSvg", count.empty() ? "" : CountSvg(count) },
        { "userTextSvg", show_user_text ? UserTextSvg() : "" },
    };
}

std::string OverlayModel::DateTimeSvg(const std::string& date, const std::string& time) const
{
    if (date.empty() && time.empty())
        return "";
    OverlayTextStyle style = CornerStyle(_DateTimeStyle, kTopLeft, FontSize(_DateTimeFontSize));
    style.text = date.empty() || time.empty() ? date + time : date + " " + time;
    return ComposeSvgText(style);
}

std::string OverlayModel::CountSvg(const std::string& count) const
{
    OverlayTextStyle style = CornerStyle(_CountStyle, kBottomRight, FontSize(_CountFontSize));
    style.text = count;
    return ComposeSvgText(style);
}

std::string OverlayModel::UserTextSvg() const
{
    OverlayTextStyle style;
    style.x = _UserText.x;
    style.y = _UserText.y;
    style.font_size = _UserText.size > 0 ? _UserText.size : FontSize(_UserTextFontSize);
    if (!_UserText.colour.empty())
        style.fill = EscapeXml(_UserText.colour);
    style.text = EscapeXml(_UserText.text);
    style.multi_line = true;
    return ComposeSvgText(style);
}

} // namespace VideoDaemon
