// Finds IDR pictures in H.264 access units, length-prefixed (avc) or byte-stream.
#pragma once

#include <gst/gst.h>

class H264AccessUnit
{
public:
    // Size of the NAL length prefix the caps announce: 1 to 4 for avc/avc3,
    // 0 for byte-stream, kUnknownFormat when the caps do not say.
    static int NalLengthSizeFromCaps(const GstCaps* caps);

    // True when the access unit holds a NAL unit of type 5 (IDR slice).
    static bool ContainsIdr(GstBuffer* buffer, int nalLengthSize);
    static bool ContainsIdr(const guint8* data, gsize size, int nalLengthSize);

    static constexpr int kByteStream = 0;
    static constexpr int kUnknownFormat = -1;

private:
    static bool LengthPrefixedHasIdr(const guint8* data, gsize size, int nalLengthSize);
    static bool ByteStreamHasIdr(const guint8* data, gsize size);
    static bool StartsWithStartCode(const guint8* data, gsize size);
};
