// How death tests start their child process.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

namespace GstTest
{

// A death test re-runs the test binary in a fresh process ("threadsafe"),
// since a plain fork of a process with GStreamer threads may deadlock. Under
// user-mode emulation the binary cannot be started by exec (the machine has
// no handler for the board's executables), so there the child is forked.
inline void UseFreshProcessDeathTests()
{
    GTEST_FLAG_SET(death_test_style, std::getenv("VIDEOD_EMULATED") ? "fast" : "threadsafe");
}

} // namespace GstTest
