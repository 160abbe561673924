// Turns a packed 32-bit RGB frame about its centre by any angle (the levelling stand-in's picture).
#include "frame_rotation.h"

#include <cmath>
#include <cstdint>
#include <cstring>

namespace
{

// Opaque black in the frame's byte order: zero colour, alpha (where the format has one) full.
uint32_t BlackPixel(const GstVideoFormatInfo* format)
{
    guint8 bytes[4] = { 0, 0, 0, 0 };
    if (GST_VIDEO_FORMAT_INFO_HAS_ALPHA(format))
        bytes[GST_VIDEO_FORMAT_INFO_POFFSET(format, GST_VIDEO_COMP_A)] = 0xff;
    uint32_t pixel = 0;
    std::memcpy(&pixel, bytes, sizeof(pixel));
    return pixel;
}

} // namespace

bool CanRotateFrames(const GstVideoInfo* info)
{
    const GstVideoFormatInfo* format = info->finfo;
    return GST_VIDEO_FORMAT_INFO_IS_RGB(format) && GST_VIDEO_FORMAT_INFO_N_PLANES(format) == 1
        && GST_VIDEO_FORMAT_INFO_PSTRIDE(format, 0) == 4 && GST_VIDEO_FORMAT_INFO_DEPTH(format, 0) == 8;
}

void RotateFrame(const GstVideoFrame* in, GstVideoFrame* out, double degrees)
{
    const int width = GST_VIDEO_FRAME_WIDTH(in);
    const int height = GST_VIDEO_FRAME_HEIGHT(in);
    const int in_stride = GST_VIDEO_FRAME_PLANE_STRIDE(in, 0);
    const int out_stride = GST_VIDEO_FRAME_PLANE_STRIDE(out, 0);
    const auto* source = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(in, 0));
    auto* target = static_cast<guint8*>(GST_VIDEO_FRAME_PLANE_DATA(out, 0));
    const uint32_t black = BlackPixel(in->info.finfo);

    // With y pointing down, the output pixel at offset (dx, dy) from the centre shows the input pixel at
    // (cos·dx + sin·dy, -sin·dx + cos·dy). Positions step in 16.16 fixed point along each row.
    const double radians = degrees * M_PI / 180.0;
    const double c = std::cos(radians), s = std::sin(radians);
    const double cx = width / 2.0, cy = height / 2.0;
    constexpr double kOne = 65536.0;
    const auto step_x = static_cast<int64_t>(std::llround(c * kOne));
    const auto step_y = static_cast<int64_t>(std::llround(-s * kOne));
    for (int y = 0; y < height; ++y) {
        const double dy = y + 0.5 - cy;
        const double dx = 0.5 - cx;
        auto sx = static_cast<int64_t>(std::llround((cx + c * dx + s * dy) * kOne));
        auto sy = static_cast<int64_t>(std::llround((cy - s * dx + c * dy) * kOne));
        auto* row = reinterpret_cast<uint32_t*>(target + static_cast<gsize>(y) * out_stride);
        for (int x = 0; x < width; ++x, sx += step_x, sy += step_y) {
            const int64_t ix = sx >> 16, iy = sy >> 16;
            if (ix < 0 || iy < 0 || ix >= width || iy >= height) {
                row[x] = black;
                continue;
            }
            std::memcpy(&row[x], source + iy * in_stride + ix * 4, 4);
        }
    }
}
