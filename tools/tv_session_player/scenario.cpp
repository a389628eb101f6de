// Scenario parser of the TV session player.
#include "scenario.h"

#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <set>
#include <sstream>

namespace tvsp {

namespace {

constexpr int64_t kI32Min = -2147483648LL;
constexpr int64_t kI32Max = 2147483647LL;
constexpr int64_t kU32Max = 4294967295LL;
constexpr int64_t kI64Min = INT64_MIN;
constexpr int64_t kI64Max = INT64_MAX;
constexpr int64_t kDayMs = 86400000LL;

enum class T {
    Int,      // integer in [min, max]
    Ms,       // milliseconds with up to three decimals, stored in microseconds
    Real,     // finite real number in [min, max]
    Size,     // WxH, each in [min, max]
    Rect,     // x,y,w,h: x, y signed 32-bit, w, h unsigned 32-bit
    Dar,      // W:H, each unsigned 32-bit
    Port,     // input port name or number
    Errno,    // errno name or number
    Times,    // 1.., -1 or "always"
    Path,     // any non-empty text
    Request,  // a request name as recorded by the emulator
    Hal,      // board HAL behaviour
    Name,     // track name
    Handle,   // "null"
    Bool,     // 0 or 1
};

struct ParamDef {
    const char* name;
    T type;
    int64_t min;
    int64_t max;
    bool required;
    bool positional;
};

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
        {"platform absent", Cmd::PlatformAbsent, 0, {{"path", T::Path, 0, 0, true, true}}},
        {"platform present", Cmd::PlatformPresent, 0, {{"path", T::Path, 0, 0, true, true}}},
        {"platform compr-device", Cmd::PlatformComprDevice, 0, {{"path", T::Path, 0, 0, true, true}}},
        {"platform fail",
         Cmd::PlatformFail,
         0,
         {{"request", T::Request, 0, 0, true, true},
          {"errno", T::Errno, 1, 4095, true, true},
          {"times", T::Times, 1, 1000000, false, true}}},
        {"platform status",
         Cmd::PlatformStatus,
         0,
         {{"request", T::Request, 0, 0, true, true},
          {"status", T::Int, kI32Min, kI32Max, true, true},
          {"times", T::Times, 1, 1000000, false, true}}},
        {"platform clear-faults", Cmd::PlatformClearFaults, 0, {}},
        {"platform panel",
         Cmd::PlatformPanel,
         0,
         {{"w", T::Int, 0, kU32Max, true, true}, {"h", T::Int, 0, kU32Max, true, true}}},
        {"platform hal", Cmd::PlatformHal, 0, {{"mode", T::Hal, 0, 0, true, true}}},
        {"platform vsync",
         Cmd::PlatformVsync,
         0,
         {{"hz", T::Int, kI32Min, kI32Max, true, true}, {"ret", T::Int, kI32Min, kI32Max, false, true}}},
        {"platform vsync-offset",
         Cmd::PlatformVsyncOffset,
         0,
         {{"sec", T::Int, kI32Min, kI32Max, true, true},
          {"nsec", T::Int, kI32Min, kI32Max, true, true},
          {"ret", T::Int, kI32Min, kI32Max, false, true}}},
        {"platform decoder-frames",
         Cmd::PlatformDecoderFrames,
         0,
         {{"dec0", T::Int, kI32Min, kI32Max, true, true}, {"dec1", T::Int, kI32Min, kI32Max, true, true}}},
        {"platform dolby-rewrite",
         Cmd::PlatformDolbyRewrite,
         0,
         {{"profile", T::Int, kI32Min, kI32Max, true, true}}},
        {"platform broadcast",
         Cmd::PlatformBroadcast,
         0,
         {{"size", T::Size, 0, kU32Max, false, false},
          {"aspect", T::Int, 0, kU32Max, false, false},
          {"port", T::Port, 0, 14, false, false},
          {"framerate", T::Int, 0, kU32Max, false, false}}},
        {"platform compr",
         Cmd::PlatformCompr,
         0,
         {{"buffer", T::Int, 1, 16 << 20, false, false}, {"dsp", T::Int, 0, 16 << 20, false, false}}},
        {"platform logmask", Cmd::PlatformLogmask, 0, {{"value", T::Int, kI32Min, kI32Max, true, true}}},
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

const char* const kPortNames[] = {"dtv",   "mm",    "atv",  "av",         "component",
                                  "rgb",   "dvi",   "hdmi", "main_clone", "jpeg_swdec",
                                  "mjpeg", "scart", "dsp",  "lvdxrx",     "max"};

const char* const kHalModes[] = {"absent",        "working",   "no-init-symbol", "init-fails",
                                 "no-get-symbol", "get-fails", "gets-zero"};

struct ErrnoName {
    const char* name;
    int value;
};
const ErrnoName kErrnos[] = {
    {"EPERM", EPERM},           {"ENOENT", ENOENT}, {"EINTR", EINTR},   {"EIO", EIO},
    {"ENXIO", ENXIO},           {"EBADF", EBADF},   {"EAGAIN", EAGAIN}, {"ENOMEM", ENOMEM},
    {"EACCES", EACCES},         {"EFAULT", EFAULT}, {"EBUSY", EBUSY},   {"EEXIST", EEXIST},
    {"ENODEV", ENODEV},         {"EINVAL", EINVAL}, {"EMFILE", EMFILE}, {"ENOTTY", ENOTTY},
    {"ENOSPC", ENOSPC},         {"EPIPE", EPIPE},   {"ENOSYS", ENOSYS}, {"ETIMEDOUT", ETIMEDOUT},
    {"EOPNOTSUPP", EOPNOTSUPP},
};

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return std::string();
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

std::vector<std::string> split_ws(const std::string& s) {
    std::vector<std::string> out;
    std::istringstream is(s);
    std::string tok;
    while (is >> tok)
        out.push_back(tok);
    return out;
}

// Signed integer, decimal or 0x hexadecimal; false on anything else or on overflow.
bool to_int(const std::string& s, int64_t* out) {
    if (s.empty())
        return false;
    const char* p = s.c_str();
    bool neg = false;
    if (*p == '-' || *p == '+') {
        neg = *p == '-';
        ++p;
    }
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    if (*p == '\0')
        return false;
    for (const char* q = p; *q; ++q) {
        bool ok = base == 16 ? isxdigit(static_cast<unsigned char>(*q)) != 0 : (*q >= '0' && *q <= '9');
        if (!ok)
            return false;
    }
    errno = 0;
    unsigned long long mag = strtoull(p, nullptr, base);
    if (errno == ERANGE)
        return false;
    if (neg) {
        if (mag > 9223372036854775808ULL)
            return false;
        *out = mag == 9223372036854775808ULL ? INT64_MIN : -static_cast<int64_t>(mag);
    } else {
        if (mag > static_cast<unsigned long long>(INT64_MAX))
            return false;
        *out = static_cast<int64_t>(mag);
    }
    return true;
}

// Milliseconds with up to three decimals, as microseconds.
bool to_us(const std::string& s, int64_t* out) {
    size_t dot = s.find('.');
    std::string whole = s.substr(0, dot);
    std::string frac = dot == std::string::npos ? std::string() : s.substr(dot + 1);
    if (whole.empty() || whole.size() > 12)
        return false;
    if (dot != std::string::npos && (frac.empty() || frac.size() > 3))
        return false;
    for (char c : whole + frac)
        if (c < '0' || c > '9')
            return false;
    int64_t us = std::stoll(whole) * 1000;
    if (!frac.empty()) {
        while (frac.size() < 3)
            frac += '0';
        us += std::stoll(frac);
    }
    *out = us;
    return true;
}

bool to_real(const std::string& s, double* out) {
    if (s.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    double d = strtod(s.c_str(), &end);
    if (end == nullptr || *end != '\0' || errno == ERANGE || !std::isfinite(d))
        return false;
    // Only plain decimal notation: no hexadecimal floats, no "inf" or "nan".
    for (char c : s)
        if (!(c == '-' || c == '+' || c == '.' || (c >= '0' && c <= '9') || c == 'e' || c == 'E'))
            return false;
    *out = d;
    return true;
}

std::string range_text(int64_t min, int64_t max) {
    return "(" + std::to_string(min) + ".." + std::to_string(max) + ")";
}

class LineError {
  public:
    explicit LineError(std::string m) : message(std::move(m)) {}
    std::string message;
};

// Checks one value against its parameter; throws LineError.
Arg check_value(const std::string& cmd, const ParamDef& p, const std::string& value) {
    Arg a;
    a.text = value;
    const std::string what = cmd + ": ";
    auto in_range = [&](int64_t v, const std::string& shown) {
        if (v < p.min || v > p.max)
            throw LineError(what + p.name + "=" + shown + " is out of range " + range_text(p.min, p.max));
    };
    switch (p.type) {
        case T::Int:
        case T::Bool: {
            int64_t v;
            if (!to_int(value, &v)) {
                // An integer too large for 64 bits is a value out of range, not a typo.
                bool digits = !value.empty();
                for (size_t i = (value[0] == '-' || value[0] == '+') ? 1 : 0; i < value.size(); ++i)
                    digits = digits && value[i] >= '0' && value[i] <= '9';
                if (digits && value.size() > 1)
                    throw LineError(what + p.name + "=" + value + " is out of range " +
                                    range_text(p.min, p.max));
                throw LineError(what + "expected an integer for " + p.name + ", got '" + value + "'");
            }
            in_range(v, value);
            a.v[0] = v;
            break;
        }
        case T::Ms: {
            int64_t us;
            if (value[0] == '-') {
                int64_t dummy;
                if (to_us(value.substr(1), &dummy))
                    throw LineError(what + p.name + "=" + value + " is out of range " +
                                    range_text(p.min, p.max) + " ms");
            }
            if (!to_us(value, &us))
                throw LineError(what + "expected milliseconds (e.g. 20 or 21.333) for " + p.name + ", got '" +
                                value + "'");
            if (us < p.min || us > p.max * 1000)
                throw LineError(what + p.name + "=" + value + " is out of range " + range_text(p.min, p.max) +
                                " ms");
            a.v[0] = us;
            break;
        }
        case T::Real: {
            double d;
            if (!to_real(value, &d))
                throw LineError(what + "expected a number for " + p.name + ", got '" + value + "'");
            if (d < static_cast<double>(p.min) || d > static_cast<double>(p.max))
                throw LineError(what + p.name + "=" + value + " is out of range " + range_text(p.min, p.max));
            a.f = d;
            break;
        }
        case T::Size: {
            size_t x = value.find('x');
            int64_t w, h;
            if (x == std::string::npos || !to_int(value.substr(0, x), &w) || !to_int(value.substr(x + 1), &h))
                throw LineError(what + "expected WIDTHxHEIGHT for " + p.name + ", got '" + value + "'");
            if (w < p.min || w > p.max || h < p.min || h > p.max)
                throw LineError(what + p.name + "=" + value + " is out of range " + range_text(p.min, p.max) +
                                " per side");
            a.v[0] = w;
            a.v[1] = h;
            break;
        }
        case T::Rect: {
            std::vector<std::string> fields;
            std::string cur;
            for (char c : value + ",") {
                if (c == ',') {
                    fields.push_back(cur);
                    cur.clear();
                } else {
                    cur += c;
                }
            }
            int64_t v[4];
            if (fields.size() != 4 || !to_int(fields[0], &v[0]) || !to_int(fields[1], &v[1]) ||
                !to_int(fields[2], &v[2]) || !to_int(fields[3], &v[3]))
                throw LineError(what + "expected X,Y,W,H for " + p.name + ", got '" + value + "'");
            if (v[0] < kI32Min || v[0] > kI32Max || v[1] < kI32Min || v[1] > kI32Max)
                throw LineError(what + p.name + "=" + value + ": x and y are out of range " +
                                range_text(kI32Min, kI32Max));
            if (v[2] < 0 || v[2] > kU32Max || v[3] < 0 || v[3] > kU32Max)
                throw LineError(what + p.name + "=" + value + ": w and h are out of range " +
                                range_text(0, kU32Max));
            for (int i = 0; i < 4; ++i)
                a.v[i] = v[i];
            break;
        }
        case T::Dar: {
            size_t c = value.find(':');
            int64_t w, h;
            if (c == std::string::npos || !to_int(value.substr(0, c), &w) || !to_int(value.substr(c + 1), &h))
                throw LineError(what + "expected W:H for " + p.name + ", got '" + value + "'");
            if (w < 0 || w > kU32Max || h < 0 || h > kU32Max)
                throw LineError(what + p.name + "=" + value + " is out of range " + range_text(0, kU32Max) +
                                " per term");
            a.v[0] = w;
            a.v[1] = h;
            break;
        }
        case T::Port: {
            int64_t v = -1;
            for (int i = 0; i <= 14; ++i)
                if (value == kPortNames[i])
                    v = i;
            if (v < 0) {
                if (!to_int(value, &v))
                    throw LineError(what +
                                    "expected an input port (dtv, mm, atv, av, component, rgb, dvi, hdmi, "
                                    "main_clone, jpeg_swdec, mjpeg, scart, dsp, lvdxrx, max or 0..14) for " +
                                    std::string(p.name) + ", got '" + value + "'");
                in_range(v, value);
            }
            a.v[0] = v;
            break;
        }
        case T::Errno: {
            int64_t v = -1;
            for (const auto& e : kErrnos)
                if (value == e.name)
                    v = e.value;
            if (v < 0) {
                if (!to_int(value, &v))
                    throw LineError(what + "expected an errno name (EIO, EBUSY, ...) or number for " +
                                    std::string(p.name) + ", got '" + value + "'");
                in_range(v, value);
            }
            a.v[0] = v;
            break;
        }
        case T::Times: {
            int64_t v;
            if (value == "always") {
                v = -1;
            } else {
                if (!to_int(value, &v))
                    throw LineError(what + "expected a count, -1 or 'always' for " + std::string(p.name) +
                                    ", got '" + value + "'");
                if (v != -1)
                    in_range(v, value);
            }
            a.v[0] = v;
            break;
        }
        case T::Path:
        case T::Request:
            break;
        case T::Hal: {
            bool ok = false;
            for (int i = 0; i < 7; ++i)
                if (value == kHalModes[i]) {
                    ok = true;
                    a.v[0] = i;
                }
            if (!ok)
                throw LineError(what +
                                "expected a HAL mode (absent, working, no-init-symbol, init-fails, "
                                "no-get-symbol, get-fails, gets-zero), got '" +
                                value + "'");
            break;
        }
        case T::Name: {
            for (char c : value)
                if (!(isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-'))
                    throw LineError(what + "expected a track name of letters, digits, '_' and '-', got '" +
                                    value + "'");
            break;
        }
        case T::Handle:
            if (value != "null")
                throw LineError(what + "expected handle=null, got handle=" + value);
            break;
    }
    return a;
}

std::string join_names(const std::vector<const ParamDef*>& ps, bool positional_only) {
    std::string out;
    for (const ParamDef* p : ps) {
        if (positional_only && !p->positional)
            continue;
        if (!out.empty())
            out += ", ";
        out += p->name;
    }
    return out;
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

// Parses one non-empty line (comment removed) into `out`; throws LineError.
void parse_line(const std::vector<std::string>& toks, Command* out) {
    const std::string& head = toks[0];
    size_t first_arg = 1;
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
    if (head == "video" || head == "audio" || head == "platform") {
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
    size_t next_pos = 0;
    std::vector<const ParamDef*> positional;
    for (const ParamDef* p : all)
        if (p->positional)
            positional.push_back(p);

    for (size_t i = first_arg; i < toks.size(); ++i) {
        const std::string& t = toks[i];
        size_t eq = t.find('=');
        const ParamDef* p = nullptr;
        std::string value;
        if (eq == 0)
            throw LineError(name + ": expected key=value or a value, got '" + t + "'");
        if (eq != std::string::npos) {
            std::string key = t.substr(0, eq);
            value = t.substr(eq + 1);
            for (const ParamDef* c : all)
                if (key == c->name)
                    p = c;
            if (!p)
                throw LineError(name + ": unknown argument '" + key + "'" +
                                (all.empty() ? std::string(" (it takes none)")
                                             : " (expected " + join_names(all, false) + ")"));
            if (value.empty())
                throw LineError(name + ": empty value for '" + key + "'");
        } else {
            while (next_pos < positional.size() && out->args.count(positional[next_pos]->name))
                ++next_pos;
            if (next_pos >= positional.size())
                throw LineError(name + ": unexpected value '" + t + "'" +
                                (positional.empty()
                                     ? std::string(" (use key=value arguments)")
                                     : " (positional values are " + join_names(positional, true) + ")"));
            p = positional[next_pos++];
            value = t;
        }
        if (out->args.count(p->name))
            throw LineError(name + ": '" + std::string(p->name) + "' given twice");
        out->args[p->name] = check_value(name, *p, value);
    }
    for (const ParamDef* p : all)
        if (p->required && !out->args.count(p->name))
            throw LineError(name + ": expected " + p->name);

    if ((def->flags & kVoid) && out->has("expect") && out->arg("expect").v[0] != 0)
        throw LineError(name + ": expect=" + out->arg("expect").text +
                        " is out of range (the function returns nothing: only 0)");
    if ((def->flags & kNoNull) && out->has("handle"))
        throw LineError(name +
                        ": handle=null is not accepted (the library reads the handle without a check)");
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
    if (port < 0 || port > 14)
        return "?";
    return kPortNames[port];
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

    std::istringstream in(text);
    std::string raw;
    int lineno = 0;
    while (std::getline(in, raw)) {
        ++lineno;
        std::string line = raw;
        size_t hash = line.find('#');
        if (hash != std::string::npos)
            line.resize(hash);
        line = trim(line);
        if (line.empty())
            continue;
        Command c;
        c.file = file;
        c.line = lineno;
        try {
            for (char ch : line)
                if (static_cast<unsigned char>(ch) < 0x20 && ch != '\t')
                    throw LineError("unexpected control character");
            parse_line(split_ws(line), &c);
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
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        *error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    return parse_scenario(ss.str(), path, out, error);
}

const char* scenario_help() {
    return R"(Scenario files
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
                                       max-retries times, default 1000).

Emulated platform
  platform absent PATH | present PATH  a device node disappears / comes back
  platform compr-device PATH           a compressed-offload device at PATH
  platform fail REQUEST ERRNO [TIMES]  REQUEST (e.g. FR2IP_SetPTS, open:/dev/kdolby,
                                       DRM_IOCTL_MODE_SETPLANE) fails with ERRNO
                                       (EIO, EBUSY, ... or a number) TIMES times
                                       (default 1; -1 or 'always': for ever)
  platform status REQUEST STATUS [TIMES]
                                       the driver works but writes STATUS into
                                       the record's own result cell
  platform clear-faults                forget scripted failures
  platform panel W H                   the connector reports a W x H panel
  platform hal MODE                    board HAL: absent working no-init-symbol
                                       init-fails no-get-symbol get-fails gets-zero
  platform vsync HZ [RET]              vsync rate in mHz (59940) and driver ret
  platform vsync-offset SEC NSEC [RET] offset from the last vsync
  platform decoder-frames DEC0 DEC1    frames held by the two decoders
  platform dolby-rewrite PROFILE       the Dolby driver rewrites the profile
  platform broadcast [size=WxH] [aspect=N] [port=P] [framerate=MHZ]
                                       the broadcast frame on /dev/video10
  platform compr [buffer=BYTES] [dsp=BYTES]
                                       the audio decoder: ring buffer (default
                                       min fragment x max fragments of the device)
                                       and the decoder's own buffer (default two
                                       fragments). It plays channels x 2 x rate
                                       bytes per second once started.
  platform logmask VALUE               the marker file /tmp/RUVO holds VALUE

Environment
  env NAME=VALUE | env unset NAME      e.g. env TA_DTV_PRELOAD=1
)";
}

}  // namespace tvsp
