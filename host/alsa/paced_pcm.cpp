// A software sound device for alsa-lib, paced in real time by CLOCK_MONOTONIC: capture delivers a
// test tone, playback discards what it is given, both at the rate a sound card would.
#include "paced_pcm.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <poll.h>

namespace
{

constexpr uint64_t kNanosecondsPerSecond = 1000000000;

// What the device accepts. The rates and sizes cover what GStreamer's ALSA
// elements and the usual command-line tools ask for.
constexpr unsigned int kAccesses[] = { SND_PCM_ACCESS_RW_INTERLEAVED, SND_PCM_ACCESS_MMAP_INTERLEAVED };
constexpr unsigned int kFormats[] = { SND_PCM_FORMAT_S16_LE, SND_PCM_FORMAT_S32_LE, SND_PCM_FORMAT_FLOAT_LE };
constexpr unsigned int kMinChannels = 1;
constexpr unsigned int kMaxChannels = 2;
constexpr unsigned int kMinRate = 8000;
constexpr unsigned int kMaxRate = 48000;
constexpr unsigned int kMinPeriodBytes = 64;
constexpr unsigned int kMaxPeriodBytes = 256 * 1024;
constexpr unsigned int kMinPeriods = 2;
constexpr unsigned int kMaxPeriods = 1024;
constexpr unsigned int kMaxBufferBytes = 1024 * 1024;

} // namespace

const snd_pcm_ioplug_callback_t PacedPcm::kCallbacks = MakeCallbacks();

int PacedPcm::Open(snd_pcm_t** pcmp, const char* name, snd_pcm_stream_t stream, int mode)
{
    std::unique_ptr<PacedPcm> device(new PacedPcm);
    int err = device->Setup(name, stream, mode);
    if (err < 0)
        return err;
    // From here on alsa-lib owns the device: closing the PCM runs the close
    // callback, which deletes it.
    PacedPcm* owned = device.release();
    err = owned->Constrain();
    if (err < 0) {
        snd_pcm_ioplug_delete(&owned->_Io);
        return err;
    }
    *pcmp = owned->_Io.pcm;
    return 0;
}

int PacedPcm::Setup(const char* name, snd_pcm_stream_t stream, int mode)
{
    if (!_Timer.IsValid())
        return -errno;
    _Io.version = SND_PCM_IOPLUG_VERSION;
    _Io.name = "videod software sound device (real-time pace, test tone capture)";
    // Monotonic status timestamps, as a sound card's driver gives: GStreamer
    // takes them as buffer times against the monotonic system clock. The
    // pointer counts up to the boundary, so a late caller loses no frames.
    _Io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    _Io.poll_fd = _Timer.Fd();
    _Io.poll_events = POLLIN;
    _Io.mmap_rw = 0;
    _Io.callback = &kCallbacks;
    _Io.private_data = this;
    return snd_pcm_ioplug_create(&_Io, name, stream, mode);
}

int PacedPcm::Constrain()
{
    int err = snd_pcm_ioplug_set_param_list(&_Io, SND_PCM_IOPLUG_HW_ACCESS, std::size(kAccesses), kAccesses);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_list(&_Io, SND_PCM_IOPLUG_HW_FORMAT, std::size(kFormats), kFormats);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&_Io, SND_PCM_IOPLUG_HW_CHANNELS, kMinChannels, kMaxChannels);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&_Io, SND_PCM_IOPLUG_HW_RATE, kMinRate, kMaxRate);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(
            &_Io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, kMinPeriodBytes, kMaxPeriodBytes);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(&_Io, SND_PCM_IOPLUG_HW_PERIODS, kMinPeriods, kMaxPeriods);
    if (err >= 0)
        err = snd_pcm_ioplug_set_param_minmax(
            &_Io, SND_PCM_IOPLUG_HW_BUFFER_BYTES, kMinPeriodBytes * kMinPeriods, kMaxBufferBytes);
    return err;
}

bool PacedPcm::IsStopped() const
{
    switch (_Io.state) {
    case SND_PCM_STATE_PREPARED:
    case SND_PCM_STATE_RUNNING:
    case SND_PCM_STATE_DRAINING:
    case SND_PCM_STATE_PAUSED:
        return false;
    default:
        return true;
    }
}

