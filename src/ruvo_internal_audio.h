// Internals of the audio output: compressed-offload metadata and the sound card's mixer
// controls.
#pragma once

#include "ruvo/driver/compress_ext.h"
#include "ruvo/quarvel_audio_output.h"
#include "ruvo_visibility.h"

RUVO_INTERNAL int set_compr_metadata(int fd, int key, int value);
RUVO_INTERNAL void CloseDevice(quarvel_audio_output_s* output);
RUVO_INTERNAL int _kcontrol_set(const char* name, int value);
