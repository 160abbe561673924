// A pad probe installed on a named pad of a named element, removed on demand.
#include "pipelines/probe.h"

#include "common/function_signature.h"
#include "log.h"
#include "pipelines/pipeline.h"

namespace VideoDaemon
{

Probe::~Probe()
{
    Remove();
}

int Probe::Attach(const Pipeline& pipeline, const std::string& element_name, const std::string& pad_name,
    GstPadProbeType type, GstPadProbeCallback callback, gpointer user_data)
{
    Remove();
    GstPtr<GstElement> element = pipeline.FindElement(VIDEOD_FUNCTION, element_name);
    if (!element)
        return -1;
    GstPtr<GstPad> pad(gst_element_get_static_pad(element.get(), pad_name.c_str()));
    if (!pad) {
        Log::Error("%s: pad == NULL (%s.%s)", VIDEOD_SIGNATURE, element_name.c_str(), pad_name.c_str());
        return -1;
    }
    id_ = gst_pad_add_probe(pad.get(), type, callback, user_data, nullptr);
    if (id_ == 0)
        return -1;
    pad_ = std::move(pad);
    return 0;
}

void Probe::Remove()
{
    if (pad_ && id_ != 0)
        gst_pad_remove_probe(pad_.get(), id_);
    id_ = 0;
    pad_.reset();
}

} // namespace VideoDaemon
