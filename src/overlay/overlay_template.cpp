// A Mustache template of an overlay document, read from a file and rendered from JSON model data.
#include "overlay/overlay_template.h"

#include <kainjow/mustache.hpp>

#include <fstream>
#include <sstream>

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace mustache = kainjow::mustache;

struct OverlayTemplate::Parsed {
    explicit Parsed(const std::string& text)
        : engine(text)
    {
    }
    // Rendering does not change the parsed template; the engine's render
    // call is merely not marked const.
    mutable mustache::mustache engine;
};

namespace
{

// JSON objects, arrays, strings and booleans map onto their Mustache kinds;
// numbers become their decimal text and null is false.
mustache::data ToData(const nlohmann::json& value)
{
    switch (value.type()) {
    case nlohmann::json::value_t::object: {
        mustache::data object;
        for (const auto& [key, member] : value.items())
            object.set(key, ToData(member));
        return object;
    }
    case nlohmann::json::value_t::array: {
        mustache::data list(mustache::data::type::list);
        for (const auto& element : value)
            list.push_back(ToData(element));
        return list;
    }
    case nlohmann::json::value_t::string:
        return mustache::data(value.get_ref<const std::string&>());
    case nlohmann::json::value_t::boolean:
        return mustache::data(value.get<bool>());
    case nlohmann::json::value_t::null:
    case nlohmann::json::value_t::discarded:
        return mustache::data(false);
    default:
        return mustache::data(value.dump());
    }
}

} // namespace

OverlayTemplate::OverlayTemplate() = default;
OverlayTemplate::~OverlayTemplate() = default;

bool OverlayTemplate::Load(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        Log::Warning("%s: cannot read overlay template %s", VIDEOD_SIGNATURE, path.c_str());
        return false;
    }
    auto parsed = std::make_unique<Parsed>(text.str());
    if (!parsed->engine.is_valid()) {
        Log::Warning("%s: overlay template %s does not parse: %s", VIDEOD_SIGNATURE, path.c_str(),
            parsed->engine.error_message().c_str());
        return false;
    }
    if (text.str().find("<svg") == std::string::npos) {
        Log::Warning("%s: overlay template %s has no <svg> element", VIDEOD_SIGNATURE, path.c_str());
        return false;
    }
    parsed->engine.set_custom_escape([](const std::string& value) { return value; });
    _Parsed = std::move(parsed);
    return true;
}

std::string OverlayTemplate::Render(const nlohmann::json& view) const
{
    if (!_Parsed)
        return "";
    return _Parsed->engine.render(ToData(view));
}

} // namespace VideoDaemon
