// Cost of every exported call of the library next to the bare driver requests the call
// sends, on the same emulated devices: "bare" issues the same requests with the same
// records by hand (open, ioctl, write, close), in the same order, and nothing else. The
// ratio library / bare is what the library adds: its own code, and the code of libdrm,
// alsa-lib and the picture-quality client that it goes through.
//
// Three modes:
//   costs_bench [benchmark options] [--costs-out FILE]
//       Google Benchmark of every pair; medians and ratios at the end (and in FILE, one line
//       per call: name, library ns, bare ns, both real time per call).
//   costs_bench --callgrind [N]
//       Runs every call N times (default 200) with callgrind collecting only inside the
//       call, and dumps the counts per call ("library NAME", "bare NAME"); run it under
//       valgrind --tool=callgrind --collect-atstart=no --toggle-collect=_set_audio_mute*
//       (scripts/costs.sh does: collection is per thread, and the hand-back's audio-mute
//       thread is counted from its entry function on).
//   costs_bench --counts
//       One steady-state run of every call: driver requests and heap allocations (all, and
//       the library's own), tab-separated.
//
// Calls without any driver request (panel size, an unchanged rectangle, start, the
// diagnostics calls) have an empty bare side and no ratio. The renderer's calls need a
// Wayland compositor and are not measured here.
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <drm.h>
#include <drm_fourcc.h>
#include <drm_mode.h>
#include <linux/videodev2.h>
#include <sound/asound.h>
#include <sound/compress_offload.h>
#include <valgrind/callgrind.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iostream>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "hmx_standin.h"
#include "ruvo/driver/compress_ext.h"
#include "ruvo/driver/kdolby.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/vplt_ioctl.h"
#include "ruvo/quarvel_audio_output.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo/ruvo_debug.h"
#include "ruvo_kit/alloc_interposer.h"
#include "ruvo_kit/bare_requests.h"
#include "ruvo_kit/frame_descriptor.h"
#include "ruvo_log.h"

// Allocation counting (--counts): the kit's call-site counting, ruvo_kit/alloc_interposer.h.

namespace {

using ruvo_kit::bare_vplt;

// ---- The session ------------------------------------------------------------------------------

const char kAudioDevice[] = "/dev/snd/comprC0D0";
const char kCard[] = "/dev/snd/controlC0";
constexpr unsigned kPayload = 4096;
constexpr unsigned kExtra = 32;

struct Session {
    quarvel_video_output_s* video = nullptr;  // showing a 1920x1080 stream full screen
    quarvel_audio_output_s* audio = nullptr;  // set up and playing
    v4l2_drm desc = ruvo_kit::FrameDescriptor(1920, 1080);
    v4l2_drm desc720 = ruvo_kit::FrameDescriptor(1280, 720);
    quarvel_video_output_frame_s frame{};
    quarvel_video_output_frame_s frame720{};
    quarvel_audio_output_setup_params_s params{2, 48000, {0, 0, 0, 0, 0, 0}};
    unsigned char block[kPayload + kExtra] = {};
    const quarvel_video_output_rect_s full{0, 0, 1920, 1080, 0, 0};
    const quarvel_video_output_rect_s window{480, 270, 960, 540, 0, 0};
    // Set by the emulator's listener when the hand-back's audio-mute thread closes the
    // sound card: its last request.
    std::atomic<int> card_closes{0};
};

Session g;

bool start_session() {
    emutv::Platform& tv = emutv::platform();
    tv.reset();
    tv.set_recording(false);
    tv.add_compr_device(kAudioDevice);
    tv.set_listener([](const emutv::Event& e) {
        if (e.kind == emutv::Kind::Close && e.path == kCard)
            g.card_closes.fetch_add(1);
    });
    g_ruvo_logmask = RUVO_LOG_ERR;
    unsetenv("TA_DTV_PRELOAD");
    g.frame = quarvel_video_output_frame_s{&g.desc, -1, {0, 0, 0, 0, 0, 0, 0}};
    g.frame720 = quarvel_video_output_frame_s{&g.desc720, -1, {0, 0, 0, 0, 0, 0, 0}};
    g.video = quarvel_video_output_open(false);
    if (g.video == nullptr || quarvel_video_output_set_rect(g.video, &g.full) != 0 ||
        quarvel_video_output_init_with_first_frame(g.video, &g.frame) != 0 ||
        quarvel_video_output_push_frame_to_display(g.video, &g.frame) != 0)
        return false;
    g.audio = quarvel_audio_output_open(kAudioDevice);
    if (g.audio == nullptr || quarvel_audio_output_setup(g.audio, &g.params) != 0 ||
        quarvel_audio_output_push_data(g.audio, g.block, kPayload, kExtra) != 0)
        return false;
    // alsa-lib loads its configuration with the first control write of the process.
    return quarvel_audio_output_speed_control(nullptr, 1.0f) == 0;
}

void end_session() {
    if (g.video != nullptr)
        quarvel_video_output_close(g.video);
    if (g.audio != nullptr)
        quarvel_audio_output_close(g.audio);
    g.video = nullptr;
    g.audio = nullptr;
    emutv::platform().set_listener(nullptr);
}

// ---- Bare requests ----------------------------------------------------------------------------

template <typename T>
uint64_t user_ptr(T* p) {
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p));
}

