// What a mixer control write (_kcontrol_set through alsa-lib's high-level control
// interface) prints when one of the sound card's requests fails.
#pragma once

#include "fault_matrix.h"

namespace faults {

// One control write is, once alsa-lib has its configuration loaded: three opens of the
// card's control device (two while "default" is resolved to card 0, one for the control
// handle), the card information twice, the protocol version, the element list twice, the
// event subscription, the element write, and a close after each open.
struct MixerStep {
    int write = 0;     // which control write of the call, from 0
    int position = 0;  // occurrence of the request within that write, from 1
};

MixerStep mixer_step(const Step& st);

// The lines _kcontrol_set prints when the step fails, and whether the control was written
// all the same. `known` is false for a request the table does not cover.
struct MixerFailure {
    bool known = true;
    bool written = false;
    std::vector<std::string> lines;
};

MixerFailure mixer_failure(const Step& st);

// Loads alsa-lib's configuration once in the process: the first control write also probes
// every possible card, later ones do not.
void warm_up_mixer();

}  // namespace faults
