// The NTSC analogue camera: capture, VBI read-out, deinterlace and scale to 640x480 RGBA.
#include "pipelines/ntsc_camera_input_pipeline.h"

#include "common/function_signature.h"
#include "log.h"
#include "pipelines/deinterlace_method.h"

namespace VideoDaemon
{

namespace
{
const char kTransformName[] = "camera_input_transform";
const char kVbiReaderName[] = "vbi_read";
} // namespace

NtscCameraInputPipeline::NtscCameraInputPipeline()
{
    queue_states["vbi_queue"] = kQueueUnknown;
    CreateFramerateProbe("ntsc_cam", "camera_input_video", "sink");
}

std::string NtscCameraInputPipeline::GetDescription()
{
    // 720x504 interleaved capture with a 672x504 crop window at (24, 24)
    // carried as metadata; the IPU deinterlaces, crops and scales.
    return "imxv4l2videosrc name=camera_input_source fps=30000/1001 "
           "          crop-meta-x=24 crop-meta-width=672 crop-meta-y=24 crop-meta-height=504 "
           "          do-timestamp=true "
           "    ! video/x-raw, format=UYVY,width=720,height=504,framerate=30000/1001, "
           "interlace-mode=interleaved,device-mode=interleaved "
           "    ! vbiread name=vbi_read line-dup-enabled=false "
           "          line-dup-top-start=3 line-dup-top-stop=33 line-dup-bot-start=433 line-dup-bot-stop=480 "
           "          first-top-data-line=0 num-top-data-lines=30 first-bot-data-line=433 "
           "num-bot-data-lines=37 "
           "          set-tff-flag=true "
           "    ! queue name=vbi_queue leaky=downstream max-size-buffers=1 "
           "    ! imxipuvideotransform name=camera_input_transform deinterlace=true input-crop=true "
           "    ! video/x-raw, format=RGBA,width=640,height=480 "
           "    ! progressive-caps-filter "
           "    ! capssetter caps=video/x-raw,pixel-aspect-ratio=1/1,framerate=30000/1001 "
           "    ! interpipesink max-buffers=1 name=camera_input_video "
           "          caps=video/x-raw,width=640,height=480,framerate=30000/1001 forward-events=true";
}

void NtscCameraInputPipeline::SetInputCrop(bool enable)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kTransformName);
    g_assert(element);
    g_object_set(element.get(), "input-crop", static_cast<gboolean>(enable), nullptr);
}

void NtscCameraInputPipeline::SetDeinterlaceMethod(const std::string& method)
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kTransformName);
    g_assert(element);

    const std::optional<int> value = DeinterlaceMethodValue(method);
    if (!value) {
        Log::Error("Deinterlace method %s not recognized. Ignoring", method.c_str());
        return;
    }
    // The VBI reader marks the top field first for "high-motion" only.
    const gboolean top_field_first = *value == 1;

    g_object_set(element.get(), "deinterlace-method", *value, nullptr);
    element = FindElement(VIDEOD_FUNCTION, kVbiReaderName);
    g_assert(element);
    g_object_set(element.get(), "set-tff-flag", top_field_first, nullptr);
}

std::string NtscCameraInputPipeline::GetDeinterlaceMethod()
{
    GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, kTransformName);
    g_assert(element);

    gint value = -1;
    g_object_get(element.get(), "deinterlace-method", &value, nullptr);
    return DeinterlaceMethodName(value);
}

} // namespace VideoDaemon