uint64_t PacedPcm::FramesAt(uint64_t now) const
{
    if (now <= _StartTime)
        return 0;
    const uint64_t elapsed = now - _StartTime;
    // Split so that the products stay within 64 bits for any run time.
    return elapsed / kNanosecondsPerSecond * _Io.rate
        + elapsed % kNanosecondsPerSecond * _Io.rate / kNanosecondsPerSecond;
}

uint64_t PacedPcm::TimeOfFrame(uint64_t frames) const
{
    const uint64_t rate = _Io.rate;
    const uint64_t rest = frames % rate * kNanosecondsPerSecond;
    return _StartTime + frames / rate * kNanosecondsPerSecond + (rest + rate - 1) / rate;
}

uint64_t PacedPcm::PeriodDuration() const
{
    return std::max<uint64_t>(1, uint64_t { _Io.period_size } * kNanosecondsPerSecond / _Io.rate);
}

snd_pcm_uframes_t PacedPcm::Boundary() const
{
    if (_Boundary > 0)
        return _Boundary;
    return std::max<snd_pcm_uframes_t>(1, _Io.buffer_size);
}

snd_pcm_uframes_t PacedPcm::AvailableNow(uint64_t now, bool* xrun) const
{
    const snd_pcm_uframes_t avail = snd_pcm_ioplug_avail(&_Io, _Io.hw_ptr, _Io.appl_ptr);
    *xrun = false;
    if (!_Running)
        return avail;
    const uint64_t advance = FramesAt(now) - _ReportedFrames;
    const uint64_t total = avail + advance;
    // Capture overruns when the application leaves a whole buffer unread;
    // playback underruns when the device has played everything it was given.
    if (IsCapture() ? total >= _Io.buffer_size : total > _Io.buffer_size) {
        *xrun = true;
        return _Io.buffer_size;
    }
    return static_cast<snd_pcm_uframes_t>(total);
}

void PacedPcm::BeginRunning()
{
    _Running = true;
    _StartTime = MonotonicTimer::Now();
    _ReportedFrames = 0;
}

void PacedPcm::ArmForNextWake(uint64_t now)
{
    bool xrun = false;
    const snd_pcm_uframes_t avail = AvailableNow(now, &xrun);
    if (IsStopped())
        _Timer.Arm(now, 0);
    else if (xrun || avail >= _AvailMin)
        _Timer.Arm(now, PeriodDuration());
    else if (_Running)
        _Timer.Arm(TimeOfFrame(FramesAt(now) + (_AvailMin - avail)), PeriodDuration());
    else
        _Timer.Disarm();
}

int PacedPcm::Start()
{
    std::lock_guard<std::mutex> lock(_Lock);
    BeginRunning();
    ArmForNextWake(_StartTime);
    return 0;
}

int PacedPcm::Stop()
{
    std::lock_guard<std::mutex> lock(_Lock);
    _Running = false;
    _Timer.Disarm();
    return 0;
}

snd_pcm_sframes_t PacedPcm::Pointer()
{
    std::lock_guard<std::mutex> lock(_Lock);
    if (!_Running)
        return static_cast<snd_pcm_sframes_t>(_Io.hw_ptr);
    bool xrun = false;
    const uint64_t now = MonotonicTimer::Now();
    AvailableNow(now, &xrun);
    if (xrun)
        return -EPIPE;
    const uint64_t frames = FramesAt(now);
    const uint64_t position = (_Io.hw_ptr + (frames - _ReportedFrames)) % Boundary();
    _ReportedFrames = frames;
    return static_cast<snd_pcm_sframes_t>(position);
}

snd_pcm_sframes_t PacedPcm::Transfer(
    const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    if (IsCapture())
        _Tone.Fill(areas, offset, size, _Io.channels, _Io.format);
    return static_cast<snd_pcm_sframes_t>(size);
}

int PacedPcm::HwParams()
{
    if (!ToneGenerator::Supports(_Io.format) || _Io.rate == 0)
        return -EINVAL;
    std::lock_guard<std::mutex> lock(_Lock);
    _Tone.Reset(_Io.rate);
    _AvailMin = std::max<snd_pcm_uframes_t>(1, _Io.period_size);
    return 0;
}

int PacedPcm::SwParams(snd_pcm_sw_params_t* params)
{
    snd_pcm_uframes_t availMin = 0;
    snd_pcm_uframes_t boundary = 0;
    if (snd_pcm_sw_params_get_avail_min(params, &availMin) < 0
        || snd_pcm_sw_params_get_boundary(params, &boundary) < 0)
        return -EINVAL;
    std::lock_guard<std::mutex> lock(_Lock);
    _AvailMin = std::max<snd_pcm_uframes_t>(1, availMin);
    _Boundary = boundary;
    return 0;
}

