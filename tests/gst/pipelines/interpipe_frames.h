// Feeds RGBA frames into an interpipe sink and collects the frames a
// pipeline publishes on its own interpipe sink, for pixel checks.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// A small test pipeline that the tests start and stop themselves.
class TestPipeline
{
public:
    explicit TestPipeline(const std::string& description)
    {
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        if (error) {
            ADD_FAILURE() << "parse failed: " << error->message << " in " << description;
            g_clear_error(&error);
            g_clear_object(&pipeline_);
        }
    }
    ~TestPipeline()
    {
        if (pipeline_)
            gst_element_set_state(pipeline_, GST_STATE_NULL);
        g_clear_object(&pipeline_);
    }
    TestPipeline(const TestPipeline&) = delete;
    TestPipeline& operator=(const TestPipeline&) = delete;

    bool Play()
    {
        return pipeline_ && gst_element_set_state(pipeline_, GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }
    GstElement* Get(const char* name) { return gst_bin_get_by_name(GST_BIN(pipeline_), name); }

private:
    GstElement* pipeline_ = nullptr;
};

// appsrc -> interpipesink `sink_name`, RGBA frames of the given size.
class FrameProducer
{
public:
    FrameProducer(const std::string& sink_name, int width, int height)
        : pipeline_("appsrc name=in is-live=true format=time caps=video/x-raw,format=RGBA,width="
            + std::to_string(width) + ",height=" + std::to_string(height)
            + ",framerate=30/1 ! interpipesink name=" + sink_name + " sync=false forward-events=true")
    {
        EXPECT_TRUE(pipeline_.Play());
        source_ = pipeline_.Get("in");
    }
    ~FrameProducer() { g_clear_object(&source_); }

    void Push(const std::vector<uint8_t>& frame)
    {
        GstBuffer* buffer = gst_buffer_new_memdup(frame.data(), frame.size());
        GST_BUFFER_PTS(buffer) = pts_;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
        pts_ += GST_SECOND / 30;
        gst_app_src_push_buffer(GST_APP_SRC(source_), buffer);
    }

private:
    TestPipeline pipeline_;
    GstElement* source_ = nullptr;
    GstClockTime pts_ = 0;
};

// interpipesrc listening to `sink_name` -> appsink, converted to RGBA.
class FrameConsumer
{
public:
    explicit FrameConsumer(const std::string& sink_name)
        : pipeline_("interpipesrc listen-to=" + sink_name
            + " is-live=true format=time ! videoconvert ! video/x-raw,format=RGBA ! appsink name=out "
              "sync=false max-buffers=1 drop=true")
    {
        EXPECT_TRUE(pipeline_.Play());
        sink_ = pipeline_.Get("out");
    }
    ~FrameConsumer() { g_clear_object(&sink_); }

    // The next frame, or an empty one after `timeout`.
    std::vector<uint8_t> Pull(GstClockTime timeout = GST_SECOND)
    {
        g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), timeout);
        if (!sample)
            return {};
        GstBuffer* buffer = gst_sample_get_buffer(sample);
        std::vector<uint8_t> frame(gst_buffer_get_size(buffer));
        gst_buffer_extract(buffer, 0, frame.data(), frame.size());
        return frame;
    }

private:
    TestPipeline pipeline_;
    GstElement* sink_ = nullptr;
};

// Pushes `frame` until a published frame satisfies `check` (at most 100
// frames, each pull bounded), since the pipelines in between drop frames.
inline bool WaitForFrame(FrameProducer& producer, FrameConsumer& consumer, const std::vector<uint8_t>& frame,
    const std::function<bool(const std::vector<uint8_t>&)>& check)
{
    for (int i = 0; i < 100; i++) {
        producer.Push(frame);
        const std::vector<uint8_t> out = consumer.Pull(GST_SECOND / 10);
        if (!out.empty() && check(out))
            return true;
    }
    return false;
}

// The RGBA value of pixel (x, y) of a frame `width` pixels wide.
struct Rgba {
    int r, g, b;
};
inline Rgba PixelAt(const std::vector<uint8_t>& frame, int width, int x, int y)
{
    const uint8_t* p = &frame[(static_cast<size_t>(y) * width + x) * 4];
    return { p[0], p[1], p[2] };
}

// Four quadrants: red, green (top right), blue, white.
inline std::vector<uint8_t> QuadrantFrame(int width, int height)
{
    const Rgba colours[4] = { { 255, 0, 0 }, { 0, 255, 0 }, { 0, 0, 255 }, { 255, 255, 255 } };
    std::vector<uint8_t> frame(static_cast<size_t>(width) * height * 4);
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < width; x++) {
            const Rgba& c = colours[(y >= height / 2) * 2 + (x >= width / 2)];
            uint8_t* p = &frame[(static_cast<size_t>(y) * width + x) * 4];
            p[0] = static_cast<uint8_t>(c.r);
            p[1] = static_cast<uint8_t>(c.g);
            p[2] = static_cast<uint8_t>(c.b);
            p[3] = 255;
        }
    }
    return frame;
}
