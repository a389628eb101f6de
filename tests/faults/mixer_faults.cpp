#include "mixer_faults.h"
#include "ruvo_internal_audio.h"

#include <alsa/asoundlib.h>

namespace faults {

namespace {

const std::string kCard = "/dev/snd/controlC0";

int per_write(const std::string& key) {
    if (key == "open:" + kCard || key == "close:" + kCard)
        return 3;
    if (key == "SNDRV_CTL_IOCTL_CARD_INFO" || key == "SNDRV_CTL_IOCTL_ELEM_LIST")
        return 2;
    return 1;
}

}  // namespace

MixerStep mixer_step(const Step& st) {
    const int n = per_write(st.key);
    return MixerStep{(st.occurrence - 1) / n, (st.occurrence - 1) % n + 1};
}

MixerFailure mixer_failure(const Step& st) {
    const std::string K = "_kcontrol_set";
    const std::vector<std::string> open_failed = {a(K, "Error! open  hctl failed"), ""};
    const std::vector<std::string> load_failed = {a(K, "Error! load hctl failed"), ""};
    const std::vector<std::string> write_failed = {a(K, "Error! write control elem failed"), " "};
    MixerFailure m;
    if (st.key == "close:" + kCard) {
        m.written = true;  // the result of the close is not looked at
    } else if (st.key == "open:" + kCard && mixer_step(st).position == 3) {
        // alsa-lib opens the control device of a card once more when the first open of
        // the control handle fails (after loading the card's driver).
        m.written = true;
    } else if (st.key == "open:" + kCard || st.key == "SNDRV_CTL_IOCTL_CARD_INFO" ||
               st.key == "SNDRV_CTL_IOCTL_PVERSION") {
        // Resolving "default" or opening the control handle fails: snd_hctl_open.
        m.lines = open_failed;
    } else if (st.key == "SNDRV_CTL_IOCTL_ELEM_LIST" || st.key == "SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS") {
        m.lines = load_failed;
    } else if (st.key == "SNDRV_CTL_IOCTL_ELEM_WRITE") {
        m.lines = write_failed;
    } else {
        m.known = false;
    }
    return m;
}

namespace {

// alsa-lib reports the failures it meets on standard error; the matrix reads the library's
// lines only.
void quiet_alsa(const char*, int, const char*, int, const char*, ...) {}

}  // namespace

void warm_up_mixer() {
    static bool done = false;
    if (done)
        return;
    done = true;
    snd_lib_error_set_handler(quiet_alsa);
    (void)_kcontrol_set("audio dec0 playback rate", 100);
}

}  // namespace faults
