// Emulated TV platform: a user-space stand-in for the chip's kernel drivers, the board
// HAL and the platform client libraries.
//
// Linked into a test, benchmark or tool (never into the shipped library), it interposes
// open/openat (and their 64-bit and fortified forms), close, ioctl, write, fopen, stat and
// dlopen. Paths of emulated devices get a real descriptor (on /dev/null) so that
// descriptor counting is real and every request enters the kernel once; the request itself
// is answered by a device model. Every request is recorded as an Event.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <string.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace emutv {

// The platform lock. Recursive, and owned by the thread as pthread_self() names it: the
// thread that forks holds it across fork() and still owns it in the child, where the
// emulator's own child handler releases it. A fork handler that runs earlier in the child
// (a sanitizer's runtime starting its background thread, say) can call into the
// emulator meanwhile; glibc's recursive mutex would not let it, because it records the
// kernel thread id, which the child's thread does not share.
class PlatformMutex {
  public:
    void lock() {
        const pthread_t self = pthread_self();
        if (owner_.load(std::memory_order_relaxed) == self) {
            ++depth_;
            return;
        }
        mu_.lock();
        owner_.store(self, std::memory_order_relaxed);
        depth_ = 1;
    }
    bool try_lock();
    void unlock() {
        if (--depth_ != 0)
            return;
        owner_.store(pthread_t(), std::memory_order_relaxed);
        mu_.unlock();
    }
    bool held_by_this_thread() const;

  private:
    std::mutex mu_;
    std::atomic<pthread_t> owner_{};
    unsigned depth_ = 0;
};

enum class Device { None, Drm, Vplt, Dolby, Converter, Decoder, SoundCtl, Compr, Hal, Dmabuf };
const char* device_name(Device d);

enum class Kind { Open, Close, Ioctl, Write, Call };
const char* kind_name(Kind k);

// Decoded values of a request by name: a few entries, filled once per request, so a flat
// array scanned by key instead of a tree. Reads as a std::map<std::string, long long>:
// fields["k"] = v, count, find, at, and iteration in key order.
class Fields {
  public:
    using value_type = std::pair<std::string, long long>;
    using const_iterator = std::vector<value_type>::const_iterator;
    using iterator = std::vector<value_type>::iterator;

    Fields() = default;
    Fields(std::initializer_list<value_type> init) {
        for (const auto& v : init)
            (*this)[v.first] = v.second;
    }
    Fields(const Fields& o) : items_(o.begin(), o.end()), n_(o.n_), sorted_(true) {}
    Fields& operator=(const Fields& o) {
        if (this != &o) {
            items_.assign(o.begin(), o.end());
            n_ = o.n_;
            sorted_ = true;
        }
        return *this;
    }
    Fields(Fields&&) = default;
    Fields& operator=(Fields&&) = default;

    __attribute__((always_inline)) long long& operator[](const char* key) { return slot(key, strlen(key)); }
    long long& operator[](const std::string& key) { return slot(key.data(), key.size()); }
    // Sets a field the request has not set yet, without looking for it: for a decoder
    // that fills a fresh record with distinct keys (a repeated key would appear twice).
    __attribute__((always_inline)) void add(const char* key, long long value) {
        append(key, strlen(key)) = value;
    }
    size_t count(const std::string& key) const { return index(key.data(), key.size()) < n_ ? 1 : 0; }
    const_iterator find(const std::string& key) const { return items_.begin() + index_or_end(key); }
    iterator find(const std::string& key) { return items_.begin() + index_or_end(key); }
    long long at(const std::string& key) const;
    size_t size() const { return n_; }
    bool empty() const { return n_ == 0; }
    // Forgets the values; the entries' storage is kept for the next request.
    void clear() {
        n_ = 0;
        sorted_ = true;
    }
    // In key order, as a std::map iterates.
    const_iterator begin() const {
        sort();
        return items_.begin();
    }
    const_iterator end() const { return items_.begin() + static_cast<std::ptrdiff_t>(n_); }
    iterator begin() {
        sort();
        return items_.begin();
    }
    iterator end() { return items_.begin() + static_cast<std::ptrdiff_t>(n_); }
    bool operator==(const Fields& o) const;
    bool operator!=(const Fields& o) const { return !(*this == o); }

