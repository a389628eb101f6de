// Scenario files of the conformance runner: one step per line, '#' starts a comment.
#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include "conformance.h"

namespace conformance {
namespace {

struct Command {
    const char* word;
    Op op;
    int min_args, max_args;
    const char* usage;
};

const Command kCommands[] = {
    {"media", Op::Goal, 1, 1, "media NAME|FILE"},
    {"preroll", Op::Preroll, 0, 0, "preroll"},
    {"play", Op::Play, 0, 0, "play"},
    {"wait", Op::Wait, 1, 1, "wait MS"},
    {"pause", Op::Pause, 1, 1, "pause MS"},
    {"seek", Op::Seek, 1, 1, "seek MS"},
    {"seeks", Op::Seeks, 1, 3, "seeks COUNT [seed=N] [every=MS]"},
    {"rate", Op::Rate, 1, 2, "rate RATE [hold=MS]"},
    {"cycle", Op::Cycle, 1, 1, "cycle COUNT"},
    {"rect-storm", Op::RectStorm, 1, 2, "rect-storm MS [hz=HZ]"},
    {"handback", Op::Handback, 0, 0, "handback"},
    {"eos", Op::Eos, 0, 0, "eos"},
    {"goal", Op::Goal, 2, 2, "goal NAME LIMIT"},
    {"compare-fake", Op::Goal, 0, 0, "compare-fake"},
};

const char* const kGoals[] = {"av-p99-ms",          "av-max-ms", "position-ahead-ms", "seek-landing-ms",
                              "first-frame-vsyncs", "dropped",   "cpu-ratio",         "rss-growth-kib",
                              "fd-growth",          "bus-errors"};

bool number(const std::string& s, double* v) {
    if (s.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    *v = strtod(s.c_str(), &end);
    return errno == 0 && end && *end == '\0';
}

std::string where(const std::string& path, int line) {
    return path + ":" + std::to_string(line) + ": ";
}

bool known_goal(const std::string& g) {
    for (const char* k : kGoals)
        if (g == k)
            return true;
    return false;
}

// Splits "key=value" options from positional words.
bool option(const std::string& w, const char* key, double* v) {
    std::string k = std::string(key) + "=";
    if (w.compare(0, k.size(), k) != 0)
        return false;
    return number(w.substr(k.size()), v);
}

bool fill_step(const Command& c, const std::vector<std::string>& a, Step* s, std::string* why) {
    double v = 0;
    if (c.op == Op::Goal) {
        if (!known_goal(a[0]))
            return *why = "unknown goal '" + a[0] + "'", false;
        if (!number(a[1], &v) || (v < 0 && v != -1))
            return *why = "a goal limit is a number >= 0, or -1 (not judged)", false;
        s->name = a[0];
        s->value = v;
        return true;
    }
    if (c.max_args == 0)
        return true;
    if (!number(a[0], &v))
        return *why = "expected a number, got '" + a[0] + "'", false;
    s->value = v;
    switch (c.op) {
        case Op::Wait:
        case Op::Pause:
        case Op::Seek:
        case Op::RectStorm:
            if (v < 0 || v > 600000)
                return *why = "milliseconds from 0 to 600000", false;
            break;
        case Op::Rate:
            if (v == 0 || v < -8 || v > 8)
                return *why = "a rate from -8 to 8, not 0", false;
            break;
        case Op::Seeks:
        case Op::Cycle:
            if (v < 1 || v > 10000 || v != static_cast<int>(v))
                return *why = "a count from 1 to 10000", false;
            s->count = static_cast<int>(v);
            break;
        default:
            break;
    }
    for (size_t i = 1; i < a.size(); ++i) {
        double o = 0;
        if (c.op == Op::Seeks && option(a[i], "seed", &o) && o >= 0) {
            s->seed = static_cast<uint32_t>(o);
        } else if (c.op == Op::Seeks && option(a[i], "every", &o) && o >= 100 && o <= 600000) {
            s->every_ms = o;
        } else if (c.op == Op::RectStorm && option(a[i], "hz", &o) && o > 0 && o <= 1000) {
            s->hz = o;
        } else if (c.op == Op::Rate && option(a[i], "hold", &o) && o >= 0 && o <= 600000) {
            s->hold_ms = o;
        } else {
            return *why = "unexpected argument '" + a[i] + "' (usage: " + c.usage + ")", false;
        }
    }
    return true;
}

}  // namespace

bool parse_scenario_text(const std::string& path, const std::string& text, Scenario* out,
                         std::string* error) {
    Scenario sc;
    sc.path = path;
    std::string base = path.substr(path.find_last_of('/') + 1);
    sc.name = base.substr(0, base.find_last_of('.'));
    std::istringstream in(text);
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        ++n;
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string x; words >> x;)
            w.push_back(x);
        if (w.empty())
            continue;
        const Command* cmd = nullptr;
        for (const Command& c : kCommands)
            if (w[0] == c.word)
                cmd = &c;
        if (!cmd)
            return *error = where(path, n) + "unknown command '" + w[0] + "'", false;
        std::vector<std::string> args(w.begin() + 1, w.end());
        if (static_cast<int>(args.size()) < cmd->min_args || static_cast<int>(args.size()) > cmd->max_args)
            return *error = where(path, n) + "usage: " + cmd->usage, false;
        if (std::string(cmd->word) == "compare-fake") {
            sc.compare_fake = true;
            continue;
        }
        if (std::string(cmd->word) == "media") {
            if (!sc.media.empty())
                return *error = where(path, n) + "a scenario plays one media", false;
            sc.media = args[0];
            continue;
        }
        Step s;
        s.op = cmd->op;
        s.line = n;
        std::string why;
        if (!fill_step(*cmd, args, &s, &why))
            return *error = where(path, n) + why, false;
        if (s.op == Op::Goal)
            sc.goals[s.name] = s.value;
        else
            sc.steps.push_back(s);
    }
    if (sc.media.empty())
        return *error = path + ": no 'media' line", false;
    if (sc.steps.empty())
        return *error = path + ": no steps", false;
    *out = sc;
    return true;
}

