// A pad probe installed on a named pad of a named element, removed on demand.
#pragma once

#include <gst/gst.h>

#include <string>

#include "common/gst_ptr.h"

namespace VideoDaemon
{

class Pipeline;

class Probe
{
public:
    Probe() = default;
    virtual ~Probe();
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    // Installs the probe on pad `pad_name` of element `element_name` of
    // `pipeline`'s current pipeline, replacing any earlier installation. 0 on
    // success, -1 (logged) when the pipeline, element or pad does not exist.
    int Attach(const Pipeline& pipeline, const std::string& element_name, const std::string& pad_name,
        GstPadProbeType type, GstPadProbeCallback callback, gpointer user_data);
    void Remove();
    bool IsAttached() const { return pad_ != nullptr; }

private:
    GstPtr<GstPad> pad_;
    gulong id_ = 0;
};

} // namespace VideoDaemon
