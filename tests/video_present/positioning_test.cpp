// Placement of the main video plane: the browser's rectangle, the plane request, and the
// mute that hides the video.
#include <signal.h>

#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

class Positioning : public VideoHandleTest {
  protected:
    std::string rect_line(const quarvel_video_output_rect_s& r) const {
        return vline("quarvel_video_output_set_rect",
                     "x(" + std::to_string(r.x) + ") y(" + std::to_string(r.y) + ") w(" +
                         std::to_string(r.w) + ") h(" + std::to_string(r.h) + ") dar_w(" +
                         std::to_string(r.dar_w) + ") dar_h(" + std::to_string(r.dar_h) + ")");
    }
    static std::string plane_done(int x, int y, int w, int h, int sw, int sh) {
        return vline("SetPlane", "Set plane done.crtc_x(" + std::to_string(x) + "),crtc_y(" +
                                     std::to_string(y) + "),crtc_w(" + std::to_string(w) + "),s.crtc_h(" +
                                     std::to_string(h) + "),src_w(" + std::to_string(sw) + "),src_h(" +
                                     std::to_string(sh) + ")");
    }
    void expect_applied(int32_t x, int32_t y, uint32_t w, uint32_t h, uint32_t dar_w, uint32_t dar_h) {
        const quarvel_video_output_rect_s want = rect(x, y, w, h, dar_w, dar_h);
        EXPECT_TRUE(same_rect(out_->m_rect_applied_to_driver, want))
            << "applied " << to_string(out_->m_rect_applied_to_driver) << ", want " << to_string(want);
    }
};

TEST_F(Positioning, a_rectangle_before_the_first_frame_is_only_stored) {
    const auto r = rect(100, 50, 1280, 720, 16, 9);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_TRUE(same_rect(out_->m_wanted_rect, r));
    expect_applied(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(r)}));
}

TEST_F(Positioning, first_placement_programs_the_plane_then_unmutes) {
    set_content(1920, 1080);
    const auto r = rect(100, 50, 1280, 720, 4, 3);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);

    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_MODE_SETPLANE");
    EXPECT_EQ(ev[0].request, 0xC03064B7ul);
    EXPECT_EQ(ev[0].fd, out_->m_drm_fd);
    EXPECT_EQ(ev[0].in, bytes_of(plane_record(r, 1920, 1080)));
    EXPECT_EQ(ev[0].in.size(), 48u);
    EXPECT_EQ(le32_at(ev[0].in, 0), 35u);  // plane
    EXPECT_EQ(le32_at(ev[0].in, 4), 42u);  // CRTC
    EXPECT_EQ(le32_at(ev[0].in, 8), out_->m_drm_buffers[0].fb_handle);
    EXPECT_NE(out_->m_drm_buffers[0].fb_handle, 0u);
    EXPECT_EQ(le32_at(ev[0].in, 40), 1080u << 16);  // the kernel keeps src_h first
    EXPECT_EQ(le32_at(ev[0].in, 44), 1920u << 16);
    EXPECT_EQ(ev[1].name, "DRM_IOCTL_SDP_SET_ONOFF");
    EXPECT_EQ(ev[1].in, bytes_of(mute_record(false)));

    // What was programmed carries the content's aspect, not the rectangle's own.
    expect_applied(100, 50, 1280, 720, 1920, 1080);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(r), plane_done(100, 50, 1280, 720, 1920, 1080),
                                                 vline("DRMSetUnmute", "unmute(1)")}));
}

TEST_F(Positioning, the_same_rectangle_twice_programs_the_plane_once) {
    show(rect(0, 0, 1920, 1080));
    const auto r = rect(0, 0, 1920, 1080);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(r)}));
}

TEST_F(Positioning, the_rectangle_own_aspect_does_not_count_as_a_change) {
    show(rect(0, 0, 1920, 1080));
    const auto r = rect(0, 0, 1920, 1080, 21, 9);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_EQ(tv().events().size(), 0u);
}

TEST_F(Positioning, moving_a_shown_video_programs_the_plane_without_unmuting) {
    show(rect(0, 0, 1920, 1080));
    const auto r = rect(-20, 30, 960, 540);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_MODE_SETPLANE");
    EXPECT_EQ(ev[0].in, bytes_of(plane_record(r, 1920, 1080)));
    EXPECT_EQ(static_cast<int32_t>(le32_at(ev[0].in, 16)), -20);
    expect_applied(-20, 30, 960, 540, 1920, 1080);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(r), plane_done(-20, 30, 960, 540, 1920, 1080)}));
}