  private:
    __attribute__((always_inline)) size_t index(const char* key, size_t n) const {
        for (size_t i = 0; i < n_; ++i)
            if (items_[i].first.size() == n && memcmp(items_[i].first.data(), key, n) == 0)
                return i;
        return n_;
    }
    std::ptrdiff_t index_or_end(const std::string& key) const {
        sort();
        return static_cast<std::ptrdiff_t>(index(key.data(), key.size()));
    }
    __attribute__((always_inline)) long long& slot(const char* key, size_t n) {
        size_t i = index(key, n);
        if (i < n_)
            return items_[i].second;
        return append(key, n);
    }
    // A new entry after the first n_, reusing the storage (and, when the same request
    // came last, the key) of the entry that was there.
    __attribute__((always_inline)) long long& append(const char* key, size_t n) {
        sorted_ = n_ == 0;
        if (n_ == items_.size()) {
            if (items_.capacity() == 0)
                items_.reserve(16);
            items_.emplace_back(std::string(key, n), 0);
        } else if (items_[n_].first.size() != n || memcmp(items_[n_].first.data(), key, n) != 0) {
            items_[n_].first.assign(key, n);
        }
        items_[n_].second = 0;
        return items_[n_++].second;
    }
    void sort() const;

    mutable std::vector<value_type> items_;  // the first n_ are in use
    size_t n_ = 0;
    mutable bool sorted_ = true;
};

struct Event {
    uint64_t seq = 0;
    Device device = Device::None;
    Kind kind = Kind::Ioctl;
    std::string path;  // path the descriptor was opened with
    int fd = -1;
    unsigned long request = 0;
    std::string name;          // "open", "close", "write", "DRM_IOCTL_MODE_SETPLANE", "FR2IP_SetPTS", ...
    std::vector<uint8_t> in;   // record bytes as the caller passed them (write: the data)
    std::vector<uint8_t> out;  // record bytes as the driver left them
    // Video-platform commands: bytes behind arg1..arg7 and ret (index 7) after the call;
    // empty for a null argument.
    std::vector<std::vector<uint8_t>> args;
    Fields fields;                            // decoded values that matter
    std::map<std::string, std::string> text;  // decoded text values (a mixer control's name)
    long long result = 0;
    int err = 0;  // errno when result < 0
    // 0: the process's main thread; 1, 2, ...: another thread, numbered by its first request.
    // Requests of different threads keep no fixed order between them from run to run.
    int thread = 0;

    long long field(const std::string& key) const;  // throws when absent
    bool has(const std::string& key) const { return fields.count(key) != 0; }
    template <typename T>
    T record_in() const;  // `in` as a record
    template <typename T>
    T record_out() const;
};

// One line: "drm /dev/dri/card0 DRM_IOCTL_MODE_SETPLANE plane_id=31 ... -> 0", with
// " [thread N, unordered]" after a request of another thread than the main one. Addresses
// show as tokens numbered by first sight ("@1"), fourcc codes as text ("XR24"), 16.16
// source coordinates as decimals ("1920.0"), object types by name, display indices signed.
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
    // `times` = -1 fails for ever; `at` = N lets the first N-1 matching calls from now on
    // pass and fails from the Nth. An errno failure makes the request return -1 without
    // reaching the driver; a status failure lets the driver work and then writes `status`
    // into the record's own result cell (video-platform `ret`, converter `u32Retval`).
    void fail(const std::string& request, int err, int times = 1, int at = 1);
    void fail_status(const std::string& request, int32_t status, int times = 1, int at = 1);
    void clear_faults();

    // The record.
    std::vector<Event> events() const;
    std::vector<Event> events(const std::string& name) const;
    std::vector<Event> events(Device d) const;
    size_t count(const std::string& name) const;  // counted also while recording is off
    size_t total_requests() const;                // ioctl + write, counted also while off
    void clear_events();
    void set_recording(bool on);
    // Called with every event as it is recorded (the session player's live trace). While
    // recording is off the event carries no bytes (`in`, `out` empty): read its fields.
    void set_listener(std::function<void(const Event&)> listener);

    // Descriptors currently open on emulated devices.
    int open_descriptors() const;

    // Sandbox for marker files, mount probes and the log file: "/tmp/RUVO", "/mnt/RUVO",
    // the mount points probed for the log, and "<mount>/ruvo-interface.log" resolve below
    // this directory. It is created empty by reset() and removed at exit.
    std::string sandbox_root() const;
    std::string sandbox_path(const std::string& path) const;  // where `path` really lives
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
    PlatformMutex& mutex() const;
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
