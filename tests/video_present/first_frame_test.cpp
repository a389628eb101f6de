// First frame of a stream on the main video plane (Dolby Vision profile, source, queue
// mode, placement, playback flag) and announced resolution changes.
#include <sys/mman.h>

#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

const char kInit[] = "quarvel_video_output_init_with_first_frame";
const char kNextRes[] = "quarvel_video_output_set_next_res";

class FirstFrame : public VideoHandleTest {
  protected:
    // The first announcement: the descriptor without a picture to show.
    std::vector<uint8_t> announce_record(const v4l2_drm& d) const {
        v4l2_drm copy = d;
        copy.u.dec_info.pFrame[0].display_index = 0xFFFFFFFFu;
        return source_record(copy);
    }
    std::vector<std::string> folded_lines() { return fold_flag_site(lines()); }
    // What a first frame prints up to the change of source (with the profile line when the
    // stream has a Dolby Vision profile), then `then`.
    static std::vector<std::string> source_lines(int dv_profile, std::vector<std::string> then = {}) {
        std::vector<std::string> out{vline(kInit, "in")};
        if (dv_profile != kNoProfile)
            out.push_back(vline("SetDVProfile", "dv_profile(" + std::to_string(dv_profile) + ")"));
        out.push_back(vline("SetDpSource", "Source Changed:pre(14) -> cur(1)"));
        return concat(out, then);
    }
    static constexpr int kNoProfile = -1;
    void expect_playback_flag_sent_once() {
        auto t = hmx_standin_transactions();
        ASSERT_EQ(t.size(), 1u);
        EXPECT_EQ(t[0].service, "COM.QVL.HMX.PQMGR");
        EXPECT_EQ(t[0].client_flags, 0);
        EXPECT_EQ(t[0].code, 7u);
        EXPECT_EQ(t[0].words, (std::vector<int32_t>{0x1000000, 7, 1}));
        EXPECT_EQ(t[0].flags, 0u);
    }
};

TEST_F(FirstFrame, sets_profile_announces_the_format_takes_the_queue_and_hands_over_the_frame) {
    TestFrame f(1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5);
    const v4l2_drm original = f.desc;
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);

    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 4u);
    EXPECT_EQ(ev[0].name, "DOLBY_IOC_SET_DV_PROFILE");
    EXPECT_EQ(ev[0].request, 0xD01B6010ul);
    EXPECT_EQ(ev[0].fd, out_->m_dolby_fd);
    EXPECT_EQ(ev[0].in, s32_cell(5));
    EXPECT_EQ(ev[1].name, "DRM_IOCTL_SDP_SET_DP_SOURCE");
    EXPECT_EQ(ev[1].in, announce_record(original));
    EXPECT_EQ(ev[1].field("display_index"), 0xFFFFFFFFll);
    EXPECT_EQ(ev[2].name, "FR2IP_SetDispQueueSize");
    EXPECT_EQ(ev[2].fd, out_->m_valio_fd);
    EXPECT_EQ(ev[2].args[0], u8_cell(0));
    EXPECT_EQ(ev[2].args[1], s32_cell(0));
    EXPECT_EQ(ev[2].args[7], s32_cell(0));
    EXPECT_EQ(ev[3].name, "DRM_IOCTL_SDP_SET_DP_SOURCE");
    EXPECT_EQ(ev[3].in, source_record(original));
    EXPECT_EQ(ev[3].field("display_index"), 1);

    // The caller's descriptor gets the plane, but keeps its picture index.
    EXPECT_EQ(f.desc.plane, plane_id());
    EXPECT_EQ(f.desc.u.dec_info.pFrame[0].display_index, 1u);

    EXPECT_TRUE(out_->m_first_frame_initialized);
    EXPECT_TRUE(out_->m_queue_size_set);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_EQ(out_->m_dv_profile, 5);
    EXPECT_TRUE(same_size(out_->m_frame_meta, quarvel_frame_size_s{1920, 1080, 1920, 1080, 1, 1}));
    // No rectangle yet: nothing to place.
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 0u);
    expect_playback_flag_sent_once();
    EXPECT_EQ(folded_lines(), concat(source_lines(5), playback_flag_lines()));
}

