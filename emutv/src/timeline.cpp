// The platform clock (virtual or CLOCK_MONOTONIC), the vsync grid at the panel rate, the
// frame the main plane latches at each vsync, the audio decoder's periods and the
// timeline log they are written to.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <sstream>

#include <drm.h>
#include <drm_mode.h>
#include <sound/asound.h>
#include <sound/compress_offload.h>

#include "core.h"
#include "emutv/audio_decoder.h"
#include "emutv/fingerprint.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/vplt_ioctl.h"
#include "timeline_internal.h"

namespace emutv {
namespace detail {

namespace {

constexpr int64_t kNoPicture = 0xFFFFFFFFLL;  // display index of an announcement without picture

int64_t monotonic_ns() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Duration of n panel periods at hz mHz, without overflow on 32-bit systems.
int64_t periods_ns(int64_t n, int32_t hz) {
    const int64_t per_mhz = 1000000000000LL;
    return n / hz * per_mhz + n % hz * per_mhz / hz;
}

int64_t vsync_time(const Timeline& t, int64_t k) {
    return t.origin_ns + periods_ns(k - t.origin_k, t.hz);
}

// The panel rate changed (or the grid was never laid): the grid goes on from the last
// vsync at the new rate.
void relay_grid(Timeline& t, int32_t hz) {
    t.origin_ns = t.last_vsync_ns;
    t.origin_k = t.next_k - 1;
    t.hz = hz;
}

void write_entry(Timeline& t, const TimelineEntry& e) {
    if (t.listener)
        t.listener(e);
    if (t.log_fd >= 0) {
        std::string line = e.json(static_cast<int>(getpid()));
        line += '\n';
        size_t off = 0;
        while (off < line.size()) {
            long n = sys_write(t.log_fd, line.data() + off, line.size() - off);
            if (n <= 0)
                break;
            off += static_cast<size_t>(n);
        }
    }
}

void follow_mixer(Timeline& t) {
    const auto& writes = core().model<SoundCardModel>(Device::SoundCtl).writes;
    if (writes.size() < t.mixer_writes_seen) {
        t.mixer_writes_seen = 0;
        t.rate_percent = 100;
        t.audio_muted = false;
    }
    for (size_t i = t.mixer_writes_seen; i < writes.size(); ++i) {
        if (writes[i].name == "audio dec0 playback rate")
            t.rate_percent = writes[i].value;
        else if (writes[i].name == "main out mute")
            t.audio_muted = writes[i].value != 0;
    }
    t.mixer_writes_seen = writes.size();
}

void advance_audio(Timeline& t, int64_t until_ns) {
    ComprModel& m = core().model<ComprModel>(Device::Compr);
    m.decoder.advance(until_ns, t.rate_percent, [&](const AudioDecoder::Period& p) {
        if (!t.listener && t.log_fd < 0)
            return;
        TimelineEntry e;
        e.type = TimelineEntry::Type::Audio;
        e.t_ns = p.t_ns;
        e.frames = m.decoder.frames_played();
        e.played = p.played;
        e.media_us = m.decoder.media_us();
        e.audio_muted = t.audio_muted;
        e.rate = t.rate_percent;
        e.queued = m.decoder.queued();
        e.avail = m.decoder.avail();
        e.undecodable = m.decoder.undecodable();
        write_entry(t, e);
    });
}

void emit_vsync(Timeline& t, int64_t k, int64_t at_ns) {
    TimelineEntry e;
    e.fresh = t.pending > 0;
    e.dropped = t.pending > 0 ? t.pending - 1 : 0;
    if (t.pending > 0)
        t.latched = t.announced;
    t.pending = 0;
    t.last_vsync_ns = at_ns;
    if (!t.listener && t.log_fd < 0) {
        t.pts_since.clear();
        return;
    }
    e.type = TimelineEntry::Type::Vsync;
    e.t_ns = at_ns;
    e.vsync = k;
    e.frame = t.latched;
    e.has_pts = t.has_pts;
    e.pts = t.pts;
    e.pts_set.swap(t.pts_since);
    e.has_plane = t.has_plane;
    e.x = t.x;
    e.y = t.y;
    e.w = t.w;
    e.h = t.h;
    e.muted = t.muted;
    e.source = t.source;
    write_entry(t, e);
}

}  // namespace

Timeline& timeline() {
    static Timeline* t = new Timeline();
    return *t;
}

int64_t clock_now_ns() {
    const Timeline& t = timeline();
    return t.mode == ClockMode::Real ? monotonic_ns() : t.virtual_ns;
}

void timeline_sync() {
    Timeline& t = timeline();
    const int64_t now = clock_now_ns();
    const int32_t hz = core().model<VpltModel>(Device::Vplt).vsync_hz;
    // Nothing moved since the last catch-up (the virtual clock between two of its steps).
    if (now == t.synced_ns && hz == t.hz &&
        core().model<SoundCardModel>(Device::SoundCtl).writes.size() == t.mixer_writes_seen)
        return;
    t.synced_ns = now;
    follow_mixer(t);
    if (hz != t.hz)
        relay_grid(t, hz);
    if (hz > 0) {
        for (int64_t at = vsync_time(t, t.next_k); at <= now; at = vsync_time(t, t.next_k)) {
            advance_audio(t, at);
            emit_vsync(t, t.next_k, at);
            t.next_k++;
        }
    }
    advance_audio(t, now);
}

namespace {

bool logging(const Timeline& t) {
    return t.listener || t.log_fd >= 0;
}

void emit_event(Timeline& t, const std::string& what, const std::string& detail) {
    if (!logging(t))
        return;
    TimelineEntry e;
    e.type = TimelineEntry::Type::Event;
    e.t_ns = clock_now_ns();
    e.what = what;
    e.detail = detail;
    write_entry(t, e);
}

void note_resolution(Timeline& t, long long w, long long h) {
    if (w <= 0 || h <= 0 || (w == t.frame_w && h == t.frame_h))
        return;
    t.frame_w = static_cast<uint32_t>(w);
    t.frame_h = static_cast<uint32_t>(h);
    emit_event(t, "resolution", std::to_string(w) + "x" + std::to_string(h));
}

void note_mixer_write(Timeline& t) {
    const auto& writes = core().model<SoundCardModel>(Device::SoundCtl).writes;
    if (writes.empty())
        return;
    const SoundCardModel::Write& w = writes.back();
    if (w.name == "audio dec0 playback rate")
        emit_event(t, "speed", std::to_string(w.value));
    else if (w.name == "main out mute")
        emit_event(t, "audio-mute", w.value ? "on" : "off");
    else
        emit_event(t, "volume", w.name + "=" + std::to_string(w.value));
}

bool sets_up_or_stops_the_decoder(const Event& ev) {
    return ev.kind == Kind::Open || (ev.kind == Kind::Ioctl && (ev.request == SNDRV_COMPRESS_SET_PARAMS ||
                                                                ev.request == SNDRV_COMPRESS_STOP));
}

}  // namespace

void timeline_observe(const Event& ev) {
    Timeline& t = timeline();
    // In virtual time the plane is followed only for a listener or a log.
    if (t.mode == ClockMode::Virtual && !logging(t))
        return;
    if (ev.result < 0) {
        // Opens of absent nodes are how the library probes for devices: not a failure.
        const bool probe = ev.kind == Kind::Open && ev.err == ENOENT;
        if (logging(t) && ev.kind != Kind::Call && !probe)
            emit_event(t, "failed", ev.name + (ev.err ? std::string(" ") + strerror(ev.err) : std::string()));
        return;
    }
    if (ev.device == Device::Compr) {
        if (sets_up_or_stops_the_decoder(ev))
            t.audio_stream_fresh = true;
        return;
    }
    if (ev.device == Device::SoundCtl && ev.kind == Kind::Ioctl && ev.request == SNDRV_CTL_IOCTL_ELEM_WRITE) {
        note_mixer_write(t);
        return;
    }
    if (ev.device == Device::Drm && ev.kind == Kind::Ioctl) {
        if (ev.request == DRM_IOCTL_MODE_SETPLANE) {
            t.has_plane = true;
            t.x = static_cast<int32_t>(ev.field("crtc_x"));
            t.y = static_cast<int32_t>(ev.field("crtc_y"));
            t.w = static_cast<uint32_t>(ev.field("crtc_w"));
            t.h = static_cast<uint32_t>(ev.field("crtc_h"));
        } else if (ev.request == DRM_IOCTL_SDP_SET_ONOFF && ev.has("set_func") &&
                   ev.field("set_func") == DRM_SDP_FUNC_MUTE_ONOFF) {
            t.muted = ev.field("onoff_flag") != 0;
            emit_event(t, "mute", t.muted ? "on" : "off");
        } else if (ev.request == DRM_IOCTL_SDP_SET_DP_SOURCE) {
            const int port = static_cast<int>(ev.field("inputport"));
            if (port != t.source)
                emit_event(t, "source", input_port_name(port));
            t.source = port;
            note_resolution(t, ev.field("hres"), ev.field("vres"));
            const int64_t index = ev.field("display_index");
            if (index != kNoPicture) {
                t.has_announced = true;
                t.announced = index;
                t.pending++;
            }
        }
    } else if (ev.device == Device::Vplt && ev.kind == Kind::Ioctl && ev.has("cmd") &&
               ev.field("cmd") == EN_VPLT_IOC_FR2IP_SetNextResolution && ev.has("frame_hres")) {
        note_resolution(t, ev.field("frame_hres"), ev.field("frame_vres"));
    } else if (ev.device == Device::Vplt && ev.kind == Kind::Ioctl && ev.has("cmd") &&
               ev.field("cmd") == EN_VPLT_IOC_FR2IP_SetPTS) {
        t.has_pts = true;
        t.pts = core().model<VpltModel>(Device::Vplt).last_pts;
        t.pts_since.push_back(t.pts);
    }
}

void timeline_audio_data(const void* data, size_t size) {
    Timeline& t = timeline();
    if (!t.audio_stream_fresh)
        return;
    t.audio_stream_fresh = false;
    emit_event(t, "audio-stream", "tail=" + audio_tail_fingerprint(static_cast<const uint8_t*>(data), size));
}

void timeline_reset() {
    Timeline& t = timeline();
    Timeline fresh;
    fresh.mode = t.mode;
    fresh.log_fd = t.log_fd;
    fresh.log_path = t.log_path;
    // The virtual clock starts again at zero; the real one goes on.
    const int64_t now = t.mode == ClockMode::Real ? monotonic_ns() : 0;
    fresh.origin_ns = now;
    fresh.last_vsync_ns = now;
    fresh.synced_ns = now;
    fresh.hz = core().model<VpltModel>(Device::Vplt).vsync_hz;
    t = std::move(fresh);
}

void vsync_offset_now(int32_t* sec, int32_t* nsec) {
    // The request's time is that of the catch-up it began with.
    const int64_t since = timeline().synced_ns - timeline().last_vsync_ns;
    *sec = static_cast<int32_t>(since / 1000000000LL);
    *nsec = static_cast<int32_t>(since % 1000000000LL);
}

int32_t frames_not_latched() {
    return static_cast<int32_t>(timeline().pending);
}

}  // namespace detail

// ---- Platform: the clock and the timeline --------------------------------------------------

void Platform::set_clock_mode(ClockMode mode) {
    auto& c = detail::core();
    std::lock_guard<PlatformMutex> g(c.mu);
    detail::Timeline& t = detail::timeline();
    if (t.mode == mode)
        return;
    t.mode = mode;
    detail::timeline_reset();
    c.model<ComprModel>(Device::Compr).answers =
        mode == ClockMode::Real ? ComprModel::Answers::Modelled : ComprModel::Answers::Scripted;
}

ClockMode Platform::clock_mode() const {
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    return detail::timeline().mode;
}

void Platform::set_virtual_time_ns(int64_t t_ns) {
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    detail::Timeline& t = detail::timeline();
    if (t_ns <= t.virtual_ns)
        return;
    t.virtual_ns = t_ns;
    if (t.mode == ClockMode::Virtual)
        detail::timeline_sync();
}

int64_t Platform::now_ns() const {
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    return detail::clock_now_ns();
}

void Platform::sync_timeline() {
    detail::Inside inside;
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    detail::timeline_sync();
}

void Platform::set_timeline_listener(std::function<void(const TimelineEntry&)> listener) {
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    detail::timeline().listener = std::move(listener);
}

bool detail::open_log(const std::string& path, bool truncate, std::string* error) {
    Inside inside;
    std::lock_guard<PlatformMutex> g(core().mu);
    platform().close_timeline_log();
    // Appending, each line is one write: lines of processes sharing the file never mix.
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (truncate ? O_TRUNC : 0);
    int fd = sys_open(path.c_str(), flags, 0644);
    if (fd < 0) {
        if (error)
            *error = strerror(errno);
        return false;
    }
    timeline().log_fd = fd;
    timeline().log_path = path;
    return true;
}

bool Platform::open_timeline_log(const std::string& path, std::string* error) {
    return detail::open_log(path, true, error);
}

void Platform::close_timeline_log() {
    detail::Inside inside;
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    detail::Timeline& t = detail::timeline();
    if (t.log_fd >= 0)
        detail::sys_close(t.log_fd);
    t.log_fd = -1;
    t.log_path.clear();
}

// ---- The log's lines -------------------------------------------------------------------

const char* input_port_name(int port) {
    static const char* const kNames[] = {"dtv",   "mm",    "atv",  "av",         "component",
                                         "rgb",   "dvi",   "hdmi", "main_clone", "jpeg_swdec",
                                         "mjpeg", "scart", "dsp",  "lvdxrx",     "max"};
    return port >= 0 && port <= 14 ? kNames[port] : "?";
}

namespace {

std::string json_text(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '"' || c == '\\')
            out += '\\';
        if (static_cast<unsigned char>(c) >= 0x20)
            out += c;
    }
    return out;
}

