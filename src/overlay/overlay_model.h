// The on-screen and recorded overlays' data: renders both SVG documents from their templates and hands each
// to its overlay pipeline when its content changed.
#pragma once

#include <nlohmann/json.hpp>

#include <array>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "overlay/overlay_template.h"

namespace VideoDaemon
{

class OverlayPipeline;

// Both documents draw on a canvas of kCanvasWidth x kCanvasHeight units that
// the overlay pipeline stretches over the frame; positions and font sizes
// are in these units.
//
// The model data a template sees (all text already XML-escaped):
//   width, height, centreX, centreY  the canvas
//   recording                        true in the recording document
//   showDate, date                   the date text ("overlayDateFormat")
//   showTime, time                   the time text ("overlayTimeFormat")
//   showCount, count                 the reel count text, decimal mark applied
//   showUserText, userText           the user text as set
//   showPlumbline                    the plumbline switch
//   dateTimeSvg, countSvg,           the same texts as SVG text elements,
//   userTextSvg                      placed by their styles; empty when hidden
class OverlayModel
{
public:
    static constexpr int kCanvasWidth = 640;
    static constexpr int kCanvasHeight = 480;

    // Defaults: the date as "%Y-%m-%d", the time as "%H:%M:%S" (strftime, local time).
    static constexpr const char* kDefaultDateFormat = "%Y-%m-%d";
    static constexpr const char* kDefaultTimeFormat = "%H:%M:%S";
    static constexpr uint32_t kDefaultUserTextFontSize = 24;
    static constexpr uint32_t kDefaultDateTimeFontSize = 20;
    static constexpr uint32_t kDefaultCountFontSize = 20;

    // Where the date and time ("OverlayDateTimeStyle") or the reel count
    // ("OverlayCountStyle") are drawn. Other values are kept as set and drawn
    // at the item's default corner (date and time top left, count bottom right).
    enum Corner : int32_t { kTopLeft = 0, kTopRight = 1, kBottomLeft = 2, kBottomRight = 3 };

    // "OverlayUserText" ("(iisis)"), in this order.
    struct UserText {
        int32_t x = 0; // left edge, canvas units
        int32_t y = 0; // the first line is drawn 1.2 em below y; "\n" starts a new line
        std::string text;
        int32_t size = 0; // font size; 0 or less takes "userTextFontSize"
        std::string colour; // SVG fill colour ("yellow", "#ff8000"); empty is white
    };

    // Either pipeline may be null; its document is then not rendered. The
    // templates are "display.svg.mustache" and "recording.svg.mustache" of
    // `template_dir`, by default the installed ones.
    OverlayModel(OverlayPipeline* display, OverlayPipeline* recording, const std::string& template_dir);
    explicit OverlayModel(OverlayPipeline* display, OverlayPipeline* recording);
    OverlayModel(const OverlayModel&) = delete;
    OverlayModel& operator=(const OverlayModel&) = delete;

    // False, keeping the template in use, when `path` is unreadable or not a
    // valid template.
    bool SetRecordTemplate(const std::string& path);
    bool SetDisplayTemplate(const std::string& path);

    // "off", "display", "recording" or "both" (the initial mode): which
    // overlays are drawn. False for another mode (nothing changes) or when a
    // pipeline refuses the switch.
    bool EnableOverlays(const std::string& mode);
    const std::string& GetMode() const { return _Mode; }

    void SetDateEnabled(bool enabled);
    void SetTimeEnabled(bool enabled);
    void SetPlumblineEnabled(bool enabled);
    void SetCountEnabled(bool enabled);
    void SetUserTextEnabled(bool enabled);

    void SetDateFormat(const std::string& format);
    void SetTimeFormat(const std::string& format);
    // Replaces the "." of the count text (default ".").
    void SetReelCountDecimalMark(const std::string& mark);

    void SetUserTextFontSize(uint32_t size);
    void SetDateTimeFontSize(uint32_t size);
    void SetCountFontSize(uint32_t size);

    void SetUserText(const UserText& text);
    const UserText& GetUserText() const { return _UserText; }
    void SetDateTimeStyle(int32_t style);
    int32_t GetDateTimeStyle() const { return _DateTimeStyle; }
    void SetCountStyle(int32_t style);
    int32_t GetCountStyle() const { return _CountStyle; }
    // The reel handler's count text ("12.5 m"); empty hides the count.
    void SetReelCount(const std::string& count);

    // Renders the shown documents for `now` and hands over those whose
    // content changed. Called once a second by the streamer and by every
    // setter (with the time of the last call; before the first call setters
    // only record their value); within one second nothing is rendered again
    // unless a setting changed.
    void Update(std::time_t now);
    // One document for `now`; empty while its template is not loaded.
    std::string RenderDocument(bool recording, std::time_t now) const;

private:
    struct Overlay {
        OverlayPipeline* pipeline = nullptr;
        OverlayTemplate document;
        bool shown = true;
        // The content last handed to the pipeline.
        std::string handed;
    };

    // A setting changed: render again at the current second.
    void Changed();
    // Stores a plain setting and marks the documents for redrawing.
    template <typename T, typename V> void Store(T& setting, V&& value)
    {
        setting = std::forward<V>(value);
        Changed();
    }
    nlohmann::json View(bool recording, std::time_t now) const;
    std::string DateTimeSvg(const std::string& date, const std::string& time) const;
    std::string CountSvg(const std::string& count) const;
    std::string UserTextSvg() const;

    std::array<Overlay, 2> _Overlays; // display, recording
    std::string _Mode = "both";

    bool _DateEnabled = true;
    bool _TimeEnabled = true;
    bool _PlumblineEnabled = false;
    bool _CountEnabled = true;
    bool _UserTextEnabled = true;
    std::string _DateFormat = kDefaultDateFormat;
    std::string _TimeFormat = kDefaultTimeFormat;
    std::string _DecimalMark = ".";
    uint32_t _UserTextFontSize = kDefaultUserTextFontSize;
    uint32_t _DateTimeFontSize = kDefaultDateTimeFontSize;
    uint32_t _CountFontSize = kDefaultCountFontSize;
    UserText _UserText;
    int32_t _DateTimeStyle = kTopLeft;
    int32_t _CountStyle = kBottomRight;
    std::string _ReelCount;

    // The second last rendered, and whether a setting changed since.
    std::optional<std::time_t> _RenderedAt;
    bool _Dirty = true;
};

} // namespace VideoDaemon
