// Generated compressed audio: ADTS AAC, AC-3 and E-AC-3 sync frames with a valid header
// and a filler payload.
#pragma once

#include <stdint.h>

#include <vector>

namespace timeline_test {

// One ADTS frame (no CRC) of `bytes` bytes, 1024 samples at 48 kHz (index 3).
inline std::vector<uint8_t> adts_frame(uint32_t bytes, uint8_t fill = 0x21) {
    std::vector<uint8_t> f(bytes, fill);
    f[0] = 0xFF;
    f[1] = 0xF1;                                         // MPEG-4, layer 0, no CRC
    f[2] = static_cast<uint8_t>((1u << 6) | (3u << 2));  // AAC LC, 48 kHz
    f[3] = static_cast<uint8_t>((2u << 6) | ((bytes >> 11) & 3u));
    f[4] = static_cast<uint8_t>((bytes >> 3) & 0xFF);
    f[5] = static_cast<uint8_t>(((bytes & 7u) << 5) | 0x1F);
    f[6] = 0xFC;  // one raw block
    return f;
}

// `seconds` of ADTS at 48 kHz: enough 1024-sample frames to cover the time.
inline std::vector<uint8_t> adts_stream(double seconds, uint32_t frame_bytes,
                                        uint32_t* frames_out = nullptr) {
    const uint32_t frames = static_cast<uint32_t>(seconds * 48000.0 / 1024.0 + 0.999999);
    std::vector<uint8_t> s;
    for (uint32_t i = 0; i < frames; ++i) {
        auto f = adts_frame(frame_bytes, static_cast<uint8_t>(0x20 + i % 64));  // never a sync byte
        s.insert(s.end(), f.begin(), f.end());
    }
    if (frames_out)
        *frames_out = frames;
    return s;
}

// An AC-3 frame at 48 kHz, 192 kbps (frmsizecod 20: 384 words).
inline std::vector<uint8_t> ac3_frame() {
    std::vector<uint8_t> f(768, 0x33);
    f[0] = 0x0B;
    f[1] = 0x77;
    f[4] = static_cast<uint8_t>((0u << 6) | 20u);
    f[5] = static_cast<uint8_t>(8u << 3);  // bsid 8
    return f;
}

// An independent E-AC-3 frame at 48 kHz with six blocks (1536 samples), `bytes` long.
inline std::vector<uint8_t> eac3_frame(uint32_t bytes, bool dependent = false) {
    std::vector<uint8_t> f(bytes, 0x44);
    const uint32_t words = bytes / 2 - 1;
    f[0] = 0x0B;
    f[1] = 0x77;
    f[2] = static_cast<uint8_t>(((dependent ? 1u : 0u) << 6) | ((words >> 8) & 7u));
    f[3] = static_cast<uint8_t>(words & 0xFF);
    f[4] = static_cast<uint8_t>((0u << 6) | (3u << 4));  // 48 kHz, six blocks
    f[5] = static_cast<uint8_t>(16u << 3);               // bsid 16
    return f;
}

}  // namespace timeline_test
