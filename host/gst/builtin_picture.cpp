// Encodes the built-in JPEG picture shown when the configured picture cannot be read.
#include "builtin_picture.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <jpeglib.h>
#include <memory>

namespace
{

constexpr int kQuality = 85;
constexpr JSAMPLE kBackground[3] = { 0x20, 0x28, 0x40 };
constexpr JSAMPLE kCross[3] = { 0xe0, 0xe0, 0xe0 };

struct CompressDestroy {
    void operator()(jpeg_compress_struct* info) const { jpeg_destroy_compress(info); }
};
struct MallocFree {
    void operator()(unsigned char* data) const { std::free(data); }
};

} // namespace

std::vector<guint8> BuiltinPicture::Encode(int width, int height)
{
    jpeg_compress_struct info {};
    jpeg_error_mgr errors {};
    // Fixed, valid parameters: libjpeg has no reason to fail here.
    info.err = jpeg_std_error(&errors);
    jpeg_create_compress(&info);
    std::unique_ptr<jpeg_compress_struct, CompressDestroy> compressor(&info);

    unsigned char* output = nullptr;
    unsigned long outputSize = 0;
    jpeg_mem_dest(&info, &output, &outputSize);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = 3;
    info.in_color_space = JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, kQuality, TRUE);
    jpeg_start_compress(&info, TRUE);

    const int band = std::max(2, height / 24);
    std::vector<JSAMPLE> row(static_cast<size_t>(width) * 3);
    while (info.next_scanline < info.image_height) {
        const int y = static_cast<int>(info.next_scanline);
        const bool horizontal = std::abs(y - height / 2) < band / 2;
        for (int x = 0; x < width; ++x) {
            const bool vertical = std::abs(x - width / 2) < band / 2;
            const JSAMPLE* colour = horizontal || vertical ? kCross : kBackground;
            std::copy(colour, colour + 3, row.begin() + x * 3);
        }
        JSAMPROW rows[1] = { row.data() };
        jpeg_write_scanlines(&info, rows, 1);
    }
    jpeg_finish_compress(&info);

    std::unique_ptr<unsigned char, MallocFree> owned(output);
    return std::vector<guint8>(owned.get(), owned.get() + outputSize);
}
