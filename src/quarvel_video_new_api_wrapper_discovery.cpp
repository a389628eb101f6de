// DRM display discovery (connector, CRTC, panel size, planes), the placeholder scan-out
// buffer, and the DRM descriptor handed out by the board's video HAL.
#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>

#include <drm.h>
#include <drm_fourcc.h>
#include <drm_mode.h>
#include <xf86drmMode.h>

#include "ruvo_internal_video.h"
#include "ruvo_log.h"

namespace {

constexpr uint32_t kFullHdWidth = 1920;
constexpr uint32_t kFullHdHeight = 1080;
constexpr uint32_t kBytesPerPixel = 4;  // the display driver takes bytes, not bits, in bpp
constexpr uint64_t kFirstUnrecordedPlaneType = DRM_SDP_PLANE_DP_SUB2;
constexpr size_t kPlaneTypeNameLength = 10;
constexpr uint32_t kPossibleCrtcBits = 32;

const char kKorbLibrary[] = "/mtd_apexe/board/lib/libKORB3.so";

typedef int (*HAL_FUNC)(int cardID);

// Index of the first CRTC that `possible_crtcs` allows; -1 when none.
int FirstAllowedCrtc(uint32_t possible_crtcs, int count_crtcs) {
    for (int k = 0; k < count_crtcs && static_cast<uint32_t>(k) < kPossibleCrtcBits; ++k) {
        if (possible_crtcs & (1u << k))
            return k;
    }
    return -1;
}

// Takes the CRTC the connector drives now, else the first one its encoders allow.
bool DRMFindCRTC(quarvel_video_output_s* output, const drmModeRes* resources,
                 const drmModeConnector* connector) {
    const int fd = output->m_drm_fd;
    if (connector->encoder_id != 0) {
        drmModeEncoder* encoder = drmModeGetEncoder(fd, connector->encoder_id);
        const uint32_t crtc_id = encoder != nullptr ? encoder->crtc_id : 0;
        drmModeFreeEncoder(encoder);
        if (crtc_id != 0) {
            output->m_crtc_id = crtc_id;
            return true;
        }
    }
    for (int j = 0; j < connector->count_encoders; ++j) {
        const uint32_t encoder_id = connector->encoders[j];
        drmModeEncoder* encoder = drmModeGetEncoder(fd, encoder_id);
        if (encoder == nullptr) {
            QVL_ERR("cannot retrieve encoder %u:%u\n", static_cast<unsigned>(j), encoder_id);
            continue;
        }
        const int k = FirstAllowedCrtc(encoder->possible_crtcs, resources->count_crtcs);
        drmModeFreeEncoder(encoder);
        if (k >= 0) {
            output->m_crtc_id = resources->crtcs[k];
            return true;
        }
    }
    return false;
}

// Looks at one connector; no mode is programmed, the platform owns the display.
bool DRMSetMode(quarvel_video_output_s* output, const drmModeRes* resources,
                const drmModeConnector* connector) {
    output->m_con_id = connector->connector_id;
    if (connector->connection != DRM_MODE_CONNECTED) {
        QVL_ERR("Ignoring unsed connector %u\n", connector->connector_id);
        return false;
    }
    if (connector->count_modes == 0) {
        QVL_ERR("No valid mode for connector %u\n", connector->connector_id);
        return false;
    }
    return DRMFindCRTC(output, resources, connector);
}

// Sends DRM_IOCTL_MODE_CREATE_DUMB for a width x height buffer of 4-byte pixels.
int CreateDumbBuffer(int drm_fd, uint32_t width, uint32_t height, drm_mode_create_dumb* create) {
    memset(create, 0, sizeof(*create));
    create->height = height;
    create->width = width;
    create->bpp = kBytesPerPixel;
    create->flags = 0;
    create->handle = 0;
    create->pitch = 0;
    create->size = static_cast<uint64_t>(width) * height * kBytesPerPixel;
    return ioctl(drm_fd, DRM_IOCTL_MODE_CREATE_DUMB, create);
}

// Registers an XRGB8888 framebuffer on a dumb buffer; the pitch is computed, not the driver's.
int AddFramebuffer(int drm_fd, uint32_t width, uint32_t height, uint32_t bo_handle, uint32_t* fb_id) {
    const uint32_t handles[4] = {bo_handle, 0, 0, 0};
    const uint32_t pitches[4] = {width * kBytesPerPixel, 0, 0, 0};
    const uint32_t offsets[4] = {0, 0, 0, 0};
    return drmModeAddFB2(drm_fd, width, height, DRM_FORMAT_XRGB8888, handles, pitches, offsets, fb_id, 0);
}

bool IsPlaneTypeProperty(const drmModePropertyRes* property) {
    return strncmp(property->name, "plane_type", kPlaneTypeNameLength) == 0;
}

// Looks a HAL entry point up; returns the loader's error text, or null when it was found.
const char* FindHalFunction(void* korb, const char* name, HAL_FUNC* function) {
    *function = reinterpret_cast<HAL_FUNC>(dlsym(korb, name));
    return dlerror();
}

}  // namespace

