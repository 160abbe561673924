// Base of every media pipeline: launch from a description, state, EOS, routing, bus and queue signals.
#pragma once

#include <gst/gst.h>
#include <sigc++/sigc++.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_map>

#include "common/function_signature.h"
#include "common/glib_ptr.h"
#include "common/gst_ptr.h"
#include "common/main_loop_handoff.h"
#include "pipelines/framerate_probe.h"
#include "pipelines/signal_connections.h"

namespace VideoDaemon
{

class Pipeline : public sigc::trackable
{
public:
    // A frame-rate probe on pad `pad_name` of element `element_name`.
    struct ProbeRecord {
        std::string element_name;
        std::string pad_name;
        std::unique_ptr<FramerateProbe> probe;
    };

    // The metrics a daemon launch sets up besides the bus watch: the
    // registered frame-rate probes and the queue notifications.
    struct LaunchFlags {
        bool attach_probes = false;
        bool connect_queue_signals = false;
    };

    // Queue states as stored in queue_states.
    enum QueueState : int32_t { kQueueUnknown = 0, kQueueUnderrun = 1, kQueueOverrun = 2, kQueueRunning = 3 };

    sigc::signal<void, GstState, GstState> signal_state_changed;
    sigc::signal<void, std::string> signal_error;
    sigc::signal<void, std::string> signal_queue_overrun;
    sigc::signal<void, std::string> signal_queue_underrun;
    sigc::signal<void, std::string> signal_queue_running;
    sigc::signal<void> signal_eos;

    Pipeline();
    virtual ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    // Builds (or rebuilds) the pipeline from GetDescription(). True when a
    // pipeline was built and, with connect_bus, its bus connected.
    virtual bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals);
    // How the daemon initialises a pipeline: Launch with the bus connected
    // and the metrics `flags` asks for. 1 when launched, 0 on failure.
    int Initialize(const LaunchFlags& flags);
    virtual std::string GetDescription();
    // Releases the pipeline unless it is PLAYING.
    virtual bool TearDown();
    // The dynamic class name without namespace; names the pipeline in logs.
    virtual std::string GetName();
    // Name of this pipeline's interpipesink, the name consumers listen to.
    virtual std::string GetSinkName();
    // Name of this pipeline's interpipesrc (or its first element).
    virtual std::string GetSourceName();
    virtual bool ConnectBusMessages();
    // Called on the main loop for every element message on the bus.
    virtual void OnElementMessage(const char* source_name, GstMessage* message);

    // 0 on success, -1 on failure. wait_ms 0 does not wait for an
    // asynchronous change; the one-argument form waits up to 1000 ms.
    int SetState(GstState state, unsigned wait_ms);
    int SetState(GstState state);
    // The current state without waiting; GST_STATE_NULL without a pipeline.
    GstState GetState();
    // Sends EOS into the pipeline, optionally waiting up to 2 s for it on
    // the bus. 0 on success, -1 when refused or not drained in time.
    int SendEos(bool wait);
    int WaitForEos(unsigned seconds);
    // Points interpipesrc `source_name` (default GetSourceName()) of this
    // pipeline at `sink_name` (default producer->GetSinkName()) of the
    // producer; a null producer detaches the default source.
    bool ListenTo(Pipeline* producer, std::string sink_name, std::string source_name);
    bool IsListening();
    void ConnectQueueStateSignals();
    void RemoveBusWatch();

    // Registers a frame-rate probe, replacing one of the same name; it is
    // installed by the next Launch(true, ...) or by AttachProbes().
    void CreateFramerateProbe(
        const std::string& name, const std::string& element_name, const std::string& pad_name);
    // Installs every registered probe on the current pipeline; returns the
    // number that could not be installed.
    int AttachProbes();
    void RemoveProbes();
    // Frames per second over the last second, per probe name.
    std::map<std::string, unsigned> GetProbeRates() const;

    bool SendFlushStart();
    bool SendFlushStop(bool reset_time);

    GstPipeline* GetPipeline() const { return pipeline.get(); }
    // The last reported QueueState of every monitored queue.
    std::map<std::string, int32_t> GetQueueStates() const;
    const std::unordered_map<std::string, Pipeline*>& GetListeningTo() const { return listening_to; }
    const std::unordered_map<std::string, Pipeline*>& GetListeners() const { return listeners; }

