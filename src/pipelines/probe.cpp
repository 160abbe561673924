// A pad probe installed on a named pad of a named element, removed on demand.
#include "pipelines/probe.h"

#include "log.h"
#include "common/function_signature.h"

namespace VideoDaemon
{

Probe::~Probe()
{
    Remove();
}

int Probe::Attach(GstPipeline* pipeline, const std::string& element_name, const std::string& pad_name,
    GstPadProbeType type, GstPadProbeCallback callback, gpointer user_data)
{
    Remove();
    if (!pipeline) {
        Log::Error("%s: pipeline == NULL (%s)", VIDEOD_SIGNATURE, element_name.c_str());
        return -1;
    }
    GstPtr<GstElement> element(gst_bin_get_by_name(GST_BIN(pipeline), element_name.c_str()));
    if (!element) {
        Log::Error("%s: element == NULL (%s)", VIDEOD_SIGNATURE, element_name.c_str());
        return -1;
    }
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
