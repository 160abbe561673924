// Typed, logged access to the properties of one interface of a peer daemon's object.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <utility>

#include "common/function_signature.h"
#include "dbus-helper/sdbus_utils.h"

namespace VideoDaemon
{

// The usual failure lines, printf formats of three "%s": the operation's
// signature, the property as the line names it, the D-Bus error text.
constexpr const char* kGetPropertyFailed = "%s: sdbus_utils::GetProperty %s failed %s";
constexpr const char* kSetPropertyFailed = "%s: sdbus_utils::SetProperty %s failed %s";

// The clients' one way to read and write a peer's property: sdbus_utils'
// typed access, with every failure logged as one error line.
class PeerProperties
{
public:
    // `bus` nullptr: the library's own connection to the user bus.
    PeerProperties(std::string service, std::string path, std::string interface, sd_bus* bus = nullptr)
        : _Service(std::move(service))
        , _Path(std::move(path))
        , _Interface(std::move(interface))
        , _Bus(bus)
    {
    }

    // Reads property `name` into `value` (its C type fixes the D-Bus type).
    // Returns >= 0; on failure the negative code with `value` unchanged, and
    // logs `format` with the caller's signature, `label` (`name` when null)
    // and the D-Bus error text.
    template <typename T>
    int Get(const std::string& name, T& value, const FunctionSignature& caller, const char* label = nullptr,
        const char* format = kGetPropertyFailed) const
    {
        std::string error;
        const int r = sdbus_utils::GetProperty(_Bus, _Service, _Path, _Interface, name, value, error);
        if (r < 0)
            LogFailure(format, caller, label ? label : name.c_str(), error);
        return r;
    }

    // Writes property `name`; failures as for Get.
    template <typename T>
    int Set(const std::string& name, const T& value, const FunctionSignature& caller,
        const char* label = nullptr, const char* format = kSetPropertyFailed) const
    {
        std::string error;
        const int r = sdbus_utils::SetProperty(_Bus, _Service, _Path, _Interface, name, value, error);
        if (r < 0)
            LogFailure(format, caller, label ? label : name.c_str(), error);
        return r;
    }

private:
    static void LogFailure(
        const char* format, const FunctionSignature& caller, const char* label, const std::string& error);

    std::string _Service;
    std::string _Path;
    std::string _Interface;
    sd_bus* _Bus;
};

} // namespace VideoDaemon
