// Every launch description of the daemon parses against the stand-in
// elements and, linked through interpipe the way the daemon links them,
// runs and passes buffers end to end.
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

// The descriptions exactly as the daemon writes them; "%" marks an instance
// name or number.
const char* const kInputMux =
    R"desc(interpipesrc name=input_mux_source is-live=false max-buffers=1 stream-sync=0 do-timestamp=true leaky-type=2 allow-renegotiation=true ! interpipesink name=input_mux_sink max-buffers=1 sync=false forward-events=true)desc";
const char* const kTestInput =
    R"desc(videotestsrc name=test_input_src pattern=2 do-timestamp=true ! video/x-raw, format=UYVY,width=640,height=480,framerate=30000/1001 ! imxipuvideotransform ! video/x-raw, format=RGBA,width=640,height=480 ! interpipesink max-buffers=1 name=test_input_sink caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true)desc";
const char* const kNtscCamera =
    R"desc(imxv4l2videosrc name=camera_input_source fps=30000/1001 crop-meta-x=24 crop-meta-width=672 crop-meta-y=24 crop-meta-height=504 do-timestamp=true ! video/x-raw, format=UYVY,width=720,height=504,framerate=30000/1001, interlace-mode=interleaved,device-mode=interleaved ! vbiread name=vbi_read line-dup-enabled=false line-dup-top-start=3 line-dup-top-stop=33 line-dup-bot-start=433 line-dup-bot-stop=480 first-top-data-line=0 num-top-data-lines=30 first-bot-data-line=433 num-bot-data-lines=37 set-tff-flag=true ! queue name=vbi_queue leaky=downstream max-size-buffers=1 ! imxipuvideotransform name=camera_input_transform deinterlace=true input-crop=true ! video/x-raw, format=RGBA,width=640,height=480 ! progressive-caps-filter ! capssetter caps=video/x-raw,pixel-aspect-ratio=1/1,framerate=30000/1001 ! interpipesink max-buffers=1 name=camera_input_video caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true)desc";
const char* const kPalCamera =
    R"desc(imxv4l2videosrc name=pal_camera_input_source fps=25/1 crop-meta-x=28 crop-meta-width=692 crop-meta-y=28 crop-meta-height=576 do-timestamp=true ! video/x-raw, format=UYVY,width=720,height=576,framerate=25/1, interlace-mode=interleaved,device-mode=interleaved ! queue name=pal_queue leaky=downstream max-size-buffers=1 ! imxipuvideotransform name=pal_camera_input_transform deinterlace=true input-crop=true ! video/x-raw, format=RGBA,width=640,height=480 ! progressive-caps-filter ! capssetter caps=video/x-raw,width=640,height=480,framerate=30000/1001,multiview-mode=mono,interlace-mode=progressive,pixel-aspect-ratio=1/1,format=RGBA ! interpipesink max-buffers=1 name=pal_camera_sink caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true)desc";
const char* const kDisplay =
    R"desc(interpipesrc name=display_source is-live=true max-buffers=1 leaky-type=2 ! video/x-raw, format=BGRA,width=640,height=480 ! queue name=display_queue max-size-buffers=2 leaky=downstream ! imxipuvideotransform name=video_transform_display ! imxipuvideosink name=display_sink qos=false use-vsync=true sync=false force-aspect-ratio=false)desc";
const char* const kMicrophone =
    R"desc(alsasrc name=mic_input_source provide-clock=false do-timestamp=false ! audio/x-raw, rate=44100,channels=2,format=S16LE,layout=interleaved ! volume volume=1 name=mic_volume0 ! interpipesink max-buffers=2 name=mic_input caps=audio/x-raw,rate=44100,channels=2,format=S16LE,layout=interleaved forward-events=true)desc";
const char* const kSpeaker =
    R"desc(interpipesrc name=audio_speaker_source is-live=true ! alsasink name=audio_speaker_sink sync=false enable-last-sample=false)desc";
