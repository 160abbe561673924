// A quiet continuous sine tone written into ALSA channel areas, for the software capture device.
#pragma once

#include <alsa/asoundlib.h>

class ToneGenerator
{
public:
    // The tone: 440 Hz at a tenth of full scale (-20 dBFS), the same on every channel.
    static constexpr double kFrequency = 440.0;
    static constexpr double kAmplitude = 0.1;

    static bool Supports(snd_pcm_format_t format);

    // Starts the tone over for the given sample rate.
    void Reset(unsigned int rate);

    // Writes the next `frames` frames of the tone at `offset` of the areas,
    // in S16_LE, S32_LE or FLOAT_LE.
    void Fill(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t frames,
        unsigned int channels, snd_pcm_format_t format);

private:
    double _Phase = 0.0;
    double _Step = 0.0;
};
