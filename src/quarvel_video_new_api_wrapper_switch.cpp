// Display source and mute of the main video plane, and the broadcast-switch test.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

#include "ruvo_internal_video.h"
#include "ruvo_log.h"

bool is_ta_switch() {
    const char* value = getenv("TA_DTV_PRELOAD");
    return value != nullptr && strcmp(value, "1") == 0;
}

int SetDpSource(quarvel_video_output_s* output, v4l2_drm* frame_info) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (frame_info == nullptr) {
        QVL_ERR("frame_info is null\n");
        return -9;
    }
    frame_info->plane = static_cast<uint32_t>(output->m_plane_obj_id[output->m_plane_type]);
    if (output->pre_source != static_cast<int>(frame_info->inputport)) {
        QVL_INFO("Source Changed:pre(%d) -> cur(%d)\n", output->pre_source,
                 static_cast<int>(frame_info->inputport));
        output->pre_source = static_cast<int>(frame_info->inputport);
    }
    if (ioctl(output->m_drm_fd, DRM_IOCTL_SDP_SET_DP_SOURCE, frame_info) < 0) {
        QVL_ERR("ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

bool DRMSetUnmute(quarvel_video_output_s* output, bool unmute) {
    QVL_INFO("unmute(%d)\n", unmute);
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return false;
    }
    sdp_drm_onoff_param param;
    param.plane_id = static_cast<uint32_t>(output->m_plane_obj_id[output->m_plane_type]);
    param.set_func = DRM_SDP_FUNC_MUTE_ONOFF;
    param.onoff_flag = unmute ? 0 : 1;
    if (ioctl(output->m_drm_fd, DRM_IOCTL_SDP_SET_ONOFF, &param) < 0) {
        QVL_ERR("ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [%s]\n", strerror(errno));
        return false;
    }
    return true;
}