const char* const kH264Template =
    R"desc(interpipesrc name=%_h264_source allow-renegotiation=false format=time max-buffers=1 leaky-type=2 ! video/x-raw, format=BGRA,width=640,height=480,framerate=30000/1001 ! valve name=%_h264_valve drop=true ! imxipuvideotransform name=%_video_transform_h264 ! video/x-raw, format=I420 ! queue name=%_h264_queue leaky=downstream max-size-buffers=2 ! imxvpuenc_h264 name=%_encoder bitrate=0 gop-size=16 quant-param=24 idr-interval=16 ! h264parse ! video/x-h264, stream-format=avc,alignment=au,profile=main ! interpipesink sync=false async=false max-buffers=5 name=%_h264_sink caps=video/x-h264,stream-format=avc,alignment=au forward-events=false forward-eos=true forward-preroll=false)desc";
const char* const kAacTemplate =
    R"desc(interpipesrc name=aac_encode_source% ! queue name=acc_queue max-size-buffers=10 leaky=downstream ! audioconvert ! capsfilter name=audio_convert_filter caps=audio/x-raw,format=F32LE,channels=2 ! audioresample ! capsfilter name=audio_resample_filter caps=audio/x-raw,format=F32LE,channels=2,rate=48000 ! queue max-size-buffers=10 leaky=downstream ! avenc_aac ! capsfilter name=aac_filter caps=audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 ! interpipesink max-buffers=2 name=aac_encode_sink% caps=audio/mpeg,mpegversion=4,format=F32LE,channels=2,rate=48000 forward-events=false)desc";
const char* const kMp4muxTemplate =
    R"desc(interpipesrc name=%_mp4mux_video0 stream-sync=1 format=time allow-renegotiation=false ! video/x-h264 ! idrvalve name=%_idr_valve drop=true ! multiqueue name=%_mp4mux_mque max-size-buffers=30 max-size-time=0 %_mp4mux_mque. ! muxpause name=%_mp4mux_vid_pause ! mp4mux name=%_mux ! queue name=%_mp4mux_queue max-size-buffers=10 ! identity name=%_mp4mux_tracker silent=true ! filesink name=%_mp4mux_filesink async=false sync=false location=/dev/null interpipesrc name=%_mp4mux_audio0 stream-sync=1 format=time allow-renegotiation=false ! audio/mpeg ! %_mp4mux_mque. %_mp4mux_mque. ! muxpause name=%_mp4mux_aud_pause ! %_mux. )desc";
const char* const kSnapvoiceTemplate =
    R"desc(interpipesrc name=%_mp4mux_video0 stream-sync=1 format=time allow-renegotiation=false ! video/x-h264 ! idrvalve name=%_idr_valve drop=true ! snapvoice name=snapvoice_filter reset=true ! multiqueue name=%_mp4mux_mque max-size-buffers=30 max-size-time=0 %_mp4mux_mque. ! muxpause name=%_mp4mux_vid_pause ! mp4mux name=%_mux ! queue name=snapvoice_mp4mux_queue max-size-buffers=10 ! identity name=%_mp4mux_tracker silent=true ! filesink name=%_mp4mux_filesink async=false sync=false location=/dev/null interpipesrc name=%_mp4mux_audio0 stream-sync=1 format=time allow-renegotiation=false ! audio/mpeg ! %_mp4mux_mque. %_mp4mux_mque. ! muxpause name=%_mp4mux_aud_pause ! %_mux. )desc";
const char* const kMjpegEncoder =
    R"desc(interpipesrc name=mjpeg_encode_source listen-to=test is-live=true do-timestamp=true format=time max-buffers=1 leaky-type=2 ! queue name=mjpeg_queue leaky=downstream max-size-buffers=2 ! imxipuvideotransform name=video_transform_mjpeg ! video/x-raw, format=I420 ! imxvpuenc_mjpeg name=mjpeg_enc ! tarnwellexif ! capsfilter caps="image/jpeg" ! interpipesink max-buffers=2 name=mjpeg_encode_sink forward-events=true)desc";
const char* const kJpegEncoder =
    R"desc(interpipesrc name=jpeg_encode_source listen-to=test is-live=true max-buffers=1 leaky-type=2 ! queue name=jpeg_queue max-size-buffers=1 ! videoscale ! capsfilter name=jpeg_image_caps caps=video/x-raw,width=320,height=240 ! videoconvert ! jpegenc ! jifmux ! interpipesink max-buffers=2 name=jpeg_encode_sink caps=image/jpeg forward-events=true)desc";
