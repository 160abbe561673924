// Camera, test-pattern and input-mux pipelines on the host stand-ins.
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
    SamplePtr sample(consumer.Pull());
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

gint DeinterlaceMethodOf(VideoDaemon::Pipeline& pipeline, const char* transform)
{
    gint value = -1;
    g_object_get(ElementOf(pipeline, transform).get(), "deinterlace-method", &value, nullptr);
    return value;
}

gboolean BooleanOf(VideoDaemon::Pipeline& pipeline, const char* element, const char* property)
{
    gboolean value = FALSE;
    g_object_get(ElementOf(pipeline, element).get(), property, &value, nullptr);
    return value;
}

class CameraDeathTest : public ::testing::Test
{
protected:
    void SetUp() override { GstTest::UseFreshProcessDeathTests(); }
};

} // namespace

TEST(TestInputPipeline, PublishesTheTestPatternAs640x480Rgba)
{
    VideoDaemon::TestInputPipeline input;
    EXPECT_EQ(input.GetSinkName(), "test_input_sink");
    EXPECT_EQ(input.GetSourceName(), "test_input_src");
    ASSERT_TRUE(input.Launch(false, true, false));
    ExpectPublishes640x480Rgba(input);
}

TEST(NtscCameraInputPipeline, PublishesTheCameraAs640x480RgbaAndCountsItsFrames)
{
    VideoDaemon::NtscCameraInputPipeline camera;
    EXPECT_EQ(camera.GetSinkName(), "camera_input_video");
    EXPECT_EQ(camera.GetSourceName(), "camera_input_source");
    EXPECT_EQ(camera.GetQueueStates().count("vbi_queue"), 1u);
    ASSERT_TRUE(camera.Launch(true, true, true));
    ExpectPublishes640x480Rgba(camera);
    EXPECT_GT(camera.GetProbeRates().at("ntsc_cam"), 0u);
}

