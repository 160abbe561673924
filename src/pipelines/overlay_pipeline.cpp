// Draws the on-screen SVG overlay over the processed picture; one instance per name, fed by a render thread.
#include "pipelines/overlay_pipeline.h"

#include <regex>
#include <utility>

#include "common/function_signature.h"
#include "log.h"

namespace VideoDaemon
{

namespace
{

// "%" stands for the instance name. The IPU converts to BGRA, the SVG is
// stretched over the frame, and the overlaid picture leaves through a
// one-buffer queue of at most 50 ms that drops the oldest buffer; the sink
// neither syncs nor changes state asynchronously.
const char kTemplate[]
    = "interpipesrc name=svg_overlay_source_% format=time max-buffers=1 leaky-type=2 "
      "    ! imxipuvideotransform name=video_transform_overlay "
      "    ! video/x-raw, format=BGRA "
      "    ! rsvgoverlaytarnwell name=svg_overlay fit-to-frame=true enabled=true svg_overlay.src_first "
      "    ! queue name=%_overlay_queue max-size-buffers=1 max-size-time=50000000 leaky=downstream "
      "    ! interpipesink max-buffers=1 sync=false async=false name=svg_overlay_sink_first_%";

const char kOverlayElement[] = "svg_overlay";

} // namespace

OverlayPipeline::OverlayPipeline(const std::string& name)
    : description(std::regex_replace(kTemplate, std::regex("%"), name))
    , source_name("svg_overlay_source_" + name)
    , sink_name("svg_overlay_sink_first_" + name)
{
    CreateFramerateProbe("overlay_" + name, sink_name, "sink");
}

OverlayPipeline::~OverlayPipeline()
{
    // The render thread would otherwise outlive the queue it waits on.
    {
        std::lock_guard<std::mutex> lock(svg_mutex);
        stopping = true;
    }
    svg_ready.notify_all();
    if (render_thread.joinable())
        render_thread.join();
}

bool OverlayPipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    // Assigning over a joinable thread terminates the process.
    render_thread = std::thread(&OverlayPipeline::RenderTask, this);
    std::lock_guard<std::mutex> lock(pipeline_mutex);
    return Pipeline::Launch(attach_probes, connect_bus, connect_queue_signals);
}

bool OverlayPipeline::TearDown()
{
    std::lock_guard<std::mutex> lock(pipeline_mutex);
    return Pipeline::TearDown();
}

bool OverlayPipeline::EnableOverlay(bool enable)
{
    return SetElementProperty(VIDEOD_FUNCTION, kOverlayElement, "enabled", static_cast<gboolean>(enable));
}

void OverlayPipeline::UpdateSvgData(std::string& svg)
{
    {
        std::lock_guard<std::mutex> lock(svg_mutex);
        if (svg_queue.size() > 1) {
            Log::Warning("%s: Reached maximum SVG buffers, drop svg", VIDEOD_SIGNATURE);
            svg_queue.pop_front();
        }
        svg_queue.push_back(std::move(svg));
    }
    svg_ready.notify_one();
}

void OverlayPipeline::RenderTask(OverlayPipeline* self)
{
    for (;;) {
        std::string svg;
        {
            std::unique_lock<std::mutex> lock(self->svg_mutex);
            self->svg_ready.wait(lock, [self] { return self->stopping || !self->svg_queue.empty(); });
            if (self->stopping)
                return;
            svg = std::move(self->svg_queue.front());
            self->svg_queue.pop_front();
        }

        GstPtr<GstElement> element;
        {
            std::lock_guard<std::mutex> lock(self->pipeline_mutex);
            element = self->FindElement(VIDEOD_FUNCTION, kOverlayElement);
        }
        if (!element)
            continue;
        // The element parses the document here and draws it on the
        // following frames.
        g_object_set(element.get(), "data", svg.c_str(), nullptr);
    }
}

} // namespace VideoDaemon