const char* const kTcpServer =
    R"desc(interpipesrc name=tcp_server_source listen-to=mjpeg_encode is-live=true format=time max-buffers=1 leaky-type=2 ! queue name=tcp_server_queue leaky=downstream ! tarnwell-static-jpeg name=static_jpeg location=/etc/rig/tarnwellLogo.jpg silent=true ! multipartmux boundary=frame ! tcpserversink name=tcp_server_sink sync=false async=false)desc";
const char* const kTcpClient =
    R"desc(tcpclientsrc name=tcpclient_source_video typefind=false do-timestamp=true timeout=5 ! multipartdemux boundary=frame ! image/jpeg, width=640,height=480,framerate=30000/1001 ! identity name=tcp_tracker ! tarnwellexifdemux name=exifdemux_src ! queue name=tcpclient_queue leaky=downstream max-size-buffers=5 ! imxvpudec ! video/x-raw, format=I420,width=640,height=480 ! imxipuvideotransform name=video_transform_tcp ! video/x-raw, format=RGBA,width=640,height=480 ! interpipesink max-buffers=2 caps=video/x-raw,format=RGBA,width=640,height=480 name=tcpclient_video sync=false forward-events=true)desc";
const char* const kSnapshot =
    R"desc(interpipesrc name=snapshot_source is-live=true allow-renegotiation=false max-buffers=0 leaky-type=2 ! video/x-raw, format=BGRA,width=640,height=480 ! tarnwell-valve name=snapshot_valve num-buffers-pass=0 ! imxipuvideotransform name=snapshot_jpeg_transform ! capsfilter name=jpeg_image_caps caps=video/x-raw,format=I420,width=640,height=480 ! imxvpuenc_mjpeg name=jpeg_encoder quality-factor=85 ! multifilesink name=snapshotSink post-messages=true location=/tmp/dummy.jpeg)desc";
const char* const kPlayback =
    R"desc(playbin name=pipeline0_playbin uri=file:///dev/null filesrc name=jpeg_playback_source location=/dev/null ! jpegdec ! imxipuvideosink name=jpeg_playback_sink output-rotation=5)desc";
const char* const kGpu =
    R"desc(interpipesrc name=gpu_source format=time stream-sync=0 allow-renegotiation=false max-buffers=1 leaky-type=2 ! queue name=gpu_input_queue max-size-buffers=6 leaky=downstream ! tarnwell-motion-filter name=motion_filter roll-filter-coeffs="1 1" ! tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15 ! tarnwell-tiling name=gpu background-mode=2 silent=false gpu.src ! queue name=gpu_output_queue leaky=downstream max-size-buffers=4 ! interpipesink name=gpu_sink max-buffers=1 sync=false forward-events=true)desc";
const char* const kOverlayTemplate =
    R"desc(interpipesrc name=svg_overlay_source_% format=time max-buffers=1 leaky-type=2 ! imxipuvideotransform name=video_transform_overlay ! video/x-raw, format=BGRA ! rsvgoverlaytarnwell name=svg_overlay fit-to-frame=true enabled=true svg_overlay.src_first ! queue name=%_overlay_queue max-size-buffers=1 max-size-time=50000000 leaky=downstream ! interpipesink max-buffers=1 sync=false async=false name=svg_overlay_sink_first_%)desc";

std::string Instance(const char* description, const std::string& name)
{
    return std::regex_replace(description, std::regex("%"), name);
}

struct ElementUnref {
    void operator()(GstElement* element) const { gst_object_unref(element); }
};
using ElementPtr = std::unique_ptr<GstElement, ElementUnref>;

ElementPtr Parse(const std::string& description, std::string* error_text = nullptr)
{
    g_autoptr(GError) error = nullptr;
    ElementPtr pipeline(gst_parse_launch(description.c_str(), &error));
    if (error) {
        if (error_text)
            *error_text = error->message;
        return nullptr;
    }
    return pipeline;
}

std::string RunCommand(const std::string& command)
{
    std::string output;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char chunk[256];
        while (size_t n = fread(chunk, 1, sizeof(chunk), pipe))
            output.append(chunk, n);
        pclose(pipe);
    }
    return output;
}

