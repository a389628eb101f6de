// Shared test fixtures: the emulated platform in its power-on state, captured standard
// output with call-site numbers folded, and frame descriptor builders. It brings the public
// headers and the driver records the suites read; the library's internals come from the
// family headers (src/ruvo_internal_*.h) of the tests that call them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "ruvo/driver/compress_ext.h"
#include "ruvo/driver/qvk_converter.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/driver/v4l2_drm.h"
#include "ruvo/driver/vplt_ioctl.h"
#include "ruvo/quarvel_audio_output.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo/ruvo_debug.h"
#include "ruvo/wayland_render.h"
#include "ruvo_kit/frame_descriptor.h"

namespace ruvo_test {

// Captures what the library prints to standard output.
class StdoutCapture {
  public:
    void start();
    // The captured text split into lines (each keeps no "\n"), with the call-site
    // number of every video-style or audio-style prefix replaced by "#":
    // "[qvl_disp_corvi] Foo(#) text", "[Foo(): #]text".
    std::vector<std::string> stop_lines();
    std::string stop_raw();
    bool active() const { return active_; }

  private:
    bool active_ = false;
};

// Folds call-site numbers in captured text (see StdoutCapture::stop_lines).
std::string fold_call_sites(const std::string& text);
std::vector<std::string> split_lines(const std::string& text);

// "[qvl_disp_corvi] Func(#) text" for a video-style message without its newline.
std::string vline(const std::string& func, const std::string& text);
// "[Func(): #]text" for an audio-style message.
std::string aline(const std::string& func, const std::string& text);

// A decoded frame descriptor whose first plane has the picture's size
// (ruvo_kit::FrameDescriptor).
v4l2_drm make_frame(uint32_t hres, uint32_t vres, uint32_t aspect = V4L2_ASPECTRATIO_TYPE_900_1600,
                    uint32_t inputport = V4L2_DRM_INPUTPORT_TYPE_MM);

// Base fixture: resets the emulated platform and the debug mask, captures stdout.
class PlatformTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    emutv::Platform& tv() { return emutv::platform(); }
    // Lines printed since SetUp (or the previous call), call sites folded.
    std::vector<std::string> lines();
    // Names of the recorded requests in order (optionally only one device).
    std::vector<std::string> request_names() const;
    std::vector<std::string> request_names(emutv::Device d) const;
    StdoutCapture capture_;
};

}  // namespace ruvo_test
