// The per-frame call on the main video plane.
#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

const char kPush[] = "quarvel_video_output_push_frame_to_display";

class FramePath : public VideoHandleTest {
  protected:
    // A stream started on the plane and shown in `r`.
    void start(const quarvel_video_output_rect_s& r = rect(0, 0, 1920, 1080)) {
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, first_.get()), 0);
        ASSERT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 1u);
        tv().clear_events();
        hmx_standin_clear();
        (void)lines();
    }
    TestFrame first_{1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5};
};

TEST_F(FramePath, a_steady_frame_is_one_source_request) {
    start();
    TestFrame f(1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    f.desc.u.dec_info.pFrame[0].display_index = 7;
    const v4l2_drm original = f.desc;
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_SDP_SET_DP_SOURCE");
    EXPECT_EQ(ev[0].in, source_record(original));
    EXPECT_EQ(f.desc.plane, plane_id());
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{1920, 1080, 1920, 1080, 1, 1}));
    EXPECT_TRUE(lines().empty());
}

TEST_F(FramePath, the_frame_id_is_traced_when_the_trace_level_is_on) {
    start();
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;
    TestFrame f(1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    f.desc.u.dec_info.pFrame[0].display_index = 7;
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kPush, "Render:frame id = 7")}));
}

TEST_F(FramePath, frames_without_a_first_frame_take_the_queue_hold_once) {
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                                        "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    auto q = tv().events("FR2IP_SetDispQueueSize");
    EXPECT_EQ(q[0].args[1], s32_cell(0));
    EXPECT_TRUE(out_->m_queue_size_set);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kPush, "Render:frame id = 1"),
                                                 vline("fr2ip_set_queue_size", "in, size = 0, count = 0"),
                                                 vline("fr2ip_do_set_queue_size", "in, size = 0"),
                                                 vline("SetDpSource", "Source Changed:pre(14) -> cur(1)"),
                                                 vline(kPush, "Render:frame id = 1")}));
}

TEST_F(FramePath, a_failing_queue_hold_does_not_stop_the_frame) {
    TestFrame f(1920, 1080);
    tv().fail("FR2IP_SetDispQueueSize", EIO);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("fr2ip_do_set_queue_size",
                                                       "ioctl(SetDispQueueSize) failed: Input/output error"),
                                                 vline("SetDpSource", "Source Changed:pre(14) -> cur(1)")}));
}

TEST_F(FramePath, a_rectangle_set_before_any_frame_is_placed_by_the_first_pushed_frame) {
    const auto r = rect(100, 50, 1280, 720);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    (void)lines();
    TestFrame f(720, 576, V4L2_ASPECTRATIO_TYPE_300_400);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                                        "DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
    EXPECT_EQ(tv().events("DRM_IOCTL_MODE_SETPLANE")[0].in, bytes_of(plane_record(r, 720, 576)));
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{720, 576, 11520, 8640, 16, 15}));
}

TEST_F(FramePath, a_frame_of_a_new_size_reprograms_the_plane) {
    start();
    TestFrame f(1280, 720, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_SDP_SET_DP_SOURCE");
    EXPECT_EQ(ev[1].name, "DRM_IOCTL_MODE_SETPLANE");
    EXPECT_EQ(ev[1].in, bytes_of(plane_record(rect(0, 0, 1920, 1080), 1280, 720)));
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{1280, 720, 1280, 720, 1, 1}));
    EXPECT_EQ(out_->m_rect_applied_to_driver.dar_w, 1280u);
}

TEST_F(FramePath, a_new_profile_goes_to_the_dolby_device_before_the_source) {
    start();
    TestFrame f(1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 8);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(out_->m_dv_profile, 8);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDVProfile", "dv_profile(8)")}));
}

