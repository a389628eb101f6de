// Interposition of the C library calls through which the library, libdrm and alsa-lib
// reach the kernel. Calls on paths and descriptors the emulator does not own go to the
// real C library unchanged.
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core.h"
#include "timeline_internal.h"

using emutv::Device;
using emutv::Event;
using emutv::HalMode;
using emutv::Kind;
using emutv::detail::core;
using emutv::detail::Fault;
using emutv::detail::Inside;

namespace {

const char kHalPath[] = "/mtd_apexe/board/lib/libKORB3.so";

// The stand-in HAL library: where the build left it, else (installed) beside the emulator.
std::string hal_stand_in(const char* built) {
    if (access(built, R_OK) == 0)
        return built;
    Dl_info info;
    std::string name = strrchr(built, '/') ? strrchr(built, '/') + 1 : built;
    if (dladdr(reinterpret_cast<void*>(&hal_stand_in), &info) == 0 || info.dli_fname == nullptr)
        return built;
    std::string self = info.dli_fname;
    return self.substr(0, self.rfind('/') + 1) + name;
}

template <typename Fn>
Fn real(const char* name) {
    void* sym = dlsym(RTLD_NEXT, name);
    return reinterpret_cast<Fn>(sym);
}

// Where a sandboxed path really lives (empty when it is not sandboxed). Worked out inside
// the emulator, so that allocation counters do not see the mapping.
std::string mapped_path(const char* path) {
    Inside inside;
    return emutv::detail::sandbox_map(path);
}

bool owns_path(const std::string& p) {
    auto& c = core();
    if (c.node_device.count(p))
        return true;
    static const char* const kOwnedPrefixes[] = {"/dev/dri/",  "/dev/snd/", "/dev/qvl/",
                                                 "/dev/video", "/dev/qvk",  "/dev/kdolby"};
    for (const char* pre : kOwnedPrefixes)
        if (p.compare(0, strlen(pre), pre) == 0)
            return true;
    return false;
}

// Opens an emulated device node. Returns true when the emulator owns the path.
bool emulated_open(const char* path, int flags, int* result) {
    if (path == nullptr)
        return false;
    Inside inside;
    auto& c = core();
    std::string p(path);
    {
        std::lock_guard<emutv::PlatformMutex> g(c.mu);
        if (!owns_path(p))
            return false;
    }
    std::lock_guard<emutv::PlatformMutex> g(c.mu);
    auto dev_it = c.node_device.find(p);
    Device dev = dev_it == c.node_device.end() ? Device::None : dev_it->second;
    Event ev;
    ev.kind = Kind::Open;
    ev.device = dev;
    // alsa-lib probes the control devices of every card (/dev/snd/controlC0..31); the
    // absent ones are recorded as the sound card's, so that a filter by device sees them.
    if (dev == Device::None && p.compare(0, 16, "/dev/snd/control") == 0)
        ev.device = Device::SoundCtl;
    ev.path = p;
    ev.name = "open";
    ev.fields["flags"] = flags;
    Fault fault;
    int fd = -1;
    int err = 0;
    if (dev == Device::None || c.node_present.count(p) == 0) {
        err = ENOENT;
    } else if (c.take_fault("open:" + p, &fault) && !fault.is_status) {
        err = fault.err;
    } else {
        fd = c.create_fd(dev, p);
        if (fd < 0)
            err = errno;
    }
    ev.fd = fd;
    ev.result = fd;
    ev.err = err;
    c.record(std::move(ev));
    *result = fd;
    if (fd < 0)
        errno = err;
    return true;
}

int open_mode(int flags, va_list ap) {
    return (flags & O_CREAT) || (flags & __O_TMPFILE) == __O_TMPFILE ? va_arg(ap, int) : 0;
}

template <typename Fn>
int open_with(const char* sym, const char* path, int flags, int mode) {
    int fd;
    if (emulated_open(path, flags, &fd))
        return fd;
    std::string mapped = mapped_path(path);
    return real<Fn>(sym)(mapped.empty() ? path : mapped.c_str(), flags, mode);
}

template <typename Fn>
int openat_with(const char* sym, int dirfd, const char* path, int flags, int mode) {
    int fd;
    if (path && (path[0] == '/' || dirfd == AT_FDCWD) && emulated_open(path, flags, &fd))
        return fd;
    std::string mapped = mapped_path(path);
    return real<Fn>(sym)(dirfd, mapped.empty() ? path : mapped.c_str(), flags, mode);
}

using open_fn = int (*)(const char*, int, ...);
using openat_fn = int (*)(int, const char*, int, ...);

// The same device and request come again and again: their text is copied only when it
// changed.
void assign_if_changed(std::string& to, const char* text, size_t n) {
    if (to.size() != n || memcmp(to.data(), text, n) != 0)
        to.assign(text, n);
}
void assign_if_changed(std::string& to, const std::string& from) {
    assign_if_changed(to, from.data(), from.size());
}

// The event of the request under way, kept from request to request so that its buffers
// are allocated once (the platform lock is held while it is in use). Every request sets
// its path and name.
Event& scratch_event() {
    static Event ev;
    ev.seq = 0;
    ev.fd = -1;
    ev.request = 0;
    ev.in.clear();
    ev.out.clear();
    ev.args.clear();
    ev.fields.clear();
    ev.text.clear();
    ev.result = 0;
    ev.err = 0;
    ev.thread = 0;
    return ev;
}

long emulated_ioctl(int fd, unsigned long req, void* arg) {
    Inside inside;
    auto& c = core();
    std::lock_guard<emutv::PlatformMutex> g(c.mu);
    emutv::detail::timeline_sync();
    auto it = c.files.find(fd);
    if (it == c.files.end() || it->second.model == nullptr) {
        errno = ENOTTY;
        return -1;
    }
    auto& file = it->second;
    emutv::DeviceModel* model = file.model;
    Event& ev = scratch_event();
    ev.kind = Kind::Ioctl;
    ev.device = file.device;
    assign_if_changed(ev.path, file.path);
    ev.fd = fd;
    ev.request = req;
    if (const char* literal = model->request_literal(req, arg))
        assign_if_changed(ev.name, literal, strlen(literal));
    else
        ev.name = model->request_name(req, arg);
    // The request's bytes are kept for the record only (the trace and listeners read the
    // decoded fields).
    const bool keep_bytes = c.recording;
    size_t size = arg && keep_bytes ? model->record_size(req, arg) : 0;
    if (size)
        ev.in.assign(static_cast<uint8_t*>(arg), static_cast<uint8_t*>(arg) + size);

    // The driver is entered once per request, as on the television.
    emutv::detail::sys_ioctl(fd, 0, nullptr);

    Fault fault;
    bool faulted = c.take_fault(ev.name, &fault);
    long result;
    int err = 0;
    if (faulted && !fault.is_status) {
        result = -1;
        err = fault.err;
    } else {
        result = model->ioctl(fd, req, arg, ev, &err);
        if (faulted && fault.is_status) {
            model->apply_status(req, arg, fault.status);
            ev.fields["status"] = fault.status;
        }
    }
    if (size)
        ev.out.assign(static_cast<uint8_t*>(arg), static_cast<uint8_t*>(arg) + size);
    ev.result = result;
    ev.err = result < 0 ? err : 0;
    c.record_copy(ev);
    if (result < 0)
        errno = err;
    return result;
}

long emulated_write(int fd, const void* buf, size_t n) {
    Inside inside;
    auto& c = core();
    std::lock_guard<emutv::PlatformMutex> g(c.mu);
    emutv::detail::timeline_sync();
    auto it = c.files.find(fd);
    if (it == c.files.end() || it->second.model == nullptr) {
        errno = EBADF;
        return -1;
    }
    auto& file = it->second;
    Event& ev = scratch_event();
    ev.kind = Kind::Write;
    ev.device = file.device;
    assign_if_changed(ev.path, file.path);
    ev.fd = fd;
    assign_if_changed(ev.name, "write", 5);
    ev.fields["size"] = static_cast<long long>(n);
    if (buf && n && c.recording)
        ev.in.assign(static_cast<const uint8_t*>(buf),
                     static_cast<const uint8_t*>(buf) + std::min<size_t>(n, 64));
    emutv::detail::sys_write(fd, buf, n);  // into /dev/null: one kernel entry
    Fault fault;
    long result;
    int err = 0;
    if (c.take_fault("write", &fault) && !fault.is_status) {
        result = -1;
        err = fault.err;
    } else {
        result = file.model->write(fd, buf, n, ev, &err);
    }
    ev.result = result;
    ev.err = result < 0 ? err : 0;
    c.record_copy(ev);
    if (result < 0)
        errno = err;
    return result;
}

int emulated_close(int fd) {
    Inside inside;
    auto& c = core();
    std::lock_guard<emutv::PlatformMutex> g(c.mu);
    auto it = c.files.find(fd);
    if (it == c.files.end())
        return emutv::detail::sys_close(fd);
    Event ev;
    ev.kind = Kind::Close;
    ev.device = it->second.device;
    ev.path = it->second.path;
    ev.fd = fd;
    ev.name = "close";
    Fault fault;
    const bool faulted = c.take_fault("close:" + ev.path, &fault) && !fault.is_status;
    if (it->second.model)
        it->second.model->on_close(fd);
    c.files.erase(it);
    c.emulated[fd].store(0);
    int r = emutv::detail::sys_close(fd);
    // A failing close still releases the descriptor, as Linux does.
    if (faulted) {
        r = -1;
        ev.err = fault.err;
    }
    ev.result = r;
    c.record(std::move(ev));
    if (faulted)
        errno = fault.err;
    return r;
}

void record_call(Device d, const std::string& name, const std::string& path, long long result,
                 emutv::Fields fields) {
    auto& c = core();
    std::lock_guard<emutv::PlatformMutex> g(c.mu);
    Event ev;
    ev.kind = Kind::Call;
    ev.device = d;
    ev.path = path;
    ev.name = name;
    ev.fields = std::move(fields);
    ev.result = result;
    c.record(std::move(ev));
}

}  // namespace

