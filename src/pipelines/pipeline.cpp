// Base of every media pipeline: launch from a description, state, EOS, routing, bus and queue signals.
#include "pipelines/pipeline.h"

#include <cxxabi.h>

#include <cstdlib>
#include <regex>
#include <typeinfo>

#include "common/function_signature.h"
#include "log.h"
#include "pipelines/base_time_priming.h"
#include "pipelines/collapse_blanks.h"

namespace VideoDaemon
{

namespace
{

// Handler groups of the base.
const char kBusMessages[] = "bus messages";
const char kQueueSignals[] = "queue signals";

// How long a released pipeline's interpipesink may take to go away.
const gint64 kNodeReleaseWaitUs = 500000;

// Waits until `sink` is finalised. A listener in another pipeline may hold it
// for a moment, forwarding an upstream event; until it goes, its name stays
// taken and a relaunched pipeline's sink of that name would not be
// published, leaving the listeners without a producer.
void WaitUntilReleased(GWeakRef& sink)
{
    const gint64 deadline = g_get_monotonic_time() + kNodeReleaseWaitUs;
    for (;;) {
        GstPtr<GstElement> alive(static_cast<GstElement*>(g_weak_ref_get(&sink)));
        if (!alive)
            return;
        alive.reset();
        if (g_get_monotonic_time() >= deadline) {
            Log::Warning("[Pipeline] interpipe node still in use after its pipeline was released");
            return;
        }
        g_usleep(1000);
    }
}

} // namespace

Pipeline::Pipeline() = default;

Pipeline::~Pipeline()
{
    ReleasePipeline();
}

std::string Pipeline::GetDescription()
{
    return "";
}

std::string Pipeline::GetSinkName()
{
    return "";
}

std::string Pipeline::GetSourceName()
{
    return "";
}

std::string Pipeline::GetName()
{
    const char* mangled = typeid(*this).name();
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
    std::string name = (status == 0 && demangled) ? demangled.get() : mangled;
    size_t colons = name.rfind("::");
    return colons == std::string::npos ? name : name.substr(colons + 2);
}

void Pipeline::OnElementMessage(const char*, GstMessage*) { }

bool Pipeline::HasPipeline(FunctionSignature caller, const std::string& name) const
{
    if (pipeline)
        return true;
    Log::Error("%s: pipeline == NULL (%s)", caller.Text().c_str(), name.c_str());
    return false;
}

GstPtr<GstElement> Pipeline::FindElement(FunctionSignature caller, const std::string& name) const
{
    if (!HasPipeline(caller, name))
        return nullptr;
    GstPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(pipeline.get()), name.c_str()));
    if (!element)
        Log::Error("%s: element == NULL (%s)", caller.Text().c_str(), name.c_str());
    return element;
}

bool Pipeline::ConnectHandler(
    const std::string& group, gpointer instance, const char* signal, GCallback callback)
{
    return _Handlers.Connect(group, instance, signal, callback, this);
}

bool Pipeline::ConnectBusHandler(const std::string& group, const char* signal, GCallback callback)
{
    if (!pipeline)
        return false;
    GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.get()));
    return ConnectHandler(group, bus.get(), signal, callback);
}

void Pipeline::DisconnectHandlers(const std::string& group)
{
    _Handlers.Disconnect(group);
}

void Pipeline::ReleasePipeline()
{
    RemoveBusWatch();
    // The bus and elements may outlive this object; nothing must call back
    // into it.
    _Handlers.DisconnectAll();
    if (!pipeline)
        return;
    GWeakRef sink;
    GstPtr<GstElement> node(gst_bin_get_by_name(GST_BIN(pipeline.get()), GetSinkName().c_str()));
    g_weak_ref_init(&sink, node.get());
    node.reset();
    pipeline.reset();
    WaitUntilReleased(sink);
    g_weak_ref_clear(&sink);
}

bool Pipeline::Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals)
{
    if (GetDescription().empty())
        return false;

    ReleasePipeline();

    std::string description = CollapseBlanks(GetDescription());
    GError* raw_error = nullptr;
    GstElement* element = gst_parse_launch(description.c_str(), &raw_error);
    GErrorPtr error(raw_error);
    if (element)
        gst_object_ref_sink(element);
    GstPtr<GstElement> parsed(element);

    bool result = false;
    if (!error && parsed && GST_IS_PIPELINE(parsed.get())) {
        pipeline.reset(GST_PIPELINE(parsed.release()));
        result = true;
    }

    if (result && connect_bus)
        result = ConnectBusMessages();

    if (attach_probes || connect_queue_signals) {
        if (attach_probes)
            AttachProbes();
        if (connect_queue_signals)
            ConnectQueueStateSignals();
    }
    return result;
}

