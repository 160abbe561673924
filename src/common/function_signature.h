// Function signature texts for log lines, spelled as the board's compiler spells them.
#pragma once

#include <cctype>
#include <string>

namespace VideoDaemon
{

// __PRETTY_FUNCTION__ names std::string differently across GCC releases; the
// log lines keep the board's spelling ("std::__cxx11::string" for a value or
// non-const reference, "const string&" for a const reference) so that they
// read the same whichever compiler built the daemon.
inline std::string SignatureText(const char* pretty_function)
{
    static const std::string kConstReference = "const std::string&";
    static const std::string kString = "std::string";
    std::string text = pretty_function ? pretty_function : "";
    for (size_t at = text.find(kConstReference); at != std::string::npos;
         at = text.find(kConstReference, at + 1))
        text.replace(at, kConstReference.size(), "const string&");
    // Only the whole word: "std::stringstream" stays as it is.
    for (size_t at = text.find(kString); at != std::string::npos; at = text.find(kString, at + 1)) {
        const size_t end = at + kString.size();
        if (end < text.size() && (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
            continue;
        text.replace(at, kString.size(), "std::__cxx11::string");
    }
    return text;
}

// A function's signature, spelled out only when a line that names it is
// written: lookups take it and pay for the text on their failure path only.
class FunctionSignature
{
public:
    explicit constexpr FunctionSignature(const char* pretty_function)
        : _PrettyFunction(pretty_function)
    {
    }
    std::string Text() const { return SignatureText(_PrettyFunction); }

private:
    const char* _PrettyFunction;
};

} // namespace VideoDaemon

// The current function's signature text, valid for the full expression: for
// a line that is written whenever this runs.
#define VIDEOD_SIGNATURE (::VideoDaemon::SignatureText(__PRETTY_FUNCTION__).c_str())
// The current function's signature, spelled out only if a failure is logged.
#define VIDEOD_FUNCTION (::VideoDaemon::FunctionSignature(__PRETTY_FUNCTION__))
