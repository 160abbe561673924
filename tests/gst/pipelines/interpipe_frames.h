// Feeds RGBA frames into an interpipe sink and collects the frames a
// pipeline publishes on its own interpipe sink, for pixel checks.
#pragma once

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/gst_test_pipeline.h"

// appsrc -> interpipesink `sink_name`, RGBA frames of the given size.
class FrameProducer
{
public:
    FrameProducer(const std::string& sink_name, int width, int height)
        : pipeline_("appsrc name=in is-live=true format=time caps=video/x-raw,format=RGBA,width="
            + std::to_string(width) + ",height=" + std::to_string(height)
            + ",framerate=30/1 ! interpipesink name=" + sink_name + " sync=false forward-events=true")
    {
        EXPECT_TRUE(pipeline_.Parsed()) << pipeline_.Error();
        EXPECT_TRUE(pipeline_.Start());
    }

    void Push(const std::vector<uint8_t>& frame)
    {
        GstBuffer* buffer = gst_buffer_new_memdup(frame.data(), frame.size());
        GST_BUFFER_PTS(buffer) = pts_;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
        pts_ += GST_SECOND / 30;
        pipeline_.Push("in", buffer);
    }

private:
    GstTest::TestPipeline pipeline_;
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
        EXPECT_TRUE(pipeline_.Parsed()) << pipeline_.Error();
        EXPECT_TRUE(pipeline_.Start());
    }

    // The next frame, or an empty one after `timeout`.
    std::vector<uint8_t> Pull(GstClockTime timeout = GST_SECOND)
    {
        VideoDaemon::GstSamplePtr sample = pipeline_.Pull("out", timeout);
        return sample ? GstTest::SampleBytes(sample.get()) : std::vector<uint8_t> {};
    }

private:
    GstTest::TestPipeline pipeline_;
};

// Pushes `frame` until a published frame satisfies `check`, for at most five seconds (each pull bounded):
// the pipelines in between drop frames, and a new setting shows on a later frame, after a busy machine's
// render thread has got to it.
inline bool WaitForFrame(FrameProducer& producer, FrameConsumer& consumer, const std::vector<uint8_t>& frame,
    const std::function<bool(const std::vector<uint8_t>&)>& check)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
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
