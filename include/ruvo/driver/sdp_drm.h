// Display driver (DRM) private requests of the chip.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "v4l2_drm.h"

enum sdp_drm_gem_hw_mem_flag {
    SDP_DRM_GEM_DP_FB_Y = 0,
    SDP_DRM_GEM_DP_FB_C,
    SDP_DRM_GEM_DP_RM_CAPT_Y,
    SDP_DRM_GEM_DP_RM_CAPT_C,
    SDP_DRM_GEM_DP_MAIN_CAPT_Y,
    SDP_DRM_GEM_DP_MAIN_CAPT_C,
    SDP_DRM_GEM_DP_SUB_CAPT_Y,
    SDP_DRM_GEM_DP_SUB_CAPT_C,
    SDP_DRM_GEM_DP_FB_CR,
    SDP_DRM_GEM_DP_SUB2_CAPT_Y,
    SDP_DRM_GEM_DP_SUB2_CAPT_C,
    SDP_DRM_GEM_DP_ENCIN_CAPT,
    SDP_DRM_GEM_DP_INPUT_CAPT,
    SDP_DRM_GEM_DP_SCL_Y,
    SDP_DRM_GEM_DP_SCL_C,
    SDP_DRM_GEM_BLUR_Y,
    SDP_DRM_GEM_BLUR_C,
    SDP_DRM_GEM_BLUR_ARGB,
    SDP_DRM_GEM_DP_MEM_MAX,
};

struct sdp_drm_gem_hw_create {
    enum sdp_drm_gem_hw_mem_flag e_flag;
    uint32_t userinfo;
    uint32_t handle;
    uint32_t pad;
    uint64_t ret_size;
};

enum sdp_drm_onoff_func {
    DRM_SDP_FUNC_SYNC_ONOFF = 0,
    DRM_SDP_FUNC_MUTE_ONOFF,
    DRM_SDP_FUNC_STILL_ONOFF,
    DRM_SDP_FUNC_LETTER_BOX_DETECT_ONOFF,
    DRM_SDP_FUNC_DP_FRAME_LOCK_ONOFF,
    DRM_SDP_FUNC_FREEZE_ONOFF,
    DRM_SDP_FUNC_GAMEMODE_ONOFF,
    DRM_SDP_FUNC_DP_PC_SHARPNESS_ONOFF,
    DRM_SDP_FUNC_PLANE_CRC_ONOFF,
    DRM_SDP_FUNC_STEP_PAUSE_ONOFF,
    DRM_SDP_FUNC_TRICK_PLAY_ONOFF,
    DRM_SDP_FUNC_HFLIP_ONOFF,
    DRM_SDP_FUNC_MAX,
};

struct sdp_drm_onoff_param {
    uint32_t plane_id;
    enum sdp_drm_onoff_func set_func;
    uint32_t onoff_flag;
};

enum sdp_drm_plane_type {
    DRM_SDP_PLANE_OSDP = 0,
    DRM_SDP_PLANE_GP,
    DRM_SDP_PLANE_SGP,
    DRM_SDP_PLANE_CURSOR1,
    DRM_SDP_PLANE_CURSOR2,
    DRM_SDP_PLANE_DP_MAIN,
    DRM_SDP_PLANE_DP_SUB,
    DRM_SDP_PLANE_DP_SUB2,
    DRM_SDP_PLANE_DP_BG,
    DRM_SDP_PLANE_YUVP,
    DRM_SDP_PLANE_TP,
    DRM_SDP_PLANE_MAX,
};

// Driver-private request numbers (read-write, type 'd').
#define DRM_IOCTL_SDP_GEM_HW_CREATE 0xC0186441u /* 24 bytes, nr 0x41 */
#define DRM_IOCTL_SDP_SET_DP_SOURCE 0xC2406451u /* 576 bytes, nr 0x51 */
#define DRM_IOCTL_SDP_SET_ONOFF 0xC00C6455u     /* 12 bytes, nr 0x55 */

#ifdef __cplusplus
static_assert(sizeof(sdp_drm_gem_hw_create) == 24, "sdp_drm_gem_hw_create is 24 bytes");
static_assert(offsetof(sdp_drm_gem_hw_create, handle) == 8, "gem create layout");
static_assert(offsetof(sdp_drm_gem_hw_create, ret_size) == 16, "ret_size at 16");
static_assert(sizeof(sdp_drm_onoff_param) == 12, "sdp_drm_onoff_param is 12 bytes");
static_assert(offsetof(sdp_drm_onoff_param, onoff_flag) == 8, "onoff layout");
static_assert(((DRM_IOCTL_SDP_SET_DP_SOURCE >> 16) & 0x3FFF) == sizeof(v4l2_drm), "source request size");
static_assert(((DRM_IOCTL_SDP_SET_ONOFF >> 16) & 0x3FFF) == sizeof(sdp_drm_onoff_param),
              "onoff request size");
static_assert(((DRM_IOCTL_SDP_GEM_HW_CREATE >> 16) & 0x3FFF) == sizeof(sdp_drm_gem_hw_create),
              "gem request size");
#endif
