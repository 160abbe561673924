// Path text rules for matching files to the mount points of storage devices.
#pragma once

#include <string>

namespace Storaged
{

class StoragePath
{
public:
    // Whether `file` lies at or below `mountPoint`, compared on whole path
    // components of the normalised paths (VideoDaemon::NormalisedPath):
    // "/media/sd" holds "/media/sd/a", not "/media/sd2/a".
    static bool Contains(const std::string& mountPoint, const std::string& file);
};

} // namespace Storaged
