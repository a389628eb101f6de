// The `platform ...` lines: their table, their checks and what each does to the platform.
#include <errno.h>
#include <linux/videodev2.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "core.h"
#include "emutv/emutv.h"
#include "emutv/lines.h"
#include "emutv/models.h"
#include "ruvo/driver/v4l2_drm.h"

namespace emutv {
namespace lines {

namespace {

constexpr int64_t kMaxPanelSide = 16384;
constexpr int64_t kMinVsyncMhz = 1000;     // 1 Hz (0: a driver that answers 0)
constexpr int64_t kMaxVsyncMhz = 1000000;  // 1000 Hz

struct PlatformDef {
    const char* name;  // after "platform "
    PlatformCmd cmd;
    std::vector<ParamDef> params;
};

const std::vector<PlatformDef>& platform_commands() {
    static const std::vector<PlatformDef> table = {
        {"absent", PlatformCmd::Absent, {{"path", T::Path, 0, 0, true, true}}},
        {"present", PlatformCmd::Present, {{"path", T::Path, 0, 0, true, true}}},
        {"compr-device", PlatformCmd::ComprDevice, {{"path", T::Path, 0, 0, true, true}}},
        {"fail",
         PlatformCmd::Fail,
         {{"request", T::Request, 0, 0, true, true},
          {"errno", T::Errno, 1, 4095, true, true},
          {"times", T::Times, 1, 1000000, false, true},
          {"at", T::Int, 1, 1000000, false, false}}},
        {"status",
         PlatformCmd::Status,
         {{"request", T::Request, 0, 0, true, true},
          {"status", T::Int, kI32Min, kI32Max, true, true},
          {"times", T::Times, 1, 1000000, false, true},
          {"at", T::Int, 1, 1000000, false, false}}},
        {"clear-faults", PlatformCmd::ClearFaults, {}},
        {"panel",
         PlatformCmd::Panel,
         {{"w", T::Int, 1, kMaxPanelSide, true, true}, {"h", T::Int, 1, kMaxPanelSide, true, true}}},
        {"hal", PlatformCmd::Hal, {{"mode", T::Hal, 0, 0, true, true}}},
        {"vsync",
         PlatformCmd::Vsync,
         {{"hz", T::Hz, 0, kMaxVsyncMhz, true, true}, {"ret", T::Int, kI32Min, kI32Max, false, true}}},
        {"vsync-offset",
         PlatformCmd::VsyncOffset,
         {{"sec", T::Int, kI32Min, kI32Max, true, true},
          {"nsec", T::Int, kI32Min, kI32Max, true, true},
          {"ret", T::Int, kI32Min, kI32Max, false, true}}},
        {"decoder-frames",
         PlatformCmd::DecoderFrames,
         {{"dec0", T::Int, kI32Min, kI32Max, true, true}, {"dec1", T::Int, kI32Min, kI32Max, true, true}}},
        {"dolby-rewrite", PlatformCmd::DolbyRewrite, {{"profile", T::Int, kI32Min, kI32Max, true, true}}},
        {"broadcast",
         PlatformCmd::Broadcast,
         {{"size", T::Size, 0, kU32Max, false, false},
          {"aspect", T::Int, 0, kU32Max, false, false},
          {"port", T::Port, 0, 14, false, false},
          {"framerate", T::Int, 0, kU32Max, false, false}}},
        {"compr",
         PlatformCmd::Compr,
         {{"buffer", T::Int, 1, 16 << 20, false, false}, {"dsp", T::Int, 0, 16 << 20, false, false}}},
        {"logmask", PlatformCmd::Logmask, {{"value", T::Int, kI32Min, kI32Max, true, true}}},
        {"drm-empty", PlatformCmd::DrmEmpty, {}},
        {"crtc", PlatformCmd::Crtc, {{"id", T::Int, 1, kU32Max, true, true}}},
        {"encoder",
         PlatformCmd::Encoder,
         {{"id", T::Int, 1, kU32Max, true, true},
          {"crtc", T::Int, 0, kU32Max, false, false},
          {"possible", T::Int, 0, kU32Max, false, false}}},
        {"connector",
         PlatformCmd::Connector,
         {{"id", T::Int, 1, kU32Max, true, true},
          {"encoder", T::Int, 0, kU32Max, false, false},
          {"connected", T::Bool, 0, 1, false, false},
          {"panel", T::Size, 0, kMaxPanelSide, false, false}}},
        {"plane",
         PlatformCmd::Plane,
         {{"id", T::Int, 1, kU32Max, true, true},
          {"type", T::Int, 0, 2, false, false},
          {"plane_type", T::Int, 0, kU32Max, false, false}}},
    };
    return table;
}

const PlatformDef* find_platform_command(const std::string& sub) {
    for (const auto& d : platform_commands())
        if (sub == d.name)
            return &d;
    return nullptr;
}

// Requests named as the emulator records them, by device.
const char* const kRequestNames[] = {
    // DRM
    "DRM_IOCTL_MODE_GETRESOURCES", "DRM_IOCTL_MODE_GETCONNECTOR", "DRM_IOCTL_MODE_GETENCODER",
    "DRM_IOCTL_MODE_GETPLANERESOURCES", "DRM_IOCTL_MODE_GETPLANE", "DRM_IOCTL_MODE_OBJ_GETPROPERTIES",
    "DRM_IOCTL_MODE_GETPROPERTY", "DRM_IOCTL_MODE_CREATE_DUMB", "DRM_IOCTL_MODE_DESTROY_DUMB",
    "DRM_IOCTL_MODE_ADDFB2", "DRM_IOCTL_MODE_RMFB", "DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_PRIME_HANDLE_TO_FD",
    "DRM_IOCTL_PRIME_FD_TO_HANDLE", "DRM_IOCTL_GEM_CLOSE", "DRM_IOCTL_SDP_GEM_HW_CREATE",
    "DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_SDP_SET_ONOFF",
    // video platform
    "FR2IP_SetDispQueueSize", "FR2IP_SetNextResolution", "FR2IP_GetVsyncHZ", "FR2IP_GetOffsetFromVsync",
    "FR2IP_GetDirectlyFrames", "FR2IP_SetPTS",
    // Dolby, converter, broadcast decoder
    "DOLBY_IOC_SET_DV_PROFILE", "CONVERTER_IOCTL_CLOSE", "CONVERTER_IOCTL_INIT", "CONVERTER_IOCTL_DECOMPRESS",
    "VIDIOC_G_EXT_CTRLS",
    // sound card control
    "SNDRV_CTL_IOCTL_PVERSION", "SNDRV_CTL_IOCTL_CARD_INFO", "SNDRV_CTL_IOCTL_ELEM_LIST",
    "SNDRV_CTL_IOCTL_ELEM_INFO", "SNDRV_CTL_IOCTL_ELEM_READ", "SNDRV_CTL_IOCTL_ELEM_WRITE",
    "SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS",
    // compressed offload
    "SNDRV_COMPRESS_IOCTL_VERSION", "SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS",
    "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_GET_METADATA", "SNDRV_COMPRESS_TSTAMP",
    "SNDRV_COMPRESS_AVAIL", "SNDRV_COMPRESS_START", "SNDRV_COMPRESS_STOP",
    // other calls
    "write", "pthread_create"};

bool known_device_path(const std::string& path, const PlatformParseState& state) {
    for (const auto& entry : detail::device_registry())
        for (const char* p : entry.paths)
            if (path == p)
                return true;
    return state.compr_paths.count(path) != 0;
}

std::string fault_name_hint() {
    return "a request the emulator records (e.g. DRM_IOCTL_MODE_SETPLANE, FR2IP_SetPTS, "
           "SNDRV_COMPRESS_START, "
           "write, pthread_create) or open:PATH / close:PATH of an emulated device node";
}

void check_fault_name(const std::string& cmd, const Args& args, const PlatformParseState& state) {
    const std::string& name = args.at("request").text;
    if (!known_request(name, state))
        throw LineError(cmd + ": unknown request '" + name + "' (expected " + fault_name_hint() + ")");
}

PlatformLine panel_none_line() {
    PlatformLine line;
    line.cmd = PlatformCmd::Panel;
    line.name = "platform panel";
    line.args["w"].text = "none";
    line.args["h"].text = "none";
    return line;
}

void set_broadcast_frame(DecoderModel& decoder, const PlatformLine& line) {
    v4l2_drm cur;
    memcpy(&cur, decoder.display_frame.data(), sizeof(cur));
    uint32_t w = cur.u.dec_info.hres, h = cur.u.dec_info.vres;
    if (line.args.count("size")) {
        w = static_cast<uint32_t>(line.args.at("size").v[0]);
        h = static_cast<uint32_t>(line.args.at("size").v[1]);
    }
    decoder.set_display_frame(w, h, static_cast<uint32_t>(line.num("aspect", cur.u.dec_info.aspectratio)),
                              static_cast<uint32_t>(line.num("framerate", cur.u.dec_info.framerate)),
                              static_cast<uint32_t>(line.num("port", cur.inputport)));
}

// The entry of `list` whose id is `id`, added at the end if there is none.
template <typename Entry>
Entry& entry_with_id(std::vector<Entry>& list, uint32_t id) {
    for (auto& e : list)
        if (e.id == id)
            return e;
    list.emplace_back();
    list.back().id = id;
    return list.back();
}

void set_drm_object(DrmModel& drm, const PlatformLine& line) {
    const auto id = static_cast<uint32_t>(line.num("id", 0));
    auto u32 = [&](const char* key, int64_t fallback) {
        return static_cast<uint32_t>(line.num(key, fallback));
    };
    switch (line.cmd) {
        case PlatformCmd::Crtc:
            if (std::find(drm.crtcs.begin(), drm.crtcs.end(), id) == drm.crtcs.end())
                drm.crtcs.push_back(id);
            return;
        case PlatformCmd::Encoder: {
            DrmEncoder& e = entry_with_id(drm.encoders, id);
            e.crtc_id = u32("crtc", e.crtc_id);
            e.possible_crtcs = u32("possible", e.possible_crtcs ? e.possible_crtcs : 1);
            return;
        }
        case PlatformCmd::Connector: {
            DrmConnector& c = entry_with_id(drm.connectors, id);
            c.encoder_id = u32("encoder", c.encoder_id);
            c.encoders = c.encoder_id ? std::vector<uint32_t>{c.encoder_id} : std::vector<uint32_t>{};
            c.connection = line.num("connected", c.connection == 1) ? 1 : 2;
            if (line.args.count("panel")) {
                c.mm_width = static_cast<uint32_t>(line.args.at("panel").v[0]);
                c.mm_height = static_cast<uint32_t>(line.args.at("panel").v[1]);
            }
            return;
        }
        case PlatformCmd::Plane: {
            DrmPlane& p = entry_with_id(drm.planes, id);
            uint64_t type = u32("type", 0), plane_type = u32("plane_type", 0);
            for (const auto& prop : p.props) {
                if (prop.name == "type" && !line.args.count("type"))
                    type = prop.value;
                if (prop.name == "plane_type" && !line.args.count("plane_type"))
                    plane_type = prop.value;
            }
            p.props = {{"type", type}, {"plane_type", plane_type}};
            return;
        }
        default:
            return;
    }
}

}  // namespace

int64_t PlatformLine::num(const std::string& key, int64_t fallback) const {
    auto it = args.find(key);
    return it == args.end() ? fallback : it->second.v[0];
}

std::string platform_subcommands() {
    std::string out;
    for (const auto& d : platform_commands()) {
        if (!out.empty())
            out += ", ";
        out += d.name;
    }
    return out;
}

bool known_request(const std::string& name, const PlatformParseState& state) {
    for (const char* n : kRequestNames)
        if (name == n)
            return true;
    for (const char* prefix : {"open:", "close:"}) {
        size_t len = strlen(prefix);
        if (name.compare(0, len, prefix) == 0)
            return known_device_path(name.substr(len), state);
    }
    return false;
}

PlatformLine parse_platform_line(const std::vector<std::string>& toks, PlatformParseState* state) {
    if (toks.size() < 2 || toks[1].find('=') != std::string::npos)
        throw LineError("expected one of these after 'platform': " + platform_subcommands());
    const std::string name = "platform " + toks[1];
    const PlatformDef* def = find_platform_command(toks[1]);
    if (!def)
        throw LineError("unknown command '" + name + "' (platform commands: " + platform_subcommands() + ")");
    if (def->cmd == PlatformCmd::Panel && toks.size() == 3 && toks[2] == "none")
        return panel_none_line();
    PlatformLine line;
    line.cmd = def->cmd;
    line.name = name;
    std::vector<const ParamDef*> all;
    for (const auto& p : def->params)
        all.push_back(&p);
    if (def->cmd == PlatformCmd::Panel) {
        for (size_t i = 2; i < toks.size(); ++i)
            if (toks[i] == "0" || toks[i] == "w=0" || toks[i] == "h=0")
                throw LineError(name + ": a side of 0 is no panel (W and H are 1.." +
                                std::to_string(kMaxPanelSide) +
                                "; 'platform panel none' for a connector that reports no size)");
    }
    parse_args(name, all, toks, 2, &line.args);
    if (def->cmd == PlatformCmd::Vsync && line.num("hz", 0) != 0 && line.num("hz", 0) < kMinVsyncMhz)
        throw LineError(
            name + ": hz=" + line.args.at("hz").text +
            " is no panel refresh (1..1000 Hz, e.g. 50, 59.94, 60; 0 for a driver that answers 0)");
    if (def->cmd == PlatformCmd::Fail || def->cmd == PlatformCmd::Status)
        check_fault_name(name, line.args, *state);
    if (def->cmd == PlatformCmd::ComprDevice)
        state->compr_paths.insert(line.args.at("path").text);
    return line;
}

bool apply_platform_line(Platform& tv, const PlatformLine& line) {
    std::lock_guard<PlatformMutex> g(tv.mutex());
    auto text = [&](const char* key) { return line.args.at(key).text; };
    auto i32 = [&](const char* key, int64_t fallback) {
        return static_cast<int32_t>(line.num(key, fallback));
    };
    switch (line.cmd) {
        case PlatformCmd::Absent:
            tv.set_present(text("path"), false);
            return true;
        case PlatformCmd::Present:
            tv.set_present(text("path"), true);
            return true;
        case PlatformCmd::ComprDevice:
            tv.add_compr_device(text("path"));
            return true;
        case PlatformCmd::Fail:
            tv.fail(text("request"), i32("errno", EIO), i32("times", 1), i32("at", 1));
            return true;
        case PlatformCmd::Status:
            tv.fail_status(text("request"), i32("status", 0), i32("times", 1), i32("at", 1));
            return true;
        case PlatformCmd::ClearFaults:
            tv.clear_faults();
            return true;
        case PlatformCmd::Panel:
            for (auto& con : tv.drm().connectors) {
                con.mm_width = static_cast<uint32_t>(line.num("w", 0));
                con.mm_height = static_cast<uint32_t>(line.num("h", 0));
            }
            return true;
        case PlatformCmd::Hal: {
            static const HalMode modes[] = {HalMode::Absent,    HalMode::Working,     HalMode::NoInitSymbol,
                                            HalMode::InitFails, HalMode::NoGetSymbol, HalMode::GetFails,
                                            HalMode::GetsZero};
            tv.set_hal(modes[line.num("mode", 0)]);
            return true;
        }
        case PlatformCmd::Vsync:
            tv.vplt().vsync_hz = i32("hz", 59940);
            tv.vplt().vsync_hz_ret = i32("ret", 0);
            return true;
        case PlatformCmd::VsyncOffset:
            tv.vplt().offset_sec = i32("sec", 0);
            tv.vplt().offset_nsec = i32("nsec", 0);
            tv.vplt().offset_ret = i32("ret", 0);
            return true;
        case PlatformCmd::DecoderFrames:
            tv.vplt().frames[0] = i32("dec0", 0);
            tv.vplt().frames[1] = i32("dec1", 0);
            return true;
        case PlatformCmd::DolbyRewrite:
            tv.dolby().rewrite = true;
            tv.dolby().rewrite_to = i32("profile", 0);
            return true;
        case PlatformCmd::Broadcast:
            set_broadcast_frame(tv.decoder(), line);
            return true;
        case PlatformCmd::Logmask:
            tv.sandbox_write("/tmp/RUVO", std::to_string(line.num("value", 0)));
            return true;
        case PlatformCmd::DrmEmpty:
            tv.drm().crtcs.clear();
            tv.drm().encoders.clear();
            tv.drm().connectors.clear();
            tv.drm().planes.clear();
            return true;
        case PlatformCmd::Crtc:
        case PlatformCmd::Encoder:
        case PlatformCmd::Connector:
        case PlatformCmd::Plane:
            set_drm_object(tv.drm(), line);
            return true;
        case PlatformCmd::Compr:
            if (line.num("buffer", 0) > 0)
                tv.compr().ring_bytes = static_cast<uint64_t>(line.num("buffer", 0));
            if (line.num("dsp", -1) >= 0)
                tv.compr().dsp_bytes = line.num("dsp", -1);
            return true;
    }
    return false;
}

bool parse_platform_file(const std::string& text, const std::string& file, std::vector<PlatformLine>* out,
                         std::string* error) {
    std::vector<PlatformLine> parsed;
    PlatformParseState state;
    std::istringstream in(text);
    std::string raw;
    int lineno = 0;
    while (std::getline(in, raw)) {
        ++lineno;
        try {
            std::string line = strip_line(raw);
            if (line.empty())
                continue;
            std::vector<std::string> toks = split_ws(line);
            if (toks[0] != "platform")
                throw LineError("expected a 'platform ...' line (" + platform_subcommands() + "), got '" +
                                toks[0] + "'");
            PlatformLine parsed_line = parse_platform_line(toks, &state);
            parsed.push_back(std::move(parsed_line));
        } catch (const LineError& e) {
            *error = file + ":" + std::to_string(lineno) + ": " + e.message;
            return false;
        }
    }
    *out = std::move(parsed);
    return true;
}

bool load_platform_file(const std::string& path, std::vector<PlatformLine>* out, std::string* error) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        *error = path + ": cannot read: " + strerror(errno);
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    if (f.bad()) {
        *error = path + ": cannot read: " + strerror(EISDIR);
        return false;
    }
    return parse_platform_file(ss.str(), path, out, error);
}

const char* platform_help() {
    return R"(Emulated platform
  platform absent PATH | present PATH  a device node disappears / comes back
  platform compr-device PATH           a compressed-offload device at PATH
  platform fail REQUEST ERRNO [TIMES] [at=N]
                                       REQUEST (e.g. FR2IP_SetPTS, open:/dev/kdolby,
                                       DRM_IOCTL_MODE_SETPLANE) fails with ERRNO
                                       (EIO, EBUSY, ... or a number) TIMES times
                                       (default 1; -1 or 'always': for ever), from
                                       its Nth call after the line (default 1). A
                                       name the emulator does not record is an error.
  platform status REQUEST STATUS [TIMES] [at=N]
                                       the driver works but writes STATUS into
                                       the record's own result cell
  platform clear-faults                forget scripted failures
  platform panel W H | panel none      the connector reports a W x H panel (1..16384
                                       each); 'none': it reports no size (the
                                       library then assumes 3840x2160)
  platform hal MODE                    board HAL: absent working no-init-symbol
                                       init-fails no-get-symbol get-fails gets-zero
  platform vsync HZ [RET]              panel refresh in Hz (1..1000, up to three
                                       decimals: 50, 59.94, 60; default 59.94) and
                                       the driver's ret; 0: the driver answers a
                                       rate of 0
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
  platform drm-empty                   the DRM device has no CRTC, encoder,
                                       connector or plane (the lines below add them)
  platform crtc ID                     a CRTC
  platform encoder ID [crtc=ID] [possible=MASK]
                                       an encoder (added, or changed if ID exists)
  platform connector ID [encoder=ID] [connected=0|1] [panel=WxH]
                                       a connector and its current encoder
  platform plane ID [type=0|1|2] [plane_type=N]
                                       a plane with its "type" (0 overlay,
                                       1 primary, 2 cursor) and "plane_type"
                                       (the chip's plane kind) properties
)";
}

}  // namespace lines
}  // namespace emutv
