// Emulated TV platform: a user-space stand-in for the chip's kernel drivers, the board
// HAL and the platform client libraries.
//
// Linked into a test, benchmark or tool (never into the shipped library), it interposes
// open/openat (and their 64-bit and fortified forms), close, ioctl, write, fopen, stat and
// dlopen. Paths of emulated devices get a real descriptor (on /dev/null) so that
// descriptor counting is real and every request enters the kernel once; the request itself
// is answered by a device model. Every request is recorded as an Event.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace emutv {

enum class Device { None, Drm, Vplt, Dolby, Converter, Decoder, SoundCtl, Compr, Hal, Dmabuf };
const char* device_name(Device d);

enum class Kind { Open, Close, Ioctl, Write, Call };
const char* kind_name(Kind k);

struct Event {
    uint64_t seq = 0;
    Device device = Device::None;
    Kind kind = Kind::Ioctl;
    std::string path;        // path the descriptor was opened with
    int fd = -1;
    unsigned long request = 0;
    std::string name;        // "open", "close", "write", "DRM_IOCTL_MODE_SETPLANE", "FR2IP_SetPTS", ...
    std::vector<uint8_t> in;   // record bytes as the caller passed them (write: the data)
    std::vector<uint8_t> out;  // record bytes as the driver left them
    // Video-platform commands: bytes behind arg1..arg7 and ret (index 7) after the call;
    // empty for a null argument.
    std::vector<std::vector<uint8_t>> args;
    std::map<std::string, long long> fields;  // decoded values that matter
    std::map<std::string, std::string> text;   // decoded text values (a mixer control's name)
    long long result = 0;
    int err = 0;  // errno when result < 0

    long long field(const std::string& key) const;  // throws when absent
    bool has(const std::string& key) const { return fields.count(key) != 0; }
    template <typename T>
    T record_in() const;   // `in` as a record
    template <typename T>
    T record_out() const;
};

// One line: "DRM /dev/dri/card0 DRM_IOCTL_MODE_SETPLANE plane_id=31 ... -> 0".
std::string describe(const Event& e);

struct TimelineEntry;

// How the platform keeps time. Virtual: the program sets the time (the session player's
// virtual clock); the video platform answers what the test scripted. Real:
// CLOCK_MONOTONIC; vsync ticks at the panel rate (VpltModel::vsync_hz), the vsync
// offset and decoder-usage answers come from that clock, and the audio decoder model
// plays in real time. Programs linked with the emulator start in Virtual; a process
// that loaded it with LD_PRELOAD starts in Real unless RUVO_EMUTV_CLOCK=virtual.
enum class ClockMode { Virtual, Real };

class DeviceModel;
class DrmModel;
class VpltModel;
class DolbyModel;
class ConverterModel;
class DecoderModel;
class SoundCardModel;
class ComprModel;

enum class HalMode {
    Absent,        // dlopen of the HAL library fails
    Working,       // init succeeds, a DRM descriptor is handed out
    NoInitSymbol,  // library lacks Hal_Video_DrmInit
    InitFails,     // Hal_Video_DrmInit returns -1
    NoGetSymbol,   // library lacks Hal_Video_Get_DrmDeviceId
    GetFails,      // Hal_Video_Get_DrmDeviceId returns -1
    GetsZero,      // Hal_Video_Get_DrmDeviceId returns 0
};

class Platform {
public:
    // Back to the power-on state: default devices at their default paths, default
    // topology and answers, no faults, an empty record, an empty sandbox. Descriptors
    // still open on emulated devices stay valid (their device keeps answering).
    void reset();

    // Presence of a device node. Default present: "/dev/qvl/qvkvplt", "/dev/kdolby",
    // "/dev/dri/card0", "/dev/qvkconverter", "/dev/video10", "/dev/snd/controlC0".
    void set_present(const std::string& path, bool present);
    bool present(const std::string& path) const;
    // A compressed-offload device node at a path of the test's choosing.
    void add_compr_device(const std::string& path);

    void set_hal(HalMode mode);
    HalMode hal() const;

    // Scripted failures, matched by request name (Event::name; "open:<path>" for an open,
    // "close:<path>" for a close, which releases the descriptor all the same).
    // `times` = -1 fails for ever. An errno failure makes the request return -1 without
    // reaching the driver; a status failure lets the driver work and then writes `status`
    // into the record's own result cell (video-platform `ret`, converter `u32Retval`).
    void fail(const std::string& request, int err, int times = 1);
    void fail_status(const std::string& request, int32_t status, int times = 1);
    void clear_faults();

    // The record.
    std::vector<Event> events() const;
    std::vector<Event> events(const std::string& name) const;
    std::vector<Event> events(Device d) const;
    size_t count(const std::string& name) const;   // counted also while recording is off
    size_t total_requests() const;                  // ioctl + write, counted also while off
    void clear_events();
    void set_recording(bool on);
    // Called with every event as it is recorded (the session player's live trace).
    void set_listener(std::function<void(const Event&)> listener);

    // Descriptors currently open on emulated devices.
    int open_descriptors() const;

    // Sandbox for marker files, mount probes and the log file: "/tmp/RUVO", "/mnt/RUVO",
    // the mount points probed for the log, and "<mount>/ruvo-interface.log" resolve below
    // this directory. It is created empty by reset() and removed at exit.
    std::string sandbox_root() const;
    std::string sandbox_path(const std::string& path) const;   // where `path` really lives
    void sandbox_write(const std::string& path, const std::string& content);
    void sandbox_mkdir(const std::string& path);
    bool sandbox_exists(const std::string& path) const;
    std::string sandbox_read(const std::string& path) const;

    DrmModel& drm();
    VpltModel& vplt();
    DolbyModel& dolby();
    ConverterModel& converter();
    DecoderModel& decoder();
    SoundCardModel& sound();
    ComprModel& compr();

    // The clock. The vsync grid starts at the call (and at reset(), which also sets the
    // virtual time back to zero and drops the timeline listener).
    void set_clock_mode(ClockMode mode);
    ClockMode clock_mode() const;
    // Virtual time in nanoseconds (ignored in Real mode); it only goes forward.
    void set_virtual_time_ns(int64_t t_ns);
    // The platform clock now: CLOCK_MONOTONIC in Real mode, the virtual time otherwise.
    int64_t now_ns() const;

    // The timeline (see emutv/timeline.h). Vsyncs and decoder periods are produced when
    // a request comes, when the virtual time is set and on sync_timeline(), all up to
    // the clock's now; each entry goes to the listener and to the log file. In virtual
    // time the plane is followed only while a listener or a log is set.
    void sync_timeline();
    void set_timeline_listener(std::function<void(const TimelineEntry&)> listener);
    // Starts writing the log to `path` (truncated). False, with the reason, when it
    // cannot be written.
    bool open_timeline_log(const std::string& path, std::string* error);
    void close_timeline_log();

    // For device models: run `fn` with the platform lock held.
    std::recursive_mutex& mutex() const;
};

Platform& platform();

// True while the calling thread is inside the emulator (allocation counters ignore it).
bool inside_emulator();

// Descriptors open in the process (counts /proc/self/fd).
int process_open_descriptors();

}  // namespace emutv

#include <algorithm>
#include <cstring>

namespace emutv {

template <typename T>
T Event::record_in() const {
    T t{};
    std::memcpy(&t, in.data(), std::min(sizeof(T), in.size()));
    return t;
}

template <typename T>
T Event::record_out() const {
    T t{};
    std::memcpy(&t, out.data(), std::min(sizeof(T), out.size()));
    return t;
}

}  // namespace emutv
