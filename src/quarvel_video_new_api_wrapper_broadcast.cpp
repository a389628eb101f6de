// Hand-back to broadcast video at the end of an advertising break: audio muted at once
// from a detached thread, the broadcast decoder's current frame put back on the main
// video plane at the rectangle the browser's video last had, then the video unmuted.
#include <errno.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "ruvo/wayland_render.h"
#include "ruvo_internal_audio.h"
#include "ruvo_internal_video.h"
#include "ruvo_log.h"

namespace {

const char kBroadcastDecoderNode[] = "/dev/video10";

// Starts the detached thread that mutes the main audio output. True when it runs.
bool start_audio_mute_thread(pthread_attr_t* attr) {
    pthread_t thread;
    return pthread_create(&thread, attr, _set_audio_mute, nullptr) == 0;
}

}  // namespace

void* _set_audio_mute(void* /*arg*/) {
    _kcontrol_set("main out mute", 1);
    QVL_ERR("set audio mute\n\n");
    return nullptr;
}

int GetDTV_DRM_Info(v4l2_drm* v4l2_drm_info) {
    QVL_INFO("in\n");
    int fd = open(kBroadcastDecoderNode, O_RDONLY);
    if (fd < 0) {
        QVL_ERR("core_v4l2_open failed :errno(%d)\n", errno);
        return -1;
    }
    QVL_INFO("core_v4l2_open success\n");

    struct v4l2_ext_control control;
    memset(&control, 0, sizeof(control));
    control.id = V4L2_CID_GET_DISPLAY_FRAME_INFO;
    control.size = sizeof(v4l2_drm);
    control.ptr = v4l2_drm_info;

    struct v4l2_ext_controls controls;
    memset(&controls, 0, sizeof(controls));
    controls.ctrl_class = V4L2_CTRL_CLASS_DISPLAY_FRAME;
    controls.count = 1;
    controls.controls = &control;

    if (ioctl(fd, VIDIOC_G_EXT_CTRLS, &controls) < 0) {
        // The descriptor stays open on this path; only a successful read closes it.
        QVL_ERR("V4L2_CID_GET_DISPLAY_FRAME_INFO failed: errno(%d)\n", errno);
        return -1;
    }
    QVL_INFO("V4L2_CID_GET_DISPLAY_FRAME_INFO success\n");
    close(fd);
    return 0;
}

void quarvel_video_output_notify_ta_switch(quarvel_video_output_s* output) {
    QVL_INFO("in\n");
    if (output == nullptr) {
        QVL_ERR("output is NULL\n");
        return;
    }

    pthread_attr_t attr;
    if (output->m_is_ta) {
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        if (!start_audio_mute_thread(&attr))
            QVL_ERR("audio_mute_thread creation failed!\n");
        wayland_render_set_geometry(static_cast<window*>(output->m_window), 0, 0, 0, 0);
        return;
    }

    if (!output->m_ta_switch && !is_ta_switch()) {
        QVL_INFO("not TA case\n");
        return;
    }

    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    if (output->m_rect_applied_to_driver.w != 0 && output->m_rect_applied_to_driver.h != 0) {
        // The browser's video is on the plane: audio first, then the picture.
        if (!start_audio_mute_thread(&attr))
            QVL_ERR("audio_mute_thread creation failed!\n");
        if (!DRMSetUnmute(output, false)) {
            QVL_ERR("mute failed\n");
            return;
        }
    } else {
        if (!start_audio_mute_thread(&attr))
            QVL_ERR("audio_mute_thread creation failed!\n");
    }

    v4l2_drm descriptor;
    memset(&descriptor, 0, sizeof(descriptor));
    if (GetDTV_DRM_Info(&descriptor) < 0) {
        QVL_ERR("get dtv drm failed\n");
        return;
    }
    if (SetDpSource(output, &descriptor) < 0) {
        QVL_ERR("SetDpSource dtv failed\n");
        return;
    }
    // Worked out for the broadcast frame, but the crop stays the handle's own size.
    (void)CalculateFrameSizeFromV4L2(&descriptor);
    if (SetPlane(output, &output->m_rect_applied_to_driver, 0, 0, output->m_frame_meta.w,
                 output->m_frame_meta.h) < 0) {
        QVL_ERR("SetPlane failed\n");
        return;
    }
    if (!DRMSetUnmute(output, true)) {
        QVL_ERR("unmute failed\n");
        return;
    }
    output->m_rect_applied_to_driver.w = 0;
    output->m_rect_applied_to_driver.h = 0;
    setenv("TA_DTV_PRELOAD", "", 1);
    output->m_ta_switch = false;
}