uint32_t capped(uint32_t n, uint32_t cap) {
    return n < cap ? n : cap;
}

struct BareVideo {
    int vplt = -1, dolby = -1, drm = -1;
    uint32_t fb = 0, bo = 0;
};

// The 44 requests of a video open, as libdrm sends them for the library: every query
// twice (counts, then contents), on the emulated display's topology.
void bare_video_open(BareVideo* b) {
    b->vplt = open("/dev/qvl/qvkvplt", O_RDWR);
    b->dolby = open("/dev/kdolby", O_RDWR);
    b->drm = open("/dev/dri/card0", O_RDWR | O_NONBLOCK);
    const int fd = b->drm;

    drm_mode_card_res res;
    memset(&res, 0, sizeof(res));
    ioctl(fd, DRM_IOCTL_MODE_GETRESOURCES, &res);
    uint32_t fbs[16], crtcs[16], connectors[16], encoders[16];
    res.count_fbs = capped(res.count_fbs, 16);
    res.count_crtcs = capped(res.count_crtcs, 16);
    res.count_connectors = capped(res.count_connectors, 16);
    res.count_encoders = capped(res.count_encoders, 16);
    res.fb_id_ptr = user_ptr(fbs);
    res.crtc_id_ptr = user_ptr(crtcs);
    res.connector_id_ptr = user_ptr(connectors);
    res.encoder_id_ptr = user_ptr(encoders);
    ioctl(fd, DRM_IOCTL_MODE_GETRESOURCES, &res);

    for (uint32_t i = 0; i < res.count_connectors; ++i) {
        drm_mode_get_connector con;
        memset(&con, 0, sizeof(con));
        con.connector_id = connectors[i];
        ioctl(fd, DRM_IOCTL_MODE_GETCONNECTOR, &con);
        drm_mode_modeinfo modes[8];
        uint32_t con_encoders[8], props[8];
        uint64_t values[8];
        con.count_modes = capped(con.count_modes, 8);
        con.count_encoders = capped(con.count_encoders, 8);
        con.count_props = capped(con.count_props, 8);
        con.modes_ptr = user_ptr(modes);
        con.encoders_ptr = user_ptr(con_encoders);
        con.props_ptr = user_ptr(props);
        con.prop_values_ptr = user_ptr(values);
        ioctl(fd, DRM_IOCTL_MODE_GETCONNECTOR, &con);
        drm_mode_get_encoder enc;
        memset(&enc, 0, sizeof(enc));
        enc.encoder_id = con.encoder_id;
        ioctl(fd, DRM_IOCTL_MODE_GETENCODER, &enc);
    }

    drm_mode_create_dumb create;
    memset(&create, 0, sizeof(create));
    create.width = 3840;
    create.height = 2160;
    create.bpp = 4;
    create.size = 3840ull * 2160 * 4;
    ioctl(fd, DRM_IOCTL_MODE_CREATE_DUMB, &create);
    b->bo = create.handle;
    drm_mode_fb_cmd2 fb;
    memset(&fb, 0, sizeof(fb));
    fb.width = 3840;
    fb.height = 2160;
    fb.pixel_format = DRM_FORMAT_XRGB8888;
    fb.handles[0] = create.handle;
    fb.pitches[0] = 3840 * 4;
    ioctl(fd, DRM_IOCTL_MODE_ADDFB2, &fb);
    b->fb = fb.fb_id;

    drm_mode_get_plane_res plane_res;
    memset(&plane_res, 0, sizeof(plane_res));
    ioctl(fd, DRM_IOCTL_MODE_GETPLANERESOURCES, &plane_res);
    uint32_t planes[16];
    plane_res.count_planes = capped(plane_res.count_planes, 16);
    plane_res.plane_id_ptr = user_ptr(planes);
    ioctl(fd, DRM_IOCTL_MODE_GETPLANERESOURCES, &plane_res);
    for (uint32_t p = 0; p < plane_res.count_planes; ++p) {
        drm_mode_get_plane plane;
        memset(&plane, 0, sizeof(plane));
        plane.plane_id = planes[p];
        ioctl(fd, DRM_IOCTL_MODE_GETPLANE, &plane);
        uint32_t formats[32];
        plane.count_format_types = capped(plane.count_format_types, 32);
        plane.format_type_ptr = user_ptr(formats);
        ioctl(fd, DRM_IOCTL_MODE_GETPLANE, &plane);

        drm_mode_obj_get_properties props;
        memset(&props, 0, sizeof(props));
        props.obj_id = planes[p];
        props.obj_type = DRM_MODE_OBJECT_PLANE;
        ioctl(fd, DRM_IOCTL_MODE_OBJ_GETPROPERTIES, &props);
        uint32_t ids[16];
        uint64_t values[16];
        props.count_props = capped(props.count_props, 16);
        props.props_ptr = user_ptr(ids);
        props.prop_values_ptr = user_ptr(values);
        ioctl(fd, DRM_IOCTL_MODE_OBJ_GETPROPERTIES, &props);
        for (uint32_t j = 0; j < props.count_props; ++j) {
            drm_mode_get_property prop;
            memset(&prop, 0, sizeof(prop));
            prop.prop_id = ids[j];
            ioctl(fd, DRM_IOCTL_MODE_GETPROPERTY, &prop);
            ioctl(fd, DRM_IOCTL_MODE_GETPROPERTY, &prop);
        }
    }
}

