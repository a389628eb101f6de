// Fault matrix of the video output: open, close, first frame, per frame, positioning,
// resolution change and timing, each driver request failed in turn.
#include "fault_matrix.h"
#include "ruvo_internal_video.h"

using namespace faults;

namespace {

using Names = std::vector<std::string>;

const std::string kSource = "DRM_IOCTL_SDP_SET_DP_SOURCE";
const std::string kOnOff = "DRM_IOCTL_SDP_SET_ONOFF";
const std::string kPlane = "DRM_IOCTL_MODE_SETPLANE";
const std::string kDolby = "DOLBY_IOC_SET_DV_PROFILE";
const std::string kQueue = "FR2IP_SetDispQueueSize";

// With no board HAL, every open and every close of a handle asks for it once.
const std::string kNoHal = v("get_drm_fd_from_korb", "handle is NULL");

const std::string kSourceFailed = v("SetDpSource", "ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: %E");
const std::string kPlaneFailed = v("SetPlane", "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: %E");
const std::string kSetPlaneFailed = v("ApplyPositioning", "SetPlane failed");
const std::string kOnOffFailed = v("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [%E]");
const std::string kDolbyFailed = v("SetDVProfile", "ioctl(DOLBY_IOC_SET_DV_PROFILE) failed: %E");
const std::string kQueueFailed = v("fr2ip_do_set_queue_size", "ioctl(SetDispQueueSize) failed: %E");
const std::string kQueueStatus =
    v("fr2ip_do_set_queue_size", "EN_VPLT_IOC_FR2IP_SetDispQueueSize : ret = %S");

bool same_rect(const quarvel_video_output_rect_s& a, const quarvel_video_output_rect_s& b) {
    return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h;
}

class VideoFaults : public FaultMatrix {
  protected:
    void TearDown() override {
        close_handle();
        FaultMatrix::TearDown();
    }

    void open_handle() {
        out_ = quarvel_video_output_open(false);
        ASSERT_NE(out_, nullptr);
    }
    void close_handle() {
        if (out_ != nullptr)
            quarvel_video_output_close(out_);
        out_ = nullptr;
    }
    // A handle showing a 1920x1080 stream full screen.
    void shown() {
        open_handle();
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &full_), 0);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, hd_.get()), 0);
    }
    // The next call and the requests it must send.
    void expect_next(int result, int expected, const Names& requests) {
        EXPECT_EQ(result, expected) << "next call";
        EXPECT_EQ(requests_since_mark(), requests) << "next call";
    }

    // After a faulted close: a new handle opens and takes the zero-queue hold again.
    void plays_again() {
        quarvel_video_output_s* h = quarvel_video_output_open(false);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(quarvel_video_output_init_with_first_frame(h, hd_.get()), 0);
        const auto events = emutv::platform().events();
        int holds = 0;
        for (size_t i = mark_; i < events.size(); ++i) {
            if (events[i].name == kQueue) {
                EXPECT_EQ(events[i].field("queue_size"), 0) << "next call";
                holds++;
            }
        }
        EXPECT_EQ(holds, 1) << "next call";
        quarvel_video_output_close(h);
        EXPECT_EQ(lines_now(), cat(Names{kNoHal}, playback_flag_lines(), Names{kNoHal})) << "next call";
    }

    Sequence open_sequence(bool hal);

    quarvel_video_output_s* out_ = nullptr;
    const quarvel_video_output_rect_s full_{0, 0, 1920, 1080, 0, 0};
    const quarvel_video_output_rect_s window_{100, 50, 960, 540, 0, 0};
    const quarvel_video_output_rect_s hidden_{0, 0, 0, 1080, 0, 0};
    Frame hd_{1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, -1};
    Frame hd_dv5_{1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5};
    Frame anamorphic_dv8_{1440, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 8};
    Frame hd720_{1280, 720, V4L2_ASPECTRATIO_TYPE_900_1600, -1};
};