int Pipeline::Initialize(const LaunchFlags& flags)
{
    return Launch(flags.attach_probes, true, flags.connect_queue_signals) ? 1 : 0;
}

bool Pipeline::ConnectBusMessages()
{
    if (!pipeline)
        return false;

    // A bus has one watch at a time: the old one goes before the new one.
    RemoveBusWatch();
    GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.get()));
    _BusWatch
        = AttachSource(gst_bus_create_watch(bus.get()), G_SOURCE_FUNC(gst_bus_async_signal_func), nullptr);

    // Connecting again replaces only the base's own handlers: those of a
    // subclass on the same bus stay.
    DisconnectHandlers(kBusMessages);
    ConnectBusHandler(kBusMessages, "message::state-changed", G_CALLBACK(&Pipeline::OnStateChanged));
    ConnectBusHandler(kBusMessages, "message::error", G_CALLBACK(&Pipeline::OnError));
    Log::Info("[Pipeline] Connect messages from the elements");
    ConnectBusHandler(kBusMessages, "message", G_CALLBACK(&Pipeline::OnMessage));
    Log::Info("[Pipeline] Listen for EOS message");
    ConnectBusHandler(kBusMessages, "message::eos", G_CALLBACK(&Pipeline::OnEos));
    return true;
}

void Pipeline::RemoveBusWatch()
{
    _BusWatch.reset();
}

void Pipeline::OnStateChanged(GstBus*, GstMessage* message, gpointer user_data)
{
    auto* self = static_cast<Pipeline*>(user_data);
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_STATE_CHANGED) {
        Log::Warning("Unexpected message type 0x%x\n", static_cast<unsigned>(GST_MESSAGE_TYPE(message)));
        return;
    }
    // Only the top-level element, named "pipeline<N>" by gst_parse_launch.
    static const std::regex top_level("pipeline[0-9]+");
    const char* source = GST_MESSAGE_SRC_NAME(message);
    if (!source || !std::regex_search(source, top_level))
        return;

    GstState old_state = GST_STATE_VOID_PENDING;
    GstState new_state = GST_STATE_VOID_PENDING;
    GstState pending = GST_STATE_VOID_PENDING;
    gst_message_parse_state_changed(message, &old_state, &new_state, &pending);
    Log::Debug("[%s (%s)], State changed [%s -> %s], target %s", self->GetName().c_str(), source,
        gst_element_state_get_name(old_state), gst_element_state_get_name(new_state),
        gst_element_state_get_name(pending));
    self->signal_state_changed.emit(old_state, new_state);
}

void Pipeline::OnError(GstBus*, GstMessage* message, gpointer user_data)
{
    auto* self = static_cast<Pipeline*>(user_data);
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) {
        Log::Info("Unexpected message type 0x%x\n", static_cast<unsigned>(GST_MESSAGE_TYPE(message)));
        return;
    }
    GError* raw_error = nullptr;
    gchar* raw_debug = nullptr;
    gst_message_parse_error(message, &raw_error, &raw_debug);
    GErrorPtr error(raw_error);
    GCharPtr debug(raw_debug);
    std::string text = error && error->message ? error->message : "";
    Log::Error("Error from element %s: %s\n", GST_MESSAGE_SRC_NAME(message), text.c_str());
    self->signal_error.emit(text);
    error.reset();
    Log::Error("Debugging info:%s\n", debug ? debug.get() : "none");
}

void Pipeline::OnMessage(GstBus*, GstMessage* message, gpointer user_data)
{
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ELEMENT)
        return;
    static_cast<Pipeline*>(user_data)->OnElementMessage(GST_MESSAGE_SRC_NAME(message), message);
}

void Pipeline::OnEos(GstBus*, GstMessage*, gpointer user_data)
{
    auto* self = static_cast<Pipeline*>(user_data);
    Log::Info("[Pipeline] %s: Posted EOS message", self->GetName().c_str());
    self->signal_eos.emit();
}

int Pipeline::SetState(GstState state)
{
    return SetState(state, 1000);
}

