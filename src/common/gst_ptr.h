// Owning handles for GStreamer references: objects, mini objects, iterators and clock ids.
#pragma once

#include <gst/gst.h>

#include <memory>

#include "common/glib_ptr.h"

namespace VideoDaemon
{

struct GstObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
template <typename T> struct GstMiniObjectUnref {
    void operator()(T* object) const { gst_mini_object_unref(GST_MINI_OBJECT_CAST(object)); }
};
struct GstIteratorFree {
    void operator()(GstIterator* iterator) const { gst_iterator_free(iterator); }
};
struct GstClockIdUnref {
    void operator()(GstClockID id) const { gst_clock_id_unref(id); }
};

// One reference to a GstObject (element, pad, bus, clock, pipeline).
template <typename T> using GstPtr = std::unique_ptr<T, GstObjectUnref>;
// One reference to a GstMiniObject.
template <typename T> using GstMiniPtr = std::unique_ptr<T, GstMiniObjectUnref<T>>;
using GstMessagePtr = GstMiniPtr<GstMessage>;
using GstCapsPtr = GstMiniPtr<GstCaps>;
using GstBufferPtr = GstMiniPtr<GstBuffer>;
using GstSamplePtr = GstMiniPtr<GstSample>;
using GstEventPtr = GstMiniPtr<GstEvent>;
using GstQueryPtr = GstMiniPtr<GstQuery>;
using GstMemoryPtr = GstMiniPtr<GstMemory>;
using GstIteratorPtr = std::unique_ptr<GstIterator, GstIteratorFree>;
using GstClockIdPtr = std::unique_ptr<void, GstClockIdUnref>;

} // namespace VideoDaemon