// A string value written by json_text, from its opening quote.
std::string json_string(const char* v) {
    std::string out;
    if (!v || *v != '"')
        return out;
    for (const char* p = v + 1; *p && *p != '"'; ++p) {
        if (*p == '\\' && p[1])
            ++p;
        out += *p;
    }
    return out;
}

}  // namespace

std::string TimelineEntry::json(int pid) const {
    std::ostringstream o;
    if (type == Type::Vsync) {
        o << "{\"type\":\"vsync\",\"pid\":" << pid << ",\"t_ns\":" << t_ns << ",\"vsync\":" << vsync
          << ",\"frame\":" << frame << ",\"new\":" << (fresh ? "true" : "false") << ",\"dropped\":" << dropped
          << ",\"pts\":";
        if (has_pts)
            o << pts;
        else
            o << "null";
        o << ",\"pts_set\":[";
        for (size_t i = 0; i < pts_set.size(); ++i)
            o << (i ? "," : "") << pts_set[i];
        o << "],\"plane\":";
        if (has_plane)
            o << "{\"x\":" << x << ",\"y\":" << y << ",\"w\":" << w << ",\"h\":" << h << '}';
        else
            o << "null";
        o << ",\"muted\":" << (muted ? "true" : "false") << ",\"source\":";
        if (source >= 0)
            o << '"' << input_port_name(source) << '"';
        else
            o << "null";
        o << '}';
    } else if (type == Type::Event) {
        o << "{\"type\":\"event\",\"pid\":" << pid << ",\"t_ns\":" << t_ns << ",\"what\":\""
          << json_text(what) << "\",\"detail\":\"" << json_text(detail) << "\"}";
    } else {
        o << "{\"type\":\"audio\",\"pid\":" << pid << ",\"t_ns\":" << t_ns << ",\"frames\":" << frames
          << ",\"played\":" << played << ",\"media_us\":" << media_us
          << ",\"muted\":" << (audio_muted ? "true" : "false") << ",\"rate\":" << rate
          << ",\"queued\":" << queued << ",\"avail\":" << avail << ",\"undecodable\":" << undecodable << '}';
    }
    return o.str();
}

