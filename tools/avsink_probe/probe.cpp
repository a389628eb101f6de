// avsink-probe: what the AV sink library finds on this TV, without changing anything the
// viewer sees. Only queries are sent, apart from what opening and closing a video output
// does by itself (one placeholder framebuffer, created by open and removed by close).
//
// The report has independent sections: the library's own version, every device path the
// library would try, the board HAL, the DRM topology (what the standard mode-setting
// requests answer), the video output as the library opens it, the compressed-offload
// nodes with their capabilities and the mixer controls. A failure in one section is
// reported there and the next section runs all the same.
#include "probe.h"
#include "probe_internal.h"

#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <algorithm>

#include "ruvo/driver/sdp_drm.h"
#include "ruvo/quarvel_video_output.h"

#ifndef AVSINK_PROBE_VERSION
#define AVSINK_PROBE_VERSION "unknown"
#endif

namespace avsink_probe {

namespace {

const char* const kPlaneTypes[] = {"OSDP",   "GP",      "SGP",   "CURSOR1", "CURSOR2", "DP_MAIN",
                                   "DP_SUB", "DP_SUB2", "DP_BG", "YUVP",    "TP"};
const char* const kHalPath = "/mtd_apexe/board/lib/libKORB3.so";
const char* const kDrmPath = "/dev/dri/card0";

struct DevicePath {
    const char* path;
    const char* role;
    int flags;
    const char* flag_names;
};

// In the order the library tries them.
const DevicePath kDevicePaths[] = {
    {"/dev/qvl/qvkvplt", "video platform", O_RDWR, "O_RDWR"},
    {"/dev/qvkvplt", "video platform", O_RDWR, "O_RDWR"},
    {"/tmp/qvkvplt", "video platform", O_RDWR, "O_RDWR"},
    {"/dev/kdolby", "dolby", O_RDWR, "O_RDWR"},
    {"/dev/qvl/kdolby", "dolby", O_RDWR, "O_RDWR"},
    {"/tmp/kdolby", "dolby", O_RDWR, "O_RDWR"},
    {kDrmPath, "drm", O_RDWR | O_NONBLOCK, "O_RDWR|O_NONBLOCK"},
    {"/dev/qvkconverter", "frame converter", O_RDWR, "O_RDWR"},
    {"/dev/video10", "broadcast decoder", O_RDONLY, "O_RDONLY"},
};

// ---- library version -------------------------------------------------------------------

Json library_section(Printer& p) {
    Json s = Json::object();
    s.set("probe_version", Json::string(AVSINK_PROBE_VERSION));
    Dl_info info{};
    std::string file;
    if (dladdr(reinterpret_cast<void*>(&quarvel_video_output_open), &info) && info.dli_fname) {
        char real[PATH_MAX];
        file = realpath(info.dli_fname, real) ? real : info.dli_fname;
    }
    std::string version = "unknown";
    size_t so = file.rfind(".so.");
    if (so != std::string::npos)
        version = file.substr(so + 4);
    s.set("file", Json::string(file));
    s.set("version", Json::string(version));
    p.line("library: %s version %s (probe %s)", file.empty() ? "-" : file.c_str(), version.c_str(),
           AVSINK_PROBE_VERSION);
    return s;
}

// ---- device paths ----------------------------------------------------------------------

Json device_entry(Printer& p, const std::string& path, const char* role, int flags, const char* flag_names) {
    Json d = Json::object();
    d.set("path", Json::string(path));
    d.set("role", Json::string(role));
    d.set("flags", Json::string(flag_names));
    int fd = open(path.c_str(), flags | O_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        d.set("open", Json::boolean(true));
        p.line("device: %s (%s, %s): opens", path.c_str(), role, flag_names);
        return d;
    }
    int err = errno;
    d.set("open", Json::boolean(false));
    p.line("device: %s (%s, %s): %s (errno %d)", path.c_str(), role, flag_names, strerror(err), err);
    return errno_fields(d, err);
}

Json devices_section(Printer& p) {
    Json a = Json::array();
    for (const auto& d : kDevicePaths)
        a.push(device_entry(p, d.path, d.role, d.flags, d.flag_names));
    return a;
}

// ---- board HAL -------------------------------------------------------------------------

Json hal_section(Printer& p) {
    Json s = Json::object();
    s.set("path", Json::string(kHalPath));
    dlerror();
    void* h = dlopen(kHalPath, RTLD_LAZY);
    if (!h) {
        const char* e = dlerror();
        s.set("loaded", Json::boolean(false));
        s.set("error", Json::string(e ? e : "no loader message"));
        p.line("hal: %s: not loaded (%s); the library opens %s itself", kHalPath, e ? e : "no loader message",
               kDrmPath);
        return s;
    }
    s.set("loaded", Json::boolean(true));
    std::string found;
    for (const char* sym : {"Hal_Video_DrmInit", "Hal_Video_Get_DrmDeviceId"}) {
        dlerror();
        dlsym(h, sym);
        bool present = dlerror() == nullptr;
        s.set(sym, Json::boolean(present));
        found += std::string(found.empty() ? "" : ", ") + sym + (present ? " present" : " missing");
    }
    dlclose(h);
    p.line("hal: %s: loaded, %s (not called)", kHalPath, found.c_str());
    return s;
}

// ---- DRM topology ----------------------------------------------------------------------

std::string mode_name(const drmModeModeInfo& m) {
    return std::string(m.name) + "@" + std::to_string(m.vrefresh);
}

std::string fourcc_name(uint32_t f) {
    std::string s;
    for (int i = 0; i < 4; ++i)
        s += static_cast<char>((f >> (8 * i)) & 0xff);
    return s;
}

const char* plane_kind(uint64_t type) {
    switch (type) {
        case DRM_PLANE_TYPE_OVERLAY:
            return "Overlay";
        case DRM_PLANE_TYPE_PRIMARY:
            return "Primary";
        case DRM_PLANE_TYPE_CURSOR:
            return "Cursor";
        default:
            return "?";
    }
}

void add_connector(Printer& p, int fd, uint32_t id, Json* topo, Json* details) {
    drmModeConnector* c = drmModeGetConnector(fd, id);
    if (!c) {
        int err = errno;
        Json e = errno_fields(Json::object().set("id", Json::integer(id)), err);
        topo->push(e);
        p.line("drm: connector %u: cannot retrieve: %s (errno %d)", id, strerror(err), err);
        return;
    }
    Json modes = Json::array();
    std::string mode_text;
    for (int i = 0; i < c->count_modes; ++i) {
        modes.push(Json::string(mode_name(c->modes[i])));
        mode_text += (i ? " " : "") + mode_name(c->modes[i]);
    }
    Json t = Json::object();
    t.set("id", Json::integer(c->connector_id));
    t.set("connection", Json::integer(c->connection));
    t.set("mm_width", Json::integer(c->mmWidth));
    t.set("mm_height", Json::integer(c->mmHeight));
    t.set("count_modes", Json::integer(c->count_modes));
    t.set("encoder_id", Json::integer(c->encoder_id));
    t.set("encoders", id_array(c->encoders, c->count_encoders));
    topo->push(t);
    Json d = Json::object();
    d.set("id", Json::integer(c->connector_id));
    d.set("type", Json::string(drmModeGetConnectorTypeName(c->connector_type)
                                   ? drmModeGetConnectorTypeName(c->connector_type)
                                   : "unknown"));
    d.set("type_id", Json::integer(c->connector_type_id));
    d.set("count_props", Json::integer(c->count_props));
    d.set("modes", modes);
    details->push(d);
    p.line("drm: connector %u: %s, size %ux%u, encoder %u, encoders %s, %d modes: %s", c->connector_id,
           c->connection == DRM_MODE_CONNECTED ? "connected" : "not connected", c->mmWidth, c->mmHeight,
           c->encoder_id, id_list(t.get("encoders") ? *t.get("encoders") : Json::array()).c_str(),
           c->count_modes, mode_text.empty() ? "-" : mode_text.c_str());
    drmModeFreeConnector(c);
}

void add_encoder(Printer& p, int fd, uint32_t id, Json* topo, Json* details) {
    drmModeEncoder* e = drmModeGetEncoder(fd, id);
    if (!e) {
        int err = errno;
        topo->push(errno_fields(Json::object().set("id", Json::integer(id)), err));
        p.line("drm: encoder %u: cannot retrieve: %s (errno %d)", id, strerror(err), err);
        return;
    }
    topo->push(Json::object()
                   .set("id", Json::integer(e->encoder_id))
                   .set("crtc_id", Json::integer(e->crtc_id))
                   .set("possible_crtcs", Json::integer(e->possible_crtcs)));
    details->push(
        Json::object().set("id", Json::integer(e->encoder_id)).set("type", Json::integer(e->encoder_type)));
    p.line("drm: encoder %u: crtc %u, possible crtcs 0x%x", e->encoder_id, e->crtc_id, e->possible_crtcs);
    drmModeFreeEncoder(e);
}

Json plane_properties(int fd, uint32_t plane_id, std::string* kind, std::string* text) {
    Json props = Json::array();
    drmModeObjectProperties* op = drmModeObjectGetProperties(fd, plane_id, DRM_MODE_OBJECT_PLANE);
    if (!op)
        return props;
    for (uint32_t j = 0; j < op->count_props; ++j) {
        drmModePropertyRes* pr = drmModeGetProperty(fd, op->props[j]);
        if (!pr)
            continue;
        std::string name = pr->name;
        uint64_t v = op->prop_values[j];
        props.push(Json::object()
                       .set("name", Json::string(name))
                       .set("value", Json::integer(static_cast<long long>(v))));
        *text += (text->empty() ? "" : " ") + name + "=" + std::to_string(v);
        if (name.compare(0, 10, "plane_type") == 0 && v < 11)
            *kind = kPlaneTypes[v];
        else if (name == "type" && kind->empty())
            *kind = plane_kind(v);
        drmModeFreeProperty(pr);
    }
    drmModeFreeObjectProperties(op);
    return props;
}

void add_plane(Printer& p, int fd, uint32_t id, Json* topo, Json* details) {
    drmModePlane* pl = drmModeGetPlane(fd, id);
    if (!pl) {
        int err = errno;
        topo->push(errno_fields(Json::object().set("id", Json::integer(id)), err));
        p.line("drm: plane %u: cannot retrieve: %s (errno %d)", id, strerror(err), err);
        return;
    }
    std::string kind, text;
    Json props = plane_properties(fd, id, &kind, &text);
    topo->push(Json::object()
                   .set("id", Json::integer(pl->plane_id))
                   .set("count_formats", Json::integer(pl->count_formats))
                   .set("properties", props));
    Json formats = Json::array();
    for (uint32_t i = 0; i < pl->count_formats; ++i)
        formats.push(Json::string(fourcc_name(pl->formats[i])));
    details->push(Json::object()
                      .set("id", Json::integer(pl->plane_id))
                      .set("possible_crtcs", Json::integer(pl->possible_crtcs))
                      .set("formats", formats));
    p.line("drm: plane %u: type %s, %u formats, properties %s", pl->plane_id,
           kind.empty() ? "-" : kind.c_str(), pl->count_formats, text.empty() ? "-" : text.c_str());
    drmModeFreePlane(pl);
}

// Generic drivers show their primary and cursor planes only to clients that ask for
// universal planes, which the library does not; the probe asks last, on its own descriptor.
Json universal_planes(Printer& p, int fd) {
    if (drmSetClientCap(fd, DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1) != 0) {
        int err = errno;
        p.line("drm: universal planes: not offered: %s (errno %d)", strerror(err), err);
        return errno_fields(Json::object(), err);
    }
    Json planes = Json::array();
    std::string text;
    drmModePlaneRes* pres = drmModeGetPlaneResources(fd);
    for (uint32_t i = 0; pres && i < pres->count_planes; ++i) {
        std::string kind, props;
        plane_properties(fd, pres->planes[i], &kind, &props);
        planes.push(Json::object()
                        .set("id", Json::integer(pres->planes[i]))
                        .set("type", Json::string(kind.empty() ? "-" : kind)));
        text += std::string(text.empty() ? "" : ", ") + std::to_string(pres->planes[i]) + " " +
                (kind.empty() ? "-" : kind);
    }
    if (pres)
        drmModeFreePlaneResources(pres);
    p.line("drm: universal planes: %s", text.empty() ? "none" : text.c_str());
    return planes;
}

// Fills the two DRM sections: "drm_topology" holds what the standard requests answer and
// what the emulated platform can be configured with; "drm_details" holds the rest.
void drm_sections(Printer& p, Json* topo, Json* details) {
    *topo = Json::object();
    *details = Json::object();
    topo->set("path", Json::string(kDrmPath));
    int fd = open(kDrmPath, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        topo->set("open", Json::boolean(false));
        *topo = errno_fields(*topo, err);
        p.line("drm: %s: %s (errno %d)", kDrmPath, strerror(err), err);
        return;
    }
    topo->set("open", Json::boolean(true));
    drmVersion* v = drmGetVersion(fd);
    details->set("driver", Json::string(v && v->name ? v->name : "unknown"));
    p.line("drm: %s: driver %s", kDrmPath, v && v->name ? v->name : "unknown");
    if (v)
        drmFreeVersion(v);
    drmModeRes* res = drmModeGetResources(fd);
    if (!res) {
        int err = errno;
        *topo = errno_fields(*topo, err);
        p.line("drm: resources: %s (errno %d)", strerror(err), err);
    } else {
        topo->set("crtcs", id_array(res->crtcs, res->count_crtcs));
        p.line("drm: crtcs: %s", id_list(*topo->get("crtcs")).c_str());
        details->set("min_size",
                     Json::string(std::to_string(res->min_width) + "x" + std::to_string(res->min_height)));
        details->set("max_size",
                     Json::string(std::to_string(res->max_width) + "x" + std::to_string(res->max_height)));
        Json cons = Json::array(), cons_d = Json::array(), encs = Json::array(), encs_d = Json::array();
        for (int i = 0; i < res->count_connectors; ++i)
            add_connector(p, fd, res->connectors[i], &cons, &cons_d);
        for (int i = 0; i < res->count_encoders; ++i)
            add_encoder(p, fd, res->encoders[i], &encs, &encs_d);
        topo->set("connectors", cons).set("encoders", encs);
        details->set("connectors", cons_d).set("encoders", encs_d);
        drmModeFreeResources(res);
    }
    Json planes = Json::array(), planes_d = Json::array();
    drmModePlaneRes* pres = drmModeGetPlaneResources(fd);
    if (!pres) {
        int err = errno;
        p.line("drm: plane resources: %s (errno %d)", strerror(err), err);
        details->set("plane_resources", errno_fields(Json::object(), err));
    } else {
        for (uint32_t i = 0; i < pres->count_planes; ++i)
            add_plane(p, fd, pres->planes[i], &planes, &planes_d);
        if (pres->count_planes == 0)
            p.line("drm: planes: none visible without client capabilities");
        drmModeFreePlaneResources(pres);
    }
    topo->set("planes", planes);
    details->set("planes", planes_d);
    details->set("universal_planes", universal_planes(p, fd));
    close(fd);
}

// ---- the library's video output --------------------------------------------------------

Json video_output_section(Printer& p, int* status) {
    Json s = Json::object();
    p.line("opening a video output");
    p.flush();
    fflush(stdout);
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    fflush(stdout);
    if (!out) {
        p.line("quarvel_video_output_open failed (the library's lines above say why)");
        s.set("open", Json::boolean(false));
        *status = 1;
        return s;
    }
    *status = 0;
    s.set("open", Json::boolean(true));
    p.line("drm fd: %d", out->m_drm_fd);
    p.line("connector: %u", out->m_con_id);
    p.line("crtc: %u", out->m_crtc_id);
    p.line("panel: %dx%d", out->m_panel_width, out->m_panel_height);
    int w = 0, h = 0;
    quarvel_video_output_get_panel_size(out, &w, &h);
    p.line("get_panel_size: %dx%d", w, h);
    const DRMBuffer& b = out->m_drm_buffers[0];
    p.line("placeholder framebuffer: fb=%u dumb=%u stride=%u size=%u", b.fb_handle, b.bo_handle, b.stride,
           b.size);
    s.set("connector", Json::integer(out->m_con_id)).set("crtc", Json::integer(out->m_crtc_id));
    s.set("panel", Json::string(std::to_string(w) + "x" + std::to_string(h)));
    s.set("placeholder", Json::object()
                             .set("fb", Json::integer(b.fb_handle))
                             .set("dumb", Json::integer(b.bo_handle))
                             .set("stride", Json::integer(b.stride))
                             .set("size", Json::integer(b.size)));
    Json planes = Json::object();
    for (int t = 0; t < 11; ++t)
        if (out->m_plane_obj_id[t] != 0) {
            p.line("plane %s(%d): %d", kPlaneTypes[t], t, out->m_plane_obj_id[t]);
            planes.set(kPlaneTypes[t], Json::integer(out->m_plane_obj_id[t]));
        }
    s.set("planes", planes);
    if (out->m_plane_type < 11) {
        p.line("video plane: %d (type %s)", out->m_plane_obj_id[out->m_plane_type],
               kPlaneTypes[out->m_plane_type]);
        s.set("video_plane", Json::integer(out->m_plane_obj_id[out->m_plane_type]));
    }
    p.flush();

    quarvel_video_output_vsync_info_s vs{};
    int r = quarvel_video_output_get_vsync_info(out, &vs);
    if (r == 0) {
        p.line("vsync fps: %.6f", vs.fps);
        p.line("vsync offset: %d s %d ns", vs.tv_sec, vs.tv_nsec);
        s.set("vsync", Json::object()
                           .set("fps", Json::real(vs.fps))
                           .set("offset_s", Json::integer(vs.tv_sec))
                           .set("offset_ns", Json::integer(vs.tv_nsec)));
    } else {
        p.line("vsync: not available (result %d)", r);
        s.set("vsync", Json::object().set("result", Json::integer(r)));
    }
    quarvel_video_used_frames_s used{};
    r = quarvel_video_output_get_used_frames(out, &used);
    if (r == 0) {
        p.line("decoder frames: dec0=%u dec1=%u", used.used_by_decoder[0], used.used_by_decoder[1]);
        s.set("decoder_frames", Json::array()
                                    .push(Json::integer(used.used_by_decoder[0]))
                                    .push(Json::integer(used.used_by_decoder[1])));
    } else {
        p.line("decoder frames: not available (result %d)", r);
        s.set("decoder_frames", Json::object().set("result", Json::integer(r)));
    }
    p.line("closing the video output");
    p.flush();
    fflush(stdout);
    quarvel_video_output_close(out);
    fflush(stdout);
    return s;
}

// ---- mixer -----------------------------------------------------------------------------

const char* elem_type_name(snd_ctl_elem_type_t t) {
    switch (t) {
        case SND_CTL_ELEM_TYPE_BOOLEAN:
            return "BOOLEAN";
        case SND_CTL_ELEM_TYPE_INTEGER:
            return "INTEGER";
        case SND_CTL_ELEM_TYPE_ENUMERATED:
            return "ENUMERATED";
        case SND_CTL_ELEM_TYPE_BYTES:
            return "BYTES";
        case SND_CTL_ELEM_TYPE_IEC958:
            return "IEC958";
        case SND_CTL_ELEM_TYPE_INTEGER64:
            return "INTEGER64";
        default:
            return "NONE";
    }
}

Json mixer_control(Printer& p, snd_hctl_elem_t* e, snd_ctl_elem_info_t* info, snd_ctl_elem_value_t* value) {
    Json c = Json::object();
    c.set("name", Json::string(snd_hctl_elem_get_name(e)));
    c.set("numid", Json::integer(snd_hctl_elem_get_numid(e)));
    c.set("iface", Json::string(snd_ctl_elem_iface_name(snd_hctl_elem_get_interface(e))));
    std::string line = std::string("mixer control: '") + snd_hctl_elem_get_name(e) +
                       "' numid=" + std::to_string(snd_hctl_elem_get_numid(e)) +
                       " iface=" + snd_ctl_elem_iface_name(snd_hctl_elem_get_interface(e));
    if (snd_hctl_elem_info(e, info) < 0) {
        p.line("%s (no info)", line.c_str());
        return c;
    }
    snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    unsigned count = snd_ctl_elem_info_get_count(info);
    c.set("type", Json::string(elem_type_name(type))).set("count", Json::integer(count));
    line += std::string(" type=") + elem_type_name(type) + " count=" + std::to_string(count);
    if (type == SND_CTL_ELEM_TYPE_INTEGER) {
        c.set("min", Json::integer(snd_ctl_elem_info_get_min(info)));
        c.set("max", Json::integer(snd_ctl_elem_info_get_max(info)));
        line += " range=" + std::to_string(snd_ctl_elem_info_get_min(info)) + ".." +
                std::to_string(snd_ctl_elem_info_get_max(info));
    }
    if (snd_ctl_elem_info_is_readable(info) && snd_hctl_elem_read(e, value) >= 0 &&
        (type == SND_CTL_ELEM_TYPE_INTEGER || type == SND_CTL_ELEM_TYPE_BOOLEAN)) {
        Json values = Json::array();
        line += " value=";
        for (unsigned i = 0; i < count && i < 8; ++i) {
            long v = type == SND_CTL_ELEM_TYPE_INTEGER
                         ? snd_ctl_elem_value_get_integer(value, i)
                         : static_cast<long>(snd_ctl_elem_value_get_boolean(value, i));
            values.push(Json::integer(v));
            line += (i ? "," : "") + std::to_string(v);
        }
        c.set("values", values);
    }
    p.line("%s", line.c_str());
    return c;
}

Json mixer_section(Printer& p, const std::string& card) {
    Json s = Json::object().set("card", Json::string(card));
    snd_hctl_t* hctl = nullptr;
    int err = snd_hctl_open(&hctl, card.c_str(), 0);
    if (err < 0) {
        p.line("mixer: cannot open '%s': %s", card.c_str(), snd_strerror(err));
        return s.set("open", Json::boolean(false)).set("error", Json::string(snd_strerror(err)));
    }
    s.set("open", Json::boolean(true));
    err = snd_hctl_load(hctl);
    if (err < 0) {
        p.line("mixer: cannot load '%s': %s", card.c_str(), snd_strerror(err));
        snd_hctl_close(hctl);
        return s.set("error", Json::string(snd_strerror(err)));
    }
    p.line("mixer controls on '%s': %u", card.c_str(), snd_hctl_get_count(hctl));
    snd_ctl_elem_info_t* info;
    snd_ctl_elem_value_t* value;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_value_alloca(&value);
    Json controls = Json::array();
    std::vector<std::string> names;
    for (snd_hctl_elem_t* e = snd_hctl_first_elem(hctl); e; e = snd_hctl_elem_next(e)) {
        controls.push(mixer_control(p, e, info, value));
        if (snd_hctl_elem_get_interface(e) == SND_CTL_ELEM_IFACE_MIXER && snd_hctl_elem_get_device(e) == 0)
            names.push_back(snd_hctl_elem_get_name(e));
    }
    snd_hctl_close(hctl);
    s.set("controls", controls);
    Json wanted = Json::object();
    for (const auto& n : library_mixer_controls()) {
        bool present = std::find(names.begin(), names.end(), n) != names.end();
        wanted.set(n, Json::boolean(present));
        p.line("mixer: library control '%s': %s", n.c_str(), present ? "present" : "missing");
    }
    s.set("library_controls", wanted);
    return s;
}

}  // namespace

const std::vector<std::string>& library_mixer_controls() {
    static const std::vector<std::string> names = {"qvl speaker main gain", "qvl hp main gain",
                                                   "audio dec0 playback rate", "main out mute"};
    return names;
}

int run_probe(const ProbeOptions& options, Json* report) {
    Printer p(options.json);
    Json r = Json::object();
    r.set("tool", Json::string(options.tool));
    r.set("library", library_section(p));
    r.set("devices", devices_section(p));
    r.set("hal", hal_section(p));
    Json topo, details;
    drm_sections(p, &topo, &details);
    r.set("drm_topology", topo).set("drm_details", details);
    p.flush();
    int status = 1;
    r.set("video_output", video_output_section(p, &status));
    r.set("compressed", compressed_section(p, options.compr_dir, options.compr_paths));
    if (options.mixer)
        r.set("mixer", mixer_section(p, options.card));
    p.flush();
    if (report)
        *report = r;
    return status;
}

const char* probe_usage() {
    return R"(Usage: avsink-probe [--json] [--card NAME] [--no-mixer] [--compr PATH]...

Read-only look at what the AV sink library finds on this TV, in sections that each
stand on their own (a failure in one is reported there and the others still run):
  library   the shared library's file and version
  devices   every device path the library tries, with the flags it uses: opens, or
            the errno of the failed open
  hal       the board HAL library: loaded or not (and why), its two entry points
            (looked up, never called)
  drm       /dev/dri/card0: driver, CRTCs, connectors with their modes, encoders,
            planes by type with their properties
  video     opens a video output through the library and prints the drm fd,
            connector, crtc, panel size (also through get_panel_size), the
            placeholder framebuffer, the plane object id of each plane type and the
            video plane, vsync rate and offset, decoder frame usage; then closes it
  compressed  every /dev/snd/comprC* node (and each --compr PATH) with its
            capabilities (SNDRV_COMPRESS_GET_CAPS)
  mixer     the controls of the ALSA control device NAME (default "default") with
            type, range and value, and which of the library's four controls exist
Lines start with "probe: ", between the library's own lines. With --json the report
is one JSON object on standard output and the library's lines go to standard error.

Safe on a TV that is showing something: it programs no plane, sends no display
source, mutes nothing, changes no queue size and writes no mixer control. Opening
a video output creates one placeholder framebuffer (a dumb buffer of the panel's
size) and closing removes it again; that is the library's own doing.

Options:
  --json        machine-readable report
  --card NAME   ALSA control device to list (default "default")
  --no-mixer    do not list mixer controls
  --compr PATH  also look at this compressed-offload node
  -h, --help    this text

Exit status: 0 the video output opened; 1 it did not; 2 bad command line.
)";
}

}  // namespace avsink_probe
