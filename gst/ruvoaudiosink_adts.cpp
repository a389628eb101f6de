#include "ruvoaudiosink_adts.h"

#include <stdlib.h>

namespace ruvo_audio {

namespace {

constexpr uint32_t kFrequencies[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};

// Big-endian bit reader over the codec data.
class BitReader {
  public:
    BitReader(const uint8_t* data, size_t size) : data_(data), bits_(size * 8) {}
    bool read(unsigned n, uint32_t* out) {
        if (pos_ + n > bits_)
            return false;
        uint32_t v = 0;
        for (unsigned i = 0; i < n; ++i, ++pos_)
            v = (v << 1) | ((data_[pos_ / 8] >> (7 - pos_ % 8)) & 1u);
        *out = v;
        return true;
    }

  private:
    const uint8_t* data_;
    size_t bits_;
    size_t pos_ = 0;
};

bool read_object_type(BitReader& r, uint32_t* type) {
    if (!r.read(5, type))
        return false;
    if (*type != 31)
        return true;
    uint32_t ext = 0;
    if (!r.read(6, &ext))
        return false;
    *type = 32 + ext;
    return true;
}

bool read_frequency_index(BitReader& r, uint8_t* index) {
    uint32_t v = 0;
    if (!r.read(4, &v))
        return false;
    if (v == 15) {
        uint32_t rate = 0;
        if (!r.read(24, &rate))
            return false;
        v = adts_frequency_index(rate);
    }
    if (v >= 13)
        return false;
    *index = static_cast<uint8_t>(v);
    return true;
}

}  // namespace

uint8_t adts_frequency_index(uint32_t rate) {
    uint8_t best = 0;
    for (uint8_t i = 1; i < 13; ++i)
        if (labs(static_cast<long>(kFrequencies[i]) - static_cast<long>(rate)) <
            labs(static_cast<long>(kFrequencies[best]) - static_cast<long>(rate)))
            best = i;
    return best;
}

bool adts_config_from_codec_data(const uint8_t* data, size_t size, AdtsConfig* out) {
    constexpr uint32_t kSbr = 5, kPs = 29;
    BitReader r(data, size);
    uint32_t type = 0, channels = 0;
    AdtsConfig config;
    if (!read_object_type(r, &type) || !read_frequency_index(r, &config.frequency_index) ||
        !r.read(4, &channels))
        return false;
    if (type == kSbr || type == kPs) {
        // The extension's rate, then the core's object type: ADTS carries the core.
        uint8_t extension_index = 0;
        if (!read_frequency_index(r, &extension_index) || !read_object_type(r, &type))
            return false;
    }
    if (type < 1 || type > 4 || channels > 7)
        return false;
    config.profile = static_cast<uint8_t>(type - 1);
    config.channel_config = static_cast<uint8_t>(channels);
    *out = config;
    return true;
}

bool write_adts_header(const AdtsConfig& c, size_t payload_bytes, uint8_t* out) {
    const size_t length = payload_bytes + kAdtsHeaderBytes;
    if (length > kAdtsMaxFrameBytes)
        return false;
    constexpr uint32_t kFullness = 0x7FF;  // variable bit rate
    out[0] = 0xFF;
    out[1] = c.mpeg2 ? 0xF9 : 0xF1;  // layer 0, no CRC
    out[2] = static_cast<uint8_t>((c.profile << 6) | (c.frequency_index << 2) | (c.channel_config >> 2));
    out[3] = static_cast<uint8_t>(((c.channel_config & 3) << 6) | (length >> 11));
    out[4] = static_cast<uint8_t>((length >> 3) & 0xFF);
    out[5] = static_cast<uint8_t>(((length & 7) << 5) | (kFullness >> 6));
    out[6] = static_cast<uint8_t>((kFullness & 0x3F) << 2);  // one raw data block
    return true;
}

}  // namespace ruvo_audio
