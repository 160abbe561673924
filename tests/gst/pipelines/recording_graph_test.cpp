// The recording graph started in the daemon's order records a file that an independent reader accepts, on
// the simulated NTSC camera and on the free-running test input.
#include <chrono>
#include <string>

#include "log_capture.h"
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

// Everything but the AAC encoder and the muxer runs from start-up; two seconds later a recording starts,
// is paused for two seconds through the mux pause, resumes, has its quantiser changed and is finished
// with EOS. The file holds H.264 main 640x480 and AAC 48 kHz stereo, both from zero and from an IDR frame
// (although the encoder has run for a while), as long as each other and as the time recorded, with no
// trace of the pause, and every frame decodes.
TEST_P(RecordingGraph, RecordsAFileThatStartsAtZeroAndLastsAsLongAsTheRecordingLessItsPause)
{
    TempDir dir;
    const std::string file = dir.File("recording.mp4");
    RecordingChain chain(nullptr, GetParam());
    ASSERT_TRUE(chain.Start()) << chain.failure;
    RunMainLoopFor(2000);

    LogCapture log;
    ASSERT_TRUE(chain.StartRecording(file)) << chain.failure;
    EXPECT_TRUE(log.Contains(LOG_INFO, "OpenRecord '" + file + "'"));
    double recorded = Record(1500);
    ASSERT_TRUE(chain.Pause());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Mp4muxPipeline::SetMuxPause (pause)"));
    RunMainLoopFor(2000);
    ASSERT_TRUE(chain.Resume());
    EXPECT_TRUE(log.Contains(LOG_ERR, "Mp4muxPipeline::SetMuxPause (resume)"));
    recorded += Record(1000);
    chain.h264.SetQuantParam(36);
    recorded += Record(1000);

    const auto closing = std::chrono::steady_clock::now();
    ASSERT_TRUE(chain.CloseWithEos()) << chain.failure;
    recorded += Seconds(closing);
    EXPECT_EQ(chain.mux->GetPreviousLocation(), file);
    EXPECT_EQ(chain.mux->GetBytesWritten(), 0u);
    RunMainLoopFor(100);
    EXPECT_TRUE(chain.errors.empty()) << chain.errors.front();
    chain.Stop();

    EXPECT_EQ(FfprobeValues(file, "stream=codec_type"), (std::vector<std::string> { "video", "audio" }));
    ExpectCaptureStreamFormats(file);
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), recorded, recorded * 0.1);
    for (const char* stream : { "v:0", "a:0" }) {
        EXPECT_NEAR(FfprobeNumber(file, "stream=start_time", stream), 0.0, 0.1) << stream;
        EXPECT_NEAR(FfprobeNumber(file, "stream=duration", stream), recorded, recorded * 0.1) << stream;
    }
    EXPECT_NEAR(
        FfprobeNumber(file, "stream=duration", "v:0"), FfprobeNumber(file, "stream=duration", "a:0"), 0.2);

    std::vector<Packet> video = FfprobePackets(file, "v:0");
    std::vector<Packet> audio = FfprobePackets(file, "a:0");
    ASSERT_GT(video.size(), 60u);
    ASSERT_GT(audio.size(), 60u);
    EXPECT_EQ(video.front().flags.substr(0, 1), "K");
    std::vector<std::string> picture_types = FfprobeValues(file, "frame=pict_type", "v:0");
    ASSERT_FALSE(picture_types.empty());
    EXPECT_EQ(picture_types.front(), "I");
    // 1024-sample AAC frames at 48 kHz: a few frames at most between samples, never the two seconds of the
    // pause. The picture resumes on the next IDR frame (one every 16 frames), so it may skip up to half a
    // second.
    EXPECT_LT(LargestGap(audio), 0.3);
    EXPECT_LT(LargestGap(video), 0.7);
    // Every frame decodes. (The test input runs free, so its frames come far closer than its caps' rate,
    // which a remuxing decoder run would report.)
    std::string frames, complaints;
    EXPECT_TRUE(RunProgram({ "ffprobe", "-v", "error", "-show_frames", file }, &frames, &complaints));
    EXPECT_EQ(complaints, "");
}

INSTANTIATE_TEST_SUITE_P(Inputs, RecordingGraph,
    ::testing::Values(RecordingInput::kNtscCamera, RecordingInput::kTestInput),
    [](const ::testing::TestParamInfo<RecordingInput>& input) {
        return std::string(input.param == RecordingInput::kNtscCamera ? "NtscCamera" : "TestInput");
    });