// One named pipeline of the graph, with buffer counters on chosen pads.
class GraphPipeline {
public:
    GraphPipeline(std::string name, const std::string& description) : name_(std::move(name))
    {
        std::string error;
        element_ = Parse(description, &error);
        EXPECT_TRUE(element_) << name_ << ": " << error;
    }
    ~GraphPipeline()
    {
        if (element_)
            gst_element_set_state(element_.get(), GST_STATE_NULL);
    }

    GstElement* Child(const char* child) const
    {
        return element_ ? gst_bin_get_by_name(GST_BIN(element_.get()), child) : nullptr;
    }

    template <typename T>
    void Set(const char* child, const char* property, T value)
    {
        ElementPtr element(Child(child));
        ASSERT_TRUE(element) << name_ << " has no element " << child;
        g_object_set(element.get(), property, value, nullptr);
    }

    void ListenTo(const char* source, const std::string& sink) { Set(source, "listen-to", sink.c_str()); }

    // Counts buffers entering the element's sink pad; `most_expected` caps
    // what a wait asks of this pad.
    void Count(const char* child, unsigned most_expected = UINT_MAX)
    {
        ElementPtr element(Child(child));
        ASSERT_TRUE(element) << name_ << " has no element " << child;
        g_autoptr(GstPad) pad = gst_element_get_static_pad(element.get(), "sink");
        ASSERT_NE(pad, nullptr);
        auto counter = std::make_unique<std::atomic<unsigned>>(0);
        gst_pad_add_probe(pad, GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
                          [](GstPad*, GstPadProbeInfo*, gpointer data) {
                              ++*static_cast<std::atomic<unsigned>*>(data);
                              return GST_PAD_PROBE_OK;
                          },
                          counter.get(), nullptr);
        counters_[child] = std::move(counter);
        expected_[child] = most_expected;
    }

    bool AllCountersAtLeast(unsigned minimum) const
    {
        for (const auto& entry : counters_)
            if (*entry.second < std::min(minimum, expected_.at(entry.first)))
                return false;
        return true;
    }
    unsigned Counted(const char* child) const { return counters_.at(child)->load(); }
    std::string CounterReport() const
    {
        std::string report;
        for (const auto& entry : counters_)
            report += name_ + "/" + entry.first + "=" + std::to_string(entry.second->load()) + " ";
        return report;
    }

    GstStateChangeReturn Play() { return gst_element_set_state(element_.get(), GST_STATE_PLAYING); }

    // The first error on the bus, or an empty string.
    std::string PendingError() const
    {
        g_autoptr(GstBus) bus = gst_element_get_bus(element_.get());
        g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
        if (!message)
            return "";
        g_autoptr(GError) error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        return std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(message))) + ": " + error->message;
    }

    bool WaitForEos(GstClockTime timeout)
    {
        g_autoptr(GstBus) bus = gst_element_get_bus(element_.get());
        g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
            bus, timeout, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        return message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    }

    GstElement* get() const { return element_.get(); }
    const std::string& name() const { return name_; }

private:
    std::string name_;
    ElementPtr element_;
    std::map<std::string, std::unique_ptr<std::atomic<unsigned>>> counters_;
    std::map<std::string, unsigned> expected_;
};

class LaunchDescriptions : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }

    void SetUp() override
    {
        char pattern[] = "/tmp/videod-launch-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { RunCommand("rm -rf '" + dir_ + "'"); }

    // Runs until every counter of every pipeline has seen `minimum` buffers,
    // a bus error appears, or the time runs out.
    void RunUntilCounted(const std::vector<GraphPipeline*>& graph, unsigned minimum, int seconds)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        auto report = [&] {
            std::string text;
            for (auto* pipeline : graph)
                text += pipeline->CounterReport();
            return text;
        };
        while (std::chrono::steady_clock::now() < deadline) {
            bool done = true;
            for (auto* pipeline : graph) {
                std::string error = pipeline->PendingError();
                ASSERT_EQ(error, "") << "error in " << pipeline->name() << "; counted: " << report();
                done = done && pipeline->AllCountersAtLeast(minimum);
            }
            if (done)
                return;
            g_usleep(50000);
        }
        FAIL() << "not every stage passed " << minimum << " buffers: " << report();
    }

    std::string dir_;
};

