// Finds, builds and places the EXIF APP1 segment of a JPEG picture.
#include "jpeg_exif.h"

#include <cstring>
#include <string>

namespace
{

constexpr guint8 kMarkerPrefix = 0xff;
constexpr guint8 kSoi = 0xd8;
constexpr guint8 kEoi = 0xd9;
constexpr guint8 kSos = 0xda;
constexpr guint8 kApp0 = 0xe0;
constexpr guint8 kApp1 = 0xe1;
constexpr char kExifHeader[] = "Exif\0"; // six bytes with the array's own terminator
constexpr gsize kExifHeaderSize = 6;

constexpr guint16 kTiffAscii = 2;
constexpr guint16 kTagMake = 0x010f;
constexpr guint16 kTagModel = 0x0110;
constexpr guint16 kTagSoftware = 0x0131;
constexpr guint16 kTagDateTime = 0x0132;

void PutLe16(std::vector<guint8>& out, guint16 v)
{
    out.push_back(static_cast<guint8>(v & 0xff));
    out.push_back(static_cast<guint8>(v >> 8));
}

void PutLe32(std::vector<guint8>& out, guint32 v)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<guint8>((v >> shift) & 0xff));
}

bool IsExifSegment(const guint8* data, gsize size, gsize offset, gsize length)
{
    return length >= 4 + kExifHeaderSize && offset + 4 + kExifHeaderSize <= size
        && std::memcmp(data + offset + 4, kExifHeader, kExifHeaderSize) == 0;
}

} // namespace

template <typename Visit> bool JpegExif::WalkSegments(const guint8* data, gsize size, Visit visit)
{
    if (size < 4 || data[0] != kMarkerPrefix || data[1] != kSoi)
        return false;
    gsize pos = 2;
    while (pos + 4 <= size && data[pos] == kMarkerPrefix) {
        const guint8 code = data[pos + 1];
        if (code == kMarkerPrefix) { // fill byte
            ++pos;
            continue;
        }
        if (code == kSos || code == kEoi)
            break;
        const gsize length = 2 + ((static_cast<gsize>(data[pos + 2]) << 8) | data[pos + 3]);
        if (length < 4 || pos + length > size)
            break;
        if (!visit(Marker { code, pos, length }))
            break;
        pos += length;
    }
    return true;
}

bool JpegExif::FindExif(const guint8* data, gsize size, Segment& segment)
{
    bool found = false;
    WalkSegments(data, size, [&](const Marker& marker) {
        if (marker.code == kApp1 && IsExifSegment(data, size, marker.offset, marker.length)) {
            segment.offset = marker.offset;
            segment.length = marker.length;
            found = true;
        }
        return !found;
    });
    return found;
}

bool JpegExif::InsertionPoint(const guint8* data, gsize size, gsize& offset)
{
    offset = 2;
    return WalkSegments(data, size, [&](const Marker& marker) {
        if (marker.code != kApp0 || marker.offset != offset)
            return false;
        offset = marker.offset + marker.length;
        return true;
    });
}

std::vector<guint8> JpegExif::BuildExif(const char* dateTime)
{
    struct Entry {
        guint16 tag;
        std::string text;
    };
    const Entry entries[] = {
        { kTagMake, kMake },
        { kTagModel, kModel },
        { kTagSoftware, kSoftware },
        { kTagDateTime, dateTime },
    };
    constexpr guint32 kIfdOffset = 8;
    const guint32 count = G_N_ELEMENTS(entries);
    guint32 dataOffset = kIfdOffset + 2 + count * 12 + 4;

    std::vector<guint8> tiff { 'I', 'I', 0x2a, 0x00 };
    PutLe32(tiff, kIfdOffset);
    PutLe16(tiff, static_cast<guint16>(count));
    std::vector<guint8> values;
    for (const Entry& entry : entries) {
        const guint32 length = static_cast<guint32>(entry.text.size() + 1);
        PutLe16(tiff, entry.tag);
        PutLe16(tiff, kTiffAscii);
        PutLe32(tiff, length);
        if (length <= 4) {
            std::vector<guint8> inlined(4, 0);
            std::memcpy(inlined.data(), entry.text.c_str(), length);
            tiff.insert(tiff.end(), inlined.begin(), inlined.end());
            continue;
        }
        PutLe32(tiff, dataOffset + static_cast<guint32>(values.size()));
        values.insert(values.end(), entry.text.c_str(), entry.text.c_str() + length);
        if (values.size() % 2 != 0)
            values.push_back(0); // values start on word boundaries
    }
    PutLe32(tiff, 0); // no further IFD
    tiff.insert(tiff.end(), values.begin(), values.end());

    std::vector<guint8> segment { kMarkerPrefix, kApp1 };
    PutLe16(segment, 0); // length, filled below
    segment.insert(segment.end(), kExifHeader, kExifHeader + kExifHeaderSize);
    segment.insert(segment.end(), tiff.begin(), tiff.end());
    const gsize length = segment.size() - 2;
    segment[2] = static_cast<guint8>(length >> 8);
    segment[3] = static_cast<guint8>(length & 0xff);
    return segment;
}

void JpegExif::Splice(GstBuffer* buffer, gsize offset, gsize removeLength, GstMemory* insert)
{
    const gsize size = gst_buffer_get_size(buffer);
    g_autoptr(GstBuffer) original = gst_buffer_copy_region(buffer, GST_BUFFER_COPY_MEMORY, 0, size);
    gst_buffer_remove_all_memory(buffer);
    if (offset > 0)
        gst_buffer_copy_into(buffer, original, GST_BUFFER_COPY_MEMORY, 0, offset);
    if (insert != nullptr)
        gst_buffer_append_memory(buffer, insert);
    const gsize tail = offset + removeLength;
    if (tail < size)
        gst_buffer_copy_into(buffer, original, GST_BUFFER_COPY_MEMORY, tail, size - tail);
}