TEST(PalCameraInputPipeline, PublishesTheCameraRestampedAs2997Fps)
{
    VideoDaemon::PalCameraInputPipeline camera;
    EXPECT_EQ(camera.GetSinkName(), "pal_camera_sink");
    EXPECT_EQ(camera.GetSourceName(), "pal_camera_input_source");
    ASSERT_TRUE(camera.Launch(false, true, false));
    ExpectPublishes640x480Rgba(camera);
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

    SamplePtr sample(consumer.Pull());
    ASSERT_TRUE(sample);
    EXPECT_LT(MeanColour(sample.get()), 5.0);

    ASSERT_TRUE(mux.ListenTo(&camera, "", ""));
    bool picture = false;
    for (int i = 0; i < 30 && !picture; ++i) {
        SamplePtr next(consumer.Pull());
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

TEST(NtscCameraInputPipeline, DeinterlaceMethodsSetTheTransformAndTheTopFieldFlag)
{
    LogCapture log;
    VideoDaemon::NtscCameraInputPipeline camera;
    ASSERT_TRUE(camera.Launch(false, false, false));

    camera.SetDeinterlaceMethod("high-motion");
    EXPECT_EQ(DeinterlaceMethodOf(camera, "camera_input_transform"), 1);
    EXPECT_TRUE(BooleanOf(camera, "vbi_read", "set-tff-flag"));
    EXPECT_EQ(camera.GetDeinterlaceMethod(), "high-motion");

    camera.SetDeinterlaceMethod("low-motion");
    EXPECT_EQ(DeinterlaceMethodOf(camera, "camera_input_transform"), 0);
    EXPECT_FALSE(BooleanOf(camera, "vbi_read", "set-tff-flag"));
    EXPECT_EQ(camera.GetDeinterlaceMethod(), "low-motion");

    // The getter names value 2 differently from the setter.
    camera.SetDeinterlaceMethod("medium-motion");
    EXPECT_EQ(DeinterlaceMethodOf(camera, "camera_input_transform"), 2);
    EXPECT_FALSE(BooleanOf(camera, "vbi_read", "set-tff-flag"));
    EXPECT_EQ(camera.GetDeinterlaceMethod(), "median-motion");

    camera.SetDeinterlaceMethod("high-motion");
    camera.SetDeinterlaceMethod(camera.GetDeinterlaceMethod());
    camera.SetDeinterlaceMethod("median-motion");
    EXPECT_EQ(log.Count(LOG_ERR, "Deinterlace method median-motion not recognized. Ignoring"), 1u);
    EXPECT_EQ(DeinterlaceMethodOf(camera, "camera_input_transform"), 1);
    EXPECT_TRUE(BooleanOf(camera, "vbi_read", "set-tff-flag"));
    EXPECT_FALSE(log.ContainsText("Deinterlace method high-motion"));
}

TEST(NtscCameraInputPipeline, InputCropIsSwitchedOnTheTransform)
{
    VideoDaemon::NtscCameraInputPipeline camera;
    ASSERT_TRUE(camera.Launch(false, false, false));
    EXPECT_TRUE(BooleanOf(camera, "camera_input_transform", "input-crop"));
    camera.SetInputCrop(false);
    EXPECT_FALSE(BooleanOf(camera, "camera_input_transform", "input-crop"));
    camera.SetInputCrop(true);
    EXPECT_TRUE(BooleanOf(camera, "camera_input_transform", "input-crop"));
}

TEST(PalCameraInputPipeline, DeinterlaceMethodsAndInputCropSetTheTransform)
{
    LogCapture log;
    VideoDaemon::PalCameraInputPipeline camera;
    ASSERT_TRUE(camera.Launch(false, false, false));
    camera.SetDeinterlaceMethod("high-motion");
    EXPECT_EQ(DeinterlaceMethodOf(camera, "pal_camera_input_transform"), 1);
    camera.SetDeinterlaceMethod("medium-motion");
    EXPECT_EQ(camera.GetDeinterlaceMethod(), "median-motion");
    camera.SetDeinterlaceMethod("median-motion");
    EXPECT_TRUE(log.Contains(LOG_ERR, "Deinterlace method median-motion not recognized. Ignoring"));
    EXPECT_EQ(DeinterlaceMethodOf(camera, "pal_camera_input_transform"), 2);
    camera.SetDeinterlaceMethod("low-motion");
    EXPECT_EQ(camera.GetDeinterlaceMethod(), "low-motion");

    camera.SetInputCrop(false);
    EXPECT_FALSE(BooleanOf(camera, "pal_camera_input_transform", "input-crop"));
}

TEST_F(CameraDeathTest, NtscControlsBeforeLaunchEndTheProcess)
{
    VideoDaemon::NtscCameraInputPipeline camera;
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.SetInputCrop(true);
        },
        "<3>void VideoDaemon::NtscCameraInputPipeline::SetInputCrop\\(bool\\): pipeline == NULL "
        "\\(camera_input_transform\\).*src/pipelines/ntsc_camera_input_pipeline.cpp:[0-9]+:.*assertion "
        "failed: \\(element\\)");
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.SetDeinterlaceMethod("low-motion");
        },
        "void VideoDaemon::NtscCameraInputPipeline::SetDeinterlaceMethod\\(const string&\\): pipeline == "
        "NULL "
        "\\(camera_input_transform\\).*src/pipelines/ntsc_camera_input_pipeline.cpp:[0-9]+:.*assertion "
        "failed: \\(element\\)");
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.GetDeinterlaceMethod();
        },
        "std::__cxx11::string VideoDaemon::NtscCameraInputPipeline::GetDeinterlaceMethod\\(\\): pipeline == "
        "NULL "
        "\\(camera_input_transform\\).*src/pipelines/ntsc_camera_input_pipeline.cpp");
}

TEST_F(CameraDeathTest, PalControlsBeforeLaunchEndTheProcess)
{
    VideoDaemon::PalCameraInputPipeline camera;
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.SetInputCrop(false);
        },
        "void VideoDaemon::PalCameraInputPipeline::SetInputCrop\\(bool\\): pipeline == NULL "
        "\\(pal_camera_input_transform\\).*src/pipelines/pal_camera_input_pipeline.cpp:[0-9]+:.*assertion "
        "failed: \\(element\\)");
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.SetDeinterlaceMethod("low-motion");
        },
        "void VideoDaemon::PalCameraInputPipeline::SetDeinterlaceMethod\\(std::__cxx11::string\\): pipeline "
        "== NULL "
        "\\(pal_camera_input_transform\\).*src/pipelines/pal_camera_input_pipeline.cpp");
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.GetDeinterlaceMethod();
        },
        "std::__cxx11::string VideoDaemon::PalCameraInputPipeline::GetDeinterlaceMethod\\(\\) const: "
        "pipeline == "
        "NULL \\(pal_camera_input_transform\\).*src/pipelines/pal_camera_input_pipeline.cpp");
}

TEST_F(CameraDeathTest, MissingTransformEndsTheProcess)
{
    // A camera whose description lacks the transform element.
    class Stripped : public VideoDaemon::NtscCameraInputPipeline
    {
        std::string GetDescription() override { return "fakesrc ! fakesink"; }
    };
    Stripped camera;
    ASSERT_TRUE(camera.Launch(false, false, false));
    EXPECT_DEATH(
        {
            LogToStderr();
            camera.SetInputCrop(true);
        },
        "<3>void VideoDaemon::NtscCameraInputPipeline::SetInputCrop\\(bool\\): element == NULL "
        "\\(camera_input_transform\\).*assertion failed: \\(element\\)");
}
