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
    GError* raw_error = nullptr;
    gchar* raw_debug = nullptr;
    gst_message_parse_error(message, &raw_error, &raw_debug);
    VideoDaemon::GErrorPtr error(raw_error);
    VideoDaemon::GCharPtr debug(raw_debug);
    return std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(message))) + ": " + error->message + " / "
        + (debug ? debug.get() : "");
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
        GError* raw_error = nullptr;
        _Pipeline.reset(gst_parse_launch(description.c_str(), &raw_error));
        VideoDaemon::GErrorPtr error(raw_error);
        if (error)
            _Error = std::string(error->message) + " in: " + description;
        _Parsed = _Pipeline != nullptr && !error;
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

// A pad probe whose callback runs under one lock, on the streaming thread. A subclass sets its state up
// before Install() and reads it back under Lock(): the lock is what orders the test's thread and the
// streaming thread (GStreamer's own pad locks are futexes that ThreadSanitizer cannot see).
class PadProbe
{
public:
    PadProbe(const PadProbe&) = delete;
    PadProbe& operator=(const PadProbe&) = delete;
    virtual ~PadProbe() = default;

protected:
    PadProbe(GstElement* element, const char* padName)
        : _Pad(gst_element_get_static_pad(element, padName))
    {
    }

    void Install(GstPadProbeType types)
    {
        {
            std::lock_guard<std::mutex> lock(_Mutex);
            _Active = true;
        }
        _Id = gst_pad_add_probe(_Pad.get(), types, &PadProbe::OnProbe, this, nullptr);
    }
    // Called by the subclass's destructor: no callback runs on its state after this.
    void Remove()
    {
        gst_pad_remove_probe(_Pad.get(), _Id);
        std::lock_guard<std::mutex> lock(_Mutex);
        _Active = false;
    }
    std::unique_lock<std::mutex> Lock() const { return std::unique_lock<std::mutex>(_Mutex); }

    // Called under the lock for every buffer (or buffer list) that crosses the pad.
    virtual GstPadProbeReturn Handle(GstPadProbeInfo* info) = 0;

private:
    static GstPadProbeReturn OnProbe(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data)
    {
        auto* self = static_cast<PadProbe*>(data);
        std::lock_guard<std::mutex> lock(self->_Mutex);
        return self->_Active ? self->Handle(info) : GST_PAD_PROBE_OK;
    }

    GstPtr<GstPad> _Pad;
    gulong _Id = 0;
    mutable std::mutex _Mutex;
    bool _Active = false;
};

// Calls a function for every buffer that crosses a pad, on the streaming thread, one call at a time.
class BufferProbe : public PadProbe
{
public:
    using Handler = std::function<void(GstBuffer*)>;

    BufferProbe(GstElement* element, const char* padName, Handler handler)
        : PadProbe(element, padName)
        , _Handler(std::move(handler))
    {
        Install(GST_PAD_PROBE_TYPE_BUFFER);
    }
    ~BufferProbe() override { Remove(); }

    // Runs `read` under the lock the handler runs under: how a test reads what the handler wrote while
    // buffers may still flow.
    template <typename Read> auto Locked(Read read) const
    {
        std::unique_lock<std::mutex> lock = Lock();
        return read();
    }

private:
    GstPadProbeReturn Handle(GstPadProbeInfo* info) override
    {
        _Handler(GST_PAD_PROBE_INFO_BUFFER(info));
        return GST_PAD_PROBE_OK;
    }

    Handler _Handler;
};

// Counts the buffers (and buffer lists) that cross a pad.
class BufferCount : public PadProbe
{
public:
    BufferCount(GstElement* element, const char* padName)
        : PadProbe(element, padName)
    {
        Install(static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST));
    }
    ~BufferCount() override { Remove(); }

    unsigned Value() const
    {
        std::unique_lock<std::mutex> lock = Lock();
        return _Count;
    }

private:
    GstPadProbeReturn Handle(GstPadProbeInfo* /*info*/) override
    {
        ++_Count;
        return GST_PAD_PROBE_OK;
    }

    unsigned _Count = 0;
};

// Drops the first buffers that cross a pad, as if the stream had started later.
class DropFirstBuffers : public PadProbe
{
public:
    DropFirstBuffers(GstElement* element, const char* padName, int count)
        : PadProbe(element, padName)
        , _Remaining(count)
    {
        Install(GST_PAD_PROBE_TYPE_BUFFER);
    }
    ~DropFirstBuffers() override { Remove(); }

private:
    GstPadProbeReturn Handle(GstPadProbeInfo* /*info*/) override
    {
        return --_Remaining >= 0 ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
    }

    int _Remaining;
};

// A directory of its own under the system's temporary folder, removed with its files.
class TempDir
{
public:
    TempDir()
    {
        VideoDaemon::GCharPtr path(g_dir_make_tmp("videod-test-XXXXXX", nullptr));
        _Path = path ? path.get() : "";
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
