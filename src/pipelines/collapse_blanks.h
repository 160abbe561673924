// How a launch description is read: runs of blanks collapse to one, since descriptions are written indented.
#pragma once

#include <string>

namespace VideoDaemon
{

// Every run of space characters becomes one; nothing else changes, so a run
// inside a quoted value collapses too.
inline std::string CollapseBlanks(const std::string& text)
{
    std::string collapsed;
    collapsed.reserve(text.size());
    for (char c : text) {
        if (c == ' ' && !collapsed.empty() && collapsed.back() == ' ')
            continue;
        collapsed.push_back(c);
    }
    return collapsed;
}

} // namespace VideoDaemon
