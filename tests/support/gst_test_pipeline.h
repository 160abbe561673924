// Test support for real GStreamer pipelines: a parsed description owned by the test, bounded bus waits,
// appsrc pushes and appsink pulls, and pad probes that watch, count or drop buffers.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/gst_ptr.h"
#include "pipelines/base_time_priming.h"

namespace GstTest
{

// The daemon's owners, under the names the tests use unqualified.
using VideoDaemon::GstMessagePtr;
using VideoDaemon::GstPtr;
using VideoDaemon::GstSamplePtr;

constexpr GstClockTime kWait = 20 * GST_SECOND;

inline std::vector<guint8> BufferBytes(GstBuffer* buffer)
{
    std::vector<guint8> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

inline std::vector<guint8> SampleBytes(GstSample* sample)
{
    return BufferBytes(gst_sample_get_buffer(sample));
}

// "element: message / debug" of an error message; "" for anything else.
inline std::string ErrorText(GstMessage* message)
{
    if (message == nullptr || GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR)
        return "";
    g_autoptr(GError) error = nullptr;
    g_autofree gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    return std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(message))) + ": " + error->message + " / "
        + (debug != nullptr ? debug : "");
}

// An element made outside any pipeline, owned by the test.
inline GstPtr<GstElement> MakeElement(const char* factory)
{
    gst_init(nullptr, nullptr);
    GstElement* element = gst_element_factory_make(factory, nullptr);
    return GstPtr<GstElement>(element != nullptr ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

// "appsrc name=in ... ! middle ! appsink name=out": the frame loop that PushFrame drives.
inline std::string FrameLoop(const std::string& caps, const std::string& middle)
{
    return "appsrc name=in format=time caps=\"" + caps + "\" ! " + middle
        + " ! appsink name=out sync=false max-buffers=4";
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
            _Error = std::string(error->message) + " in: " + description;
        _Parsed = _Pipeline != nullptr && error == nullptr;
    }
    ~TestPipeline()
    {
        if (_Pipeline)
            gst_element_set_state(_Pipeline.get(), GST_STATE_NULL);
    }
    TestPipeline(const TestPipeline&) = delete;
    TestPipeline& operator=(const TestPipeline&) = delete;

    bool Parsed() const { return _Parsed; }
    // The parse error, or what ended the last wait for end-of-stream.
    const std::string& Error() const { return _Error; }
    GstElement* Get() const { return _Pipeline.get(); }

    GstPtr<GstElement> Element(const char* name) const
    {
        return GstPtr<GstElement>(_Pipeline ? gst_bin_get_by_name(GST_BIN(_Pipeline.get()), name) : nullptr);
    }

    template <typename T> void Set(const char* child, const char* property, T value) const
    {
        g_object_set(Element(child).get(), property, value, nullptr);
    }

    // Requests PLAYING without waiting: a pipeline fed by appsrc or interpipesrc completes the change only
    // once data arrives.
    bool Start() const
    {
        VideoDaemon::PrimeBaseTimesForStart(_Pipeline.get(), GST_STATE_PLAYING);
        return gst_element_set_state(_Pipeline.get(), GST_STATE_PLAYING) != GST_STATE_CHANGE_FAILURE;
    }

    // Changes state and waits (bounded) for the change to complete.
    bool SetState(GstState state) const
    {
        VideoDaemon::PrimeBaseTimesForStart(_Pipeline.get(), state);
        if (gst_element_set_state(_Pipeline.get(), state) == GST_STATE_CHANGE_FAILURE)
            return false;
        const GstStateChangeReturn result = gst_element_get_state(_Pipeline.get(), nullptr, nullptr, kWait);
        return result == GST_STATE_CHANGE_SUCCESS || result == GST_STATE_CHANGE_NO_PREROLL;
    }
    bool Play() const { return SetState(GST_STATE_PLAYING); }

    GstState State() const
    {
        GstState state = GST_STATE_VOID_PENDING;
        gst_element_get_state(_Pipeline.get(), &state, nullptr, kWait);
        return state;
    }

    GstMessagePtr WaitFor(GstMessageType types, GstClockTime timeout = kWait) const
    {
        GstPtr<GstBus> bus(gst_element_get_bus(_Pipeline.get()));
        return GstMessagePtr(gst_bus_timed_pop_filtered(bus.get(), timeout, types));
    }

    // Waits for end-of-stream; false on an error (its text kept in Error()) or time-out.
    bool WaitForEos(GstClockTime timeout = kWait)
    {
        GstMessagePtr message
            = WaitFor(static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), timeout);
        _Error = !message ? "no end-of-stream in time" : ErrorText(message.get());
        return message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
    }

    bool RunToEos(GstClockTime timeout = kWait) { return Start() && WaitForEos(timeout); }

    // Ends a live pipeline cleanly: end-of-stream in, wait for it to come out.
    bool Finish()
    {
        gst_element_send_event(_Pipeline.get(), gst_event_new_eos());
        return WaitForEos();
    }

    // Hands the buffer to an appsrc of the pipeline.
    bool Push(const char* appsrc, GstBuffer* buffer) const
    {
        return gst_app_src_push_buffer(GST_APP_SRC(Element(appsrc).get()), buffer) == GST_FLOW_OK;
    }
    void EndOfStream(const char* appsrc) const
    {
        gst_app_src_end_of_stream(GST_APP_SRC(Element(appsrc).get()));
    }

    GstSamplePtr Pull(const char* appsink, GstClockTime timeout = kWait) const
    {
        return GstSamplePtr(gst_app_sink_try_pull_sample(GST_APP_SINK(Element(appsink).get()), timeout));
    }

    // Every sample an app sink holds, until its end-of-stream.
    std::vector<GstSamplePtr> PullAll(const char* appsink) const
    {
        std::vector<GstSamplePtr> samples;
        while (GstSamplePtr sample = Pull(appsink))
            samples.push_back(std::move(sample));
        return samples;
    }

    // In a FrameLoop: pushes one frame at 30/s and returns the frame that comes out ("" when none does).
    std::vector<guint8> PushFrame(const std::vector<guint8>& frame)
    {
        GstBuffer* buffer = gst_buffer_new_memdup(frame.data(), frame.size());
        GST_BUFFER_PTS(buffer) = _NextPts;
        GST_BUFFER_DURATION(buffer) = GST_SECOND / 30;
        _NextPts += GST_SECOND / 30;
        if (!Push("in", buffer))
            return {};
        GstSamplePtr sample = Pull("out", 5 * GST_SECOND);
        return sample ? SampleBytes(sample.get()) : std::vector<guint8> {};
    }

private:
    GstPtr<GstElement> _Pipeline;
    bool _Parsed = false;
    std::string _Error;
    GstClockTime _NextPts = 0;
};

