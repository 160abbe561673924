// Camera, test-pattern and input-mux pipelines on the host stand-ins.
#include <functional>

#include "log_capture.h"
#include "pipeline_harness.h"
#include "pipelines/input_mux_pipeline.h"
#include "pipelines/ntsc_camera_input_pipeline.h"
#include "pipelines/pal_camera_input_pipeline.h"
#include "pipelines/test_input_pipeline.h"
#include "support/death_test_style.h"

using namespace PipelineHarness;
using VideoDaemon::GstPtr;

namespace
{

void ExpectPublishes640x480Rgba(VideoDaemon::Pipeline& input)
{
    Consumer consumer(input.GetName() + "_check_src");
    ASSERT_TRUE(consumer.Launch(false, false, false));
    ASSERT_TRUE(consumer.ListenTo(&input, "", ""));
    // The listener plays before the input, so it sees the input's first
    // frame: a test input whose start stamped a frame with the absolute
    // clock time sends nothing after it (its sink waits on that time).
    ASSERT_EQ(consumer.SetState(GST_STATE_PLAYING, 0), 0);
    ASSERT_EQ(input.SetState(GST_STATE_PLAYING), 0);
    EXPECT_EQ(consumer.SetState(GST_STATE_PLAYING), 0);
    GstSamplePtr sample(consumer.Pull());
    consumer.SetState(GST_STATE_NULL);
    input.SetState(GST_STATE_NULL);
    ASSERT_TRUE(sample);
    VideoFormat format = FormatOf(sample.get());
    EXPECT_EQ(format.width, 640);
    EXPECT_EQ(format.height, 480);
    EXPECT_EQ(format.format, "RGBA");
    gint num = 0, den = 0;
    ASSERT_TRUE(gst_structure_get_fraction(
        gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0), "framerate", &num, &den));
    EXPECT_EQ(num, 30000);
    EXPECT_EQ(den, 1001);
}

class CameraDeathTest : public ::testing::Test
{
protected:
    void SetUp() override { GstTest::UseFreshProcessDeathTests(); }
};

} // namespace

TEST(CameraInputs, PublishAs640x480RgbaUnderTheirOwnNamesAndSetTheirTransforms)
{
    LogCapture log;
    VideoDaemon::TestInputPipeline pattern;
    VideoDaemon::NtscCameraInputPipeline ntsc;
    VideoDaemon::PalCameraInputPipeline pal; // restamped to 29.97 fps
    const struct {
        VideoDaemon::Pipeline* input;
        const char* sink;
        const char* source;
    } rows[] = {
        { &pattern, "test_input_sink", "test_input_src" },
        { &ntsc, "camera_input_video", "camera_input_source" },
        { &pal, "pal_camera_sink", "pal_camera_input_source" },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.input->GetName());
        EXPECT_EQ(row.input->GetSinkName(), row.sink);
        EXPECT_EQ(row.input->GetSourceName(), row.source);
        ASSERT_TRUE(row.input->Launch(row.input == &ntsc, true, row.input == &ntsc));
        ExpectPublishes640x480Rgba(*row.input);
    }
    EXPECT_EQ(ntsc.GetQueueStates().count("vbi_queue"), 1u);
    EXPECT_GT(ntsc.GetProbeRates().at("ntsc_cam"), 0u);

    // The deinterlace methods set the transform, and the NTSC camera's top-field flag.
    // The getter names value 2 differently from the setter, and the setter
    // refuses the getter's name.
    const struct {
        VideoDaemon::Pipeline* camera;
        const char* set;
        gint method;
        const char* got;
    } methods[] = {
        { &ntsc, "high-motion", 1, "high-motion" },
        { &ntsc, "low-motion", 0, "low-motion" },
        { &ntsc, "medium-motion", 2, "median-motion" },
        { &ntsc, "high-motion", 1, "high-motion" },
        { &ntsc, "median-motion", 1, "high-motion" },
        { &pal, "high-motion", 1, "high-motion" },
        { &pal, "medium-motion", 2, "median-motion" },
        { &pal, "median-motion", 2, "median-motion" },
        { &pal, "low-motion", 0, "low-motion" },
    };
    for (const auto& row : methods) {
        SCOPED_TRACE(row.camera->GetName() + " " + row.set);
        std::string got;
        if (row.camera == &ntsc) {
            ntsc.SetDeinterlaceMethod(row.set);
            EXPECT_EQ(PropertyOf<gint>(ntsc, "camera_input_transform", "deinterlace-method"), row.method);
            // Only the fastest method takes the top field first.
            EXPECT_EQ(PropertyOf<gboolean>(ntsc, "vbi_read", "set-tff-flag"), row.method == 1);
            got = ntsc.GetDeinterlaceMethod();
        } else {
            pal.SetDeinterlaceMethod(row.set);
            EXPECT_EQ(PropertyOf<gint>(pal, "pal_camera_input_transform", "deinterlace-method"), row.method);
            got = pal.GetDeinterlaceMethod();
        }
        EXPECT_EQ(got, row.got);
    }
    EXPECT_EQ(log.Count(LOG_ERR, "Deinterlace method median-motion not recognized. Ignoring"), 2u);
    EXPECT_FALSE(log.ContainsText("Deinterlace method high-motion"));

    EXPECT_TRUE(PropertyOf<gboolean>(ntsc, "camera_input_transform", "input-crop"));
    for (bool crop : { false, true }) {
        ntsc.SetInputCrop(crop);
        pal.SetInputCrop(crop);
        EXPECT_EQ(PropertyOf<gboolean>(ntsc, "camera_input_transform", "input-crop"), crop);
        EXPECT_EQ(PropertyOf<gboolean>(pal, "pal_camera_input_transform", "input-crop"), crop);
    }
}