bool DRMKMSInit(quarvel_video_output_s* output) {
    QVL_TRACE("in\n");
    drmModeRes* resources = drmModeGetResources(output->m_drm_fd);
    if (resources == nullptr) {
        QVL_ERR("Cannot retrieve DRM resources\n");
        return false;
    }
    // Every connector is examined; for each field the last connector that sets it wins.
    for (int i = 0; i < resources->count_connectors; ++i) {
        const uint32_t connector_id = resources->connectors[i];
        drmModeConnector* connector = drmModeGetConnector(output->m_drm_fd, connector_id);
        if (connector == nullptr) {
            QVL_ERR("cannot retrieve DRM connector %u:%u\n", static_cast<unsigned>(i), connector_id);
            continue;
        }
        // The display driver reports the panel resolution in pixels in the mm fields.
        if (connector->mmWidth != 0 && connector->mmHeight != 0) {
            output->m_panel_width = static_cast<int>(connector->mmWidth);
            output->m_panel_height = static_cast<int>(connector->mmHeight);
            QVL_TRACE("drm panel size, [%dx%d]\n", output->m_panel_width, output->m_panel_height);
        }
        if (!DRMSetMode(output, resources, connector))
            QVL_ERR("Can't setup device for connector %u:%u\n", static_cast<unsigned>(i), connector_id);
        drmModeFreeConnector(connector);
    }
    drmModeFreeResources(resources);
    return true;
}

bool CreateDRMDummyBuffer(quarvel_video_output_s* output, int index) {
    QVL_TRACE("in\n");
    uint32_t width = static_cast<uint32_t>(output->m_panel_width);
    uint32_t height = static_cast<uint32_t>(output->m_panel_height);
    if (width * height < kFullHdWidth * kFullHdHeight) {
        width = kFullHdWidth;
        height = kFullHdHeight;
        QVL_INFO("HD panel,set fb buffer size to 1920x1080\n\n");
    }

    drm_mode_create_dumb create;
    if (CreateDumbBuffer(output->m_drm_fd, width, height, &create) < 0) {
        QVL_ERR("ioctl(DRM_IOCTL_MODE_CREATE_DUMB) failed: %s\n", strerror(errno));
        return false;
    }
    DRMBuffer& buffer = output->m_drm_buffers[index];
    buffer.bo_handle = create.handle;
    buffer.stride = create.pitch;
    buffer.size = static_cast<uint32_t>(create.size);

    // On failure the dumb buffer is left to the driver's clean-up at close of the descriptor.
    const int added = AddFramebuffer(output->m_drm_fd, width, height, buffer.bo_handle, &buffer.fb_handle);
    QVL_INFO("drm_fd(%d),fb_id(%d),width(%d),height(%d)\n\n", output->m_drm_fd,
             static_cast<int>(buffer.fb_handle), static_cast<int>(width), static_cast<int>(height));
    if (added != 0) {
        QVL_ERR("drmModeAddFB2 failed\n");
        return false;
    }
    return true;
}

