// The recording graph started in the daemon's order records a file that an independent reader accepts, on
// the simulated NTSC camera and on the free-running test input.
#include <chrono>
#include <string>

#include "pipeline_harness.h"
#include "recording_chain.h"
#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace PipelineHarness;
using namespace GstTest;

namespace
{

double Seconds(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Records for `ms` milliseconds while the pipelines' bus messages are handled.
double Record(int ms)
{
    const auto start = std::chrono::steady_clock::now();
    RunMainLoopFor(ms);
    return Seconds(start);
}

class RecordingGraph : public ::testing::TestWithParam<RecordingInput>
{
};

} // namespace

// Everything but the AAC encoder and the muxer runs from start-up; two
// seconds later a recording starts, is paused for two seconds through the
// mux pause, resumes, has its quantiser changed and is finished with EOS.
// The file holds H.264 main 640x480 and AAC 48 kHz stereo, both from zero,
// as long as each other and as the time recorded, and every frame decodes.
TEST_P(RecordingGraph, RecordsAFileThatStartsAtZeroAndLastsAsLongAsTheRecordingLessItsPause)
{
    TempDir dir;
    const std::string file = dir.File("recording.mp4");
    RecordingChain chain(nullptr, GetParam());
    ASSERT_TRUE(chain.Start()) << chain.failure;
    RunMainLoopFor(2000);

    ASSERT_TRUE(chain.StartRecording(file)) << chain.failure;
    double recorded = Record(1500);
    ASSERT_TRUE(chain.Pause());
    RunMainLoopFor(2000);
    ASSERT_TRUE(chain.Resume());
    recorded += Record(1000);
    chain.h264.SetQuantParam(36);
    recorded += Record(1000);

    int eos = 0;
    sigc::connection connection = chain.mux->signal_eos.connect([&] { ++eos; });
    const auto closing = std::chrono::steady_clock::now();
    ASSERT_EQ(chain.mux->CloseRecord(true), 0);
    ASSERT_TRUE(RunMainLoopUntil([&] { return eos > 0; }, 5000));
    recorded += Seconds(closing);
    connection.disconnect();
    chain.FinishRecording();
    RunMainLoopFor(100);
    EXPECT_TRUE(chain.errors.empty()) << chain.errors.front();
    chain.Stop();

    ExpectCaptureStreamFormats(file);
    auto video = FfprobeEntries(file, "stream=start_time,duration", "v:0");
    auto audio = FfprobeEntries(file, "stream=start_time,duration", "a:0");

    const double videoStart = g_ascii_strtod(video["start_time"].c_str(), nullptr);
    const double audioStart = g_ascii_strtod(audio["start_time"].c_str(), nullptr);
    const double videoLength = g_ascii_strtod(video["duration"].c_str(), nullptr);
    const double audioLength = g_ascii_strtod(audio["duration"].c_str(), nullptr);
    EXPECT_NEAR(videoStart, 0.0, 0.1);
    EXPECT_NEAR(audioStart, 0.0, 0.1);
    EXPECT_NEAR(videoLength, audioLength, 0.2);
    EXPECT_NEAR(videoLength, recorded, recorded * 0.1);
    EXPECT_NEAR(audioLength, recorded, recorded * 0.1);
    // Every frame decodes. (The test input runs free, so its frames come far
    // closer than its caps' rate, which a remuxing decoder run would report.)
    std::string frames, complaints;
    EXPECT_TRUE(RunProgram({ "ffprobe", "-v", "error", "-show_frames", file }, &frames, &complaints));
    EXPECT_EQ(complaints, "");
}

INSTANTIATE_TEST_SUITE_P(Inputs, RecordingGraph,
    ::testing::Values(RecordingInput::kNtscCamera, RecordingInput::kTestInput),
    [](const ::testing::TestParamInfo<RecordingInput>& input) {
        return std::string(input.param == RecordingInput::kNtscCamera ? "NtscCamera" : "TestInput");
    });
