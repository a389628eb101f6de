// Video output handle: open, close, the panel size and the common release tail.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <drm.h>
#include <drm_mode.h>

#include "ruvo/wayland_render.h"
#include "ruvo_internal_video.h"
#include "ruvo_log.h"

// Library-wide instance that comes with the declaration of DRMBuffer; all buffer state
// lives in the handles.
RUVO_INTERNAL DRMBuffer m_drm_buffers;

namespace {

const char* const kVpltPaths[] = {"/dev/qvl/qvkvplt", "/dev/qvkvplt", "/tmp/qvkvplt"};
const char* const kDolbyPaths[] = {"/dev/kdolby", "/dev/qvl/kdolby", "/tmp/kdolby"};
const char kDrmCardPath[] = "/dev/dri/card0";

constexpr int kNoSourceSent = V4L2_DRM_INPUTPORT_TYPE_MAX;
constexpr int kDefaultPanelWidth = 3840;
constexpr int kDefaultPanelHeight = 2160;
constexpr int kGemPairs = 3;
constexpr int kGemLumaSize = 0x21C000;    // 2048 x 1080
constexpr int kGemChromaSize = 0x10E000;  // 2048 x 540
constexpr int kQueueSizeOfBroadcast = 3;

// Opens the first of `paths` that opens; -1 when none does.
template <size_t N>
int OpenFirstOf(const char* const (&paths)[N]) {
    for (const char* path : paths) {
        int fd = open(path, O_RDWR);
        if (fd >= 0)
            return fd;
    }
    return -1;
}

quarvel_video_output_s* NewHandle() {
    quarvel_video_output_s* output = new quarvel_video_output_s();
    output->m_valio_fd = -1;
    output->m_dolby_fd = -1;
    output->m_drm_fd = -1;
    output->m_dv_profile = -1;
    output->pre_source = kNoSourceSent;
    output->m_opened = false;
    output->m_first_frame_initialized = false;
    output->m_queue_size_set = false;
    output->m_ta_switch = false;
    output->m_is_ta = false;
    output->m_num_buffers = 0;
    output->m_crtc_id = 0;
    output->m_con_id = 0;
    output->m_plane_type = 0;
    output->m_panel_width = 0;
    output->m_panel_height = 0;
    output->m_frame_meta = quarvel_frame_size_s{0, 0, 0, 0, 1, 1};
    output->m_wanted_rect = quarvel_video_output_rect_s{};
    output->m_rect_applied_to_driver = quarvel_video_output_rect_s{};
    return output;
}

void ClearOsdState(quarvel_video_output_s* output) {
    output->m_window = nullptr;
    output->m_is_ta = false;
    output->m_de_fd = -1;
    output->m_gem_buf_idx = -1;
}

void ClearDisplayObjects(quarvel_video_output_s* output) {
    output->m_plane_type = DRM_SDP_PLANE_DP_MAIN;
    output->m_drm_buffers[0] = DRMBuffer{};
    for (int& plane : output->m_plane_obj_id)
        plane = 0;
}

// Connector, CRTC and panel size, the placeholder scan-out buffers and the planes.
bool DiscoverDisplay(quarvel_video_output_s* output) {
    if (!DRMKMSInit(output))
        return false;
    output->m_num_buffers = kDRMBufferNumber;
    for (int i = 0; i < output->m_num_buffers; ++i) {
        if (!CreateDRMDummyBuffer(output, i))
            return false;
    }
    return DRMFindPlane(output);
}

quarvel_video_output_s* AbandonOpen(quarvel_video_output_s* output) {
    CloseDevice(output);
    return nullptr;
}

// Leaves the on-screen-display mode: renderer, hardware frame buffers, converter.
void LeaveTaMode(quarvel_video_output_s* output) {
    wayland_render_deinit(static_cast<window*>(output->m_window));
    if (output->m_gem_buf_idx >= 0) {
        gem_free(output);
        output->m_gem_buf_idx = -1;
    }
    if (output->m_de_fd >= 0)
        converter_deinit(output);
    output->m_is_ta = false;
}

int RemoveFramebuffer(int drm_fd, uint32_t fb_id) {
    return ioctl(drm_fd, DRM_IOCTL_MODE_RMFB, &fb_id);
}

int DestroyDumbBuffer(int drm_fd, uint32_t handle) {
    drm_mode_destroy_dumb destroy;
    memset(&destroy, 0, sizeof(destroy));
    destroy.handle = handle;
    return ioctl(drm_fd, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
}

// True when the DRM descriptor came from "/dev/dri/card0" rather than from the board HAL.
bool DrmDescriptorIsOurs() {
    int scratch = 0;
    return get_drm_fd_from_korb(0, &scratch) == -1;
}

}  // namespace

quarvel_video_output_s* quarvel_video_output_open(bool /*bTaCase*/) {
    quarvel_video_output_s* output = NewHandle();
    ruvo_interface_debug_init();
    QVL_INFO("in\n");
    ClearOsdState(output);

    output->m_valio_fd = OpenFirstOf(kVpltPaths);
    if (output->m_valio_fd < 0) {
        QVL_ERR("Failed valio init\n");
        return AbandonOpen(output);
    }
    output->m_dolby_fd = OpenFirstOf(kDolbyPaths);
    if (output->m_dolby_fd < 0) {
        QVL_ERR("Failed dolby init\n");
        return AbandonOpen(output);
    }
    ClearDisplayObjects(output);

    if (get_drm_fd_from_korb(0, &output->m_drm_fd) != 0) {
        output->m_drm_fd = open(kDrmCardPath, O_RDWR | O_NONBLOCK);
        if (output->m_drm_fd >= 0)
            QVL_TRACE("succeed to get drm fd from korb\n");
    }
    if (output->m_drm_fd < 0) {
        QVL_ERR("Render drm open device Fail: %s\n", strerror(errno));
        return AbandonOpen(output);
    }

    output->m_panel_width = kDefaultPanelWidth;
    output->m_panel_height = kDefaultPanelHeight;
    if (!DiscoverDisplay(output))
        return AbandonOpen(output);

    if (output->m_is_ta) {
        QVL_TRACE("alloc gem buffer\n");
        for (int pair = 0; pair < kGemPairs; ++pair) {
            int& luma = output->m_gem_buf[2 * pair];
            int& chroma = output->m_gem_buf[2 * pair + 1];
            luma = gem_hw_alloc(output->m_drm_fd, kGemLumaSize, pair, true);
            chroma = gem_hw_alloc(output->m_drm_fd, kGemChromaSize, pair, false);
            if (luma < 0 || chroma < 0) {
                QVL_ERR("gem alloc failed, m_gem_buf:%d, %d.\n\n", luma, chroma);
                return AbandonOpen(output);
            }
            QVL_TRACE("gem alloc succeeded, m_gem_buf:%d, %d.\n\n", luma, chroma);
        }
        output->m_gem_buf_idx = 0;
        QVL_TRACE("alloc gem buffer done\n");
        if (!converter_init(output))
            return AbandonOpen(output);
    }

    output->m_opened = true;
    return output;
}

void quarvel_video_output_close(quarvel_video_output_s* output) {
    QVL_INFO("in\n");
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return;
    }
    if (output->m_is_ta)
        LeaveTaMode(output);
    if (output->m_drm_fd >= 0) {
        // Only buffer 0 is released, whatever m_num_buffers says.
        const DRMBuffer& buffer = output->m_drm_buffers[0];
        if (RemoveFramebuffer(output->m_drm_fd, buffer.fb_handle) < 0)
            QVL_ERR("ioctl(DRM_IOCTL_MODE_RMFB) failed: %s\n", strerror(errno));
        if (DestroyDumbBuffer(output->m_drm_fd, buffer.bo_handle) < 0)
            QVL_ERR("ioctl(DRM_IOCTL_MODE_DESTROY_DUMB) failed: %s\n", strerror(errno));
    }
    CloseDevice(output);
}

void quarvel_video_output_get_panel_size(const quarvel_video_output_s* output, int* width, int* height) {
    *width = output->m_panel_width;
    *height = output->m_panel_height;
    QVL_INFO("w(%d) h(%d)\n", *width, *height);
}

void CloseDevice(quarvel_video_output_s* output) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return;
    }
    QVL_TRACE("in\n");
    if (output->m_valio_fd >= 0 && output->m_queue_size_set)
        fr2ip_set_queue_size(output->m_valio_fd, kQueueSizeOfBroadcast);
    output->m_queue_size_set = false;
    // A descriptor handed out by the board HAL stays open: the HAL owns it.
    if (output->m_drm_fd >= 0 && DrmDescriptorIsOurs()) {
        close(output->m_drm_fd);
        output->m_drm_fd = -1;
    }
    if (output->m_dolby_fd >= 0) {
        close(output->m_dolby_fd);
        output->m_dolby_fd = -1;
    }
    if (output->m_valio_fd >= 0)
        close(output->m_valio_fd);
    delete output;
}