void bare_video_close(const BareVideo& b) {
    uint32_t fb = b.fb;
    ioctl(b.drm, DRM_IOCTL_MODE_RMFB, &fb);
    drm_mode_destroy_dumb destroy;
    memset(&destroy, 0, sizeof(destroy));
    destroy.handle = b.bo;
    ioctl(b.drm, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
    close(b.drm);
    close(b.dolby);
    close(b.vplt);
}

// The display requests of the session's video handle.
int plane_id() {
    return g.video->m_plane_obj_id[g.video->m_plane_type];
}

void bare_source(v4l2_drm* d) {
    d->plane = static_cast<uint32_t>(plane_id());
    ioctl(g.video->m_drm_fd, DRM_IOCTL_SDP_SET_DP_SOURCE, d);
}

void bare_plane(const quarvel_video_output_rect_s& r) {
    drm_mode_set_plane plane;
    memset(&plane, 0, sizeof(plane));
    plane.plane_id = static_cast<uint32_t>(plane_id());
    plane.crtc_id = g.video->m_crtc_id;
    plane.fb_id = g.video->m_drm_buffers[0].fb_handle;
    plane.crtc_x = r.x;
    plane.crtc_y = r.y;
    plane.crtc_w = r.w;
    plane.crtc_h = r.h;
    plane.src_w = 1920u << 16;
    plane.src_h = 1080u << 16;
    ioctl(g.video->m_drm_fd, DRM_IOCTL_MODE_SETPLANE, &plane);
}

void bare_mute(bool mute) {
    sdp_drm_onoff_param p;
    p.plane_id = static_cast<uint32_t>(plane_id());
    p.set_func = DRM_SDP_FUNC_MUTE_ONOFF;
    p.onoff_flag = mute ? 1 : 0;
    ioctl(g.video->m_drm_fd, DRM_IOCTL_SDP_SET_ONOFF, &p);
}

// One mixer control write, the 13 requests alsa-lib sends for it: the card looked up twice
// while "default" is resolved, then the control handle: version, element list (count, then
// ids), event subscription, the write.
void bare_control_write(const char* name, long value) {
    for (int i = 0; i < 2; ++i) {
        const int fd = open(kCard, O_RDONLY | O_CLOEXEC);
        snd_ctl_card_info info;
        memset(&info, 0, sizeof(info));
        ioctl(fd, SNDRV_CTL_IOCTL_CARD_INFO, &info);
        close(fd);
    }
    const int fd = open(kCard, O_RDWR | O_CLOEXEC);
    int version = 0;
    ioctl(fd, SNDRV_CTL_IOCTL_PVERSION, &version);
    snd_ctl_elem_list list;
    memset(&list, 0, sizeof(list));
    ioctl(fd, SNDRV_CTL_IOCTL_ELEM_LIST, &list);
    snd_ctl_elem_id ids[16];
    memset(ids, 0, sizeof(ids));
    list.space = capped(list.count, 16);
    list.pids = ids;
    ioctl(fd, SNDRV_CTL_IOCTL_ELEM_LIST, &list);
    int subscribe = 1;
    ioctl(fd, SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS, &subscribe);
    snd_ctl_elem_value v;
    memset(&v, 0, sizeof(v));
    for (uint32_t i = 0; i < list.used; ++i)
        if (strcmp(reinterpret_cast<const char*>(ids[i].name), name) == 0)
            v.id = ids[i];
    v.value.integer.value[0] = value;
    ioctl(fd, SNDRV_CTL_IOCTL_ELEM_WRITE, &v);
    close(fd);
}

int audio_fd() {
    return g.audio->m_fd;
}

void bare_metadata(int fd, uint32_t key, uint32_t value) {
    snd_compr_metadata m;
    memset(&m, 0, sizeof(m));
    m.key = key;
    m.value[0] = value;
    ioctl(fd, SNDRV_COMPRESS_SET_METADATA, &m);
}

// Waits until the hand-back's audio-mute thread has written the mixer control and closed
// the card.
void wait_for_mute_thread(int closes_before) {
    while (g.card_closes.load() < closes_before + 3)
        std::this_thread::yield();
}

// ---- The calls --------------------------------------------------------------------------------

// One exported call and its bare requests. `prepare` runs before each call and `after` after
// it, both outside the measurement.
struct Pair {
    std::string name;
    std::function<void()> library;
    std::function<void()> bare;  // empty: the call sends no driver request
    bool stateful = false;       // needs the steps below around each call
    std::function<void()> prepare = [] {};
    std::function<void()> after = [] {};
    std::function<void()> prepare_bare = [] {};
    std::function<void()> after_bare = [] {};
};

// Handles, descriptors and flags the pairs keep between their steps.
quarvel_video_output_s* fresh = nullptr;
quarvel_audio_output_s* fresh_audio = nullptr;
BareVideo bare_video;
int bare_audio_fd = -1;
bool toggle = false;
int closes_before = 0;

// Opening and closing a main-plane handle.
void video_handle_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "video_output_open";
        p.stateful = true;
        p.library = [] { fresh = quarvel_video_output_open(false); };
        p.after = [] { quarvel_video_output_close(fresh); };
        p.bare = [] { bare_video_open(&bare_video); };
        p.after_bare = [] { bare_video_close(bare_video); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_close";
        p.stateful = true;
        p.prepare = [] { fresh = quarvel_video_output_open(false); };
        p.library = [] { quarvel_video_output_close(fresh); };
        p.prepare_bare = [] { bare_video_open(&bare_video); };
        p.bare = [] { bare_video_close(bare_video); };
        pairs->push_back(p);
    }
}

