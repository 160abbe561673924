// Writes one capture to an MP4 file: IDR start, gap-free pause and resume, byte counting.
#pragma once

#include <atomic>
#include <memory>

#include "pipelines/pipeline.h"

namespace VideoDaemon
{

// Drives one muxpause element of a launched pipeline. Used before the
// pipeline is launched, every operation ends the process. `pipeline` must
// outlive this object.
class MuxPause
{
public:
    MuxPause(Pipeline* pipeline, std::string element_name);
    MuxPause(const MuxPause&) = delete;
    MuxPause& operator=(const MuxPause&) = delete;

    void Reset();
    void Pause();
    void Resume();
    guint64 GetPauseLength();
    void SetPauseLength(guint64 length);

private:
    Pipeline* pipeline; // not owned: the pipeline holding the element
    std::string element_name;
};

class Mp4muxPipeline : public Pipeline
{
public:
    // Element names are `prefix` followed by a fixed suffix.
    explicit Mp4muxPipeline(const std::string& prefix);

    // Also makes the file sink write every buffer as it comes, so that a
    // killed recording leaves as much on disk as can be recovered.
    bool Launch(bool attach_probes, bool connect_bus, bool connect_queue_signals) override;
    std::string GetDescription() override { return description; }
    std::string GetName() override { return name; }
    std::string GetSinkName() override { return filesink_name; }
    std::string GetSourceName() override { return video_source_name; }

    // Starts a new file at `path`: counter reset, counting on, pause state
    // reset.
    virtual void OpenRecord(const std::string& path);
    // Finishes the file with EOS (its arrival comes later through
    // signal_eos) or kills the pipeline without it. 0 on success.
    virtual int CloseRecord(bool send_eos);
    // The interpipesrc that listens to the AAC encoder.
    virtual std::string GetAudioSourceName() { return audio_source_name; }
    virtual void SetLocation(const std::string& path);

    void SetDropIDR(bool drop);
    void SetMoovRecoveryFile(const std::string& path);
    // The muxer's moov recovery file; empty when unset or unavailable.
    std::string GetMoovRecoveryFile() const;
    // Enabling while already counting toggles the counting off, also after a
    // relaunch while counting.
    bool EnableTrackerSignals(bool enable);
    void ResetMuxPause();
    // Pauses (true) or resumes (false) both streams without a gap.
    void SetMuxPause(bool pause);

    const std::string& GetLocation() const { return location; }
    const std::string& GetPreviousLocation() const { return previous_location; }
    // Bytes written to the current file since OpenRecord.
    guint64 GetBytesWritten() const { return bytes_written.load(); }

protected:
    Mp4muxPipeline(const std::string& prefix, const char* description_template);

private:
    void EnsureMuxPause();
    static void OnHandoff(GstElement* identity, GstBuffer* buffer, gpointer user_data);

    std::string description;
    std::string name;
    std::string filesink_name;
    std::string video_source_name;
    std::string audio_source_name;
    std::string video_pause_name;
    std::string audio_pause_name;
    std::string multiqueue_name;
    std::string idr_valve_name;
    std::string mux_name;
    std::string tracker_name;
    std::string queue_name;
    std::string location;
    std::string previous_location;
    // Added to on the tracker's streaming thread.
    std::atomic<guint64> bytes_written { 0 };
    std::unique_ptr<MuxPause> video_pause;
    std::unique_ptr<MuxPause> audio_pause;
    // Whether the tracker's "handoff" was connected by the last enable; kept
    // across a relaunch, which drops the connection itself.
    bool tracker_connected = false;
};

} // namespace VideoDaemon