bool DRMFindPlane(quarvel_video_output_s* output) {
    QVL_TRACE("in\n");
    const int fd = output->m_drm_fd;
    drmModePlaneRes* planes = drmModeGetPlaneResources(fd);
    if (planes == nullptr) {
        QVL_ERR("drmModeGetPlaneResources failed\n");
        return false;
    }
    for (uint32_t i = 0; i < planes->count_planes; ++i) {
        drmModePlane* plane = drmModeGetPlane(fd, planes->planes[i]);
        if (plane == nullptr) {
            QVL_ERR("drmModeGetPlane failed\n");
            drmModeFreePlaneResources(planes);
            return false;
        }
        if (plane->count_formats == 0) {
            drmModeFreePlane(plane);
            continue;
        }
        drmModeObjectProperties* props =
            drmModeObjectGetProperties(fd, plane->plane_id, DRM_MODE_OBJECT_PLANE);
        if (props == nullptr) {
            drmModeFreePlane(plane);
            continue;
        }
        for (uint32_t j = 0; j < props->count_props; ++j) {
            drmModePropertyRes* property = drmModeGetProperty(fd, props->props[j]);
            if (property == nullptr) {
                drmModeFreeObjectProperties(props);
                drmModeFreePlane(plane);
                drmModeFreePlaneResources(planes);
                return false;
            }
            if (IsPlaneTypeProperty(property)) {
                const uint64_t type = props->prop_values[j];
                // Types from DP_SUB2 on are not recorded, although the table has room for them.
                if (type < kFirstUnrecordedPlaneType) {
                    output->m_plane_obj_id[type] = static_cast<int>(plane->plane_id);
                    QVL_TRACE("plane_obj_id[%llu] = %d\n", static_cast<unsigned long long>(type),
                              static_cast<int>(plane->plane_id));
                } else {
                    QVL_TRACE("Invalid Plane property props->prop_values[%d] = %lld\n", static_cast<int>(j),
                              static_cast<long long>(type));
                }
            }
            drmModeFreeProperty(property);
        }
        drmModeFreeObjectProperties(props);
        drmModeFreePlane(plane);
    }
    drmModeFreePlaneResources(planes);
    return true;
}

int get_drm_fd_from_korb(int cardID, int* drmFd) {
    // 0 means "none yet": a HAL that hands out descriptor 0 is asked again next time.
    static int drm_fd = 0;
    int ret = -1;
    if (drm_fd != 0) {
        QVL_INFO("has got drm_fd from korb\n");
        ret = 0;
    } else if (void* korb = dlopen(kKorbLibrary, RTLD_LAZY)) {
        dlerror();
        HAL_FUNC hal_drm_init = nullptr;
        HAL_FUNC hal_get_drm_device_id = nullptr;
        if (const char* init_error = FindHalFunction(korb, "Hal_Video_DrmInit", &hal_drm_init)) {
            QVL_ERR("dlsym Hal_Video_DrmInit fail stderr:%s\n\n", init_error);
        } else if (hal_drm_init(cardID) < 0) {
            QVL_ERR("Hal_Video_DrmInit failn\n");
        } else if (const char* get_error =
                       FindHalFunction(korb, "Hal_Video_Get_DrmDeviceId", &hal_get_drm_device_id)) {
            QVL_ERR("dlsym Hal_Video_Get_DrmDeviceId fail stderr:%s\n\n", get_error);
        } else {
            drm_fd = hal_get_drm_device_id(cardID);
            if (drm_fd == -1) {
                drm_fd = 0;
                QVL_ERR("Hal_Video_Get_DrmDeviceId failn\n");
            } else {
                ret = 0;
            }
        }
        // The descriptor stays valid in the process after the library is unloaded.
        dlclose(korb);
    } else {
        QVL_ERR("handle is NULL\n");
    }
    QVL_TRACE("get cardID:%d, drm_fd:%d, ret:%d\n", cardID, drm_fd, ret);
    *drmFd = drm_fd;
    return ret;
}
