// Reading and appending D-Bus values of the C types the library supports.
#pragma once

#include <systemd/sd-bus.h>

#include <any>
#include <cstdint>
#include <string>
#include <vector>

namespace DbusHelper
{

// Each C type maps to one D-Bus signature; Read/Append work at the
// message's current position and return sd-bus results (negative errno).
class MessageCodec
{
public:
    static const char* Signature(const bool&) { return "b"; }
    static const char* Signature(const int32_t&) { return "i"; }
    static const char* Signature(const uint32_t&) { return "u"; }
    static const char* Signature(const uint64_t&) { return "t"; }
    static const char* Signature(const double&) { return "d"; }
    static const char* Signature(const float&) { return "d"; }
    static const char* Signature(const std::string&) { return "s"; }
    static const char* Signature(const std::vector<double>&) { return "ad"; }
    static const char* Signature(const std::vector<float>&) { return "ad"; }
    static const char* Signature(const std::vector<std::string>&) { return "as"; }

    static int Read(sd_bus_message* m, bool& value);
    static int Read(sd_bus_message* m, int32_t& value);
    static int Read(sd_bus_message* m, uint32_t& value);
    static int Read(sd_bus_message* m, uint64_t& value);
    static int Read(sd_bus_message* m, double& value);
    static int Read(sd_bus_message* m, float& value);
    static int Read(sd_bus_message* m, std::string& value);
    static int Read(sd_bus_message* m, std::vector<double>& value);
    static int Read(sd_bus_message* m, std::vector<float>& value);
    static int Read(sd_bus_message* m, std::vector<std::string>& value);

    static int Append(sd_bus_message* m, const bool& value);
    static int Append(sd_bus_message* m, const int32_t& value);
    static int Append(sd_bus_message* m, const uint32_t& value);
    static int Append(sd_bus_message* m, const uint64_t& value);
    static int Append(sd_bus_message* m, const double& value);
    static int Append(sd_bus_message* m, const float& value);
    static int Append(sd_bus_message* m, const std::string& value);
    static int Append(sd_bus_message* m, const std::vector<double>& value);
    static int Append(sd_bus_message* m, const std::vector<float>& value);
    static int Append(sd_bus_message* m, const std::vector<std::string>& value);

    // Reads the variant at the current position: its contents' signature and
    // its value as the C type documented with TypedPropertyMap (an empty any
    // for other signatures, whose value is skipped).
    static int ReadVariant(sd_bus_message* m, std::string& signature, std::any& value);
};

} // namespace DbusHelper
