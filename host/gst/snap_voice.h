// The "snapvoice" element: keeps one still picture of an H.264 stream for a narrated note.
#pragma once

#include <gst/base/gstbasetransform.h>

G_BEGIN_DECLS

#define SNAP_TYPE_VOICE (snap_voice_get_type())
G_DECLARE_FINAL_TYPE(SnapVoice, snap_voice, SNAP, VOICE, GstBaseTransform)

GST_ELEMENT_REGISTER_DECLARE(snapvoice);

G_END_DECLS