    // Element lookup and typed property access over a named element of the
    // current pipeline. A missing pipeline or element is logged as
    // "%s: pipeline == NULL (%s)" or "%s: element == NULL (%s)" with the
    // caller's signature (VIDEOD_FUNCTION) and the element name, and nothing
    // is changed: FindElement returns null, the property helpers false.
    GstPtr<GstElement> FindElement(FunctionSignature caller, const std::string& name) const;
    template <typename T>
    bool SetElementProperty(
        FunctionSignature caller, const std::string& name, const char* property, const T& value) const;
    // A std::string `value` takes a string property's text ("" for none).
    template <typename T>
    bool GetElementProperty(
        FunctionSignature caller, const std::string& name, const char* property, T& value) const;

protected:
    // Whether a pipeline is held; logs "%s: pipeline == NULL (%s)" with the
    // caller's signature and `name` when none is.
    bool HasPipeline(FunctionSignature caller, const std::string& name) const;

    // Connects `callback` to `signal` of `instance` (an element of the
    // current pipeline, or its bus), with this pipeline as user data, under
    // `group`. Every handler is disconnected on relaunch, tear-down and
    // destruction; DisconnectHandlers drops one group earlier. False when
    // the signal does not exist, or (bus) without a pipeline.
    bool ConnectHandler(const std::string& group, gpointer instance, const char* signal, GCallback callback);
    bool ConnectBusHandler(const std::string& group, const char* signal, GCallback callback);
    void DisconnectHandlers(const std::string& group);

    // Runs `work` on the main loop, or never if this pipeline is destroyed
    // first: how streaming-thread callbacks report.
    void PostToMainLoop(std::function<void()> work) const { _Handoff.Post(std::move(work)); }

    // Removes the bus watch, disconnects every handler and releases the
    // pipeline.
    void ReleasePipeline();

    GstPtr<GstPipeline> pipeline;
    // Monitored queues: element name -> last reported QueueState, written by
    // the queue's streaming thread.
    std::map<std::string, std::atomic<int32_t>> queue_states;
    std::map<std::string, ProbeRecord> probes;
    // This pipeline's interpipesrc name -> the producer it listens to.
    std::unordered_map<std::string, Pipeline*> listening_to;
    // This pipeline's interpipesink name -> the last consumer attached.
    std::unordered_map<std::string, Pipeline*> listeners;

private:
    static void OnStateChanged(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnError(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnMessage(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnEos(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnQueueOverrun(GstElement* queue, gpointer user_data);
    static void OnQueueUnderrun(GstElement* queue, gpointer user_data);
    static void OnQueueRunning(GstElement* queue, gpointer user_data);
    void QueueStateChanged(GstElement* queue, int32_t state);
    void EmitQueueReport(const std::string& name, int32_t state);

    // The watch that turns the bus's messages into signals on the main loop.
    GSourcePtr _BusWatch;
    SignalConnections _Handlers;
    MainLoopHandoff _Handoff;
};

template <typename T>
bool Pipeline::SetElementProperty(
    FunctionSignature caller, const std::string& name, const char* property, const T& value) const
{
    GstPtr<GstElement> element = FindElement(caller, name);
    if (!element)
        return false;
    if constexpr (std::is_same_v<T, std::string>)
        g_object_set(element.get(), property, value.c_str(), nullptr);
    else
        g_object_set(element.get(), property, value, nullptr);
    return true;
}

template <typename T>
bool Pipeline::GetElementProperty(
    FunctionSignature caller, const std::string& name, const char* property, T& value) const
{
    GstPtr<GstElement> element = FindElement(caller, name);
    if (!element)
        return false;
    if constexpr (std::is_same_v<T, std::string>) {
        gchar* raw = nullptr;
        g_object_get(element.get(), property, &raw, nullptr);
        GCharPtr text(raw);
        value = text ? text.get() : "";
    } else {
        g_object_get(element.get(), property, &value, nullptr);
    }
    return true;
}

} // namespace VideoDaemon