TEST_F(FramePath, failing_dolby_request_returns_minus_2_and_the_next_frame_works) {
    start();
    TestFrame f(1280, 720, V4L2_ASPECTRATIO_TYPE_900_1600, 8);
    tv().fail("DOLBY_IOC_SET_DV_PROFILE", EIO);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -2);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE"}));
    EXPECT_EQ(out_->m_dv_profile, 5);
    EXPECT_EQ(out_->m_frame_meta.w, 1920u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(
                           "SetDVProfile", "ioctl(DOLBY_IOC_SET_DV_PROFILE) failed: Input/output error")}));
    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                                        "DRM_IOCTL_MODE_SETPLANE"}));
}

TEST_F(FramePath, failing_source_request_returns_minus_3_keeps_the_size_and_the_next_frame_works) {
    start();
    TestFrame f(1280, 720, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    tv().fail("DRM_IOCTL_SDP_SET_DP_SOURCE", EIO);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -3);
    EXPECT_EQ(out_->m_frame_meta.w, 1920u);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(
                           "SetDpSource", "ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: Input/output error")}));
    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_MODE_SETPLANE"}));
    EXPECT_EQ(out_->m_frame_meta.w, 1280u);
}

TEST_F(FramePath, failing_placement_returns_minus_4_with_the_new_size_and_the_next_frame_retries) {
    start();
    TestFrame f(1280, 720, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    tv().fail("DRM_IOCTL_MODE_SETPLANE", EBUSY);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -4);
    EXPECT_EQ(out_->m_frame_meta.w, 1280u);
    EXPECT_EQ(out_->m_rect_applied_to_driver.dar_w, 1920u);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("SetPlane", "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: Device or resource busy"),
                  vline("ApplyPositioning", "SetPlane failed")}));
    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_MODE_SETPLANE"}));
    EXPECT_EQ(out_->m_rect_applied_to_driver.dar_w, 1280u);
}

TEST_F(FramePath,
       failing_unmute_of_the_first_placement_returns_minus_4_and_the_next_frame_sends_only_its_source) {
    const auto r = rect(100, 50, 1280, 720);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    (void)lines();
    TestFrame f(1920, 1080);
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EIO);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), -4);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                                        "DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
    // The placement was recorded before the unmute.
    EXPECT_EQ(out_->m_rect_applied_to_driver.w, 1280u);
    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, f.get()), 0);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE"}));
}

TEST_F(FramePath, no_frame_while_shown_empties_the_content_and_mutes) {
    start();
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, nullptr), 0);
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{0, 0, 0, 0, 1, 1}));
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_SDP_SET_ONOFF");
    EXPECT_EQ(ev[0].in, bytes_of(mute_record(true)));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("DRMSetUnmute", "unmute(0)")}));
}

TEST_F(FramePath, no_frame_while_hidden_changes_only_the_content) {
    out_->m_frame_meta = quarvel_frame_meta_t{1920, 1080, 1920, 1080, 1, 1};
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, nullptr), 0);
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{0, 0, 0, 0, 1, 1}));
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_TRUE(lines().empty());
}

TEST_F(FramePath, no_frame_during_a_broadcast_switch_leaves_the_video_shown) {
    start();
    setenv("TA_DTV_PRELOAD", "1", 1);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, nullptr), 0);
    EXPECT_TRUE(out_->m_ta_switch);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("ApplyPositioning", "skip mute for TA switch")}));
}

TEST_F(FramePath, no_frame_with_a_failing_mute_returns_minus_1_and_the_next_one_mutes) {
    start();
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EIO);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, nullptr), -1);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("DRMSetUnmute", "unmute(0)"),
                  vline("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [Input/output error]"),
                  vline("ApplyPositioning", "mute failed")}));
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(out_, nullptr), 0);
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_ONOFF"), 2u);
    EXPECT_TRUE(tv().drm().muted[35]);
}

TEST_F(FramePath, null_handle) {
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(nullptr, f.get()), -9);
    EXPECT_EQ(quarvel_video_output_push_frame_to_display(nullptr, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline(kPush, "output is null"), vline(kPush, "output is null")}));
}

}  // namespace
