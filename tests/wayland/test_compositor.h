// A small, real Wayland compositor for the tests of the on-screen-display path.
//
// It runs libwayland-server on its own thread with its own event loop, listens on a
// private socket inside a private XDG_RUNTIME_DIR under the build tree, offers a
// configurable set of globals, answers buffer creation and releases buffers as scripted,
// and records every request it receives, in order, as readable text:
//
//   display.get_registry()                         wl_display requests
//   registry.bind("wl_compositor", 1)              the interface and the version asked for
//   compositor#0.create_surface(surface#0)         "<object>.<request>(<arguments>)"
//   params#0.add(fd:y0, 0, 0, 64, 0x00ffffff, 0xffffffff)
//   surface#0.attach(buffer#2, 0, 0)
//   disconnect                                     the client went away
//
// Objects are named by a short kind and a per-kind creation number (surface#0,
// buffer#3, callback#5...); buffers are numbered in the order the compositor created
// them. Descriptors received with a request are shown by the label given to their file
// through label_fd() ("fd:y0"), else by inode ("fd:ino<N>"). Unsigned numbers are
// decimal except DRM formats and modifiers, which are hexadecimal.
// Events the compositor sends are recorded in the same sequence with a "-> " prefix:
//
//   -> params#0.created(buffer#0)
//   -> buffer#0.release()
//   -> callback#0.done()
//
// Every client connection passes through a relay owned by the compositor, so requests a
// client writes right before it disconnects are still handled and recorded.
#pragma once

#include <stdint.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace ruvo_test {

// When the compositor gives a committed buffer back with wl_buffer.release.
enum class ReleasePolicy {
    OnReplace,  // when a later commit replaces it (as a scanning-out compositor does)
    OnCommit,   // right after the commit that showed it (as a copying compositor does)
    Never,      // only through TestCompositor::release_buffer
};

struct CompositorConfig {
    // Globals offered, with the highest version offered.
    bool compositor = true;
    uint32_t compositor_version = 4;
    bool viewporter = true;
    bool seat = true;
    bool xdg_wm_base = true;
    uint32_t xdg_wm_base_version = 3;
    bool fullscreen_shell = false;
    bool dmabuf = true;
    uint32_t dmabuf_version = 3;
    bool direct_display = false;
    bool output = false;  // a wl_output, which the renderer has no use for

    // What zwp_linux_dmabuf_v1 announces on bind: a format event per format, then a
    // modifier event per format and modifier.
    std::vector<uint32_t> formats{0x3231564e};  // NV12
    std::vector<uint64_t> modifiers{0};         // linear
    bool format_events = true;
    bool modifier_events = true;

    // xdg-shell: the first commit of a toplevel is answered with a configure.
    bool configure_on_first_commit = true;
    // Each commit answers the frame callbacks it carries with done.
    bool frame_done_on_commit = true;
    ReleasePolicy release = ReleasePolicy::OnReplace;
    // Buffers (by creation number) never released automatically.
    std::set<int> held_buffers;
    // zwp_linux_buffer_params_v1.create requests (by arrival number, from 0) answered
    // with failed instead of created.
    std::set<int> failing_creates;

    // Where the private runtime directory is made (empty: under the build tree).
    std::string runtime_base;
    // start() exports XDG_RUNTIME_DIR and WAYLAND_DISPLAY for clients of this process.
    bool export_environment = true;
};

class TestCompositor {
  public:
    explicit TestCompositor(CompositorConfig config = CompositorConfig());
    ~TestCompositor();
    TestCompositor(const TestCompositor&) = delete;
    TestCompositor& operator=(const TestCompositor&) = delete;

    // Creates the runtime directory and the socket and starts the compositor thread.
    void start();
    // Disconnects every client, stops the thread, removes the socket and the directory.
    void stop();

    const std::string& runtime_dir() const;
    const std::string& socket_name() const;
    // Sets XDG_RUNTIME_DIR and WAYLAND_DISPLAY to this compositor, clears WAYLAND_SOCKET.
    void export_environment() const;

    // Waits until every byte the clients have written is handled and every event the
    // compositor produced is on its way to the client.
    void settle();
    // Waits until no client is connected; false after `timeout_ms`.
    bool wait_disconnected(int timeout_ms = 5000);

    // The record (settled first): everything, only the requests, only the events.
    std::vector<std::string> log();
    std::vector<std::string> requests();
    std::vector<std::string> events();
    void clear_log();

    // Descriptors whose file is the file of `fd` are recorded as "fd:<label>".
    void label_fd(int fd, const std::string& label);

    // Scripted actions; each has been carried out and flushed when the call returns.
    void send_ping(uint32_t serial);
    void release_buffer(int buffer);  // wl_buffer.release for buffer#<buffer>
    void hold_buffer(int buffer);
    void set_release_policy(ReleasePolicy policy);
    void set_frame_done_on_commit(bool on);
    void fail_create(int create_number);
    // Withdraws a global (wl_registry.global_remove to the clients).
    void remove_global(const std::string& interface_name);

    // Counters read on the compositor thread.
    int clients();
    int live_buffers();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ruvo_test