int Pipeline::SetState(GstState state, unsigned wait_ms)
{
    std::string name = GetName();
    if (name.empty())
        name = "unnamed";
    Log::Info("[%s] Set state [%s]", name.c_str(), gst_element_state_get_name(state));
    if (!HasPipeline(VIDEOD_FUNCTION, name))
        return -1;

    PrimeBaseTimesForStart(GST_ELEMENT(pipeline.get()), state);
    GstStateChangeReturn ret = gst_element_set_state(GST_ELEMENT(pipeline.get()), state);
    int current = -1;
    bool ok;
    if (ret == GST_STATE_CHANGE_ASYNC) {
        Log::Info("pipeline %s. will switch to %d ASYNC", name.c_str(), static_cast<int>(state));
        if (wait_ms == 0)
            return 0;
        Log::Info("Wait ASYNC switch for %u", wait_ms);
        // Formed in 32 bits on purpose: callers keep their waits well below
        // 4295 ms, where the product wraps.
        unsigned timeout_ns = wait_ms * 1000000u;
        GstState current_state = GST_STATE_VOID_PENDING;
        ret = gst_element_get_state(
            GST_ELEMENT(pipeline.get()), &current_state, nullptr, static_cast<GstClockTime>(timeout_ns));
        current = static_cast<int>(current_state);
        Log::Info("pipeline %s. curr_state=%d change_ret=%d", name.c_str(), current, static_cast<int>(ret));
    }
    ok = ret == GST_STATE_CHANGE_SUCCESS || ret == GST_STATE_CHANGE_NO_PREROLL;
    if (!ok) {
        Log::Error("pipeline %s. failed set state(%d) curr_state=%d change_ret=%d", name.c_str(),
            static_cast<int>(state), current, static_cast<int>(ret));
        return -1;
    }
    return 0;
}

GstState Pipeline::GetState()
{
    if (!pipeline)
        return GST_STATE_NULL;
    GstState state = GST_STATE_NULL;
    gst_element_get_state(GST_ELEMENT(pipeline.get()), &state, nullptr, 0);
    return state;
}

int Pipeline::SendEos(bool wait)
{
    if (!HasPipeline(VIDEOD_FUNCTION, GetName()))
        return -1;
    {
        // A stale EOS must not satisfy the wait below.
        GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.get()));
        while (GstMessagePtr(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_EOS))) { }
    }
    Log::Info("pipeline %s: Sending EOS event...", GetName().c_str());
    if (!gst_element_send_event(GST_ELEMENT(pipeline.get()), gst_event_new_eos()))
        return -1;
    if (!wait)
        return 0;
    return WaitForEos(2);
}

int Pipeline::WaitForEos(unsigned seconds)
{
    Log::Info("pipeline %s: Waiting for EOS event...", GetName().c_str());
    if (!HasPipeline(VIDEOD_FUNCTION, GetName()))
        return -1;
    GstPtr<GstClock> clock(gst_system_clock_obtain());
    GstClockTime start = gst_clock_get_time(clock.get());
    GstPtr<GstBus> bus(gst_pipeline_get_bus(pipeline.get()));
    GstMessagePtr message(gst_bus_timed_pop_filtered(
        bus.get(), static_cast<GstClockTime>(seconds) * GST_SECOND, GST_MESSAGE_EOS));
    double elapsed_ms = static_cast<double>(gst_clock_get_time(clock.get()) - start) / 1e6;
    if (message) {
        Log::Info("pipeline %s: EOS event handled after %.2f msecs", GetName().c_str(), elapsed_ms);
        return 0;
    }
    Log::Warning("pipeline %s: After sending EOS, failed to read EOS message from bus after %.2f msecs",
        GetName().c_str(), elapsed_ms);
    return -1;
}

bool Pipeline::TearDown()
{
    if (GetState() == GST_STATE_PLAYING) {
        Log::Warning("[Pipeline] Pipeline is still in PLAYING state, cannot tear down");
        return false;
    }
    if (!pipeline)
        return true;
    RemoveProbes();
    ReleasePipeline();
    return true;
}

bool Pipeline::ListenTo(Pipeline* producer, std::string sink_name, std::string source_name)
{
    if (!producer) {
        return SetElementProperty(
            VIDEOD_FUNCTION, GetSourceName(), "listen-to", static_cast<const char*>(nullptr));
    }

    if (sink_name.empty())
        sink_name = producer->GetSinkName();
    if (source_name.empty())
        source_name = GetSourceName();
    // Set whatever the state: inputs are switched while everything plays.
    if (!SetElementProperty(VIDEOD_FUNCTION, source_name, "listen-to", sink_name))
        return false;
    listening_to[source_name] = producer;
    producer->listeners[sink_name] = this;
    return true;
}

