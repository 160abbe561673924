// Collects the daemon's log lines for the life of the object, so a test can
// assert on exact texts and priorities.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "log.h"

class LogCapture
{
public:
    LogCapture()
    {
        VideoDaemon::Log::SetHook([this](int priority, const std::string& line) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.emplace_back(priority, line);
        });
    }
    ~LogCapture() { VideoDaemon::Log::SetHook(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    bool Contains(int priority, const std::string& line) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::find(lines_.begin(), lines_.end(), std::make_pair(priority, line)) != lines_.end();
    }
    bool ContainsText(const std::string& fragment) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::any_of(lines_.begin(), lines_.end(),
            [&](const auto& entry) { return entry.second.find(fragment) != std::string::npos; });
    }
    // A line at `priority` that holds `fragment`.
    bool ContainsText(int priority, const std::string& fragment) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::any_of(lines_.begin(), lines_.end(), [&](const auto& entry) {
            return entry.first == priority && entry.second.find(fragment) != std::string::npos;
        });
    }
    size_t Count(int priority, const std::string& line) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), std::make_pair(priority, line)));
    }
    std::vector<std::pair<int, std::string>> Lines() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::pair<int, std::string>> lines_;
};
