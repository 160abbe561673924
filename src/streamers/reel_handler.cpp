// Turns the cable reel's count into the text the overlay shows: the distance in the configured units with
// the configured decimal mark.
#include "streamers/reel_handler.h"

#include <cmath>
#include <cstdio>

#include "clients/settings_change.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

const double kFeetPerMetre = 3.280839895;

} // namespace

bool ReelHandler::SetDistanceUnits(const std::string& units)
{
    if (units != "m" && units != "ft")
        return false;
    _Units = units;
    Changed();
    return true;
}

void ReelHandler::SetDecimalMark(const std::string& mark)
{
    _DecimalMark = mark.empty() ? "." : mark;
    Changed();
}

void ReelHandler::OnSettingsChanged(const TypedPropertyMap& changed)
{
    std::string units;
    if (Settingsd::ChangedValue(changed, "distanceUnits", units) && !SetDistanceUnits(units))
        Log::Warning("Unknown reel distance units: %s", units.c_str());
}

void ReelHandler::OnReelProperties(const TypedPropertyMap& properties)
{
    Settingsd::ChangedValue(properties, "Connected", _Connected);
    Settingsd::ChangedValue(properties, "Count", _CountMetres);
    Changed();
}

void ReelHandler::CameraConnected(int32_t) { }

void ReelHandler::CameraLost()
{
    _Connected = false;
    Changed();
}

std::string ReelHandler::GetCountText() const
{
    if (!_Connected)
        return "";
    const double count = _Units == "ft" ? _CountMetres * kFeetPerMetre : _CountMetres;
    char number[32];
    std::snprintf(number, sizeof(number), "%.1f", count);
    std::string text = number;
    const size_t point = text.find('.');
    if (point != std::string::npos)
        text.replace(point, 1, _DecimalMark);
    return text + " " + _Units;
}

void ReelHandler::Changed()
{
    std::string text = GetCountText();
    if (text == _Text)
        return;
    _Text = std::move(text);
    signal_count_changed.emit(_Text);
}

} // namespace VideoDaemon
