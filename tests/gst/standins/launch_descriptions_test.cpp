// The daemon's launch descriptions, taken from its pipeline classes, parse
// against the stand-in elements and, linked through interpipe the way the
// daemon links them, feed the input mux and the GPU and play files back.
#include "launch_graph.h"

using namespace LaunchGraph;

namespace
{

// Every input publishes 640x480 RGBA on its sink; the input mux and the GPU
// follow a switch between inputs while everything plays.
TEST_F(LaunchDescriptions, InputsFeedTheInputMuxAndTheGpuAcrossSwitches)
{
    TestPipeline test_input(DescriptionOf<TestInputPipeline>());
    TestPipeline ntsc(DescriptionOf<NtscCameraInputPipeline>());
    TestPipeline pal(DescriptionOf<PalCameraInputPipeline>());
    TestPipeline input_mux(DescriptionOf<InputMuxPipeline>());
    TestPipeline gpu(DescriptionOf<GpuPipeline>());
    for (const TestPipeline* pipeline : { &test_input, &ntsc, &pal, &input_mux, &gpu })
        ASSERT_TRUE(pipeline->Parsed()) << pipeline->Error();

    Set(input_mux, "input_mux_source", "listen-to", "test_input_sink");
    Set(gpu, "gpu_source", "listen-to", "test_input_sink");
    Count(test_input, "test_input_sink");
    Count(ntsc, "camera_input_video");
    Count(pal, "pal_camera_sink");
    Count(input_mux, "input_mux_sink");
    Count(gpu, "gpu_sink");
    for (const TestPipeline* pipeline : { &input_mux, &gpu, &test_input, &ntsc, &pal })
        ASSERT_TRUE(pipeline->Start());
    ASSERT_NO_FATAL_FAILURE(RunUntilCounted({ &test_input, &ntsc, &pal, &input_mux, &gpu }, 3, 20));

    for (const char* input : { "camera_input_video", "pal_camera_sink" }) {
        Set(input_mux, "input_mux_source", "listen-to", input);
        Set(gpu, "gpu_source", "listen-to", input);
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

    TestPipeline playback(DescriptionOf<PlaybackPipeline>(true));
    ASSERT_TRUE(playback.Parsed()) << playback.Error();
    GstPtr<GstElement> playbin = playback.Element("pipeline0_playbin");
    ASSERT_TRUE(playbin);
    GstElement* video_sink = gst_element_factory_make("imxipuvideosink", nullptr);
    ASSERT_NE(video_sink, nullptr);
    g_object_set(playbin.get(), "uri", ("file://" + movie).c_str(), "video-sink", video_sink, "audio-sink",
        gst_element_factory_make("fakesink", nullptr), nullptr);
    Set(playback, "jpeg_playback_source", "location", still.c_str());
    Count(playback, "jpeg_playback_sink");
    EXPECT_TRUE(playback.RunToEos()) << playback.Error();
    EXPECT_GE(Counted("jpeg_playback_sink"), 1u);
}

} // namespace
