// Audio output of the AV sink: compressed-offload sink and mixer controls.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifndef RUVO_EXPORT
#define RUVO_EXPORT __attribute__((visibility("default")))
#endif

typedef struct quarvel_audio_output_setup_params_s {
    uint32_t channels;
    uint32_t sample_rate;
    uint32_t reserved[6];
} quarvel_audio_output_setup_params_t;

typedef enum quarvel_audio_output_sync_mode_t : uint32_t {
    quarvel_audio_output_sync_mode__free_run = 0,
    quarvel_audio_output_sync_mode__sync_to_video = 1,
    quarvel_audio_output_sync_mode__sync_to_external_video = 2,
} quarvel_audio_output_sync_mode_t;

typedef struct quarvel_audio_output_info_s {
    int64_t wallclock_us;
    uint32_t frames_delay;
    uint32_t bytes_free;
    int64_t remain_size;
    uint32_t reserved[6];
} quarvel_audio_output_info_t;

typedef struct quarvel_audio_output_s {
    int m_fd;
    quarvel_audio_output_setup_params_t m_setup_params;
    uint64_t m_pushed_frames;
    uint64_t m_pushed_extra_bytes;
    bool m_is_driver_started;
    float m_default_volume;
    float m_default_speed;
} quarvel_audio_output_t;

RUVO_EXPORT quarvel_audio_output_s* quarvel_audio_output_open(const char* device);
RUVO_EXPORT int quarvel_audio_output_setup(quarvel_audio_output_s* output,
                                           const quarvel_audio_output_setup_params_s* params);
RUVO_EXPORT int quarvel_audio_output_start(quarvel_audio_output_s* output);
RUVO_EXPORT int quarvel_audio_output_stop(quarvel_audio_output_s* output);
RUVO_EXPORT int quarvel_audio_output_set_sync_mode(quarvel_audio_output_s* output,
                                                   quarvel_audio_output_sync_mode_t mode);
RUVO_EXPORT void quarvel_audio_output_close(quarvel_audio_output_s* output);
RUVO_EXPORT int quarvel_audio_output_push_data(quarvel_audio_output_s* output, const unsigned char* data,
                                               unsigned int size, unsigned int extra);
RUVO_EXPORT int quarvel_audio_output_get_info(quarvel_audio_output_s* output,
                                              quarvel_audio_output_info_s* info_out);
RUVO_EXPORT int quarvel_audio_output_volume_control(quarvel_audio_output_s* output, float volume);
RUVO_EXPORT int quarvel_audio_output_speed_control(quarvel_audio_output_s* output, float speed);
