// The IPU transform's deinterlace methods by the names the cameras use.
#include "pipelines/deinterlace_method.h"

namespace VideoDaemon
{

std::optional<int> DeinterlaceMethodValue(const std::string& name)
{
    if (name == "low-motion")
        return 0;
    if (name == "high-motion")
        return 1;
    if (name == "medium-motion")
        return 2;
    return std::nullopt;
}

std::string DeinterlaceMethodName(int value)
{
    switch (value) {
    case 0:
        return "low-motion";
    case 1:
        return "high-motion";
    case 2:
        return "median-motion";
    default:
        return "";
    }
}

} // namespace VideoDaemon
