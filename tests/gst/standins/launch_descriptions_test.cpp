// Every launch description of the daemon parses against the stand-in
// elements and, linked through interpipe the way the daemon links them,
// runs and passes buffers end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

using namespace GstTest;

namespace
{

// The descriptions exactly as the daemon writes them; "%" marks an instance
// name or number.
const char* const kInputMux
    = R"desc(interpipesrc name=input_mux_source is-live=false max-buffers=1 stream-sync=0 do-timestamp=true leaky-type=2 allow-renegotiation=true ! interpipesink name=input_mux_sink max-buffers=1 sync=false forward-events=true)desc";
const char* const kTestInput
    = R"desc(videotestsrc name=test_input_src pattern=2 do-timestamp=true ! video/x-raw, format=UYVY,width=640,height=480,framerate=30000/1001 ! imxipuvideotransform ! video/x-raw, format=RGBA,width=640,height=480 ! interpipesink max-buffers=1 name=test_input_sink caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true)desc";
const char* const kNtscCamera
    = R"desc(imxv4l2videosrc name=camera_input_source fps=30000/1001 crop-meta-x=24 crop-meta-width=672 crop-meta-y=24 crop-meta-height=504 do-timestamp=true ! video/x-raw, format=UYVY,width=720,height=504,framerate=30000/1001, interlace-mode=interleaved,device-mode=interleaved ! vbiread name=vbi_read line-dup-enabled=false line-dup-top-start=3 line-dup-top-stop=33 line-dup-bot-start=433 line-dup-bot-stop=480 first-top-data-line=0 num-top-data-lines=30 first-bot-data-line=433 num-bot-data-lines=37 set-tff-flag=true ! queue name=vbi_queue leaky=downstream max-size-buffers=1 ! imxipuvideotransform name=camera_input_transform deinterlace=true input-crop=true ! video/x-raw, format=RGBA,width=640,height=480 ! progressive-caps-filter ! capssetter caps=video/x-raw,pixel-aspect-ratio=1/1,framerate=30000/1001 ! interpipesink max-buffers=1 name=camera_input_video caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true)desc";
const char* const kPalCamera
    = R"desc(imxv4l2videosrc name=pal_camera_input_source fps=25/1 crop-meta-x=28 crop-meta-width=692 crop-meta-y=28 crop-meta-height=576 do-timestamp=true ! video/x-raw, format=UYVY,width=720,height=576,framerate=25/1, interlace-mode=interleaved,device-mode=interleaved ! queue name=pal_queue leaky=downstream max-size-buffers=1 ! imxipuvideotransform name=pal_camera_input_transform deinterlace=true input-crop=true ! video/x-raw, format=RGBA,width=640,height=480 ! progressive-caps-filter ! capssetter caps=video/x-raw,width=640,height=480,framerate=30000/1001,multiview-mode=mono,interlace-mode=progressive,pixel-aspect-ratio=1/1,format=RGBA ! interpipesink max-buffers=1 name=pal_camera_sink caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true)desc";
const char* const kDisplay
    = R"desc(interpipesrc name=display_source is-live=true max-buffers=1 leaky-type=2 ! video/x-raw, format=BGRA,width=640,height=480 ! queue name=display_queue max-size-buffers=2 leaky=downstream ! imxipuvideotransform name=video_transform_display ! imxipuvideosink name=display_sink qos=false use-vsync=true sync=false force-aspect-ratio=false)desc";
const char* const kMicrophone
    = R"desc(alsasrc name=mic_input_source provide-clock=false do-timestamp=false ! audio/x-raw, rate=44100,channels=2,format=S16LE,layout=interleaved ! volume volume=1 name=mic_volume0 ! interpipesink max-buffers=2 name=mic_input caps=audio/x-raw,rate=44100,channels=2,format=S16LE,layout=interleaved forward-events=true)desc";
const char* const kSpeaker
    = R"desc(interpipesrc name=audio_speaker_source is-live=true ! alsasink name=audio_speaker_sink sync=false enable-last-sample=false)desc";
const char* const kH264Template
    = R"desc(interpipesrc name=%_h264_source allow-renegotiation=false format=time max-buffers=1 leaky-type=2 ! video/x-raw, format=BGRA,width=640,height=480,framerate=30000/1001 ! valve name=%_h264_valve drop=true ! imxipuvideotransform name=%_video_transform_h264 ! video/x-raw, format=I420 ! queue name=%_h264_queue leaky=downstream max-size-buffers=2 ! imxvpuenc_h264 name=%_encoder bitrate=0 gop-size=16 quant-param=24 idr-interval=16 ! h264parse ! video/x-h264, stream-format=avc,alignment=au,profile=main ! interpipesink sync=false async=false max-buffers=5 name=%_h264_sink caps=video/x-h264,stream-format=avc,alignment=au forward-events=false forward-eos=true forward-preroll=false)desc";
const char* const kAacTemplate
    = R"desc(interpipesrc name=aac_encode_source% ! queue name=acc_queue max-size-buffers=10 leaky=downstream ! audioconvert ! capsfilter name=audio_convert_filter caps=audio/x-raw,format=F32LE,channels=2 ! audioresample ! capsfilter name=audio_resample_filter caps=audio/x-raw,format=F32LE,channels=2,rate=48000 ! queue max-size-buffers=10 leaky=downstream ! avenc_aac ! capsfilter name=aac_filter caps=audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 ! interpipesink max-buffers=2 name=aac_encode_sink% caps=audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 forward-events=false)desc";
const char* const kMp4muxTemplate
    = R"desc(interpipesrc name=%_mp4mux_video0 stream-sync=1 format=time allow-renegotiation=false ! video/x-h264 ! idrvalve name=%_idr_valve drop=true ! multiqueue name=%_mp4mux_mque max-size-buffers=30 max-size-time=0 %_mp4mux_mque. ! muxpause name=%_mp4mux_vid_pause ! mp4mux name=%_mux ! queue name=%_mp4mux_queue max-size-buffers=10 ! identity name=%_mp4mux_tracker silent=true ! filesink name=%_mp4mux_filesink async=false sync=false location=/dev/null interpipesrc name=%_mp4mux_audio0 stream-sync=1 format=time allow-renegotiation=false ! audio/mpeg ! %_mp4mux_mque. %_mp4mux_mque. ! muxpause name=%_mp4mux_aud_pause ! %_mux. )desc";
const char* const kSnapvoiceTemplate
    = R"desc(interpipesrc name=%_mp4mux_video0 stream-sync=1 format=time allow-renegotiation=false ! video/x-h264 ! idrvalve name=%_idr_valve drop=true ! snapvoice name=snapvoice_filter reset=true ! multiqueue name=%_mp4mux_mque max-size-buffers=30 max-size-time=0 %_mp4mux_mque. ! muxpause name=%_mp4mux_vid_pause ! mp4mux name=%_mux ! queue name=snapvoice_mp4mux_queue max-size-buffers=10 ! identity name=%_mp4mux_tracker silent=true ! filesink name=%_mp4mux_filesink async=false sync=false location=/dev/null interpipesrc name=%_mp4mux_audio0 stream-sync=1 format=time allow-renegotiation=false ! audio/mpeg ! %_mp4mux_mque. %_mp4mux_mque. ! muxpause name=%_mp4mux_aud_pause ! %_mux. )desc";
const char* const kMjpegEncoder
    = R"desc(interpipesrc name=mjpeg_encode_source listen-to=test is-live=true do-timestamp=true format=time max-buffers=1 leaky-type=2 ! queue name=mjpeg_queue leaky=downstream max-size-buffers=2 ! imxipuvideotransform name=video_transform_mjpeg ! video/x-raw, format=I420 ! imxvpuenc_mjpeg name=mjpeg_enc ! tarnwellexif ! capsfilter caps="image/jpeg" ! interpipesink max-buffers=2 name=mjpeg_encode_sink forward-events=true)desc";
const char* const kJpegEncoder
    = R"desc(interpipesrc name=jpeg_encode_source listen-to=test is-live=true max-buffers=1 leaky-type=2 ! queue name=jpeg_queue max-size-buffers=1 ! videoscale ! capsfilter name=jpeg_image_caps caps=video/x-raw,width=320,height=240 ! videoconvert ! jpegenc ! jifmux ! interpipesink max-buffers=2 name=jpeg_encode_sink caps=image/jpeg forward-events=true)desc";
const char* const kTcpServer
    = R"desc(interpipesrc name=tcp_server_source listen-to=mjpeg_encode is-live=true format=time max-buffers=1 leaky-type=2 ! queue name=tcp_server_queue leaky=downstream ! tarnwell-static-jpeg name=static_jpeg location=/etc/rig/tarnwellLogo.jpg silent=true ! multipartmux boundary=frame ! tcpserversink name=tcp_server_sink sync=false async=false)desc";
const char* const kTcpClient
    = R"desc(tcpclientsrc name=tcpclient_source_video typefind=false do-timestamp=true timeout=5 ! multipartdemux boundary=frame ! image/jpeg, width=640,height=480,framerate=30000/1001 ! identity name=tcp_tracker ! tarnwellexifdemux name=exifdemux_src ! queue name=tcpclient_queue leaky=downstream max-size-buffers=5 ! imxvpudec ! video/x-raw, format=I420,width=640,height=480 ! imxipuvideotransform name=video_transform_tcp ! video/x-raw, format=RGBA,width=640,height=480 ! interpipesink max-buffers=2 caps=video/x-raw,format=RGBA,width=640,height=480 name=tcpclient_video sync=false forward-events=true)desc";
const char* const kSnapshot
    = R"desc(interpipesrc name=snapshot_source is-live=true allow-renegotiation=false max-buffers=0 leaky-type=2 ! video/x-raw, format=BGRA,width=640,height=480 ! tarnwell-valve name=snapshot_valve num-buffers-pass=0 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! imxvpuenc_mjpeg name=jpeg_encoder quality-factor=85 ! multifilesink name=snapshotSink post-messages=true location=/tmp/dummy.jpeg)desc";
const char* const kPlayback
    = R"desc(playbin name=pipeline0_playbin uri=file:///dev/null filesrc name=jpeg_playback_source location=/dev/null ! jpegdec ! imxipuvideosink name=jpeg_playback_sink output-rotation=5)desc";
const char* const kGpu
    = R"desc(interpipesrc name=gpu_source format=time stream-sync=0 allow-renegotiation=false max-buffers=1 leaky-type=2 ! queue name=gpu_input_queue max-size-buffers=6 leaky=downstream ! tarnwell-motion-filter name=motion_filter roll-filter-coeffs="1 1" ! tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15 ! tarnwell-tiling name=gpu background-mode=2 silent=false gpu.src ! queue name=gpu_output_queue leaky=downstream max-size-buffers=4 ! interpipesink name=gpu_sink max-buffers=1 sync=false forward-events=true)desc";
const char* const kOverlayTemplate
    = R"desc(interpipesrc name=svg_overlay_source_% format=time max-buffers=1 leaky-type=2 ! imxipuvideotransform name=video_transform_overlay ! video/x-raw, format=BGRA ! rsvgoverlaytarnwell name=svg_overlay fit-to-frame=true enabled=true svg_overlay.src_first ! queue name=%_overlay_queue max-size-buffers=1 max-size-time=50000000 leaky=downstream ! interpipesink max-buffers=1 sync=false async=false name=svg_overlay_sink_first_%)desc";

std::string Instance(const char* description, const std::string& name)
{
    return std::regex_replace(description, std::regex("%"), name);
}

class LaunchDescriptions : public ::testing::Test
{
protected:
    // Counts the buffers entering a child's sink pad; `most` caps what a wait asks of this pad.
    void Count(const TestPipeline& pipeline, const char* child, unsigned most = UINT_MAX)
    {
        ObjectPtr<GstElement> element = pipeline.Element(child);
        ASSERT_TRUE(element) << "no element " << child;
        _Counters.push_back({ &pipeline, child, std::make_unique<BufferCount>(element.get(), "sink"), most });
    }

