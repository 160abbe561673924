// The process-wide table of interpipe nodes (named sinks) and of the sources that listen to them.
#include "interpipe_registry.h"

#include <algorithm>

#include "interpipe_sink.h"

InterpipeRegistry& InterpipeRegistry::Instance()
{
    static InterpipeRegistry registry;
    return registry;
}

InterpipeSink* InterpipeRegistry::FindNodeLocked(const std::string& name) const
{
    auto node = _Nodes.find(name);
    return node == _Nodes.end() ? nullptr : node->second;
}

bool InterpipeRegistry::AddNode(const std::string& name, InterpipeSink* sink)
{
    std::lock_guard<std::recursive_mutex> lock(_Mutex);
    if (!_Nodes.emplace(name, sink).second) {
        if (_Nodes[name] == sink)
            return true;
        _Waiting.emplace_back(name, sink);
        return false;
    }
    interpipe_sink_published(sink, name.c_str());
    for (auto& [src, listener] : _Listeners)
        if (!listener.attached && listener.node == name)
            listener.attached = interpipe_sink_add_listener(sink, src);
    return true;
}

void InterpipeRegistry::RemoveNode(InterpipeSink* sink)
{
    std::lock_guard<std::recursive_mutex> lock(_Mutex);
    for (auto it = _Waiting.begin(); it != _Waiting.end();)
        it = it->second == sink ? _Waiting.erase(it) : it + 1;
    std::string name;
    for (auto it = _Nodes.begin(); it != _Nodes.end(); ++it) {
        if (it->second == sink) {
            name = it->first;
            _Nodes.erase(it);
            break;
        }
    }
    if (name.empty())
        return;
    for (auto it = _Listeners.begin(); it != _Listeners.end();) {
        if (it->second.attached && it->second.node == name) {
            interpipe_sink_remove_listener(sink, it->first);
            it = _Listeners.erase(it);
        } else {
            ++it;
        }
    }
    const auto waiting = std::find_if(
        _Waiting.begin(), _Waiting.end(), [&](const auto& entry) { return entry.first == name; });
    if (waiting != _Waiting.end()) {
        InterpipeSink* next = waiting->second;
        _Waiting.erase(waiting);
        AddNode(name, next);
    }
}

bool InterpipeRegistry::Listen(InterpipeSrc* src, const std::string& name)
{
    std::lock_guard<std::recursive_mutex> lock(_Mutex);
    const auto current = _Listeners.find(src);
    Listener previous;
    if (current != _Listeners.end()) {
        if (current->second.node == name)
            return true;
        previous = current->second;
    }
    InterpipeSink* left = previous.attached ? FindNodeLocked(previous.node) : nullptr;
    if (left)
        interpipe_sink_remove_listener(left, src);

    InterpipeSink* sink = FindNodeLocked(name);
    if (!sink) {
        _Listeners[src] = Listener { name, false };
        return true;
    }
    if (interpipe_sink_add_listener(sink, src)) {
        _Listeners[src] = Listener { name, true };
        return true;
    }
    // Refused: back to the previous node, whose caps this source still has.
    if (left)
        interpipe_sink_add_listener(left, src);
    if (current == _Listeners.end())
        _Listeners.erase(src);
    return false;
}

void InterpipeRegistry::Leave(InterpipeSrc* src)
{
    std::lock_guard<std::recursive_mutex> lock(_Mutex);
    const auto listener = _Listeners.find(src);
    if (listener == _Listeners.end())
        return;
    if (listener->second.attached)
        if (InterpipeSink* sink = FindNodeLocked(listener->second.node))
            interpipe_sink_remove_listener(sink, src);
    _Listeners.erase(listener);
}

VideoDaemon::GstPtr<InterpipeSink> InterpipeRegistry::NodeOf(InterpipeSrc* src)
{
    std::lock_guard<std::recursive_mutex> lock(_Mutex);
    const auto listener = _Listeners.find(src);
    if (listener == _Listeners.end() || !listener->second.attached)
        return nullptr;
    InterpipeSink* sink = FindNodeLocked(listener->second.node);
    return VideoDaemon::GstPtr<InterpipeSink>(
        sink ? static_cast<InterpipeSink*>(gst_object_ref(sink)) : nullptr);
}