TEST_F(Positioning, an_empty_rectangle_while_shown_mutes_and_leaves_the_plane_where_it_is) {
    show(rect(100, 50, 1280, 720));
    const auto hide = rect(100, 50, 0, 720);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_SDP_SET_ONOFF");
    EXPECT_EQ(ev[0].in, bytes_of(mute_record(true)));
    EXPECT_EQ(tv().drm().plane_state[35].crtc_w, 1280u);
    expect_applied(0, 0, 0, 0, 1920, 1080);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(hide), vline("DRMSetUnmute", "unmute(0)")}));

    // Shown again: plane, then unmute.
    tv().clear_events();
    const auto back = rect(10, 20, 640, 360);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &back), 0);
    ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].in, bytes_of(plane_record(back, 1920, 1080)));
    EXPECT_EQ(ev[1].in, bytes_of(mute_record(false)));
    expect_applied(10, 20, 640, 360, 1920, 1080);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(back), plane_done(10, 20, 640, 360, 1920, 1080),
                                                 vline("DRMSetUnmute", "unmute(1)")}));
}

TEST_F(Positioning, an_empty_rectangle_while_hidden_does_nothing) {
    show(rect(100, 50, 1280, 720));
    const auto hide = rect(0, 0, 0, 0);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), 0);
    tv().clear_events();
    const auto still_hidden = rect(5, 5, 1280, 0);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &still_hidden), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    expect_applied(0, 0, 0, 0, 1920, 1080);
}

TEST_F(Positioning, a_new_content_aspect_with_the_same_rectangle_reprograms_the_plane) {
    show(rect(0, 0, 1920, 1080));
    set_content(720, 576, V4L2_ASPECTRATIO_TYPE_300_400);
    EXPECT_EQ(ApplyPositioning(out_), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].in, bytes_of(plane_record(rect(0, 0, 1920, 1080), 720, 576)));
    expect_applied(0, 0, 1920, 1080, 11520, 8640);
    EXPECT_EQ(lines(), (std::vector<std::string>{plane_done(0, 0, 1920, 1080, 720, 576)}));
}

TEST_F(Positioning, a_new_content_size_of_the_same_aspect_is_not_a_change) {
    show(rect(0, 0, 1920, 1080));
    out_->m_frame_meta.w = 3840;  // same display terms, other size
    out_->m_frame_meta.h = 2160;
    EXPECT_EQ(ApplyPositioning(out_), 0);
    EXPECT_EQ(tv().events().size(), 0u);
}

TEST_F(Positioning, content_without_area_while_shown_mutes) {
    show(rect(0, 0, 1920, 1080));
    out_->m_frame_meta = quarvel_frame_meta_t{0, 0, 0, 0, 1, 1};
    EXPECT_EQ(ApplyPositioning(out_), 0);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DRM_IOCTL_SDP_SET_ONOFF"}));
    expect_applied(0, 0, 0, 0, 0, 0);
}

TEST_F(Positioning, failing_first_plane_request_returns_minus_1_and_the_same_rectangle_is_tried_again) {
    set_content(1920, 1080);
    const auto r = rect(100, 50, 1280, 720);
    tv().fail("DRM_IOCTL_MODE_SETPLANE", EBUSY);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), -1);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DRM_IOCTL_MODE_SETPLANE"}));
    expect_applied(0, 0, 0, 0, 0, 0);
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            rect_line(r), vline("SetPlane", "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: Device or resource busy"),
            vline("ApplyPositioning", "SetPlane failed")}));

    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
    expect_applied(100, 50, 1280, 720, 1920, 1080);
}

TEST_F(Positioning, failing_plane_request_while_shown_keeps_the_old_rectangle) {
    show(rect(0, 0, 1920, 1080));
    const auto r = rect(8, 8, 800, 600);
    tv().fail("DRM_IOCTL_MODE_SETPLANE", EINVAL);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), -1);
    expect_applied(0, 0, 1920, 1080, 1920, 1080);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  rect_line(r), vline("SetPlane", "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: Invalid argument"),
                  vline("ApplyPositioning", "SetPlane failed")}));
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    expect_applied(8, 8, 800, 600, 1920, 1080);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 2u);
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_ONOFF"), 0u);
}

TEST_F(Positioning, failing_unmute_after_the_first_placement_returns_minus_4_with_the_rectangle_recorded) {
    set_content(1920, 1080);
    const auto r = rect(100, 50, 1280, 720);
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EIO);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), -4);
    expect_applied(100, 50, 1280, 720, 1920, 1080);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
    // No message of the positioning itself.
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            rect_line(r), plane_done(100, 50, 1280, 720, 1920, 1080), vline("DRMSetUnmute", "unmute(1)"),
            vline("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [Input/output error]")}));
    // The record was written before the unmute: the same rectangle is not applied again,
    // a different one is programmed without an unmute.
    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    const auto moved = rect(0, 0, 640, 360);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &moved), 0);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DRM_IOCTL_MODE_SETPLANE"}));
}

