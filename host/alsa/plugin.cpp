// Entry point alsa-lib looks up when a configuration names the PCM type "videod".
#include "paced_pcm.h"

#include <cstring>

extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(videod)
{
    (void)root;
    snd_config_iterator_t i;
    snd_config_iterator_t next;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t* entry = snd_config_iterator_entry(i);
        const char* id = nullptr;
        if (snd_config_get_id(entry, &id) < 0)
            continue;
        if (std::strcmp(id, "comment") == 0 || std::strcmp(id, "type") == 0 || std::strcmp(id, "hint") == 0)
            continue;
        SNDERR("Unknown field %s", id);
        return -EINVAL;
    }
    return PacedPcm::Open(pcmp, name, stream, mode);
}

SND_PCM_PLUGIN_SYMBOL(videod)
}
