// Scenario parser of the TV session player.
#include "scenario.h"

#include "emutv/lines.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <set>
#include <sstream>

namespace tvsp {

namespace {

using emutv::lines::kI32Max;
using emutv::lines::kI32Min;
using emutv::lines::kI64Max;
using emutv::lines::kI64Min;
using emutv::lines::kU32Max;
using emutv::lines::LineError;
using emutv::lines::ParamDef;
using emutv::lines::T;
constexpr int64_t kDayMs = 86400000LL;

enum : unsigned {
    kCall = 1u << 0,    // a library call: count, every, expect, handle
    kVideo = 1u << 1,   // needs the video output
    kAudio = 1u << 2,   // needs the audio output
    kVoid = 1u << 3,    // the function returns nothing
    kNoNull = 1u << 4,  // the function reads the handle without a check
    kOpens = 1u << 5,   // opens a handle (no handle argument)
    kFrame = 1u << 6,   // describes a frame (size, aspect, ...)
};

struct CommandDef {
    const char* name;
    Cmd cmd;
    unsigned flags;
    std::vector<ParamDef> params;
};

const std::vector<ParamDef>& frame_params() {
    static const std::vector<ParamDef> p = {
        {"size", T::Size, 0, kU32Max, false, false},     {"aspect", T::Int, 0, kU32Max, false, false},
        {"framerate", T::Int, 0, kU32Max, false, false}, {"port", T::Port, 0, 14, false, false},
        {"dv", T::Int, kI32Min, kI32Max, false, false},  {"linesize", T::Int, 0, kU32Max, false, false},
        {"index", T::Int, 0, kU32Max, false, false},
    };
    return p;
}

std::vector<ParamDef> with_frame(std::vector<ParamDef> extra) {
    std::vector<ParamDef> out = frame_params();
    out.insert(out.end(), extra.begin(), extra.end());
    return out;
}

const std::vector<CommandDef>& commands() {
    static const std::vector<CommandDef> table = {
        {"track", Cmd::Track, 0, {{"name", T::Name, 0, 0, true, true}}},
        {"at", Cmd::At, 0, {{"ms", T::Ms, 0, kDayMs, true, true}}},
        {"wait", Cmd::Wait, 0, {{"ms", T::Ms, 0, kDayMs, true, true}}},
        {"video open", Cmd::VideoOpen, kCall | kOpens, {{"ta", T::Bool, 0, 1, false, true}}},
        {"video close", Cmd::VideoClose, kCall | kVideo | kVoid, {}},
        {"video panel", Cmd::VideoPanel, kCall | kVideo | kVoid | kNoNull, {}},
        {"video rect",
         Cmd::VideoRect,
         kCall | kVideo,
         {{"x", T::Int, kI32Min, kI32Max, true, true},
          {"y", T::Int, kI32Min, kI32Max, true, true},
          {"w", T::Int, 0, kU32Max, true, true},
          {"h", T::Int, 0, kU32Max, true, true},
          {"dar", T::Dar, 0, kU32Max, false, true}}},
        {"video hide", Cmd::VideoHide, kCall | kVideo, {}},
        {"video show", Cmd::VideoShow, kCall | kVideo, {}},
        {"video first-frame", Cmd::VideoFirstFrame, kCall | kVideo | kFrame, frame_params()},
        {"video frame", Cmd::VideoFrame, kCall | kVideo | kFrame,
         with_frame({{"null", T::Bool, 0, 1, false, false},
                     {"to", T::Rect, 0, 0, false, false},
                     {"from", T::Rect, 0, 0, false, false},
                     {"pts", T::Int, kI64Min, kI64Max, false, false},
                     {"pts-step", T::Int, kI64Min, kI64Max, false, false}})},
        {"video frames", Cmd::VideoFrame, kCall | kVideo | kFrame,
         with_frame({{"null", T::Bool, 0, 1, false, false},
                     {"to", T::Rect, 0, 0, false, false},
                     {"from", T::Rect, 0, 0, false, false},
                     {"pts", T::Int, kI64Min, kI64Max, false, false},
                     {"pts-step", T::Int, kI64Min, kI64Max, false, false}})},
        {"video next-res", Cmd::VideoNextRes, kCall | kVideo | kFrame, frame_params()},
        {"video vsync", Cmd::VideoVsync, kCall | kVideo, {}},
        {"video used", Cmd::VideoUsed, kCall | kVideo, {}},
        {"video pts", Cmd::VideoPts, kCall | kVideo, {{"value", T::Int, kI64Min, kI64Max, true, true}}},
        {"video notify-ta", Cmd::VideoNotifyTa, kCall | kVideo | kVoid, {}},
        {"audio open", Cmd::AudioOpen, kCall | kOpens, {{"path", T::Path, 0, 0, true, true}}},
        {"audio setup",
         Cmd::AudioSetup,
         kCall | kAudio,
         {{"channels", T::Int, 1, 32, true, true}, {"rate", T::Int, 1, 768000, true, true}}},
        {"audio start", Cmd::AudioStart, kCall | kAudio, {}},
        {"audio stop", Cmd::AudioStop, kCall | kAudio, {}},
        {"audio sync-mode", Cmd::AudioSyncMode, kCall | kAudio, {{"mode", T::Int, 0, kU32Max, true, true}}},
        {"audio push",
         Cmd::AudioPush,
         kCall | kAudio,
         {{"size", T::Int, 0, 1 << 20, false, true},
          {"extra", T::Int, 0, 65536, false, false},
          {"rate", T::Int, 1, 1000000000, false, false},
          {"retry", T::Ms, 1, 60000000, false, false},
          {"max-retries", T::Int, 1, 1000000, false, false}}},
        {"audio info", Cmd::AudioInfo, kCall | kAudio, {}},
        {"audio volume",
         Cmd::AudioVolume,
         kCall | kAudio,
         {{"value", T::Real, -1000000, 1000000, true, true}}},
        {"audio speed", Cmd::AudioSpeed, kCall | kAudio, {{"value", T::Real, -1000000, 1000000, true, true}}},
        {"audio close", Cmd::AudioClose, kCall | kAudio | kVoid, {}},
    };
    return table;
}

const std::vector<ParamDef>& call_params() {
    static const std::vector<ParamDef> p = {
        {"count", T::Int, 1, 1000000, false, false},
        {"every", T::Ms, 0, 3600000, false, false},
        {"expect", T::Int, kI32Min, kI32Max, false, false},
        {"handle", T::Handle, 0, 0, false, false},
    };
    return p;
}

std::string subcommand_list(const std::string& family) {
    std::string out;
    for (const auto& c : commands()) {
        std::string n = c.name;
        if (n.compare(0, family.size() + 1, family + " ") != 0)
            continue;
        if (!out.empty())
            out += ", ";
        out += n.substr(family.size() + 1);
    }
    return out;
}

const CommandDef* find_command(const std::string& name) {
    for (const auto& c : commands())
        if (name == c.name)
            return &c;
    return nullptr;
}

bool valid_env_name(const std::string& n) {
    if (n.empty() || isdigit(static_cast<unsigned char>(n[0])))
        return false;
    for (char c : n)
        if (!(isalnum(static_cast<unsigned char>(c)) || c == '_'))
            return false;
    return true;
}

// Each limit of a line holds alone; so must their product: the library calls one line
// may make, with every retry.
constexpr int64_t kMaxCallsPerLine = 10000000;

void check_total_work(const Command& c) {
    if (c.cmd != Cmd::AudioPush || !c.has("retry"))
        return;
    const int64_t count = c.num("count", 1);
    const int64_t retries = c.num("max-retries", 1000);
    if (count * (1 + retries) <= kMaxCallsPerLine)
        return;
    throw LineError(c.name + ": count=" + std::to_string(count) +
                    " with max-retries=" + std::to_string(retries) + " may make " +
                    std::to_string(count * (1 + retries)) + " library calls; a line makes at most " +
                    std::to_string(kMaxCallsPerLine) + " (count x (1 + max-retries))");
}

Cmd scenario_cmd(emutv::lines::PlatformCmd p) {
    using P = emutv::lines::PlatformCmd;
    switch (p) {
        case P::Absent:
            return Cmd::PlatformAbsent;
        case P::Present:
            return Cmd::PlatformPresent;
        case P::ComprDevice:
            return Cmd::PlatformComprDevice;
        case P::Fail:
            return Cmd::PlatformFail;
        case P::Status:
            return Cmd::PlatformStatus;
        case P::ClearFaults:
            return Cmd::PlatformClearFaults;
        case P::Panel:
            return Cmd::PlatformPanel;
        case P::Hal:
            return Cmd::PlatformHal;
        case P::Vsync:
            return Cmd::PlatformVsync;
        case P::VsyncOffset:
            return Cmd::PlatformVsyncOffset;
        case P::DecoderFrames:
            return Cmd::PlatformDecoderFrames;
        case P::DolbyRewrite:
            return Cmd::PlatformDolbyRewrite;
        case P::Broadcast:
            return Cmd::PlatformBroadcast;
        case P::Compr:
            return Cmd::PlatformCompr;
        case P::Logmask:
            return Cmd::PlatformLogmask;
        case P::DrmEmpty:
            return Cmd::PlatformDrmEmpty;
        case P::Crtc:
            return Cmd::PlatformCrtc;
        case P::Encoder:
            return Cmd::PlatformEncoder;
        case P::Connector:
            return Cmd::PlatformConnector;
        case P::Plane:
            return Cmd::PlatformPlane;
    }
    return Cmd::PlatformClearFaults;
}

// Platform lines: the emulator's own parser, as for a platform file.
void parse_platform(const std::vector<std::string>& toks, emutv::lines::PlatformParseState* state,
                    Command* out) {
    emutv::lines::PlatformLine line = emutv::lines::parse_platform_line(toks, state);
    out->cmd = scenario_cmd(line.cmd);
    out->platform = line.cmd;
    out->name = line.name;
    out->args = std::move(line.args);
}

// Parses one non-empty line (comment removed) into `out`; throws LineError.
void parse_line(const std::vector<std::string>& toks, emutv::lines::PlatformParseState* state, Command* out) {
    const std::string& head = toks[0];
    std::string name;
    if (head == "env") {
        if (toks.size() == 3 && toks[1] == "unset") {
            if (!valid_env_name(toks[2]))
                throw LineError("env: expected a variable name, got '" + toks[2] + "'");
            out->cmd = Cmd::EnvUnset;
            out->name = "env unset";
            out->args["name"].text = toks[2];
            return;
        }
        if (toks.size() != 2 || toks[1].find('=') == std::string::npos)
            throw LineError("env: expected NAME=VALUE or 'unset NAME'");
        std::string key = toks[1].substr(0, toks[1].find('='));
        if (!valid_env_name(key))
            throw LineError("env: expected a variable name before '=', got '" + key + "'");
        out->cmd = Cmd::EnvSet;
        out->name = "env";
        out->args["name"].text = key;
        out->args["value"].text = toks[1].substr(toks[1].find('=') + 1);
        return;
    }
    if (head == "platform")
        return parse_platform(toks, state, out);
    size_t first_arg = 1;
    if (head == "video" || head == "audio") {
        if (toks.size() < 2 || toks[1].find('=') != std::string::npos)
            throw LineError("expected one of these after '" + head + "': " + subcommand_list(head));
        name = head + " " + toks[1];
        first_arg = 2;
        if (!find_command(name))
            throw LineError("unknown command '" + name + "' (" + head +
                            " commands: " + subcommand_list(head) + ")");
    } else {
        name = head;
        if (!find_command(name) || name.find(' ') != std::string::npos)
            throw LineError("unknown command '" + head +
                            "' (expected track, at, wait, env, video ..., audio ... or platform ...)");
    }
    const CommandDef* def = find_command(name);
    out->cmd = def->cmd;
    out->name = name;

    std::vector<const ParamDef*> all;
    for (const auto& p : def->params)
        all.push_back(&p);
    if (def->flags & kCall)
        for (const auto& p : call_params()) {
            if ((def->flags & kOpens) && std::string(p.name) == "handle")
                continue;
            all.push_back(&p);
        }
    emutv::lines::parse_args(name, all, toks, first_arg, &out->args);

    if ((def->flags & kVoid) && out->has("expect") && out->arg("expect").v[0] != 0)
        throw LineError(name + ": expect=" + out->arg("expect").text +
                        " is out of range (the function returns nothing: only 0)");
    if ((def->flags & kNoNull) && out->has("handle"))
        throw LineError(name +
                        ": handle=null is not accepted (the library reads the handle without a check)");
    check_total_work(*out);
    if (out->cmd == Cmd::AudioPush && out->has("rate") && out->has("every"))
        throw LineError(name + ": give rate= or every=, not both");
    if (out->cmd == Cmd::VideoFrame && out->has("null") && out->arg("null").v[0] == 1) {
        for (const char* k : {"to", "from", "size", "aspect", "framerate", "port", "dv", "linesize", "index"})
            if (out->has(k))
                throw LineError(name + ": null=1 pushes no frame; '" + std::string(k) + "' has no use");
    }
    if (out->has("from") && !out->has("to"))
        throw LineError(name + ": from= needs to=");
}

bool divides_by_zero(int64_t w, int64_t h, int64_t aspect, int64_t linesize) {
    bool known = aspect >= 1 && aspect <= 4;
    return w == 0 && h == 0 && (known || linesize != 0);
}

}  // namespace

int64_t Command::num(const std::string& key, int64_t fallback) const {
    auto it = args.find(key);
    return it == args.end() ? fallback : it->second.v[0];
}

double Command::real(const std::string& key, double fallback) const {
    auto it = args.find(key);
    return it == args.end() ? fallback : it->second.f;
}

std::string Command::word(const std::string& key, const std::string& fallback) const {
    auto it = args.find(key);
    return it == args.end() ? fallback : it->second.text;
}

bool Command::is_call() const {
    return name.compare(0, 6, "video ") == 0 || name.compare(0, 6, "audio ") == 0;
}

const char* port_name(int64_t port) {
    return emutv::lines::input_port_name(port);
}

std::string format_ms(int64_t us) {
    char buf[48];
    bool neg = us < 0;
    uint64_t a = neg ? static_cast<uint64_t>(-(us + 1)) + 1 : static_cast<uint64_t>(us);
    if (a % 1000 == 0)
        snprintf(buf, sizeof(buf), "%s%llu", neg ? "-" : "", static_cast<unsigned long long>(a / 1000));
    else
        snprintf(buf, sizeof(buf), "%s%llu.%03llu", neg ? "-" : "", static_cast<unsigned long long>(a / 1000),
                 static_cast<unsigned long long>(a % 1000));
    return buf;
}

bool parse_scenario(const std::string& text, const std::string& file, Scenario* out, std::string* error) {
    Scenario sc;
    sc.file = file;
    sc.tracks.push_back("main");
    int track = 0;
    bool video_opened = false, audio_opened = false;
    // Frame format as it stands in file order, for the division check.
    int64_t fw = 1920, fh = 1080, faspect = 3, flinesize = 0;
    int64_t bw = 1920, bh = 1080, baspect = 3;

    emutv::lines::PlatformParseState platform_state;
    std::istringstream in(text);
    std::string raw;
    int lineno = 0;
    while (std::getline(in, raw)) {
        ++lineno;
        Command c;
        c.file = file;
        c.line = lineno;
        try {
            std::string line = emutv::lines::strip_line(raw);
            if (line.empty())
                continue;
            parse_line(emutv::lines::split_ws(line), &platform_state, &c);
            if (c.cmd == Cmd::Track) {
                const std::string& n = c.arg("name").text;
                track = -1;
                for (size_t i = 0; i < sc.tracks.size(); ++i)
                    if (sc.tracks[i] == n)
                        track = static_cast<int>(i);
                if (track < 0) {
                    sc.tracks.push_back(n);
                    track = static_cast<int>(sc.tracks.size()) - 1;
                }
            }
            const CommandDef* def = find_command(c.name);
            unsigned flags = def ? def->flags : 0;
            if (c.cmd == Cmd::VideoOpen)
                video_opened = true;
            if (c.cmd == Cmd::AudioOpen)
                audio_opened = true;
            if ((flags & kVideo) && !video_opened && !c.null_handle())
                throw LineError(c.name + ": no 'video open' before this line (or pass handle=null)");
            if ((flags & kAudio) && !audio_opened && !c.null_handle())
                throw LineError(c.name + ": no 'audio open' before this line (or pass handle=null)");
            if (flags & kFrame) {
                int64_t w = fw, h = fh, aspect = faspect, linesize = flinesize;
                if (c.has("size")) {
                    w = c.arg("size").v[0];
                    h = c.arg("size").v[1];
                }
                aspect = c.num("aspect", aspect);
                linesize = c.num("linesize", linesize);
                bool null_frame = c.num("null", 0) == 1;
                if (!null_frame && divides_by_zero(w, h, aspect, linesize))
                    throw LineError(c.name + ": size=0x0 with aspect=" + std::to_string(aspect) +
                                    " is out of range (the library would divide by zero)");
                if (c.cmd != Cmd::VideoNextRes) {
                    fw = w;
                    fh = h;
                    faspect = aspect;
                    flinesize = linesize;
                }
            }
            if (c.cmd == Cmd::PlatformBroadcast) {
                if (c.has("size")) {
                    bw = c.arg("size").v[0];
                    bh = c.arg("size").v[1];
                }
                baspect = c.num("aspect", baspect);
                if (divides_by_zero(bw, bh, baspect, 0))
                    throw LineError(c.name + ": size=0x0 with aspect=" + std::to_string(baspect) +
                                    " is out of range (the library would divide by zero)");
            }
        } catch (const LineError& e) {
            *error = file + ":" + std::to_string(lineno) + ": " + e.message;
            return false;
        }
        c.track = track;
        sc.commands.push_back(std::move(c));
    }
    *out = std::move(sc);
    return true;
}

bool load_scenario(const std::string& path, Scenario* out, std::string* error) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        *error = path + ": cannot read: " + strerror(EISDIR) + " (expected a scenario file)";
        return false;
    }
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        *error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    Scenario sc;
    if (!parse_scenario(ss.str(), path, &sc, error))
        return false;
    if (sc.commands.empty()) {
        *error = path + ": no command in the scenario (an empty scenario plays nothing)";
        return false;
    }
    *out = std::move(sc);
    return true;
}

