// Plays a recorded file to the display and speaker with pause, trick-mode rates and seeks, reporting
// progress.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

// Progress report: (user data, error, end of stream, rate, position ms, duration ms).
using playback_callback_t = std::function<void(void*, bool, bool, double, int64_t, int64_t)>;

class PlaybackPipeline : public Pipeline
{
public:
    // `display` true shows the video on the display; false sends it to a
    // null sink and shows the recording's thumbnail instead.
    explicit PlaybackPipeline(bool display);

    std::string GetDescription() override;
    bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals) override;

    // Opens `file` and plays it at `rate` (0.0 opens it paused), reporting
    // every `interval` ms to `callback` until it ends. 0 or -1.
    int Play(std::string file, gdouble rate, playback_callback_t callback, guint interval, void* userData);
    // Ends playback; one final report carries the end of stream.
    void Stop();
    int SetRate(gdouble rate);
    // Moves by `offsetMs` from the current position, within the file.
    int Seek(int offsetMs);
    int TogglePause();
    gdouble GetRate() const { return _Rate; }
    int GetPlaybackStatus(
        bool& active, bool& eos, bool& error, double& rate, int64_t& position, int64_t& duration);

    const std::string& GetCurrentFile() const { return _CurrentFile; }

private:
    // Drops the pipeline and the handles into it after a failed launch.
    void ReleaseElements();
    int _SetRate(gdouble rate);
    int _Seek(int offsetMs);
    // The playbin's position in ms into _Position; false when unknown.
    bool QueryPosition();
    void Report();

    static gboolean _UpdateTimerCb(gpointer user_data);
    static void OnBuffering(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnEndOfStream(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnAsyncDone(GstBus* bus, GstMessage* message, gpointer user_data);
    static void OnPlaybackError(GstBus* bus, GstMessage* message, gpointer user_data);

    bool _Display;
    GCharPtr _Uri;
    GstPtr<GstElement> _Playbin;
    GstPtr<GstElement> _JpegSource;
    GstPtr<GstElement> _VideoSink;
    GstPtr<GstElement> _AudioSink;
    int64_t _Position = 0;
    int64_t _Duration = 0;
    double _Rate = 0.0;
    bool _Error = false;
    bool _Eos = false;
    // The progress timer; held while a playback reports (the timer-active
    // flag).
    GSourcePtr _Timer;
    playback_callback_t _UpdateCb;
    void* _UserData = nullptr;
    std::string _CurrentFile;
};

} // namespace VideoDaemon
