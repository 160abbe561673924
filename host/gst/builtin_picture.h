// Encodes the built-in JPEG picture shown when the configured picture cannot be read.
#pragma once

#include <glib.h>

#include <vector>

class BuiltinPicture
{
public:
    // A baseline JPEG of the given size: a dark frame with a light cross.
    static std::vector<guint8> Encode(int width, int height);
};
