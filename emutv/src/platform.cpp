// Registry of emulated devices, the request record, scripted faults and the sandbox.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core.h"
#include "timeline_internal.h"

namespace emutv {
namespace detail {

namespace {
// Initial-exec: the emulator is linked into its programs or preloaded, never loaded later,
// and every request reads this.
__attribute__((tls_model("initial-exec"))) thread_local int t_inside = 0;

int remove_entry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

void remove_tree(const std::string& root) {
    if (!root.empty())
        nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

void remove_sandbox_at_exit() {
    remove_sandbox_now();
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

// A forked child shares its parent's sandbox and leaves it to the parent.
void remove_sandbox_now() {
    if (core().sandbox_owner != getpid())
        return;
    remove_tree(core().sandbox);
    ::unlink(alsa_configuration_path().c_str());
}

std::string alsa_configuration_path() {
    return core().sandbox + ".alsa.conf";
}

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

template <typename M>
std::unique_ptr<DeviceModel> make() {
    return std::unique_ptr<DeviceModel>(new M);
}

const std::vector<DeviceEntry>& device_registry() {
    static const std::vector<DeviceEntry> table = {
        {Device::Drm, "drm", {"/dev/dri/card0"}, make<DrmModel>},
        {Device::Vplt, "vplt", {"/dev/qvl/qvkvplt", "/dev/qvkvplt", "/tmp/qvkvplt"}, make<VpltModel>},
        {Device::Dolby, "dolby", {"/dev/kdolby", "/dev/qvl/kdolby", "/tmp/kdolby"}, make<DolbyModel>},
        {Device::Converter, "converter", {"/dev/qvkconverter"}, make<ConverterModel>},
        {Device::Decoder, "decoder", {"/dev/video10"}, make<DecoderModel>},
        {Device::SoundCtl, "sound", {"/dev/snd/controlC0"}, make<SoundCardModel>},
        {Device::Compr, "compr", {}, make<ComprModel>},
        {Device::Hal, "hal", {}, nullptr},
        {Device::Dmabuf, "dmabuf", {}, nullptr},
    };
    return table;
}

const DeviceEntry* registry_entry(Device d) {
    for (const auto& e : device_registry())
        if (e.kind == d)
            return &e;
    return nullptr;
}

Core::Core() {
    for (auto& e : emulated)
        e.store(0);
    for (const auto& entry : device_registry()) {
        if (entry.make_model)
            models[static_cast<size_t>(entry.kind)] = entry.make_model();
        for (const char* p : entry.paths)
            node_device[p] = entry.kind;
    }
    reset_nodes();
    reset_models();

    const char* dir = getenv("EMUTV_SANDBOX_DIR");
    char cwd[4096];
    std::string base = dir ? dir : (getcwd(cwd, sizeof(cwd)) ? cwd : ".");
    sandbox = base + "/emutv-sandbox." + std::to_string(getpid());
    sandbox_owner = getpid();
    remove_tree(sandbox);
    make_dirs(sandbox);
    atexit(remove_sandbox_at_exit);
    install_process_handlers();
}

void Core::reset_nodes() {
    node_present.clear();
    for (auto it = node_device.begin(); it != node_device.end();) {
        if (it->second == Device::Compr)
            it = node_device.erase(it);
        else
            ++it;
    }
    for (const auto& entry : device_registry())
        if (!entry.paths.empty())
            node_present.insert(entry.paths.front());
}

void Core::reset_models() {
    for (auto& m : models)
        if (m)
            m->reset();
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
    if (f.skip > 0) {
        --f.skip;
        return false;
    }
    *out = f;
    if (f.times > 0 && --f.times == 0)
        it->second.pop_front();
    return true;
}

int Core::thread_token() {
    static __attribute__((tls_model("initial-exec"))) thread_local int token = -1;
    if (token < 0)
        token = syscall(SYS_gettid) == getpid() ? 0 : ++threads_seen;
    return token;
}

void Core::count_request(const std::string& name) {
    // Requests come in runs of a few names (a frame, an audio block): their counters first.
    for (auto& slot : count_cache) {
        if (slot.count != nullptr && slot.name == name) {
            ++*slot.count;
            return;
        }
    }
    CountSlot& slot = count_cache[next_count_slot];
    next_count_slot = (next_count_slot + 1) % kCountSlots;
    slot.count = &counts[name];
    slot.name = name;
    ++*slot.count;
}

void Core::clear_counts() {
    counts.clear();
    for (auto& slot : count_cache)
        slot.count = nullptr;
}

void Core::record_copy(Event& ev) {
    ev.seq = ++seq;
    ev.thread = thread_token();
    count_request(ev.name);
    if (ev.kind == Kind::Ioctl || ev.kind == Kind::Write)
        total++;
    timeline_observe(ev);
    if (trace_fd >= 0 || trace_pending_child)
        write_trace_line(*this, ev);
    if (listener)
        listener(ev);
    if (recording)
        events.push_back(ev);
}

void Core::record(Event&& ev) {
    record_copy(ev);
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
    const detail::DeviceEntry* e = detail::registry_entry(d);
    return e ? e->name : "none";
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

long long Fields::at(const std::string& key) const {
    auto it = find(key);
    if (it == end())
        throw std::out_of_range("no field " + key);
    return it->second;
}

void Fields::sort() const {
    if (sorted_)
        return;
    // A handful of entries: insertion sort.
    for (size_t i = 1; i < n_; ++i)
        for (size_t j = i; j > 0 && items_[j].first < items_[j - 1].first; --j)
            std::swap(items_[j], items_[j - 1]);
    sorted_ = true;
}

bool Fields::operator==(const Fields& o) const {
    if (size() != o.size())
        return false;
    return std::equal(begin(), end(), o.begin());
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
    std::lock_guard<PlatformMutex> g(c.mu);
    c.reset_nodes();
    c.faults.clear();
    c.events.clear();
    c.clear_counts();
    c.total = 0;
    c.seq = 0;
    c.recording = true;
    c.listener = nullptr;
    c.hal = HalMode::Absent;
    c.reset_models();
    detail::timeline_reset();
    detail::remove_tree(c.sandbox);
    detail::make_dirs(c.sandbox);
}

void Platform::set_present(const std::string& path, bool present) {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    if (present)
        c.node_present.insert(path);
    else
        c.node_present.erase(path);
}

bool Platform::present(const std::string& path) const {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    return c.node_present.count(path) != 0;
}

void Platform::add_compr_device(const std::string& path) {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.node_device[path] = Device::Compr;
    c.node_present.insert(path);
}

void Platform::set_hal(HalMode mode) {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.hal = mode;
}

HalMode Platform::hal() const {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    return c.hal;
}

namespace {

void add_fault(const std::string& request, detail::Fault f, int times, int at) {
    if (times == 0)
        return;
    f.times = times;
    f.skip = at > 1 ? at - 1 : 0;
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.faults[request].push_back(f);
}

}  // namespace

void Platform::fail(const std::string& request, int err, int times, int at) {
    detail::Fault f;
    f.err = err;
    add_fault(request, f, times, at);
}

void Platform::fail_status(const std::string& request, int32_t status, int times, int at) {
    detail::Fault f;
    f.is_status = true;
    f.status = status;
    add_fault(request, f, times, at);
}

void Platform::clear_faults() {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.faults.clear();
}

std::vector<Event> Platform::events() const {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    return c.events;
}

std::vector<Event> Platform::events(const std::string& name) const {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    std::vector<Event> out;
    for (const auto& e : c.events)
        if (e.name == name)
            out.push_back(e);
    return out;
}

std::vector<Event> Platform::events(Device d) const {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    std::vector<Event> out;
    for (const auto& e : c.events)
        if (e.device == d)
            out.push_back(e);
    return out;
}

size_t Platform::count(const std::string& name) const {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    auto it = c.counts.find(name);
    return it == c.counts.end() ? 0 : it->second;
}

size_t Platform::total_requests() const {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    return c.total;
}

void Platform::clear_events() {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.events.clear();
    c.clear_counts();
    c.total = 0;
}

void Platform::set_recording(bool on) {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.recording = on;
}

void Platform::set_listener(std::function<void(const Event&)> listener) {
    detail::Inside inside;
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
    c.listener = std::move(listener);
}

int Platform::open_descriptors() const {
    auto& c = core();
    std::lock_guard<PlatformMutex> g(c.mu);
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
    return core().model<DrmModel>(Device::Drm);
}
VpltModel& Platform::vplt() {
    return core().model<VpltModel>(Device::Vplt);
}
DolbyModel& Platform::dolby() {
    return core().model<DolbyModel>(Device::Dolby);
}
ConverterModel& Platform::converter() {
    return core().model<ConverterModel>(Device::Converter);
}
DecoderModel& Platform::decoder() {
    return core().model<DecoderModel>(Device::Decoder);
}
SoundCardModel& Platform::sound() {
    return core().model<SoundCardModel>(Device::SoundCtl);
}
ComprModel& Platform::compr() {
    return core().model<ComprModel>(Device::Compr);
}
PlatformMutex& Platform::mutex() const {
    return core().mu;
}

// ---- PlatformMutex ------------------------------------------------------------------------

bool PlatformMutex::try_lock() {
    const pthread_t self = pthread_self();
    if (owner_.load(std::memory_order_relaxed) == self) {
        ++depth_;
        return true;
    }
    if (!mu_.try_lock())
        return false;
    owner_.store(self, std::memory_order_relaxed);
    depth_ = 1;
    return true;
}

bool PlatformMutex::held_by_this_thread() const {
    return owner_.load(std::memory_order_relaxed) == pthread_self();
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
const char* DeviceModel::request_literal(unsigned long, const void*) const {
    return nullptr;
}
void DeviceModel::on_open(int, const std::string&) {}
void DeviceModel::on_close(int) {}

}  // namespace emutv