TEST_F(LaunchDescriptions, EveryDescriptionParsesWithoutError)
{
    const std::vector<std::pair<std::string, std::string>> descriptions = {
        {"input mux", kInputMux},
        {"test input", kTestInput},
        {"NTSC camera", kNtscCamera},
        {"PAL camera", kPalCamera},
        {"display", kDisplay},
        {"microphone", kMicrophone},
        {"speaker", kSpeaker},
        {"H.264 video", Instance(kH264Template, "video")},
        {"H.264 autolog", Instance(kH264Template, "autolog")},
        {"AAC", Instance(kAacTemplate, "0")},
        {"MP4 mux video", Instance(kMp4muxTemplate, "video")},
        {"MP4 mux autolog", Instance(kMp4muxTemplate, "autolog")},
        {"SnapVoice mux", Instance(kSnapvoiceTemplate, "snapvoice")},
        {"MJPEG encoder", kMjpegEncoder},
        {"JPEG encoder", kJpegEncoder},
        {"TCP server", std::string(kTcpServer) + " host=\"0.0.0.0\" port=4000"},
        {"TCP client", kTcpClient},
        {"snapshot", kSnapshot},
        {"playback", kPlayback},
        {"GPU", kGpu},
        {"overlay display", Instance(kOverlayTemplate, "display")},
        {"overlay recording", Instance(kOverlayTemplate, "recording")},
    };
    for (const auto& entry : descriptions) {
        std::string error;
        ElementPtr pipeline = Parse(entry.second, &error);
        EXPECT_TRUE(pipeline) << entry.first << ": " << error;
    }
}

