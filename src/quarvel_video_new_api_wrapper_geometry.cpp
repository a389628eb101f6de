// Frame size and aspect of a decoded picture, and the placement of the main video plane:
// the browser's rectangle, the plane request and the mute that hides the video.
#include <drm.h>
#include <drm_mode.h>
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>

#include "ruvo/wayland_render.h"
#include "ruvo_internal_video.h"
#include "ruvo_log.h"

quarvel_frame_size_s CalculateFrameSizeFromV4L2(v4l2_drm const* frame_info) {
    if (frame_info == nullptr) {
        QVL_ERR("frame_info is null\n");
        return quarvel_frame_size_s{0, 0, 0, 0, 1, 1};
    }
    const v4l2_drm_dec_info& dec = frame_info->u.dec_info;
    const uint32_t w = dec.hres;
    const uint32_t h = dec.vres;

    // Display aspect terms, width over height.
    uint32_t aspect_w = 1;
    uint32_t aspect_h = 1;
    switch (static_cast<uint32_t>(dec.aspectratio)) {
        case V4L2_ASPECTRATIO_TYPE_100_100:
            break;
        case V4L2_ASPECTRATIO_TYPE_300_400:
            aspect_w = 4;
            aspect_h = 3;
            break;
        case V4L2_ASPECTRATIO_TYPE_900_1600:
            aspect_w = 16;
            aspect_h = 9;
            break;
        case V4L2_ASPECTRATIO_TYPE_100_221:
            aspect_w = 221;
            aspect_h = 100;
            break;
        default:
            // Unknown aspect: the first frame's third-plane line size chooses between
            // a display as wide as the coded picture and square samples.
            if (dec.pFrame[0].v_linesize == 0)
                return quarvel_frame_size_s{w, h, w, h, 1, 1};
            break;
    }

    // Sample aspect = (aspect_w / aspect_h) / (w / h).
    unsigned long long num = static_cast<unsigned long long>(h) * aspect_w;
    unsigned long long denom = static_cast<unsigned long long>(w) * aspect_h;
    ReduceFraction(&num, &denom);

    quarvel_frame_size_s size;
    size.w = w;
    size.h = h;
    size.sar_num = static_cast<uint32_t>(num);
    size.sar_denom = static_cast<uint32_t>(denom);
    size.dar_w = size.sar_num * w;  // 32-bit products, wrapping
    size.dar_h = size.sar_denom * h;
    return size;
}

void ReduceFraction(unsigned long long* num, unsigned long long* denom) {
    const unsigned long long a = *num;
    const unsigned long long b = *denom;
    if (b == 0) {
        *num = 1;
        // gcd(a, 0) = a. The zero is hidden from the optimiser so that the division
        // stays a run-time one: 0 / 0 raises SIGFPE as the target's runtime does, instead
        // of being folded to a constant.
        unsigned long long zero = 0;
        __asm__("" : "+r"(zero));
        *denom = zero / a;
        return;
    }
    unsigned long long x = a;
    unsigned long long y = b;
    while (y != 0) {
        const unsigned long long r = x % y;
        x = y;
        y = r;
    }
    *num = a / x;
    *denom = b / x;
}

quarvel_video_output_rect_s ApplyBoxContentMode(quarvel_video_output_rect_s const* rect,
                                                quarvel_frame_size_s const* frame_size) {
    // The content is boxed into the requested rectangle itself; only a rectangle or a
    // content without area is answered with the empty rectangle.
    if (frame_size->w == 0 || frame_size->h == 0 || frame_size->dar_w == 0 || frame_size->dar_h == 0 ||
        rect->w == 0 || rect->h == 0) {
        return quarvel_video_output_rect_s{0, 0, 0, 0, 0, 0};
    }
    return *rect;
}