// The open sequence. `hal`: the board HAL has handed out its DRM descriptor earlier in the
// process; then open neither asks again nor opens "/dev/dri/card0", and nothing closes the
// HAL's descriptor.
Sequence VideoFaults::open_sequence(bool hal) {
    const std::string O = "quarvel_video_output_open";
    // Planes of the emulated display in the driver's order, with their "plane_type".
    static const int kPlaneIds[] = {31, 32, 35, 36};
    static const int kPlaneTypes[] = {DRM_SDP_PLANE_OSDP, DRM_SDP_PLANE_GP, DRM_SDP_PLANE_DP_MAIN,
                                      DRM_SDP_PLANE_DP_SUB};
    // What asking the HAL prints (nothing once it has given its descriptor).
    const Names korb = hal ? Names{} : Names{kNoHal};

    Sequence s;
    s.name = hal ? "video open, HAL descriptor" : "video open";
    s.setup = [this, hal] {
        if (hal)
            tv().set_hal(emutv::HalMode::Working);
    };
    s.call = [this] {
        out_ = quarvel_video_output_open(false);
        return out_ != nullptr ? 0 : -1;
    };
    s.teardown = [this] {
        close_handle();
        (void)lines_now();
    };
    s.success.lines = korb;
    s.success.check = [this] { EXPECT_EQ(out_->m_crtc_id, 42u); };

    // A degraded handle still plays: a first frame without a rectangle places nothing.
    auto plays = [this] {
        EXPECT_EQ(quarvel_video_output_init_with_first_frame(out_, hd_.get()), 0) << "next call";
        EXPECT_EQ(lines_now(), playback_flag_lines()) << "next call";
    };
    // Lines of an open that fails after the DRM descriptor was obtained: the release asks
    // the HAL again.
    auto failed = [korb](const std::string& line) {
        return cat(korb, line.empty() ? Names{} : Names{line}, korb);
    };

    s.expect = [=](const Step& st, const Injection& f) -> Outcome {
        Outcome o;
        if (retried_by_libdrm(st, f)) {
            // libdrm sends the request again and open goes on as without the fault.
            o.lines = korb;
            o.check = [this, st] {
                EXPECT_EQ(count(st.key), reference_counts_[st.key] + 1);
                ASSERT_NE(out_, nullptr);
                EXPECT_EQ(out_->m_crtc_id, 42u);
            };
            o.next_call = plays;
            return o;
        }
        o.result = -1;
        if (st.key == "open:/dev/qvl/qvkvplt") {
            o.lines = {v(O, "Failed valio init")};
        } else if (st.key == "open:/dev/kdolby") {
            o.lines = {v(O, "Failed dolby init")};
        } else if (st.key == "open:/dev/dri/card0" && !hal) {
            o.lines = {kNoHal, v(O, "Render drm open device Fail: %E")};
        } else if (st.key == "DRM_IOCTL_MODE_GETRESOURCES") {
            o.lines = failed(v("DRMKMSInit", "Cannot retrieve DRM resources"));
        } else if (st.key == "DRM_IOCTL_MODE_GETCONNECTOR") {
            // A connector that cannot be fetched is skipped: no CRTC, open goes on.
            o.result = 0;
            o.lines = cat(korb, Names{v("DRMKMSInit", "cannot retrieve DRM connector 0:40")});
            o.check = [this] {
                ASSERT_NE(out_, nullptr);
                EXPECT_EQ(out_->m_crtc_id, 0u);
                EXPECT_EQ(out_->m_con_id, 0u);
            };
            o.next_call = plays;
        } else if (st.key == "DRM_IOCTL_MODE_GETENCODER") {
            // The current encoder is lost; the connector's encoder list gives the CRTC.
            o.result = 0;
            o.lines = korb;
            o.check = [this] {
                ASSERT_NE(out_, nullptr);
                EXPECT_EQ(out_->m_crtc_id, 42u);
                EXPECT_EQ(count("DRM_IOCTL_MODE_GETENCODER"), 2u);
            };
            o.next_call = plays;
        } else if (st.key == "DRM_IOCTL_MODE_CREATE_DUMB") {
            o.lines = failed(v("CreateDRMDummyBuffer", "ioctl(DRM_IOCTL_MODE_CREATE_DUMB) failed: %E"));
        } else if (st.key == "DRM_IOCTL_MODE_ADDFB2") {
            o.lines = failed(v("CreateDRMDummyBuffer", "drmModeAddFB2 failed"));
        } else if (st.key == "DRM_IOCTL_MODE_GETPLANERESOURCES") {
            o.lines = failed(v("DRMFindPlane", "drmModeGetPlaneResources failed"));
        } else if (st.key == "DRM_IOCTL_MODE_GETPLANE") {
            o.lines = failed(v("DRMFindPlane", "drmModeGetPlane failed"));
        } else if (st.key == "DRM_IOCTL_MODE_OBJ_GETPROPERTIES") {
            // The plane whose properties cannot be read is skipped; its entry stays 0.
            const int skipped = (st.occurrence - 1) / 2;
            o.result = 0;
            o.lines = korb;
            o.check = [this, skipped] {
                ASSERT_NE(out_, nullptr);
                for (int i = 0; i < 4; ++i)
                    EXPECT_EQ(out_->m_plane_obj_id[kPlaneTypes[i]], i == skipped ? 0 : kPlaneIds[i])
                        << "plane " << i;
            };
            o.next_call = plays;
        } else if (st.key == "DRM_IOCTL_MODE_GETPROPERTY") {
            // A property that cannot be read fails open without a message of its own.
            o.lines = failed("");
        } else {
            return unknown();
        }
        return o;
    };
    return s;
}

