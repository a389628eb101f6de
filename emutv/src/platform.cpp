// Registry of emulated devices, the request record, scripted faults and the sandbox.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core.h"
#include "timeline_internal.h"

namespace emutv {
namespace detail {

namespace {
thread_local int t_inside = 0;

const char* const kVpltPaths[] = {"/dev/qvl/qvkvplt", "/dev/qvkvplt", "/tmp/qvkvplt"};
const char* const kDolbyPaths[] = {"/dev/kdolby", "/dev/qvl/kdolby", "/tmp/kdolby"};

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

void remove_tree(const std::string& root) {
    if (!root.empty())
        nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void remove_sandbox_at_exit() {
    remove_tree(core().sandbox);
}

void make_dirs(const std::string& path) {
    std::string partial;
    std::stringstream ss(path);
    std::string part;
    if (!path.empty() && path[0] == '/')
        partial = "/";
    while (std::getline(ss, part, '/')) {
        if (part.empty())
            continue;
        partial += part;
        ::mkdir(partial.c_str(), 0755);
        partial += "/";
    }
}
}  // namespace

Inside::Inside() {
    ++t_inside;
}
Inside::~Inside() {
    --t_inside;
}

int sys_open(const char* path, int flags, int mode) {
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
int sys_close(int fd) {
    return static_cast<int>(syscall(SYS_close, fd));
}
long sys_ioctl(int fd, unsigned long req, void* arg) {
    return syscall(SYS_ioctl, fd, req, arg);
}
long sys_write(int fd, const void* buf, size_t n) {
    return syscall(SYS_write, fd, buf, n);
}

Core::Core()
    : drm(new DrmModel),
      vplt(new VpltModel),
      dolby(new DolbyModel),
      converter(new ConverterModel),
      decoder(new DecoderModel),
      sound(new SoundCardModel),
      compr(new ComprModel) {
    for (auto& e : emulated)
        e.store(0);
    for (const char* p : kVpltPaths)
        node_device[p] = Device::Vplt;
    for (const char* p : kDolbyPaths)
        node_device[p] = Device::Dolby;
    node_device["/dev/dri/card0"] = Device::Drm;
    node_device["/dev/qvkconverter"] = Device::Converter;
    node_device["/dev/video10"] = Device::Decoder;
    node_device["/dev/snd/controlC0"] = Device::SoundCtl;
    reset_nodes();
    drm->reset();
    vplt->reset();
    dolby->reset();
    converter->reset();
    decoder->reset();
    sound->reset();
    compr->reset();

    const char* dir = getenv("EMUTV_SANDBOX_DIR");
    char cwd[4096];
    std::string base = dir ? dir : (getcwd(cwd, sizeof(cwd)) ? cwd : ".");
    sandbox = base + "/emutv-sandbox." + std::to_string(getpid());
    remove_tree(sandbox);
    make_dirs(sandbox);
    atexit(remove_sandbox_at_exit);
}

void Core::reset_nodes() {
    node_present.clear();
    for (auto it = node_device.begin(); it != node_device.end();) {
        if (it->second == Device::Compr)
            it = node_device.erase(it);
        else
            ++it;
    }
    node_present.insert("/dev/qvl/qvkvplt");
    node_present.insert("/dev/kdolby");
    node_present.insert("/dev/dri/card0");
    node_present.insert("/dev/qvkconverter");
    node_present.insert("/dev/video10");
    node_present.insert("/dev/snd/controlC0");
}

DeviceModel* Core::model_for(Device d) const {
    switch (d) {
        case Device::Drm:
            return drm.get();
        case Device::Vplt:
            return vplt.get();
        case Device::Dolby:
            return dolby.get();
        case Device::Converter:
            return converter.get();
        case Device::Decoder:
            return decoder.get();
        case Device::SoundCtl:
            return sound.get();
        case Device::Compr:
            return compr.get();
        default:
            return nullptr;
    }
}

int Core::create_fd(Device d, const std::string& path) {
    int fd = sys_open("/dev/null", O_RDWR | O_CLOEXEC, 0);
    if (fd < 0)
        return fd;
    if (fd >= kMaxFd) {
        sys_close(fd);
        errno = EMFILE;
        return -1;
    }
    OpenFile f;
    f.fd = fd;
    f.device = d;
    f.path = path;
    f.model = model_for(d);
    files[fd] = f;
    emulated[fd].store(1);
    if (f.model)
        f.model->on_open(fd, path);
    return fd;
}

bool Core::take_fault(const std::string& name, Fault* out) {
    auto it = faults.find(name);
    if (it == faults.end() || it->second.empty())
        return false;
    Fault& f = it->second.front();
    *out = f;
    if (f.times > 0 && --f.times == 0)
        it->second.pop_front();
    return true;
}

void Core::record(Event&& ev) {
    ev.seq = ++seq;
    counts[ev.name]++;
    if (ev.kind == Kind::Ioctl || ev.kind == Kind::Write)
        total++;
    timeline_observe(ev);
    if (listener)
        listener(ev);
    if (recording)
        events.push_back(std::move(ev));
}

Core& core() {
    static Core* c = new Core();
    return *c;
}

std::string sandbox_map(const char* path) {
    static const char* const kExact[] = {"/tmp/RUVO",    "/mnt/RUVO",    "/media/sda1",
                                         "/media/sda",   "media/sdb",    "/mnt/usb/sda1",
                                         "/mnt/usb/sda", "/mnt/usb/sdb", "/tmp"};
    static const char* const kMounts[] = {"/media/sda1",  "/media/sda",   "media/sdb", "/mnt/usb/sda1",
                                          "/mnt/usb/sda", "/mnt/usb/sdb", "/tmp"};
    if (path == nullptr)
        return std::string();
    std::string p(path);
    bool mapped = false;
    for (const char* e : kExact)
        mapped = mapped || p == e;
    for (const char* m : kMounts)
        mapped = mapped || p == std::string(m) + "/ruvo-interface.log";
    if (!mapped)
        return std::string();
    std::string root = core().sandbox;
    return p[0] == '/' ? root + p : root + "/" + p;
}

}  // namespace detail

using detail::core;

const char* device_name(Device d) {
    switch (d) {
        case Device::Drm:
            return "drm";
        case Device::Vplt:
            return "vplt";
        case Device::Dolby:
            return "dolby";
        case Device::Converter:
            return "converter";
        case Device::Decoder:
            return "decoder";
        case Device::SoundCtl:
            return "sound";
        case Device::Compr:
            return "compr";
        case Device::Hal:
            return "hal";
        case Device::Dmabuf:
            return "dmabuf";
        default:
            return "none";
    }
}

const char* kind_name(Kind k) {
    switch (k) {
        case Kind::Open:
            return "open";
        case Kind::Close:
            return "close";
        case Kind::Ioctl:
            return "ioctl";
        case Kind::Write:
            return "write";
        default:
            return "call";
    }
}

long long Event::field(const std::string& key) const {
    auto it = fields.find(key);
    if (it == fields.end())
        throw std::out_of_range("event " + name + " has no field " + key);
    return it->second;
}

bool inside_emulator() {
    return detail::t_inside > 0;
}

int process_open_descriptors() {
    detail::Inside inside;
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (!d)
        return -1;
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.')
            n++;
    }
    closedir(d);
    return n - 1;  // the directory stream itself
}

Platform& platform() {
    static Platform p;
    return p;
}

void Platform::reset() {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.reset_nodes();
    c.faults.clear();
    c.events.clear();
    c.counts.clear();
    c.total = 0;
    c.recording = true;
    c.listener = nullptr;
    c.hal = HalMode::Absent;
    c.drm->reset();
    c.vplt->reset();
    c.dolby->reset();
    c.converter->reset();
    c.decoder->reset();
    c.sound->reset();
    c.compr->reset();
    detail::timeline_reset();
    detail::remove_tree(c.sandbox);
    detail::make_dirs(c.sandbox);
}

void Platform::set_present(const std::string& path, bool present) {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    if (present)
        c.node_present.insert(path);
    else
        c.node_present.erase(path);
}

bool Platform::present(const std::string& path) const {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    return c.node_present.count(path) != 0;
}

void Platform::add_compr_device(const std::string& path) {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.node_device[path] = Device::Compr;
    c.node_present.insert(path);
}

void Platform::set_hal(HalMode mode) {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.hal = mode;
}

HalMode Platform::hal() const {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    return c.hal;
}

void Platform::fail(const std::string& request, int err, int times) {
    if (times == 0)
        return;
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    detail::Fault f;
    f.err = err;
    f.times = times;
    c.faults[request].push_back(f);
}

void Platform::fail_status(const std::string& request, int32_t status, int times) {
    if (times == 0)
        return;
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    detail::Fault f;
    f.is_status = true;
    f.status = status;
    f.times = times;
    c.faults[request].push_back(f);
}

void Platform::clear_faults() {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.faults.clear();
}

std::vector<Event> Platform::events() const {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    return c.events;
}

std::vector<Event> Platform::events(const std::string& name) const {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    std::vector<Event> out;
    for (const auto& e : c.events)
        if (e.name == name)
            out.push_back(e);
    return out;
}

std::vector<Event> Platform::events(Device d) const {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    std::vector<Event> out;
    for (const auto& e : c.events)
        if (e.device == d)
            out.push_back(e);
    return out;
}

size_t Platform::count(const std::string& name) const {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    auto it = c.counts.find(name);
    return it == c.counts.end() ? 0 : it->second;
}

size_t Platform::total_requests() const {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    return c.total;
}

void Platform::clear_events() {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.events.clear();
    c.counts.clear();
    c.total = 0;
}

void Platform::set_recording(bool on) {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.recording = on;
}

void Platform::set_listener(std::function<void(const Event&)> listener) {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    c.listener = std::move(listener);
}

int Platform::open_descriptors() const {
    auto& c = core();
    std::lock_guard<std::recursive_mutex> g(c.mu);
    return static_cast<int>(c.files.size());
}

std::string Platform::sandbox_root() const {
    return core().sandbox;
}

std::string Platform::sandbox_path(const std::string& path) const {
    std::string m = detail::sandbox_map(path.c_str());
    if (!m.empty())
        return m;
    return path[0] == '/' ? core().sandbox + path : core().sandbox + "/" + path;
}

void Platform::sandbox_write(const std::string& path, const std::string& content) {
    detail::Inside inside;
    std::string real = sandbox_path(path);
    detail::make_dirs(real.substr(0, real.rfind('/')));
    std::ofstream(real, std::ios::binary | std::ios::trunc) << content;
}

void Platform::sandbox_mkdir(const std::string& path) {
    detail::Inside inside;
    detail::make_dirs(sandbox_path(path));
}

bool Platform::sandbox_exists(const std::string& path) const {
    struct stat st;
    return ::stat(sandbox_path(path).c_str(), &st) == 0;
}

std::string Platform::sandbox_read(const std::string& path) const {
    detail::Inside inside;
    std::ifstream in(sandbox_path(path), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

DrmModel& Platform::drm() {
    return *core().drm;
}
VpltModel& Platform::vplt() {
    return *core().vplt;
}
DolbyModel& Platform::dolby() {
    return *core().dolby;
}
ConverterModel& Platform::converter() {
    return *core().converter;
}
DecoderModel& Platform::decoder() {
    return *core().decoder;
}
SoundCardModel& Platform::sound() {
    return *core().sound;
}
ComprModel& Platform::compr() {
    return *core().compr;
}
std::recursive_mutex& Platform::mutex() const {
    return core().mu;
}

// ---- DeviceModel defaults -----------------------------------------------------------------

size_t DeviceModel::record_size(unsigned long req, const void*) const {
    return (req >> 16) & 0x3FFF;
}
void DeviceModel::apply_status(unsigned long, void*, int32_t) {}
long DeviceModel::write(int, const void*, size_t, Event&, int* err) {
    *err = EINVAL;
    return -1;
}
void DeviceModel::on_open(int, const std::string&) {}
void DeviceModel::on_close(int) {}

}  // namespace emutv
