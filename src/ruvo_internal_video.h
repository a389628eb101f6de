// Internals of the video output: the display pipeline (DRM/KMS and the chip's private
// requests), the on-screen-display buffers and converter, the display queue, frame geometry,
// timing and the hand-back to broadcast video.
#pragma once

#include <stdint.h>

#include "ruvo/driver/qvk_converter.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/v4l2_drm.h"
#include "ruvo/driver/vplt_ioctl.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo_visibility.h"

// Video output core
RUVO_INTERNAL void CloseDevice(quarvel_video_output_s* output);
RUVO_INTERNAL bool DRMKMSInit(quarvel_video_output_s* output);
RUVO_INTERNAL bool CreateDRMDummyBuffer(quarvel_video_output_s* output, int index);
RUVO_INTERNAL bool DRMFindPlane(quarvel_video_output_s* output);
RUVO_INTERNAL int get_drm_fd_from_korb(int cardID, int* drmFd);

// Sends one video-platform command (arguments by address) and returns the ioctl result.
RUVO_INTERNAL int vplt_send_command(int fd, int32_t command, void* arg1, void* arg2, void* arg3,
                                    int32_t* ret);

// Hardware frame buffers and converter (on-screen-display path)
RUVO_INTERNAL int gem_hw_alloc(int drm_fd, int size, int index, bool isY);
RUVO_INTERNAL void gem_free(quarvel_video_output_s* output);
RUVO_INTERNAL bool converter_init(quarvel_video_output_s* output);
RUVO_INTERNAL void converter_deinit(quarvel_video_output_s* output);

// Display queue size
RUVO_INTERNAL bool fr2ip_do_set_queue_size(int fd, int queue_size);
RUVO_INTERNAL bool fr2ip_set_queue_size(int fd, int queue_size);
RUVO_INTERNAL bool InitQueueMode(quarvel_video_output_s* output);
RUVO_INTERNAL int fr2ip_zero_queue_use_count();  // read-only view for diagnostics

// Frame size and aspect
RUVO_INTERNAL quarvel_frame_size_s CalculateFrameSizeFromV4L2(v4l2_drm const* frame_info);
RUVO_INTERNAL void ReduceFraction(unsigned long long* num, unsigned long long* denom);
RUVO_INTERNAL quarvel_video_output_rect_s ApplyBoxContentMode(quarvel_video_output_rect_s const* rect,
                                                              quarvel_frame_size_s const* frame_size);

// Positioning
RUVO_INTERNAL int ApplyPositioning(quarvel_video_output_s* output);
RUVO_INTERNAL int SetPlane(quarvel_video_output_s* output, quarvel_video_output_rect_s* rect, unsigned crop_x,
                           unsigned crop_y, unsigned crop_w, unsigned crop_h);

// First frame
RUVO_INTERNAL int SetDVProfile(quarvel_video_output_s* output, int dv_profile);

// Timing
RUVO_INTERNAL double HelperConvertVsyncHzToFPS(int fps_1k);

// Display source, mute and broadcast switch
RUVO_INTERNAL bool is_ta_switch();
RUVO_INTERNAL int SetDpSource(quarvel_video_output_s* output, v4l2_drm* frame_info);
RUVO_INTERNAL bool DRMSetUnmute(quarvel_video_output_s* output, bool unmute);
RUVO_INTERNAL int GetDTV_DRM_Info(v4l2_drm* v4l2_drm_info);
RUVO_INTERNAL void* _set_audio_mute(void* arg);