TEST_F(FirstFrame, places_the_plane_when_the_browser_set_a_rectangle_before) {
    const auto r = rect(100, 50, 1280, 720);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    (void)lines();
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "FR2IP_SetDispQueueSize",
                                        "DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_MODE_SETPLANE",
                                        "DRM_IOCTL_SDP_SET_ONOFF"}));
    auto planes = tv().events("DRM_IOCTL_MODE_SETPLANE");
    EXPECT_EQ(planes[0].in, bytes_of(plane_record(r, 1920, 1080)));
    EXPECT_EQ(fold_flag_site(lines()),
              concat(source_lines(kNoProfile, {vline("SetPlane",
                                                     "Set plane "
                                                     "done.crtc_x(100),crtc_y(50),crtc_w(1280),s.crtc_h(720),"
                                                     "src_w(1920),src_h(1080)"),
                                               vline("DRMSetUnmute", "unmute(1)")}),
                     playback_flag_lines()));
    expect_playback_flag_sent_once();
}

TEST_F(FirstFrame, without_a_rectangle_the_plane_is_placed_by_a_later_rectangle) {
    TestFrame f(1920, 1080);
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 0u);
    tv().clear_events();
    const auto r = rect(0, 0, 960, 540);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].in, bytes_of(plane_record(r, 1920, 1080)));
    EXPECT_EQ(ev[1].in, bytes_of(mute_record(false)));
}

TEST_F(FirstFrame, a_second_call_does_nothing) {
    TestFrame f(1920, 1080, 3, 5);
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    tv().clear_events();
    hmx_standin_clear();
    (void)lines();
    TestFrame g(720, 576, 2, 8);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, g.get()), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_TRUE(hmx_standin_transactions().empty());
    EXPECT_EQ(out_->m_frame_meta.w, 1920u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kInit, "in")}));
}

TEST_F(FirstFrame, a_stream_without_dolby_vision_makes_no_dolby_request) {
    TestFrame f(1920, 1080, 3, -1);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(tv().count("DOLBY_IOC_SET_DV_PROFILE"), 0u);
    EXPECT_EQ(out_->m_dv_profile, -1);
}

TEST_F(FirstFrame, the_same_profile_twice_makes_one_dolby_request) {
    EXPECT_EQ(SetDVProfile(out_, 4), 0);
    EXPECT_EQ(SetDVProfile(out_, 4), 0);
    EXPECT_EQ(tv().count("DOLBY_IOC_SET_DV_PROFILE"), 1u);
    EXPECT_EQ(SetDVProfile(out_, 7), 0);
    EXPECT_EQ(tv().count("DOLBY_IOC_SET_DV_PROFILE"), 2u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDVProfile", "dv_profile(4)"),
                                                 vline("SetDVProfile", "dv_profile(7)")}));
}

TEST_F(FirstFrame, the_profile_the_dolby_driver_answers_is_kept) {
    tv().dolby().rewrite = true;
    tv().dolby().rewrite_to = 8;
    EXPECT_EQ(SetDVProfile(out_, 5), 0);
    EXPECT_EQ(out_->m_dv_profile, 8);
    auto ev = tv().events("DOLBY_IOC_SET_DV_PROFILE");
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].in, s32_cell(5));
    EXPECT_EQ(ev[0].out, s32_cell(8));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDVProfile", "dv_profile(8)")}));
}

TEST_F(FirstFrame, profile_nothing_to_do_without_a_dolby_device_or_a_handle) {
    const int dolby = out_->m_dolby_fd;
    out_->m_dolby_fd = -1;
    EXPECT_EQ(SetDVProfile(out_, 5), 0);
    out_->m_dolby_fd = dolby;
    EXPECT_EQ(SetDVProfile(nullptr, 5), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(out_->m_dv_profile, -1);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDVProfile", "output is null")}));
}

TEST_F(FirstFrame, failing_dolby_request_returns_minus_1_and_the_next_call_runs_the_whole_sequence) {
    TestFrame f(1920, 1080, 3, 5);
    tv().fail("DOLBY_IOC_SET_DV_PROFILE", EIO);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -1);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE"}));
    EXPECT_EQ(out_->m_dv_profile, -1);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_TRUE(hmx_standin_transactions().empty());
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline(kInit, "in"),
                  vline("SetDVProfile", "ioctl(DOLBY_IOC_SET_DV_PROFILE) failed: Input/output error")}));

    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                                        "FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(out_->m_dv_profile, 5);
    expect_playback_flag_sent_once();
}