// The whole graph with the NTSC camera selected: camera -> GPU -> overlays ->
// display, encoders, snapshot; camera -> MJPEG -> TCP server -> TCP client;
// microphone -> AAC -> the three muxers.
TEST_F(LaunchDescriptions, LinkedAsTheDaemonLinksThemEveryStagePassesBuffers)
{
    GraphPipeline camera("NTSC camera", kNtscCamera);
    GraphPipeline gpu("GPU", kGpu);
    GraphPipeline overlay_display("overlay display", Instance(kOverlayTemplate, "display"));
    GraphPipeline overlay_recording("overlay recording", Instance(kOverlayTemplate, "recording"));
    GraphPipeline display("display", kDisplay);
    GraphPipeline h264_video("H.264 video", Instance(kH264Template, "video"));
    GraphPipeline h264_autolog("H.264 autolog", Instance(kH264Template, "autolog"));
    GraphPipeline snapshot("snapshot", kSnapshot);
    GraphPipeline jpeg("JPEG encoder", kJpegEncoder);
    GraphPipeline microphone("microphone", kMicrophone);
    GraphPipeline aac("AAC", Instance(kAacTemplate, "0"));
    GraphPipeline mux_video("MP4 mux video", Instance(kMp4muxTemplate, "video"));
    GraphPipeline mux_autolog("MP4 mux autolog", Instance(kMp4muxTemplate, "autolog"));
    GraphPipeline snapvoice("SnapVoice mux", Instance(kSnapvoiceTemplate, "snapvoice"));
    GraphPipeline mjpeg("MJPEG encoder", kMjpegEncoder);
    // Port 0: the server picks a free port, so this test needs no lock.
    GraphPipeline tcp_server("TCP server", std::string(kTcpServer) + " host=\"127.0.0.1\" port=0");
    GraphPipeline tcp_client("TCP client", kTcpClient);
    std::vector<GraphPipeline*> graph = {&camera, &gpu, &overlay_display, &overlay_recording, &display,
                                         &h264_video, &h264_autolog, &snapshot, &jpeg, &microphone, &aac,
                                         &mux_video, &mux_autolog, &snapvoice, &mjpeg, &tcp_server,
                                         &tcp_client};
    for (auto* pipeline : graph)
        ASSERT_NE(pipeline->get(), nullptr) << pipeline->name();

    gpu.ListenTo("gpu_source", "camera_input_video");
    mjpeg.ListenTo("mjpeg_encode_source", "camera_input_video");
    overlay_display.ListenTo("svg_overlay_source_display", "gpu_sink");
    overlay_recording.ListenTo("svg_overlay_source_recording", "gpu_sink");
    display.ListenTo("display_source", "svg_overlay_sink_first_display");
    h264_video.ListenTo("video_h264_source", "svg_overlay_sink_first_recording");
    snapshot.ListenTo("snapshot_source", "svg_overlay_sink_first_recording");
    h264_autolog.ListenTo("autolog_h264_source", "svg_overlay_sink_first_recording");
    jpeg.ListenTo("jpeg_encode_source", "svg_overlay_sink_first_recording");
    aac.ListenTo("aac_encode_source0", "mic_input");
    mux_video.ListenTo("video_mp4mux_video0", "video_h264_sink");
    mux_video.ListenTo("video_mp4mux_audio0", "aac_encode_sink0");
    tcp_server.ListenTo("tcp_server_source", "mjpeg_encode_sink");
    snapvoice.ListenTo("snapvoice_mp4mux_video0", "video_h264_sink");
    snapvoice.ListenTo("snapvoice_mp4mux_audio0", "aac_encode_sink0");
    mux_autolog.ListenTo("autolog_mp4mux_video0", "autolog_h264_sink");
    mux_autolog.ListenTo("autolog_mp4mux_audio0", "aac_encode_sink0");

    // What a capture does: open the valves and give the muxers files.
    const std::string video_file = dir_ + "/video.mp4";
    h264_video.Set("video_h264_valve", "drop", FALSE);
    h264_autolog.Set("autolog_h264_valve", "drop", FALSE);
    mux_video.Set("video_mp4mux_filesink", "location", video_file.c_str());
    mux_autolog.Set("autolog_mp4mux_filesink", "location", (dir_ + "/autolog.mp4").c_str());
    snapvoice.Set("snapvoice_mp4mux_filesink", "location", (dir_ + "/snapvoice.mp4").c_str());
    mux_video.Set("video_idr_valve", "drop", FALSE);
    mux_autolog.Set("autolog_idr_valve", "drop", FALSE);
    snapvoice.Set("snapvoice_idr_valve", "drop", FALSE);
    snapshot.Set("snapshotSink", "location", (dir_ + "/snapshot%d.jpeg").c_str());

    display.Count("display_sink");
    h264_video.Count("video_h264_sink");
    h264_autolog.Count("autolog_h264_sink");
    snapshot.Count("snapshotSink");
    jpeg.Count("jpeg_encode_sink");
    aac.Count("aac_encode_sink0");
    mux_video.Count("video_mp4mux_filesink");
    mux_autolog.Count("autolog_mp4mux_filesink");
    // SnapVoice keeps one picture, so its muxer writes little before the end.
    snapvoice.Count("snapvoice_mp4mux_filesink", 1);
    tcp_server.Count("tcp_server_sink");
    tcp_client.Count("tcpclient_video");

    // Consumers start before their producers, as at start-up, except the TCP
    // client, which needs the server's port.
    for (auto* pipeline : graph) {
        if (pipeline != &tcp_client) {
            ASSERT_NE(pipeline->Play(), GST_STATE_CHANGE_FAILURE) << pipeline->name();
        }
    }
    snapshot.Set("snapshot_valve", "num-buffers-pass", 3u);

    ASSERT_EQ(gst_element_get_state(tcp_server.get(), nullptr, nullptr, 5 * GST_SECOND),
              GST_STATE_CHANGE_SUCCESS);
    gint port = 0;
    {
        ElementPtr server(tcp_server.Child("tcp_server_sink"));
        g_object_get(server.get(), "current-port", &port, nullptr);
    }
    ASSERT_GT(port, 0);
    tcp_client.Set("tcpclient_source_video", "host", "127.0.0.1");
    tcp_client.Set("tcpclient_source_video", "port", port);
    ASSERT_NE(tcp_client.Play(), GST_STATE_CHANGE_FAILURE);

    ASSERT_NO_FATAL_FAILURE(RunUntilCounted(graph, 3, 30));

    // The video muxer finishes its file on end-of-stream; an independent
    // reader finds H.264 and AAC in it.
    gst_element_send_event(mux_video.get(), gst_event_new_eos());
    ASSERT_TRUE(mux_video.WaitForEos(10 * GST_SECOND));
    std::string streams = RunCommand("ffprobe -v error -show_entries stream=codec_name -of csv=p=0 '" +
                                     video_file + "'");
    EXPECT_NE(streams.find("h264"), std::string::npos) << streams;
    EXPECT_NE(streams.find("aac"), std::string::npos) << streams;
}