TEST(InputMuxPipeline, RepublishesWhicheverInputItListensToWhilePlaying)
{
    VideoDaemon::TestInputPipeline pattern; // black
    VideoDaemon::NtscCameraInputPipeline camera; // a moving picture
    VideoDaemon::InputMuxPipeline mux;
    EXPECT_EQ(mux.GetSinkName(), "input_mux_sink");
    EXPECT_EQ(mux.GetSourceName(), "input_mux_source");
    Consumer consumer("mux_check_src");
    for (VideoDaemon::Pipeline* p :
        std::initializer_list<VideoDaemon::Pipeline*> { &pattern, &camera, &mux, &consumer })
        ASSERT_TRUE(p->Launch(false, true, false));
    ASSERT_TRUE(mux.ListenTo(&pattern, "", ""));
    ASSERT_TRUE(consumer.ListenTo(&mux, "", ""));
    // Listeners first, so the pattern's first frame gets through (see
    // ExpectPublishes640x480Rgba).
    ASSERT_EQ(consumer.SetState(GST_STATE_PLAYING, 0), 0);
    ASSERT_EQ(mux.SetState(GST_STATE_PLAYING, 0), 0);
    for (VideoDaemon::Pipeline* p :
        std::initializer_list<VideoDaemon::Pipeline*> { &pattern, &camera, &mux, &consumer })
        ASSERT_EQ(p->SetState(GST_STATE_PLAYING), 0);

    GstSamplePtr sample(consumer.Pull());
    ASSERT_TRUE(sample);
    EXPECT_LT(MeanColour(sample.get()), 5.0);

    ASSERT_TRUE(mux.ListenTo(&camera, "", ""));
    bool picture = false;
    for (int i = 0; i < 30 && !picture; ++i) {
        GstSamplePtr next(consumer.Pull());
        ASSERT_TRUE(next);
        picture = MeanColour(next.get()) > 20.0;
        VideoFormat format = FormatOf(next.get());
        EXPECT_EQ(format.width, 640);
        EXPECT_EQ(format.height, 480);
    }
    EXPECT_TRUE(picture);
    for (VideoDaemon::Pipeline* p :
        std::initializer_list<VideoDaemon::Pipeline*> { &consumer, &mux, &camera, &pattern })
        p->SetState(GST_STATE_NULL);
}

TEST_F(CameraDeathTest, ControlsWithoutTheTransformEndTheProcess)
{
    VideoDaemon::NtscCameraInputPipeline ntsc_camera;
    VideoDaemon::PalCameraInputPipeline pal_camera;
    // A camera whose description lacks the transform element.
    WithDescription<VideoDaemon::NtscCameraInputPipeline> stripped("fakesrc ! fakesink");
    ASSERT_TRUE(stripped.Launch(false, false, false));

    const std::string ntsc = "VideoDaemon::NtscCameraInputPipeline::";
    const std::string pal = "VideoDaemon::PalCameraInputPipeline::";
    const std::string in_ntsc = "\\(camera_input_transform\\).*src/pipelines/ntsc_camera_input_pipeline.cpp";
    const std::string in_pal
        = "\\(pal_camera_input_transform\\).*src/pipelines/pal_camera_input_pipeline.cpp";
    const std::string assertion = ":[0-9]+:.*assertion failed: \\(element\\)";
    const struct {
        std::function<void()> control;
        std::string expected;
    } rows[] = {
        { [&] { ntsc_camera.SetInputCrop(true); },
            "<3>void " + ntsc + "SetInputCrop\\(bool\\): pipeline == NULL " + in_ntsc + assertion },
        { [&] { ntsc_camera.SetDeinterlaceMethod("low-motion"); },
            "void " + ntsc + "SetDeinterlaceMethod\\(const string&\\): pipeline == NULL " + in_ntsc
                + assertion },
        { [&] { ntsc_camera.GetDeinterlaceMethod(); },
            "std::__cxx11::string " + ntsc + "GetDeinterlaceMethod\\(\\): pipeline == NULL " + in_ntsc },
        { [&] { pal_camera.SetInputCrop(false); },
            "void " + pal + "SetInputCrop\\(bool\\): pipeline == NULL " + in_pal + assertion },
        { [&] { pal_camera.SetDeinterlaceMethod("low-motion"); },
            "void " + pal + "SetDeinterlaceMethod\\(std::__cxx11::string\\): pipeline == NULL " + in_pal },
        { [&] { pal_camera.GetDeinterlaceMethod(); },
            "std::__cxx11::string " + pal + "GetDeinterlaceMethod\\(\\) const: pipeline == NULL " + in_pal },
        { [&] { stripped.SetInputCrop(true); },
            "<3>void " + ntsc + "SetInputCrop\\(bool\\): element == NULL " + in_ntsc + assertion },
    };
    for (const auto& row : rows)
        EXPECT_DEATH(
            {
                LogToStderr();
                row.control();
            },
            row.expected);
}
