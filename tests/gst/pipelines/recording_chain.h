// The recording graph linked and started as the daemon does it: an input, the GPU, both overlays, the
// display, H.264 "video" and the snapshot; the microphone, the AAC encoder and an MP4 muxer.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pipelines/aac_encode_pipeline.h"
#include "pipelines/display_pipeline.h"
#include "pipelines/gpu_pipeline.h"
#include "pipelines/h264_encode_pipeline.h"
#include "pipelines/mic_input_pipeline.h"
#include "pipelines/mp4mux_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/overlay_pipeline.h"
#include "pipelines/snapshot_pipeline.h"
#include "pipelines/test_input_pipeline.h"
#include "support/main_loop_wait.h"

namespace PipelineHarness
{

// The inputs a recording is tested on: the free-running test picture and the simulated NTSC camera.
enum class RecordingInput { kTestInput, kNtscCamera };

struct RecordingChain {
    static constexpr unsigned kInputWaitMs = 4000;
    static constexpr unsigned kWaitMs = 2000;

    std::unique_ptr<VideoDaemon::Pipeline> input;
    VideoDaemon::GpuPipeline gpu;
    VideoDaemon::OverlayPipeline overlay_display { "display" };
    VideoDaemon::OverlayPipeline overlay_recording { "recording" };
    VideoDaemon::DisplayPipeline display;
    VideoDaemon::H264EncodePipeline h264 { "video" };
    std::unique_ptr<VideoDaemon::Mp4muxPipeline> mux;
    VideoDaemon::SnapshotPipeline snapshot;
    VideoDaemon::MicInputPipeline mic;
    VideoDaemon::AacEncodePipeline aac;
    // The error reports of every pipeline, as the streamer receives them.
    std::vector<std::string> errors;

    explicit RecordingChain(std::unique_ptr<VideoDaemon::Mp4muxPipeline> muxer = nullptr,
        RecordingInput which = RecordingInput::kTestInput)
        : mux(muxer ? std::move(muxer) : std::make_unique<VideoDaemon::Mp4muxPipeline>("video"))
    {
        if (which == RecordingInput::kNtscCamera)
            input = std::make_unique<VideoDaemon::NtscCameraInputPipeline>();
        else
            input = std::make_unique<VideoDaemon::TestInputPipeline>();
    }

    ~RecordingChain() { Stop(); }
    RecordingChain(const RecordingChain&) = delete;
    RecordingChain& operator=(const RecordingChain&) = delete;

    // In the streamer's index order.
    std::vector<VideoDaemon::Pipeline*> All()
    {
        return { input.get(), &gpu, &overlay_display, &overlay_recording, &display, &h264, mux.get(),
            &snapshot, &mic, &aac };
    }

    // Why the last step failed, for the test's message.
    std::string failure;

    // Start-up: everything but the input launched and linked, the input
    // launched and playing and the GPU pointed at it, then the video
    // pipelines and the microphone playing. The AAC encoder and the muxer stay idle.
    bool Start()
    {
        for (VideoDaemon::Pipeline* pipeline : All()) {
            pipeline->signal_error.connect([this](std::string text) { errors.push_back(text); });
            if (pipeline != input.get() && !pipeline->Launch(true, true, true))
                return Fail(pipeline->GetName() + " did not launch");
        }
        if (!overlay_display.ListenTo(&gpu, "", "") || !overlay_recording.ListenTo(&gpu, "", "")
            || !display.ListenTo(&overlay_display, "", "") || !h264.ListenTo(&overlay_recording, "", "")
            || !snapshot.ListenTo(&overlay_recording, "", "") || !aac.ListenTo(&mic, "", "")
            || !mux->ListenTo(&h264, "", "") || !mux->ListenTo(&aac, "", mux->GetAudioSourceName()))
            return Fail("linking failed");

        if (!input->Launch(true, true, true) || input->SetState(GST_STATE_PLAYING, kInputWaitMs) != 0)
            return Fail(input->GetName() + " did not start");
        if (!gpu.ListenTo(input.get(), "", ""))
            return Fail("the GPU did not take the input");

        for (VideoDaemon::Pipeline* pipeline : std::vector<VideoDaemon::Pipeline*> {
                 &gpu, &overlay_display, &mic, &overlay_recording, &display, &h264, &snapshot })
            pipeline->SetState(GST_STATE_PLAYING);
        // The snapshot's closed valve keeps its file sink from prerolling: it stays on its way to PLAYING.
        for (VideoDaemon::Pipeline* pipeline : std::vector<VideoDaemon::Pipeline*> {
                 &gpu, &overlay_display, &mic, &overlay_recording, &display, &h264 })
            if (!TestSupport::RunMainLoopUntil(
                    [&] { return pipeline->GetState() == GST_STATE_PLAYING; }, kWaitMs))
                return Fail(pipeline->GetName() + " did not reach PLAYING");
        return true;
    }

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

    // Finishes the file with EOS, waits for the muxer's EOS on the main loop and leaves the muxer idle.
    bool CloseWithEos()
    {
        int eos = 0;
        sigc::connection connection = mux->signal_eos.connect([&] { ++eos; });
        const bool closed
            = mux->CloseRecord(true) == 0 && TestSupport::RunMainLoopUntil([&] { return eos > 0; }, 5000);
        connection.disconnect();
        FinishRecording();
        return closed || Fail("the muxer did not finish the file");
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