TEST_F(FirstFrame, failing_first_source_returns_minus_2_keeps_the_profile_and_the_next_call_works) {
    TestFrame f(1920, 1080, 3, 5);
    tv().fail("DRM_IOCTL_SDP_SET_DP_SOURCE", EIO);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -2);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(out_->m_dv_profile, 5);
    EXPECT_FALSE(out_->m_queue_size_set);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_EQ(lines(),
              source_lines(5, {vline("SetDpSource",
                                     "ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: Input/output error")}));

    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "FR2IP_SetDispQueueSize",
                                        "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(fold_flag_site(lines()),
              concat(std::vector<std::string>{vline(kInit, "in")}, playback_flag_lines()));
}

TEST_F(FirstFrame, failing_queue_request_returns_minus_3_and_the_next_call_does_not_ask_again) {
    TestFrame f(1920, 1080);
    tv().fail("FR2IP_SetDispQueueSize", EIO);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -3);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "FR2IP_SetDispQueueSize"}));
    EXPECT_TRUE(out_->m_queue_size_set);  // raised before asking
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_EQ(lines(),
              source_lines(kNoProfile, {vline("fr2ip_do_set_queue_size",
                                              "ioctl(SetDispQueueSize) failed: Input/output error")}));

    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_TRUE(out_->m_first_frame_initialized);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
}

TEST_F(FirstFrame, queue_driver_status_5_returns_minus_3) {
    TestFrame f(1920, 1080);
    tv().fail_status("FR2IP_SetDispQueueSize", 5);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -3);
    auto q = tv().events("FR2IP_SetDispQueueSize");
    ASSERT_EQ(q.size(), 1u);
    EXPECT_EQ(q[0].result, 0);
    EXPECT_EQ(q[0].field("status"), 5);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(lines(), source_lines(kNoProfile, {vline("fr2ip_do_set_queue_size",
                                                       "EN_VPLT_IOC_FR2IP_SetDispQueueSize : ret = 5")}));
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
}

TEST_F(FirstFrame, failing_second_source_returns_minus_4_and_the_next_call_works) {
    TestFrame f(1920, 1080, 3, 5);
    // Fail exactly the second source request of the sequence.
    int seen = 0;
    tv().set_listener([&](const emutv::Event& e) {
        if (e.name == "DRM_IOCTL_SDP_SET_DP_SOURCE" && ++seen == 1)
            tv().fail("DRM_IOCTL_SDP_SET_DP_SOURCE", EIO);
    });
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -4);
    tv().set_listener(nullptr);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DOLBY_IOC_SET_DV_PROFILE", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                                        "FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(tv().events().back().result, -1);
    EXPECT_TRUE(out_->m_queue_size_set);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_TRUE(hmx_standin_transactions().empty());
    EXPECT_EQ(lines(),
              source_lines(5, {vline("SetDpSource",
                                     "ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: Input/output error")}));

    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    expect_playback_flag_sent_once();
}

TEST_F(FirstFrame, failing_placement_returns_minus_5_but_the_stream_counts_as_started) {
    const auto r = rect(0, 0, 1920, 1080);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    (void)lines();
    TestFrame f(1920, 1080);
    tv().fail("DRM_IOCTL_MODE_SETPLANE", EBUSY);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -5);
    EXPECT_TRUE(out_->m_first_frame_initialized);
    EXPECT_TRUE(hmx_standin_transactions().empty());  // the flag is not raised
    EXPECT_EQ(lines(), source_lines(kNoProfile, {vline("SetPlane",
                                                       "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: "
                                                       "Device or resource busy"),
                                                 vline("ApplyPositioning", "SetPlane failed")}));

    // The first frame is not run again; the next placement retries the plane.
    tv().clear_events();
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
}

TEST_F(FirstFrame, failing_unmute_of_the_first_placement_returns_minus_5) {
    const auto r = rect(0, 0, 1920, 1080);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    TestFrame f(1920, 1080);
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EIO);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), -5);
    EXPECT_TRUE(out_->m_first_frame_initialized);
    EXPECT_TRUE(hmx_standin_transactions().empty());
}

TEST_F(FirstFrame, null_arguments) {
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(nullptr, f.get()), -9);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kInit, "in"), vline(kInit, "output is null"),
                                                 vline(kInit, "in"), vline(kInit, "qvl_frame is null")}));
}

TEST_F(FirstFrame, one_picture_quality_client_serves_every_handle) {
    TestFrame f(1920, 1080);
    const int before = hmx_standin_clients_constructed();
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    quarvel_video_output_s* second = quarvel_video_output_open(false);
    ASSERT_NE(second, nullptr);
    TestFrame g(1280, 720);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(second, g.get()), 0);
    quarvel_video_output_close(second);
    EXPECT_EQ(hmx_standin_clients_constructed(), before + 1);
    EXPECT_EQ(hmx_standin_transactions().size(), 2u);
}

