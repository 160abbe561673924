// Pipeline errors reaching the streamer: only the captures whose chain holds the failing pipeline break,
// and only when under way; playback and the live picture carry on.
#include <map>
#include <set>

#include "common/glib_ptr.h"
#include "streamer_harness.h"

using namespace StreamerHarness;

namespace
{

const char kSignature[] = "void VideoDaemon::OrbStreamer::PipelineError(int, std::__cxx11::string)";
const std::vector<std::string> kCaptures { "RecordingState", "AutoLogState", "SnapVoiceState" };

class OrbStreamerErrors : public ::testing::Test, public StreamerFixture
{
protected:
    void SetCaptures(int video, int autolog, int snapvoice)
    {
        streamer.State().Set("RecordingState", video);
        streamer.State().Set("AutoLogState", autolog);
        streamer.State().Set("SnapVoiceState", snapvoice);
        announced.clear();
        log.Clear();
    }

    std::vector<int> Captures()
    {
        std::vector<int> states;
        for (const std::string& name : kCaptures)
            states.push_back(State(name));
        return states;
    }

    // Posts an error on the bus of the pipeline at `index`, as a failing element does, and waits until
    // the streamer has handled it.
    void RaiseError(int index)
    {
        GstElement* top = GST_ELEMENT(At(index).GetPipeline());
        ASSERT_NE(nullptr, top) << index;
        GErrorPtr error(g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "stand-in failure"));
        gst_element_post_message(
            top, gst_message_new_error(GST_OBJECT(top), error.get(), "raised by the test"));
        const std::string line = "[Streamer] error in pipeline " + At(index).GetName();
        ASSERT_TRUE(RunMainLoopUntil([&] { return log.Contains(LOG_ERR, line); })) << line;
    }

    std::vector<std::string> CaptureLines() { return LinesStartingWith(log, LOG_ERR, kSignature); }
};

TEST_F(
    OrbStreamerErrors, AnErrorBreaksOnlyTheActiveOrPausedCapturesOfItsPipelinesChainAndTheLivePictureGoesOn)
{
    ASSERT_TRUE(StartLivePicture());
    const std::string line = std::string(kSignature) + ": pipeline error(s) while recording ";
    // The microphone and the AAC encoder feed every capture; playback is untouched.
    for (int index : { kMicInputIndex, kAacEncodeIndex }) {
        SetCaptures(1, 0, 2);
        streamer.State().Set("PlaybackState", 1);
        announced.clear();
        RaiseError(index);
        EXPECT_EQ((std::vector<int> { -1, 0, -1 }), Captures()) << index;
        EXPECT_EQ(1, State("PlaybackState"));
        EXPECT_EQ((std::vector<std::string> { line + "video", line + "snapVoice" }), CaptureLines());
        EXPECT_EQ((std::vector<Announcement> { { { "RecordingState", "InactiveCaptures" }, true },
                      { { "SnapVoiceState", "InactiveCaptures" }, true } }),
            announced);
        EXPECT_TRUE(AllPlaying({ kGpuIndex, kOverlayDisplayIndex, kDisplayIndex })) << index;
    }

    // The autolog encoder breaks autolog alone; the "video" encoder recording and SnapVoice.
    SetCaptures(1, 1, 1);
    RaiseError(kH264AutologIndex);
    EXPECT_EQ((std::vector<int> { 1, -1, 1 }), Captures());
    EXPECT_EQ((std::vector<Announcement> { { { "AutoLogState", "InactiveCaptures" }, true } }), announced);
    EXPECT_EQ((std::vector<std::string> { line + "autolog" }), CaptureLines());
    SetCaptures(1, 1, 2);
    RaiseError(kH264VideoIndex);
    EXPECT_EQ((std::vector<int> { -1, 1, -1 }), Captures());
    EXPECT_EQ(2u, announced.size());

    // An inactive or already failed capture is neither logged nor announced.
    SetCaptures(0, -1, 0);
    RaiseError(kAacEncodeIndex);
    EXPECT_EQ((std::vector<int> { 0, -1, 0 }), Captures());
    EXPECT_TRUE(CaptureLines().empty());
    EXPECT_TRUE(announced.empty());

    // Every index against the chains: recording breaks with the camera inputs, its encoder and muxer, the
    // microphone and AAC; autolog with its own encoder and muxer instead; SnapVoice with the "video"
    // encoder and its muxer.
    const std::map<std::string, std::set<int>> chains {
        { "RecordingState",
            { kNtscCameraIndex, kPalCameraIndex, kH264VideoIndex, kMp4muxVideoIndex, kMicInputIndex,
                kAacEncodeIndex } },
        { "AutoLogState",
            { kNtscCameraIndex, kPalCameraIndex, kH264AutologIndex, kMp4muxAutologIndex, kMicInputIndex,
                kAacEncodeIndex } },
        { "SnapVoiceState",
            { kNtscCameraIndex, kPalCameraIndex, kH264VideoIndex, kSnapvoiceIndex, kMicInputIndex,
                kAacEncodeIndex } },
    };
    for (int index = 0; index < static_cast<int>(PipelineGraph::kPipelineCount); ++index) {
        SetCaptures(1, 2, 1);
        const std::vector<int> before = Captures();
        streamer.PipelineError(index, "stand-in failure");
        EXPECT_TRUE(log.Contains(LOG_ERR, "[Streamer] error in pipeline " + At(index).GetName())) << index;
        for (size_t at = 0; at < kCaptures.size(); ++at) {
            const bool broken = chains.at(kCaptures[at]).count(index) == 1;
            EXPECT_EQ(broken ? -1 : before[at], State(kCaptures[at]))
                << kCaptures[at] << " after an error in " << index;
        }
    }
}

} // namespace