bool Pipeline::IsListening()
{
    gchar* raw_listen_to = nullptr;
    if (!GetElementProperty(VIDEOD_FUNCTION, GetSourceName(), "listen-to", raw_listen_to))
        return false;
    GCharPtr listen_to(raw_listen_to);
    if (!listen_to)
        return false;
    Log::Info("Listening to: %s", listen_to.get());
    return true;
}

void Pipeline::ConnectQueueStateSignals()
{
    DisconnectHandlers(kQueueSignals);
    for (const auto& entry : queue_states) {
        const std::string& name = entry.first;
        GstPtr<GstElement> element = FindElement(VIDEOD_FUNCTION, name);
        if (!element) {
            Log::Error("'%s' failed to register queue state signals", name.c_str());
            continue;
        }
        ConnectHandler(kQueueSignals, element.get(), "overrun", G_CALLBACK(&Pipeline::OnQueueOverrun));
        ConnectHandler(kQueueSignals, element.get(), "underrun", G_CALLBACK(&Pipeline::OnQueueUnderrun));
        ConnectHandler(kQueueSignals, element.get(), "running", G_CALLBACK(&Pipeline::OnQueueRunning));
    }
}

std::map<std::string, int32_t> Pipeline::GetQueueStates() const
{
    std::map<std::string, int32_t> states;
    for (const auto& entry : queue_states)
        states.emplace(entry.first, entry.second.load());
    return states;
}

void Pipeline::OnQueueOverrun(GstElement* queue, gpointer user_data)
{
    static_cast<Pipeline*>(user_data)->QueueStateChanged(queue, kQueueOverrun);
}

void Pipeline::OnQueueUnderrun(GstElement* queue, gpointer user_data)
{
    static_cast<Pipeline*>(user_data)->QueueStateChanged(queue, kQueueUnderrun);
}

void Pipeline::OnQueueRunning(GstElement* queue, gpointer user_data)
{
    static_cast<Pipeline*>(user_data)->QueueStateChanged(queue, kQueueRunning);
}

// Streaming thread: only this queue's entry is touched (the map itself is
// fixed before launch); the signal is emitted on the main loop.
void Pipeline::QueueStateChanged(GstElement* queue, int32_t state)
{
    GCharPtr raw_name(gst_element_get_name(queue));
    auto entry = queue_states.find(raw_name.get());
    if (entry == queue_states.end() || entry->second.exchange(state) == state)
        return;
    std::string name(raw_name.get());
    PostToMainLoop([this, name, state] { EmitQueueReport(name, state); });
}

void Pipeline::EmitQueueReport(const std::string& name, int32_t state)
{
    switch (state) {
    case kQueueOverrun:
        signal_queue_overrun.emit(name);
        break;
    case kQueueUnderrun:
        signal_queue_underrun.emit(name);
        break;
    case kQueueRunning:
        signal_queue_running.emit(name);
        break;
    default:
        break;
    }
}

void Pipeline::CreateFramerateProbe(
    const std::string& name, const std::string& element_name, const std::string& pad_name)
{
    auto existing = probes.find(name);
    if (existing != probes.end()) {
        existing->second.probe->Remove();
        probes.erase(existing);
        Log::Error("CreateFramerateProbe - removing duplicate");
    }
    probes.emplace(name, ProbeRecord { element_name, pad_name, std::make_unique<FramerateProbe>() });
}

int Pipeline::AttachProbes()
{
    int failures = 0;
    for (auto& entry : probes) {
        ProbeRecord& record = entry.second;
        if (record.probe->Attach(*this, record.element_name, record.pad_name) != 0)
            ++failures;
    }
    return failures;
}

void Pipeline::RemoveProbes()
{
    for (auto& entry : probes)
        entry.second.probe->Remove();
}

std::map<std::string, unsigned> Pipeline::GetProbeRates() const
{
    std::map<std::string, unsigned> rates;
    for (const auto& entry : probes)
        rates[entry.first] = entry.second.probe->GetFramesPerSecond();
    return rates;
}

bool Pipeline::SendFlushStart()
{
    if (!HasPipeline(VIDEOD_FUNCTION, GetName()))
        return false;
    return gst_element_send_event(GST_ELEMENT(pipeline.get()), gst_event_new_flush_start());
}

bool Pipeline::SendFlushStop(bool reset_time)
{
    if (!HasPipeline(VIDEOD_FUNCTION, GetName()))
        return false;
    return gst_element_send_event(GST_ELEMENT(pipeline.get()), gst_event_new_flush_stop(reset_time));
}

} // namespace VideoDaemon
