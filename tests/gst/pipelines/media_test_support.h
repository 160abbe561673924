// Helpers for the media pipeline tests: scratch directories, test media files and independent readers.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pipeline_harness.h"
#include "pipelines/gst_ptr.h"

namespace MediaTest
{

// A directory of its own for one test, removed with everything in it.
class ScratchDir
{
public:
    ScratchDir()
    {
        VideoDaemon::GCharPtr made(g_dir_make_tmp("videod-media-XXXXXX", nullptr));
        if (made)
            path_ = made.get();
    }
    ~ScratchDir()
    {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Standard output of a shell command.
inline std::string CommandOutput(const std::string& command)
{
    std::string output;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
        return output;
    char chunk[256];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, pipe.get())) > 0)
        output.append(chunk, got);
    return output;
}

// What ffprobe says about the first video stream: "codec,width,height".
inline std::string ProbeVideo(const std::string& path)
{
    std::string text = CommandOutput("ffprobe -v error -select_streams v:0 -show_entries "
                                     "stream=codec_name,width,height -of csv=p=0 '"
        + path + "' 2>/dev/null");
    while (!text.empty() && (text.back() == '\n' || text.back() == ','))
        text.pop_back();
    return text;
}

// Runs a finite test pipeline to its end of stream; false on error or after
// `timeout_s` seconds.
inline bool RunToEnd(const std::string& description, int timeout_s = 20)
{
    GError* raw_error = nullptr;
    GstElement* element = gst_parse_launch(description.c_str(), &raw_error);
    VideoDaemon::GErrorPtr error(raw_error);
    if (element)
        gst_object_ref_sink(element);
    VideoDaemon::GstPtr<GstElement> pipeline(element);
    if (error || !pipeline) {
        ADD_FAILURE() << "cannot parse " << description;
        return false;
    }
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    VideoDaemon::GstPtr<GstBus> bus(gst_element_get_bus(pipeline.get()));
    VideoDaemon::GstMessagePtr message(
        gst_bus_timed_pop_filtered(bus.get(), static_cast<GstClockTime>(timeout_s) * GST_SECOND,
            static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
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
    GstElement* element = gst_parse_launch("appsrc name=in caps=image/jpeg ! jpegdec ! videoconvert "
                                           "! video/x-raw,format=RGB ! appsink name=out sync=false",
        nullptr);
    if (!element)
        return picture;
    gst_object_ref_sink(element);
    VideoDaemon::GstPtr<GstElement> pipeline(element);
    VideoDaemon::GstPtr<GstElement> in(gst_bin_get_by_name(GST_BIN(pipeline.get()), "in"));
    VideoDaemon::GstPtr<GstElement> out(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    gst_app_src_push_buffer(GST_APP_SRC(in.get()), gst_buffer_new_memdup(data.data(), data.size()));
    gst_app_src_end_of_stream(GST_APP_SRC(in.get()));
    PipelineHarness::SamplePtr sample(gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), 5 * GST_SECOND));
    if (sample) {
        const GstStructure* s = gst_caps_get_structure(gst_sample_get_caps(sample.get()), 0);
        gst_structure_get_int(s, "width", &picture.width);
        gst_structure_get_int(s, "height", &picture.height);
        GstBuffer* buffer = gst_sample_get_buffer(sample.get());
        GstMapInfo map;
        if (gst_buffer_map(buffer, &map, GST_MAP_READ)) {
            // Rows are padded to 4 bytes; keep the pixels only.
            const size_t row = static_cast<size_t>(picture.width) * 3;
            const size_t stride = (row + 3) & ~static_cast<size_t>(3);
            for (size_t y = 0; y < static_cast<size_t>(picture.height) && y * stride + row <= map.size; y++)
                picture.rgb.insert(picture.rgb.end(), map.data + y * stride, map.data + y * stride + row);
            gst_buffer_unmap(buffer, &map);
        }
    }
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return picture;
}

inline std::vector<uint8_t> ReadFile(const std::string& path)
{
    std::vector<uint8_t> data;
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rb"), fclose);
    if (!file)
        return data;
    uint8_t chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, file.get())) > 0)
        data.insert(data.end(), chunk, chunk + got);
    return data;
}

} // namespace MediaTest