const char kScenarioHelpHead[] = R"(Scenario files
  One command per line; '#' starts a comment. Arguments are values in the order
  listed (positional) or key=value pairs. Virtual time only: nothing sleeps.
  The whole file is checked before the first library call; an error (syntax,
  unknown command or argument, value out of range, a call on an output that no
  earlier line opens) stops with "file:line: message" and exit status 2.

Time and tracks
  track NAME            following lines belong to track NAME ("main" before the
                        first track line). Tracks run side by side in virtual time;
                        lines of one track run in order; what is due at the same
                        moment runs in the order the tracks first appear.
  at MS                 this track waits until virtual time MS (ms, up to 3
                        decimals; at once when that time has passed)
  wait MS               this track waits MS milliseconds

Library calls (video ..., audio ...) also take:
  count=N               call N times (default 1)
  every=MS              virtual time between two calls and after the last one
                        (default 0; frame lines: one frame period 1000000/framerate)
  expect=INT            expected result (default 0, the success result). For
                        'open' lines 0 means a handle came back, -1 means null.
  handle=null           pass a null handle instead of the open one

Video
  video open [ta=0|1]                  quarvel_video_output_open(bTaCase)
  video close                          quarvel_video_output_close
  video panel                          quarvel_video_output_get_panel_size
  video rect X Y W H [dar=W:H]         quarvel_video_output_set_rect
  video hide                           set_rect with w=0 (x, y, h of the last rect)
  video show                           set_rect with the last rect that had w, h > 0
  video first-frame [FRAME]            quarvel_video_output_init_with_first_frame
  video frame [FRAME] [to=X,Y,W,H [from=X,Y,W,H]] [pts=N [pts-step=N]] [null=1]
                                       quarvel_video_output_push_frame_to_display;
                                       'video frames' is the same. to= moves the
                                       window from 'from' (default: the last rect)
                                       to 'to' over the count frames (set_rect
                                       before a frame whenever the rect changes);
                                       pts= calls set_pts(pts + i*pts-step) after
                                       frame i; null=1 pushes a null frame.
  video next-res [FRAME]               quarvel_video_output_set_next_res
  video vsync                          quarvel_video_output_get_vsync_info
  video used                           quarvel_video_output_get_used_frames
  video pts VALUE                      quarvel_video_output_set_pts
  video notify-ta                      quarvel_video_output_notify_ta_switch
  FRAME: size=WxH aspect=N framerate=MHZ port=NAME|N dv=N linesize=N index=N
         (defaults 1920x1080, aspect 3 (16:9), framerate 50000, port mm, dv -1,
         linesize 0; the display index counts up from 1). Values given on
         first-frame and frame lines stay for later frame lines; next-res values
         do not. Ports: dtv mm atv av component rgb dvi hdmi main_clone jpeg_swdec
         mjpeg scart dsp lvdxrx max (0..14).

Audio
  audio open PATH                      quarvel_audio_output_open
  audio setup CHANNELS RATE            quarvel_audio_output_setup (1..32, 1..768000)
  audio start | stop | info | close    start, stop, get_info, close
  audio sync-mode MODE                 quarvel_audio_output_set_sync_mode
  audio volume VALUE | speed VALUE     volume_control, speed_control
  audio push [SIZE] [extra=N] [rate=BYTES_PER_S] [retry=MS] [max-retries=N]
                                       quarvel_audio_output_push_data with SIZE
                                       payload bytes (default 4096) and N header
                                       bytes. rate= spaces the blocks as a source
                                       delivering that many bytes per second.
                                       retry=MS: on -2 (no space) advance virtual
                                       time by MS and push the block again (at most
                                       max-retries times, default 1000). A line
                                       makes at most 10000000 calls in all:
                                       count x (1 + max-retries).

)";

const char kScenarioHelpTail[] = R"(
Environment
  env NAME=VALUE | env unset NAME      e.g. env TA_DTV_PRELOAD=1
)";

const char* scenario_help() {
    static const std::string text =
        std::string(kScenarioHelpHead) + emutv::lines::platform_help() + kScenarioHelpTail;
    return text.c_str();
}

}  // namespace tvsp
