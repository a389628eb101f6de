/**
 * \file quarvel_video_output.h
 * \brief Video output of the AV sink: the decoder's frames on the main video plane.
 *
 * A video output lives from quarvel_video_output_open() to quarvel_video_output_close():
 * optionally quarvel_video_output_set_rect(), then quarvel_video_output_init_with_first_frame()
 * once, then quarvel_video_output_push_frame_to_display() for every frame (with set_rect
 * whenever the video moves and quarvel_video_output_set_next_res() when the decoder
 * announces a new size), the timing calls as the pipeline paces itself, and
 * quarvel_video_output_notify_ta_switch() at the end of an advertising break.
 *
 * \par Result codes
 * 0 is success; -9 a null handle or null argument; -1 a failed driver request (or data not
 * available yet); other small negative numbers name the failing step of a sequence, as
 * each function lists. Every failure also prints a line on standard output that names
 * the request and carries the text of errno.
 *
 * \par Threads
 * The library has no thread of its own except the detached audio-mute thread of
 * quarvel_video_output_notify_ta_switch(). Every call runs on the caller's thread; calls on
 * one handle are not synchronised and must not overlap. Different handles may be used from
 * different threads: the display-queue hold they share is the library's only lock. Opening
 * a video output writes the process-wide debug mask (see ruvo_debug.h), which every
 * thread that prints reads without synchronisation.
 *
 * \par Ownership
 * The caller owns a handle from its open to its close; close frees it. Records passed by
 * address are read (or filled) during the call only, except where a function says so.
 */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#include "ruvo/driver/v4l2_drm.h"

/// Marks a function of the library's exported interface.
#define RUVO_EXPORT __attribute__((visibility("default")))

/// A rectangle on the panel, in panel pixels (the panel size of
/// quarvel_video_output_get_panel_size()).
typedef struct quarvel_video_output_rect_s {
    int32_t x;       ///< left edge, pixels from the panel's left
    int32_t y;       ///< top edge, pixels from the panel's top
    uint32_t w;      ///< width in pixels; 0 hides the video
    uint32_t h;      ///< height in pixels; 0 hides the video
    uint32_t dar_w;  ///< display aspect term (width) of the content, 0 when unknown
    uint32_t dar_h;  ///< display aspect term (height) of the content, 0 when unknown
} quarvel_video_output_rect_t;

/// What the browser passes per frame.
typedef struct quarvel_video_output_frame_s {
    /// The decoder's frame descriptor; never null (it is not checked). The calls that send
    /// it to the display write the video plane's id into its `plane` field.
    struct v4l2_drm* v4l2_frame;
    int32_t dv_profile;   ///< Dolby Vision profile of the frame; negative: none
    int32_t reserved[7];  ///< not read
} quarvel_video_output_frame_t;

/// Content size and aspect worked out from a frame descriptor; neutral value
/// {0, 0, 0, 0, 1, 1}.
typedef struct quarvel_frame_size_s {
    uint32_t w;          ///< content width in pixels
    uint32_t h;          ///< content height in pixels
    uint32_t dar_w;      ///< display aspect term: sar_num * w (not reduced)
    uint32_t dar_h;      ///< display aspect term: sar_denom * h (not reduced)
    uint32_t sar_num;    ///< sample aspect, numerator (reduced)
    uint32_t sar_denom;  ///< sample aspect, denominator (reduced)
} quarvel_frame_meta_t;

/// Vsync timing of the main video plane (quarvel_video_output_get_vsync_info()).
typedef struct quarvel_video_output_vsync_info_s {
    int32_t tv_sec;   ///< time since the last vsync as the driver reports it: seconds
    int32_t tv_nsec;  ///< time since the last vsync: nanoseconds
    /// Display rate in frames per second, from the driver's rate in thousandths of a hertz
    /// (23976 and 23970 give 24000/1001, 29970 gives 30000/1001, 59940 gives 60000/1001).
    double fps;
} quarvel_video_output_vsync_info_t;

/// Frame buffers the decoders hold (quarvel_video_output_get_used_frames()).
typedef struct quarvel_video_used_frames_s {
    /// Frames held by decoder 0 and decoder 1; entries 2 and 3 are not written.
    uint32_t used_by_decoder[4];
} quarvel_video_used_frames_t;

/// One placeholder scan-out buffer (a dumb buffer of the panel's size).
struct DRMBuffer {
    uint32_t stride;     ///< bytes per line
    uint32_t size;       ///< bytes
    uint32_t bo_handle;  ///< DRM buffer object handle
    uint32_t fb_handle;  ///< DRM framebuffer id
};

/// Number of placeholder buffers a handle holds.
enum { kDRMBufferNumber = 1 };

