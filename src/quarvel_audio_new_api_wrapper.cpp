// Audio output sink: compressed audio to the chip's decoder through the ALSA
// compressed-offload device, its frame accounting and the playback position.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <sound/compress_offload.h>

#include "ruvo_internal_audio.h"
#include "ruvo_log.h"

// The compressed-offload records and requests as the chip's driver takes them, the same
// on every ABI.
static_assert(sizeof(snd_compr_caps) == 196, "snd_compr_caps");
static_assert(sizeof(snd_compr_params) == 132, "snd_compr_params");
static_assert(sizeof(snd_compr_metadata) == 36, "snd_compr_metadata");
static_assert(sizeof(snd_compr_tstamp) == 20, "snd_compr_tstamp");
static_assert(sizeof(snd_compr_avail) == 28, "snd_compr_avail");
static_assert(SNDRV_COMPRESS_GET_CAPS == 0xC0C44310u, "SNDRV_COMPRESS_GET_CAPS");
static_assert(SNDRV_COMPRESS_SET_PARAMS == 0x40844312u, "SNDRV_COMPRESS_SET_PARAMS");
static_assert(SNDRV_COMPRESS_SET_METADATA == 0x40244314u, "SNDRV_COMPRESS_SET_METADATA");
static_assert(SNDRV_COMPRESS_GET_METADATA == 0xC0244315u, "SNDRV_COMPRESS_GET_METADATA");
static_assert(SNDRV_COMPRESS_TSTAMP == 0x80144320u, "SNDRV_COMPRESS_TSTAMP");
static_assert(SNDRV_COMPRESS_AVAIL == 0x801C4321u, "SNDRV_COMPRESS_AVAIL");
static_assert(SNDRV_COMPRESS_START == 0x4332u, "SNDRV_COMPRESS_START");
static_assert(SNDRV_COMPRESS_STOP == 0x4333u, "SNDRV_COMPRESS_STOP");

namespace {

// Driver sync mode sent for each public mode. Sync to video deliberately sends the
// driver's plain none mode; free run sends its force-none mode.
const int kDriverSyncMode[] = {
    EN_PROP_SYNC_MODE_FORCE_NONE,  // quarvel_audio_output_sync_mode__free_run
    EN_PROP_SYNC_MODE_NONE,        // quarvel_audio_output_sync_mode__sync_to_video
    EN_PROP_SYNC_MODE_SLAVE,       // quarvel_audio_output_sync_mode__sync_to_external_video
};
constexpr uint32_t kSyncModeCount = sizeof(kDriverSyncMode) / sizeof(kDriverSyncMode[0]);

// The driver reports its remaining size in bytes of a 48 kHz stream.
constexpr int64_t kDriverRemainRate = 48000;

// Room kept free in the driver buffer when reporting the free bytes.
constexpr uint32_t kBytesFreeReserve = 140;

// Codec id announced to the decoder, whatever the stream holds.
constexpr uint32_t kCodecId = 2;

// Bytes per frame of the handle's accounting: 2 bytes per sample per channel, in 32 bits.
inline uint32_t bytes_per_frame(const quarvel_audio_output_s* output) {
    return 2u * output->m_setup_params.channels;
}

// Bytes written but not yet taken by the decoder. The difference is narrowed to 31 bits,
// bit 30 being the sign.
inline int32_t narrow_in_transit(uint32_t pushed_bytes, uint32_t copied_total) {
    const int64_t low = (pushed_bytes - copied_total) & 0x7FFFFFFFu;
    return static_cast<int32_t>(low >= 0x40000000 ? low - 0x80000000LL : low);
}

}  // namespace

int set_compr_metadata(int fd, int key, int value) {
    snd_compr_metadata metadata;
    memset(&metadata, 0, sizeof(metadata));
    metadata.key = static_cast<uint32_t>(key);
    metadata.value[0] = static_cast<uint32_t>(value);
    if (ioctl(fd, SNDRV_COMPRESS_SET_METADATA, &metadata) < 0) {
        printf("ioctl SNDRV_COMPRESS_SET_METADATA failed [%s]", strerror(errno));
        return 0;
    }
    return 1;
}

void CloseDevice(quarvel_audio_output_s* output) {
    if (output->m_fd >= 0) {
        close(output->m_fd);
        output->m_fd = -1;
    }
    printf("output: %p", static_cast<void*>(output));
    delete output;
}