    unsigned Counted(const char* child) const
    {
        for (const Counter& counter : _Counters)
            if (counter.child == child)
                return counter.count->Value();
        return 0;
    }

    // Runs until every counter of the pipelines has seen `minimum` buffers, a bus error appears, or the
    // time runs out.
    void RunUntilCounted(const std::vector<const TestPipeline*>& graph, unsigned minimum, int seconds)
    {
        std::string report;
        const gint64 deadline = g_get_monotonic_time() + seconds * G_TIME_SPAN_SECOND;
        while (g_get_monotonic_time() < deadline) {
            bool done = true;
            report.clear();
            for (const Counter& counter : _Counters) {
                if (std::find(graph.begin(), graph.end(), counter.pipeline) == graph.end())
                    continue;
                report += counter.child + "=" + std::to_string(counter.count->Value()) + " ";
                done = done && counter.count->Value() >= std::min(minimum, counter.most);
            }
            for (const TestPipeline* pipeline : graph) {
                MessagePtr error = pipeline->WaitFor(GST_MESSAGE_ERROR, 0);
                ASSERT_FALSE(error) << ErrorText(error.get()) << "; counted: " << report;
            }
            if (done)
                return;
            g_usleep(50000);
        }
        FAIL() << "not every stage passed " << minimum << " buffers: " << report;
    }

