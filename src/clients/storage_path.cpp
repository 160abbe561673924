// Lexical path normalisation and component-wise prefix matching.
#include "storage_path.h"

#include <filesystem>
#include <system_error>

namespace Storaged
{

std::string StoragePath::Normalise(const std::string& path)
{
    if (path.empty())
        return "";
    std::filesystem::path p(path);
    if (p.is_relative()) {
        std::error_code error;
        const std::filesystem::path cwd = std::filesystem::current_path(error);
        p = (error ? std::filesystem::path("/") : cwd) / p;
    }
    std::string text = p.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

bool StoragePath::Contains(const std::string& mountPoint, const std::string& file)
{
    const std::string mount = Normalise(mountPoint);
    const std::string target = Normalise(file);
    if (mount.empty() || target.empty())
        return false;
    if (mount == "/")
        return true;
    if (target.compare(0, mount.size(), mount) != 0)
        return false;
    return target.size() == mount.size() || target[mount.size()] == '/';
}

} // namespace Storaged
