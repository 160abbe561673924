// Signature texts in log lines read as the board's compiler spells them, built only when asked for.
#include <gtest/gtest.h>

#include "common/function_signature.h"

using VideoDaemon::FunctionSignature;
using VideoDaemon::SignatureText;

namespace
{

std::string WithAValueAndAConstReference(std::string value, const std::string& reference)
{
    return VIDEOD_SIGNATURE + value + reference;
}

} // namespace

TEST(SignatureText, SpellsStringValuesAndReferencesAsTheBoardsCompilerDoes)
{
    EXPECT_EQ(SignatureText("virtual void VideoDaemon::Mp4muxPipeline::SetLocation(const std::string&)"),
        "virtual void VideoDaemon::Mp4muxPipeline::SetLocation(const string&)");
    EXPECT_EQ(SignatureText(
                  "bool VideoDaemon::Pipeline::ListenTo(VideoDaemon::Pipeline*, std::string, std::string)"),
        "bool VideoDaemon::Pipeline::ListenTo(VideoDaemon::Pipeline*, std::__cxx11::string, "
        "std::__cxx11::string)");
    EXPECT_EQ(SignatureText("void f(std::string&, const std::string&, std::string*)"),
        "void f(std::__cxx11::string&, const string&, std::__cxx11::string*)");
    EXPECT_EQ(SignatureText("std::string g()"), "std::__cxx11::string g()");
}

TEST(SignatureText, LeavesOtherNamesAndTheBoardsSpellingAlone)
{
    for (const char* text : { "void f(std::stringstream&)", "void f(std::string_view)", "int main()",
             "void f(std::__cxx11::string, const string&)", "" })
        EXPECT_EQ(SignatureText(text), text);
    EXPECT_EQ(SignatureText(nullptr), "");
}

TEST(FunctionSignature, TheMacrosNameTheEnclosingFunction)
{
    EXPECT_EQ(WithAValueAndAConstReference("", ""),
        "std::__cxx11::string {anonymous}::WithAValueAndAConstReference(std::__cxx11::string, const "
        "string&)");
    const FunctionSignature deferred = VIDEOD_FUNCTION;
    EXPECT_NE(deferred.Text().find("TheMacrosNameTheEnclosingFunction"), std::string::npos)
        << deferred.Text();
}
