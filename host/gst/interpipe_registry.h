// The process-wide table of named interpipe sinks and of the sources that follow them by name.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>

typedef struct _InterpipeSink InterpipeSink;
typedef struct _InterpipeSrc InterpipeSrc;

// Sinks register under their element name while they are at least READY;
// a source follows a name rather than an element, so it is attached whenever
// a sink of that name is registered (also when the sink appears after the
// source started listening) and waits again when the sink goes away.
//
// Lock order: the registry's lock, then a sink's listener lock. Sinks never
// take the registry's lock while delivering data.
class InterpipeRegistry
{
public:
    static InterpipeRegistry& Instance();

    InterpipeRegistry(const InterpipeRegistry&) = delete;
    InterpipeRegistry& operator=(const InterpipeRegistry&) = delete;

    // False when another sink already holds the name.
    bool AddSink(const std::string& name, InterpipeSink* sink);
    void RemoveSink(InterpipeSink* sink);

    // Points a source at the sink called name; an empty name detaches it.
    void Listen(InterpipeSrc* src, const std::string& name);

private:
    InterpipeRegistry() = default;

    std::mutex _Mutex;
    std::unordered_map<std::string, InterpipeSink*> _Sinks;
    // Every source with a non-empty "listen-to", attached or waiting.
    std::unordered_map<InterpipeSrc*, std::string> _Sources;
};
