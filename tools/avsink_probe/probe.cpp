// avsink-probe: what the AV sink library finds on this TV, without changing anything the
// viewer sees. Only queries are sent, apart from what opening and closing a video output
// does by itself (one placeholder framebuffer, created by open and removed by close).
#include "probe.h"

#include <alsa/asoundlib.h>
#include <stdio.h>

#include "ruvo/driver/sdp_drm.h"
#include "ruvo/quarvel_video_output.h"

namespace avsink_probe {

namespace {

const char* const kPlaneTypes[] = {"OSDP",   "GP",      "SGP",   "CURSOR1", "CURSOR2", "DP_MAIN",
                                   "DP_SUB", "DP_SUB2", "DP_BG", "YUVP",    "TP"};

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

void list_mixer(const std::string& card) {
    snd_hctl_t* hctl = nullptr;
    int err = snd_hctl_open(&hctl, card.c_str(), 0);
    if (err < 0) {
        printf("probe: mixer: cannot open '%s': %s\n", card.c_str(), snd_strerror(err));
        return;
    }
    err = snd_hctl_load(hctl);
    if (err < 0) {
        printf("probe: mixer: cannot load '%s': %s\n", card.c_str(), snd_strerror(err));
        snd_hctl_close(hctl);
        return;
    }
    printf("probe: mixer controls on '%s': %u\n", card.c_str(), snd_hctl_get_count(hctl));
    snd_ctl_elem_info_t* info;
    snd_ctl_elem_value_t* value;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_value_alloca(&value);
    for (snd_hctl_elem_t* e = snd_hctl_first_elem(hctl); e; e = snd_hctl_elem_next(e)) {
        printf("probe: mixer control: '%s' numid=%u iface=%s", snd_hctl_elem_get_name(e),
               snd_hctl_elem_get_numid(e), snd_ctl_elem_iface_name(snd_hctl_elem_get_interface(e)));
        if (snd_hctl_elem_info(e, info) < 0) {
            printf(" (no info)\n");
            continue;
        }
        snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
        unsigned count = snd_ctl_elem_info_get_count(info);
        printf(" type=%s count=%u", elem_type_name(type), count);
        if (type == SND_CTL_ELEM_TYPE_INTEGER)
            printf(" range=%ld..%ld", snd_ctl_elem_info_get_min(info), snd_ctl_elem_info_get_max(info));
        if (snd_ctl_elem_info_is_readable(info) && snd_hctl_elem_read(e, value) >= 0 &&
            (type == SND_CTL_ELEM_TYPE_INTEGER || type == SND_CTL_ELEM_TYPE_BOOLEAN)) {
            printf(" value=");
            for (unsigned i = 0; i < count && i < 8; ++i)
                printf("%s%ld", i ? "," : "",
                       type == SND_CTL_ELEM_TYPE_INTEGER
                           ? snd_ctl_elem_value_get_integer(value, i)
                           : static_cast<long>(snd_ctl_elem_value_get_boolean(value, i)));
        }
        printf("\n");
    }
    snd_hctl_close(hctl);
}

}  // namespace

int run_probe(const ProbeOptions& options) {
    printf("probe: opening a video output\n");
    fflush(stdout);
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    if (!out) {
        printf("probe: quarvel_video_output_open failed (the library's lines above say why)\n");
        if (options.mixer)
            list_mixer(options.card);
        fflush(stdout);
        return 1;
    }
    printf("probe: drm fd: %d\n", out->m_drm_fd);
    printf("probe: connector: %u\n", out->m_con_id);
    printf("probe: crtc: %u\n", out->m_crtc_id);
    printf("probe: panel: %dx%d\n", out->m_panel_width, out->m_panel_height);
    int w = 0, h = 0;
    quarvel_video_output_get_panel_size(out, &w, &h);
    printf("probe: get_panel_size: %dx%d\n", w, h);
    const DRMBuffer& b = out->m_drm_buffers[0];
    printf("probe: placeholder framebuffer: fb=%u dumb=%u stride=%u size=%u\n", b.fb_handle, b.bo_handle,
           b.stride, b.size);
    for (int t = 0; t < 11; ++t)
        if (out->m_plane_obj_id[t] != 0)
            printf("probe: plane %s(%d): %d\n", kPlaneTypes[t], t, out->m_plane_obj_id[t]);
    if (out->m_plane_type < 11)
        printf("probe: video plane: %d (type %s)\n", out->m_plane_obj_id[out->m_plane_type],
               kPlaneTypes[out->m_plane_type]);
    fflush(stdout);

    quarvel_video_output_vsync_info_s vs{};
    int r = quarvel_video_output_get_vsync_info(out, &vs);
    if (r == 0) {
        printf("probe: vsync fps: %.6f\n", vs.fps);
        printf("probe: vsync offset: %d s %d ns\n", vs.tv_sec, vs.tv_nsec);
    } else {
        printf("probe: vsync: not available (result %d)\n", r);
    }
    quarvel_video_used_frames_s used{};
    r = quarvel_video_output_get_used_frames(out, &used);
    if (r == 0)
        printf("probe: decoder frames: dec0=%u dec1=%u\n", used.used_by_decoder[0], used.used_by_decoder[1]);
    else
        printf("probe: decoder frames: not available (result %d)\n", r);
    fflush(stdout);

    if (options.mixer)
        list_mixer(options.card);
    printf("probe: closing the video output\n");
    fflush(stdout);
    quarvel_video_output_close(out);
    fflush(stdout);
    return 0;
}

const char* probe_usage() {
    return R"(Usage: avsink-probe [--card NAME] [--no-mixer]

Read-only look at what the AV sink library finds on this TV. Opens a video output and
prints (lines starting with "probe: ", between the library's own lines):
  drm fd, connector, crtc, panel size (also through get_panel_size), the placeholder
  framebuffer, the plane object id of each plane type and the video plane,
  vsync rate and offset (get_vsync_info), decoder frame usage (get_used_frames),
  the mixer controls of the ALSA control device NAME (default "default") with
  their type, range and value,
then closes the output.

Safe on a TV that is showing something: it programs no plane, sends no display
source, mutes nothing, changes no queue size and writes no mixer control. Opening
a video output creates one placeholder framebuffer (a dumb buffer of the panel's
size) and closing removes it again; that is the library's own doing.

Options:
  --card NAME   ALSA control device to list (default "default")
  --no-mixer    do not list mixer controls
  -h, --help    this text

Exit status: 0 the video output opened; 1 it did not; 2 bad command line.
)";
}

}  // namespace avsink_probe
