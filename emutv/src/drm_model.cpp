// DRM device model: mode-setting objects answered with the kernel's own records, dumb
// buffers, framebuffers, planes, PRIME and the chip's private requests.
#include <errno.h>
#include <string.h>

#include <drm.h>
#include <drm_mode.h>

#include <algorithm>

#include "core.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/v4l2_drm.h"

namespace emutv {

namespace {

constexpr uint32_t kPropType = 10;
constexpr uint32_t kPropPlaneType = 11;

template <typename T>
void copy_array(uint64_t user_ptr, uint32_t user_count, const std::vector<T>& values) {
    if (user_ptr != 0 && user_count >= values.size() && !values.empty())
        memcpy(reinterpret_cast<void*>(static_cast<uintptr_t>(user_ptr)), values.data(),
               values.size() * sizeof(T));
}

DrmPlane make_plane(uint32_t id, uint64_t type) {
    DrmPlane p;
    p.id = id;
    p.props = {{"type", type == DRM_SDP_PLANE_DP_MAIN ? 0u : 1u}, {"plane_type", type}};
    return p;
}

}  // namespace

void DrmModel::reset() {
    crtcs = {42};
    connectors.clear();
    DrmConnector c;
    c.id = 40;
    c.encoder_id = 41;
    c.encoders = {41};
    connectors.push_back(c);
    encoders = {DrmEncoder{41, 42, 0x1}};
    planes = {make_plane(31, DRM_SDP_PLANE_OSDP), make_plane(32, DRM_SDP_PLANE_GP),
              make_plane(35, DRM_SDP_PLANE_DP_MAIN), make_plane(36, DRM_SDP_PLANE_DP_SUB)};
    gem_size_delta = 0;
    plane_state.clear();
    muted.clear();
    source_port.clear();
    dumb_handles.clear();
    framebuffers.clear();
    gem_handles.clear();
    next_handle = 100;
    next_fb = 200;
    dmabuf_handle.clear();
    gem_size.clear();
}

const char* DrmModel::request_literal(unsigned long req, const void*) const {
    switch (req) {
        case DRM_IOCTL_MODE_GETRESOURCES:
            return "DRM_IOCTL_MODE_GETRESOURCES";
        case DRM_IOCTL_MODE_GETCONNECTOR:
            return "DRM_IOCTL_MODE_GETCONNECTOR";
        case DRM_IOCTL_MODE_GETENCODER:
            return "DRM_IOCTL_MODE_GETENCODER";
        case DRM_IOCTL_MODE_GETPLANERESOURCES:
            return "DRM_IOCTL_MODE_GETPLANERESOURCES";
        case DRM_IOCTL_MODE_GETPLANE:
            return "DRM_IOCTL_MODE_GETPLANE";
        case DRM_IOCTL_MODE_OBJ_GETPROPERTIES:
            return "DRM_IOCTL_MODE_OBJ_GETPROPERTIES";
        case DRM_IOCTL_MODE_GETPROPERTY:
            return "DRM_IOCTL_MODE_GETPROPERTY";
        case DRM_IOCTL_MODE_CREATE_DUMB:
            return "DRM_IOCTL_MODE_CREATE_DUMB";
        case DRM_IOCTL_MODE_DESTROY_DUMB:
            return "DRM_IOCTL_MODE_DESTROY_DUMB";
        case DRM_IOCTL_MODE_ADDFB2:
            return "DRM_IOCTL_MODE_ADDFB2";
        case DRM_IOCTL_MODE_RMFB:
            return "DRM_IOCTL_MODE_RMFB";
        case DRM_IOCTL_MODE_SETPLANE:
            return "DRM_IOCTL_MODE_SETPLANE";
        case DRM_IOCTL_PRIME_HANDLE_TO_FD:
            return "DRM_IOCTL_PRIME_HANDLE_TO_FD";
        case DRM_IOCTL_PRIME_FD_TO_HANDLE:
            return "DRM_IOCTL_PRIME_FD_TO_HANDLE";
        case DRM_IOCTL_GEM_CLOSE:
            return "DRM_IOCTL_GEM_CLOSE";
        case DRM_IOCTL_SDP_GEM_HW_CREATE:
            return "DRM_IOCTL_SDP_GEM_HW_CREATE";
        case DRM_IOCTL_SDP_SET_DP_SOURCE:
            return "DRM_IOCTL_SDP_SET_DP_SOURCE";
        case DRM_IOCTL_SDP_SET_ONOFF:
            return "DRM_IOCTL_SDP_SET_ONOFF";
        default:
            return nullptr;
    }
}

std::string DrmModel::request_name(unsigned long req, const void* arg) const {
    if (const char* name = request_literal(req, arg))
        return name;
    char buf[32];
    snprintf(buf, sizeof(buf), "DRM_IOCTL_0x%08lx", req);
    return buf;
}

long DrmModel::ioctl(int, unsigned long req, void* arg, Event& ev, int* err) {
    auto fail = [err](int e) {
        *err = e;
        return -1L;
    };
    if (arg == nullptr)
        return fail(EFAULT);
    auto& f = ev.fields;
    switch (req) {
        case DRM_IOCTL_MODE_GETRESOURCES: {
            auto* r = static_cast<drm_mode_card_res*>(arg);
            std::vector<uint32_t> fbs(framebuffers.begin(), framebuffers.end());
            std::vector<uint32_t> conns, encs;
            for (auto& c : connectors)
                conns.push_back(c.id);
            for (auto& e : encoders)
                encs.push_back(e.id);
            copy_array(r->fb_id_ptr, r->count_fbs, fbs);
            copy_array(r->crtc_id_ptr, r->count_crtcs, crtcs);
            copy_array(r->connector_id_ptr, r->count_connectors, conns);
            copy_array(r->encoder_id_ptr, r->count_encoders, encs);
            r->count_fbs = fbs.size();
            r->count_crtcs = crtcs.size();
            r->count_connectors = conns.size();
            r->count_encoders = encs.size();
            r->min_width = r->min_height = 0;
            r->max_width = 8192;
            r->max_height = 8192;
            f["count_connectors"] = conns.size();
            f["count_crtcs"] = crtcs.size();
            return 0;
        }
        case DRM_IOCTL_MODE_GETCONNECTOR: {
            auto* c = static_cast<drm_mode_get_connector*>(arg);
            f["connector_id"] = c->connector_id;
            const DrmConnector* con = nullptr;
            for (auto& x : connectors)
                if (x.id == c->connector_id)
                    con = &x;
            if (!con)
                return fail(ENOENT);
            std::vector<drm_mode_modeinfo> modes(con->count_modes);
            for (auto& m : modes) {
                memset(&m, 0, sizeof(m));
                m.hdisplay = con->mm_width ? con->mm_width : 1920;
                m.vdisplay = con->mm_height ? con->mm_height : 1080;
                m.vrefresh = 60;
                snprintf(m.name, sizeof(m.name), "%ux%u", m.hdisplay, m.vdisplay);
            }
            copy_array(c->modes_ptr, c->count_modes, modes);
            copy_array(c->encoders_ptr, c->count_encoders, con->encoders);
            c->count_modes = modes.size();
            c->count_encoders = con->encoders.size();
            c->count_props = 0;
            c->encoder_id = con->encoder_id;
            c->connector_type = DRM_MODE_CONNECTOR_LVDS;
            c->connector_type_id = 1;
            c->connection = con->connection;
            c->mm_width = con->mm_width;
            c->mm_height = con->mm_height;
            c->subpixel = 0;
            f["connection"] = con->connection;
            f["mm_width"] = con->mm_width;
            f["mm_height"] = con->mm_height;
            return 0;
        }
        case DRM_IOCTL_MODE_GETENCODER: {
            auto* e = static_cast<drm_mode_get_encoder*>(arg);
            f["encoder_id"] = e->encoder_id;
            for (auto& x : encoders) {
                if (x.id != e->encoder_id)
                    continue;
                e->encoder_type = DRM_MODE_ENCODER_LVDS;
                e->crtc_id = x.crtc_id;
                e->possible_crtcs = x.possible_crtcs;
                e->possible_clones = 0;
                f["crtc_id"] = x.crtc_id;
                f["possible_crtcs"] = x.possible_crtcs;
                return 0;
            }
            return fail(ENOENT);
        }
        case DRM_IOCTL_MODE_GETPLANERESOURCES: {
            auto* r = static_cast<drm_mode_get_plane_res*>(arg);
            std::vector<uint32_t> ids;
            for (auto& p : planes)
                ids.push_back(p.id);
            copy_array(r->plane_id_ptr, r->count_planes, ids);
            r->count_planes = ids.size();
            f["count_planes"] = ids.size();
            return 0;
        }
        case DRM_IOCTL_MODE_GETPLANE: {
            auto* p = static_cast<drm_mode_get_plane*>(arg);
            f["plane_id"] = p->plane_id;
            for (auto& x : planes) {
                if (x.id != p->plane_id)
                    continue;
                std::vector<uint32_t> formats(x.count_formats, 0x3231564E /* NV12 */);
                copy_array(p->format_type_ptr, p->count_format_types, formats);
                p->count_format_types = formats.size();
                p->crtc_id = plane_state[x.id].set ? plane_state[x.id].crtc_id : 0;
                p->fb_id = plane_state[x.id].set ? plane_state[x.id].fb_id : 0;
                p->possible_crtcs = 1;
                p->gamma_size = 0;
                return 0;
            }
            return fail(ENOENT);
        }
        case DRM_IOCTL_MODE_OBJ_GETPROPERTIES: {
            auto* o = static_cast<drm_mode_obj_get_properties*>(arg);
            f["obj_id"] = o->obj_id;
            f["obj_type"] = o->obj_type;
            for (auto& x : planes) {
                if (x.id != o->obj_id || o->obj_type != DRM_MODE_OBJECT_PLANE)
                    continue;
                std::vector<uint32_t> ids;
                std::vector<uint64_t> values;
                for (size_t i = 0; i < x.props.size(); ++i) {
                    ids.push_back(x.props[i].name == "type" ? kPropType
                                  : x.props[i].name == "plane_type"
                                      ? kPropPlaneType
                                      : 20 + static_cast<uint32_t>(i) * 100 + x.id);
                    values.push_back(x.props[i].value);
                }
                copy_array(o->props_ptr, o->count_props, ids);
                copy_array(o->prop_values_ptr, o->count_props, values);
                o->count_props = ids.size();
                return 0;
            }
            return fail(ENOENT);
        }
        case DRM_IOCTL_MODE_GETPROPERTY: {
            auto* p = static_cast<drm_mode_get_property*>(arg);
            f["prop_id"] = p->prop_id;
            std::string name;
            if (p->prop_id == kPropType)
                name = "type";
            if (p->prop_id == kPropPlaneType)
                name = "plane_type";
            for (auto& x : planes)
                for (size_t i = 0; i < x.props.size(); ++i)
                    if (p->prop_id == 20 + i * 100 + x.id)
                        name = x.props[i].name;
            if (name.empty())
                return fail(ENOENT);
            memset(p->name, 0, sizeof(p->name));
            strncpy(p->name, name.c_str(), sizeof(p->name) - 1);
            p->flags = DRM_MODE_PROP_RANGE | DRM_MODE_PROP_IMMUTABLE;
            p->count_values = 0;
            p->count_enum_blobs = 0;
            return 0;
        }
        case DRM_IOCTL_MODE_CREATE_DUMB: {
            auto* d = static_cast<drm_mode_create_dumb*>(arg);
            f["width"] = d->width;
            f["height"] = d->height;
            f["bpp"] = d->bpp;
            // This driver takes bpp as bytes per pixel.
            d->handle = next_handle++;
            d->pitch = d->width * d->bpp;
            d->size = static_cast<uint64_t>(d->pitch) * d->height;
            dumb_handles.insert(d->handle);
            f["handle"] = d->handle;
            f["pitch"] = d->pitch;
            f["size"] = static_cast<long long>(d->size);
            return 0;
        }
        case DRM_IOCTL_MODE_DESTROY_DUMB: {
            auto* d = static_cast<drm_mode_destroy_dumb*>(arg);
            f["handle"] = d->handle;
            if (!dumb_handles.erase(d->handle))
                return fail(ENOENT);
            return 0;
        }
        case DRM_IOCTL_MODE_ADDFB2: {
            auto* c = static_cast<drm_mode_fb_cmd2*>(arg);
            f["width"] = c->width;
            f["height"] = c->height;
            f["pixel_format"] = c->pixel_format;
            f["handle0"] = c->handles[0];
            f["pitch0"] = c->pitches[0];
            if (!dumb_handles.count(c->handles[0]))
                return fail(ENOENT);
            c->fb_id = next_fb++;
            framebuffers.insert(c->fb_id);
            f["fb_id"] = c->fb_id;
            return 0;
        }
        case DRM_IOCTL_MODE_RMFB: {
            uint32_t id = *static_cast<uint32_t*>(arg);
            f["fb_id"] = id;
            if (!framebuffers.erase(id))
                return fail(ENOENT);
            return 0;
        }
        case DRM_IOCTL_MODE_SETPLANE: {
            auto* s = static_cast<drm_mode_set_plane*>(arg);
            f.add("plane_id", s->plane_id);
            f.add("crtc_id", s->crtc_id);
            f.add("fb_id", s->fb_id);
            f.add("flags", s->flags);
            f.add("crtc_x", s->crtc_x);
            f.add("crtc_y", s->crtc_y);
            f.add("crtc_w", s->crtc_w);
            f.add("crtc_h", s->crtc_h);
            f.add("src_x", s->src_x);
            f.add("src_y", s->src_y);
            f.add("src_w", s->src_w);
            f.add("src_h", s->src_h);
            const bool known =
                std::any_of(planes.begin(), planes.end(), [s](const auto& x) { return x.id == s->plane_id; });
            if (!known)
                return fail(ENOENT);
            PlaneState& st = plane_state[s->plane_id];
            st.set = true;
            st.crtc_id = s->crtc_id;
            st.fb_id = s->fb_id;
            st.crtc_x = s->crtc_x;
            st.crtc_y = s->crtc_y;
            st.crtc_w = s->crtc_w;
            st.crtc_h = s->crtc_h;
            st.src_x = s->src_x;
            st.src_y = s->src_y;
            st.src_w = s->src_w;
            st.src_h = s->src_h;
            return 0;
        }
        case DRM_IOCTL_PRIME_HANDLE_TO_FD: {
            auto* p = static_cast<drm_prime_handle*>(arg);
            f["handle"] = p->handle;
            if (!gem_handles.count(p->handle))
                return fail(ENOENT);
            int fd = detail::core().create_fd(Device::Dmabuf, "dmabuf:" + std::to_string(p->handle));
            if (fd < 0)
                return fail(EMFILE);
            dmabuf_handle[fd] = p->handle;
            p->fd = fd;
            f["fd"] = fd;
            return 0;
        }
        case DRM_IOCTL_PRIME_FD_TO_HANDLE: {
            auto* p = static_cast<drm_prime_handle*>(arg);
            f["fd"] = p->fd;
            auto it = dmabuf_handle.find(p->fd);
            if (it == dmabuf_handle.end() || !detail::core().is_emulated(p->fd))
                return fail(EBADF);
            p->handle = it->second;
            f["handle"] = p->handle;
            return 0;
        }
        case DRM_IOCTL_GEM_CLOSE: {
            auto* g = static_cast<drm_gem_close*>(arg);
            f["handle"] = g->handle;
            if (!gem_handles.erase(g->handle))
                return fail(EINVAL);
            return 0;
        }
        case DRM_IOCTL_SDP_GEM_HW_CREATE: {
            auto* g = static_cast<sdp_drm_gem_hw_create*>(arg);
            f["e_flag"] = g->e_flag;
            f["userinfo"] = g->userinfo;
            f["expected"] = static_cast<long long>(g->ret_size);
            g->handle = next_handle++;
            g->ret_size = static_cast<uint64_t>(static_cast<int64_t>(g->ret_size) + gem_size_delta);
            gem_handles.insert(g->handle);
            gem_size[g->handle] = g->ret_size;
            f["handle"] = g->handle;
            f["ret_size"] = static_cast<long long>(g->ret_size);
            return 0;
        }
        case DRM_IOCTL_SDP_SET_DP_SOURCE: {
            auto* d = static_cast<v4l2_drm*>(arg);
            f["inputport"] = d->inputport;
            f["plane"] = d->plane;
            f["hres"] = d->u.dec_info.hres;
            f["vres"] = d->u.dec_info.vres;
            f["display_index"] = d->u.dec_info.pFrame[0].display_index;
            source_port[d->plane] = d->inputport;
            return 0;
        }
        case DRM_IOCTL_SDP_SET_ONOFF: {
            auto* o = static_cast<sdp_drm_onoff_param*>(arg);
            f["plane_id"] = o->plane_id;
            f["set_func"] = o->set_func;
            f["onoff_flag"] = o->onoff_flag;
            if (o->set_func == DRM_SDP_FUNC_MUTE_ONOFF)
                muted[o->plane_id] = o->onoff_flag != 0;
            return 0;
        }
        default:
            return fail(ENOTTY);
    }
}

void DrmModel::apply_status(unsigned long req, void* arg, int32_t status) {
    if (req == DRM_IOCTL_PRIME_HANDLE_TO_FD && arg != nullptr)
        static_cast<drm_prime_handle*>(arg)->fd = status;
}

}  // namespace emutv
