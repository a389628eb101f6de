// Scenario files of the TV session player: a small line-oriented text format, parsed and
// checked as a whole before anything runs.
//
//   # comment
//   track video
//   video open
//   video rect 0 0 1920 1080
//   video frame count=125 size=1920x1080 to=1440,810,480,270
//   wait 100
//
// One command per line; arguments are positional values or key=value pairs. The full
// grammar is printed by `tv-session-player --help` (scenario_help()).
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "emutv/lines.h"

namespace tvsp {

enum class Cmd {
    Track,
    At,
    Wait,
    EnvSet,
    EnvUnset,
    PlatformAbsent,
    PlatformPresent,
    PlatformComprDevice,
    PlatformFail,
    PlatformStatus,
    PlatformClearFaults,
    PlatformPanel,
    PlatformHal,
    PlatformVsync,
    PlatformVsyncOffset,
    PlatformDecoderFrames,
    PlatformDolbyRewrite,
    PlatformBroadcast,
    PlatformCompr,
    PlatformLogmask,
    PlatformDrmEmpty,
    PlatformCrtc,
    PlatformEncoder,
    PlatformConnector,
    PlatformPlane,
    VideoOpen,
    VideoClose,
    VideoPanel,
    VideoRect,
    VideoHide,
    VideoShow,
    VideoFirstFrame,
    VideoFrame,
    VideoNextRes,
    VideoVsync,
    VideoUsed,
    VideoPts,
    VideoNotifyTa,
    AudioOpen,
    AudioSetup,
    AudioStart,
    AudioStop,
    AudioSyncMode,
    AudioPush,
    AudioInfo,
    AudioVolume,
    AudioSpeed,
    AudioClose,
};

// One checked argument (the value grammar is the emulator's, shared with platform files).
using Arg = emutv::lines::Value;

struct Command {
    Cmd cmd = Cmd::Track;
    std::string name;  // "video rect", "wait", ...
    std::string file;
    int line = 0;
    int track = 0;  // index into Scenario::tracks
    std::map<std::string, Arg> args;
    emutv::lines::PlatformCmd platform = emutv::lines::PlatformCmd::ClearFaults;  // platform lines

    // A platform line as the emulator applies it.
    emutv::lines::PlatformLine platform_line() const { return {platform, name, args}; }

    bool has(const std::string& key) const { return args.count(key) != 0; }
    const Arg& arg(const std::string& key) const { return args.at(key); }
    int64_t num(const std::string& key, int64_t fallback) const;
    double real(const std::string& key, double fallback) const;
    std::string word(const std::string& key, const std::string& fallback) const;

    // Library calls: the number of calls on this line, the spacing between them in
    // microseconds of virtual time (-1 when not given), the expected result.
    bool is_call() const;
    int64_t count() const { return num("count", 1); }
    int64_t every_us() const { return num("every", -1); }
    int64_t expect() const { return num("expect", 0); }
    bool null_handle() const { return has("handle"); }
    std::string where() const { return file + ":" + std::to_string(line); }
};

struct Scenario {
    std::string file;
    std::vector<std::string> tracks;  // "main" first
    std::vector<Command> commands;    // in file order
};

// Parses a whole scenario. On the first error returns false and sets `error` to
// "file:line: message".
bool parse_scenario(const std::string& text, const std::string& file, Scenario* out, std::string* error);
// Reads and parses a file ("file: cannot read: ..." when it cannot be read).
bool load_scenario(const std::string& path, Scenario* out, std::string* error);

// The grammar, for --help and the documentation.
const char* scenario_help();

// Names of the decoder's input ports ("dtv", "mm", ...) and back.
const char* port_name(int64_t port);
// Time in microseconds as milliseconds: "20", "21.333".
std::string format_ms(int64_t us);

}  // namespace tvsp
