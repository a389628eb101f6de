// Fixture of the on-screen-display suites: a video output handle in TA mode whose
// renderer talks to a real Wayland compositor (libwayland-server on a private socket,
// tests/wayland/test_compositor.h), with the chip's drivers emulated.
//
// Nothing in the library raises m_is_ta, so the handle is caught at its allocation
// (handle_catch.h) and the flag is raised while open runs, once open has cleared it: at
// the first request of display discovery.
//
// The emulated frame-buffer descriptors all sit on /dev/null, so the compositor could not
// tell them apart. After open each is given a file of its own (an anonymous memory file
// put in its place with dup2, so the descriptor number and the emulator's book-keeping
// stay the same), labelled "y0", "c0", "y1", "c1", "y2", "c2" in the compositor's record.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ruvo_kit/threads.h"
#include "spine_fixture.h"
#include "test_compositor.h"
#include "wayland_fixture.h"

namespace video_osd {

using ruvo_test::CompositorConfig;
using ruvo_test::TestCompositor;

// Sizes of the hardware frame buffers of one Y/C pair.
constexpr int kLumaSize = 2211840;
constexpr int kChromaSize = 1105920;
// Stride given to the renderer for both planes, and written into the converter record.
constexpr unsigned kStride = 1920;

// Label of frame buffer `entry` of m_gem_buf (0..5) in the compositor's record.
std::string BufferLabel(int entry);

// Names of the functions that print on this path.
extern const char kOpen[];
extern const char kClose[];
extern const char kInit[];
extern const char kPush[];
extern const char kSetRect[];
extern const char kNextRes[];
extern const char kNotify[];
extern const char kRender[];    // wayland_render_init
extern const char kDeinit[];    // wayland_render_deinit
extern const char kRedraw[];    // wayland_render_redraw
extern const char kGeometry[];  // wayland_render_set_geometry
extern const char kLazy[];      // wayland_render_re_create_dmabuf_buffer
extern const char kDirectly[];  // wayland_render_re_create_dmabuf_buffer_directly

// A decoded frame of `w` x `h` with its own display index, as the browser passes it.
struct Frame {
    Frame(uint32_t w, uint32_t h, uint32_t display_index = 1);
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;
    quarvel_video_output_frame_s* get() { return &frame; }
    v4l2_drm desc;
    quarvel_video_output_frame_s frame;
};

// The 592-byte converter record the library must send for `desc` into the pair whose
// descriptors are `y` and `c`.
std::vector<uint8_t> ConverterRecord(const v4l2_drm& desc, int y, int c);

// Requests the renderer sends to create the dmabuf buffer of slot `slot` through
// params#<params>, with the descriptors labelled for that slot.
std::vector<std::string> CreateRequests(int params, int slot, int width, int height, unsigned stride);
// CreateRequests and the compositor's answer: params#<params>.created(buffer#<params>)
// (buffers are numbered like the params when no creation fails).
std::vector<std::string> Created(int params, int slot, int width, int height, unsigned stride);
// Requests of one drawn frame.
std::vector<std::string> DrawRequests(int buffer, int width, int height, int callback);

std::vector<std::string> Concat(std::initializer_list<std::vector<std::string>> parts);

// Waits, within a bound, until the process is back to `threads` threads (the audio-mute
// thread has ended), then tells whether it wrote "main out mute". False when the bound
// passed first or nothing was written.
bool WaitForAudioMute(int threads);

class OsdTest : public spine::SpineTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the compositor (once per test) and exports its socket to the renderer.
    TestCompositor& StartCompositor(CompositorConfig cfg = CompositorConfig());
    TestCompositor& comp() { return *comp_; }

    // Opens a handle whose m_is_ta is raised during open; `also` sees every request too.
    quarvel_video_output_s* OpenInTaMode(std::function<void(const emutv::Event&)> also = nullptr);
    // OpenInTaMode, then gives the six frame buffers files of their own (labelled in the
    // compositor when one runs) and forgets what open printed and sent.
    quarvel_video_output_s* OpenReady();
    // OpenReady, then the first frame (1920 x 1080) through the renderer; the record,
    // the printed lines and the compositor's log are cleared afterwards.
    quarvel_video_output_s* OpenWithWindow();
    // Descriptors the pool's exports handed out, in order.
    static std::vector<int> ExportedDescriptors();

    // Forgets what was printed and sent so far (the compositor's log too).
    void Forget();
    // Closes the handle the fixture keeps (if still open).
    void CloseHandle();

    // The lines (error, info, trace) of one frame converted and shown.
    static std::vector<std::string> ShownFrameLines();
    // The converter events of the record.
    static std::vector<emutv::Event> Conversions();

    std::unique_ptr<TestCompositor> comp_;
    quarvel_video_output_s* output_ = nullptr;
    int descriptors_ = 0;  // process descriptors before the handle was opened
};

}  // namespace video_osd
