// Picture processing between the selected input and every consumer: roll filter, levelling, zoom and pan.
#include "pipelines/gpu_pipeline.h"

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// Handler group of the levelling element's relays.
const char kRelays[] = "levelling relays";

const char kDsl[] = "dsl";
const char kTiling[] = "gpu";
const char kMotionFilter[] = "motion_filter";

const char* EnabledText(bool enabled)
{
    return enabled ? "Enabled" : "Disabled";
}

} // namespace

GpuPipeline::GpuPipeline()
    : creation_time(std::chrono::system_clock::now())
    , zoom_levels { 1.0f, 1.0f, 4.0f }
{
    CreateFramerateProbe("gpu", "gpu_sink", "sink");
    queue_states["gpu_output_queue"] = kQueueUnknown;
    queue_states["gpu_input_queue"] = kQueueUnknown;
}

std::string GpuPipeline::GetDescription()
{
    // Input: at most one buffer, dropped on overflow. Roll filter trivial,
    // levelling and plumbline off at start, continuous rotation after 15
    // frames beyond 7 degrees. Both queues drop the oldest buffer when full.
    return "interpipesrc name=gpu_source format=time stream-sync=0 allow-renegotiation=false max-buffers=1 "
           "leaky-type=2 "
           "    ! queue name=gpu_input_queue max-size-buffers=6 leaky=downstream "
           "    ! tarnwell-motion-filter name=motion_filter roll-filter-coeffs=\"1 1\" "
           "    ! tarnwell-dsl name=dsl silent=false plumbline-enabled=false dsl-enabled=false "
           "          rotation-steps=0 rotation-threshold=7 rotation-frames-trigger=15 "
           "    ! tarnwell-tiling name=gpu background-mode=2 silent=false gpu.src "
           "    ! queue name=gpu_output_queue leaky=downstream max-size-buffers=4 "
           "    ! interpipesink name=gpu_sink max-buffers=1 sync=false forward-events=true";
}

bool GpuPipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    const bool result = Pipeline::Launch(attach_probes, connect_bus, connect_queue_signals);
    if (!pipeline) {
        Log::Error("%s: !pipeline", VIDEOD_SIGNATURE);
        return false;
    }

    SetZoom(zoom_levels[0]);

    GstPtr<GstElement> dsl = FindElement(VIDEOD_FUNCTION, kDsl);
    if (!dsl) {
        Log::Error("[GPU Pipeline]: DSL plugin is NULL");
        return false;
    }
    ConnectHandler(kRelays, dsl.get(), "camera-roll-changed", G_CALLBACK(&GpuPipeline::OnCameraRollChanged));
    return result;
}

// The levelling element signals on its streaming thread: both relays emit on
// the main loop.
void GpuPipeline::OnCameraRollChanged(GstElement*, gdouble roll, gpointer user_data)
{
    auto* self = static_cast<GpuPipeline*>(user_data);
    self->PostToMainLoop([self, roll] { self->signal_camera_roll.emit(roll); });
}

void GpuPipeline::OnPlumblineData(
    GstElement*, gdouble a, gdouble b, gdouble c, gdouble d, gdouble e, gpointer user_data)
{
    auto* self = static_cast<GpuPipeline*>(user_data);
    self->PostToMainLoop([self, a, b, c, d, e] { self->signal_plumbline_data.emit(a, b, c, d, e); });
}

void GpuPipeline::SetRotationEnabled(bool enabled)
{
    SetElementProperty(VIDEOD_FUNCTION, kDsl, "dsl-enabled", static_cast<gboolean>(enabled));
}

void GpuPipeline::SetRotationOverrideAngle(int angle)
{
    // The rotation handler keeps the angle in range.
    SetElementProperty(VIDEOD_FUNCTION, kDsl, "rotation-override", static_cast<gint>(angle));
}

void GpuPipeline::SetRotationSteps(uint32_t steps)
{
    if (steps > 2) {
        Log::Warning("Invalid rotations steps mode:%u", steps);
        return;
    }
    SetElementProperty(VIDEOD_FUNCTION, kDsl, "rotation-steps", static_cast<guint>(steps));
}

