// Owning smart pointers for GStreamer and GLib references.
#pragma once

#include <gst/gst.h>

#include <memory>

namespace VideoDaemon
{

struct GstObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct GstMessageUnref {
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
struct GstCapsUnref {
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
struct GErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
struct GFree {
    void operator()(gpointer memory) const { g_free(memory); }
};

// One reference to a GstObject (element, pad, bus, clock, pipeline).
template <typename T> using GstPtr = std::unique_ptr<T, GstObjectUnref>;
using GstMessagePtr = std::unique_ptr<GstMessage, GstMessageUnref>;
using GstCapsPtr = std::unique_ptr<GstCaps, GstCapsUnref>;
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;
using GCharPtr = std::unique_ptr<gchar, GFree>;

} // namespace VideoDaemon