extern "C" {

#define EMUTV_EXPORT __attribute__((visibility("default")))

EMUTV_EXPORT int open(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    int mode = open_mode(flags, ap);
    va_end(ap);
    return open_with<open_fn>("open", path, flags, mode);
}

EMUTV_EXPORT int open64(const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    int mode = open_mode(flags, ap);
    va_end(ap);
    return open_with<open_fn>("open64", path, flags, mode);
}

EMUTV_EXPORT int __open_2(const char* path, int flags) {
    return open_with<open_fn>("open", path, flags, 0);
}
EMUTV_EXPORT int __open64_2(const char* path, int flags) {
    return open_with<open_fn>("open64", path, flags, 0);
}

EMUTV_EXPORT int openat(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    int mode = open_mode(flags, ap);
    va_end(ap);
    return openat_with<openat_fn>("openat", dirfd, path, flags, mode);
}

EMUTV_EXPORT int openat64(int dirfd, const char* path, int flags, ...) {
    va_list ap;
    va_start(ap, flags);
    int mode = open_mode(flags, ap);
    va_end(ap);
    return openat_with<openat_fn>("openat64", dirfd, path, flags, mode);
}

EMUTV_EXPORT int __openat_2(int dirfd, const char* path, int flags) {
    return openat_with<openat_fn>("openat", dirfd, path, flags, 0);
}
EMUTV_EXPORT int __openat64_2(int dirfd, const char* path, int flags) {
    return openat_with<openat_fn>("openat64", dirfd, path, flags, 0);
}

EMUTV_EXPORT int close(int fd) {
    if (core().is_emulated(fd))
        return emulated_close(fd);
    return emutv::detail::sys_close(fd);
}

EMUTV_EXPORT int ioctl(int fd, unsigned long req, ...) __THROW {
    va_list ap;
    va_start(ap, req);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (core().is_emulated(fd))
        return static_cast<int>(emulated_ioctl(fd, req, arg));
    static auto real_ioctl = real<int (*)(int, unsigned long, ...)>("ioctl");
    return real_ioctl(fd, req, arg);
}

EMUTV_EXPORT ssize_t write(int fd, const void* buf, size_t n) {
    if (core().is_emulated(fd))
        return emulated_write(fd, buf, n);
    return emutv::detail::sys_write(fd, buf, n);
}

EMUTV_EXPORT FILE* fopen(const char* path, const char* mode) {
    std::string mapped = mapped_path(path);
    static auto real_fopen = real<FILE* (*)(const char*, const char*)>("fopen");
    return real_fopen(mapped.empty() ? path : mapped.c_str(), mode);
}

EMUTV_EXPORT FILE* fopen64(const char* path, const char* mode) {
    std::string mapped = mapped_path(path);
    static auto real_fopen64 = real<FILE* (*)(const char*, const char*)>("fopen64");
    return real_fopen64(mapped.empty() ? path : mapped.c_str(), mode);
}

EMUTV_EXPORT int stat(const char* path, struct stat* st) __THROW {
    std::string mapped = mapped_path(path);
    static auto real_stat = real<int (*)(const char*, struct stat*)>("stat");
    return real_stat(mapped.empty() ? path : mapped.c_str(), st);
}

EMUTV_EXPORT int stat64(const char* path, struct stat64* st) __THROW {
    std::string mapped = mapped_path(path);
    static auto real_stat64 = real<int (*)(const char*, struct stat64*)>("stat64");
    return real_stat64(mapped.empty() ? path : mapped.c_str(), st);
}

EMUTV_EXPORT void* dlopen(const char* file, int mode) __THROWNL {
    static auto real_dlopen = real<void* (*)(const char*, int)>("dlopen");
    if (file == nullptr || strcmp(file, kHalPath) != 0)
        return real_dlopen(file, mode);
    Inside inside;
    HalMode hal = core().hal;
    const char* target = nullptr;
    switch (hal) {
        case HalMode::Absent:
            break;
        case HalMode::NoInitSymbol:
            target = EMUTV_HAL_NO_INIT;
            break;
        case HalMode::NoGetSymbol:
            target = EMUTV_HAL_NO_GET;
            break;
        default:
            target = EMUTV_HAL_FULL;
            break;
    }
    std::string path = target ? hal_stand_in(target) : std::string();
    void* h = target ? real_dlopen(path.c_str(), mode) : nullptr;
    record_call(Device::Hal, "dlopen", kHalPath, h ? 0 : -1, {{"mode", mode}});
    return h;
}

// Thread creation can be scripted to fail ("pthread_create"); the errno of the fault is
// the result, as pthread_create reports errors.
EMUTV_EXPORT int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                                void* arg) __THROWNL {
    using create_fn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto real_create = real<create_fn>("pthread_create");
    {
        auto& c = core();
        std::lock_guard<emutv::PlatformMutex> g(c.mu);
        Fault fault;
        if (!c.faults.empty() && c.take_fault("pthread_create", &fault))
            return fault.err ? fault.err : EAGAIN;
    }
    return real_create(thread, attr, start, arg);
}

EMUTV_EXPORT int emutv_hal_drm_init(int card_id) {
    Inside inside;
    int r = core().hal == HalMode::InitFails ? -1 : 0;
    record_call(Device::Hal, "Hal_Video_DrmInit", kHalPath, r, {{"card", card_id}});
    return r;
}

EMUTV_EXPORT int emutv_hal_get_drm_device_id(int card_id) {
    Inside inside;
    auto& c = core();
    std::lock_guard<emutv::PlatformMutex> g(c.mu);
    int r;
    switch (c.hal) {
        case HalMode::GetFails:
            r = -1;
            break;
        case HalMode::GetsZero:
            r = 0;
            break;
        default:
            // The HAL owns one DRM descriptor for the life of the process.
            if (c.hal_drm_fd < 0)
                c.hal_drm_fd = c.create_fd(Device::Drm, "hal:/dev/dri/card0");
            r = c.hal_drm_fd;
            break;
    }
    record_call(Device::Hal, "Hal_Video_Get_DrmDeviceId", kHalPath, r, {{"card", card_id}});
    return r;
}

}  // extern "C"
