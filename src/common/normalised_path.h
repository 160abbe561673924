// The one way file paths are compared: absolute and lexically normalised.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace VideoDaemon
{

// Absolute (a relative path is taken from the working directory, or "/"
// when that cannot be read), without ".", ".." or repeated separators, and
// without a trailing "/" except for the root. Empty for an empty path.
inline std::string NormalisedPath(const std::string& path)
{
    if (path.empty())
        return "";
    std::filesystem::path absolute(path);
    if (absolute.is_relative()) {
        std::error_code error;
        const std::filesystem::path cwd = std::filesystem::current_path(error);
        absolute = (error ? std::filesystem::path("/") : cwd) / absolute;
    }
    std::string text = absolute.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

} // namespace VideoDaemon
