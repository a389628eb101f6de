// One-line decoding of a recorded request, for traces.
#include <stdio.h>
#include <string.h>

#include <map>
#include <mutex>
#include <sstream>

#include "core.h"

namespace emutv {

namespace {

// A four-character code as its characters ("XR24"), or the number when not printable.
std::string fourcc(long long v) {
    std::string s;
    for (int i = 0; i < 4; ++i) {
        char c = static_cast<char>((static_cast<unsigned long long>(v) >> (8 * i)) & 0xff);
        if (c < 0x20 || c > 0x7e)
            return std::to_string(v);
        s += c;
    }
    return s;
}

// A 16.16 fixed-point value: "1920.0", "0.5".
std::string fixed_16_16(long long v) {
    const unsigned long long u = static_cast<unsigned long long>(v) & 0xffffffffULL;
    char frac[16];
    snprintf(frac, sizeof(frac), "%.4f", static_cast<double>(u & 0xffff) / 65536.0);
    std::string f(frac + 1);  // ".xxxx"
    while (f.size() > 2 && f.back() == '0')
        f.pop_back();
    return std::to_string(u >> 16) + f;
}

std::string object_type(long long v) {
    switch (static_cast<unsigned long long>(v) & 0xffffffffULL) {
        case 0xccccccccULL:
            return "crtc";
        case 0xc0c0c0c0ULL:
            return "connector";
        case 0xe0e0e0e0ULL:
            return "encoder";
        case 0xdededede:
            return "mode";
        case 0xb0b0b0b0ULL:
            return "property";
        case 0xfbfbfbfbULL:
            return "fb";
        case 0xbbbbbbbbULL:
            return "blob";
        case 0xeeeeeeeeULL:
            return "plane";
        case 0:
            return "any";
        default:
            return std::to_string(v);
    }
}

// Addresses differ from run to run: each is shown as a token numbered by first sight in
// the process ("@1", "@2", ...; "null" for 0). The table is under the platform lock, which
// the trace already holds and the fork handlers hold across fork(): a child never
// inherits it half-updated by a thread it does not have.
std::string address_token(long long v) {
    if (v == 0)
        return "null";
    static std::map<long long, int> tokens;
    std::lock_guard<PlatformMutex> g(detail::core().mu);
    auto it = tokens.find(v);
    if (it == tokens.end())
        it = tokens.emplace(v, static_cast<int>(tokens.size()) + 1).first;
    return "@" + std::to_string(it->second);
}

// A 32-bit cell the driver reads as signed (-1: no frame).
std::string signed_32(long long v) {
    return std::to_string(static_cast<int32_t>(static_cast<uint32_t>(v)));
}

std::string field_text(const std::string& key, long long v) {
    if (key == "pixel_format")
        return fourcc(v);
    if (key == "src_x" || key == "src_y" || key == "src_w" || key == "src_h")
        return fixed_16_16(v);
    if (key == "obj_type")
        return object_type(v);
    if (key == "decoder_info")
        return address_token(v);
    if (key == "display_index")
        return signed_32(v);
    return std::to_string(v);
}

}  // namespace

std::string describe(const Event& e) {
    std::ostringstream os;
    os << device_name(e.device) << ' ' << e.path << ' ' << e.name;
    if (e.fd >= 0 && e.kind != Kind::Open)
        os << " fd=" << e.fd;
    for (const auto& kv : e.text)
        os << ' ' << kv.first << "=\"" << kv.second << '"';
    for (const auto& kv : e.fields)
        os << ' ' << kv.first << '=' << field_text(kv.first, kv.second);
    os << " -> " << e.result;
    if (e.result < 0 && e.err)
        os << " (" << strerror(e.err) << ')';
    if (e.thread != 0)
        os << " [thread " << e.thread << ", unordered]";
    return os.str();
}

}  // namespace emutv
