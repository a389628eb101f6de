// Sound card control device model ("/dev/snd/controlC0"): the card's control interface as
// the real alsa-lib drives it through its hw control plugin. Opening "default" and loading
// the element list makes alsa-lib issue PVERSION, CARD_INFO, ELEM_LIST (count, then ids)
// and SUBSCRIBE_EVENTS; a write issues ELEM_WRITE. ELEM_INFO and ELEM_READ answer as the
// kernel does for tools that read the card.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <sound/asound.h>

#include <fstream>
#include <sstream>

#include "core.h"

namespace emutv {

namespace {

// alsa-lib resolves "default" through its configuration. The stock configuration first
// loads the machine's and the user's files (/etc/asound.conf, ~/.asoundrc, ...), which may
// point "default" at a sound server. The emulated TV has no such files: alsa-lib is given
// the stock configuration without that first hook, so "default" resolves to card 0 through
// the stock card aliases, as on the television. Runs when the emulator is loaded, before
// alsa-lib reads any configuration.
class AlsaConfiguration {
  public:
    AlsaConfiguration() {
        unsetenv("ALSA_CARD");
        unsetenv("ALSA_PCM_CARD");
        unsetenv("ALSA_CTL_CARD");
        if (getenv("ALSA_CONFIG_PATH") != nullptr)
            return;
        std::ifstream in("/usr/share/alsa/alsa.conf");
        if (!in)
            return;
        std::ostringstream out;
        std::string line;
        bool skipping = false, skipped = false;
        while (std::getline(in, line)) {
            if (!skipped && !skipping && line == "@hooks [") {
                skipping = true;
                continue;
            }
            if (skipping) {
                if (line == "]") {
                    skipping = false;
                    skipped = true;
                }
                continue;
            }
            out << line << '\n';
        }
        // Beside the sandbox (which reset() empties), never in the machine's /tmp; removed
        // with the sandbox.
        const std::string path = detail::alsa_configuration_path();
        std::ofstream(path, std::ios::trunc) << out.str();
        setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
    }
};

AlsaConfiguration s_alsa_configuration;

std::string id_name(const snd_ctl_elem_id& id) {
    return std::string(reinterpret_cast<const char*>(id.name),
                       strnlen(reinterpret_cast<const char*>(id.name), sizeof(id.name)));
}

void record_id(const snd_ctl_elem_id& id, Event& ev) {
    ev.fields["numid"] = id.numid;
    ev.fields["iface"] = id.iface;
    ev.fields["device"] = id.device;
    ev.fields["subdevice"] = id.subdevice;
    ev.fields["index"] = id.index;
    ev.text["name"] = id_name(id);
}

void fill_id(const MixerControl& c, snd_ctl_elem_id* id) {
    memset(id, 0, sizeof(*id));
    id->numid = c.numid;
    id->iface = SNDRV_CTL_ELEM_IFACE_MIXER;
    strncpy(reinterpret_cast<char*>(id->name), c.name.c_str(), sizeof(id->name) - 1);
}

// As the kernel: by numeric id when one is given, else by interface, device, subdevice,
// name and index.
MixerControl* find(std::vector<MixerControl>& controls, const snd_ctl_elem_id& id) {
    for (auto& c : controls) {
        if (id.numid != 0) {
            if (id.numid == c.numid)
                return &c;
            continue;
        }
        if (id.iface == SNDRV_CTL_ELEM_IFACE_MIXER && id.device == 0 && id.subdevice == 0 && id.index == 0 &&
            id_name(id) == c.name)
            return &c;
    }
    return nullptr;
}

}  // namespace

void SoundCardModel::reset() {
    controls.clear();
    const char* names[] = {"qvl speaker main gain", "qvl hp main gain", "audio dec0 playback rate",
                           "main out mute"};
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
        if (c.name == name)
            return c.value;
    return -1;
}

bool SoundCardModel::remove_control(const std::string& name) {
    for (auto it = controls.begin(); it != controls.end(); ++it) {
        if (it->name == name) {
            controls.erase(it);
            return true;
        }
    }
    return false;
}

std::string SoundCardModel::request_name(unsigned long req, const void*) const {
    switch (req) {
        case SNDRV_CTL_IOCTL_PVERSION:
            return "SNDRV_CTL_IOCTL_PVERSION";
        case SNDRV_CTL_IOCTL_CARD_INFO:
            return "SNDRV_CTL_IOCTL_CARD_INFO";
        case SNDRV_CTL_IOCTL_ELEM_LIST:
            return "SNDRV_CTL_IOCTL_ELEM_LIST";
        case SNDRV_CTL_IOCTL_ELEM_INFO:
            return "SNDRV_CTL_IOCTL_ELEM_INFO";
        case SNDRV_CTL_IOCTL_ELEM_READ:
            return "SNDRV_CTL_IOCTL_ELEM_READ";
        case SNDRV_CTL_IOCTL_ELEM_WRITE:
            return "SNDRV_CTL_IOCTL_ELEM_WRITE";
        case SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS:
            return "SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS";
        default: {
            char buf[40];
            snprintf(buf, sizeof(buf), "SNDRV_CTL_IOCTL_0x%lx", req);
            return buf;
        }
    }
}

long SoundCardModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    if (arg == nullptr) {
        *err = EFAULT;
        return -1;
    }
    auto& f = ev.fields;
    switch (req) {
        case SNDRV_CTL_IOCTL_PVERSION:
            *static_cast<int*>(arg) = SNDRV_CTL_VERSION;
            f["version"] = SNDRV_CTL_VERSION;
            return 0;
        case SNDRV_CTL_IOCTL_CARD_INFO: {
            auto* info = static_cast<snd_ctl_card_info*>(arg);
            memset(info, 0, sizeof(*info));
            info->card = 0;
            // A driver name without a configuration file of its own in alsa-lib's data.
            strcpy(reinterpret_cast<char*>(info->id), "QVLSND");
            strcpy(reinterpret_cast<char*>(info->driver), "qvl-snd");
            strcpy(reinterpret_cast<char*>(info->name), "QVL sound card");
            strcpy(reinterpret_cast<char*>(info->longname), "QVL TV sound card");
            strcpy(reinterpret_cast<char*>(info->mixername), "QVL mixer");
            f["card"] = 0;
            return 0;
        }
        case SNDRV_CTL_IOCTL_ELEM_LIST: {
            auto* list = static_cast<snd_ctl_elem_list*>(arg);
            uint32_t count = static_cast<uint32_t>(controls.size());
            f["offset"] = list->offset;
            f["space"] = list->space;
            if (list->space > 0 && list->pids == nullptr) {
                *err = EFAULT;
                return -1;
            }
            list->count = count;
            list->used = 0;
            for (uint32_t i = list->offset; i < count && list->used < list->space; ++i)
                fill_id(controls[i], &list->pids[list->used++]);
            f["count"] = list->count;
            f["used"] = list->used;
            return 0;
        }
        case SNDRV_CTL_IOCTL_ELEM_INFO: {
            auto* info = static_cast<snd_ctl_elem_info*>(arg);
            record_id(info->id, ev);
            MixerControl* c = find(controls, info->id);
            if (c == nullptr) {
                *err = ENOENT;
                return -1;
            }
            memset(info, 0, sizeof(*info));
            fill_id(*c, &info->id);
            info->type = SNDRV_CTL_ELEM_TYPE_INTEGER;
            info->access = SNDRV_CTL_ELEM_ACCESS_READWRITE;
            info->count = 1;
            info->value.integer.min = c->min;
            info->value.integer.max = c->max;
            info->value.integer.step = 1;
            return 0;
        }
        case SNDRV_CTL_IOCTL_ELEM_READ: {
            auto* v = static_cast<snd_ctl_elem_value*>(arg);
            record_id(v->id, ev);
            MixerControl* c = find(controls, v->id);
            if (c == nullptr) {
                *err = ENOENT;
                return -1;
            }
            v->value.integer.value[0] = c->value;
            f["value"] = c->value;
            return 0;
        }
        case SNDRV_CTL_IOCTL_ELEM_WRITE: {
            auto* v = static_cast<snd_ctl_elem_value*>(arg);
            record_id(v->id, ev);
            long value = v->value.integer.value[0];
            f["value"] = value;
            MixerControl* c = find(controls, v->id);
            if (c == nullptr) {
                *err = ENOENT;
                return -1;
            }
            if (value < c->min || value > c->max) {
                *err = EINVAL;
                return -1;
            }
            c->value = value;
            writes.push_back({c->name, value});
            return 0;
        }
        case SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS:
            f["subscribe"] = *static_cast<int*>(arg);
            return 0;
        default:
            *err = ENOTTY;
            return -1;
    }
}

}  // namespace emutv