void GpuPipeline::SetRotationThreshold(uint32_t threshold)
{
    if (threshold > 30) {
        Log::Warning("Rotation is limited to 30 degrees, attempted to set:%u", threshold);
        return;
    }
    SetElementProperty(VIDEOD_FUNCTION, kDsl, "rotation-threshold", static_cast<guint>(threshold));
}

void GpuPipeline::SetRotationNumFrames(uint32_t num_frames)
{
    if (num_frames > 240) {
        Log::Warning("Rotation num frames has max value 240, attempted to set:%u", num_frames);
        return;
    }
    SetElementProperty(VIDEOD_FUNCTION, kDsl, "rotation-frames-trigger", static_cast<guint>(num_frames));
}

void GpuPipeline::SetRollFilterCoeffs(const std::string& coeffs)
{
    if (coeffs.empty()) {
        Log::Warning("Roll filter coefficients string empty");
        return;
    }
    SetElementProperty(VIDEOD_FUNCTION, kMotionFilter, "roll-filter-coeffs", coeffs.c_str());
}

int GpuPipeline::SetZoom(double zoom)
{
    if (zoom < zoom_levels[1] || zoom > zoom_levels[2]) {
        Log::Warning("Zoom value of %f is out of range (%f - %f)", zoom, static_cast<double>(zoom_levels[1]),
            static_cast<double>(zoom_levels[2]));
        return -1;
    }
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "zoom", static_cast<gdouble>(zoom)) ? 0 : -1;
}

int GpuPipeline::SetDslMaxZoomIn(double zoom)
{
    // The accepted floor is 0.95 although the message names .99.
    if (zoom > 1.75 || zoom < 0.95) {
        Log::Warning("Zoom value of %f is out of range (.99 - 1.75)", zoom);
        return -1;
    }
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "max-dsl-zoom-in", static_cast<gdouble>(zoom)) ? 0
                                                                                                       : -1;
}

int GpuPipeline::SetDslZoomPeriod(uint32_t period)
{
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "dsl-zoom-period", static_cast<guint>(period)) ? 0
                                                                                                       : -1;
}

int GpuPipeline::SetDslZoomDelay(uint32_t delay)
{
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "dsl-zoom-delay", static_cast<guint>(delay)) ? 0 : -1;
}

int GpuPipeline::SetDslHysteresis(uint32_t hysteresis)
{
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "dsl-hysteresis", static_cast<guint>(hysteresis))
        ? 0
        : -1;
}

int GpuPipeline::SetPanX(double pan)
{
    // The element clamps the pan to the range of the current zoom.
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-x", static_cast<gdouble>(pan)) ? 0 : -1;
}

int GpuPipeline::SetPanY(double pan)
{
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-y", static_cast<gdouble>(pan)) ? 0 : -1;
}

int GpuPipeline::SetPlumblineEnabled(bool enabled)
{
    Log::Info("[GPU pipeline] Set 'Plumbline': [%s]", EnabledText(enabled));
    if (!SetElementProperty(VIDEOD_FUNCTION, kDsl, "plumbline-enabled", static_cast<gboolean>(enabled))) {
        Log::Error("[GPU pipeline] Somehow DSL plugin is NULL");
        return -1;
    }
    return 0;
}

bool GpuPipeline::EnablePlumblineSignals(bool enable)
{
    GstPtr<GstElement> dsl = FindElement(VIDEOD_FUNCTION, kDsl);
    if (!dsl)
        return false;
    if (enable)
        ConnectHandler(kRelays, dsl.get(), "plumbline-data", G_CALLBACK(&GpuPipeline::OnPlumblineData));
    return true;
}

bool GpuPipeline::SetDslAnimationDuration(uint32_t duration)
{
    return SetElementProperty(VIDEOD_FUNCTION, kDsl, "animation-duration", static_cast<guint>(duration));
}

bool GpuPipeline::SetDslBackgroundMode(uint32_t mode)
{
    return SetElementProperty(VIDEOD_FUNCTION, kTiling, "background-mode", static_cast<guint>(mode));
}