TEST_F(FirstFrame, a_reply_of_the_picture_quality_service_is_read_and_dropped) {
    hmx_standin_set_reply({42});
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    expect_playback_flag_sent_once();
    EXPECT_EQ(fold_flag_site(lines()), concat(source_lines(kNoProfile), playback_flag_lines()));
}

TEST_F(FirstFrame, the_playback_flag_line_names_the_routine_twice_with_one_call_site) {
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    const std::string raw = capture_.stop_raw();
    capture_.start();
    std::smatch m;
    ASSERT_TRUE(std::regex_search(
        raw, m,
        std::regex(
            R"(\[qvl_disp_corvi\] qvl_set_playback_flag\((\d+)\) qvl_set_playback_flag\((\d+)\)\n\nHMX:set corvi playback flag\n$)")))
        << raw;
    EXPECT_EQ(m[1].str(), m[2].str());
}

TEST_F(FirstFrame, the_playback_flag_print_ignores_the_debug_mask) {
    g_ruvo_logmask = RUVO_LOG_INFO;  // no error level
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, f.get()), 0);
    EXPECT_EQ(lines(), source_lines(kNoProfile, {"HMX:set corvi playback flag"}));
    expect_playback_flag_sent_once();
}

// ---- Resolution changes ---------------------------------------------------------------------

class NextResolution : public FirstFrame {
  protected:
    void start(uint32_t w = 1920, uint32_t h = 1080) {
        first_ = std::make_unique<TestFrame>(w, h);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, first_->get()), 0);
        tv().clear_events();
        (void)lines();
    }
    static std::string announce_line(int w, int h) {
        return vline(kNextRes,
                     "New Reslution:width = " + std::to_string(w) + ", height = " + std::to_string(h));
    }
    // The record the driver must receive for `f` shown in `disp`.
    static next_resolution next_record(const TestFrame& f, const quarvel_video_output_rect_s& disp) {
        next_resolution n;
        memset(&n, 0, sizeof(n));
        // The address of the caller's descriptor, widened as a signed 32-bit value on
        // the 32-bit target.
        const uint64_t address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(f.get()->v4l2_frame));
        n.decoder_info =
            (sizeof(void*) == 4 && (address & 0x80000000u)) ? (address | 0xFFFFFFFF00000000ull) : address;
        n.crop_w = static_cast<uint16_t>(f.desc.u.dec_info.hres);
        n.crop_h = static_cast<uint16_t>(f.desc.u.dec_info.vres);
        n.disp_x = static_cast<uint16_t>(disp.x);
        n.disp_y = static_cast<uint16_t>(disp.y);
        n.disp_w = static_cast<uint16_t>(disp.w);
        n.disp_h = static_cast<uint16_t>(disp.h);
        return n;
    }
    std::unique_ptr<TestFrame> first_;
};

TEST_F(NextResolution, the_size_already_shown_sends_nothing) {
    start();
    TestFrame f(1920, 1080, V4L2_ASPECTRATIO_TYPE_300_400);  // other aspect, same size
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kNextRes, "in"), announce_line(1920, 1080)}));
}

TEST_F(NextResolution, a_new_size_without_a_rectangle_carries_a_zero_display_rectangle) {
    start();
    TestFrame f(1280, 720);
    const quarvel_frame_size_s meta_before = out_->m_frame_meta;
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "FR2IP_SetNextResolution");
    EXPECT_EQ(ev[0].request, 0xC0245604ul);
    EXPECT_EQ(ev[0].fd, out_->m_valio_fd);
    EXPECT_EQ(ev[0].field("cmd"), 1546);
    ASSERT_EQ(ev[0].args.size(), 8u);
    EXPECT_EQ(ev[0].args[0], u8_cell(0));
    EXPECT_EQ(ev[0].args[1], bytes_of(next_record(f, rect(0, 0, 0, 0))));
    EXPECT_EQ(ev[0].args[1].size(), 24u);
    EXPECT_EQ(ev[0].args[2], bytes_of(f.desc));  // a copy of the descriptor
    EXPECT_EQ(ev[0].args[7], s32_cell(0));
    EXPECT_EQ(ev[0].field("crop_w"), 1280);
    EXPECT_EQ(ev[0].field("disp_w"), 0);
    // The frame path updates the size when the frames arrive.
    EXPECT_TRUE(same_size(out_->m_frame_meta, meta_before));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kNextRes, "in"), announce_line(1280, 720)}));
}

