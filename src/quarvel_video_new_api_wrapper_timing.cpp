// Vsync timing, decoder frame usage and the presentation timestamp: single commands of
// the video-platform driver's frame path, each record on the stack.
#include <errno.h>
#include <string.h>

#include "ruvo_internal_video.h"
#include "ruvo_log.h"

double HelperConvertVsyncHzToFPS(int fps_1k) {
    switch (fps_1k) {
        case 23970:
        case 23976:
            return 24000.0 / 1001.0;
        case 25000:
            return 25.0;
        case 29970:
            return 30000.0 / 1001.0;
        case 30000:
            return 30.0;
        case 50000:
            return 50.0;
        case 59940:
            return 60000.0 / 1001.0;
        case 60000:
            return 60.0;
        default:
            return fps_1k / 1000.0;
    }
}

int quarvel_video_output_get_vsync_info(quarvel_video_output_s* output,
                                        quarvel_video_output_vsync_info_s* info_out) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (info_out == nullptr) {
        QVL_ERR("info_out is null\n");
        return -9;
    }
    uint8_t plane_id = 0;
    int32_t vsync_fps = 0;
    int32_t ret = 0;
    if (vplt_send_command(output->m_valio_fd, EN_VPLT_IOC_FR2IP_GetVsyncHZ, &plane_id, &vsync_fps, nullptr,
                          &ret) < 0) {
        QVL_ERR("ioctl(GetVsyncHZ) failed: %s\n", strerror(errno));
        return -1;
    }
    const double fps = HelperConvertVsyncHzToFPS(vsync_fps);
    if (ret != 0 || vsync_fps == 0) {
        QVL_ERR("vsyncHz not available yet\n");
        return -1;
    }
    // Kept even when the offset is not available.
    info_out->fps = fps;

    plane_id = 0;
    ret = 0;
    vplt_vsync_offset offset = {0, 0};
    if (vplt_send_command(output->m_valio_fd, EN_VPLT_IOC_FR2IP_GetOffsetFromVsync, &plane_id, &offset,
                          nullptr, &ret) < 0) {
        QVL_ERR("ioctl(GetOffsetFromVsync) failed: %s\n", strerror(errno));
        return -1;
    }
    if (ret != 0) {
        QVL_ERR("vsync not available yet\n");
        return -1;
    }
    info_out->tv_sec = offset.tv_sec;
    info_out->tv_nsec = offset.tv_nsec;
    QVL_TRACE("tv_sec(%d) tv_nsec(%d) fps(%f)\n", info_out->tv_sec, info_out->tv_nsec, info_out->fps);
    return 0;
}

int quarvel_video_output_get_used_frames(quarvel_video_output_s* output,
                                         quarvel_video_used_frames_s* used_frames) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (used_frames == nullptr) {
        QVL_ERR("used_frames is null\n");
        return -9;
    }
    uint8_t plane_id = 0;
    int32_t frames[2] = {0, 0};
    int32_t ret = 0;
    if (vplt_send_command(output->m_valio_fd, EN_VPLT_IOC_FR2IP_GetDirectlyFrames, &plane_id, frames, nullptr,
                          &ret) < 0) {
        QVL_ERR("ioctl(GetDirectlyFrames) failed: %s\n", strerror(errno));
        return -1;
    }
    // The driver's ret is not consulted for this query.
    used_frames->used_by_decoder[0] = static_cast<uint32_t>(frames[0]);
    used_frames->used_by_decoder[1] = static_cast<uint32_t>(frames[1]);
    QVL_TRACE("dec0(%d) dec1(%d)\n", frames[0], frames[1]);
    return 0;
}

int quarvel_video_output_set_pts(quarvel_video_output_s* output, long long pts) {
    QVL_TRACE("pts(%lld)\n", pts);
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    // Two's-complement halves, no unit conversion.
    const uint64_t bits = static_cast<uint64_t>(pts);
    uint8_t plane_id = 0;
    int32_t pts_h = static_cast<int32_t>(static_cast<uint32_t>(bits >> 32));
    int32_t pts_l = static_cast<int32_t>(static_cast<uint32_t>(bits));
    int32_t ret = 0;
    if (vplt_send_command(output->m_valio_fd, EN_VPLT_IOC_FR2IP_SetPTS, &plane_id, &pts_h, &pts_l, &ret) <
        0) {
        QVL_ERR("ioctl(SetPTS) failed: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}
