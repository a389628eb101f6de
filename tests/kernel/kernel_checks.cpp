// Checks run on a real ARM kernel (Debian's armhf kernel under qemu-system-arm, see
// scripts/kernel-witness.sh): the library's standard DRM and ALSA requests on a generic
// DRM driver (virtio-gpu) and a real sound card (snd-aloop). Linked with the shipped
// library only. Each check prints one line
//     KW {"check": NAME, "ok": true|false, ...}
// and the library's own lines of that check, indented, above it.
#include <alsa/asoundlib.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>
#include <drm_fourcc.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <functional>
#include <string>
#include <vector>

#include "ruvo/quarvel_audio_output.h"
#include "ruvo/quarvel_video_output.h"

namespace {

// The request numbers the library sends, as the 32-bit ARM kernel defines them.
static_assert(DRM_IOCTL_MODE_CREATE_DUMB == 0xC02064B2, "create dumb record size");
static_assert(DRM_IOCTL_MODE_RMFB == 0xC00464AF, "rmfb record size");
static_assert(DRM_IOCTL_MODE_DESTROY_DUMB == 0xC00464B4, "destroy dumb record size");

const char* const kCard = "hw:0";
const char* const kGains[] = {"qvl speaker main gain", "qvl hp main gain"};
const char* const kRate = "audio dec0 playback rate";
const char* const kMute = "main out mute";

int failures = 0;

std::string quote(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += (static_cast<unsigned char>(c) < 0x20) ? ' ' : c;
    }
    return out + "\"";
}

// One result line; `fields` is a list of ", \"key\": value" pieces.
void report(const std::string& check, bool ok, const std::string& fields) {
    if (!ok)
        ++failures;
    printf("KW {\"check\": %s, \"ok\": %s%s}\n", quote(check).c_str(), ok ? "true" : "false", fields.c_str());
    fflush(stdout);
}

std::string field(const char* key, long long v) {
    return std::string(", \"") + key + "\": " + std::to_string(v);
}
std::string field(const char* key, const std::string& v) {
    return std::string(", \"") + key + "\": " + quote(v);
}

int open_descriptors() {
    int n = 0;
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d))
            n += e->d_name[0] != '.';
        closedir(d);
        --n;  // the directory's own descriptor
    }
    return n;
}

// Runs fn with standard output in a file and returns what was printed; the lines are
// echoed indented, so that the log shows the library's own words.
std::string captured(const std::function<void()>& fn) {
    const char* path = "/tmp/kw-capture";
    fflush(stdout);
    int saved = dup(1);
    int fd = open(path, O_RDWR | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 1);
    close(fd);
    fn();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string text;
    if (FILE* f = fopen(path, "r")) {
        char buf[512];
        while (fgets(buf, sizeof(buf), f))
            text += buf;
        fclose(f);
    }
    unlink(path);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        printf("  | %s\n", text.substr(start, end - start).c_str());
        start = end + 1;
    }
    return text;
}

bool contains(const std::string& text, const std::string& what) {
    return text.find(what) != std::string::npos;
}

// ---- records on the real ABI -----------------------------------------------------------

