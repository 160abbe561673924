// Facts about the model of unit this software runs on.
#pragma once

#include <cstdint>

namespace RigInfo
{

// Size of a picture in pixels.
struct Resolution {
    uint32_t width;
    uint32_t height;
};

class ThisModel
{
public:
    // Resolution of the unit's built-in display.
    static Resolution DisplayResolution();
};

} // namespace RigInfo
