// Helpers for the unit element tests: a launched pipeline with bounded waits, buffer probes, ffprobe.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace UnitTest
{

struct ObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct MessageUnref {
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
struct SampleUnref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};

template <typename T> using ObjectPtr = std::unique_ptr<T, ObjectUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;
using SamplePtr = std::unique_ptr<GstSample, SampleUnref>;

constexpr GstClockTime kWait = 20 * GST_SECOND;

inline std::vector<guint8> BufferBytes(GstBuffer* buffer)
{
    std::vector<guint8> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

// One pipeline from a launch description; set to NULL when it goes away.
class TestPipeline
{
public:
    explicit TestPipeline(const std::string& description)
    {
        gst_init(nullptr, nullptr);
        g_autoptr(GError) error = nullptr;
        _Pipeline.reset(gst_parse_launch(description.c_str(), &error));
        if (error != nullptr)
            _Error = error->message;
    }
    ~TestPipeline()
    {
        if (_Pipeline)
            gst_element_set_state(_Pipeline.get(), GST_STATE_NULL);
    }
    TestPipeline(const TestPipeline&) = delete;
    TestPipeline& operator=(const TestPipeline&) = delete;

    bool Parsed() const { return _Pipeline != nullptr && _Error.empty(); }
    const std::string& Error() const { return _Error; }
    GstElement* Get() const { return _Pipeline.get(); }

    ObjectPtr<GstElement> Element(const char* name) const
    {
        return ObjectPtr<GstElement>(gst_bin_get_by_name(GST_BIN(_Pipeline.get()), name));
    }

    // Changes state and waits (bounded) for the change to complete.
    bool SetState(GstState state) const
    {
        if (gst_element_set_state(_Pipeline.get(), state) == GST_STATE_CHANGE_FAILURE)
            return false;
        const GstStateChangeReturn result = gst_element_get_state(_Pipeline.get(), nullptr, nullptr, kWait);
        return result == GST_STATE_CHANGE_SUCCESS || result == GST_STATE_CHANGE_NO_PREROLL;
    }
    bool Play() const { return SetState(GST_STATE_PLAYING); }

    MessagePtr WaitFor(GstMessageType types, GstClockTime timeout = kWait) const
    {
        ObjectPtr<GstBus> bus(gst_element_get_bus(_Pipeline.get()));
        return MessagePtr(gst_bus_timed_pop_filtered(bus.get(), timeout, types));
    }

    // Waits for end-of-stream; false on an error or time-out.
    bool WaitForEos(GstClockTime timeout = kWait) const
    {
        MessagePtr message
            = WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), timeout);
        return message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
    }

    // Ends a live pipeline cleanly: end-of-stream in, wait for it to come out.
    bool Finish() const
    {
        gst_element_send_event(_Pipeline.get(), gst_event_new_eos());
        return WaitForEos();
    }

    // Every sample an app sink holds, until its end-of-stream.
    std::vector<SamplePtr> PullAll(const char* sinkName) const
    {
        std::vector<SamplePtr> samples;
        ObjectPtr<GstElement> sink = Element(sinkName);
        while (SamplePtr sample { gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), kWait) })
            samples.push_back(std::move(sample));
        return samples;
    }

private:
    ObjectPtr<GstElement> _Pipeline;
    std::string _Error;
};

// Calls a function for every buffer that crosses a pad, on the streaming thread.
class BufferProbe
{
public:
    using Handler = std::function<void(GstBuffer*)>;

