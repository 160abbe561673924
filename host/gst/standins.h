// Registration entry points of the stand-in element groups.
#pragma once

#include <gst/gst.h>

gboolean RegisterInterpipeElements(GstPlugin* plugin);
gboolean RegisterImxElements(GstPlugin* plugin);
gboolean RegisterUnitElements(GstPlugin* plugin);
gboolean RegisterImageElements(GstPlugin* plugin);