// The panel and the output rectangle.
void video_geometry_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "video_output_get_panel_size";
        p.library = [] {
            int w = 0, h = 0;
            quarvel_video_output_get_panel_size(g.video, &w, &h);
            benchmark::DoNotOptimize(w);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_set_rect (unchanged)";
        p.library = [] { quarvel_video_output_set_rect(g.video, &g.full); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_set_rect (moved)";
        p.library = [] {
            toggle = !toggle;
            quarvel_video_output_set_rect(g.video, toggle ? &g.window : &g.full);
        };
        p.bare = [] {
            toggle = !toggle;
            bare_plane(toggle ? g.window : g.full);
        };
        pairs->push_back(p);
    }
}

// Frames: the first one, the next resolution, one per frame.
void video_frame_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "video_output_init_with_first_frame";
        p.stateful = true;
        p.prepare = [] {
            fresh = quarvel_video_output_open(false);
            quarvel_video_output_set_rect(fresh, &g.full);
        };
        p.library = [] { quarvel_video_output_init_with_first_frame(fresh, &g.frame); };
        p.after = [] {
            quarvel_video_output_close(fresh);
            hmx_standin_clear();
        };
        // The session's handle already holds the zero queue: a second holder sends no queue
        // request.
        p.bare = [] {
            v4l2_drm announce = g.desc;
            announce.u.dec_info.pFrame[0].display_index = 0xFFFFFFFFu;
            bare_source(&announce);
            bare_source(&g.desc);
            bare_plane(g.full);
            bare_mute(false);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_set_next_res";
        p.library = [] { quarvel_video_output_set_next_res(g.video, &g.frame720); };
        p.bare = [] {
            v4l2_drm copy = g.desc720;
            next_resolution next;
            memset(&next, 0, sizeof(next));
            next.decoder_info = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(&g.desc720));
            next.crop_w = 1280;
            next.crop_h = 720;
            next.disp_w = 1920;
            next.disp_h = 1080;
            uint8_t plane = 0;
            int32_t ret = 0;
            bare_vplt(g.video->m_valio_fd, EN_VPLT_IOC_FR2IP_SetNextResolution, &plane, &next, &copy, &ret);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_push_frame_to_display";
        p.library = [] { quarvel_video_output_push_frame_to_display(g.video, &g.frame); };
        p.bare = [] { bare_source(&g.desc); };
        pairs->push_back(p);
    }
}