// The DRM requests of the library's open and close, sent directly with a buffer the
// generic driver takes (32 bits per pixel): each must succeed, so no record size is off.
void check_drm_records() {
    int fd = open("/dev/dri/card0", O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        report("records.drm", false, field("error", strerror(errno)));
        return;
    }
    std::string fields;
    bool ok = true;
    auto step = [&](const char* name, int r) {
        int err = r < 0 ? errno : 0;
        fields += field(name, err ? std::string(strerror(err)) : std::string("ok"));
        ok = ok && r == 0;
    };
    drmModeRes* res = drmModeGetResources(fd);
    step("GETRESOURCES", res ? 0 : -1);
    if (res) {
        for (int i = 0; i < res->count_connectors; ++i) {
            drmModeConnector* c = drmModeGetConnector(fd, res->connectors[i]);
            step("GETCONNECTOR", c ? 0 : -1);
            if (c && c->encoder_id) {
                drmModeEncoder* e = drmModeGetEncoder(fd, c->encoder_id);
                step("GETENCODER", e ? 0 : -1);
                drmModeFreeEncoder(e);
            }
            drmModeFreeConnector(c);
        }
        drmModeFreeResources(res);
    }
    drmModePlaneRes* planes = drmModeGetPlaneResources(fd);
    step("GETPLANERESOURCES", planes ? 0 : -1);
    drmModeFreePlaneResources(planes);
    drm_mode_create_dumb dumb{};
    dumb.width = 64;
    dumb.height = 64;
    dumb.bpp = 32;
    step("CREATE_DUMB(bpp=32)", ioctl(fd, DRM_IOCTL_MODE_CREATE_DUMB, &dumb));
    uint32_t handles[4] = {dumb.handle, 0, 0, 0}, pitches[4] = {64 * 4, 0, 0, 0}, offsets[4] = {0, 0, 0, 0};
    uint32_t fb = 0;
    step("ADDFB2", drmModeAddFB2(fd, 64, 64, DRM_FORMAT_XRGB8888, handles, pitches, offsets, &fb, 0));
    step("RMFB", ioctl(fd, DRM_IOCTL_MODE_RMFB, &fb));
    drm_mode_destroy_dumb destroy{};
    destroy.handle = dumb.handle;
    step("DESTROY_DUMB", ioctl(fd, DRM_IOCTL_MODE_DESTROY_DUMB, &destroy));
    // The library's placeholder: the same record with bytes per pixel in bpp.
    drm_mode_create_dumb four{};
    four.width = 64;
    four.height = 64;
    four.bpp = 4;
    int r = ioctl(fd, DRM_IOCTL_MODE_CREATE_DUMB, &four);
    int err = r < 0 ? errno : 0;
    fields += field("CREATE_DUMB(bpp=4)", err ? std::string(strerror(err)) : std::string("ok"));
    if (r == 0) {
        drm_mode_destroy_dumb d{};
        d.handle = four.handle;
        ioctl(fd, DRM_IOCTL_MODE_DESTROY_DUMB, &d);
    }
    close(fd);
    report("records.drm", ok, fields);
}

// ---- the video output's open sequence --------------------------------------------------

void place_stand_in(const char* path) {
    unlink(path);
    if (symlink("/dev/null", path) != 0)
        printf("cannot link %s: %s\n", path, strerror(errno));
}

void check_video_open(const char* name, const char* expected_line) {
    int before = open_descriptors();
    quarvel_video_output_s* out = nullptr;
    std::string text = captured([&] { out = quarvel_video_output_open(false); });
    if (out)
        captured([&] { quarvel_video_output_close(out); });
    int after = open_descriptors();
    bool ok = out == nullptr && contains(text, expected_line) && before == after;
    report(name, ok,
           field("handle", out ? "opened" : "null") + field("expected_line", expected_line) +
               field("line_found", contains(text, expected_line) ? "yes" : "no") +
               field("fds_before", before) + field("fds_after", after));
}

void check_open_sequence() {
    // Nothing of the chip: the first device the library needs is missing.
    check_video_open("open.no-chip-devices", "Failed valio init");
    // With stand-ins for the chip's video-platform and Dolby nodes (/dev/null: open works,
    // every private request would fail as on any node without that driver) the library
    // reaches the DRM steps. The generic driver takes bpp as bits and turns 4 down.
    place_stand_in("/tmp/qvkvplt");
    place_stand_in("/tmp/kdolby");
    check_video_open("open.generic-drm", "ioctl(DRM_IOCTL_MODE_CREATE_DUMB) failed: Invalid argument");
    check_video_open("open.generic-drm-again", "ioctl(DRM_IOCTL_MODE_CREATE_DUMB) failed: Invalid argument");
    unlink("/tmp/qvkvplt");
    unlink("/tmp/kdolby");
}

// ---- mixer -----------------------------------------------------------------------------

snd_ctl_t* ctl = nullptr;

void set_id(snd_ctl_elem_id_t* id, const char* name) {
    snd_ctl_elem_id_clear(id);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_device(id, 0);
    snd_ctl_elem_id_set_name(id, name);
}

