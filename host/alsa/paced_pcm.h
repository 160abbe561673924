// A software sound device for alsa-lib, paced in real time by CLOCK_MONOTONIC: capture delivers a
// test tone, playback discards what it is given, both at the rate a sound card would.
#pragma once

#include "monotonic_timer.h"
#include "tone_generator.h"

#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <cstdint>
#include <mutex>

class PacedPcm
{
public:
    // Creates the device behind *pcmp; alsa-lib owns it from then on and
    // destroys it when the PCM is closed. Returns 0 or a negative errno.
    static int Open(snd_pcm_t** pcmp, const char* name, snd_pcm_stream_t stream, int mode);

    PacedPcm(const PacedPcm&) = delete;
    PacedPcm& operator=(const PacedPcm&) = delete;

private:
    PacedPcm() = default;

    int Setup(const char* name, snd_pcm_stream_t stream, int mode);
    int Constrain();

    bool IsCapture() const { return _Io.stream == SND_PCM_STREAM_CAPTURE; }
    // Not prepared, running, draining or paused: pollers get an error at once.
    bool IsStopped() const;
    // Frames the device has moved since it started, at monotonic time `now`.
    uint64_t FramesAt(uint64_t now) const;
    // Monotonic time at which the device will have moved `frames` frames.
    uint64_t TimeOfFrame(uint64_t frames) const;
    uint64_t PeriodDuration() const;
    // Frames the application can take (capture) or give (playback) now,
    // counting what the device moved since the last pointer report; sets
    // *xrun when the device has run past the application.
    snd_pcm_uframes_t AvailableNow(uint64_t now, bool* xrun) const;
    snd_pcm_uframes_t Boundary() const;
    void BeginRunning();
    // Arms the timer for the moment the application's wake-up level
    // (avail_min) is reached, and for every period after that.
    void ArmForNextWake(uint64_t now);

    int Start();
    int Stop();
    snd_pcm_sframes_t Pointer();
    snd_pcm_sframes_t Transfer(
        const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t size);
    int HwParams();
    int SwParams(snd_pcm_sw_params_t* params);
    int Prepare();
    int Drain();
    int Pause(bool enable);
    int PollDescriptors(struct pollfd* pfd, unsigned int space);
    int PollRevents(struct pollfd* pfd, unsigned int nfds, unsigned short* revents);

    static PacedPcm* Of(snd_pcm_ioplug_t* io) { return static_cast<PacedPcm*>(io->private_data); }
    static snd_pcm_ioplug_callback_t MakeCallbacks();
    static const snd_pcm_ioplug_callback_t kCallbacks;

    snd_pcm_ioplug_t _Io {};
    MonotonicTimer _Timer;
    ToneGenerator _Tone;
    // alsa-lib holds its own lock around most callbacks but not around
    // polling; this one guards the fields below.
    mutable std::mutex _Lock;
    bool _Running = false;
    uint64_t _StartTime = 0;
    // Frames moved since the start up to the last pointer report.
    uint64_t _ReportedFrames = 0;
    snd_pcm_uframes_t _AvailMin = 1;
    snd_pcm_uframes_t _Boundary = 0;
};