// Every input publishes 640x480 RGBA on its sink; the input mux and the GPU
// follow a switch between inputs while everything plays.
TEST_F(LaunchDescriptions, InputsFeedTheInputMuxAndTheGpuAcrossSwitches)
{
    GraphPipeline test_input("test input", kTestInput);
    GraphPipeline ntsc("NTSC camera", kNtscCamera);
    GraphPipeline pal("PAL camera", kPalCamera);
    GraphPipeline input_mux("input mux", kInputMux);
    GraphPipeline gpu("GPU", kGpu);
    for (auto* pipeline : {&test_input, &ntsc, &pal, &input_mux, &gpu})
        ASSERT_NE(pipeline->get(), nullptr) << pipeline->name();

    input_mux.ListenTo("input_mux_source", "test_input_sink");
    gpu.ListenTo("gpu_source", "test_input_sink");
    test_input.Count("test_input_sink");
    ntsc.Count("camera_input_video");
    pal.Count("pal_camera_sink");
    input_mux.Count("input_mux_sink");
    gpu.Count("gpu_sink");
    for (auto* pipeline : {&input_mux, &gpu, &test_input, &ntsc, &pal})
        ASSERT_NE(pipeline->Play(), GST_STATE_CHANGE_FAILURE) << pipeline->name();
    ASSERT_NO_FATAL_FAILURE(RunUntilCounted({&test_input, &ntsc, &pal, &input_mux, &gpu}, 3, 20));

    for (const char* input : {"camera_input_video", "pal_camera_sink"}) {
        input_mux.ListenTo("input_mux_source", input);
        gpu.ListenTo("gpu_source", input);
        unsigned counted = std::max(input_mux.Counted("input_mux_sink"), gpu.Counted("gpu_sink"));
        ASSERT_NO_FATAL_FAILURE(RunUntilCounted({&input_mux, &gpu}, counted + 5, 20)) << input;
    }
}

// Playback: a recorded file through playbin and a still JPEG through the
// decoder to the display sink, both to end-of-stream.
TEST_F(LaunchDescriptions, PlaybackPlaysARecordingAndAStillPictureToTheEnd)
{
    const std::string movie = dir_ + "/movie.mp4";
    const std::string still = dir_ + "/still.jpg";
    GraphPipeline maker("maker", "videotestsrc num-buffers=30 ! video/x-raw,width=320,height=240 ! "
                                 "x264enc ! mp4mux ! filesink location=" + movie +
                                     " videotestsrc num-buffers=1 ! jpegenc ! filesink location=" + still);
    ASSERT_NE(maker.Play(), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(maker.WaitForEos(20 * GST_SECOND));

    GraphPipeline playback("playback", kPlayback);
    ASSERT_NE(playback.get(), nullptr);
    ElementPtr playbin(playback.Child("pipeline0_playbin"));
    ASSERT_TRUE(playbin);
    GstElement* video_sink = gst_element_factory_make("imxipuvideosink", nullptr);
    ASSERT_NE(video_sink, nullptr);
    g_object_set(playbin.get(), "uri", ("file://" + movie).c_str(), "video-sink", video_sink, "audio-sink",
                 gst_element_factory_make("fakesink", nullptr), nullptr);
    playback.Set("jpeg_playback_source", "location", still.c_str());
    playback.Count("jpeg_playback_sink");
    ASSERT_NE(playback.Play(), GST_STATE_CHANGE_FAILURE);
    EXPECT_TRUE(playback.WaitForEos(20 * GST_SECOND)) << playback.PendingError();
    EXPECT_TRUE(playback.AllCountersAtLeast(1)) << playback.CounterReport();
}

}  // namespace