bool GpuPipeline::SetMaxTiltAngle(int angle)
{
    return SetElementProperty(VIDEOD_FUNCTION, kDsl, "max-tilt-angle", static_cast<gint>(angle));
}

int GpuPipeline::SetImageSharpen(bool sharpen)
{
    Log::Info("[GPU pipeline] Set 'Sharpen': [%s]", EnabledText(sharpen));
    if (!SetElementProperty(VIDEOD_FUNCTION, kTiling, "sharpen", static_cast<gboolean>(sharpen))) {
        Log::Error("[GPU pipeline] Somehow DSL plugin is NULL");
        return -1;
    }
    return 0;
}

int GpuPipeline::SetImageSharpenAmount(double amount)
{
    Log::Info("[GPU pipeline] Set 'Sharpen Amount': [%f]", amount);
    if (!SetElementProperty(VIDEOD_FUNCTION, kTiling, "sharpen-amount", static_cast<gdouble>(amount))) {
        Log::Error("[GPU pipeline] Somehow DSL plugin is NULL");
        return -1;
    }
    return 0;
}

int GpuPipeline::SetDslAutoZoomOverride(bool override_zoom)
{
    Log::Info("[GPU pipeline] Set 'DSL Auto Zoom Override': [%s]", override_zoom ? "true" : "false");
    if (!SetElementProperty(
            VIDEOD_FUNCTION, kTiling, "dsl-auto-zoom-override", static_cast<gboolean>(override_zoom))) {
        Log::Error("[GPU pipeline] Somehow DSL plugin is NULL");
        return -1;
    }
    return 0;
}

void GpuPipeline::SetZoomLevels(const std::vector<float>& levels)
{
    if (levels.size() != 3)
        return;
    zoom_levels = levels;
    SetZoom(zoom_levels[0]);
}

bool GpuPipeline::GetRotationEnabled()
{
    gboolean value = FALSE;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "dsl-enabled", value) && value;
}

int GpuPipeline::GetRotationOverrideAngle()
{
    gint value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "rotation-override", value) ? value : 0;
}

uint32_t GpuPipeline::GetRotationSteps()
{
    guint value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "rotation-steps", value) ? value : 0;
}

double GpuPipeline::GetZoom()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "zoom", value) ? value : 0;
}

double GpuPipeline::GetZoomDefault()
{
    return zoom_levels[0];
}

double GpuPipeline::GetZoomMin()
{
    return zoom_levels[1];
}

double GpuPipeline::GetZoomMax()
{
    return zoom_levels[2];
}

double GpuPipeline::GetDslMaxZoomIn()
{
    // Written as "max-dsl-zoom-in", read back as the limit in effect.
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "max-dsl-zoom", value) ? value : 0;
}

double GpuPipeline::GetPanX()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-x", value) ? value : 0;
}

double GpuPipeline::GetPanXMin()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-x-min", value) ? value : 0;
}

double GpuPipeline::GetPanXMax()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-x-max", value) ? value : 0;
}

double GpuPipeline::GetPanY()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-y", value) ? value : 0;
}

double GpuPipeline::GetPanYMin()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-y-min", value) ? value : 0;
}

double GpuPipeline::GetPanYMax()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kTiling, "pan-y-max", value) ? value : 0;
}

double GpuPipeline::GetCameraRoll()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "camera-roll", value) ? value : 0;
}

double GpuPipeline::GetCameraTilt()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "camera-tilt", value) ? value : 0;
}

double GpuPipeline::GetDisplayRoll()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "display-roll", value) ? value : 0;
}

// Sharpening is written to the tiling element but read back from the
// levelling element, which reports the value in effect.
double GpuPipeline::GetImageSharpen()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "sharpen", value) ? value : 0;
}

double GpuPipeline::GetImageSharpenAmount()
{
    gdouble value = 0;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "sharpen-amount", value) ? value : 0;
}

bool GpuPipeline::GetDslAutoZoomOverride()
{
    gboolean value = FALSE;
    return GetElementProperty(VIDEOD_FUNCTION, kDsl, "dsl-auto-zoom-override", value) && value;
}

} // namespace VideoDaemon
