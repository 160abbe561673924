// The recording chain linked as the streamer links it: test input, BGRA stage, H.264 "video",
// microphone, AAC and the "video" MP4 muxer.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "described_pipeline.h"
#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/test_input_pipeline.h"

namespace PipelineHarness
{

// Stands in for the picture processing between the input and the encoders.
// The test input is not live and runs ahead of the clock; like the input mux,
// this stage stamps each frame with its own running time as it takes it and
// keeps 29.97 frames a second in BGRA, as the processing of a camera picture does.
class BgraStage : public DescribedPipeline
{
public:
    BgraStage()
        : DescribedPipeline(
            "interpipesrc name=chain_bgra_src is-live=true do-timestamp=true max-buffers=1 leaky-type=2 "
            "! videorate drop-only=true ! video/x-raw,framerate=30000/1001 "
            "! videoconvert ! video/x-raw,format=BGRA "
            "! interpipesink name=chain_bgra_sink max-buffers=1 sync=false forward-events=true",
            "chain_bgra_sink", "chain_bgra_src")
    {
    }
};

struct RecordingChain {
    static constexpr unsigned kWaitMs = 2000;

    VideoDaemon::TestInputPipeline input;
    BgraStage bgra;
    VideoDaemon::H264EncodePipeline h264 { "video" };
    VideoDaemon::MicInputPipeline mic;
    VideoDaemon::AacEncodePipeline aac;
    std::unique_ptr<VideoDaemon::Mp4muxPipeline> mux;

    explicit RecordingChain(std::unique_ptr<VideoDaemon::Mp4muxPipeline> muxer = nullptr)
        : mux(muxer ? std::move(muxer) : std::make_unique<VideoDaemon::Mp4muxPipeline>("video"))
    {
    }

    ~RecordingChain() { Stop(); }
    RecordingChain(const RecordingChain&) = delete;
    RecordingChain& operator=(const RecordingChain&) = delete;

    std::vector<VideoDaemon::Pipeline*> All() { return { &input, &bgra, &h264, &mic, &aac, mux.get() }; }

    // Launches and links everything; the sources, the encoders and the
    // microphone play, the H.264 valve stays closed and the muxer stays idle.
    // The AAC encoder starts with the microphone: its sink syncs on the
    // microphone's timestamps, which match its clock only when both start together.
    bool Start()
    {
        for (VideoDaemon::Pipeline* pipeline : All())
            if (!pipeline->Launch(true, true, true))
                return Fail(pipeline->GetName() + " did not launch");
        UnsyncTestInput();
        if (!bgra.ListenTo(&input, "", "") || !h264.ListenTo(&bgra, "", "") || !aac.ListenTo(&mic, "", "")
            || !mux->ListenTo(&h264, "", "") || !mux->ListenTo(&aac, "", mux->GetAudioSourceName()))
            return Fail("linking failed");
        // Consumers first: the live stage reaches PLAYING only once a frame has come.
        if (h264.SetState(GST_STATE_PLAYING, kWaitMs) != 0 || bgra.SetState(GST_STATE_PLAYING, 0) != 0
            || input.SetState(GST_STATE_PLAYING, kWaitMs) != 0
            || bgra.SetState(GST_STATE_PLAYING, kWaitMs) != 0)
            return Fail("video did not reach PLAYING");
        if (mic.SetState(GST_STATE_PLAYING, kWaitMs) != 0 || aac.SetState(GST_STATE_PLAYING, kWaitMs) != 0)
            return Fail("audio did not reach PLAYING");
        return true;
    }

    // A frame the test source makes while its pipeline starts can carry the
    // absolute clock time as its DTS, on which a syncing sink would wait for
    // hours; the input paces nothing, so its sink need not sync.
    void UnsyncTestInput()
    {
        VideoDaemon::GstPtr<GstElement> sink(
            gst_bin_get_by_name(GST_BIN(input.GetPipeline()), input.GetSinkName().c_str()));
        if (sink)
            g_object_set(sink.get(), "sync", FALSE, nullptr);
    }

    // Why the last step failed, for the test's message.
    std::string failure;

    // Starts a file as a video recording does.
    bool StartRecording(const std::string& path, const std::string& recovery_path = "")
    {
        if (!recovery_path.empty())
            mux->SetMoovRecoveryFile(recovery_path);
        mux->OpenRecord(path);
        h264.SetValve(false);
        if (aac.SetState(GST_STATE_PLAYING, kWaitMs) != 0)
            return Fail("AAC encoder did not reach PLAYING");
        if (mux->SetState(GST_STATE_PLAYING, kWaitMs) != 0)
            return Fail("muxer did not reach PLAYING");
        mux->SetDropIDR(false);
        return true;
    }

    // Detaches the muxer from both encoders and holds its timeline.
    bool Pause()
    {
        for (const std::string& source : { mux->GetSourceName(), mux->GetAudioSourceName() }) {
            VideoDaemon::GstPtr<GstElement> element(
                gst_bin_get_by_name(GST_BIN(mux->GetPipeline()), source.c_str()));
            if (!element)
                return false;
            g_object_set(element.get(), "listen-to", "null", nullptr);
        }
        mux->SetMuxPause(true);
        mux->SetDropIDR(true);
        return mux->SetState(GST_STATE_PAUSED, 0) == 0;
    }

    bool Resume()
    {
        if (!mux->ListenTo(&h264, "", "") || !mux->ListenTo(&aac, "", mux->GetAudioSourceName()))
            return false;
        mux->SetMuxPause(false);
        mux->SetDropIDR(false);
        return mux->SetState(GST_STATE_PLAYING) == 0;
    }

    // After the muxer's EOS: idle again, as the streamer leaves it.
    void FinishRecording()
    {
        mux->ResetMuxPause();
        mux->SetDropIDR(true);
        mux->SetState(GST_STATE_NULL);
        h264.SetValve(true);
        aac.SetState(GST_STATE_NULL);
    }

    bool Fail(const std::string& why)
    {
        failure = why;
        return false;
    }

    void Stop()
    {
        for (VideoDaemon::Pipeline* pipeline : All())
            pipeline->SetState(GST_STATE_NULL);
    }
};

} // namespace PipelineHarness