/// The video handle: a plain record, created by open and freed by close. It may be read
/// (the probe does); it is written by the library only.
typedef struct quarvel_video_output_s {
    int m_valio_fd;             ///< video-platform device descriptor, -1 when not open
    int m_dolby_fd;             ///< Dolby device descriptor, -1 when not open
    int m_drm_fd;               ///< DRM descriptor (the board HAL's, or "/dev/dri/card0"), -1 when not open
    bool m_opened;              ///< true once open succeeded
    int m_num_buffers;          ///< placeholder buffers made
    unsigned int m_crtc_id;     ///< CRTC in use
    unsigned int m_con_id;      ///< connector in use
    unsigned int m_plane_type;  ///< plane type of the video (the main plane)
    struct DRMBuffer m_drm_buffers[kDRMBufferNumber];  ///< the placeholder buffer
    int m_plane_obj_id[11];             ///< DRM plane id of each plane type found (types 0 to 6)
    int m_panel_width;                  ///< panel width in pixels
    int m_panel_height;                 ///< panel height in pixels
    int pre_source;                     ///< input port of the last display-source request
    bool m_first_frame_initialized;     ///< the first frame was taken
    bool m_queue_size_set;              ///< this handle holds the zero display queue
    bool m_ta_switch;                   ///< a hand-back to broadcast video is pending
    int m_dv_profile;                   ///< Dolby Vision profile last set, -1 when none
    bool m_is_ta;                       ///< on-screen-display path; always false (open ignores its argument)
    int m_gem_buf[6];                   ///< on-screen-display frame buffers (dmabuf descriptors)
    int m_gem_buf_idx;                  ///< next frame-buffer pair to fill
    int m_wl_buf_idx;                   ///< renderer buffer last shown
    int m_de_fd;                        ///< frame converter descriptor, -1 when not open
    void* m_window;                     ///< renderer window, null when none
    quarvel_frame_meta_t m_frame_meta;  ///< size and aspect of the current content
    quarvel_video_output_rect_t m_wanted_rect;  ///< the browser's last rectangle
    quarvel_video_output_rect_t
        m_rect_applied_to_driver;  ///< the rectangle the plane shows; w or h 0 when hidden
} quarvel_video_output_t;

/**
 * Opens the main video output: reads the debug mask from the marker files, opens the
 * video-platform and Dolby devices, takes the DRM descriptor from the board HAL (or opens
 * "/dev/dri/card0"), finds connector, CRTC, panel size and planes, and makes one
 * placeholder framebuffer of the panel's size.
 *
 * \param bTaCase ignored: the handle always takes the main-plane path.
 * \return the new handle, owned by the caller until quarvel_video_output_close(); null
 *         when a device is missing or discovery fails (what was opened is released first,
 *         the reason printed).
 */
RUVO_EXPORT quarvel_video_output_s* quarvel_video_output_open(bool bTaCase);
/**
 * Closes a video output and frees the handle: removes the placeholder framebuffer,
 * gives the display queue back to the broadcast size when this handle held it, closes the
 * descriptors (not a DRM descriptor the board HAL handed out: the HAL owns it). Failures
 * are printed and the release goes on. The plane is not muted.
 *
 * \param output the handle; null is printed and ignored. Not valid after the call.
 */
RUVO_EXPORT void quarvel_video_output_close(quarvel_video_output_s* output);
/**
 * Reports the panel size found at open: the connector's first mode, or 3840 x 2160 when
 * no connector reports one. Sends nothing to the drivers.
 *
 * \param output an open handle; must not be null (not checked).
 * \param width receives the width in pixels; must not be null.
 * \param height receives the height in pixels; must not be null.
 */
RUVO_EXPORT void quarvel_video_output_get_panel_size(const quarvel_video_output_s* output, int* width,
                                                     int* height);
/**
 * Places the video: stores the rectangle and, once content of known size is there,
 * programs the main plane with the content boxed into the rectangle (keeping its aspect),
 * unmutes it when it was hidden, or mutes it when the rectangle (or the content) has no
 * area. Nothing is sent when the boxed rectangle and the content's aspect did not change.
 * Before the first frame only the wish is stored. While "TA_DTV_PRELOAD" is "1", hiding
 * keeps the picture and marks a hand-back as pending.
 *
 * \param output an open handle.
 * \param rect the rectangle in panel pixels, copied. With the info level of the debug
 *        mask on, it is printed before it is checked: a null rectangle then ends the
 *        process (docs/behaviours.md, V2).
 * \retval 0 placed, hidden, unchanged, or stored for later
 * \retval -9 output or rect is null
 * \retval -1 the plane request failed, or the mute failed (the rectangle is tried again
 *         at the next call)
 * \retval -4 the plane was programmed but the unmute failed
 */
RUVO_EXPORT int quarvel_video_output_set_rect(quarvel_video_output_s* output,
                                              quarvel_video_output_rect_s const* rect);
