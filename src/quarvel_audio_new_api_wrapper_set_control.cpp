// Mixer controls of the chip's sound card: output gain, decoder playback rate and mute,
// written through alsa-lib's high-level control interface on the card "default".
#include <math.h>
#include <stdint.h>
#include <string.h>

#include <alsa/asoundlib.h>

#include "ruvo_internal_audio.h"
#include "ruvo_log.h"

namespace {

const char kCardName[] = "default";
const char kSpeakerGain[] = "qvl speaker main gain";
const char kHeadphoneGain[] = "qvl hp main gain";
const char kPlaybackRate[] = "audio dec0 playback rate";

// Float to signed 32-bit, truncated toward zero and saturated, NaN giving 0: the
// conversion of the television's processor, made the same on every host.
int32_t saturate_to_int32(double v) {
    if (isnan(v))
        return 0;
    if (v >= 2147483648.0)
        return INT32_MAX;
    if (v <= -2147483649.0)
        return INT32_MIN;
    return static_cast<int32_t>(v);
}

}  // namespace

int _kcontrol_set(const char* name, int value) {
    // The handle stays null until the open succeeds, so a failed open closes nothing.
    snd_hctl_t* hctl = nullptr;
    snd_hctl_t* opened = nullptr;
    if (snd_hctl_open(&opened, kCardName, 0) < 0) {
        QVL_ALOG("Error! open  hctl failed\n\n");
        return -1;
    }
    hctl = opened;

    int result = -1;
    const int load = snd_hctl_load(hctl);
    if (load < 0) {
        QVL_ALOG("Error! load hctl failed\n\n");
    } else {
        snd_ctl_elem_id_t* id;
        snd_ctl_elem_id_alloca(&id);
        snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
        snd_ctl_elem_id_set_device(id, 0);
        snd_ctl_elem_id_set_name(id, name);
        snd_hctl_elem_t* elem = snd_hctl_find_elem(hctl, id);
        if (elem == nullptr) {
            QVL_ALOG("Error! Could not found the card %s ctrl %s error:%d\n\n", kCardName, name, load);
        } else {
            snd_ctl_elem_value_t* control;
            snd_ctl_elem_value_alloca(&control);
            snd_ctl_elem_value_set_id(control, id);
            snd_ctl_elem_value_set_integer(control, 0, value);
            if (snd_hctl_elem_write(elem, control) < 0) {
                QVL_ALOG("Error! write control elem failed\n \n");
            } else {
                result = 0;
            }
        }
    }
    if (hctl != nullptr)
        snd_hctl_close(hctl);
    return result;
}

int quarvel_audio_output_volume_control(quarvel_audio_output_s* /*output*/, float volume) {
    // Gain in fixed point with 15 fraction bits: 1.0 is 32768.
    const int gain = saturate_to_int32(static_cast<double>(volume) * 32768.0);
    int result = 0;
    if (_kcontrol_set(kSpeakerGain, gain) == -1) {
        QVL_ALOG("Error! set 'speaker out gain' failed\n \n");
        result = -1;
    }
    if (_kcontrol_set(kHeadphoneGain, gain) == -1) {
        QVL_ALOG("Error! set 'speaker out gain' failed\n \n");
        result = -1;
    }
    return result;
}

int quarvel_audio_output_speed_control(quarvel_audio_output_s* /*output*/, float speed) {
    // Rate in percent: 1.0 is 100.
    const int rate = saturate_to_int32(static_cast<double>(speed) * 100.0);
    if (_kcontrol_set(kPlaybackRate, rate) == -1) {
        QVL_ALOG("Error! set 'speaker out gain' failed\n \n");
        return -1;
    }
    return 0;
}
