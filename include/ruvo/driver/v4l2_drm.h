// Decoder frame descriptor handed over by the chip's video decoder (576 bytes).
#pragma once

#include <stddef.h>
#include <stdint.h>

// The decoder may put any 32-bit value in the enumerated fields, values beyond the
// enumerators included (an unknown aspect, a port number of a newer chip). In C++ each
// enumeration has a fixed 32-bit underlying type, so that every such value is one the
// field can hold and reading it is well defined.
#ifdef __cplusplus
#define V4L2_DRM_FIELD_ENUM(name) enum name : uint32_t
#else
#define V4L2_DRM_FIELD_ENUM(name) enum name
#endif

// The enumerations behind the macro are laid out by hand: clang-format cannot parse them.
// clang-format off
V4L2_DRM_FIELD_ENUM(v4l2_drm_inputport_type) {
    V4L2_DRM_INPUTPORT_TYPE_DTV = 0,
    V4L2_DRM_INPUTPORT_TYPE_MM,
    V4L2_DRM_INPUTPORT_TYPE_ATV,
    V4L2_DRM_INPUTPORT_TYPE_AV,
    V4L2_DRM_INPUTPORT_TYPE_COMPONENT,
    V4L2_DRM_INPUTPORT_TYPE_RGB,
    V4L2_DRM_INPUTPORT_TYPE_DVI,
    V4L2_DRM_INPUTPORT_TYPE_HDMI,
    V4L2_DRM_INPUTPORT_TYPE_MAIN_CLONE,
    V4L2_DRM_INPUTPORT_TYPE_JPEG_SWDEC,
    V4L2_DRM_INPUTPORT_TYPE_MJPEG,
    V4L2_DRM_INPUTPORT_TYPE_SCART,
    V4L2_DRM_INPUTPORT_TYPE_DSP,
    V4L2_DRM_INPUTPORT_TYPE_LVDXRX,
    V4L2_DRM_INPUTPORT_TYPE_MAX,
};

V4L2_DRM_FIELD_ENUM(v4l2_aspectratio_type) {
    V4L2_ASPECTRATIO_TYPE_100_100 = 1,
    V4L2_ASPECTRATIO_TYPE_300_400 = 2,
    V4L2_ASPECTRATIO_TYPE_900_1600 = 3,
    V4L2_ASPECTRATIO_TYPE_100_221 = 4,
};

V4L2_DRM_FIELD_ENUM(v4l2_drm_colorformat_type) {
    V4L2_DRM_COLORFORMAT_RGB444 = 1,
    V4L2_DRM_COLORFORMAT_YUV444,
    V4L2_DRM_COLORFORMAT_YUV422,
    V4L2_DRM_COLORFORMAT_YUV420,
    V4L2_DRM_COLORFORMAT_YC,
};

V4L2_DRM_FIELD_ENUM(v4l2_drm_framerate_type) {
    V4L2_DRM_FRAMERATE_23_97HZ = 1,
    V4L2_DRM_FRAMERATE_24HZ,
    V4L2_DRM_FRAMERATE_25HZ,
    V4L2_DRM_FRAMERATE_29_97HZ,
    V4L2_DRM_FRAMERATE_30HZ,
    V4L2_DRM_FRAMERATE_50HZ,
    V4L2_DRM_FRAMERATE_59_94HZ,
    V4L2_DRM_FRAMERATE_60HZ,
    V4L2_DRM_FRAMERATE_48HZ,
    V4L2_DRM_FRAMERATE__47_94HZ,
    V4L2_DRM_FRAMERATE_75HZ,
    V4L2_DRM_FRAMERATE_100HZ,
    V4L2_DRM_FRAMERATE_120HZ,
    V4L2_DRM_FRAMERATE_56_25HZ,
    V4L2_DRM_FRAMERATE_66_66HZ,
    V4L2_DRM_FRAMERATE_70HZ,
    V4L2_DRM_FRAMERATE_72HZ,
    V4L2_DRM_FRAMERATE_76HZ,
    V4L2_DRM_FRAMERATE_85HZ,
    V4L2_DRM_FRAMERATE_ETC,
};

V4L2_DRM_FIELD_ENUM(v4l2_drm_input_stereoscopic_type) {
    V4L2_DRM_INPUT_STEREOSCOPIC_2D = 0,
    V4L2_DRM_INPUT_STEREOSCOPIC_SBS,
    V4L2_DRM_INPUT_STEREOSCOPIC_TNB,
    V4L2_DRM_INPUT_STEREOSCOPIC_FRAME_SEQ,
    V4L2_DRM_INPUT_STEREOSCOPIC_FRAME_PACK,
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_KR3D,
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_MVC_B,
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_MFC_D,
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_SVAF,
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_MVC,
};

V4L2_DRM_FIELD_ENUM(v4l2_drm_main_clone_mux) {
    V4L2_DRM_MAIN_CLONE_MUX_VIDEO_ONLY = 0,
    V4L2_DRM_MAIN_CLONE_MUX_VIDEO_GP,
    V4L2_DRM_MAIN_CLONE_MUX_VIDEO_EXT_GP,
    V4L2_DRM_MAIN_CLONE_MUX_RESERVED0,
    V4L2_DRM_MAIN_CLONE_MUX_RESERVED1,
    V4L2_DRM_MAIN_CLONE_MUX_MAX,
};
// clang-format on