int quarvel_video_output_set_rect(quarvel_video_output_s* output, quarvel_video_output_rect_s const* rect) {
    QVL_INFO("x(%d) y(%d) w(%u) h(%u) dar_w(%u) dar_h(%u)\n", rect->x, rect->y, rect->w, rect->h, rect->dar_w,
             rect->dar_h);
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    if (rect == nullptr) {
        QVL_ERR("rect is null\n");
        return -9;
    }
    output->m_wanted_rect = *rect;
    if (!output->m_is_ta)
        return ApplyPositioning(output);

    // On-screen-display path: the renderer works in half the browser's coordinates.
    if (output->m_window == nullptr)
        return 0;
    wayland_render_set_geometry(static_cast<window*>(output->m_window), rect->x / 2, rect->y / 2,
                                static_cast<int>(rect->w >> 1), static_cast<int>(rect->h >> 1));
    return 0;
}

int ApplyPositioning(quarvel_video_output_s* output) {
    if (output == nullptr) {
        QVL_ERR("output is null\n");
        return -9;
    }
    const quarvel_frame_meta_t& meta = output->m_frame_meta;
    quarvel_video_output_rect_s& applied = output->m_rect_applied_to_driver;
    quarvel_video_output_rect_s r = ApplyBoxContentMode(&output->m_wanted_rect, &meta);

    if (applied.x == r.x && applied.y == r.y && applied.w == r.w && applied.h == r.h &&
        applied.dar_w == meta.dar_w && applied.dar_h == meta.dar_h) {
        return 0;
    }

    // What was programmed carries the content's aspect, not the rectangle's own.
    auto record = [&]() {
        applied = r;
        applied.dar_w = meta.dar_w;
        applied.dar_h = meta.dar_h;
    };
    const bool shown = applied.w != 0 && applied.h != 0;
    const bool to_show = r.w != 0 && r.h != 0;

    if (!shown) {
        if (!to_show)
            return 0;
        if (SetPlane(output, &r, 0, 0, meta.w, meta.h) < 0) {
            QVL_ERR("SetPlane failed\n");
            return -1;
        }
        record();
        if (!DRMSetUnmute(output, true))
            return -4;
        return 0;
    }

    if (to_show) {
        if (SetPlane(output, &r, 0, 0, meta.w, meta.h) < 0) {
            QVL_ERR("SetPlane failed\n");
            return -1;
        }
        record();
        return 0;
    }

    // Hiding: during a broadcast switch the plane keeps the video until the switch
    // puts the broadcast picture there.
    if (is_ta_switch()) {
        output->m_ta_switch = true;
        QVL_INFO("skip mute for TA switch\n");
        return 0;
    }
    if (!DRMSetUnmute(output, false)) {
        QVL_ERR("mute failed\n");
        return -1;
    }
    record();
    return 0;
}

int SetPlane(quarvel_video_output_s* output, quarvel_video_output_rect_s* rect, unsigned crop_x,
             unsigned crop_y, unsigned crop_w, unsigned crop_h) {
    drm_mode_set_plane plane;
    memset(&plane, 0, sizeof(plane));
    plane.plane_id = static_cast<uint32_t>(output->m_plane_obj_id[output->m_plane_type]);
    plane.crtc_id = output->m_crtc_id;
    plane.fb_id = output->m_drm_buffers[0].fb_handle;
    plane.flags = 0;
    plane.crtc_x = rect->x;
    plane.crtc_y = rect->y;
    plane.crtc_w = rect->w;
    plane.crtc_h = rect->h;
    // Source in 16.16 fixed point; the kernel record keeps src_h before src_w.
    plane.src_x = crop_x << 16;
    plane.src_y = crop_y << 16;
    plane.src_h = crop_h << 16;
    plane.src_w = crop_w << 16;
    if (ioctl(output->m_drm_fd, DRM_IOCTL_MODE_SETPLANE, &plane) < 0) {
        QVL_ERR("ioctl(DRM_IOCTL_MODE_SETPLANE) failed: %s\n", strerror(errno));
        return -3;
    }
    QVL_INFO("Set plane done.crtc_x(%d),crtc_y(%d),crtc_w(%d),s.crtc_h(%d),src_w(%d),src_h(%d)\n", rect->x,
             rect->y, static_cast<int>(rect->w), static_cast<int>(rect->h), static_cast<int>(crop_w),
             static_cast<int>(crop_h));
    return 0;
}
