// A launched GStreamer pipeline for the i.MX stand-in tests: bounded waits,
// appsink pulls and an independent reader (ffprobe) for written files.
#pragma once

#include <glib/gstdio.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>

namespace ImxTest
{

struct ObjectUnref {
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct SampleUnref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
struct MessageUnref {
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
using ElementPtr = std::unique_ptr<GstElement, ObjectUnref>;
using SamplePtr = std::unique_ptr<GstSample, SampleUnref>;
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;

constexpr GstClockTime kTimeout = 20 * GST_SECOND;

class TestPipeline
{
public:
    explicit TestPipeline(const std::string& description)
    {
        gst_init(nullptr, nullptr);
        GError* error = nullptr;
        _Pipeline.reset(gst_parse_launch(description.c_str(), &error));
        if (error) {
            _ParseError = error->message;
            g_error_free(error);
        }
    }
    ~TestPipeline()
    {
        if (_Pipeline)
            gst_element_set_state(_Pipeline.get(), GST_STATE_NULL);
    }
    TestPipeline(const TestPipeline&) = delete;
    TestPipeline& operator=(const TestPipeline&) = delete;

    bool Parsed() const { return _Pipeline && _ParseError.empty(); }
    const std::string& ParseError() const { return _ParseError; }
    GstElement* Get() const { return _Pipeline.get(); }

    // Borrowed for the life of the pipeline.
    GstElement* Element(const char* name) const
    {
        ElementPtr element(gst_bin_get_by_name(GST_BIN(_Pipeline.get()), name));
        return element.get();
    }

    GstStateChangeReturn Play() { return gst_element_set_state(_Pipeline.get(), GST_STATE_PLAYING); }

    // Waits for EOS; false (with the error text kept) on an error or time-out.
    bool RunToEos(GstClockTime timeout = kTimeout)
    {
        if (Play() == GST_STATE_CHANGE_FAILURE) {
            _Error = "state change failed";
            return false;
        }
        return WaitForEos(timeout);
    }

    bool WaitForEos(GstClockTime timeout = kTimeout)
    {
        std::unique_ptr<GstBus, ObjectUnref> bus(gst_element_get_bus(_Pipeline.get()));
        MessagePtr message(gst_bus_timed_pop_filtered(
            bus.get(), timeout, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        if (!message) {
            _Error = "timed out";
            return false;
        }
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
            GError* error = nullptr;
            gst_message_parse_error(message.get(), &error, nullptr);
            _Error = error ? error->message : "error";
            g_clear_error(&error);
            return false;
        }
        return true;
    }

    SamplePtr Pull(const char* appsink, GstClockTime timeout = kTimeout) const
    {
        return SamplePtr(gst_app_sink_try_pull_sample(GST_APP_SINK(Element(appsink)), timeout));
    }

    const std::string& Error() const { return _Error; }

private:
    ElementPtr _Pipeline;
    std::string _ParseError;
    std::string _Error;
};

// Runs a command and returns what it printed on standard output.
inline std::string RunCommand(const std::string& command)
{
    struct PipeClose {
        void operator()(FILE* pipe) const { pclose(pipe); }
    };
    std::unique_ptr<FILE, PipeClose> pipe(popen(command.c_str(), "r"));
    std::string output;
    if (!pipe)
        return output;
    char chunk[4096];
    size_t count = 0;
    while ((count = fread(chunk, 1, sizeof chunk, pipe.get())) > 0)
        output.append(chunk, count);
    return output;
}

// ffprobe's value of one entry, e.g. Probe(file, "v:0", "stream=profile").
inline std::string Probe(const std::string& file, const std::string& streams, const std::string& entries)
{
    std::string command = "ffprobe -v error";
    if (!streams.empty())
        command += " -select_streams " + streams;
    command += " -show_entries " + entries + " -of default=noprint_wrappers=1:nokey=1 '" + file + "'";
    std::string output = RunCommand(command);
    while (!output.empty() && (output.back() == '\n' || output.back() == '\r'))
        output.pop_back();
    return output;
}

// Several ffprobe entries at once, by key, e.g. ProbeAll(file, "v:0", "stream=codec_name,profile").
inline std::map<std::string, std::string> ProbeAll(
    const std::string& file, const std::string& streams, const std::string& entries)
{
    std::string command = "ffprobe -v error";
    if (!streams.empty())
        command += " -select_streams " + streams;
    command += " -show_entries " + entries + " -of default=noprint_wrappers=1 '" + file + "'";
    std::map<std::string, std::string> values;
    std::istringstream lines(RunCommand(command));
    for (std::string line; std::getline(lines, line);) {
        const auto equals = line.find('=');
        if (equals != std::string::npos)
            values[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return values;
}

// A file name unique to this process in the temporary directory, removed with the object.
class TempFile
{
public:
    explicit TempFile(const std::string& suffix)
        : _Path(std::string(g_get_tmp_dir()) + "/imx_test_" + std::to_string(getpid()) + "_"
            + std::to_string(++Counter()) + suffix)
    {
    }
    ~TempFile() { std::remove(_Path.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    const std::string& Path() const { return _Path; }

private:
    static int& Counter()
    {
        static int counter = 0;
        return counter;
    }
    std::string _Path;
};

inline gsize FileSize(const std::string& path)
{
    GStatBuf info;
    return g_stat(path.c_str(), &info) == 0 ? static_cast<gsize>(info.st_size) : 0;
}

} // namespace ImxTest
