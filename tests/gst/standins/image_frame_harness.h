// Runs single frames through a small live pipeline ("appsrc name=in ! ... !
// appsink name=out") so a test can compare the pixels that come out.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

class FrameHarness
{
public:
    // middle: the elements between "appsrc name=in caps=<caps>" and
    // "appsink name=out".
    FrameHarness(const std::string& caps, const std::string& middle)
    {
        gst_init(nullptr, nullptr);
        const std::string description = "appsrc name=in format=time caps=\"" + caps + "\" ! " + middle
            + " ! appsink name=out sync=false max-buffers=4";
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        if (error) {
            ADD_FAILURE() << "parse failed: " << error->message << " in " << description;
            g_clear_error(&error);
        }
        if (!pipeline_) {
            return;
        }
        source_ = gst_bin_get_by_name(GST_BIN(pipeline_), "in");
        sink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "out");
        if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            ADD_FAILURE() << "cannot start " << description;
        }
    }
    ~FrameHarness()
    {
        if (pipeline_) {
            gst_element_set_state(pipeline_, GST_STATE_NULL);
        }
        g_clear_object(&source_);
        g_clear_object(&sink_);
        g_clear_object(&pipeline_);
    }
    FrameHarness(const FrameHarness&) = delete;
    FrameHarness& operator=(const FrameHarness&) = delete;

    bool Ok() const { return pipeline_ && source_ && sink_; }

    // A new reference to a named element of the pipeline.
    GstElement* Element(const char* name) { return gst_bin_get_by_name(GST_BIN(pipeline_), name); }

    // Pushes one frame and returns the frame that comes out (empty when none
    // arrives within five seconds or the pipeline posts an error).
    std::vector<uint8_t> Run(const std::vector<uint8_t>& frame)
    {
        GstBuffer* buffer = gst_buffer_new_memdup(frame.data(), frame.size());
        GST_BUFFER_PTS(buffer) = next_pts_;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
        next_pts_ += GST_SECOND / 30;
        if (gst_app_src_push_buffer(GST_APP_SRC(source_), buffer) != GST_FLOW_OK) {
            return {};
        }
        g_autoptr(GstSample) sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink_), 5 * GST_SECOND);
        if (!sample) {
            g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_);
            g_autoptr(GstMessage) message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
            if (message) {
                g_autoptr(GError) error = nullptr;
                gst_message_parse_error(message, &error, nullptr);
                ADD_FAILURE() << "pipeline error: " << error->message;
            }
            return {};
        }
        GstBuffer* out = gst_sample_get_buffer(sample);
        std::vector<uint8_t> result(gst_buffer_get_size(out));
        gst_buffer_extract(out, 0, result.data(), result.size());
        return result;
    }

private:
    GstElement* pipeline_ = nullptr;
    GstElement* source_ = nullptr;
    GstElement* sink_ = nullptr;
    GstClockTime next_pts_ = 0;
};

// Checks that a property exists with the given value type and can be changed
// while PLAYING (or is read-only when asked).
inline void ExpectProperty(GObject* object, const char* name, GType type, bool read_only = false)
{
    GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(object), name);
    ASSERT_NE(spec, nullptr) << name;
    EXPECT_EQ(spec->value_type, type) << name;
    EXPECT_TRUE(spec->flags & G_PARAM_READABLE) << name;
    if (read_only) {
        EXPECT_FALSE(spec->flags & G_PARAM_WRITABLE) << name;
    } else {
        EXPECT_TRUE(spec->flags & G_PARAM_WRITABLE) << name;
        EXPECT_TRUE(spec->flags & GST_PARAM_MUTABLE_PLAYING) << name;
    }
}
