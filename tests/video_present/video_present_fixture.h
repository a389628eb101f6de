// Fixture of the video presentation tests: an opened video handle on the emulated
// platform, frame descriptors the library may point at, and the expected driver records.
#pragma once

#include <drm.h>
#include <drm_mode.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include <regex>
#include <string>
#include <vector>

#include "hmx_standin.h"
#include "ruvo_log.h"
#include "test_support.h"
#include "ruvo_internal_video.h"

namespace video_present {

// A decoded frame as the browser hands it over: the descriptor and the frame record
// pointing at it. Not copyable, the record points into the object itself.
struct TestFrame {
    v4l2_drm desc;
    quarvel_video_output_frame_s frame;

    TestFrame(uint32_t hres, uint32_t vres, uint32_t aspect = V4L2_ASPECTRATIO_TYPE_900_1600,
              int32_t dv_profile = -1, uint32_t inputport = V4L2_DRM_INPUTPORT_TYPE_MM) {
        desc = ruvo_test::make_frame(hres, vres, aspect, inputport);
        memset(&frame, 0, sizeof(frame));
        frame.v4l2_frame = &desc;
        frame.dv_profile = dv_profile;
    }
    TestFrame(const TestFrame&) = delete;
    TestFrame& operator=(const TestFrame&) = delete;

    const quarvel_video_output_frame_s* get() const { return &frame; }
};

template <typename T>
std::vector<uint8_t> bytes_of(const T& value) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&value);
    return std::vector<uint8_t>(p, p + sizeof(T));
}

inline std::vector<uint8_t> u8_cell(uint8_t v) {
    return std::vector<uint8_t>{v};
}
inline std::vector<uint8_t> s32_cell(int32_t v) {
    return bytes_of(v);
}

inline uint32_t le32_at(const std::vector<uint8_t>& bytes, size_t offset) {
    uint32_t v = 0;
    if (offset + 4 <= bytes.size())
        memcpy(&v, bytes.data() + offset, 4);
    return v;
}

inline quarvel_video_output_rect_s rect(int32_t x, int32_t y, uint32_t w, uint32_t h, uint32_t dar_w = 0,
                                        uint32_t dar_h = 0) {
    return quarvel_video_output_rect_s{x, y, w, h, dar_w, dar_h};
}

inline bool same_rect(const quarvel_video_output_rect_s& a, const quarvel_video_output_rect_s& b) {
    return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h && a.dar_w == b.dar_w && a.dar_h == b.dar_h;
}

inline bool same_size(const quarvel_frame_size_s& a, const quarvel_frame_size_s& b) {
    return a.w == b.w && a.h == b.h && a.dar_w == b.dar_w && a.dar_h == b.dar_h && a.sar_num == b.sar_num &&
           a.sar_denom == b.sar_denom;
}

inline std::string to_string(const quarvel_frame_size_s& s) {
    return "{" + std::to_string(s.w) + ", " + std::to_string(s.h) + ", " + std::to_string(s.dar_w) + ", " +
           std::to_string(s.dar_h) + ", " + std::to_string(s.sar_num) + ", " + std::to_string(s.sar_denom) +
           "}";
}

inline std::string to_string(const quarvel_video_output_rect_s& r) {
    return "{" + std::to_string(r.x) + ", " + std::to_string(r.y) + ", " + std::to_string(r.w) + ", " +
           std::to_string(r.h) + ", " + std::to_string(r.dar_w) + ", " + std::to_string(r.dar_h) + "}";
}

// The playback-flag line repeats the routine's name and call site inside the message
// text; that second number is folded too.
inline std::vector<std::string> fold_flag_site(std::vector<std::string> lines) {
    static const std::regex site(R"(qvl_set_playback_flag\(\d+\)$)");
    for (auto& l : lines)
        l = std::regex_replace(l, site, "qvl_set_playback_flag(#)");
    return lines;
}

// What the picture-quality flag prints, after the folding above.
inline std::vector<std::string> playback_flag_lines() {
    return {ruvo_test::vline("qvl_set_playback_flag", "qvl_set_playback_flag(#)"), "",
            "HMX:set corvi playback flag"};
}