int add_control(const char* name) {
    snd_ctl_elem_id_t* id;
    snd_ctl_elem_id_alloca(&id);
    set_id(id, name);
    return snd_ctl_elem_add_integer(ctl, id, 1, -2147483647L - 1, 2147483647L, 1);
}

int remove_control(const char* name) {
    snd_ctl_elem_id_t* id;
    snd_ctl_elem_id_alloca(&id);
    set_id(id, name);
    return snd_ctl_elem_remove(ctl, id);
}

// The value the kernel holds; -2^62 when it cannot be read.
long long kernel_value(const char* name) {
    snd_ctl_elem_value_t* v;
    snd_ctl_elem_value_alloca(&v);
    snd_ctl_elem_value_set_interface(v, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_value_set_name(v, name);
    if (snd_ctl_elem_read(ctl, v) < 0)
        return -(1LL << 62);
    return snd_ctl_elem_value_get_integer(v, 0);
}

void write_zero(const char* name) {
    snd_ctl_elem_value_t* v;
    snd_ctl_elem_value_alloca(&v);
    snd_ctl_elem_value_set_interface(v, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_value_set_name(v, name);
    snd_ctl_elem_value_set_integer(v, 0, 0);
    snd_ctl_elem_write(ctl, v);
}

// A user-defined control stays locked to the control device that added it (others get
// EPERM on write) until that device is closed: the checks add, close and open again.
int reopen_card() {
    if (ctl)
        snd_ctl_close(ctl);
    ctl = nullptr;
    return snd_ctl_open(&ctl, kCard, 0);
}

bool setup_controls() {
    int err = reopen_card();
    if (err < 0) {
        report("mixer.setup", false, field("error", snd_strerror(err)));
        return false;
    }
    std::string fields;
    bool ok = true;
    for (const char* name : {kGains[0], kGains[1], kRate, kMute}) {
        err = add_control(name);
        fields += field(name, err < 0 ? std::string(snd_strerror(err)) : std::string("added"));
        ok = ok && err >= 0;
    }
    err = reopen_card();
    ok = ok && err >= 0;
    report("mixer.setup", ok, field("card", kCard) + fields);
    return ok;
}

void check_volume(float volume, long long expected) {
    for (const char* g : kGains)
        write_zero(g);
    int r = 0;
    captured([&] { r = quarvel_audio_output_volume_control(nullptr, volume); });
    long long speaker = kernel_value(kGains[0]), hp = kernel_value(kGains[1]);
    char name[64];
    snprintf(name, sizeof(name), "mixer.volume(%g)", static_cast<double>(volume));
    report(
        name, r == 0 && speaker == expected && hp == expected,
        field("result", r) + field("expected", expected) + field(kGains[0], speaker) + field(kGains[1], hp));
}

void check_speed(float speed, long long expected) {
    write_zero(kRate);
    int r = 0;
    captured([&] { r = quarvel_audio_output_speed_control(nullptr, speed); });
    long long rate = kernel_value(kRate);
    char name[64];
    snprintf(name, sizeof(name), "mixer.speed(%g)", static_cast<double>(speed));
    report(name, r == 0 && rate == expected,
           field("result", r) + field("expected", expected) + field(kRate, rate));
}

// A successful audio output open (on the loopback card's playback node) and its close:
// close puts gain and rate back to 1.0, and every descriptor is returned.
void check_audio_close() {
    const char* node = "/dev/snd/pcmC0D0p";
    captured([&] { quarvel_audio_output_volume_control(nullptr, 2.0f); });
    captured([&] { quarvel_audio_output_speed_control(nullptr, 1.5f); });
    int before = open_descriptors();
    quarvel_audio_output_s* out = nullptr;
    captured([&] { out = quarvel_audio_output_open(node); });
    int while_open = open_descriptors();
    if (out)
        captured([&] { quarvel_audio_output_close(out); });
    int after = open_descriptors();
    long long speaker = kernel_value(kGains[0]), hp = kernel_value(kGains[1]), rate = kernel_value(kRate);
    report("mixer.audio-output-close",
           out != nullptr && speaker == 32768 && hp == 32768 && rate == 100 && before == after &&
               while_open == before + 1,
           field("node", node) + field(kGains[0], speaker) + field(kGains[1], hp) + field(kRate, rate) +
               field("fds_before", before) + field("fds_open", while_open) + field("fds_after", after));
}

// The hand-back's audio-mute thread, started by notify_ta_switch on a plane handle while
// "TA_DTV_PRELOAD" is "1". The handle is made here (a generic DRM driver gives no open
// handle); its rectangle is empty, so no video request is sent, and the broadcast decoder
// node is missing, so the switch ends after starting the thread.
void check_mute_thread() {
    write_zero(kMute);
    auto* h = new quarvel_video_output_s{};
    h->m_valio_fd = h->m_dolby_fd = h->m_drm_fd = h->m_de_fd = -1;
    h->pre_source = 14;
    h->m_plane_type = 5;
    h->m_gem_buf_idx = -1;
    h->m_dv_profile = -1;
    setenv("TA_DTV_PRELOAD", "1", 1);
    std::string text = captured([&] {
        quarvel_video_output_notify_ta_switch(h);
        // The thread is detached: wait for the kernel to hold the value (up to 20 s).
        for (int i = 0; i < 200 && kernel_value(kMute) != 1; ++i)
            usleep(100000);
        usleep(200000);
    });
    long long mute = kernel_value(kMute);
    bool line = contains(text, "set audio mute");
    report("mixer.hand-back-mute", mute == 1 && line,
           field(kMute, mute) + field("thread_line", line ? "yes" : "no") +
               field("broadcast_node", contains(text, "core_v4l2_open failed :errno(2)") ? "missing" : "?"));
    delete h;
    unsetenv("TA_DTV_PRELOAD");
}

void check_missing_control() {
    int removed = remove_control(kRate);
    int r = 0;
    std::string text = captured([&] { r = quarvel_audio_output_speed_control(nullptr, 1.0f); });
    const std::string expected =
        "Error! Could not found the card default ctrl audio dec0 playback rate error:0";
    bool line = contains(text, expected);
    report("mixer.missing-control", removed >= 0 && r == -1 && line,
           field("removed", removed) + field("result", r) + field("expected_line", expected) +
               field("line_found", line ? "yes" : "no"));
    add_control(kRate);
    reopen_card();
}

// ---- compressed offload ----------------------------------------------------------------

void check_compr_open() {
    const char* node = "/dev/snd/comprC0D0";
    int fd = open(node, O_WRONLY);
    int kernel_errno = fd < 0 ? errno : 0;
    if (fd >= 0)
        close(fd);
    int before = open_descriptors();
    quarvel_audio_output_s* out = nullptr;
    std::string text = captured([&] { out = quarvel_audio_output_open(node); });
    int after = open_descriptors();
    std::string expected = std::string("open(") + node + ") failed: " + strerror(kernel_errno);
    bool line = contains(text, expected);
    report("compr.open-missing-node", out == nullptr && kernel_errno != 0 && line && before == after,
           field("node", node) + field("kernel_errno", kernel_errno) + field("expected_line", expected) +
               field("line_found", line ? "yes" : "no") + field("fds_before", before) +
               field("fds_after", after));
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    check_drm_records();
    check_open_sequence();
    if (setup_controls()) {
        check_volume(1.0f, 32768);
        check_volume(2.0f, 65536);
        check_volume(0.5f, 16384);
        check_volume(1e10f, 2147483647LL);
        check_volume(-1.0f, -32768);
        check_volume(-1e10f, -2147483647LL - 1);
        check_speed(1.0f, 100);
        check_speed(0.999f, 99);
        check_audio_close();
        check_mute_thread();
        check_missing_control();
    }
    check_compr_open();
    if (ctl)
        snd_ctl_close(ctl);
    printf("KW-CHECKS-DONE failures=%d\n", failures);
    return failures ? 1 : 0;
}
