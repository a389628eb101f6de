// The fault matrix: every driver request of an exported call is failed in turn through the
// emulated platform, with each errno the driver may give (and, where the record has a
// result cell of its own, with a non-zero driver status), and the outcome is compared with
// the documented one: result code, printed lines, descriptors left open, and the next call.
//
// A sequence is one exported call in a given state. A reference run without faults gives
// the requests the call sends; each of them (key and occurrence, so "the second
// DRM_IOCTL_SDP_SET_DP_SOURCE") is then failed on its own in a fresh run. A request that
// the sequence's table does not know fails the test: a new request in the library needs
// its documented outcome here.
#pragma once

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ruvo_log.h"
#include "test_support.h"

namespace faults {

using emutv::Device;
using emutv::Event;
using emutv::Kind;

// The name the emulator matches a fault by: the request's name, or "open:<path>" and
// "close:<path>" for the descriptor calls.
std::string fault_key(const Event& e);

// True for what the kernel sees as a request of a driver: open, close, ioctl, write. Calls
// into the board HAL are not driver requests.
bool is_driver_request(const Event& e);

// One request of a reference run: its key and its occurrence among requests of that key.
struct Step {
    std::string key;
    int occurrence = 0;
    Device device = Device::None;
    Kind kind = Kind::Ioctl;
};

std::string to_string(const Step& s);

// What is injected: an errno (the request returns -1 without reaching the driver), or a
// driver status written into the record's own result cell.
struct Injection {
    bool status = false;
    int err = 0;
    int32_t value = 0;
};

std::string to_string(const Injection& f);

// The errnos each kind of request is failed with, and the driver statuses where the record
// has a result cell (the video-platform commands).
std::vector<Injection> injections_for(const Step& s);

// libdrm's drmIoctl() repeats a request that fails with EINTR or EAGAIN.
bool retried_by_libdrm(const Step& s, const Injection& f);

// The documented outcome of one faulted run.
struct Outcome {
    bool known = true;  // false: the table has no entry for this request
    int result = 0;
    // Exact printed lines; "%E" stands for strerror(errno), "%N" for the errno number, "%S"
    // for the injected driver status.
    std::vector<std::string> lines;
    // Descriptors the documented behaviour leaves open.
    int descriptors_left_open = 0;
    // The zero-queue count once everything is closed again.
    int queue_count_after = 0;
    // Further checks on the state right after the call, then the next call and what it
    // must give (a handle that stays usable).
    std::function<void()> check;
    std::function<void()> next_call;
};

Outcome unknown();

std::vector<std::string> expand(const std::vector<std::string>& lines, const Injection& f);

// Arms the injection for the step's occurrence: at once for the first, else from the
// emulator's listener right after the occurrence before it has been answered.
class Armed {
  public:
    Armed(const Step& s, const Injection& f);
    ~Armed();
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
};

// The event of the step in a record, or null.
const Event* find_step(const std::vector<Event>& events, const Step& s);

// The steps of a recorded run (requests that failed already in the reference, such as the
// probes of absent sound cards, are left out: a fault there changes nothing).
std::vector<Step> steps_of(const std::vector<Event>& events, const std::function<bool(const Event&)>& keep);

// Lines of the audio-mute thread of the hand-back (its own and those of _kcontrol_set, with
// the continuation lines that follow them), split from the calling thread's lines.
void split_thread_lines(const std::vector<std::string>& all, std::vector<std::string>* caller,
                        std::vector<std::string>* thread);

// One exported call in a given state.
struct Sequence {
    std::string name;
    std::function<void()> setup;           // brings the handle(s) to the state before the call
    std::function<int()> call;             // the call under test; its result code
    std::function<void()> settle = [] {};  // e.g. waits for the audio-mute thread
    std::function<void()> teardown;        // releases what setup made and the call left
    std::function<bool(const Event&)> keep = is_driver_request;  // requests to fault
    // Lines compared with the outcome (default: all of them).
    std::function<std::vector<std::string>(const std::vector<std::string>&)> visible =
        [](const std::vector<std::string>& l) { return l; };
    std::function<Outcome(const Step&, const Injection&)> expect;  // outcome of a fault
    Outcome success;                                               // outcome without fault
};

class FaultMatrix : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Resets the platform for a fresh run: power-on devices, error-level messages only.
    void fresh_platform();
    // Lines since the last call, with the audio sink's "output: %p" address folded to
    // "output: <ptr>" and the playback flag's own call site folded to "#".
    std::vector<std::string> lines_now();

    // Runs the reference and then every fault of the sequence.
    void run(Sequence& s);

    // Count of the request `key` in the run so far (recording on).
    size_t count(const std::string& key) const;
    // Keys of the requests sent by the next call (since the runner set the mark).
    std::vector<std::string> requests_since_mark() const;
    size_t mark_ = 0;

    // The reference run's request counts by key.
    std::map<std::string, size_t> reference_counts_;
};

// Frame descriptor and record the library may point at for the whole test.
struct Frame {
    v4l2_drm desc;
    quarvel_video_output_frame_s frame;
    Frame(uint32_t hres, uint32_t vres, uint32_t aspect, int32_t dv_profile);
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    const quarvel_video_output_frame_s* get() const { return &frame; }
};

// Video-style and audio-style lines.
inline std::string v(const std::string& func, const std::string& text) {
    return ruvo_test::vline(func, text);
}
inline std::string a(const std::string& func, const std::string& text) {
    return ruvo_test::aline(func, text);
}

// What the picture-quality flag prints at the end of a first frame.
std::vector<std::string> playback_flag_lines();

template <typename... V>
std::vector<std::string> cat(std::vector<std::string> first, const V&... rest) {
    (first.insert(first.end(), rest.begin(), rest.end()), ...);
    return first;
}

}  // namespace faults