// Vsync timing, the decoder's frames in use and the presentation time.
void video_timing_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "video_output_get_vsync_info";
        p.library = [] {
            quarvel_video_output_vsync_info_s info;
            quarvel_video_output_get_vsync_info(g.video, &info);
            benchmark::DoNotOptimize(info);
        };
        p.bare = [] {
            uint8_t plane = 0;
            int32_t hz = 0, ret = 0;
            bare_vplt(g.video->m_valio_fd, EN_VPLT_IOC_FR2IP_GetVsyncHZ, &plane, &hz, nullptr, &ret);
            vplt_vsync_offset offset{0, 0};
            plane = 0;
            ret = 0;
            bare_vplt(g.video->m_valio_fd, EN_VPLT_IOC_FR2IP_GetOffsetFromVsync, &plane, &offset, nullptr,
                      &ret);
            benchmark::DoNotOptimize(offset);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_get_used_frames";
        p.library = [] {
            quarvel_video_used_frames_s used;
            quarvel_video_output_get_used_frames(g.video, &used);
            benchmark::DoNotOptimize(used);
        };
        p.bare = [] {
            uint8_t plane = 0;
            int32_t frames[2] = {0, 0}, ret = 0;
            bare_vplt(g.video->m_valio_fd, EN_VPLT_IOC_FR2IP_GetDirectlyFrames, &plane, frames, nullptr,
                      &ret);
            benchmark::DoNotOptimize(frames);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "video_output_set_pts";
        p.library = [] { quarvel_video_output_set_pts(g.video, 0x100000002LL); };
        p.bare = [] {
            uint8_t plane = 0;
            int32_t high = 1, low = 2, ret = 0;
            bare_vplt(g.video->m_valio_fd, EN_VPLT_IOC_FR2IP_SetPTS, &plane, &high, &low, &ret);
        };
        pairs->push_back(p);
    }
}

// The switch back to broadcast video.
void video_switch_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "video_output_notify_ta_switch (none pending)";
        p.library = [] { quarvel_video_output_notify_ta_switch(g.video); };
        pairs->push_back(p);
    }
    {
        // The library's time includes its audio-mute thread up to the thread's last request;
        // the bare side sends the thread's requests on the calling thread.
        Pair p;
        p.name = "video_output_notify_ta_switch (hand-back)";
        p.stateful = true;
        p.prepare = [] {
            quarvel_video_output_set_rect(g.video, &g.full);  // shown again
            setenv("TA_DTV_PRELOAD", "1", 1);
            closes_before = g.card_closes.load();
        };
        p.library = [] {
            quarvel_video_output_notify_ta_switch(g.video);
            wait_for_mute_thread(closes_before);
        };
        p.after = [] { std::this_thread::yield(); };
        p.bare = [] {
            bare_control_write("main out mute", 1);
            bare_mute(true);
            const int fd = open("/dev/video10", O_RDONLY);
            v4l2_drm frame;
            v4l2_ext_control control;
            memset(&control, 0, sizeof(control));
            control.id = V4L2_CID_GET_DISPLAY_FRAME_INFO;
            control.size = sizeof(v4l2_drm);
            control.ptr = &frame;
            v4l2_ext_controls controls;
            memset(&controls, 0, sizeof(controls));
            controls.ctrl_class = V4L2_CTRL_CLASS_DISPLAY_FRAME;
            controls.count = 1;
            controls.controls = &control;
            ioctl(fd, VIDIOC_G_EXT_CTRLS, &controls);
            close(fd);
            bare_source(&frame);
            bare_plane(g.full);
            bare_mute(false);
        };
        pairs->push_back(p);
    }
}

