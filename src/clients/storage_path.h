// Path text rules for matching files to the mount points of storage devices.
#pragma once

#include <string>

namespace Storaged
{

class StoragePath
{
public:
    // Absolute (relative paths are taken from the working directory),
    // without ".", ".." or repeated separators, and without a trailing "/"
    // except for the root. Empty for an empty path.
    static std::string Normalise(const std::string& path);

    // Whether `file` lies at or below `mountPoint`, compared on whole path
    // components of the normalised paths ("/media/sd" holds "/media/sd/a",
    // not "/media/sd2/a").
    static bool Contains(const std::string& mountPoint, const std::string& file);
};

} // namespace Storaged
