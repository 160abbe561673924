// Picture processing between the selected input and every consumer: roll filter, levelling, zoom and pan.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class GpuPipeline : public Pipeline
{
public:
    // The camera roll in degrees, relayed from the levelling element (on
    // the main loop, like the plumbline data).
    sigc::signal<void, double> signal_camera_roll;
    // The levelling element's five plumbline values, in its order.
    sigc::signal<void, double, double, double, double, double> signal_plumbline_data;

    GpuPipeline();

    // The base launch, then the default zoom and the camera-roll relay.
    bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals) override;
    std::string GetDescription() override;
    std::string GetSinkName() override { return "gpu_sink"; }
    std::string GetSourceName() override { return "gpu_source"; }

    void SetRotationEnabled(bool enabled);
    void SetRotationOverrideAngle(int angle);
    void SetRotationSteps(uint32_t steps);
    void SetRotationThreshold(uint32_t threshold);
    void SetRotationNumFrames(uint32_t num_frames);
    void SetRollFilterCoeffs(const std::string& coeffs);
    int SetZoom(double zoom);
    int SetDslMaxZoomIn(double zoom);
    int SetDslZoomPeriod(uint32_t period);
    int SetDslZoomDelay(uint32_t delay);
    int SetDslHysteresis(uint32_t hysteresis);
    int SetPanX(double pan);
    int SetPanY(double pan);
    int SetPlumblineEnabled(bool enabled);
    // true connects the plumbline relay (again on every call); false
    // leaves any earlier connection in place.
    bool EnablePlumblineSignals(bool enable);
    bool SetDslAnimationDuration(uint32_t duration);
    bool SetDslBackgroundMode(uint32_t mode);
    bool SetMaxTiltAngle(int angle);
    int SetImageSharpen(bool sharpen);
    int SetImageSharpenAmount(double amount);
    int SetDslAutoZoomOverride(bool override_zoom);
    // [default, min, max]; any other size is ignored.
    void SetZoomLevels(const std::vector<float>& levels);

    bool GetRotationEnabled();
    int GetRotationOverrideAngle();
    uint32_t GetRotationSteps();
    double GetZoom();
    // The zoom of the current levels' [default, min, max].
    double GetZoomDefault();
    double GetZoomMin();
    double GetZoomMax();
    double GetDslMaxZoomIn();
    double GetPanX();
    double GetPanXMin();
    double GetPanXMax();
    double GetPanY();
    double GetPanYMin();
    double GetPanYMax();
    double GetCameraRoll();
    double GetCameraTilt();
    double GetDisplayRoll();
    double GetImageSharpen();
    double GetImageSharpenAmount();
    bool GetDslAutoZoomOverride();

    std::chrono::system_clock::time_point GetCreationTime() const { return creation_time; }

private:
    static void OnCameraRollChanged(GstElement* dsl, gdouble roll, gpointer user_data);
    static void OnPlumblineData(
        GstElement* dsl, gdouble a, gdouble b, gdouble c, gdouble d, gdouble e, gpointer user_data);

    std::chrono::system_clock::time_point creation_time;
    // [default, min, max]
    std::vector<float> zoom_levels;
};

} // namespace VideoDaemon