TEST_F(Positioning, failing_mute_returns_minus_1_keeps_the_shown_rectangle_and_is_tried_again) {
    show(rect(100, 50, 1280, 720));
    const auto hide = rect(0, 0, 0, 0);
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EIO);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), -1);
    expect_applied(100, 50, 1280, 720, 1920, 1080);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  rect_line(hide), vline("DRMSetUnmute", "unmute(0)"),
                  vline("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [Input/output error]"),
                  vline("ApplyPositioning", "mute failed")}));
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), 0);
    expect_applied(0, 0, 0, 0, 1920, 1080);
    auto ev = tv().events("DRM_IOCTL_SDP_SET_ONOFF");
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[1].in, bytes_of(mute_record(true)));
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 0u);
}

TEST_F(Positioning, hiding_during_a_broadcast_switch_skips_the_mute_and_raises_the_switch_flag) {
    show(rect(100, 50, 1280, 720));
    setenv("TA_DTV_PRELOAD", "1", 1);
    const auto hide = rect(0, 0, 0, 0);
    EXPECT_FALSE(out_->m_ta_switch);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), 0);
    EXPECT_TRUE(out_->m_ta_switch);
    EXPECT_EQ(tv().events().size(), 0u);
    expect_applied(100, 50, 1280, 720, 1920, 1080);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(hide),
                                                 vline("ApplyPositioning", "skip mute for TA switch")}));
}

TEST_F(Positioning, the_switch_skip_line_is_info_level) {
    show(rect(100, 50, 1280, 720));
    setenv("TA_DTV_PRELOAD", "1", 1);
    g_ruvo_logmask = RUVO_LOG_ERR;
    const auto hide = rect(0, 0, 0, 0);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), 0);
    EXPECT_TRUE(out_->m_ta_switch);
    EXPECT_TRUE(lines().empty());
}

TEST_F(Positioning, a_switch_variable_other_than_1_does_not_stop_the_mute) {
    show(rect(100, 50, 1280, 720));
    setenv("TA_DTV_PRELOAD", "11", 1);
    const auto hide = rect(0, 0, 0, 0);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &hide), 0);
    EXPECT_FALSE(out_->m_ta_switch);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DRM_IOCTL_SDP_SET_ONOFF"}));
}

TEST_F(Positioning, null_handle_is_reported_after_the_entry_line) {
    const auto r = rect(1, 2, 3, 4, 5, 6);
    EXPECT_EQ(quarvel_video_output_set_rect(nullptr, &r), -9);
    EXPECT_EQ(ApplyPositioning(nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{rect_line(r),
                                                 vline("quarvel_video_output_set_rect", "output is null"),
                                                 vline("ApplyPositioning", "output is null")}));
}

TEST_F(Positioning, null_rectangle_is_reported_when_the_info_level_is_off) {
    g_ruvo_logmask = RUVO_LOG_ERR;
    EXPECT_EQ(quarvel_video_output_set_rect(out_, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("quarvel_video_output_set_rect", "rect is null")}));
}

using PositioningDeathTest = Positioning;

// With the info level on, the entry line reads the rectangle before it is checked.
TEST_F(PositioningDeathTest, null_rectangle_with_the_info_level_on_is_read_before_the_check) {
    RUVO_SKIP_UNLESS_FORK_WORKS();
    EXPECT_EXIT(quarvel_video_output_set_rect(out_, nullptr), ::testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(Positioning, set_plane_sends_the_crop_origin_in_16_16_and_answers_minus_3_on_failure) {
    auto r = rect(-1, -2, 300, 200);
    EXPECT_EQ(SetPlane(out_, &r, 1, 2, 720, 576), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    drm_mode_set_plane want = plane_record(r, 720, 576);
    want.src_x = 1u << 16;
    want.src_y = 2u << 16;
    EXPECT_EQ(ev[0].in, bytes_of(want));
    EXPECT_EQ(le32_at(ev[0].in, 32), 0x10000u);
    EXPECT_EQ(le32_at(ev[0].in, 36), 0x20000u);
    EXPECT_EQ(le32_at(ev[0].in, 40), 576u << 16);
    EXPECT_EQ(le32_at(ev[0].in, 44), 720u << 16);
    EXPECT_EQ(lines(), (std::vector<std::string>{plane_done(-1, -2, 300, 200, 720, 576)}));

    tv().fail("DRM_IOCTL_MODE_SETPLANE", ENOENT);
    EXPECT_EQ(SetPlane(out_, &r, 0, 0, 720, 576), -3);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(
                           "SetPlane", "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: No such file or directory")}));
    EXPECT_EQ(SetPlane(out_, &r, 0, 0, 720, 576), 0);
}

TEST_F(Positioning, plane_done_line_is_info_level) {
    g_ruvo_logmask = RUVO_LOG_ERR;
    auto r = rect(0, 0, 300, 200);
    EXPECT_EQ(SetPlane(out_, &r, 0, 0, 720, 576), 0);
    EXPECT_TRUE(lines().empty());
}

}  // namespace
