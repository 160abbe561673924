// Registers the unit stand-in elements.
#include "standins.h"

#include "counting_valve.h"
#include "exif_demux.h"
#include "exif_mux.h"
#include "idr_valve.h"
#include "motion_filter.h"
#include "mux_pause.h"
#include "progressive_caps_filter.h"
#include "snap_voice.h"
#include "static_jpeg.h"
#include "vbi_read.h"

gboolean RegisterUnitElements(GstPlugin* plugin)
{
    return GST_ELEMENT_REGISTER(vbiread, plugin) && GST_ELEMENT_REGISTER(progressive_caps_filter, plugin)
        && GST_ELEMENT_REGISTER(idrvalve, plugin) && GST_ELEMENT_REGISTER(muxpause, plugin)
        && GST_ELEMENT_REGISTER(snapvoice, plugin) && GST_ELEMENT_REGISTER(tarnwellexif, plugin)
        && GST_ELEMENT_REGISTER(tarnwellexifdemux, plugin)
        && GST_ELEMENT_REGISTER(tarnwell_static_jpeg, plugin) && GST_ELEMENT_REGISTER(tarnwell_valve, plugin)
        && GST_ELEMENT_REGISTER(tarnwell_motion_filter, plugin);
}