int PacedPcm::Prepare()
{
    std::lock_guard<std::mutex> lock(_Lock);
    _Running = false;
    _ReportedFrames = 0;
    _Timer.Disarm();
    return 0;
}

int PacedPcm::Drain()
{
    uint64_t until = 0;
    {
        std::lock_guard<std::mutex> lock(_Lock);
        if (IsCapture())
            return 0;
        const snd_pcm_uframes_t queued = snd_pcm_ioplug_hw_avail(&_Io, _Io.hw_ptr, _Io.appl_ptr);
        if (queued == 0)
            return 0;
        // Data written without reaching the start threshold is played now.
        if (!_Running)
            BeginRunning();
        until = TimeOfFrame(_ReportedFrames + queued);
    }
    MonotonicTimer::SleepUntil(until);
    return 0;
}

int PacedPcm::Pause(bool enable)
{
    std::lock_guard<std::mutex> lock(_Lock);
    if (enable) {
        _Running = false;
        _Timer.Disarm();
    } else {
        BeginRunning();
        ArmForNextWake(_StartTime);
    }
    return 0;
}

int PacedPcm::PollDescriptors(struct pollfd* pfd, unsigned int space)
{
    if (space < 1)
        return 0;
    pfd->fd = _Timer.Fd();
    pfd->events = POLLIN;
    pfd->revents = 0;
    std::lock_guard<std::mutex> lock(_Lock);
    ArmForNextWake(MonotonicTimer::Now());
    return 1;
}

int PacedPcm::PollRevents(struct pollfd* pfd, unsigned int nfds, unsigned short* revents)
{
    std::lock_guard<std::mutex> lock(_Lock);
    _Timer.Clear();
    // alsa-lib turns the error into the stream state's own error code.
    if (nfds < 1 || (pfd->revents & (POLLERR | POLLNVAL)) || IsStopped()) {
        *revents = POLLERR;
        return 0;
    }
    // A run past the application reads as ready, so that its next transfer
    // meets the xrun and recovers.
    const uint64_t now = MonotonicTimer::Now();
    bool xrun = false;
    if (AvailableNow(now, &xrun) >= _AvailMin || xrun) {
        *revents = IsCapture() ? POLLIN : POLLOUT;
    } else {
        *revents = 0;
        ArmForNextWake(now);
    }
    return 0;
}

snd_pcm_ioplug_callback_t PacedPcm::MakeCallbacks()
{
    snd_pcm_ioplug_callback_t callbacks {};
    callbacks.start = [](snd_pcm_ioplug_t* io) { return Of(io)->Start(); };
    callbacks.stop = [](snd_pcm_ioplug_t* io) { return Of(io)->Stop(); };
    callbacks.pointer = [](snd_pcm_ioplug_t* io) { return Of(io)->Pointer(); };
    callbacks.transfer
        = [](snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
              snd_pcm_uframes_t size) { return Of(io)->Transfer(areas, offset, size); };
    callbacks.close = [](snd_pcm_ioplug_t* io) {
        delete Of(io);
        return 0;
    };
    callbacks.hw_params = [](snd_pcm_ioplug_t* io, snd_pcm_hw_params_t*) { return Of(io)->HwParams(); };
    callbacks.sw_params
        = [](snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) { return Of(io)->SwParams(params); };
    callbacks.prepare = [](snd_pcm_ioplug_t* io) { return Of(io)->Prepare(); };
    callbacks.drain = [](snd_pcm_ioplug_t* io) { return Of(io)->Drain(); };
    callbacks.pause = [](snd_pcm_ioplug_t* io, int enable) { return Of(io)->Pause(enable != 0); };
    callbacks.poll_descriptors_count = [](snd_pcm_ioplug_t*) { return 1; };
    callbacks.poll_descriptors = [](snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int space) {
        return Of(io)->PollDescriptors(pfd, space);
    };
    callbacks.poll_revents = [](snd_pcm_ioplug_t* io, struct pollfd* pfd, unsigned int nfds,
                                 unsigned short* revents) { return Of(io)->PollRevents(pfd, nfds, revents); };
    return callbacks;
}
