// The process-wide table of interpipe nodes (named sinks) and of the sources that listen to them.
#pragma once

#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/gst_ptr.h"

typedef struct _InterpipeSink InterpipeSink;
typedef struct _InterpipeSrc InterpipeSrc;

// A sink is a node from the moment it has a name until it is destroyed; a
// second sink asking for a name already taken is refused. A started source
// listens to a node by name: it is attached when the node exists, and waits
// for it otherwise (it attaches when a sink of that name appears). A node
// that goes away detaches its listeners and forgets them: they do not come
// back by themselves when another sink takes the name, only when their
// source listens again (a new name, or a restart).
//
// Lock order: the registry's lock, then a sink's listener lock. The lock is
// recursive because attaching queries caps across pipelines, and a sink
// reached by that query may detach its own listeners.
class InterpipeRegistry
{
public:
    static InterpipeRegistry& Instance();

    InterpipeRegistry(const InterpipeRegistry&) = delete;
    InterpipeRegistry& operator=(const InterpipeRegistry&) = delete;

    // False when another sink already holds the name; waiting listeners of that name attach. A refused
    // sink waits: it takes the name when the holder goes, as when a pipeline is relaunched while a
    // listener's streaming thread still holds the old sink for a moment.
    bool AddNode(const std::string& name, InterpipeSink* sink);
    // Withdraws the sink, as node or as waiting sink; the first sink waiting for its name takes it.
    void RemoveNode(InterpipeSink* sink);

    // Moves a source to the node called name. False when the node refuses
    // it (incompatible caps): the source then stays where it was.
    bool Listen(InterpipeSrc* src, const std::string& name);
    // Detaches the source and forgets it.
    void Leave(InterpipeSrc* src);
    // The sink the source is attached to, or null.
    VideoDaemon::GstPtr<InterpipeSink> NodeOf(InterpipeSrc* src);

private:
    InterpipeRegistry() = default;

    struct Listener {
        std::string node;
        bool attached = false; // false: waiting for a sink of that name
    };

    InterpipeSink* FindNodeLocked(const std::string& name) const;

    std::recursive_mutex _Mutex;
    std::unordered_map<std::string, InterpipeSink*> _Nodes;
    std::unordered_map<InterpipeSrc*, Listener> _Listeners;
    // Sinks refused a name that was taken, by that name, oldest first.
    std::vector<std::pair<std::string, InterpipeSink*>> _Waiting;
};