template <typename... V>
std::vector<std::string> concat(std::vector<std::string> a, const V&... rest) {
    (a.insert(a.end(), rest.begin(), rest.end()), ...);
    return a;
}

// Whether a forked child of this process runs and ends normally, and whether it can run
// a thread. A user-mode emulator that pairs the target's dynamic loader with a C library
// of another build crashes both; death tests and threaded tests cannot run there.
inline bool child_process_runs(bool with_thread) {
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (with_thread) {
            int ran = 0;
            std::thread t([&ran]() { ran = 1; });
            t.join();
            _exit(ran == 1 ? 0 : 1);
        }
        _exit(0);
    }
    if (pid < 0)
        return false;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

inline bool host_runs_forked_children() {
    static const bool works = child_process_runs(false);
    return works;
}

inline bool host_runs_threads() {
    static const bool works = host_runs_forked_children() && child_process_runs(true);
    return works;
}

#define RUVO_SKIP_UNLESS_FORK_WORKS()                                                         \
    do {                                                                                      \
        if (!video_present::host_runs_forked_children())                                      \
            GTEST_SKIP() << "forked children crash on this host (emulator with a mismatched " \
                            "C library); the death test cannot run";                          \
    } while (0)

// An opened video handle with an empty record and no printed lines.
class VideoHandleTest : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        unsetenv("TA_DTV_PRELOAD");
        hmx_standin_clear();
        hmx_standin_set_reply({});
        out_ = quarvel_video_output_open(false);
        ASSERT_NE(out_, nullptr);
        tv().clear_events();
        (void)lines();
    }

    void TearDown() override {
        if (out_ != nullptr)
            quarvel_video_output_close(out_);
        out_ = nullptr;
        unsetenv("TA_DTV_PRELOAD");
        PlatformTest::TearDown();
    }

    // The main video plane and what the handle attaches to it.
    uint32_t plane_id() const { return static_cast<uint32_t>(out_->m_plane_obj_id[DRM_SDP_PLANE_DP_MAIN]); }

    // The plane record SetPlane must send for `r` and a decoded picture of src_w x src_h.
    drm_mode_set_plane plane_record(const quarvel_video_output_rect_s& r, uint32_t src_w,
                                    uint32_t src_h) const {
        drm_mode_set_plane p;
        memset(&p, 0, sizeof(p));
        p.plane_id = plane_id();
        p.crtc_id = out_->m_crtc_id;
        p.fb_id = out_->m_drm_buffers[0].fb_handle;
        p.crtc_x = r.x;
        p.crtc_y = r.y;
        p.crtc_w = r.w;
        p.crtc_h = r.h;
        p.src_w = src_w << 16;
        p.src_h = src_h << 16;
        return p;
    }

    sdp_drm_onoff_param mute_record(bool mute) const {
        sdp_drm_onoff_param p;
        p.plane_id = plane_id();
        p.set_func = DRM_SDP_FUNC_MUTE_ONOFF;
        p.onoff_flag = mute ? 1 : 0;
        return p;
    }

    // The descriptor as the display source request must carry it.
    std::vector<uint8_t> source_record(const v4l2_drm& d) const {
        v4l2_drm copy = d;
        copy.plane = plane_id();
        return bytes_of(copy);
    }

    // Content known to the handle without any request (as after a first frame).
    void set_content(uint32_t w, uint32_t h, uint32_t aspect = V4L2_ASPECTRATIO_TYPE_900_1600) {
        v4l2_drm d = ruvo_test::make_frame(w, h, aspect);
        out_->m_frame_meta = CalculateFrameSizeFromV4L2(&d);
    }

    // The video shown in `r` for content w x h, record and lines emptied afterwards.
    void show(const quarvel_video_output_rect_s& r, uint32_t w = 1920, uint32_t h = 1080) {
        set_content(w, h);
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
        ASSERT_EQ(tv().count("DRM_IOCTL_SDP_SET_ONOFF"), 1u);
        tv().clear_events();
        (void)lines();
    }

    quarvel_video_output_s* out_ = nullptr;
};

}  // namespace video_present
