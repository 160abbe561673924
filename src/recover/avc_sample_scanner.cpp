// Finds an H.264 access unit in MP4 media data: length-prefixed NAL units, one access unit per sample.
#include "recover/avc_sample_scanner.h"

#include <vector>

namespace VideoDaemon
{

namespace
{

enum NalType : unsigned {
    kSlice = 1,
    kIdrSlice = 5,
    kSei = 6,
    kSequenceParameters = 7,
    kPictureParameters = 8,
    kDelimiter = 9,
    kEndOfSequence = 10,
    kEndOfStream = 11,
    kFiller = 12,
};

struct NalHeader {
    std::uint32_t length = 0;
    unsigned type = 0;
    unsigned reference = 0;
    // For slices: first_mb_in_slice is 0, the slice opens a picture.
    bool first_slice = false;
};

bool IsSlice(unsigned type)
{
    return type == kSlice || type == kIdrSlice;
}

// Whether the header can belong to a NAL unit of the stream the muxer writes; the reference indication must
// agree with the type as H.264 requires.
bool Plausible(const NalHeader& nal, std::uint32_t max_size)
{
    if (nal.length == 0 || nal.length > max_size || nal.type == 0 || nal.type > 23)
        return false;
    switch (nal.type) {
    case kIdrSlice:
    case kSequenceParameters:
    case kPictureParameters:
        return nal.reference != 0;
    case kSei:
    case kDelimiter:
    case kEndOfSequence:
    case kEndOfStream:
    case kFiller:
        return nal.reference == 0;
    default:
        return true;
    }
}

bool OpensAccessUnit(const NalHeader& nal)
{
    switch (nal.type) {
    case kSei:
    case kSequenceParameters:
    case kPictureParameters:
    case kDelimiter:
        return true;
    default:
        return IsSlice(nal.type) && nal.first_slice;
    }
}

} // namespace

AvcSampleScanner::AvcSampleScanner(
    const MediaFile& file, std::uint64_t end, unsigned nal_length_size, std::uint32_t max_nal_size)
    : _File(file)
    , _End(end)
    , _LengthSize(nal_length_size)
    , _MaxNalSize(max_nal_size)
{
}

bool AvcSampleScanner::Scan(std::uint64_t offset, AccessUnit& unit) const
{
    std::uint64_t position = offset;
    bool any = false;
    bool slice = false;
    bool sync = false;
    while (position + _LengthSize + 1 <= _End) {
        const std::vector<std::uint8_t> head = _File.Read(position, _LengthSize + 2);
        if (head.size() < _LengthSize + 1)
            break;
        NalHeader nal;
        for (unsigned i = 0; i < _LengthSize; ++i)
            nal.length = (nal.length << 8) | head[i];
        const std::uint8_t header = head[_LengthSize];
        if (header & 0x80) // forbidden_zero_bit
            break;
        nal.type = header & 0x1f;
        nal.reference = (header >> 5) & 3;
        // first_mb_in_slice is an Exp-Golomb code: a leading 1 bit means 0.
        nal.first_slice = head.size() > _LengthSize + 1 && (head[_LengthSize + 1] & 0x80) != 0;
        if (!Plausible(nal, _MaxNalSize))
            break;
        if (OpensAccessUnit(nal)) {
            if (slice)
                break; // the next access unit
        } else if (!any) {
            return false; // no access unit starts here
        }
        if (position + _LengthSize + nal.length > _End)
            return false; // cut off: the unit is incomplete
        any = true;
        slice = slice || IsSlice(nal.type);
        sync = sync || nal.type == kIdrSlice;
        position += _LengthSize + nal.length;
    }
    if (!slice)
        return false;
    unit.size = static_cast<std::uint32_t>(position - offset);
    unit.sync = sync;
    return true;
}

} // namespace VideoDaemon