// Calls a function for every buffer that crosses a pad, on the streaming thread, one call at a time.
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

    GstPtr<GstPad> _Pad;
    Handler _Handler;
    gulong _Id = 0;
    std::mutex _Mutex;
};

// Counts the buffers (and buffer lists) that cross a pad.
class BufferCount
{
public:
    BufferCount(GstElement* element, const char* padName)
        : _Pad(gst_element_get_static_pad(element, padName))
    {
        const auto types
            = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
        _Id = gst_pad_add_probe(_Pad.get(), types, &BufferCount::OnBuffer, this, nullptr);
    }
    ~BufferCount() { gst_pad_remove_probe(_Pad.get(), _Id); }
    BufferCount(const BufferCount&) = delete;
    BufferCount& operator=(const BufferCount&) = delete;

    unsigned Value() const { return _Count.load(); }

private:
    static GstPadProbeReturn OnBuffer(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer data)
    {
        ++static_cast<BufferCount*>(data)->_Count;
        return GST_PAD_PROBE_OK;
    }

    GstPtr<GstPad> _Pad;
    gulong _Id = 0;
    std::atomic<unsigned> _Count { 0 };
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
        return --self->_Remaining >= 0 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
    }

    GstPtr<GstPad> _Pad;
    std::atomic<int> _Remaining;
    gulong _Id = 0;
};

// A directory of its own under the system's temporary folder, removed with its files.
class TempDir
{
public:
    TempDir()
    {
        g_autofree gchar* path = g_dir_make_tmp("videod-test-XXXXXX", nullptr);
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

inline std::uintmax_t FileSize(const std::string& path)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

} // namespace GstTest