bool parse_scenario(const std::string& path, Scenario* out, std::string* error) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return *error = path + ": a directory, not a scenario", false;
    std::ifstream f(path);
    if (!f)
        return *error = path + ": cannot read", false;
    std::stringstream ss;
    ss << f.rdbuf();
    return parse_scenario_text(path, ss.str(), out, error);
}

const char* scenario_grammar() {
    return "Scenario files: one step per line, '#' starts a comment.\n"
           "  media NAME|FILE          the clip to play (generated: mp4-25, mp4-50, ts-ac3,\n"
           "                           res-change, codec-switch; or a path)\n"
           "  preroll                  to PAUSED and wait for the preroll\n"
           "  play                     to PLAYING (first-frame latency counts from here)\n"
           "  wait MS                  let it play\n"
           "  pause MS                 PAUSED for MS, then PLAYING again\n"
           "  seek MS                  accurate flushing seek to MS\n"
           "  seeks COUNT [seed=N] [every=MS]  COUNT seeded random accurate flushing seeks\n"
           "  rate RATE [hold=MS]      flushing seek at the position with RATE, hold MS (2000)\n"
           "  cycle COUNT              NULL <-> PLAYING COUNT times\n"
           "  rect-storm MS [hz=HZ]    another thread moves the window at HZ (50) for MS\n"
           "  handback                 hand the screen back to broadcast\n"
           "  eos                      wait for the end of the stream\n"
           "  compare-fake             play it again with fakevideosink and fakesink (CPU ratio)\n"
           "  goal NAME LIMIT          override a goal: av-p99-ms av-max-ms position-ahead-ms\n"
           "                           seek-landing-ms first-frame-vsyncs dropped cpu-ratio\n"
           "                           rss-growth-kib fd-growth bus-errors (-1: not judged)\n";
}

}  // namespace conformance