    BufferProbe(GstElement* element, const char* padName, Handler handler)
        : _Pad(gst_element_get_static_pad(element, padName))
        , _Handler(std::move(handler))
    {
        _Id = gst_pad_add_probe(_Pad.get(), GST_PAD_PROBE_TYPE_BUFFER, &BufferProbe::OnBuffer, this, nullptr);
    }
    ~BufferProbe() { gst_pad_remove_probe(_Pad.get(), _Id); }
    BufferProbe(const BufferProbe&) = delete;
    BufferProbe& operator=(const BufferProbe&) = delete;

private:
    static GstPadProbeReturn OnBuffer(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data)
    {
        auto* self = static_cast<BufferProbe*>(data);
        std::lock_guard<std::mutex> lock(self->_Mutex);
        self->_Handler(GST_PAD_PROBE_INFO_BUFFER(info));
        return GST_PAD_PROBE_OK;
    }

    ObjectPtr<GstPad> _Pad;
    Handler _Handler;
    gulong _Id = 0;
    std::mutex _Mutex;
};

// Drops the first buffers that cross a pad, as if the stream had started later.
class DropFirstBuffers
{
public:
    DropFirstBuffers(GstElement* element, const char* padName, int count)
        : _Pad(gst_element_get_static_pad(element, padName))
        , _Remaining(count)
    {
        _Id = gst_pad_add_probe(
            _Pad.get(), GST_PAD_PROBE_TYPE_BUFFER, &DropFirstBuffers::OnBuffer, this, nullptr);
    }
    ~DropFirstBuffers() { gst_pad_remove_probe(_Pad.get(), _Id); }
    DropFirstBuffers(const DropFirstBuffers&) = delete;
    DropFirstBuffers& operator=(const DropFirstBuffers&) = delete;

private:
    static GstPadProbeReturn OnBuffer(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer data)
    {
        auto* self = static_cast<DropFirstBuffers*>(data);
        if (g_atomic_int_get(&self->_Remaining) <= 0)
            return GST_PAD_PROBE_OK;
        g_atomic_int_add(&self->_Remaining, -1);
        return GST_PAD_PROBE_DROP;
    }

    ObjectPtr<GstPad> _Pad;
    gint _Remaining;
    gulong _Id = 0;
};

// A directory of its own under the system's temporary folder, removed with its files.
class TempDir
{
public:
    TempDir()
    {
        g_autoptr(GError) error = nullptr;
        g_autofree gchar* path = g_dir_make_tmp("videod-unit-XXXXXX", &error);
        _Path = path != nullptr ? path : "";
    }
    ~TempDir()
    {
        std::error_code ignored;
        if (!_Path.empty())
            std::filesystem::remove_all(_Path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string File(const std::string& name) const { return _Path + "/" + name; }

private:
    std::string _Path;
};

// Runs ffprobe with the given arguments and returns what it printed ("" on failure).
inline std::string Ffprobe(const std::vector<std::string>& arguments)
{
    std::vector<gchar*> argv { const_cast<gchar*>("ffprobe"), const_cast<gchar*>("-v"),
        const_cast<gchar*>("error") };
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<gchar*>(argument.c_str()));
    argv.push_back(nullptr);
    g_autofree gchar* output = nullptr;
    gint status = 0;
    if (!g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_SEARCH_PATH, nullptr, nullptr, &output, nullptr,
            &status, nullptr)
        || !g_spawn_check_wait_status(status, nullptr))
        return "";
    return output != nullptr ? output : "";
}

// One numeric entry ("format=duration", "stream=nb_read_frames", ...) of a file; -1 when absent.
inline double FfprobeNumber(
    const std::string& file, const std::string& entry, const std::string& streams = "")
{
    std::vector<std::string> arguments;
    if (!streams.empty())
        arguments.insert(arguments.end(), { "-select_streams", streams });
    if (entry.find("nb_read_frames") != std::string::npos)
        arguments.push_back("-count_frames");
    arguments.insert(arguments.end(), { "-show_entries", entry, "-of", "default=nw=1:nk=1", file });
    const std::string text = Ffprobe(arguments);
    if (text.empty())
        return -1;
    char* end = nullptr;
    const double value = g_ascii_strtod(text.c_str(), &end);
    return end == text.c_str() ? -1 : value;
}

} // namespace UnitTest
