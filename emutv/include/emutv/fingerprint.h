// The fingerprint the timeline gives the first block of each audio stream ("audio-stream"
// events): FNV-1a over the block's last 32 bytes (all of a shorter one), as 8 hex digits.
// The tail, because a sink may put a header in front of what it was handed (ADTS on raw
// AAC); a player fingerprints the buffers it hands the sink the same way to know which one
// started the stream. Header-only, so that a player can use it without linking the emulator.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <string>

namespace emutv {

inline std::string audio_tail_fingerprint(const uint8_t* data, size_t size) {
    const size_t from = size > 32 ? size - 32 : 0;
    uint32_t h = 2166136261u;
    for (size_t i = from; i < size; ++i)
        h = (h ^ data[i]) * 16777619u;
    char text[9];
    snprintf(text, sizeof(text), "%08x", static_cast<unsigned>(h));
    return text;
}

}  // namespace emutv
