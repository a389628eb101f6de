// The line format shared by platform files (RUVO_EMUTV) and the session player's scenarios:
// one command per line, '#' starts a comment, arguments are positional values or
// key=value pairs, each checked against its parameter. The `platform ...` commands are
// defined, parsed and applied here, once, for both.
#pragma once

#include <stdint.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace emutv {

class Platform;

namespace lines {

constexpr int64_t kI32Min = -2147483648LL;
constexpr int64_t kI32Max = 2147483647LL;
constexpr int64_t kU32Max = 4294967295LL;
constexpr int64_t kI64Min = INT64_MIN;
constexpr int64_t kI64Max = INT64_MAX;

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
    Hz,       // rate in Hz with up to three decimals in [min, max] mHz, stored in mHz
};

struct ParamDef {
    const char* name;
    T type;
    int64_t min;
    int64_t max;
    bool required;
    bool positional;
};

// One checked argument. Integers and sizes are in `v`, real numbers in `f`, the text as
// written in `text` (words, paths, request names).
struct Value {
    std::string text;
    int64_t v[4] = {0, 0, 0, 0};
    double f = 0.0;
};
using Args = std::map<std::string, Value>;

// A line that cannot be used; `message` names the command and what was expected.
class LineError {
  public:
    explicit LineError(std::string m) : message(std::move(m)) {}
    std::string message;
};

std::string trim(const std::string& s);
std::vector<std::string> split_ws(const std::string& s);
// Signed integer, decimal or 0x hexadecimal; false on anything else or on overflow.
bool to_int(const std::string& s, int64_t* out);
std::string range_text(int64_t min, int64_t max);
// Names of the decoder's input ports ("dtv", "mm", ... for 0..14; "?" for others).
const char* input_port_name(int64_t port);
// The text of a line without its comment and surrounding blanks; throws LineError on a
// control character.
std::string strip_line(const std::string& raw);

// Checks one value against its parameter; throws LineError.
Value check_value(const std::string& cmd, const ParamDef& p, const std::string& value);
std::string join_names(const std::vector<const ParamDef*>& ps, bool positional_only);
// Fills `args` from toks[first..] against the parameters `all`; throws LineError.
void parse_args(const std::string& cmd, const std::vector<const ParamDef*>& all,
                const std::vector<std::string>& toks, size_t first, Args* args);

// ---- platform lines ---------------------------------------------------------------------

enum class PlatformCmd {
    Absent,
    Present,
    ComprDevice,
    Fail,
    Status,
    ClearFaults,
    Panel,
    Hal,
    Vsync,
    VsyncOffset,
    DecoderFrames,
    DolbyRewrite,
    Broadcast,
    Compr,
    Logmask,
    DrmEmpty,
    Crtc,
    Encoder,
    Connector,
    Plane,
};

struct PlatformLine {
    PlatformCmd cmd = PlatformCmd::ClearFaults;
    std::string name;  // "platform fail", ...
    Args args;
    int64_t num(const std::string& key, int64_t fallback) const;
};

// What a parse of platform lines knows from the lines before: the compressed-offload
// nodes declared so far (fault names "open:PATH" may name them).
struct PlatformParseState {
    std::set<std::string> compr_paths;
};

// Parses one line whose first token is "platform"; throws LineError.
PlatformLine parse_platform_line(const std::vector<std::string>& toks, PlatformParseState* state);
// "absent, present, compr-device, ..." for messages.
std::string platform_subcommands();
// True when `name` is a request, or "open:PATH"/"close:PATH" of a device node, that the
// emulator records and can fail.
bool known_request(const std::string& name, const PlatformParseState& state);

// Applies a line to the platform. `platform compr` and `platform broadcast` are applied
// by the caller that owns the audio decoder and the broadcast frame; this returns false
// for them.
bool apply_platform_line(Platform& tv, const PlatformLine& line);

// A whole platform file: only `platform ...` lines, blank lines and comments. On the first
// problem returns false with "FILE:LINE: what was expected" (or "FILE: cannot read: ...").
bool parse_platform_file(const std::string& text, const std::string& file, std::vector<PlatformLine>* out,
                         std::string* error);
bool load_platform_file(const std::string& path, std::vector<PlatformLine>* out, std::string* error);

// The platform lines' grammar, for --help and the documentation.
const char* platform_help();

}  // namespace lines
}  // namespace emutv