/**
 * Starts playback on the first frame: sets the Dolby Vision profile, announces the
 * stream's format to the display (the descriptor without a picture), holds the zero
 * display queue, sends the frame's display source, places the video as the last
 * quarvel_video_output_set_rect() asked, and sets the picture-quality service's playback
 * flag (printing "HMX:set corvi playback flag"). Later calls return 0 and do nothing.
 *
 * \param output an open handle.
 * \param frame the first frame; its descriptor's `plane` field is written.
 * \retval 0 started (or started before)
 * \retval -9 output or frame is null
 * \retval -1 the Dolby profile request failed
 * \retval -2 the format announcement failed
 * \retval -3 the display queue could not be held
 * \retval -4 the frame's display-source request failed
 * \retval -5 placing the video failed (the frame counts as taken: a second call does
 *         nothing)
 */
RUVO_EXPORT int quarvel_video_output_init_with_first_frame(quarvel_video_output_s* output,
                                                           quarvel_video_output_frame_s const* frame);
/**
 * Announces a new content size to the video platform before its first frame arrives:
 * the new crop and the display rectangle the current rectangle gives for it. Nothing is
 * sent when the size equals the current content's. The handle's content size is updated by
 * the next pushed frame, not here.
 *
 * \param output an open handle.
 * \param frame a frame of the new size; its descriptor is copied and its address passed
 *        to the driver for the duration of the call.
 * \retval 0 announced, or the same size
 * \retval -9 output or frame is null
 * \retval -1 the request failed (a driver status in its record is not consulted)
 */
RUVO_EXPORT int quarvel_video_output_set_next_res(quarvel_video_output_s* output,
                                                  quarvel_video_output_frame_s const* frame);
/**
 * Shows one decoded frame: holds the zero display queue if not yet held, sets the Dolby
 * Vision profile when it changed, sends the frame's display source, and re-places the
 * video when the content's size or aspect changed. A null frame means no content: the
 * video is hidden (unless a hand-back is under way).
 *
 * \param output an open handle.
 * \param frame the frame, or null for no content; its descriptor's `plane` field is
 *        written.
 * \retval 0 shown (or hidden for a null frame)
 * \retval -9 output is null
 * \retval -1 hiding for a null frame failed
 * \retval -2 the Dolby profile request failed
 * \retval -3 the display-source request failed
 * \retval -4 placing the video failed
 */
RUVO_EXPORT int quarvel_video_output_push_frame_to_display(quarvel_video_output_s* output,
                                                           quarvel_video_output_frame_s const* frame);
/**
 * Reads the display's vsync rate and the time since the last vsync from the video
 * platform. Needs no started stream.
 *
 * \param output an open handle.
 * \param info_out receives the rate and the offset; see
 *        quarvel_video_output_vsync_info_s for the units.
 * \retval 0 both read
 * \retval -9 output or info_out is null
 * \retval -1 a request failed, or the driver has no rate or offset yet (a zero rate or
 *         a driver status): nothing is written when the rate is missing, only `fps` when
 *         the offset is
 */
RUVO_EXPORT int quarvel_video_output_get_vsync_info(quarvel_video_output_s* output,
                                                    quarvel_video_output_vsync_info_s* info_out);
/**
 * Reads how many frame buffers decoders 0 and 1 hold on the display path.
 *
 * \param output an open handle.
 * \param used_frames receives the two counts in its first two entries.
 * \retval 0 read (a driver status in the record is not consulted)
 * \retval -9 output or used_frames is null
 * \retval -1 the request failed
 */
RUVO_EXPORT int quarvel_video_output_get_used_frames(quarvel_video_output_s* output,
                                                     quarvel_video_used_frames_s* used_frames);
/**
 * Gives the display path the presentation timestamp of the frame on screen.
 *
 * \param output an open handle.
 * \param pts the timestamp in the decoder's own time base, passed on unconverted as two
 *        32-bit halves (two's complement).
 * \retval 0 sent (a driver status in the record is not consulted)
 * \retval -9 output is null (the trace line with the timestamp is printed first)
 * \retval -1 the request failed
 */
RUVO_EXPORT int quarvel_video_output_set_pts(quarvel_video_output_s* output, long long pts);
/**
 * Hands the screen back to broadcast video at the end of an advertising break, when a
 * hand-back is pending (a hide while "TA_DTV_PRELOAD" was "1") or "TA_DTV_PRELOAD" is "1":
 * starts a detached thread that writes the "main out mute" mixer control, mutes the plane
 * if the browser's video is shown, reads the broadcast decoder's current frame from
 * "/dev/video10", sends it as display source, programs the plane at the rectangle the
 * video last had, unmutes, and sets "TA_DTV_PRELOAD" to "". A failing step is printed and
 * leaves the hand-back pending; the next call tries again. Otherwise it only prints "not
 * TA case".
 *
 * \param output an open handle; null is printed and ignored.
 */
RUVO_EXPORT void quarvel_video_output_notify_ta_switch(quarvel_video_output_s* output);
