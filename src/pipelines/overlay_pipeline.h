// Draws the on-screen SVG overlay over the processed picture; one instance per name, fed by a render thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

class OverlayPipeline : public Pipeline
{
public:
    // `name` is spliced into the interpipe and queue names, so that
    // instances can run side by side.
    explicit OverlayPipeline(const std::string& name);
    ~OverlayPipeline() override;

    // Starts the render thread, then launches. Call once per instance: a
    // second render thread while one runs terminates the process.
    bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals) override;
    bool TearDown() override;
    std::string GetDescription() override { return description; }
    std::string GetSinkName() override { return sink_name; }
    std::string GetSourceName() override { return source_name; }

    bool EnableOverlay(bool enable);
    // Queues a whole SVG document (moved out of `svg`) for the render
    // thread. At most two wait; a third drops the oldest.
    void UpdateSvgData(std::string& svg);

private:
    static void RenderTask(OverlayPipeline* self);

    std::string description;
    std::string source_name;
    std::string sink_name;

    // Guards only the queue: the document is handed to the element
    // outside it, so a slow parse never holds up UpdateSvgData.
    std::mutex svg_mutex;
    std::condition_variable svg_ready;
    std::deque<std::string> svg_queue;
    bool stopping = false;
    std::thread render_thread;

    // Keeps the render thread's element lookup apart from the main loop
    // replacing or releasing the pipeline.
    std::mutex pipeline_mutex;
};

} // namespace VideoDaemon
