// The run's samples as a small text file, written by the child that played the scenario and
// read back by the runner that computes the figures.
#include <stdio.h>

#include <fstream>
#include <sstream>

#include "conformance.h"

namespace conformance {
namespace {

// Two numbers of a sample line: (CLOCK_MONOTONIC, value) or a [from, to) span.
std::pair<int64_t, int64_t> read_pair(std::istream& in) {
    std::pair<int64_t, int64_t> p{0, 0};
    in >> p.first >> p.second;
    return p;
}

}  // namespace

bool write_samples(const std::string& path, const RunResult& r) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f)
        return false;
    fprintf(f, "ok %d\n", r.ok ? 1 : 0);
    for (auto& e : r.errors)
        fprintf(f, "error %s\n", e.c_str());
    for (auto& w : r.warnings)
        fprintf(f, "warning %s\n", w.c_str());
    for (auto& p : r.positions)
        fprintf(f, "position %lld %lld %lld %lld\n", (long long)p.mono_ns, (long long)p.position_ns,
                (long long)p.video_position_ns, (long long)p.audio_position_ns);
    for (auto& s : r.seeks)
        fprintf(f, "seek %lld %lld %g\n", (long long)s.mono_ns, (long long)s.target_ns, s.rate);
    for (auto& t : r.transitions)
        fprintf(f, "transition %lld %lld\n", (long long)t.first, (long long)t.second);
    for (auto& x : r.resources)
        fprintf(f, "resource %s %ld %d\n", x.when.c_str(), x.rss_kib, x.fds);
    for (auto& t : r.resume_mono_ns)
        fprintf(f, "resume %lld\n", (long long)t);
    for (auto& b : r.video_landings)
        fprintf(f, "video-landing %lld %lld\n", (long long)b.first, (long long)b.second);
    for (auto& b : r.audio_bases)
        fprintf(f, "audio-base %lld %lld\n", (long long)b.first, (long long)b.second);
    for (auto& c : r.audio_candidates)
        fprintf(f, "audio-candidate %lld %lld %s\n", (long long)c.mono_ns, (long long)c.pts_ns,
                c.tail.c_str());
    fprintf(f, "play %lld\n", (long long)r.play_mono_ns);
    fprintf(f, "frames %llu %llu\n", (unsigned long long)r.frames_rendered,
            (unsigned long long)r.frames_dropped);
    fprintf(f, "cpu %.6f %.6f\n", r.cpu_seconds, r.wall_seconds);
    fprintf(f, "clock %d %s\n", r.clock_is_audio_sink ? 1 : 0, r.clock_name.c_str());
    return fclose(f) == 0;
}

bool read_samples(const std::string& path, RunResult* out) {
    std::ifstream f(path);
    if (!f)
        return false;
    RunResult r;
    std::string line;
    while (std::getline(f, line)) {
        std::istringstream in(line);
        std::string k;
        in >> k;
        std::string rest;
        std::getline(in, rest);
        if (!rest.empty() && rest[0] == ' ')
            rest.erase(0, 1);
        std::istringstream v(rest);
        if (k == "ok") {
            int ok = 0;
            v >> ok;
            r.ok = ok != 0;
        } else if (k == "error") {
            r.errors.push_back(rest);
        } else if (k == "warning") {
            r.warnings.push_back(rest);
        } else if (k == "position") {
            PositionSample p;
            v >> p.mono_ns >> p.position_ns >> p.video_position_ns >> p.audio_position_ns;
            r.positions.push_back(p);
        } else if (k == "seek") {
            SeekSample s;
            v >> s.mono_ns >> s.target_ns >> s.rate;
            r.seeks.push_back(s);
        } else if (k == "transition") {
            r.transitions.push_back(read_pair(v));
        } else if (k == "resource") {
            ResourceSample x;
            v >> x.when >> x.rss_kib >> x.fds;
            r.resources.push_back(x);
        } else if (k == "resume") {
            int64_t t = 0;
            v >> t;
            r.resume_mono_ns.push_back(t);
        } else if (k == "audio-base") {
            r.audio_bases.push_back(read_pair(v));
        } else if (k == "audio-candidate") {
            AudioCandidate c;
            v >> c.mono_ns >> c.pts_ns >> c.tail;
            r.audio_candidates.push_back(c);
        } else if (k == "video-landing") {
            r.video_landings.push_back(read_pair(v));
        } else if (k == "play") {
            v >> r.play_mono_ns;
        } else if (k == "frames") {
            v >> r.frames_rendered >> r.frames_dropped;
        } else if (k == "cpu") {
            v >> r.cpu_seconds >> r.wall_seconds;
        } else if (k == "clock") {
            int a = 0;
            v >> a >> r.clock_name;
            r.clock_is_audio_sink = a != 0;
        }
    }
    *out = r;
    return true;
}

}  // namespace conformance
