// Typed property access and parsing of property dictionaries over sd-bus.
#pragma once

#include <systemd/sd-bus.h>

#include <any>
#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "dbus-helper/sd_bus_ptr.h"

// Property (or settings key) name -> (D-Bus signature of the value, value).
// Values hold the C type matching the signature: "b" bool, "y" uint8_t,
// "n" int16_t, "q" uint16_t, "i" int32_t, "u" uint32_t, "x" int64_t,
// "t" uint64_t, "d" double, "s"/"o"/"g" std::string, "as"/"ao"
// std::vector<std::string>, "ad" std::vector<double>, "ai"
// std::vector<int32_t>, "au" std::vector<uint32_t>, "ay"
// std::vector<uint8_t>. Values of other signatures are kept as an empty any.
using TypedPropertyMap = std::map<std::string, std::pair<std::string, std::any>>;

namespace sdbus_utils
{

using TypedPropertyMap = ::TypedPropertyMap;
// Property name -> value, typed as in TypedPropertyMap.
using PropertyMap = std::map<std::string, std::any>;
// Interface name -> its properties.
using InterfaceMap = std::map<std::string, TypedPropertyMap>;
// Object path -> its interfaces.
using ManagedObjects = std::map<std::string, InterfaceMap>;

// The library's own user bus connection for this thread, used by every call
// below that is given no bus. Reopened when it has closed or when
// DBUS_SESSION_BUS_ADDRESS has changed. Returns nullptr and fills `error`
// when the bus cannot be opened.
sd_bus* DefaultBus(std::string& error);

// Property access. The value's C type fixes the expected D-Bus signature
// (float travels as "d"). Each returns >= 0 on success; on failure it returns
// a negative errno, leaves `value` untouched and fills `error` with the D-Bus
// error ("name: message"). A property of another type is such a failure.
// A null `bus` means DefaultBus().
#define SDBUS_UTILS_DECLARE_PROPERTY_TYPE(Type)                                                              \
    int GetProperty(sd_bus* bus, const std::string& service, const std::string& path,                        \
        const std::string& interface, const std::string& name, Type& value, std::string& error);             \
    int SetProperty(sd_bus* bus, const std::string& service, const std::string& path,                        \
        const std::string& interface, const std::string& name, const Type& value, std::string& error);

SDBUS_UTILS_DECLARE_PROPERTY_TYPE(bool)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(int32_t)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(uint32_t)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(uint64_t)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(double)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(float)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(std::string)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(std::vector<double>)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(std::vector<float>)
SDBUS_UTILS_DECLARE_PROPERTY_TYPE(std::vector<std::string>)

#undef SDBUS_UTILS_DECLARE_PROPERTY_TYPE

// `unsigned long long` where it is a type of its own (LP64), as "t".
template <typename T,
    typename = std::enable_if_t<std::is_same_v<T, unsigned long long> && !std::is_same_v<T, uint64_t>>>
int GetProperty(sd_bus* bus, const std::string& service, const std::string& path,
    const std::string& interface, const std::string& name, T& value, std::string& error)
{
    uint64_t wire = 0;
    const int r = GetProperty(bus, service, path, interface, name, wire, error);
    if (r >= 0)
        value = wire;
    return r;
}
template <typename T,
    typename = std::enable_if_t<std::is_same_v<T, unsigned long long> && !std::is_same_v<T, uint64_t>>>
int SetProperty(sd_bus* bus, const std::string& service, const std::string& path,
    const std::string& interface, const std::string& name, const T& value, std::string& error)
{
    const uint64_t wire = value;
    return SetProperty(bus, service, path, interface, name, wire, error);
}

// Calls a method with arguments `types`/... (sd_bus_message_append
// conventions), waiting at most DbusHelper::kMethodCallTimeoutUsec whatever
// the connection's own default. On success `reply` (when given) holds the
// answer; on failure returns a negative errno with `error` filled.
int CallMethod(sd_bus* bus, const std::string& service, const std::string& path, const std::string& interface,
    const std::string& member, DbusHelper::SdBusMessagePtr* reply, std::string& error, const char* types,
    ...);

// Calls org.freedesktop.DBus.Properties.GetAll; on success `reply` is
// positioned at its "a{sv}" dictionary, ready for ParseProperties.
int GetAllProperties(sd_bus* bus, const std::string& service, const std::string& path,
    const std::string& interface, DbusHelper::SdBusMessagePtr& reply, std::string& error);

// Read an "a{sv}" dictionary at the message's current position. Return 0 or
// a negative errno (malformed message); entries are added to `properties`.
int ParseProperties(sd_bus_message* message, PropertyMap& properties);
int ParsePropertiesWithType(sd_bus_message* message, TypedPropertyMap& properties);

// Read the body of org.freedesktop.DBus.ObjectManager.InterfacesAdded
// ("oa{sa{sv}}") or InterfacesRemoved ("oas"). Return 0 or a negative errno.
int ParseInterfaceAdded(sd_bus_message* message, std::string& path, InterfaceMap& interfaces);
int ParseInterfaceRemoved(sd_bus_message* message, std::string& path, std::vector<std::string>& interfaces);

namespace object_manager
{
// Calls org.freedesktop.DBus.ObjectManager.GetManagedObjects on `path`.
// Returns >= 0 or a negative errno with `error` filled.
int GetManagedObjects(sd_bus* bus, const std::string& service, const std::string& path,
    ManagedObjects& objects, std::string& error);
} // namespace object_manager

} // namespace sdbus_utils
