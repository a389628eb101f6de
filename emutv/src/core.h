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
};

class Core {
  public:
    Core();
    mutable std::recursive_mutex mu;

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
    std::map<std::string, size_t> counts;
    size_t total = 0;
    std::function<void(const Event&)> listener;

    HalMode hal = HalMode::Absent;
    int hal_drm_fd = -1;

    std::unique_ptr<DrmModel> drm;
    std::unique_ptr<VpltModel> vplt;
    std::unique_ptr<DolbyModel> dolby;
    std::unique_ptr<ConverterModel> converter;
    std::unique_ptr<DecoderModel> decoder;
    std::unique_ptr<SoundCardModel> sound;
    std::unique_ptr<ComprModel> compr;

    std::string sandbox;

    DeviceModel* model_for(Device d) const;
    void reset_nodes();

    // Creates a descriptor on an emulated device (backed by /dev/null in the kernel).
    int create_fd(Device d, const std::string& path);
    // Consumes the next scripted fault for `name`, if any.
    bool take_fault(const std::string& name, Fault* out);
    void record(Event&& ev);
    bool is_emulated(int fd) const {
        return fd >= 0 && fd < kMaxFd && emulated[fd].load(std::memory_order_relaxed);
    }
};

Core& core();

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
