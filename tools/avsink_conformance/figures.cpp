// Figures from the emulated TV's timeline (what the panel showed at each vsync, what the
// audio decoder played) and the run's own samples.
#include <math.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>

#include "conformance.h"

namespace conformance {
namespace {

// One flat JSON object per line: "key": number | "string" | true | false | null.
std::map<std::string, std::string> json_fields(const std::string& line) {
    std::map<std::string, std::string> out;
    size_t i = 0;
    while ((i = line.find('"', i)) != std::string::npos) {
        size_t k_end = line.find('"', i + 1);
        if (k_end == std::string::npos)
            break;
        std::string key = line.substr(i + 1, k_end - i - 1);
        size_t colon = line.find_first_not_of(' ', k_end + 1);
        if (colon == std::string::npos || line[colon] != ':') {
            i = k_end + 1;
            continue;
        }
        size_t v = line.find_first_not_of(' ', colon + 1);
        if (v == std::string::npos)
            break;
        size_t v_end;
        if (line[v] == '"') {
            v_end = line.find('"', v + 1);
            out[key] = line.substr(v + 1, v_end - v - 1);
            ++v_end;
        } else if (line[v] == '[' || line[v] == '{') {
            v_end = line.find(line[v] == '[' ? ']' : '}', v);
            out[key] = line.substr(v, v_end - v + 1);
            ++v_end;
        } else {
            v_end = line.find_first_of(",}", v);
            out[key] = line.substr(v, v_end - v);
        }
        i = v_end;
    }
    return out;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(ceil(p * v.size())) - 1;
    return v[std::min(i, v.size() - 1)];
}

// The panel's truth at a monotonic instant: the last vsync at or before it.
const VsyncEntry* panel_at(const Timeline& tl, int64_t t) {
    auto it = std::upper_bound(tl.vsyncs.begin(), tl.vsyncs.end(), t,
                               [](int64_t x, const VsyncEntry& e) { return x < e.t_ns; });
    if (it == tl.vsyncs.begin())
        return nullptr;
    return &*(it - 1);
}

using StreamBases = std::vector<std::pair<int64_t, int64_t>>;

// The PTS of the buffer whose tail the decoder logged at the start of its stream: the latest
// candidate with that fingerprint handed to the sink before the write.
bool matched_base(const RunResult& r, const AudioStreamStart& start, int64_t* pts) {
    for (auto c = r.audio_candidates.rbegin(); c != r.audio_candidates.rend(); ++c) {
        if (c->mono_ns <= start.t_ns && c->tail == start.tail) {
            *pts = c->pts_ns;
            return true;
        }
    }
    return false;
}

// (CLOCK_MONOTONIC, PTS) where each of the decoder's streams begins: the block the decoder
// named, or (an older log, a block no candidate matches) the first buffer after the start.
StreamBases stream_bases(const Timeline& tl, const RunResult& r) {
    if (tl.audio_streams.empty())
        return r.audio_bases;
    StreamBases bases;
    for (const AudioStreamStart& start : tl.audio_streams) {
        int64_t pts = 0;
        if (!matched_base(r, start, &pts)) {
            for (auto& b : r.audio_bases)
                if (b.first <= start.t_ns)
                    pts = b.second;
        }
        bases.push_back({start.t_ns, pts});
    }
    return bases;
}

// The audio decoder's media time at a monotonic instant, on the stream's own time axis:
// the decoder counts from its start; the base is the PTS of the block it started with.
bool audio_at(const Timeline& tl, const StreamBases& bases, int64_t t, int64_t* media) {
    auto it = std::upper_bound(tl.audio.begin(), tl.audio.end(), t,
                               [](int64_t x, const AudioEntry& e) { return x < e.t_ns; });
    if (it == tl.audio.begin())
        return false;
    const AudioEntry& a = *(it - 1);
    if (!a.playing)
        return false;
    int64_t base = 0;
    for (auto& b : bases)
        if (b.first <= a.start_ns + 200000000)
            base = b.second;
    *media = base + a.media_ns + (a.rate_percent * (t - a.t_ns)) / 100;
    return true;
}

// The usual time between the timestamps of consecutive frames on the panel.
int64_t frame_duration_ns(const Timeline& tl) {
    std::vector<int64_t> d;
    int64_t last = -1;
    for (const VsyncEntry& v : tl.vsyncs) {
        if (!v.latched || v.pts_ns < 0)
            continue;
        if (last >= 0 && v.pts_ns > last)
            d.push_back(v.pts_ns - last);
        last = v.pts_ns;
    }
    if (d.empty())
        return 0;
    std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
    return d[d.size() / 2];
}

// Whether the panel latched the frame of timestamp `pts_ns` after `t`.
// The vsync, at or after `t`, that the frame of timestamp `pts_ns` was set for; null when it
// was never set for display. The panel then shows that frame, or a later one set before
// the same vsync (the first frame after a flush may be superseded within its vsync).
const VsyncEntry* vsync_set_for(const Timeline& tl, int64_t t, int64_t pts_ns) {
    for (const VsyncEntry& v : tl.vsyncs)
        if (v.t_ns >= t)
            for (int64_t set : v.pts_set_ns)
                if (llabs(set - pts_ns) < 1000000)
                    return &v;
    return nullptr;
}

// A JSON array of integers ("[1,2,3]") in 90 kHz units, as nanoseconds.
std::vector<int64_t> ticks_as_ns(const std::string& array) {
    std::vector<int64_t> out;
    const char* p = array.c_str();
    while (*p != '\0') {
        char* end = nullptr;
        const long long v = strtoll(p, &end, 10);
        if (end != p) {
            out.push_back(static_cast<int64_t>(v * 1e9 / 90000));
            p = end;
        } else {
            ++p;
        }
    }
    return out;
}

// While a seek is under way POSITION answers its target before any frame of it is shown,
// and the panel may show the new stream's first frame while the decoder still plays the old.
bool in_transition(const RunResult& r, int64_t t) {
    for (const auto& span : r.transitions)
        if (t >= span.first && t < span.second)
            return true;
    return false;
}

bool near_resume(const RunResult& r, int64_t t, int64_t window_ns) {
    for (int64_t x : r.resume_mono_ns)
        if (t >= x && t < x + window_ns)
            return true;
    if (r.play_mono_ns >= 0 && t >= r.play_mono_ns && t < r.play_mono_ns + window_ns)
        return true;
    return false;
}

}  // namespace

bool read_timeline(const std::string& path, Timeline* out, std::string* error) {
    std::ifstream f(path);
    if (!f)
        return *error = path + ": cannot read the timeline", false;
    Timeline tl;
    std::string line;
    while (std::getline(f, line)) {
        auto j = json_fields(line);
        auto num = [&](const char* k, double d = 0) {
            return j.count(k) ? strtod(j[k].c_str(), nullptr) : d;
        };
        std::string type = j["type"];
        if (type == "vsync") {
            VsyncEntry e;
            e.t_ns = static_cast<int64_t>(num("t_ns"));
            e.index = static_cast<long>(num("frame", -1));
            e.pts_ns =
                j.count("pts") && j["pts"] != "null" ? static_cast<int64_t>(num("pts") * 1e9 / 90000) : -1;
            e.muted = j["muted"] == "true";
            e.latched = j["new"] == "true";
            e.pts_set_ns = ticks_as_ns(j["pts_set"]);
            tl.vsyncs.push_back(e);
        } else if (type == "event" && j["what"] == "audio-stream" &&
                   j["detail"].compare(0, 5, "tail=") == 0) {
            tl.audio_streams.push_back({static_cast<int64_t>(num("t_ns")), j["detail"].substr(5)});
        } else if (type == "audio") {
            AudioEntry e;
            e.t_ns = static_cast<int64_t>(num("t_ns"));
            e.media_ns = static_cast<int64_t>(num("media_us")) * 1000;
            e.rate_percent = static_cast<int>(num("rate", 100));
            e.playing = num("played") > 0;
            // The decoder's media time starts again at every stream start.
            bool restarted = tl.audio.empty() || e.media_ns < tl.audio.back().media_ns;
            e.start_ns = restarted ? e.t_ns : tl.audio.back().start_ns;
            tl.audio.push_back(e);
        }
    }
    if (tl.vsyncs.size() > 1)
        tl.vsync_period_ns = (tl.vsyncs.back().t_ns - tl.vsyncs.front().t_ns) / (tl.vsyncs.size() - 1);
    *out = tl;
    return true;
}

Figures compute_figures(const Scenario& s, const RunResult& r, const Timeline& tl, const RunResult* fake) {
    Figures f;
    f.scenario = s.name;
    f.vsyncs = tl.vsyncs.size();
    f.bus_errors = r.errors.size();
    const int64_t settle = 200000000;  // 200 ms after a start, resume or seek
    int64_t t0 = tl.vsyncs.empty() ? 0 : tl.vsyncs.front().t_ns;
    const StreamBases bases = stream_bases(tl, r);

    // A/V offset at each vsync in steady play. The frame on the panel stands for the media
    // interval [pts, pts + frame duration): the offset is how far the audio leaving the decoder
    // is outside it (positive: the picture is ahead of the sound).
    const int64_t frame = frame_duration_ns(tl);
    std::vector<double> offsets;
    for (const VsyncEntry& v : tl.vsyncs) {
        if (v.pts_ns < 0 || v.muted || in_transition(r, v.t_ns) || near_resume(r, v.t_ns, settle))
            continue;
        int64_t a = 0;
        if (!audio_at(tl, bases, v.t_ns, &a))
            continue;
        int64_t off = a < v.pts_ns ? v.pts_ns - a : (a > v.pts_ns + frame ? v.pts_ns + frame - a : 0);
        double ms = off / 1e6;
        offsets.push_back(ms);
        f.av_series.push_back({(v.t_ns - t0) / 1e9, ms});
    }
    std::vector<double> abs_offsets;
    for (double o : offsets)
        abs_offsets.push_back(fabs(o));
    f.av_samples = offsets.size();
    f.av_p50_ms = percentile(offsets, 0.5);
    f.av_p99_ms = percentile(abs_offsets, 0.99);
    f.av_max_ms = abs_offsets.empty() ? 0 : *std::max_element(abs_offsets.begin(), abs_offsets.end());

    // POSITION against the panel, while the picture lasts: after the last frame the stream
    // goes on in its sound alone (an audio track a few tens of milliseconds longer is usual).
    const long last_frame = tl.vsyncs.empty() ? -1 : tl.vsyncs.back().index;
    std::vector<double> errs;
    for (const PositionSample& p : r.positions) {
        if (p.position_ns < 0)
            continue;
        const VsyncEntry* v = panel_at(tl, p.mono_ns);
        if (!v || v->pts_ns < 0 || v->index == last_frame || in_transition(r, p.mono_ns) ||
            near_resume(r, p.mono_ns, settle))
            continue;
        double lead = std::max<int64_t>(0, p.position_ns - (v->pts_ns + frame)) / 1e6;
        f.position_ahead_max_ms = std::max(f.position_ahead_max_ms, lead);
        errs.push_back(fabs(lead));
    }
    f.position_error_p99_ms = percentile(errs, 0.99);

    // Where each seek landed, as the panel showed it: the frame on the panel at the vsync the
    // first frame after the seek's flush (as it reached the video sink) was set for.
    for (const SeekSample& sk : r.seeks) {
        int64_t requested = sk.mono_ns;
        for (const auto& span : r.transitions)
            if (span.second == sk.mono_ns)
                requested = span.first;
        const std::pair<int64_t, int64_t>* landing = nullptr;
        for (const auto& l : r.video_landings)
            if (l.first >= requested && l.first <= sk.mono_ns)
                landing = &l;
        const VsyncEntry* shown = landing ? vsync_set_for(tl, landing->first, landing->second) : nullptr;
        if (shown == nullptr) {
            f.seeks_unlanded++;
            continue;
        }
        f.seek_landing_max_ms = std::max(f.seek_landing_max_ms, fabs((shown->pts_ns - sk.target_ns) / 1e6));
    }

    // First frame: PLAYING from prerolled PAUSED to the first latch of a new frame.
    if (r.play_mono_ns >= 0 && tl.vsync_period_ns > 0) {
        const VsyncEntry* before = panel_at(tl, r.play_mono_ns);
        long shown = before ? before->index : -1;
        for (const VsyncEntry& v : tl.vsyncs)
            if (v.t_ns > r.play_mono_ns && v.index != shown) {
                f.first_frame_vsyncs = static_cast<double>(v.t_ns - r.play_mono_ns) / tl.vsync_period_ns;
                break;
            }
    }

    // Pacing, drops and repeats: how long each frame stayed on the panel.
    long last = -1;
    int64_t since = 0;
    std::vector<int> held;
    for (const VsyncEntry& v : tl.vsyncs) {
        if (v.index == last)
            continue;
        if (last >= 0 && v.index > last + 1 && !in_transition(r, v.t_ns) && !near_resume(r, v.t_ns, settle))
            f.dropped += v.index - last - 1;
        int64_t unused = 0;
        bool steady = audio_at(tl, bases, since, &unused) && audio_at(tl, bases, v.t_ns, &unused) &&
                      !in_transition(r, v.t_ns) && !near_resume(r, v.t_ns, settle);
        if (last >= 0 && tl.vsync_period_ns > 0) {
            double n = static_cast<double>(v.t_ns - since) / tl.vsync_period_ns;
            f.pacing.push_back({(v.t_ns - t0) / 1e9, n});
            if (steady)
                held.push_back(static_cast<int>(lround(n)));
        }
        last = v.index;
        since = v.t_ns;
        ++f.latches;
    }
    if (!held.empty()) {
        std::vector<int> sorted = held;
        std::sort(sorted.begin(), sorted.end());
        int usual = sorted[sorted.size() / 2];
        for (int n : held)
            if (n > usual)
                f.repeated += n - usual;
    }
    f.dropped = std::max<uint64_t>(f.dropped, r.frames_dropped);

    if (fake && fake->frames_rendered > 0 && r.frames_rendered > 0 && fake->cpu_seconds > 0)
        f.cpu_ratio = (r.cpu_seconds / r.frames_rendered) / (fake->cpu_seconds / fake->frames_rendered);

    // Memory and descriptors across the storms.
    std::map<std::string, ResourceSample> at;
    for (auto& x : r.resources)
        at[x.when] = x;
    for (const char* storm : {"cycle", "storm"}) {
        std::string a = std::string(storm) + "-start", b = std::string(storm) + "-end";
        if (!at.count(a) || !at.count(b))
            continue;
        f.rss_growth_kib = std::max(f.rss_growth_kib, at[b].rss_kib - at[a].rss_kib);
        f.fd_growth = std::max(f.fd_growth, at[b].fds - at[a].fds);
    }
    return f;
}

// The goals of a 50 Hz panel; a scenario may set its own.
std::map<std::string, double> default_goals() {
    return {{"av-p99-ms", 20},       {"av-max-ms", 40},     {"position-ahead-ms", 0},
            {"seek-landing-ms", 40}, {"seeks-unlanded", 0}, {"first-frame-vsyncs", 2},
            {"dropped", 0},          {"cpu-ratio", 1.5},    {"rss-growth-kib", 1024},
            {"fd-growth", 0},        {"bus-errors", 0}};
}

void check_goals(const Scenario& s, Figures* f) {
    auto goals = default_goals();
    for (auto& g : s.goals)
        goals[g.first] = g.second;
    auto check = [&](const char* name, double value, bool applies) {
        if (!applies)
            return;
        double limit = goals[name];
        if (limit < 0)
            return;  // a scenario that says -1 does not judge this figure
        if (value > limit + 1e-9)
            f->missed.push_back(std::string(name) + " " + std::to_string(value) + " > " +
                                std::to_string(limit));
    };
    check("av-p99-ms", f->av_p99_ms, f->av_samples > 0);
    check("av-max-ms", f->av_max_ms, f->av_samples > 0);
    check("position-ahead-ms", f->position_ahead_max_ms, true);
    check("seek-landing-ms", f->seek_landing_max_ms, true);
    check("seeks-unlanded", static_cast<double>(f->seeks_unlanded), true);
    check("first-frame-vsyncs", f->first_frame_vsyncs, f->first_frame_vsyncs >= 0);
    check("dropped", static_cast<double>(f->dropped), true);
    check("cpu-ratio", f->cpu_ratio, f->cpu_ratio > 0);
    check("rss-growth-kib", static_cast<double>(f->rss_growth_kib), true);
    check("fd-growth", f->fd_growth, true);
    check("bus-errors", static_cast<double>(f->bus_errors), true);
}

}  // namespace conformance
