// The daemon's one logging facility: printf-style lines to syslog.
#pragma once

#include <syslog.h>

#include <functional>
#include <string>

namespace VideoDaemon
{
namespace Log
{

// Syslog priorities the daemon uses.
enum Priority { kError = LOG_ERR, kWarning = LOG_WARNING, kInfo = LOG_INFO, kDebug = LOG_DEBUG };

void Write(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void Debug(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Receives every formatted line in addition to syslog; tests install one to
// assert on the text. Called from whichever thread logs, under a lock.
using Hook = std::function<void(int priority, const std::string& line)>;
void SetHook(Hook hook);

} // namespace Log
} // namespace VideoDaemon
