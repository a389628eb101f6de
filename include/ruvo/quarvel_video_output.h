// Video output of the AV sink: main video plane and on-screen-display paths.
#pragma once

#include <stdbool.h>
#include <stdint.h>

#include "ruvo/driver/v4l2_drm.h"

#define RUVO_EXPORT __attribute__((visibility("default")))

typedef struct quarvel_video_output_rect_s {
    int32_t x;
    int32_t y;
    uint32_t w;
    uint32_t h;
    uint32_t dar_w;  // display aspect terms of the content, 0 when unknown
    uint32_t dar_h;
} quarvel_video_output_rect_t;

typedef struct quarvel_video_output_frame_s {
    struct v4l2_drm* v4l2_frame;
    int32_t dv_profile;
    int32_t reserved[7];
} quarvel_video_output_frame_t;

// Content size and aspect; neutral value {0, 0, 0, 0, 1, 1}.
typedef struct quarvel_frame_size_s {
    uint32_t w;
    uint32_t h;
    uint32_t dar_w;
    uint32_t dar_h;
    uint32_t sar_num;
    uint32_t sar_denom;
} quarvel_frame_meta_t;

typedef struct quarvel_video_output_vsync_info_s {
    int32_t tv_sec;
    int32_t tv_nsec;
    double fps;
} quarvel_video_output_vsync_info_t;

typedef struct quarvel_video_used_frames_s {
    uint32_t used_by_decoder[4];
} quarvel_video_used_frames_t;

// One placeholder scan-out buffer.
struct DRMBuffer {
    uint32_t stride;
    uint32_t size;
    uint32_t bo_handle;
    uint32_t fb_handle;
};

enum { kDRMBufferNumber = 1 };

// The video handle: a plain record, created by open and freed by close.
typedef struct quarvel_video_output_s {
    int m_valio_fd;
    int m_dolby_fd;
    int m_drm_fd;
    bool m_opened;
    int m_num_buffers;
    unsigned int m_crtc_id;
    unsigned int m_con_id;
    unsigned int m_plane_type;
    struct DRMBuffer m_drm_buffers[kDRMBufferNumber];
    int m_plane_obj_id[11];
    int m_panel_width;
    int m_panel_height;
    int pre_source;
    bool m_first_frame_initialized;
    bool m_queue_size_set;
    bool m_ta_switch;
    int m_dv_profile;
    bool m_is_ta;
    int m_gem_buf[6];
    int m_gem_buf_idx;
    int m_wl_buf_idx;
    int m_de_fd;
    void* m_window;
    quarvel_frame_meta_t m_frame_meta;
    quarvel_video_output_rect_t m_wanted_rect;
    quarvel_video_output_rect_t m_rect_applied_to_driver;
} quarvel_video_output_t;

RUVO_EXPORT quarvel_video_output_s* quarvel_video_output_open(bool bTaCase);
RUVO_EXPORT void quarvel_video_output_close(quarvel_video_output_s* output);
RUVO_EXPORT void quarvel_video_output_get_panel_size(const quarvel_video_output_s* output, int* width,
                                                     int* height);
RUVO_EXPORT int quarvel_video_output_set_rect(quarvel_video_output_s* output,
                                              quarvel_video_output_rect_s const* rect);
RUVO_EXPORT int quarvel_video_output_init_with_first_frame(quarvel_video_output_s* output,
                                                           quarvel_video_output_frame_s const* frame);
RUVO_EXPORT int quarvel_video_output_set_next_res(quarvel_video_output_s* output,
                                                  quarvel_video_output_frame_s const* frame);
RUVO_EXPORT int quarvel_video_output_push_frame_to_display(quarvel_video_output_s* output,
                                                           quarvel_video_output_frame_s const* frame);
RUVO_EXPORT int quarvel_video_output_get_vsync_info(quarvel_video_output_s* output,
                                                    quarvel_video_output_vsync_info_s* info_out);
RUVO_EXPORT int quarvel_video_output_get_used_frames(quarvel_video_output_s* output,
                                                     quarvel_video_used_frames_s* used_frames);
RUVO_EXPORT int quarvel_video_output_set_pts(quarvel_video_output_s* output, long long pts);
RUVO_EXPORT void quarvel_video_output_notify_ta_switch(quarvel_video_output_s* output);
