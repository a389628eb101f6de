/**
 * \file v4l2_drm.h
 * \brief The decoder frame descriptor (576 bytes): what the TV chip's video decoder tells
 * the display about one frame.
 *
 * The browser receives a `v4l2_drm` from the decoder for every frame and hands it to the
 * video output (quarvel_video_output_frame_s::v4l2_frame); ruvovideosink takes it from the
 * buffer's RuvoFrameMeta, or builds one for a video/x-raw frame. The library reads only a
 * few fields of the decoder branch `u.dec_info`, writes `plane`, and passes the whole
 * descriptor to the display driver (the set-display-source request, 576 bytes) and to the
 * video-platform driver (the next-resolution command). Every field the library does not
 * read reaches the driver as it is.
 *
 * The layout is the driver's and is the same on the 32-bit TV and on a 64-bit host: the
 * static_asserts at the end of this header hold its sizes and offsets.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

// The decoder may put any 32-bit value in the enumerated fields, values beyond the
// enumerators included (an unknown aspect, a port number of a newer chip). In C++ each
// enumeration has a fixed 32-bit underlying type, so that every such value is one the
// field can hold and reading it is well defined.
#ifdef __cplusplus
/// Declares the enumeration `name` of a descriptor field: in C++ with the fixed 32-bit
/// underlying type `uint32_t` (every value the decoder writes is then a value of the type),
/// in C as a plain enumeration.
/// \param name the enumeration's tag.
#define V4L2_DRM_FIELD_ENUM(name) enum name : uint32_t
#else
#define V4L2_DRM_FIELD_ENUM(name) enum name
#endif

// The enumerations behind the macro are laid out by hand: clang-format cannot parse them.
// clang-format off
/// Where the picture comes from (v4l2_drm::inputport).
V4L2_DRM_FIELD_ENUM(v4l2_drm_inputport_type) {
    V4L2_DRM_INPUTPORT_TYPE_DTV = 0,        ///< broadcast (DTV) decoder
    V4L2_DRM_INPUTPORT_TYPE_MM,             ///< multimedia decoder (ruvovideosink's video/x-raw frames too)
    V4L2_DRM_INPUTPORT_TYPE_ATV,            ///< analogue tuner
    V4L2_DRM_INPUTPORT_TYPE_AV,             ///< composite (AV) input
    V4L2_DRM_INPUTPORT_TYPE_COMPONENT,      ///< component input
    V4L2_DRM_INPUTPORT_TYPE_RGB,            ///< analogue RGB input
    V4L2_DRM_INPUTPORT_TYPE_DVI,            ///< DVI input
    V4L2_DRM_INPUTPORT_TYPE_HDMI,           ///< HDMI input
    V4L2_DRM_INPUTPORT_TYPE_MAIN_CLONE,     ///< clone of the main video (see v4l2_drm_main_clone_mux)
    V4L2_DRM_INPUTPORT_TYPE_JPEG_SWDEC,     ///< JPEG decoded in software
    V4L2_DRM_INPUTPORT_TYPE_MJPEG,          ///< motion JPEG
    V4L2_DRM_INPUTPORT_TYPE_SCART,          ///< SCART input
    V4L2_DRM_INPUTPORT_TYPE_DSP,            ///< DSP input
    V4L2_DRM_INPUTPORT_TYPE_LVDXRX,         ///< LVDXRX receiver input
    /// number of ports; the video handle's "no source sent yet" (quarvel_video_output_s::pre_source)
    V4L2_DRM_INPUTPORT_TYPE_MAX,
};

/// Display aspect ratio of the picture (v4l2_drm_dec_info::aspectratio). The names give
/// height over width. 0, or any other value, stands for an aspect not listed here.
V4L2_DRM_FIELD_ENUM(v4l2_aspectratio_type) {
    V4L2_ASPECTRATIO_TYPE_100_100 = 1,      ///< 1:1
    V4L2_ASPECTRATIO_TYPE_300_400 = 2,      ///< 4:3
    V4L2_ASPECTRATIO_TYPE_900_1600 = 3,     ///< 16:9
    V4L2_ASPECTRATIO_TYPE_100_221 = 4,      ///< 2.21:1
};

/// Sample format of a picture (v4l2_private_frame_info::colorformat,
/// v4l2_drm_extin_info::colorformat).
V4L2_DRM_FIELD_ENUM(v4l2_drm_colorformat_type) {
    V4L2_DRM_COLORFORMAT_RGB444 = 1,        ///< RGB 4:4:4
    V4L2_DRM_COLORFORMAT_YUV444,            ///< YUV 4:4:4
    V4L2_DRM_COLORFORMAT_YUV422,            ///< YUV 4:2:2
    V4L2_DRM_COLORFORMAT_YUV420,            ///< YUV 4:2:0 (what ruvovideosink describes)
    V4L2_DRM_COLORFORMAT_YC,                ///< Y/C
};

/// Frame rate of a source, as a code (v4l2_drm_extin_info::framerate, and
/// v4l2_drm_dec_info::framerate in the descriptors ruvovideosink builds).
V4L2_DRM_FIELD_ENUM(v4l2_drm_framerate_type) {
    V4L2_DRM_FRAMERATE_23_97HZ = 1,         ///< 24000/1001 Hz
    V4L2_DRM_FRAMERATE_24HZ,                ///< 24 Hz
    V4L2_DRM_FRAMERATE_25HZ,                ///< 25 Hz
    V4L2_DRM_FRAMERATE_29_97HZ,             ///< 30000/1001 Hz
    V4L2_DRM_FRAMERATE_30HZ,                ///< 30 Hz
    V4L2_DRM_FRAMERATE_50HZ,                ///< 50 Hz
    V4L2_DRM_FRAMERATE_59_94HZ,             ///< 60000/1001 Hz
    V4L2_DRM_FRAMERATE_60HZ,                ///< 60 Hz
    V4L2_DRM_FRAMERATE_48HZ,                ///< 48 Hz
    V4L2_DRM_FRAMERATE__47_94HZ,            ///< 48000/1001 Hz (two underscores: the driver's name)
    V4L2_DRM_FRAMERATE_75HZ,                ///< 75 Hz
    V4L2_DRM_FRAMERATE_100HZ,               ///< 100 Hz
    V4L2_DRM_FRAMERATE_120HZ,               ///< 120 Hz
    V4L2_DRM_FRAMERATE_56_25HZ,             ///< 56.25 Hz
    V4L2_DRM_FRAMERATE_66_66HZ,             ///< 66.66 Hz
    V4L2_DRM_FRAMERATE_70HZ,                ///< 70 Hz
    V4L2_DRM_FRAMERATE_72HZ,                ///< 72 Hz
    V4L2_DRM_FRAMERATE_76HZ,                ///< 76 Hz
    V4L2_DRM_FRAMERATE_85HZ,                ///< 85 Hz
    V4L2_DRM_FRAMERATE_ETC,                 ///< any other rate, or a variable one
};

/// 2D or the stereoscopic 3D arrangement of the picture (v4l2_drm::stereoscopic_info).
V4L2_DRM_FIELD_ENUM(v4l2_drm_input_stereoscopic_type) {
    V4L2_DRM_INPUT_STEREOSCOPIC_2D = 0,     ///< 2D
    V4L2_DRM_INPUT_STEREOSCOPIC_SBS,        ///< 3D, side by side
    V4L2_DRM_INPUT_STEREOSCOPIC_TNB,        ///< 3D, top and bottom
    V4L2_DRM_INPUT_STEREOSCOPIC_FRAME_SEQ,  ///< 3D, frame sequential
    V4L2_DRM_INPUT_STEREOSCOPIC_FRAME_PACK, ///< 3D, frame packing
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_KR3D,    ///< 3D, the decoder's KR3D mode
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_MVC_B,   ///< 3D, the decoder's MVC_B mode
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_MFC_D,   ///< 3D, the decoder's MFC_D mode
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_SVAF,    ///< 3D, the decoder's SVAF mode
    V4L2_DRM_INPUT_STEREOSCOPIC_3D_MVC,     ///< 3D, MVC (multiview video coding)
};

/// What the clone of the main video carries (v4l2_drm_extin_info::clone_mux).
V4L2_DRM_FIELD_ENUM(v4l2_drm_main_clone_mux) {
    V4L2_DRM_MAIN_CLONE_MUX_VIDEO_ONLY = 0, ///< the video alone
    V4L2_DRM_MAIN_CLONE_MUX_VIDEO_GP,       ///< the video with the graphics plane (GP)
    V4L2_DRM_MAIN_CLONE_MUX_VIDEO_EXT_GP,   ///< the video with the external graphics plane
    V4L2_DRM_MAIN_CLONE_MUX_RESERVED0,      ///< reserved
    V4L2_DRM_MAIN_CLONE_MUX_RESERVED1,      ///< reserved
    V4L2_DRM_MAIN_CLONE_MUX_MAX,            ///< number of values
};
// clang-format on

/// One frame buffer of the decoder (120 bytes): where the picture lies in memory and how.
/// The library reads two fields of the first entry (v4l2_drm_dec_info::pFrame[0]),
/// `display_index` and `v_linesize`; the rest reaches the driver as it is.
struct v4l2_private_frame_info {
    uint32_t chip_id;      ///< id of the decoder chip; passed on as it is
    uint32_t instance_id;  ///< decoder instance that decoded the frame; passed on as it is
    /// The frame's number in the decoder's display order (the frame id), 0xFFFFFFFF for "no
    /// picture". The library prints it at trace level for every pushed frame ("Render:frame
    /// id"), and quarvel_video_output_init_with_first_frame() first sends a copy of the
    /// descriptor with 0xFFFFFFFF here, to announce the stream's format without a picture.
    /// ruvovideosink numbers the video/x-raw frames it describes 0, 1, 2, ...
    uint32_t display_index;
    uint32_t showframe;   ///< non-zero when the frame is to be shown; passed on as it is
    uint64_t y_viraddr;   ///< virtual address of the luma (or first) plane; passed on as it is
    uint64_t u_viraddr;   ///< virtual address of the second plane; passed on as it is
    uint64_t v_viraddr;   ///< virtual address of the third plane; passed on as it is
    uint32_t width;       ///< width of the picture in the buffer, pixels; passed on as it is
    uint32_t height;      ///< height of the picture in the buffer, lines; passed on as it is
    uint32_t y_linesize;  ///< bytes per line of the first plane; passed on as it is
    uint32_t u_linesize;  ///< bytes per line of the second plane; passed on as it is
    /// Bytes per line of the third plane (ruvovideosink puts 0). Read by the library, in
    /// entry 0 only, when v4l2_drm_dec_info::aspectratio is not a v4l2_aspectratio_type
    /// value: 0 gives square samples (the display aspect is `hres` : `vres`), any other
    /// value a 1:1 display aspect. Passed on as it is.
    uint32_t v_linesize;
    uint32_t startline;  ///< first line of the picture in the buffer; passed on as it is
    uint32_t endline;    ///< last line of the picture (ruvovideosink: the height); passed on as it is
    enum v4l2_drm_colorformat_type colorformat;  ///< sample format of the buffer; passed on as it is
    uint32_t framedone;       ///< non-zero once the frame is fully decoded; passed on as it is
    uint32_t Keyframe;        ///< non-zero for a key frame; passed on as it is
    uint32_t dimension;       ///< the decoder's dimension value; passed on as it is
    uint64_t y_phyaddr;       ///< physical address of the first plane; passed on as it is
    uint64_t u_phyaddr;       ///< physical address of the second plane; passed on as it is
    uint64_t v_phyaddr;       ///< physical address of the third plane; passed on as it is
    uint32_t vsync_interval;  ///< the decoder's vsync interval value; passed on as it is
};

/// The size the decoder announces for the coming frames (32 bytes). Not read by the
/// library: quarvel_video_output_set_next_res() takes the new size from `hres` and `vres`
/// of the frame it is given. Passed on as it is.
struct v4l2_dynamic_res_info {
    uint32_t next_frm_hres;  ///< width of the next frames, pixels
    uint32_t next_frm_vres;  ///< height of the next frames, pixels
    uint32_t max_hres;       ///< largest width of the stream, pixels
    uint32_t max_vres;       ///< largest height of the stream, pixels
    uint32_t crop_x;         ///< crop rectangle in the next frames: left edge, pixels
    uint32_t crop_y;         ///< crop rectangle: top edge, pixels
    uint32_t crop_w;         ///< crop rectangle: width, pixels
    uint32_t crop_h;         ///< crop rectangle: height, pixels
};

/// The descriptor of a decoded frame (552 bytes, v4l2_drm::u for the decoder inputs such
/// as #V4L2_DRM_INPUTPORT_TYPE_DTV and #V4L2_DRM_INPUTPORT_TYPE_MM).
struct v4l2_drm_dec_info {
    /// Display aspect ratio of the picture. The library works out the content's sample
    /// and display aspect from it (with `hres` and `vres`) to box the picture into the
    /// browser's rectangle; for a value that is not an enumerator, see
    /// v4l2_private_frame_info::v_linesize.
    enum v4l2_aspectratio_type aspectratio;
    /// Width of the decoded picture, pixels. The library takes it as the content width:
    /// the plane scans out `hres` x `vres` from the frame's top left corner, a change of
    /// size or aspect re-places the video, and quarvel_video_output_set_next_res() announces
    /// it (truncated to 16 bits in the command) unless it equals the current content's.
    uint32_t hres;
    uint32_t vres;  ///< height of the decoded picture, lines; used as `hres` is
    /// Effective width of the picture, pixels. Not read (the library takes `hres`); passed
    /// on as it is.
    uint32_t effective_hres;
    /// Effective height of the picture, lines. Not read (the library takes `vres`); passed
    /// on as it is.
    uint32_t effective_vres;
    /// Frame rate of the stream: in thousandths of a hertz from the broadcast decoder (50000
    /// for 50 Hz), a v4l2_drm_framerate_type value in the descriptors ruvovideosink builds.
    /// Not read by the library; passed on as it is.
    uint32_t framerate;
    uint32_t scantype;  ///< 0 progressive, 1 interlaced; passed on as it is
    uint32_t bpp;       ///< bits per sample of the first component (8, 10); passed on as it is
    /// The decoder's frame buffers. The library reads entry 0 only (see
    /// v4l2_private_frame_info); entries 1 to 3 are passed on as they are.
    struct v4l2_private_frame_info pFrame[4];
    struct v4l2_dynamic_res_info next_res;  ///< the size of the coming frames; passed on as it is
    uint32_t decoder_info;                  ///< the decoder's own value; passed on as it is
};

/// The descriptor of an external input's signal (72 bytes, v4l2_drm::u for inputs such as
/// #V4L2_DRM_INPUTPORT_TYPE_HDMI). The library reads none of it: it is passed on as it is.
struct v4l2_drm_extin_info {
    uint32_t src_info_send_flag;                 ///< the receiver's "source information sent" flag
    uint32_t htotal;                             ///< pixels per line, blanking included
    uint32_t vtotal;                             ///< lines per frame, blanking included
    uint32_t hactive;                            ///< active pixels per line
    uint32_t vactive;                            ///< active lines per frame
    uint32_t hactive_size;                       ///< the receiver's horizontal active size
    uint32_t vactive_size;                       ///< the receiver's vertical active size
    uint32_t scantype;                           ///< progressive or interlaced, as the receiver reports it
    uint32_t oversampling;                       ///< the receiver's oversampling value
    enum v4l2_drm_framerate_type framerate;      ///< frame rate of the signal, as a code
    enum v4l2_drm_colorformat_type colorformat;  ///< sample format of the signal
    uint32_t syncmode;                           ///< the receiver's sync mode
    uint32_t pcinput;                            ///< non-zero for a PC signal
    uint32_t vrrinput;                           ///< non-zero for a variable refresh rate signal
    uint32_t freesync_max_framerate;             ///< top frame rate of a FreeSync signal (receiver's value)
    uint32_t ntscpal_type;                       ///< colour system of an analogue signal (receiver's value)
    uint32_t dscinput;                           ///< non-zero for a DSC (display stream compression) signal
    enum v4l2_drm_main_clone_mux clone_mux;      ///< what a clone of the main video carries
};

/// The frame descriptor (576 bytes): one frame as the decoder describes it to the display.
struct v4l2_drm {
    /// Where the picture comes from. The library remembers the port it last sent to the
    /// display (quarvel_video_output_s::pre_source) and prints "Source Changed" when a
    /// frame comes from another; the descriptor is sent either way.
    enum v4l2_drm_inputport_type inputport;
    /// Display plane the frame goes to. The library overwrites it, in the caller's
    /// descriptor, with the DRM plane id of the main video plane before each
    /// set-display-source request: the decoder's value is not used.
    uint32_t plane;
    /// The input's own fields, chosen by `inputport`.
    union {
        struct v4l2_drm_dec_info dec_info;      ///< a decoded frame (the browser's frames, broadcast)
        struct v4l2_drm_extin_info extin_info;  ///< an external input's signal; not read
    } u;
    /// 2D or the 3D arrangement of the picture; passed on as it is.
    enum v4l2_drm_input_stereoscopic_type stereoscopic_info;
    uint64_t reserved;  ///< zero; passed on as it is
};

/// Control of the broadcast decoder's node ("/dev/video10") that returns the descriptor of
/// the frame on display: read with VIDIOC_G_EXT_CTRLS, size 576, into a `v4l2_drm`.
/// quarvel_video_output_notify_ta_switch() shows that frame again at the end of an
/// advertising break.
#define V4L2_CID_GET_DISPLAY_FRAME_INFO 0x00A20014u
/// Control class of #V4L2_CID_GET_DISPLAY_FRAME_INFO (`ctrl_class` of the request).
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
