// Internal state of the emulated platform.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"

namespace emutv {
namespace detail {

constexpr int kMaxFd = 65536;

struct OpenFile {
    int fd = -1;
    Device device = Device::None;
    std::string path;
    DeviceModel* model = nullptr;
};

struct Fault {
    bool is_status = false;
    int err = 0;
    int32_t status = 0;
    int times = 1;  // -1: for ever
    int skip = 0;   // matching calls that pass before the first failure
};

// One row per kind of device: its name in the record, the node paths the emulator owns
// for it (the first one is present after a reset; a kind without paths has its nodes
// declared at run time or none), and the model answering its requests.
struct DeviceEntry {
    Device kind;
    const char* name;
    std::vector<const char*> paths;
    std::unique_ptr<DeviceModel> (*make_model)();
};
const std::vector<DeviceEntry>& device_registry();
const DeviceEntry* registry_entry(Device d);
constexpr size_t kDeviceKinds = static_cast<size_t>(Device::Dmabuf) + 1;

class Core {
  public:
    Core();
    mutable PlatformMutex mu;

    // Device nodes.
    std::map<std::string, Device> node_device;  // every path the emulator owns
    std::set<std::string> node_present;
    std::map<int, OpenFile> files;
    std::atomic<uint8_t> emulated[kMaxFd];

    // Faults by request name.
    std::map<std::string, std::deque<Fault>> faults;

    // Record.
    std::vector<Event> events;
    bool recording = true;
    uint64_t seq = 0;
    std::unordered_map<std::string, size_t> counts;  // by request name; cleared by clear_counts()
    struct CountSlot {
        std::string name;
        size_t* count = nullptr;  // into `counts` (its nodes stay put)
    };
    static constexpr size_t kCountSlots = 4;
    CountSlot count_cache[kCountSlots];
    size_t next_count_slot = 0;
    void count_request(const std::string& name);
    void clear_counts();
    size_t total = 0;
    std::function<void(const Event&)> listener;

    HalMode hal = HalMode::Absent;
    int hal_drm_fd = -1;

    // Models by Device, made from the registry.
    std::unique_ptr<DeviceModel> models[kDeviceKinds];
    template <typename M>
    M& model(Device d) const {
        return *static_cast<M*>(models[static_cast<size_t>(d)].get());
    }

    std::string sandbox;

    // RUVO_EMUTV_TRACE: where the trace goes (-1: nowhere), and a forked child's own
    // trace file still to open.
    std::string trace_base;
    int trace_fd = -1;
    bool trace_pending_child = false;

    DeviceModel* model_for(Device d) const { return models[static_cast<size_t>(d)].get(); }
    void reset_nodes();
    void reset_models();
    int sandbox_owner = 0;  // the process that made the sandbox (a forked child leaves it)

    // Creates a descriptor on an emulated device (backed by /dev/null in the kernel).
    int create_fd(Device d, const std::string& path);
    // Consumes the next scripted fault for `name`, if any.
    bool take_fault(const std::string& name, Fault* out);
    void record(Event&& ev);
    // Records `ev` and leaves it to the caller (a copy goes into the record when it is on).
    void record_copy(Event& ev);
    // 0 for the main thread, else the number of the calling thread (under the lock).
    int thread_token();
    int threads_seen = 0;
    bool is_emulated(int fd) const {
        return fd >= 0 && fd < kMaxFd && emulated[fd].load(std::memory_order_relaxed);
    }
};

Core& core();

// Fork handlers (a child's own trace) and the sandbox's removal on a fatal signal.
void install_process_handlers();
void write_trace_line(Core& c, const Event& ev);
// Removes the sandbox (and the ALSA configuration beside it) now when this process made it.
void remove_sandbox_now();
std::string alsa_configuration_path();

// Marks the calling thread as inside the emulator for the scope's lifetime.
struct Inside {
    Inside();
    ~Inside();
};

// Raw system calls, never interposed.
int sys_open(const char* path, int flags, int mode);
int sys_close(int fd);
long sys_ioctl(int fd, unsigned long req, void* arg);
long sys_write(int fd, const void* buf, size_t n);

// Where a sandboxed path really lives; empty when `path` is not sandboxed.
std::string sandbox_map(const char* path);

}  // namespace detail
}  // namespace emutv
