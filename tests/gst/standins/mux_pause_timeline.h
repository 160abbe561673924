// Reading a muxpause element: its pause length, and the timeline it hands on to the muxer.
#pragma once

#include <algorithm>
#include <string>

#include "support/ffprobe.h"
#include "support/gst_test_pipeline.h"

namespace GstTest
{

inline guint64 PauseLength(GstElement* element)
{
    guint64 length = 0;
    g_object_get(element, "pause_length", &length, nullptr);
    return length;
}

// The timeline a muxpause element hands on to the muxer: its length and its widest step.
class OutputTimeline
{
public:
    explicit OutputTimeline(GstElement* pause)
        : _Probe(pause, "src", [this](GstBuffer* buffer) { Add(buffer); })
    {
    }

    double Seconds() const { return _First == GST_CLOCK_TIME_NONE ? 0.0 : double(_End - _First) / GST_SECOND; }
    double WidestStep() const { return double(_WidestStep) / GST_SECOND; }

private:
    void Add(GstBuffer* buffer)
    {
        const GstClockTime pts = GST_BUFFER_PTS(buffer);
        if (pts == GST_CLOCK_TIME_NONE)
            return;
        if (_First == GST_CLOCK_TIME_NONE)
            _First = _Last = pts;
        if (pts > _Last)
            _WidestStep = std::max(_WidestStep, pts - _Last);
        _Last = pts;
        const GstClockTime duration = GST_BUFFER_DURATION(buffer);
        _End = std::max(_End, pts + (duration == GST_CLOCK_TIME_NONE ? 0 : duration));
    }

    GstClockTime _First = GST_CLOCK_TIME_NONE;
    GstClockTime _Last = 0;
    GstClockTime _End = 0;
    GstClockTime _WidestStep = 0;
    BufferProbe _Probe;
};

// What a paused recording must hold however the machine's load shifted the wall-clock steps: the
// muxer saw one timeline without the paused stretch (a resume may wait up to one GOP for a key
// frame), and the file holds all of it, sound as long as picture.
inline void ExpectNoGap(const std::string& file, const OutputTimeline& video)
{
    EXPECT_GT(video.Seconds(), 1.0);
    EXPECT_LT(video.WidestStep(), 0.6);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "v"), video.Seconds(), 0.2);
    EXPECT_NEAR(FfprobeNumber(file, "stream=duration", "a"), video.Seconds(), 0.3);
    EXPECT_NEAR(FfprobeNumber(file, "format=duration"), video.Seconds(), 0.3);
}

} // namespace GstTest