TEST_F(NextResolution, a_new_size_goes_to_the_browser_rectangle) {
    start();
    const auto r = rect(-3, 40, 1280, 720, 16, 9);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    tv().clear_events();
    (void)lines();
    TestFrame f(3840, 2160);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].args[1], bytes_of(next_record(f, r)));
    EXPECT_EQ(ev[0].field("disp_x"), 0xFFFD);  // -3 in 16 bits
    EXPECT_EQ(ev[0].field("disp_y"), 40);
    EXPECT_EQ(ev[0].field("disp_w"), 1280);
    EXPECT_EQ(ev[0].field("disp_h"), 720);
    EXPECT_EQ(ev[0].field("crop_w"), 3840);
    EXPECT_EQ(ev[0].field("crop_h"), 2160);
}

TEST_F(NextResolution, a_new_size_without_area_carries_a_zero_display_rectangle) {
    start();
    const auto r = rect(0, 0, 1920, 1080);
    ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    tv().clear_events();
    TestFrame f(1920, 0);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].args[1], bytes_of(next_record(f, rect(0, 0, 0, 0))));
}

TEST_F(NextResolution, a_width_of_70000_is_sent_as_4464) {
    start();
    TestFrame f(70000, 2);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].field("crop_w"), 4464);
    EXPECT_EQ(ev[0].field("crop_h"), 2);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kNextRes, "in"), announce_line(70000, 2)}));
}

TEST_F(NextResolution, the_descriptor_address_is_sign_extended_from_32_bits) {
    start();
    // A descriptor above 2 GiB: on the 32-bit target its address has the top bit set.
    void* hint = reinterpret_cast<void*>(static_cast<uintptr_t>(0x90000000u));
    void* mem = mmap(hint, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mem, MAP_FAILED);
    const uintptr_t address = reinterpret_cast<uintptr_t>(mem);
    if (sizeof(void*) == 4 && (address & 0x80000000u) == 0) {
        munmap(mem, 4096);
        GTEST_SKIP() << "no mapping above 2 GiB available";
    }
    v4l2_drm* desc = new (mem) v4l2_drm(ruvo_test::make_frame(1280, 720));
    quarvel_video_output_frame_s frame;
    memset(&frame, 0, sizeof(frame));
    frame.v4l2_frame = desc;
    frame.dv_profile = -1;
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, &frame), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    const uint64_t sent = static_cast<uint64_t>(ev[0].field("decoder_info"));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sent, 0xFFFFFFFF00000000ull | address);
    } else {
        EXPECT_EQ(sent, static_cast<uint64_t>(address));
    }
    munmap(mem, 4096);
}

TEST_F(NextResolution, failing_request_returns_minus_1_leaves_the_handle_and_the_next_call_works) {
    start();
    TestFrame f(1280, 720);
    tv().fail("FR2IP_SetNextResolution", EIO);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), -1);
    EXPECT_EQ(out_->m_frame_meta.w, 1920u);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           vline(kNextRes, "in"), announce_line(1280, 720),
                           vline(kNextRes, "ioctl(SetNextResolution) failed: Input/output error")}));
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    EXPECT_EQ(tv().count("FR2IP_SetNextResolution"), 2u);
}

TEST_F(NextResolution, the_driver_status_is_not_read) {
    start();
    TestFrame f(1280, 720);
    tv().fail_status("FR2IP_SetNextResolution", 5);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].field("status"), 5);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kNextRes, "in"), announce_line(1280, 720)}));
}

TEST_F(NextResolution, before_the_first_frame_every_size_is_new) {
    TestFrame f(1920, 1080);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, f.get()), 0);
    EXPECT_EQ(tv().count("FR2IP_SetNextResolution"), 1u);
}

TEST_F(NextResolution, null_arguments) {
    TestFrame f(1280, 720);
    EXPECT_EQ(quarvel_video_output_set_next_res(nullptr, f.get()), -9);
    EXPECT_EQ(quarvel_video_output_set_next_res(out_, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline(kNextRes, "in"), vline(kNextRes, "output is null"),
                                        vline(kNextRes, "in"), vline(kNextRes, "qvl_frame is null")}));
}

}  // namespace
