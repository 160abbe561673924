// Reads one key of a settings section's change, as every change handler does.
#pragma once

#include <any>
#include <string>

#include "dbus-helper/sdbus_utils.h"
#include "log.h"

namespace Settingsd
{

// True with `value` set when the change holds `key` as a T. A key of another
// type is logged ("cast error: %s") and left out; an absent key is no change.
template <typename T> bool ChangedValue(const TypedPropertyMap& changed, const std::string& key, T& value)
{
    const auto entry = changed.find(key);
    if (entry == changed.end())
        return false;
    const T* typed = std::any_cast<T>(&entry->second.second);
    if (!typed) {
        VideoDaemon::Log::Error("cast error: %s", key.c_str());
        return false;
    }
    value = *typed;
    return true;
}

} // namespace Settingsd
