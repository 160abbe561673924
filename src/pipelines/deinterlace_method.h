// The IPU transform's deinterlace methods by the names the cameras use.
#pragma once

#include <optional>
#include <string>

namespace VideoDaemon
{

// "deinterlace-method" for a setter's name ("low-motion", "high-motion",
// "medium-motion"); none for any other name.
std::optional<int> DeinterlaceMethodValue(const std::string& name);

// The getter's name for a "deinterlace-method" value. Value 2 reads back as
// "median-motion", a name the setter does not accept; empty for unknown values.
std::string DeinterlaceMethodName(int value);

} // namespace VideoDaemon
