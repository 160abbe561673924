// The process-wide table of named interpipe sinks and of the sources that follow them by name.
#include "interpipe_registry.h"

#include "interpipe_sink.h"

InterpipeRegistry& InterpipeRegistry::Instance()
{
    static InterpipeRegistry registry;
    return registry;
}

bool InterpipeRegistry::AddSink(const std::string& name, InterpipeSink* sink)
{
    std::lock_guard<std::mutex> lock(_Mutex);
    if (!_Sinks.emplace(name, sink).second)
        return false;
    for (const auto& [src, wanted] : _Sources)
        if (wanted == name)
            interpipe_sink_attach(sink, src);
    return true;
}

void InterpipeRegistry::RemoveSink(InterpipeSink* sink)
{
    std::lock_guard<std::mutex> lock(_Mutex);
    for (auto it = _Sinks.begin(); it != _Sinks.end(); ++it) {
        if (it->second == sink) {
            _Sinks.erase(it);
            break;
        }
    }
    // The listeners keep their name in _Sources and wait for the next sink of that name.
    interpipe_sink_detach_all(sink);
}

void InterpipeRegistry::Listen(InterpipeSrc* src, const std::string& name)
{
    std::lock_guard<std::mutex> lock(_Mutex);
    auto previous = _Sources.find(src);
    if (previous != _Sources.end()) {
        if (previous->second == name)
            return;
        auto sink = _Sinks.find(previous->second);
        if (sink != _Sinks.end())
            interpipe_sink_detach(sink->second, src);
        _Sources.erase(previous);
    }
    if (name.empty())
        return;
    _Sources.emplace(src, name);
    auto sink = _Sinks.find(name);
    if (sink != _Sinks.end())
        interpipe_sink_attach(sink->second, src);
}