namespace {

// The text after "key": in a flat JSON line written by TimelineEntry::json.
const char* json_value(const std::string& line, const char* key) {
    std::string k = std::string("\"") + key + "\":";
    size_t p = line.find(k);
    return p == std::string::npos ? nullptr : line.c_str() + p + k.size();
}

bool json_int(const std::string& line, const char* key, int64_t* out) {
    const char* v = json_value(line, key);
    if (!v || !(*v == '-' || (*v >= '0' && *v <= '9')))
        return false;
    *out = strtoll(v, nullptr, 10);
    return true;
}

bool json_bool(const std::string& line, const char* key) {
    const char* v = json_value(line, key);
    return v && strncmp(v, "true", 4) == 0;
}

}  // namespace

bool parse_timeline_line(const std::string& line, TimelineEntry* out) {
    TimelineEntry e;
    int64_t v = 0;
    if (line.find("{\"type\":\"vsync\"") == 0) {
        e.type = TimelineEntry::Type::Vsync;
        if (!json_int(line, "t_ns", &e.t_ns) || !json_int(line, "vsync", &e.vsync) ||
            !json_int(line, "frame", &e.frame) || !json_int(line, "dropped", &e.dropped))
            return false;
        e.fresh = json_bool(line, "new");
        e.has_pts = json_int(line, "pts", &e.pts);
        const char* set = json_value(line, "pts_set");
        if (set && *set == '[') {
            for (const char* p = set + 1; *p && *p != ']';) {
                char* end = nullptr;
                e.pts_set.push_back(strtoll(p, &end, 10));
                p = *end == ',' ? end + 1 : end;
                if (end == p && *p != ']')
                    break;
            }
        }
        const char* plane = json_value(line, "plane");
        e.has_plane = plane && *plane == '{';
        if (e.has_plane) {
            std::string rect(plane, strchr(plane, '}') ? strchr(plane, '}') - plane + 1 : 0);
            json_int(rect, "x", &v);
            e.x = static_cast<int32_t>(v);
            json_int(rect, "y", &v);
            e.y = static_cast<int32_t>(v);
            json_int(rect, "w", &v);
            e.w = static_cast<uint32_t>(v);
            json_int(rect, "h", &v);
            e.h = static_cast<uint32_t>(v);
        }
        e.muted = json_bool(line, "muted");
        const char* src = json_value(line, "source");
        e.source = -1;
        if (src && *src == '"') {
            for (int p = 0; p <= 14; ++p) {
                std::string quoted = std::string("\"") + input_port_name(p) + "\"";
                if (strncmp(src, quoted.c_str(), quoted.size()) == 0)
                    e.source = p;
            }
        }
    } else if (line.find("{\"type\":\"audio\"") == 0) {
        e.type = TimelineEntry::Type::Audio;
        if (!json_int(line, "t_ns", &e.t_ns) || !json_int(line, "media_us", &e.media_us))
            return false;
        if (json_int(line, "frames", &v))
            e.frames = static_cast<uint64_t>(v);
        if (json_int(line, "played", &v))
            e.played = static_cast<uint64_t>(v);
        e.audio_muted = json_bool(line, "muted");
        if (json_int(line, "rate", &v))
            e.rate = static_cast<long>(v);
        if (json_int(line, "queued", &v))
            e.queued = static_cast<uint64_t>(v);
        if (json_int(line, "avail", &v))
            e.avail = static_cast<uint64_t>(v);
        if (json_int(line, "undecodable", &v))
            e.undecodable = static_cast<uint64_t>(v);
    } else if (line.find("{\"type\":\"event\"") == 0) {
        e.type = TimelineEntry::Type::Event;
        if (!json_int(line, "t_ns", &e.t_ns))
            return false;
        e.what = json_string(json_value(line, "what"));
        e.detail = json_string(json_value(line, "detail"));
    } else {
        return false;
    }
    *out = e;
    return true;
}

}  // namespace emutv
