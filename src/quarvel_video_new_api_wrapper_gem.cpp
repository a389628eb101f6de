// Hardware frame buffers of the on-screen-display path (exported as dma-buf descriptors)
// and the frame converter that decompresses decoder frames into them.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <drm.h>

#include "ruvo_internal_video.h"
#include "ruvo_log.h"

namespace {

const char kConverterPath[] = "/dev/qvkconverter";

// Fills one PRIME record and sends it; the driver answers in the same record.
int SendPrime(int drm_fd, unsigned long request, uint32_t handle, int dmabuf_fd, drm_prime_handle* prime) {
    memset(prime, 0, sizeof(*prime));
    prime->handle = handle;
    prime->flags = 0;
    prime->fd = dmabuf_fd;
    return ioctl(drm_fd, request, prime);
}

int CloseGemHandle(int drm_fd, uint32_t handle) {
    drm_gem_close gem_close;
    memset(&gem_close, 0, sizeof(gem_close));
    gem_close.handle = handle;
    gem_close.pad = 0;
    return ioctl(drm_fd, DRM_IOCTL_GEM_CLOSE, &gem_close);
}

int CreateHardwareGem(int drm_fd, int size, int index, bool isY, sdp_drm_gem_hw_create* create) {
    memset(create, 0, sizeof(*create));
    create->e_flag = isY ? SDP_DRM_GEM_DP_FB_Y : SDP_DRM_GEM_DP_FB_C;
    create->userinfo = static_cast<uint32_t>(index);
    create->handle = 0;
    create->pad = 0;
    create->ret_size = static_cast<uint64_t>(static_cast<int64_t>(size));
    return ioctl(drm_fd, DRM_IOCTL_SDP_GEM_HW_CREATE, create);
}

// Sends a converter request whose record is only the driver's status word.
int SendConverterStatusRequest(int converter_fd, unsigned long request, converter_retval* status) {
    status->u32Retval = 0;
    return ioctl(converter_fd, request, status);
}

}  // namespace

int gem_hw_alloc(int drm_fd, int size, int index, bool isY) {
    sdp_drm_gem_hw_create create;
    int ret = CreateHardwareGem(drm_fd, size, index, isY, &create);
    if (ret < 0) {
        QVL_ERR("fail, index:%d, isY:%d, ret:%d.\n", index, isY, ret);
        return ret;
    }
    const uint64_t expected = static_cast<uint64_t>(static_cast<int64_t>(size));
    if (create.ret_size < expected) {
        // Neither exported nor closed: the caller sees a non-negative value that is no descriptor.
        QVL_ERR("index:%d, isY:%d, %lld < expected %d.\n", index, isY,
                static_cast<long long>(create.ret_size), size);
        return ret;
    }
    QVL_TRACE("index:%d, isY:%d, %lld > expected %d.\n\n", index, isY,
              static_cast<long long>(create.ret_size), size);

    drm_prime_handle prime;
    ret = SendPrime(drm_fd, DRM_IOCTL_PRIME_HANDLE_TO_FD, create.handle, 0, &prime);
    if (ret >= 0) {
        QVL_TRACE("gem alloc success, index:%d, isY:%d, fd:%d\n", index, isY, prime.fd);
        if (prime.fd >= 0)
            return prime.fd;
    } else {
        QVL_ERR("handle to fd fail, handle:%u, ret:%d, errno:%s\n", create.handle, ret, strerror(errno));
    }
    // The handle must not outlive a failed export: retried until the driver takes it back.
    while ((ret = CloseGemHandle(drm_fd, create.handle)) < 0)
        QVL_ERR("close fail, handle:%u, ret:%d\n", create.handle, ret);
    return ret;
}

void gem_free(quarvel_video_output_s* output) {
    for (int& dmabuf_fd : output->m_gem_buf) {
        if (dmabuf_fd < 0)
            continue;
        drm_prime_handle prime;
        int ret = SendPrime(output->m_drm_fd, DRM_IOCTL_PRIME_FD_TO_HANDLE, 0, dmabuf_fd, &prime);
        close(dmabuf_fd);
        if (ret < 0) {
            QVL_ERR("fd to handle fail, fd:%u, ret:%d.\n", static_cast<unsigned>(dmabuf_fd), ret);
        } else if ((ret = CloseGemHandle(output->m_drm_fd, prime.handle)) < 0) {
            QVL_ERR("close fail, handle:%u, ret:%d.\n", prime.handle, ret);
        } else {
            QVL_TRACE("close dma_buf fd:%d, handle:%u\n", dmabuf_fd, prime.handle);
        }
        dmabuf_fd = -1;
    }
}

bool converter_init(quarvel_video_output_s* output) {
    QVL_TRACE("converter init\n");
    output->m_de_fd = open(kConverterPath, O_RDWR);
    if (output->m_de_fd < 0) {
        QVL_ERR("open converter failed.\n");
        return false;
    }
    QVL_TRACE("open converter, fd:%d.\n", output->m_de_fd);

    converter_retval status;
    const int ret = SendConverterStatusRequest(output->m_de_fd, CONVERTER_IOCTL_INIT, &status);
    if (ret < 0 || status.u32Retval != 0)
        QVL_ERR("init converter failed, ret:%d, u32Retval:%u.\n", ret, status.u32Retval);
    QVL_TRACE("converter init done\n");
    // A driver status alone is accepted; only a failed request fails.
    return ret >= 0;
}

void converter_deinit(quarvel_video_output_s* output) {
    converter_retval status;
    if (SendConverterStatusRequest(output->m_de_fd, CONVERTER_IOCTL_CLOSE, &status) < 0)
        QVL_ERR("ioctl(CONVERTER_IOCTL_CLOSE) failed: %s\n", strerror(errno));
    close(output->m_de_fd);
    output->m_de_fd = -1;
}
