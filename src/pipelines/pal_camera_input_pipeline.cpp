// The PAL analogue camera: capture, deinterlace and scale to 640x480 RGBA re-stamped as 29.97 fps.
#include "pipelines/pal_camera_input_pipeline.h"

#include "common/function_signature.h"
#include "log.h"
#include "pipelines/deinterlace_method.h"

namespace VideoDaemon
{

namespace
{
const char kTransformName[] = "pal_camera_input_transform";
}

std::string PalCameraInputPipeline::GetDescription()
{
    // 720x576 capture with a 692x576 crop window at (28, 28). Consumers see
    // the same caps as from the NTSC camera, whatever the real 25 fps.
    return "imxv4l2videosrc name=pal_camera_input_source fps=25/1 "
           "          crop-meta-x=28 crop-meta-width=692 crop-meta-y=28 crop-meta-height=576 "
           "          do-timestamp=true "
           "    ! video/x-raw, format=UYVY,width=720,height=576,framerate=25/1, "
           "interlace-mode=interleaved,device-mode=interleaved "
           "    ! queue name=pal_queue leaky=downstream max-size-buffers=1 "
           "    ! imxipuvideotransform name=pal_camera_input_transform deinterlace=true input-crop=true "
           "    ! video/x-raw, format=RGBA,width=640,height=480 "
           "    ! progressive-caps-filter "
           "    ! capssetter caps=video/x-raw,width=640,height=480,framerate=30000/1001,multiview-mode=mono,"
           "interlace-mode=progressive,pixel-aspect-ratio=1/1,format=RGBA "
           "    ! interpipesink max-buffers=1 name=pal_camera_sink "
           "          caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true";
}

void PalCameraInputPipeline::SetInputCrop(bool enable)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kTransformName);
    g_assert(element);
    g_object_set(element.get(), "input-crop", static_cast<gboolean>(enable), nullptr);
}

void PalCameraInputPipeline::SetDeinterlaceMethod(std::string method)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kTransformName);
    g_assert(element);

    const std::optional<int> value = DeinterlaceMethodValue(method);
    if (!value) {
        Log::Error("Deinterlace method %s not recognized. Ignoring", method.c_str());
        return;
    }
    g_object_set(element.get(), "deinterlace-method", *value, nullptr);
}

std::string PalCameraInputPipeline::GetDeinterlaceMethod() const
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kTransformName);
    g_assert(element);

    gint value = -1;
    g_object_get(element.get(), "deinterlace-method", &value, nullptr);
    return DeinterlaceMethodName(value);
}

} // namespace VideoDaemon