TEST_F(VideoFaults, open_returns_null_or_a_degraded_handle_for_each_failing_request) {
    Sequence s = open_sequence(false);
    run(s);
}

TEST_F(VideoFaults, open_on_the_board_hal_descriptor_never_closes_it_whatever_request_fails) {
    // The HAL hands out its descriptor once; the library keeps it for the process.
    tv().set_hal(emutv::HalMode::Working);
    out_ = quarvel_video_output_open(false);
    ASSERT_NE(out_, nullptr);
    const int hal_fd = out_->m_drm_fd;
    close_handle();
    (void)lines_now();
    Sequence s = open_sequence(true);
    run(s);
    // Still the HAL's, still open.
    out_ = quarvel_video_output_open(false);
    ASSERT_NE(out_, nullptr);
    EXPECT_EQ(out_->m_drm_fd, hal_fd);
}

TEST_F(VideoFaults, close_logs_each_failing_release_and_goes_on) {
    const std::string C = "quarvel_video_output_close";
    Sequence s;
    s.name = "video close";
    s.setup = [this] { shown(); };
    s.call = [this] {
        quarvel_video_output_close(out_);
        out_ = nullptr;
        return 0;
    };
    s.teardown = [this] { close_handle(); };
    s.success.lines = {kNoHal};
    s.expect = [&, this](const Step& st, const Injection& f) -> Outcome {
        Outcome o;
        o.next_call = [this] { plays_again(); };
        if (st.key == "DRM_IOCTL_MODE_RMFB") {
            o.lines = {v(C, "ioctl(DRM_IOCTL_MODE_RMFB) failed: %E"), kNoHal};
        } else if (st.key == "DRM_IOCTL_MODE_DESTROY_DUMB") {
            o.lines = {v(C, "ioctl(DRM_IOCTL_MODE_DESTROY_DUMB) failed: %E"), kNoHal};
        } else if (st.key == kQueue) {
            // The release is counted whatever the driver says.
            o.lines = {f.status ? kQueueStatus : kQueueFailed, kNoHal};
        } else if (st.kind == Kind::Close) {
            o.lines = {kNoHal};
        } else {
            return unknown();
        }
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, first_frame_returns_the_code_of_the_failing_step_and_can_be_retried) {
    Sequence s;
    s.name = "first frame";
    s.setup = [this] {
        open_handle();
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &full_), 0);
    };
    s.call = [this] { return quarvel_video_output_init_with_first_frame(out_, hd_dv5_.get()); };
    s.teardown = [this] { close_handle(); };
    s.success.lines = playback_flag_lines();
    s.expect = [&, this](const Step& st, const Injection& f) -> Outcome {
        Outcome o;
        auto retried = [this](const Names& requests) {
            return [this, requests] {
                expect_next(quarvel_video_output_init_with_first_frame(out_, hd_dv5_.get()), 0, requests);
                EXPECT_EQ(lines_now(), playback_flag_lines()) << "next call";
            };
        };
        if (st.key == kDolby) {
            o.result = -1;
            o.lines = {kDolbyFailed};
            o.check = [this] {
                EXPECT_EQ(out_->m_dv_profile, -1);
                EXPECT_FALSE(out_->m_first_frame_initialized);
            };
            o.next_call = retried({kDolby, kSource, kQueue, kSource, kPlane, kOnOff});
        } else if (st.key == kSource && st.occurrence == 1) {
            o.result = -2;
            o.lines = {kSourceFailed};
            o.next_call = retried({kSource, kQueue, kSource, kPlane, kOnOff});
        } else if (st.key == kQueue) {
            // The hold is asked for once per handle: the retry does not ask again, and the
            // release at close takes the count below 0.
            o.result = -3;
            o.lines = {f.status ? kQueueStatus : kQueueFailed};
            o.queue_count_after = -1;
            o.check = [this] {
                EXPECT_TRUE(out_->m_queue_size_set);
                EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
            };
            o.next_call = retried({kSource, kSource, kPlane, kOnOff});
        } else if (st.key == kSource && st.occurrence == 2) {
            o.result = -4;
            o.lines = {kSourceFailed};
            o.next_call = retried({kSource, kSource, kPlane, kOnOff});
        } else if (st.key == kPlane) {
            // Initialised before positioning: the next frame places the plane.
            o.result = -5;
            o.lines = {kPlaneFailed, kSetPlaneFailed};
            o.check = [this] {
                EXPECT_TRUE(out_->m_first_frame_initialized);
                EXPECT_EQ(out_->m_rect_applied_to_driver.w, 0u);
            };
            o.next_call = [this] {
                expect_next(quarvel_video_output_init_with_first_frame(out_, hd_dv5_.get()), 0, {});
                mark_ = emutv::platform().events().size();
                expect_next(quarvel_video_output_push_frame_to_display(out_, hd_dv5_.get()), 0,
                            {kSource, kPlane, kOnOff});
                EXPECT_TRUE(lines_now().empty());
            };
        } else if (st.key == kOnOff) {
            // The placement is recorded before the unmute: nothing is retried.
            o.result = -5;
            o.lines = {kOnOffFailed};
            o.check = [this] { EXPECT_TRUE(same_rect(out_->m_rect_applied_to_driver, full_)); };
            o.next_call = [this] {
                expect_next(quarvel_video_output_push_frame_to_display(out_, hd_dv5_.get()), 0, {kSource});
                EXPECT_TRUE(lines_now().empty());
            };
        } else {
            return unknown();
        }
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, a_frame_returns_the_code_of_the_failing_step_and_the_next_frame_goes_through) {
    Sequence s;
    s.name = "per frame";
    s.setup = [this] {
        shown();
        ASSERT_EQ(quarvel_video_output_push_frame_to_display(out_, hd_.get()), 0);
    };
    // A new Dolby Vision profile and a new content aspect: all three requests.
    s.call = [this] { return quarvel_video_output_push_frame_to_display(out_, anamorphic_dv8_.get()); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        auto next = [this](const Names& requests) {
            return [this, requests] {
                expect_next(quarvel_video_output_push_frame_to_display(out_, anamorphic_dv8_.get()), 0,
                            requests);
                EXPECT_TRUE(lines_now().empty()) << "next call";
            };
        };
        if (st.key == kDolby) {
            o.result = -2;
            o.lines = {kDolbyFailed};
            o.next_call = next({kDolby, kSource, kPlane});
        } else if (st.key == kSource) {
            o.result = -3;
            o.lines = {kSourceFailed};
            o.check = [this] { EXPECT_EQ(out_->m_dv_profile, 8); };
            o.next_call = next({kSource, kPlane});
        } else if (st.key == kPlane) {
            o.result = -4;
            o.lines = {kPlaneFailed, kSetPlaneFailed};
            o.next_call = next({kSource, kPlane});
        } else {
            return unknown();
        }
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, a_null_frame_whose_mute_fails_returns_minus_1_and_the_next_one_mutes) {
    Sequence s;
    s.name = "null frame";
    s.setup = [this] { shown(); };
    s.call = [this] { return quarvel_video_output_push_frame_to_display(out_, nullptr); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        if (st.key != kOnOff)
            return unknown();
        Outcome o;
        o.result = -1;
        o.lines = {kOnOffFailed, v("ApplyPositioning", "mute failed")};
        o.next_call = [this] {
            expect_next(quarvel_video_output_push_frame_to_display(out_, nullptr), 0, {kOnOff});
        };
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, showing_the_video_fails_on_the_plane_or_on_the_unmute) {
    Sequence s;
    s.name = "show";
    s.setup = [this] {
        open_handle();
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, hd_.get()), 0);
    };
    s.call = [this] { return quarvel_video_output_set_rect(out_, &window_); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        if (st.key == kPlane) {
            o.result = -1;
            o.lines = {kPlaneFailed, kSetPlaneFailed};
            o.next_call = [this] {
                expect_next(quarvel_video_output_set_rect(out_, &window_), 0, {kPlane, kOnOff});
            };
        } else if (st.key == kOnOff) {
            o.result = -4;
            o.lines = {kOnOffFailed};
            o.next_call = [this] { expect_next(quarvel_video_output_set_rect(out_, &window_), 0, {}); };
        } else {
            return unknown();
        }
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, moving_the_video_fails_on_the_plane_and_the_same_rectangle_tries_again) {
    Sequence s;
    s.name = "move";
    s.setup = [this] { shown(); };
    s.call = [this] { return quarvel_video_output_set_rect(out_, &window_); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        if (st.key != kPlane)
            return unknown();
        Outcome o;
        o.result = -1;
        o.lines = {kPlaneFailed, kSetPlaneFailed};
        o.check = [this] { EXPECT_TRUE(same_rect(out_->m_rect_applied_to_driver, full_)); };
        o.next_call = [this] { expect_next(quarvel_video_output_set_rect(out_, &window_), 0, {kPlane}); };
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, hiding_the_video_fails_on_the_mute_and_keeps_the_rectangle) {
    Sequence s;
    s.name = "hide";
    s.setup = [this] { shown(); };
    s.call = [this] { return quarvel_video_output_set_rect(out_, &hidden_); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        if (st.key != kOnOff)
            return unknown();
        Outcome o;
        o.result = -1;
        o.lines = {kOnOffFailed, v("ApplyPositioning", "mute failed")};
        o.check = [this] { EXPECT_TRUE(same_rect(out_->m_rect_applied_to_driver, full_)); };
        o.next_call = [this] { expect_next(quarvel_video_output_set_rect(out_, &hidden_), 0, {kOnOff}); };
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, a_refused_resolution_announcement_returns_minus_1_and_a_driver_status_is_ignored) {
    Sequence s;
    s.name = "resolution change";
    s.setup = [this] {
        shown();
        ASSERT_EQ(quarvel_video_output_push_frame_to_display(out_, hd_.get()), 0);
    };
    s.call = [this] { return quarvel_video_output_set_next_res(out_, hd720_.get()); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection& f) -> Outcome {
        if (st.key != "FR2IP_SetNextResolution")
            return unknown();
        Outcome o;
        if (!f.status) {
            o.result = -1;
            o.lines = {v("quarvel_video_output_set_next_res", "ioctl(SetNextResolution) failed: %E")};
        }
        o.next_call = [this] {
            expect_next(quarvel_video_output_set_next_res(out_, hd720_.get()), 0,
                        {"FR2IP_SetNextResolution"});
        };
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, vsync_info_fails_on_either_query_and_keeps_the_rate_once_it_was_read) {
    const std::string F = "quarvel_video_output_get_vsync_info";
    quarvel_video_output_vsync_info_s info{};
    const quarvel_video_output_vsync_info_s kUntouched{-7, -7, -7.0};
    Sequence s;
    s.name = "vsync info";
    s.setup = [&, this] {
        open_handle();
        info = kUntouched;
    };
    s.call = [&, this] { return quarvel_video_output_get_vsync_info(out_, &info); };
    s.teardown = [this] { close_handle(); };
    s.success.check = [&] {
        EXPECT_EQ(info.fps, 60000.0 / 1001.0);
        EXPECT_EQ(info.tv_nsec, 1000000);
    };
    auto untouched = [&] {
        EXPECT_EQ(info.fps, -7.0);
        EXPECT_EQ(info.tv_sec, -7);
        EXPECT_EQ(info.tv_nsec, -7);
    };
    auto rate_only = [&] {
        EXPECT_EQ(info.fps, 60000.0 / 1001.0);
        EXPECT_EQ(info.tv_sec, -7);
        EXPECT_EQ(info.tv_nsec, -7);
    };
    s.expect = [&, this](const Step& st, const Injection& f) -> Outcome {
        Outcome o;
        o.result = -1;
        if (st.key == "FR2IP_GetVsyncHZ") {
            o.lines = {v(F, f.status ? "vsyncHz not available yet" : "ioctl(GetVsyncHZ) failed: %E")};
            o.check = untouched;
        } else if (st.key == "FR2IP_GetOffsetFromVsync") {
            o.lines = {v(F, f.status ? "vsync not available yet" : "ioctl(GetOffsetFromVsync) failed: %E")};
            o.check = rate_only;
        } else {
            return unknown();
        }
        o.next_call = [&, this] {
            expect_next(quarvel_video_output_get_vsync_info(out_, &info), 0,
                        {"FR2IP_GetVsyncHZ", "FR2IP_GetOffsetFromVsync"});
            EXPECT_EQ(info.tv_nsec, 1000000);
        };
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, used_frames_fails_only_on_the_request_and_ignores_a_driver_status) {
    quarvel_video_used_frames_s used{};
    Sequence s;
    s.name = "used frames";
    s.setup = [&, this] {
        open_handle();
        used = quarvel_video_used_frames_s{{9, 9, 9, 9}};
    };
    s.call = [&, this] { return quarvel_video_output_get_used_frames(out_, &used); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection& f) -> Outcome {
        if (st.key != "FR2IP_GetDirectlyFrames")
            return unknown();
        Outcome o;
        if (!f.status) {
            o.result = -1;
            o.lines = {v("quarvel_video_output_get_used_frames", "ioctl(GetDirectlyFrames) failed: %E")};
            o.check = [&] { EXPECT_EQ(used.used_by_decoder[0], 9u); };
        } else {
            o.check = [&] {
                EXPECT_EQ(used.used_by_decoder[0], 2u);
                EXPECT_EQ(used.used_by_decoder[1], 1u);
            };
        }
        o.next_call = [&, this] {
            expect_next(quarvel_video_output_get_used_frames(out_, &used), 0, {"FR2IP_GetDirectlyFrames"});
        };
        return o;
    };
    run(s);
}

TEST_F(VideoFaults, set_pts_fails_only_on_the_request_and_ignores_a_driver_status) {
    Sequence s;
    s.name = "set pts";
    s.setup = [this] { open_handle(); };
    s.call = [this] { return quarvel_video_output_set_pts(out_, 0x100000002LL); };
    s.teardown = [this] { close_handle(); };
    s.expect = [&, this](const Step& st, const Injection& f) -> Outcome {
        if (st.key != "FR2IP_SetPTS")
            return unknown();
        Outcome o;
        if (!f.status) {
            o.result = -1;
            o.lines = {v("quarvel_video_output_set_pts", "ioctl(SetPTS) failed: %E")};
        }
        o.next_call = [this] { expect_next(quarvel_video_output_set_pts(out_, 3), 0, {"FR2IP_SetPTS"}); };
        return o;
    };
    run(s);
}

}  // namespace
