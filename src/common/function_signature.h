// Function signature texts for log lines, spelled as the board's compiler spells them.
#pragma once

#include <regex>
#include <string>

namespace VideoDaemon
{

// __PRETTY_FUNCTION__ names std::string differently across GCC releases; the
// log lines keep the board's spelling ("std::__cxx11::string" for a value or
// non-const reference, "const string&" for a const reference) so that they
// read the same whichever compiler built the daemon.
inline std::string FunctionSignature(const char* pretty_function)
{
    static const std::regex const_reference("const std::string&");
    static const std::regex plain("std::string\\b");
    std::string text = std::regex_replace(pretty_function, const_reference, "const string&");
    return std::regex_replace(text, plain, "std::__cxx11::string");
}

} // namespace VideoDaemon

// The current function's signature text, valid for the full expression.
#define VIDEOD_SIGNATURE (::VideoDaemon::FunctionSignature(__PRETTY_FUNCTION__).c_str())
