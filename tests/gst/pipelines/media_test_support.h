// Helpers for the media pipeline tests: test media files and a JPEG decoder as an independent reader.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

namespace MediaTest
{

// Runs a finite test pipeline to its end of stream; false on a parse error, an error or a time-out.
inline bool RunToEnd(const std::string& description)
{
    GstTest::TestPipeline pipeline(description);
    EXPECT_TRUE(pipeline.Parsed()) << pipeline.Error();
    return pipeline.Parsed() && pipeline.RunToEos();
}

// A JPEG picture of one colour pattern written with the packaged encoder.
inline bool WriteJpeg(const std::string& path, int width, int height, const std::string& pattern)
{
    return RunToEnd("videotestsrc num-buffers=1 pattern=" + pattern
        + " ! video/x-raw,width=" + std::to_string(width) + ",height=" + std::to_string(height)
        + " ! jpegenc ! filesink location=\"" + path + "\"");
}

// A decoded picture, RGB, three bytes a pixel.
struct Picture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;

    // The mean of one channel over the whole picture.
    double Mean(int channel) const
    {
        if (rgb.empty())
            return -1;
        double sum = 0;
        for (size_t i = channel; i < rgb.size(); i += 3)
            sum += rgb[i];
        return sum / (rgb.size() / 3);
    }
};

// Decodes JPEG data with the packaged decoder.
inline Picture DecodeJpeg(const std::vector<uint8_t>& data)
{
    Picture picture;
    GstTest::TestPipeline pipeline("appsrc name=in caps=image/jpeg ! jpegdec ! videoconvert "
                                   "! video/x-raw,format=RGB ! appsink name=out sync=false");
    if (!pipeline.Parsed() || !pipeline.Start())
        return picture;
    pipeline.Push("in", gst_buffer_new_memdup(data.data(), data.size()));
    pipeline.EndOfStream("in");
    VideoDaemon::GstSamplePtr sample = pipeline.Pull("out", 5 * GST_SECOND);
    if (!sample)
        return picture;
    const GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
    gst_structure_get_int(s, "width", &picture.width);
    gst_structure_get_int(s, "height", &picture.height);
    const std::vector<guint8> bytes = GstTest::SampleBytes(sample.get());
    // Rows are padded to 4 bytes; keep the pixels only.
    const size_t row = static_cast<size_t>(picture.width) * 3;
    const size_t stride = (row + 3) & ~static_cast<size_t>(3);
    for (size_t y = 0; y < static_cast<size_t>(picture.height) && y * stride + row <= bytes.size(); y++)
        picture.rgb.insert(picture.rgb.end(), bytes.begin() + y * stride, bytes.begin() + y * stride + row);
    return picture;
}

inline std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

} // namespace MediaTest
