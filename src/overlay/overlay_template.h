// A Mustache template of an overlay document, read from a file and rendered from JSON model data.
#pragma once

#include <nlohmann/json.hpp>

#include <memory>
#include <string>

namespace VideoDaemon
{

class OverlayTemplate
{
public:
    OverlayTemplate();
    ~OverlayTemplate();
    OverlayTemplate(const OverlayTemplate&) = delete;
    OverlayTemplate& operator=(const OverlayTemplate&) = delete;

    // Reads and parses `path`; false, with the reason logged and the
    // template left as it was, when the file cannot be read, does not parse
    // or has no <svg> root.
    bool Load(const std::string& path);
    bool Loaded() const { return _Parsed != nullptr; }

    // The document for `view` (empty while nothing is loaded). Values are
    // placed as they stand, never HTML-escaped by the template engine: the
    // model escapes the text it puts in, and passes SVG fragments that must
    // stay markup.
    std::string Render(const nlohmann::json& view) const;

private:
    struct Parsed;
    std::unique_ptr<Parsed> _Parsed;
};

} // namespace VideoDaemon