    struct Counter {
        const TestPipeline* pipeline;
        std::string child;
        std::unique_ptr<BufferCount> count;
        unsigned most;
    };
    std::vector<Counter> _Counters;
    TempDir _Dir;
};

TEST_F(LaunchDescriptions, EveryDescriptionParsesWithoutError)
{
    const std::vector<std::pair<std::string, std::string>> descriptions = {
        { "input mux", kInputMux },
        { "test input", kTestInput },
        { "NTSC camera", kNtscCamera },
        { "PAL camera", kPalCamera },
        { "display", kDisplay },
        { "microphone", kMicrophone },
        { "speaker", kSpeaker },
        { "H.264 video", Instance(kH264Template, "video") },
        { "H.264 autolog", Instance(kH264Template, "autolog") },
        { "AAC", Instance(kAacTemplate, "0") },
        { "MP4 mux video", Instance(kMp4muxTemplate, "video") },
        { "MP4 mux autolog", Instance(kMp4muxTemplate, "autolog") },
        { "SnapVoice mux", Instance(kSnapvoiceTemplate, "snapvoice") },
        { "MJPEG encoder", kMjpegEncoder },
        { "JPEG encoder", kJpegEncoder },
        { "TCP server", std::string(kTcpServer) + " host=\"0.0.0.0\" port=4000" },
        { "TCP client", kTcpClient },
        { "snapshot", kSnapshot },
        { "playback", kPlayback },
        { "GPU", kGpu },
        { "overlay display", Instance(kOverlayTemplate, "display") },
        { "overlay recording", Instance(kOverlayTemplate, "recording") },
    };
    for (const auto& entry : descriptions) {
        TestPipeline pipeline(entry.second);
        EXPECT_TRUE(pipeline.Parsed()) << entry.first << ": " << pipeline.Error();
    }
}

// The whole graph with the NTSC camera selected: camera -> GPU -> overlays ->
// display, encoders, snapshot; camera -> MJPEG -> TCP server -> TCP client;
// microphone -> AAC -> the three muxers.
TEST_F(LaunchDescriptions, LinkedAsTheDaemonLinksThemEveryStagePassesBuffers)
{
    TestPipeline camera(kNtscCamera);
    TestPipeline gpu(kGpu);
    TestPipeline overlay_display(Instance(kOverlayTemplate, "display"));
    TestPipeline overlay_recording(Instance(kOverlayTemplate, "recording"));
    TestPipeline display(kDisplay);
    TestPipeline h264_video(Instance(kH264Template, "video"));
    TestPipeline h264_autolog(Instance(kH264Template, "autolog"));
    TestPipeline snapshot(kSnapshot);
    TestPipeline jpeg(kJpegEncoder);
    TestPipeline microphone(kMicrophone);
    TestPipeline aac(Instance(kAacTemplate, "0"));
    TestPipeline mux_video(Instance(kMp4muxTemplate, "video"));
    TestPipeline mux_autolog(Instance(kMp4muxTemplate, "autolog"));
    TestPipeline snapvoice(Instance(kSnapvoiceTemplate, "snapvoice"));
    TestPipeline mjpeg(kMjpegEncoder);
    // Port 0: the server picks a free port, so this test needs no lock.
    TestPipeline tcp_server(std::string(kTcpServer) + " host=\"127.0.0.1\" port=0");
    TestPipeline tcp_client(kTcpClient);
    std::vector<const TestPipeline*> graph = { &camera, &gpu, &overlay_display, &overlay_recording, &display,
        &h264_video, &h264_autolog, &snapshot, &jpeg, &microphone, &aac, &mux_video, &mux_autolog, &snapvoice,
        &mjpeg, &tcp_server, &tcp_client };
    for (const TestPipeline* pipeline : graph)
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    gpu.Set("gpu_source", "listen-to", "camera_input_video");
    mjpeg.Set("mjpeg_encode_source", "listen-to", "camera_input_video");
    overlay_display.Set("svg_overlay_source_display", "listen-to", "gpu_sink");
    overlay_recording.Set("svg_overlay_source_recording", "listen-to", "gpu_sink");
    display.Set("display_source", "listen-to", "svg_overlay_sink_first_display");
    h264_video.Set("video_h264_source", "listen-to", "svg_overlay_sink_first_recording");
    snapshot.Set("snapshot_source", "listen-to", "svg_overlay_sink_first_recording");
    h264_autolog.Set("autolog_h264_source", "listen-to", "svg_overlay_sink_first_recording");
    jpeg.Set("jpeg_encode_source", "listen-to", "svg_overlay_sink_first_recording");
    aac.Set("aac_encode_source0", "listen-to", "mic_input");
    mux_video.Set("video_mp4mux_video0", "listen-to", "video_h264_sink");
    mux_video.Set("video_mp4mux_audio0", "listen-to", "aac_encode_sink0");
    tcp_server.Set("tcp_server_source", "listen-to", "mjpeg_encode_sink");
    snapvoice.Set("snapvoice_mp4mux_video0", "listen-to", "video_h264_sink");
    snapvoice.Set("snapvoice_mp4mux_audio0", "listen-to", "aac_encode_sink0");
    mux_autolog.Set("autolog_mp4mux_video0", "listen-to", "autolog_h264_sink");
    mux_autolog.Set("autolog_mp4mux_audio0", "listen-to", "aac_encode_sink0");

    // What a capture does: open the valves and give the muxers files.
    const std::string video_file = _Dir.File("video.mp4");
    h264_video.Set("video_h264_valve", "drop", FALSE);
    h264_autolog.Set("autolog_h264_valve", "drop", FALSE);
    mux_video.Set("video_mp4mux_filesink", "location", video_file.c_str());
    mux_autolog.Set("autolog_mp4mux_filesink", "location", _Dir.File("autolog.mp4").c_str());
    snapvoice.Set("snapvoice_mp4mux_filesink", "location", _Dir.File("snapvoice.mp4").c_str());
    mux_video.Set("video_idr_valve", "drop", FALSE);
    mux_autolog.Set("autolog_idr_valve", "drop", FALSE);
    snapvoice.Set("snapvoice_idr_valve", "drop", FALSE);
    snapshot.Set("snapshotSink", "location", _Dir.File("snapshot%d.jpeg").c_str());

    Count(display, "display_sink");
    Count(h264_video, "video_h264_sink");
    Count(h264_autolog, "autolog_h264_sink");
    Count(snapshot, "snapshotSink");
    Count(jpeg, "jpeg_encode_sink");
    Count(aac, "aac_encode_sink0");
    Count(mux_video, "video_mp4mux_filesink");
    Count(mux_autolog, "autolog_mp4mux_filesink");
    // SnapVoice keeps one picture, so its muxer writes little before the end.
    Count(snapvoice, "snapvoice_mp4mux_filesink", 1);
    Count(tcp_server, "tcp_server_sink");
    Count(tcp_client, "tcpclient_video");

    // Consumers start before their producers, as at start-up, except the TCP
    // client, which needs the server's port.
    for (const TestPipeline* pipeline : graph) {
        if (pipeline != &tcp_client) {
            ASSERT_TRUE(pipeline->Start()) << pipeline->Error();
        }
    }
    snapshot.Set("snapshot_valve", "num-buffers-pass", 3u);

    ASSERT_TRUE(tcp_server.Play());
    gint port = 0;
    g_object_get(tcp_server.Element("tcp_server_sink").get(), "current-port", &port, nullptr);
    ASSERT_GT(port, 0);
    tcp_client.Set("tcpclient_source_video", "host", "127.0.0.1");
    tcp_client.Set("tcpclient_source_video", "port", port);
    ASSERT_TRUE(tcp_client.Start());

    ASSERT_NO_FATAL_FAILURE(RunUntilCounted(graph, 3, 30));

    // The video muxer finishes its file on end-of-stream; an independent
    // reader finds H.264 and AAC in it.
    ASSERT_TRUE(mux_video.Finish()) << mux_video.Error();
    const std::vector<std::string> streams = FfprobeValues(video_file, "stream=codec_name");
    EXPECT_NE(std::find(streams.begin(), streams.end(), "h264"), streams.end());
    EXPECT_NE(std::find(streams.begin(), streams.end(), "aac"), streams.end());
}

// Every input publishes 640x480 RGBA on its sink; the input mux and the GPU
// follow a switch between inputs while everything plays.
TEST_F(LaunchDescriptions, InputsFeedTheInputMuxAndTheGpuAcrossSwitches)
{
    TestPipeline test_input(kTestInput);
    TestPipeline ntsc(kNtscCamera);
    TestPipeline pal(kPalCamera);
    TestPipeline input_mux(kInputMux);
    TestPipeline gpu(kGpu);
    for (const TestPipeline* pipeline : { &test_input, &ntsc, &pal, &input_mux, &gpu })
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    input_mux.Set("input_mux_source", "listen-to", "test_input_sink");
    gpu.Set("gpu_source", "listen-to", "test_input_sink");
    Count(test_input, "test_input_sink");
    Count(ntsc, "camera_input_video");
    Count(pal, "pal_camera_sink");
    Count(input_mux, "input_mux_sink");
    Count(gpu, "gpu_sink");
    for (const TestPipeline* pipeline : { &input_mux, &gpu, &test_input, &ntsc, &pal })
        ASSERT_TRUE(pipeline->Start());
    ASSERT_NO_FATAL_FAILURE(RunUntilCounted({ &test_input, &ntsc, &pal, &input_mux, &gpu }, 3, 20));

    for (const char* input : { "camera_input_video", "pal_camera_sink" }) {
        input_mux.Set("input_mux_source", "listen-to", input);
        gpu.Set("gpu_source", "listen-to", input);
        unsigned counted = std::max(Counted("input_mux_sink"), Counted("gpu_sink"));
        ASSERT_NO_FATAL_FAILURE(RunUntilCounted({ &input_mux, &gpu }, counted + 5, 20)) << input;
    }
}

// Playback: a recorded file through playbin and a still JPEG through the
// decoder to the display sink, both to end-of-stream.
TEST_F(LaunchDescriptions, PlaybackPlaysARecordingAndAStillPictureToTheEnd)
{
    const std::string movie = _Dir.File("movie.mp4");
    const std::string still = _Dir.File("still.jpg");
    TestPipeline maker("videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240 ! "
                       "x264enc ! mp4mux ! filesink location="
        + movie + " videotestsrc num-buffers=1 ! jpegenc ! filesink location=" + still);
    ASSERT_TRUE(maker.RunToEos()) << maker.Error();

    TestPipeline playback(kPlayback);
    ASSERT_TRUE(playback.Parsed()) << playback.Error();
    ObjectPtr<GstElement> playbin = playback.Element("pipeline0_playbin");
    ASSERT_TRUE(playbin);
    GstElement* video_sink = gst_element_factory_make("imxipuvideosink", nullptr);
    ASSERT_NE(video_sink, nullptr);
    g_object_set(playbin.get(), "uri", ("file://" + movie).c_str(), "video-sink", video_sink, "audio-sink",
        gst_element_factory_make("fakesink", nullptr), nullptr);
    playback.Set("jpeg_playback_source", "location", still.c_str());
    Count(playback, "jpeg_playback_sink");
    EXPECT_TRUE(playback.RunToEos()) << playback.Error();
    EXPECT_GE(Counted("jpeg_playback_sink"), 1u);
}

} // namespace
