// A quiet continuous sine tone written into ALSA channel areas, for the software capture device.
#include "tone_generator.h"

#include <cmath>
#include <cstdint>
#include <cstring>

// The formats are little-endian and written in the machine's own order.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "little-endian machines only");

namespace
{

constexpr double kTwoPi = 2.0 * M_PI;

template <typename Sample> void Store(void* address, Sample value)
{
    std::memcpy(address, &value, sizeof value);
}

// Address of one sample: ALSA gives an area's start and step in bits.
void* SampleAddress(const snd_pcm_channel_area_t& area, snd_pcm_uframes_t frame)
{
    const uint64_t bit = area.first + static_cast<uint64_t>(frame) * area.step;
    return static_cast<char*>(area.addr) + bit / 8;
}

} // namespace

bool ToneGenerator::Supports(snd_pcm_format_t format)
{
    return format == SND_PCM_FORMAT_S16_LE || format == SND_PCM_FORMAT_S32_LE
        || format == SND_PCM_FORMAT_FLOAT_LE;
}

void ToneGenerator::Reset(unsigned int rate)
{
    _Phase = 0.0;
    _Step = rate > 0 ? kTwoPi * kFrequency / rate : 0.0;
}

void ToneGenerator::Fill(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
    snd_pcm_uframes_t frames, unsigned int channels, snd_pcm_format_t format)
{
    for (snd_pcm_uframes_t i = 0; i < frames; ++i) {
        const double value = kAmplitude * std::sin(_Phase);
        _Phase += _Step;
        if (_Phase >= kTwoPi)
            _Phase -= kTwoPi;
        for (unsigned int channel = 0; channel < channels; ++channel) {
            void* address = SampleAddress(areas[channel], offset + i);
            switch (format) {
            case SND_PCM_FORMAT_S16_LE:
                Store(address, static_cast<int16_t>(std::lround(value * INT16_MAX)));
                break;
            case SND_PCM_FORMAT_S32_LE:
                Store(address, static_cast<int32_t>(std::llround(value * INT32_MAX)));
                break;
            case SND_PCM_FORMAT_FLOAT_LE:
                Store(address, static_cast<float>(value));
                break;
            default:
                break;
            }
        }
    }
}
