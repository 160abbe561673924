// Component-wise prefix matching of normalised paths.
#include "storage_path.h"

#include "common/normalised_path.h"

namespace Storaged
{

bool StoragePath::Contains(const std::string& mountPoint, const std::string& file)
{
    const std::string mount = VideoDaemon::NormalisedPath(mountPoint);
    const std::string target = VideoDaemon::NormalisedPath(file);
    if (mount.empty() || target.empty())
        return false;
    if (mount == "/")
        return true;
    if (target.compare(0, mount.size(), mount) != 0)
        return false;
    return target.size() == mount.size() || target[mount.size()] == '/';
}

} // namespace Storaged
