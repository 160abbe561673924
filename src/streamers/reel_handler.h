// Turns the cable reel's count into the text the overlay shows: the distance in the configured units with
// the configured decimal mark.
#pragma once

#include <sigc++/sigc++.h>

#include <string>

#include "dbus-helper/sdbus_utils.h"

namespace VideoDaemon
{

class ReelHandler
{
public:
    // The count text, after it changed.
    sigc::signal<void, std::string> signal_count_changed;

    // "m" (the default) or "ft"; false for other units.
    bool SetDistanceUnits(const std::string& units);
    const std::string& GetDistanceUnits() const { return _Units; }
    // The character between whole and tenth units ("." by default).
    void SetDecimalMark(const std::string& mark);
    // A "reel" settings change ("distanceUnits").
    void OnSettingsChanged(const TypedPropertyMap& changed);
    // The system controller's reel properties ("Connected", "Count" in
    // metres), all of them or the changed ones.
    void OnReelProperties(const TypedPropertyMap& properties);
    // Another camera head: its reel is read again from the controller.
    void CameraConnected(int32_t index);
    void CameraLost();

    // "12.5 m", "41.0 ft"; empty while no reel is connected.
    std::string GetCountText() const;

private:
    void Changed();

    std::string _Units = "m";
    std::string _DecimalMark = ".";
    bool _Connected = false;
    double _CountMetres = 0.0;
    std::string _Text;
};

} // namespace VideoDaemon
