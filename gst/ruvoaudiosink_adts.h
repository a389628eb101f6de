// AAC without framing (an AudioSpecificConfig in the caps' codec data) turned into ADTS,
// the framing the TV's audio decoder parses: one 7-byte header, without CRC, per frame.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace ruvo_audio {

constexpr size_t kAdtsHeaderBytes = 7;
constexpr size_t kAdtsMaxFrameBytes = 8191;  // the header's 13-bit frame length

struct AdtsConfig {
    uint8_t profile = 0;          // audio object type - 1 (0 Main, 1 LC, 2 SSR, 3 LTP)
    uint8_t frequency_index = 0;  // the sampling-frequency table's index
    uint8_t channel_config = 0;   // 0..7
    bool mpeg2 = false;           // the header's ID bit: MPEG-2 rather than MPEG-4 AAC
};

// Reads an AudioSpecificConfig. HE-AAC (SBR, PS) is carried as its AAC core. False for a
// config ADTS cannot carry (another object type, a short or truncated config).
bool adts_config_from_codec_data(const uint8_t* data, size_t size, AdtsConfig* out);

// Writes the header of a frame of `payload_bytes` raw AAC bytes into `out` (7 bytes).
// False when the frame does not fit the header's length field.
bool write_adts_header(const AdtsConfig& config, size_t payload_bytes, uint8_t* out);

// The sampling-frequency table's index of `rate` (the nearest entry), as ADTS needs it.
uint8_t adts_frequency_index(uint32_t rate);

}  // namespace ruvo_audio
