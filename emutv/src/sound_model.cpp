// Sound card control device model ("/dev/snd/controlC0").
#include <errno.h>

#include "core.h"

namespace emutv {

void SoundCardModel::reset() {
    controls.clear();
    const char* names[] = {"qvl speaker main gain", "qvl hp main gain", "audio dec0 playback rate", "main out mute"};
    uint32_t numid = 1;
    for (const char* n : names) {
        MixerControl c;
        c.name = n;
        c.numid = numid++;
        controls.push_back(c);
    }
    writes.clear();
}

long SoundCardModel::value(const std::string& name) const {
    for (auto& c : controls)
        if (c.name == name) return c.value;
    return -1;
}

std::string SoundCardModel::request_name(unsigned long, const void*) const { return "SNDRV_CTL_IOCTL"; }

long SoundCardModel::ioctl(int, unsigned long, void*, Event&, int* err) {
    *err = ENOTTY;
    return -1;
}

}  // namespace emutv
