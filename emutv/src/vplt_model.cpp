// Video-platform device model: the FR2IP commands, arguments read through their pointers.
#include <errno.h>
#include <string.h>

#include "core.h"
#include "timeline_internal.h"
#include "ruvo/driver/v4l2_drm.h"
#include "ruvo/driver/vplt_ioctl.h"

namespace emutv {

namespace {

// Bytes behind arg1..arg7 for each command the library sends.
std::array<size_t, 7> arg_sizes(int32_t cmd) {
    switch (cmd) {
        case EN_VPLT_IOC_FR2IP_SetDispQueueSize:
            return {1, 4, 0, 0, 0, 0, 0};
        case EN_VPLT_IOC_FR2IP_SetNextResolution:
            return {1, sizeof(next_resolution), sizeof(v4l2_drm), 0, 0, 0, 0};
        case EN_VPLT_IOC_FR2IP_GetVsyncHZ:
            return {1, 4, 0, 0, 0, 0, 0};
        case EN_VPLT_IOC_FR2IP_GetOffsetFromVsync:
            return {1, sizeof(vplt_vsync_offset), 0, 0, 0, 0, 0};
        case EN_VPLT_IOC_FR2IP_GetDirectlyFrames:
            return {1, 8, 0, 0, 0, 0, 0};
        case EN_VPLT_IOC_FR2IP_SetPTS:
            return {1, 4, 4, 0, 0, 0, 0};
        default:
            return {0, 0, 0, 0, 0, 0, 0};
    }
}

void capture(const ST_VPLT_IOC_CMD& c, Event& ev) {
    void* const args[7] = {c.arg1, c.arg2, c.arg3, c.arg4, c.arg5, c.arg6, c.arg7};
    auto sizes = arg_sizes(c.enCmd);
    ev.args.assign(8, {});
    for (int i = 0; i < 7; ++i) {
        if (args[i] && sizes[i]) {
            auto* p = static_cast<const uint8_t*>(args[i]);
            ev.args[i].assign(p, p + sizes[i]);
        }
    }
    if (c.ret) {
        auto* p = static_cast<const uint8_t*>(c.ret);
        ev.args[7].assign(p, p + 4);
    }
}

// In real time the vsync offset and the frames in use come from the clock.
bool real_time() {
    return detail::timeline().mode == ClockMode::Real;
}

template <typename T>
T read_arg(void* p) {
    T v{};
    if (p)
        memcpy(&v, p, sizeof(T));
    return v;
}

}  // namespace

// The defaults are the members' initializers (emutv/models.h).
void VpltModel::reset() {
    *this = VpltModel();
}

const char* VpltModel::request_literal(unsigned long req, const void* arg) const {
    if (req != VPLT_IOC_CMD || arg == nullptr)
        return "VPLT_IOCTL";
    switch (static_cast<const ST_VPLT_IOC_CMD*>(arg)->enCmd) {
        case EN_VPLT_IOC_FR2IP_SetDispQueueSize:
            return "FR2IP_SetDispQueueSize";
        case EN_VPLT_IOC_FR2IP_SetNextResolution:
            return "FR2IP_SetNextResolution";
        case EN_VPLT_IOC_FR2IP_GetVsyncHZ:
            return "FR2IP_GetVsyncHZ";
        case EN_VPLT_IOC_FR2IP_GetOffsetFromVsync:
            return "FR2IP_GetOffsetFromVsync";
        case EN_VPLT_IOC_FR2IP_GetDirectlyFrames:
            return "FR2IP_GetDirectlyFrames";
        case EN_VPLT_IOC_FR2IP_SetPTS:
            return "FR2IP_SetPTS";
        default:
            return nullptr;
    }
}

std::string VpltModel::request_name(unsigned long req, const void* arg) const {
    if (const char* name = request_literal(req, arg))
        return name;
    return "VPLT_CMD_" + std::to_string(static_cast<const ST_VPLT_IOC_CMD*>(arg)->enCmd);
}

long VpltModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    if (req != VPLT_IOC_CMD) {
        *err = ENOTTY;
        return -1;
    }
    if (arg == nullptr) {
        *err = EFAULT;
        return -1;
    }
    auto& c = *static_cast<ST_VPLT_IOC_CMD*>(arg);
    auto& f = ev.fields;
    f["cmd"] = c.enCmd;
    if (c.arg1)
        f["plane_id"] = read_arg<uint8_t>(c.arg1);
    int32_t ret = 0;
    switch (c.enCmd) {
        case EN_VPLT_IOC_FR2IP_SetDispQueueSize:
            queue_size = read_arg<int32_t>(c.arg2);
            f["queue_size"] = queue_size;
            break;
        case EN_VPLT_IOC_FR2IP_SetNextResolution: {
            auto nr = read_arg<next_resolution>(c.arg2);
            f["decoder_info"] = static_cast<long long>(nr.decoder_info);
            f["crop_x"] = nr.crop_x;
            f["crop_y"] = nr.crop_y;
            f["crop_w"] = nr.crop_w;
            f["crop_h"] = nr.crop_h;
            f["disp_x"] = nr.disp_x;
            f["disp_y"] = nr.disp_y;
            f["disp_w"] = nr.disp_w;
            f["disp_h"] = nr.disp_h;
            if (c.arg3) {
                auto d = read_arg<v4l2_drm>(c.arg3);
                f["frame_hres"] = d.u.dec_info.hres;
                f["frame_vres"] = d.u.dec_info.vres;
            }
            break;
        }
        case EN_VPLT_IOC_FR2IP_GetVsyncHZ:
            if (c.arg2)
                memcpy(c.arg2, &vsync_hz, 4);
            f["vsync_fps"] = vsync_hz;
            ret = vsync_hz_ret;
            break;
        case EN_VPLT_IOC_FR2IP_GetOffsetFromVsync: {
            vplt_vsync_offset o{offset_sec, offset_nsec};
            if (real_time())
                detail::vsync_offset_now(&o.tv_sec, &o.tv_nsec);
            if (c.arg2)
                memcpy(c.arg2, &o, sizeof(o));
            f["tv_sec"] = o.tv_sec;
            f["tv_nsec"] = o.tv_nsec;
            ret = offset_ret;
            break;
        }
        case EN_VPLT_IOC_FR2IP_GetDirectlyFrames: {
            int32_t used[2] = {frames[0], frames[1]};
            if (real_time()) {
                used[0] = detail::frames_not_latched();
                used[1] = 0;
            }
            if (c.arg2)
                memcpy(c.arg2, used, sizeof(used));
            f["frames0"] = used[0];
            f["frames1"] = used[1];
            break;
        }
        case EN_VPLT_IOC_FR2IP_SetPTS: {
            int32_t h = read_arg<int32_t>(c.arg2), l = read_arg<int32_t>(c.arg3);
            f["pts_h"] = static_cast<uint32_t>(h);
            f["pts_l"] = static_cast<uint32_t>(l);
            last_pts = static_cast<int64_t>((static_cast<uint64_t>(static_cast<uint32_t>(h)) << 32) |
                                            static_cast<uint32_t>(l));
            break;
        }
        default:
            *err = EINVAL;
            capture(c, ev);
            return -1;
    }
    if (c.ret)
        memcpy(c.ret, &ret, 4);
    f["ret"] = ret;
    capture(c, ev);
    return 0;
}

void VpltModel::apply_status(unsigned long, void* arg, int32_t status) {
    auto* c = static_cast<ST_VPLT_IOC_CMD*>(arg);
    if (c && c->ret)
        memcpy(c->ret, &status, 4);
}

}  // namespace emutv
