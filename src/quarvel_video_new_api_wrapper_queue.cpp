// Display queue size of the video-platform driver's frame path, reference-counted across
// all video handles of the process, and the one builder of video-platform commands.
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>

#include <mutex>

#include "ruvo_internal_video.h"
#include "ruvo_log.h"

namespace {

struct ZeroQueueState {
    int use_count = 0;
    std::mutex lock;
};

ZeroQueueState s_zero_queue_state;

}  // namespace

int vplt_send_command(int fd, int32_t command, void* arg1, void* arg2, void* arg3, int32_t* ret) {
    ST_VPLT_IOC_CMD cmd;
    cmd.enCmd = command;
    cmd.arg1 = arg1;
    cmd.arg2 = arg2;
    cmd.arg3 = arg3;
    cmd.arg4 = nullptr;
    cmd.arg5 = nullptr;
    cmd.arg6 = nullptr;
    cmd.arg7 = nullptr;
    cmd.ret = ret;
    return ioctl(fd, VPLT_IOC_CMD, &cmd);
}

bool fr2ip_do_set_queue_size(int fd, int queue_size) {
    QVL_TRACE("in, size = %d\n", queue_size);
    uint8_t plane_id = 0;
    int32_t size = queue_size;
    int32_t ret = 0;
    if (vplt_send_command(fd, EN_VPLT_IOC_FR2IP_SetDispQueueSize, &plane_id, &size, nullptr, &ret) < 0) {
        QVL_ERR("ioctl(SetDispQueueSize) failed: %s\n", strerror(errno));
        return false;
    }
    if (ret != 0) {
        QVL_ERR("EN_VPLT_IOC_FR2IP_SetDispQueueSize : ret = %d\n", ret);
        return false;
    }
    return true;
}

bool fr2ip_set_queue_size(int fd, int queue_size) {
    std::lock_guard<std::mutex> guard(s_zero_queue_state.lock);
    QVL_TRACE("in, size = %d, count = %d\n", queue_size, s_zero_queue_state.use_count);
    if (queue_size == 0) {
        if (s_zero_queue_state.use_count == 0 && !fr2ip_do_set_queue_size(fd, 0))
            return false;
        s_zero_queue_state.use_count++;
        return true;
    }
    // A release is counted whatever the driver says, and the count has no lower bound.
    s_zero_queue_state.use_count--;
    if (s_zero_queue_state.use_count == 0)
        fr2ip_do_set_queue_size(fd, queue_size);
    return true;
}

bool InitQueueMode(quarvel_video_output_s* output) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return false;
    }
    if (output->m_queue_size_set)
        return true;
    // Raised before asking, so that close releases even a hold the driver refused.
    output->m_queue_size_set = true;
    return fr2ip_set_queue_size(output->m_valio_fd, 0);
}

int fr2ip_zero_queue_use_count() {
    std::lock_guard<std::mutex> guard(s_zero_queue_state.lock);
    return s_zero_queue_state.use_count;
}