struct v4l2_private_frame_info {
    uint32_t chip_id;
    uint32_t instance_id;
    uint32_t display_index;
    uint32_t showframe;
    uint64_t y_viraddr;
    uint64_t u_viraddr;
    uint64_t v_viraddr;
    uint32_t width;
    uint32_t height;
    uint32_t y_linesize;
    uint32_t u_linesize;
    uint32_t v_linesize;
    uint32_t startline;
    uint32_t endline;
    enum v4l2_drm_colorformat_type colorformat;
    uint32_t framedone;
    uint32_t Keyframe;
    uint32_t dimension;
    uint64_t y_phyaddr;
    uint64_t u_phyaddr;
    uint64_t v_phyaddr;
    uint32_t vsync_interval;
};

struct v4l2_dynamic_res_info {
    uint32_t next_frm_hres;
    uint32_t next_frm_vres;
    uint32_t max_hres;
    uint32_t max_vres;
    uint32_t crop_x;
    uint32_t crop_y;
    uint32_t crop_w;
    uint32_t crop_h;
};

struct v4l2_drm_dec_info {
    enum v4l2_aspectratio_type aspectratio;
    uint32_t hres;
    uint32_t vres;
    uint32_t effective_hres;
    uint32_t effective_vres;
    uint32_t framerate;
    uint32_t scantype;
    uint32_t bpp;
    struct v4l2_private_frame_info pFrame[4];
    struct v4l2_dynamic_res_info next_res;
    uint32_t decoder_info;
};

struct v4l2_drm_extin_info {
    uint32_t src_info_send_flag;
    uint32_t htotal;
    uint32_t vtotal;
    uint32_t hactive;
    uint32_t vactive;
    uint32_t hactive_size;
    uint32_t vactive_size;
    uint32_t scantype;
    uint32_t oversampling;
    enum v4l2_drm_framerate_type framerate;
    enum v4l2_drm_colorformat_type colorformat;
    uint32_t syncmode;
    uint32_t pcinput;
    uint32_t vrrinput;
    uint32_t freesync_max_framerate;
    uint32_t ntscpal_type;
    uint32_t dscinput;
    enum v4l2_drm_main_clone_mux clone_mux;
};

struct v4l2_drm {
    enum v4l2_drm_inputport_type inputport;
    uint32_t plane;
    union {
        struct v4l2_drm_dec_info dec_info;
        struct v4l2_drm_extin_info extin_info;
    } u;
    enum v4l2_drm_input_stereoscopic_type stereoscopic_info;
    uint64_t reserved;
};

// Broadcast decoder node control that returns the frame on display.
#define V4L2_CID_GET_DISPLAY_FRAME_INFO 0x00A20014u
#define V4L2_CTRL_CLASS_DISPLAY_FRAME 0x00A20000u

#ifdef __cplusplus
static_assert(sizeof(v4l2_private_frame_info) == 120, "v4l2_private_frame_info is 120 bytes");
static_assert(offsetof(v4l2_private_frame_info, y_viraddr) == 16, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, width) == 40, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, v_linesize) == 56, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, colorformat) == 68, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, dimension) == 80, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, y_phyaddr) == 88, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, v_phyaddr) == 104, "frame info layout");
static_assert(offsetof(v4l2_private_frame_info, vsync_interval) == 112, "frame info layout");
static_assert(sizeof(v4l2_dynamic_res_info) == 32, "v4l2_dynamic_res_info is 32 bytes");
static_assert(sizeof(v4l2_drm_extin_info) == 72, "v4l2_drm_extin_info is 72 bytes");
static_assert(offsetof(v4l2_drm_extin_info, framerate) == 36, "extin layout");
static_assert(offsetof(v4l2_drm_extin_info, clone_mux) == 68, "extin layout");
static_assert(sizeof(v4l2_drm_dec_info) == 552, "v4l2_drm_dec_info is 552 bytes");
static_assert(offsetof(v4l2_drm_dec_info, hres) == 4, "dec_info layout");
static_assert(offsetof(v4l2_drm_dec_info, bpp) == 28, "dec_info layout");
static_assert(offsetof(v4l2_drm_dec_info, pFrame) == 32, "dec_info layout");
static_assert(offsetof(v4l2_drm_dec_info, next_res) == 512, "dec_info layout");
static_assert(offsetof(v4l2_drm_dec_info, decoder_info) == 544, "dec_info layout");
static_assert(sizeof(v4l2_drm) == 576, "v4l2_drm is 576 bytes");
static_assert(offsetof(v4l2_drm, plane) == 4, "v4l2_drm layout");
static_assert(offsetof(v4l2_drm, u) == 8, "v4l2_drm layout");
static_assert(offsetof(v4l2_drm, stereoscopic_info) == 560, "v4l2_drm layout");
static_assert(offsetof(v4l2_drm, reserved) == 568, "v4l2_drm layout");
#endif