// Opening and closing the compressed-offload device.
void audio_handle_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "audio_output_open";
        p.stateful = true;
        p.library = [] { fresh_audio = quarvel_audio_output_open(kAudioDevice); };
        p.after = [] { quarvel_audio_output_close(fresh_audio); };
        p.bare = [] { bare_audio_fd = open(kAudioDevice, O_WRONLY); };
        p.after_bare = [] { close(bare_audio_fd); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_close";
        p.stateful = true;
        p.prepare = [] { fresh_audio = quarvel_audio_output_open(kAudioDevice); };
        p.library = [] { quarvel_audio_output_close(fresh_audio); };
        p.prepare_bare = [] { bare_audio_fd = open(kAudioDevice, O_WRONLY); };
        p.bare = [] {
            bare_control_write("qvl speaker main gain", 32768);
            bare_control_write("qvl hp main gain", 32768);
            bare_control_write("audio dec0 playback rate", 100);
            close(bare_audio_fd);
        };
        pairs->push_back(p);
    }
}

// The compressed stream: set-up, start, stop, sync mode, data and its progress.
void audio_stream_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "audio_output_setup";
        p.library = [] { quarvel_audio_output_setup(g.audio, &g.params); };
        p.bare = [] {
            const int fd = audio_fd();
            snd_compr_caps caps;
            memset(&caps, 0, sizeof(caps));
            ioctl(fd, SNDRV_COMPRESS_GET_CAPS, &caps);
            snd_compr_params params;
            memset(&params, 0, sizeof(params));
            params.buffer.fragment_size = caps.min_fragment_size;
            params.buffer.fragments = caps.max_fragments;
            params.codec.id = 2;
            params.codec.ch_in = params.codec.ch_out = 2;
            params.codec.sample_rate = 48000;
            params.codec.reserved[1] = EN_COMPRESS_SINK_OPS_SUPPORT_EXTRAINFO;
            ioctl(fd, SNDRV_COMPRESS_SET_PARAMS, &params);
            bare_metadata(fd, SNDRV_COMPRESS_SPDIF_DEVICE_INFO, 48000);
            bare_metadata(fd, SNDRV_COMPRESS_IS_CDDTS, 0);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_start";
        p.library = [] { quarvel_audio_output_start(g.audio); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_stop";
        p.stateful = true;
        p.prepare = [] { quarvel_audio_output_push_data(g.audio, g.block, kPayload, kExtra); };  // starts
        p.library = [] { quarvel_audio_output_stop(g.audio); };
        p.bare = [] { ioctl(audio_fd(), SNDRV_COMPRESS_STOP); };
        p.after_bare = [] {
            // Leaves the session's stream started, as the library side does.
            quarvel_audio_output_stop(g.audio);
            quarvel_audio_output_push_data(g.audio, g.block, kPayload, kExtra);
        };
        p.after = [] { quarvel_audio_output_push_data(g.audio, g.block, kPayload, kExtra); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_set_sync_mode";
        p.library = [] {
            quarvel_audio_output_set_sync_mode(g.audio, quarvel_audio_output_sync_mode__sync_to_video);
        };
        p.bare = [] { bare_metadata(audio_fd(), SNDRV_COMPRESS_SYNC_MODE, EN_PROP_SYNC_MODE_NONE); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_push_data";
        p.library = [] { quarvel_audio_output_push_data(g.audio, g.block, kPayload, kExtra); };
        p.bare = [] {
            snd_compr_avail avail;
            ioctl(audio_fd(), SNDRV_COMPRESS_AVAIL, &avail);
            ssize_t n = write(audio_fd(), g.block, kPayload + kExtra);
            benchmark::DoNotOptimize(n);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_get_info";
        p.library = [] {
            quarvel_audio_output_info_s info;
            quarvel_audio_output_get_info(g.audio, &info);
            benchmark::DoNotOptimize(info);
        };
        p.bare = [] {
            const int fd = audio_fd();
            snd_compr_tstamp tstamp;
            ioctl(fd, SNDRV_COMPRESS_TSTAMP, &tstamp);
            snd_compr_metadata metadata;
            memset(&metadata, 0, sizeof(metadata));
            metadata.key = SNDRV_COMPRESS_GET_REMAINSIZE;
            ioctl(fd, SNDRV_COMPRESS_GET_METADATA, &metadata);
            snd_compr_avail avail;
            ioctl(fd, SNDRV_COMPRESS_AVAIL, &avail);
            benchmark::DoNotOptimize(avail);
        };
        pairs->push_back(p);
    }
}

// Gain and speed, through the sound card's mixer controls.
void audio_mixer_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "audio_output_volume_control";
        p.library = [] { quarvel_audio_output_volume_control(nullptr, 0.5f); };
        p.bare = [] {
            bare_control_write("qvl speaker main gain", 16384);
            bare_control_write("qvl hp main gain", 16384);
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "audio_output_speed_control";
        p.library = [] { quarvel_audio_output_speed_control(nullptr, 1.5f); };
        p.bare = [] { bare_control_write("audio dec0 playback rate", 150); };
        pairs->push_back(p);
    }
}

// Diagnostics: no driver requests (the mask is read from the marker files).
void diagnostics_pairs(std::vector<Pair>* pairs) {
    {
        Pair p;
        p.name = "ruvo_interface_debug_init";
        p.library = [] {
            ruvo_interface_debug_init();
            g_ruvo_logmask = RUVO_LOG_ERR;
        };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "ruvo_dbg_enable";
        p.library = [] { ruvo_dbg_enable(); };
        pairs->push_back(p);
    }
    {
        Pair p;
        p.name = "ruvo_dbg_disable";
        p.library = [] { ruvo_dbg_disable(); };
        pairs->push_back(p);
    }
}

// Every pair, video first, then audio and diagnostics.
std::vector<Pair> make_pairs() {
    std::vector<Pair> pairs;
    video_handle_pairs(&pairs);
    video_geometry_pairs(&pairs);
    video_frame_pairs(&pairs);
    video_timing_pairs(&pairs);
    video_switch_pairs(&pairs);
    audio_handle_pairs(&pairs);
    audio_stream_pairs(&pairs);
    audio_mixer_pairs(&pairs);
    diagnostics_pairs(&pairs);
    return pairs;
}

// ---- Google Benchmark ----------------------------------------------------------------------

constexpr int kRepetitions = 5;

// A call that needs steps around it: only the call itself is timed (manual timing, so that
// pausing the benchmark's own clock costs nothing).
void run_side(benchmark::State& state, const std::function<void()>& prepare,
              const std::function<void()>& call, const std::function<void()>& after) {
    for (auto _ : state) {
        prepare();
        const auto start = std::chrono::steady_clock::now();
        call();
        const auto end = std::chrono::steady_clock::now();
        after();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    }
}

void run_plain(benchmark::State& state, const std::function<void()>& call) {
    for (auto _ : state)
        call();
}

// Keeps the median real time of every benchmark and prints the ratios at the end.
class CostReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (median)
                real_[run.run_name.function_name] = run.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void print(const std::vector<Pair>& pairs, std::ostream& out, FILE* table) const {
        out << "\nmedian real time per call, ns        library       bare    ratio\n";
        for (const Pair& p : pairs) {
            const auto lib = real_.find("library/" + p.name);
            const auto bare = real_.find("bare/" + p.name);
            if (lib == real_.end())
                continue;
            char line[256];
            if (bare != real_.end() && bare->second > 0) {
                snprintf(line, sizeof(line), "  %-44s %10.0f %10.0f %8.2f\n", p.name.c_str(), lib->second,
                         bare->second, lib->second / bare->second);
                if (table)
                    fprintf(table, "%s\t%.0f\t%.0f\n", p.name.c_str(), lib->second, bare->second);
            } else {
                snprintf(line, sizeof(line), "  %-44s %10.0f %10s %8s\n", p.name.c_str(), lib->second, "-",
                         "-");
                if (table)
                    fprintf(table, "%s\t%.0f\t-\n", p.name.c_str(), lib->second);
            }
            out << line;
        }
    }

  private:
    std::map<std::string, double> real_;
};

int run_benchmarks(int argc, char** argv, const char* table_path) {
    // The library prints to standard output; the report goes to the terminal the program
    // was started on.
    std::ofstream report("/dev/stdout");
    if (freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!start_session()) {
        fprintf(stderr, "costs_bench: could not start a session on the emulated platform\n");
        return 1;
    }
    const std::vector<Pair> pairs = make_pairs();
    for (const Pair& p : pairs) {
        // Each bare run comes right before its library run, so that drift of the machine
        // hits both alike.
        auto configure = [&p](benchmark::internal::Benchmark* b) {
            b->Repetitions(kRepetitions)->ReportAggregatesOnly(true);
            if (p.stateful)
                b->UseManualTime();
            else
                b->UseRealTime();
        };
        if (p.bare) {
            configure(benchmark::RegisterBenchmark(("bare/" + p.name).c_str(), [&p](benchmark::State& s) {
                if (p.stateful)
                    run_side(s, p.prepare_bare, p.bare, p.after_bare);
                else
                    run_plain(s, p.bare);
            }));
        }
        configure(benchmark::RegisterBenchmark(("library/" + p.name).c_str(), [&p](benchmark::State& s) {
            if (p.stateful)
                run_side(s, p.prepare, p.library, p.after);
            else
                run_plain(s, p.library);
        }));
    }
    CostReporter reporter;
    reporter.SetOutputStream(&report);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    FILE* table = table_path ? fopen(table_path, "w") : nullptr;
    reporter.print(pairs, report, table);
    if (table)
        fclose(table);
    end_session();
    benchmark::Shutdown();
    return 0;
}

// ---- Callgrind -------------------------------------------------------------------------------

void measure_under_callgrind(const std::string& label, int n, const std::function<void()>& prepare,
                             const std::function<void()>& call, const std::function<void()>& after) {
    // A few uncounted runs first: caches, lazily made objects, the allocator's arenas.
    for (int i = 0; i < 5; ++i) {
        prepare();
        call();
        after();
    }
    for (int i = 0; i < n; ++i) {
        prepare();
        CALLGRIND_TOGGLE_COLLECT;
        call();
        CALLGRIND_TOGGLE_COLLECT;
        after();
    }
    CALLGRIND_DUMP_STATS_AT(label.c_str());
}

int run_callgrind(int n) {
    if (freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    if (!start_session())
        return 1;
    const std::vector<Pair> pairs = make_pairs();
    for (const Pair& p : pairs) {
        if (p.bare)
            measure_under_callgrind("bare " + p.name, n, p.prepare_bare, p.bare, p.after_bare);
        measure_under_callgrind("library " + p.name, n, p.prepare, p.library, p.after);
        fprintf(stderr, "callgrind: %s\n", p.name.c_str());
    }
    end_session();
    if (!RUNNING_ON_VALGRIND)
        fprintf(stderr, "costs_bench: --callgrind counts nothing outside valgrind --tool=callgrind\n");
    return 0;
}

// ---- Counts ----------------------------------------------------------------------------------

int run_counts() {
    FILE* out = fdopen(dup(1), "w");
    if (out == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
        return 1;
    if (!start_session())
        return 1;
    emutv::Platform& tv = emutv::platform();
    const std::vector<Pair> pairs = make_pairs();
    fprintf(out, "call\tioctls+writes\topens\tcloses\tallocations\town\n");
    for (const Pair& p : pairs) {
        for (int i = 0; i < 3; ++i) {  // steady state
            p.prepare();
            p.library();
            p.after();
        }
        p.prepare();
        const size_t requests = tv.total_requests();
        const size_t opens = tv.count("open");
        const size_t closes = tv.count("close");
        ruvo_kit::start_call_site_count();
        p.library();
        const ruvo_kit::CallSiteCounts counted = ruvo_kit::stop_call_site_count();
        fprintf(out, "%s\t%zu\t%zu\t%zu\t%ld\t%ld\n", p.name.c_str(), tv.total_requests() - requests,
                tv.count("open") - opens, tv.count("close") - closes, counted.total, counted.own);
        p.after();
    }
    end_session();
    fclose(out);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* table = nullptr;
    std::vector<char*> args;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--callgrind") == 0) {
            const int n = i + 1 < argc && atoi(argv[i + 1]) > 0 ? atoi(argv[i + 1]) : 200;
            return run_callgrind(n);
        }
        if (strcmp(argv[i], "--counts") == 0)
            return run_counts();
        if (strcmp(argv[i], "--costs-out") == 0 && i + 1 < argc) {
            table = argv[++i];
            continue;
        }
        args.push_back(argv[i]);
    }
    int n = static_cast<int>(args.size());
    return run_benchmarks(n, args.data(), table);
}