quarvel_audio_output_s* quarvel_audio_output_open(const char* device) {
    // The setup parameters are left as they come; setup fills them.
    quarvel_audio_output_s* output = new quarvel_audio_output_s;
    output->m_fd = -1;
    output->m_pushed_frames = 0;
    output->m_pushed_extra_bytes = 0;
    output->m_is_driver_started = false;
    output->m_default_volume = 1.0f;
    output->m_default_speed = 1.0f;

    output->m_fd = open(device, O_WRONLY);
    if (output->m_fd < 0) {
        QVL_ALOG("open(%s) failed: %s\n", device, strerror(errno));
        CloseDevice(output);
        return nullptr;
    }
    return output;
}

int quarvel_audio_output_setup(quarvel_audio_output_s* output,
                               const quarvel_audio_output_setup_params_s* params) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return -9;
    }
    if (params == nullptr) {
        QVL_ALOG("qvl_params is null\n");
        return -9;
    }
    output->m_setup_params = *params;

    snd_compr_caps caps;
    memset(&caps, 0, sizeof(caps));
    if (ioctl(output->m_fd, SNDRV_COMPRESS_GET_CAPS, &caps) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_GET_CAPS) failed : [%s]\n", strerror(errno));
        return -1;
    }

    snd_compr_params compr_params;
    memset(&compr_params, 0, sizeof(compr_params));
    compr_params.buffer.fragment_size = caps.min_fragment_size;
    compr_params.buffer.fragments = caps.max_fragments;
    compr_params.codec.id = kCodecId;
    compr_params.codec.ch_in = params->channels;
    compr_params.codec.ch_out = params->channels;
    compr_params.codec.sample_rate = params->sample_rate;
    // The data carries extra information bytes beside the audio.
    compr_params.codec.reserved[1] = EN_COMPRESS_SINK_OPS_SUPPORT_EXTRAINFO;
    if (ioctl(output->m_fd, SNDRV_COMPRESS_SET_PARAMS, &compr_params) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_SET_PARAMS) failed : [%s]\n", strerror(errno));
        return -2;
    }

    if (!set_compr_metadata(output->m_fd, SNDRV_COMPRESS_SPDIF_DEVICE_INFO,
                            static_cast<int>(params->sample_rate))) {
        QVL_ALOG("set_compr_metadata(SNDRV_COMPRESS_SPDIF_DEVICE_INFO, %u) failed\n", params->sample_rate);
        return -3;
    }
    if (!set_compr_metadata(output->m_fd, SNDRV_COMPRESS_IS_CDDTS, 0)) {
        QVL_ALOG("set_compr_metadata(SNDRV_COMPRESS_IS_CDDTS, 0) failed\n");
        return -4;
    }
    return 0;
}

int quarvel_audio_output_start(quarvel_audio_output_s* output) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return -9;
    }
    // The stream is started by the first data push.
    return 0;
}

int quarvel_audio_output_stop(quarvel_audio_output_s* output) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return -9;
    }
    output->m_pushed_frames = 0;
    output->m_pushed_extra_bytes = 0;
    if (!output->m_is_driver_started)
        return 0;
    if (ioctl(output->m_fd, SNDRV_COMPRESS_STOP) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_STOP) failed : [%s]\n", strerror(errno));
        return -1;
    }
    output->m_is_driver_started = false;
    return 0;
}

int quarvel_audio_output_set_sync_mode(quarvel_audio_output_s* output,
                                       quarvel_audio_output_sync_mode_t mode) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return -9;
    }
    if (static_cast<uint32_t>(mode) >= kSyncModeCount) {
        QVL_ALOG("unexpected mode %d\n", static_cast<int>(mode));
        return -9;
    }
    const int driver_mode = kDriverSyncMode[mode];
    if (!set_compr_metadata(output->m_fd, SNDRV_COMPRESS_SYNC_MODE, driver_mode)) {
        QVL_ALOG("set_compr_metadata(SNDRV_COMPRESS_SYNC_MODE, %d) failed\n", driver_mode);
        return -1;
    }
    return 0;
}

void quarvel_audio_output_close(quarvel_audio_output_s* output) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return;
    }
    // Gain and rate are system-wide: closing any output brings them back to normal.
    quarvel_audio_output_volume_control(output, output->m_default_volume);
    quarvel_audio_output_speed_control(output, output->m_default_speed);
    // The stream is not stopped: closing the descriptor ends it in the driver.
    CloseDevice(output);
}

