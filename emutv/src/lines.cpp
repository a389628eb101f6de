// The value grammar of platform files and scenarios: one checker per kind of value.
#include <errno.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <sstream>

#include "emutv/lines.h"

namespace emutv {
namespace lines {

namespace {

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

// Thousandths as a decimal: 59940 -> "59.94".
std::string millis_text(int64_t v) {
    std::string s = std::to_string(v / 1000);
    int64_t frac = v % 1000;
    if (frac != 0) {
        char buf[8];
        snprintf(buf, sizeof(buf), ".%03lld", static_cast<long long>(frac));
        std::string f(buf);
        while (f.back() == '0')
            f.pop_back();
        s += f;
    }
    return s;
}

}  // namespace

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

const char* input_port_name(int64_t port) {
    if (port < 0 || port > 14)
        return "?";
    return kPortNames[port];
}

std::string range_text(int64_t min, int64_t max) {
    return "(" + std::to_string(min) + ".." + std::to_string(max) + ")";
}

Value check_value(const std::string& cmd, const ParamDef& p, const std::string& value) {
    Value a;
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
        case T::Hz: {
            int64_t mhz;
            if (!to_us(value, &mhz))
                throw LineError(what + "expected a rate in Hz (e.g. 50, 59.94 or 60) for " +
                                std::string(p.name) + ", got '" + value + "'");
            if (mhz < p.min || mhz > p.max)
                throw LineError(what + p.name + "=" + value + " Hz is out of range (" + millis_text(p.min) +
                                ".." + millis_text(p.max) + " Hz)");
            a.v[0] = mhz;
            break;
        }
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

std::string strip_line(const std::string& raw) {
    std::string line = raw;
    size_t hash = line.find('#');
    if (hash != std::string::npos)
        line.resize(hash);
    line = trim(line);
    for (char ch : line)
        if (static_cast<unsigned char>(ch) < 0x20 && ch != '\t')
            throw LineError("unexpected control character");
    return line;
}

void parse_args(const std::string& name, const std::vector<const ParamDef*>& all,
                const std::vector<std::string>& toks, size_t first, Args* args) {
    size_t next_pos = 0;
    std::vector<const ParamDef*> positional;
    for (const ParamDef* p : all)
        if (p->positional)
            positional.push_back(p);

    for (size_t i = first; i < toks.size(); ++i) {
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
            while (next_pos < positional.size() && args->count(positional[next_pos]->name))
                ++next_pos;
            if (next_pos >= positional.size())
                throw LineError(name + ": unexpected value '" + t + "'" +
                                (positional.empty()
                                     ? std::string(" (use key=value arguments)")
                                     : " (positional values are " + join_names(positional, true) + ")"));
            p = positional[next_pos++];
            value = t;
        }
        if (args->count(p->name))
            throw LineError(name + ": '" + std::string(p->name) + "' given twice");
        (*args)[p->name] = check_value(name, *p, value);
    }
    for (const ParamDef* p : all)
        if (p->required && !args->count(p->name))
            throw LineError(name + ": expected " + p->name);
}

}  // namespace lines
}  // namespace emutv
