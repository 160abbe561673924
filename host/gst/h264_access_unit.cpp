// Finds IDR pictures in H.264 access units, length-prefixed (avc) or byte-stream.
#include "h264_access_unit.h"

#include <cstring>

namespace
{

constexpr guint8 kNalTypeIdr = 5;
constexpr guint8 kNalTypeMask = 0x1f;
constexpr int kDefaultNalLengthSize = 4;

} // namespace

int H264AccessUnit::NalLengthSizeFromCaps(const GstCaps* caps)
{
    if (caps == nullptr || gst_caps_get_size(caps) == 0)
        return kUnknownFormat;
    const GstStructure* s = gst_caps_get_structure(caps, 0);
    const gchar* format = gst_structure_get_string(s, "stream-format");
    if (format == nullptr)
        return kUnknownFormat;
    if (std::strcmp(format, "byte-stream") == 0)
        return kByteStream;
    if (std::strcmp(format, "avc") != 0 && std::strcmp(format, "avc3") != 0)
        return kUnknownFormat;

    // The avcC record keeps (length size - 1) in the low two bits of byte 4.
    const GValue* value = gst_structure_get_value(s, "codec_data");
    if (value == nullptr || !GST_VALUE_HOLDS_BUFFER(value))
        return kDefaultNalLengthSize;
    GstBuffer* codecData = gst_value_get_buffer(value);
    guint8 byte4 = 0;
    if (gst_buffer_extract(codecData, 4, &byte4, 1) != 1)
        return kDefaultNalLengthSize;
    return (byte4 & 0x03) + 1;
}

bool H264AccessUnit::ContainsIdr(GstBuffer* buffer, int nalLengthSize)
{
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return false;
    const bool idr = ContainsIdr(map.data, map.size, nalLengthSize);
    gst_buffer_unmap(buffer, &map);
    return idr;
}

bool H264AccessUnit::ContainsIdr(const guint8* data, gsize size, int nalLengthSize)
{
    if (nalLengthSize == kUnknownFormat)
        nalLengthSize = StartsWithStartCode(data, size) ? kByteStream : kDefaultNalLengthSize;
    if (nalLengthSize == kByteStream)
        return ByteStreamHasIdr(data, size);
    return LengthPrefixedHasIdr(data, size, nalLengthSize);
}

bool H264AccessUnit::LengthPrefixedHasIdr(const guint8* data, gsize size, int nalLengthSize)
{
    const gsize prefix = static_cast<gsize>(nalLengthSize);
    gsize pos = 0;
    while (pos + prefix < size) {
        gsize length = 0;
        for (gsize i = 0; i < prefix; ++i)
            length = (length << 8) | data[pos + i];
        pos += prefix;
        if (length == 0 || length > size - pos)
            return false; // not a well-formed access unit
        if ((data[pos] & kNalTypeMask) == kNalTypeIdr)
            return true;
        pos += length;
    }
    return false;
}

bool H264AccessUnit::ByteStreamHasIdr(const guint8* data, gsize size)
{
    // Every NAL unit follows a 00 00 01 start code (the four-byte form ends the same way).
    for (gsize i = 0; i + 3 < size; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            if ((data[i + 3] & kNalTypeMask) == kNalTypeIdr)
                return true;
            i += 2;
        }
    }
    return false;
}

bool H264AccessUnit::StartsWithStartCode(const guint8* data, gsize size)
{
    if (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1)
        return true;
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}