int quarvel_audio_output_push_data(quarvel_audio_output_s* output, const unsigned char* data,
                                   unsigned int size, unsigned int extra) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return -9;
    }
    if (data == nullptr) {
        QVL_ALOG("data is null\n");
        return -9;
    }

    snd_compr_avail avail;
    if (ioctl(output->m_fd, SNDRV_COMPRESS_AVAIL, &avail) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_AVAIL) failed : [%s]\n", strerror(errno));
        return -1;
    }
    const uint64_t avail_bytes = avail.avail;
    const uint32_t with_headers = size + extra;
    if (static_cast<int32_t>(with_headers) > static_cast<int32_t>(static_cast<uint32_t>(avail_bytes))) {
        QVL_ALOG("quarvel_audio_output_push_data no space (need = %zu, with_headers = %zu, avail = %ju)\n",
                 static_cast<size_t>(size), static_cast<size_t>(with_headers),
                 static_cast<uintmax_t>(avail_bytes));
        return -2;
    }

    // A short write is not checked: the driver takes what avail announced.
    if (write(output->m_fd, data, with_headers) < 0) {
        QVL_ALOG("write(%zu) -> [%s]\n", static_cast<size_t>(size), strerror(errno));
        return -3;
    }

    const uint64_t before = output->m_pushed_frames;
    output->m_pushed_frames += (size / 2u) / output->m_setup_params.channels;
    output->m_pushed_extra_bytes += extra;
    // Every push that finds no frame counted starts the stream, also after a stop.
    if (before != 0)
        return 0;

    if (ioctl(output->m_fd, SNDRV_COMPRESS_START) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_START) failed : [%s]\n", strerror(errno));
        return -4;
    }
    output->m_is_driver_started = true;
    return 0;
}

int quarvel_audio_output_get_info(quarvel_audio_output_s* output, quarvel_audio_output_info_s* info_out) {
    if (output == nullptr) {
        QVL_ALOG("output is null\n");
        return -9;
    }
    if (info_out == nullptr) {
        QVL_ALOG("info_out is null\n");
        return -9;
    }

    snd_compr_tstamp tstamp;
    if (ioctl(output->m_fd, SNDRV_COMPRESS_TSTAMP, &tstamp) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_TSTAMP) failed : [%s]\n", strerror(errno));
        return -1;
    }

    snd_compr_metadata metadata;
    memset(&metadata, 0, sizeof(metadata));
    metadata.key = SNDRV_COMPRESS_GET_REMAINSIZE;
    if (ioctl(output->m_fd, SNDRV_COMPRESS_GET_METADATA, &metadata) < 0) {
        printf("ioctl SNDRV_COMPRESS_GET_METADATA failed [%s]", strerror(errno));
        QVL_ALOG("get_compr_metadata(SNDRV_COMPRESS_GET_REMAINSIZE) failed\n");
        return -2;
    }
    const uint64_t remain = (static_cast<uint64_t>(metadata.value[1]) << 32) | metadata.value[0];

    // Signed 64-bit with truncation; the product wraps as two's complement.
    const uint32_t sample_rate = output->m_setup_params.sample_rate;
    const int64_t scaled_remain =
        static_cast<int64_t>(remain * static_cast<uint64_t>(sample_rate)) / kDriverRemainRate;

    const uint32_t frame_bytes = bytes_per_frame(output);
    const uint32_t pushed_bytes = static_cast<uint32_t>(output->m_pushed_frames) * frame_bytes +
                                  static_cast<uint32_t>(output->m_pushed_extra_bytes);
    const int32_t in_transit = narrow_in_transit(pushed_bytes, tstamp.copied_total);

    int64_t delay = scaled_remain;
    if (in_transit > 0) {
        delay =
            static_cast<int64_t>(static_cast<uint64_t>(scaled_remain) + static_cast<uint32_t>(in_transit));
    } else if (in_transit < 0) {
        QVL_ALOG("in transit bytes are negative (%d)\n", in_transit);
    }

    snd_compr_avail avail;
    if (ioctl(output->m_fd, SNDRV_COMPRESS_AVAIL, &avail) < 0) {
        QVL_ALOG("ioctl(SNDRV_COMPRESS_AVAIL) failed : [%s]\n", strerror(errno));
        return -3;
    }
    const uint32_t avail_low = static_cast<uint32_t>(avail.avail);

    info_out->remain_size = scaled_remain;
    info_out->frames_delay = static_cast<uint32_t>(static_cast<uint64_t>(delay) / frame_bytes);
    info_out->bytes_free = avail_low >= kBytesFreeReserve ? avail_low - kBytesFreeReserve : 0;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_RAW, &now);
    info_out->wallclock_us =
        static_cast<int64_t>(now.tv_sec) * 1000000 + static_cast<int64_t>(now.tv_nsec) / 1000;
    return 0;
}
