// Registers every stand-in element of the host plug-in.
#include "standins.h"

static gboolean PluginInit(GstPlugin* plugin)
{
    return RegisterInterpipeElements(plugin) && RegisterImxElements(plugin) && RegisterUnitElements(plugin)
        && RegisterImageElements(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, videodhost,
    "Stand-ins for the board's interpipe, i.MX and unit elements", PluginInit, VERSION, GST_LICENSE,
    GST_PACKAGE_NAME, GST_PACKAGE_ORIGIN)
