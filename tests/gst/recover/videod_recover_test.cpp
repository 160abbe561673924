// videod-recover on captures whose recording process was killed (SIGKILL) six seconds into a recording
// made with the daemon's pipelines on the simulated camera, judged by ffprobe; and on bad input.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "killed_recording.h"
#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;
using namespace RecoveryTest;

namespace
{

const double kRecordSeconds = 6.0;
// The goal: no more than this much of a recording lost.
const double kMostLost = 0.5;

Outcome Recover(const std::string& broken, const std::string& recovery, const std::string& out)
{
    return RunCommand({ VIDEOD_RECOVER, broken, recovery, out });
}

std::vector<std::uint8_t> Bytes(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<std::uint8_t>(
        (std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The sizes of a stream's packets in file order.
std::vector<std::string> PacketSizes(const std::string& file, const std::string& stream)
{
    return FfprobeValues(file, "packet=size", stream);
}

std::uint64_t Sum(const std::vector<std::string>& sizes)
{
    std::uint64_t total = 0;
    for (const std::string& size : sizes)
        total += std::stoull(size);
    return total;
}

// Bytes of media data in a capture the muxer never finished: everything after the mdat header.
std::uint64_t MediaBytes(const std::string& file)
{
    const std::vector<std::uint8_t> bytes = Bytes(file);
    const std::string text(bytes.begin(), bytes.begin() + std::min<std::size_t>(bytes.size(), 256));
    const std::size_t mdat = text.find("mdat");
    return mdat == std::string::npos ? 0 : bytes.size() - (mdat + 4);
}

void ExpectCaptureStreams(const std::string& file)
{
    ExpectCaptureStreamFormats(file);
    const std::vector<Packet> packets = FfprobePackets(file, "v:0");
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(packets.front().flags.substr(0, 1), "K");
    EXPECT_TRUE(FfmpegDecodesCleanly(file));
}

} // namespace

// With the daemon's pipelines as they are, the recovered file holds every whole sample that reached the
// disk: its packets take up the media data of the killed capture but for a sample cut off at its end. The
// muxer's file sink writes each buffer as it comes, so the recovery file is what falls behind, and the
// index rebuilt from the media data keeps the loss within the goal where its entries alone would not:
// cut the recovery file back to its first ten entries and the rebuilt index finds the very same samples.
// Damaged copies of the inputs end in a clean failure or a file, never in a crash.
TEST(VideodRecover, RecoversAKilledRecordingUpToTheLastWholeSampleOnDiskAndRebuildsTheIndexFromTheMediaData)
{
    TempDir dir;
    KilledRecording recording(dir, RECORDING_PROCESS, kRecordSeconds);
    ASSERT_TRUE(recording.failure.empty()) << recording.failure;
    const std::string out = dir.File("recovered.mp4");
    const Outcome outcome = Recover(recording.file, recording.recovery, out);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    std::printf("%s", outcome.out.c_str());

    ExpectCaptureStreams(out);
    const std::vector<std::string> video = PacketSizes(out, "v:0");
    const std::vector<std::string> audio = PacketSizes(out, "a:0");
    const std::uint64_t on_disk = MediaBytes(recording.file);
    const std::uint64_t recovered = Sum(video) + Sum(audio);
    EXPECT_LE(recovered, on_disk);
    // A cut-off sample is at most one picture of this stream.
    EXPECT_LT(on_disk - recovered, 64u * 1024) << on_disk << " bytes on disk, " << recovered << " recovered";

    const std::string stock = StockRecovery(recording, dir.File("stock.mp4"));
    PrintLoss("qtmoovrecover:", recording, stock);
    PrintLoss("videod-recover:", recording, out);
    // Never less than the stock element recovers.
    EXPECT_GE(Duration(out, "v:0") + 0.001, Duration(stock, "v:0"));
    EXPECT_GE(Duration(out, "a:0") + 0.001, Duration(stock, "a:0"));
    // The recovered file plays for as long as its samples last.
    EXPECT_NEAR(
        FfprobeNumber(out, "format=duration"), std::max(Duration(out, "v:0"), Duration(out, "a:0")), 0.1);
    EXPECT_LE(recording.recorded - Duration(out, "v:0"), kMostLost);
    EXPECT_LE(recording.recorded - Duration(out, "a:0"), kMostLost);

    // The header ends where the first entry (34 bytes) begins: the recovery file minus whole entries.
    const std::vector<std::uint8_t> recovery = Bytes(recording.recovery);
    std::size_t header = recovery.size();
    {
        // Entries follow the last track box; the track boxes are what qtmux wrote first.
        const std::string text(recovery.begin(), recovery.end());
        std::size_t trak = text.rfind("trak");
        ASSERT_NE(trak, std::string::npos);
        trak -= 4;
        const std::size_t size = (std::size_t(recovery[trak]) << 24) | (std::size_t(recovery[trak + 1]) << 16)
            | (std::size_t(recovery[trak + 2]) << 8) | recovery[trak + 3];
        header = trak + size;
    }
    ASSERT_GT((recovery.size() - header) / 34, 10u);
    const std::string cut = dir.File("cut.mrf");
    WriteBytes(cut, std::vector<std::uint8_t>(recovery.begin(), recovery.begin() + header + 10 * 34));

    const std::string rebuilt = dir.File("rebuilt.mp4");
    const Outcome rebuilding = Recover(recording.file, cut, rebuilt);
    ASSERT_EQ(rebuilding.status, 0) << rebuilding.err;
    std::printf("%s", rebuilding.out.c_str());
    ExpectCaptureStreams(rebuilt);
    EXPECT_EQ(PacketSizes(rebuilt, "v:0"), PacketSizes(out, "v:0"));
    EXPECT_EQ(PacketSizes(rebuilt, "a:0"), PacketSizes(out, "a:0"));
    EXPECT_EQ(FfprobeValues(rebuilt, "packet=flags", "v:0"), FfprobeValues(out, "packet=flags", "v:0"));
    EXPECT_NEAR(Duration(rebuilt, "a:0"), Duration(out, "a:0"), 0.001);
    // Video durations past the entries are the typical frame interval.
    EXPECT_NEAR(Duration(rebuilt, "v:0"), Duration(out, "v:0"), 0.2);

    // Damaged copies of the inputs.
    std::mt19937 random(7);
    const std::vector<std::uint8_t> media = Bytes(recording.file);
    for (int round = 0; round < 12; ++round) {
        std::vector<std::uint8_t> bad_recovery = recovery;
        std::vector<std::uint8_t> bad_media = media;
        for (int flips = 0; flips < 20; ++flips) {
            bad_recovery[random() % bad_recovery.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
            bad_media[random() % bad_media.size()] ^= static_cast<std::uint8_t>(1 + random() % 255);
        }
        const std::string bad_recovery_path = dir.File("bad.mrf");
        const std::string bad_media_path = dir.File("bad.mp4");
        WriteBytes(bad_recovery_path, bad_recovery);
        WriteBytes(bad_media_path, round % 2 ? bad_media : media);
        const Outcome damaged = Recover(bad_media_path, bad_recovery_path, dir.File("bad-out.mp4"));
        EXPECT_TRUE(damaged.status == 0 || damaged.status == 1) << "round " << round << ": " << damaged.err;
    }
}

// A capture the muxer finished needs no recovery: it is copied byte for byte, with or without a
// recovery file.
TEST(VideodRecover, CopiesAFinishedCaptureUnchanged)
{
    TempDir dir;
    const std::string finished = dir.File("finished.mp4");
    TestPipeline pipeline(
        "videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240 ! x264enc ! h264parse "
        "! mp4mux ! filesink location=\""
        + finished + "\"");
    ASSERT_TRUE(pipeline.Parsed()) << pipeline.Error();
    ASSERT_TRUE(pipeline.RunToEos());

    const std::string out = dir.File("copy.mp4");
    const Outcome outcome = Recover(finished, dir.File("absent.mrf"), out);
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("copied unchanged"), std::string::npos) << outcome.out;
    EXPECT_EQ(Bytes(out), Bytes(finished));
}

// Wrong usage exits with 2, inputs that cannot be recovered with 1; each says why on standard error and
// leaves no output file; the inputs are never written.
TEST(VideodRecover, RefusesMissingEmptyAndGarbageInputsWithAReasonAndAFailureStatus)
{
    TempDir dir;
    const std::string out = dir.File("out.mp4");
    const std::string missing = dir.File("missing.mp4");
    const std::string empty = dir.File("empty.mp4");
    WriteBytes(empty, {});
    std::mt19937 random(3);
    std::vector<std::uint8_t> noise(20000);
    for (std::uint8_t& byte : noise)
        byte = static_cast<std::uint8_t>(random());
    const std::string garbage = dir.File("garbage.bin");
    WriteBytes(garbage, noise);
    // What a killed muxer leaves before any sample: file type, free box, open-ended mdat; then noise.
    std::vector<std::uint8_t> unfinished = { 0, 0, 0, 16, 'f', 't', 'y', 'p', 'm', 'p', '4', '2', 0, 0, 0, 0,
        0, 0, 0, 8, 'f', 'r', 'e', 'e', 0, 0, 0, 0, 'm', 'd', 'a', 't' };
    unfinished.insert(unfinished.end(), noise.begin(), noise.end());
    const std::string capture = dir.File("capture.mp4");
    WriteBytes(capture, unfinished);
    // A recovery file of the right version whose header is cut off.
    const std::string cut = dir.File("cut.mrf");
    WriteBytes(cut, { 0, 1, 0, 0, 0, 16, 'f', 't', 'y', 'p', 'm', 'p', '4', '2', 0, 0, 0, 0 });

    struct Case {
        std::vector<std::string> arguments;
        int status;
        std::string reason;
    };
    const std::vector<Case> cases = {
        { { missing, garbage, out }, 1, "missing.mp4: No such file or directory" },
        { { empty, garbage, out }, 1, "empty.mp4: the file is empty" },
        { { garbage, garbage, out }, 1, "no media data box (mdat)" },
        { { dir.File(""), garbage, out }, 1, "not a regular file" },
        { { capture, missing, out }, 1, "cannot open the recovery file" },
        { { capture, empty, out }, 1, "the recovery file is empty" },
        { { capture, garbage, out }, 1, "not a moov recovery file" },
        { { capture, cut, out }, 1, "not a moov recovery file (no movie header)" },
        { { capture, garbage }, 2, "usage: videod-recover BROKEN.mp4 RECOVERY OUT.mp4" },
        { { capture, garbage, capture }, 2, "the output must not be one of the inputs" },
        { { capture, garbage, garbage }, 2, "the output must not be one of the inputs" },
    };
    for (const Case& test : cases) {
        std::vector<std::string> arguments { VIDEOD_RECOVER };
        arguments.insert(arguments.end(), test.arguments.begin(), test.arguments.end());
        const Outcome outcome = RunCommand(arguments);
        EXPECT_EQ(outcome.status, test.status) << test.reason;
        EXPECT_NE(outcome.err.find("videod-recover: "), std::string::npos) << outcome.err;
        EXPECT_NE(outcome.err.find(test.reason), std::string::npos) << outcome.err;
        EXPECT_FALSE(std::filesystem::exists(out)) << test.reason;
        EXPECT_FALSE(std::filesystem::exists(out + ".partial")) << test.reason;
    }
    EXPECT_EQ(Bytes(capture), unfinished);
    EXPECT_EQ(Bytes(garbage), noise);
}
