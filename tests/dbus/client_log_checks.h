// Test helper: the log lines the peer clients write when an operation fails.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"

namespace VideodTest
{

using LogLines = std::vector<std::pair<int, std::string>>;

// Each operation fails and logs exactly one line at error priority that starts with its text.
inline void ExpectEachFailsWithOneErrorLine(
    const std::vector<std::pair<std::function<int()>, std::string>>& rows)
{
    for (const auto& [operation, line] : rows) {
        LogCapture log;
        EXPECT_LT(operation(), 0) << line;
        ASSERT_EQ(log.Lines().size(), 1u) << line;
        EXPECT_EQ(log.Lines().front().first, VideoDaemon::Log::kError) << line;
        EXPECT_EQ(log.Lines().front().second.rfind(line, 0), 0u) << log.Lines().front().second;
    }
}

} // namespace VideodTest
