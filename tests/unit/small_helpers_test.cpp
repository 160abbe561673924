// The daemon's small text and path helpers: blanks collapsed in launch descriptions, signature texts as the
// board's compiler spells them, normalised paths, the storage device holding a file, and the frame-rate
// probe's one-second window.
#include <gtest/gtest.h>

#include <filesystem>

#include "clients/storage_path.h"
#include "common/function_signature.h"
#include "common/normalised_path.h"
#include "pipelines/collapse_blanks.h"
#include "pipelines/framerate_probe.h"

using Storaged::StoragePath;
using VideoDaemon::CollapseBlanks;
using VideoDaemon::FramerateProbe;
using VideoDaemon::FunctionSignature;
using VideoDaemon::NormalisedPath;
using VideoDaemon::SignatureText;

namespace
{

constexpr int64_t kSecondUs = 1000000;

std::string WithAValueAndAConstReference(std::string value, const std::string& reference)
{
    return VIDEOD_SIGNATURE + value + reference;
}

} // namespace

TEST(CollapseBlanks, RunsOfBlanksBecomeOneEvenInsideQuotesAndNothingElseChanges)
{
    EXPECT_EQ(CollapseBlanks("a    ! b  name=\"two    blanks\"   "), "a ! b name=\"two blanks\" ");
    EXPECT_EQ(CollapseBlanks("      "), " ");
    EXPECT_EQ(CollapseBlanks("a\t\tb\n\nc d"), "a\t\tb\n\nc d");
    EXPECT_EQ(CollapseBlanks(""), "");
}

TEST(SignatureText, SpellsStringValuesAndReferencesAsTheBoardsCompilerDoesAndLeavesTheRestAlone)
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

TEST(NormalisedPath, IsAbsoluteFromTheWorkingDirectoryWithoutDotsRepeatedOrTrailingSlashes)
{
    EXPECT_EQ(NormalisedPath("/media//sd/./DCIM/../video.mp4"), "/media/sd/video.mp4");
    EXPECT_EQ(NormalisedPath("/media/sd/"), "/media/sd");
    EXPECT_EQ(NormalisedPath("/tmp/snap/.//wanted.jpg"), "/tmp/snap/wanted.jpg");
    EXPECT_EQ(NormalisedPath("/"), "/");
    EXPECT_EQ(NormalisedPath("/.."), "/");
    EXPECT_EQ(NormalisedPath(""), "");
    EXPECT_EQ(NormalisedPath("clip.mp4"), (std::filesystem::current_path() / "clip.mp4").string());
    EXPECT_EQ(NormalisedPath("./a/../clip.mp4"), (std::filesystem::current_path() / "clip.mp4").string());
}

TEST(StoragePath, MatchesWholePathComponentsOnly)
{
    EXPECT_TRUE(StoragePath::Contains("/media/sd", "/media/sd/video.mp4"));
    EXPECT_TRUE(StoragePath::Contains("/media/sd/", "/media/sd/video.mp4"));
    EXPECT_TRUE(StoragePath::Contains("/media/sd", "/media/sd"));
    EXPECT_TRUE(StoragePath::Contains("/", "/anything"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sd2/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sdcard"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", "/media/sd/../sd2/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("", "/media/sd/video.mp4"));
    EXPECT_FALSE(StoragePath::Contains("/media/sd", ""));
}

TEST(FramerateProbe, CountsTheBuffersOfTheLastSecondOnlyEachBufferOfAListOnce)
{
    FramerateProbe probe;
    EXPECT_EQ(probe.GetFramesPerSecond(0), 0u);
    for (int64_t frame = 0; frame < 30; ++frame)
        probe.Count(frame * kSecondUs / 30);
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs - 1), 30u);
    // A buffer exactly one second old is out of the window.
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs), 29u);
    EXPECT_EQ(probe.GetFramesPerSecond(kSecondUs + kSecondUs / 2), 14u);
    EXPECT_EQ(probe.GetFramesPerSecond(2 * kSecondUs), 0u);

    FramerateProbe lists;
    lists.Count(0, 4);
    lists.Count(kSecondUs / 2);
    EXPECT_EQ(lists.GetFramesPerSecond(kSecondUs / 2), 5u);
    EXPECT_EQ(lists.GetFramesPerSecond(kSecondUs), 1u);
}
