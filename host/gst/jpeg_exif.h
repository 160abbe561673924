// Finds, builds and places the EXIF APP1 segment of a JPEG picture.
#pragma once

#include <gst/gst.h>

#include <vector>

class JpegExif
{
public:
    struct Segment {
        gsize offset = 0; // of the FF E1 marker
        gsize length = 0; // marker included
    };

    // The EXIF APP1 segment of a JPEG picture, if it has one before its image data.
    static bool FindExif(const guint8* data, gsize size, Segment& segment);

    // Where a new APP1 segment goes: after SOI and a JFIF APP0 that follows it.
    // False when the data is not a JPEG picture.
    static bool InsertionPoint(const guint8* data, gsize size, gsize& offset);

    // A complete APP1 segment holding a little-endian TIFF IFD0 with the
    // maker, model, software and the given date ("YYYY:MM:DD HH:MM:SS").
    static std::vector<guint8> BuildExif(const char* dateTime);

    // Replaces removeLength bytes at offset of a writable buffer with insert
    // (taken; may be null), sharing the untouched memory instead of copying it.
    static void Splice(GstBuffer* buffer, gsize offset, gsize removeLength, GstMemory* insert);

    static constexpr const char* kMake = "Tarnwell";
    static constexpr const char* kModel = "Inspection camera control unit";
    static constexpr const char* kSoftware = "videod";

private:
    struct Marker {
        guint8 code = 0;
        gsize offset = 0;
        gsize length = 0;
    };
    // Walks the marker segments from SOI up to the start of scan.
    template <typename Visit> static bool WalkSegments(const guint8* data, gsize size, Visit visit);
};
