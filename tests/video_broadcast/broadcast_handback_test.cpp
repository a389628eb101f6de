// Hand-back to broadcast video at the end of an advertising break, on a main-plane handle.
#include <stdlib.h>
#include <linux/videodev2.h>
#include <unistd.h>

#include <chrono>

#include "ruvo_kit/threads.h"
#include "test_support.h"

using emutv::Device;
using emutv::Event;
using ruvo_test::PlatformTest;
using ruvo_test::vline;

namespace {

class BroadcastHandback : public PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        unsetenv("TA_DTV_PRELOAD");
        output_ = quarvel_video_output_open(false);
        ASSERT_NE(output_, nullptr);
        threads_before_ = ruvo_kit::thread_count();
        settle();
    }
    void TearDown() override {
        if (output_)
            quarvel_video_output_close(output_);
        unsetenv("TA_DTV_PRELOAD");
        PlatformTest::TearDown();
    }

    // Forgets what open printed and sent.
    void settle() {
        lines();
        tv().clear_events();
    }

    // Puts the browser's video on the plane at `rect` with a 1920x1080 first frame.
    void show_video(int32_t x, int32_t y, uint32_t w, uint32_t h) {
        frame_desc_ = ruvo_test::make_frame(1920, 1080);
        frame_.v4l2_frame = &frame_desc_;
        frame_.dv_profile = -1;
        quarvel_video_output_rect_s rect{x, y, w, h, 0, 0};
        ASSERT_EQ(quarvel_video_output_set_rect(output_, &rect), 0);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(output_, &frame_), 0);
        ASSERT_NE(output_->m_rect_applied_to_driver.w, 0u);
        settle();
    }

    // The detached audio-mute thread writes the mixer control and ends: waits, within a
    // bound, for it to end, then looks for its writes on the emulated card.
    bool wait_for_audio_mute(size_t writes_expected = 1) {
        if (!ruvo_kit::wait_for_threads_to_end(threads_before_, std::chrono::seconds(30)))
            return false;
        size_t mutes = 0;
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        for (const auto& w : tv().sound().writes)
            if (w.name == "main out mute" && w.value == 1)
                mutes++;
        return mutes >= writes_expected;
    }

    // Lines without the audio-mute thread's own line, which may land anywhere.
    std::vector<std::string> main_thread_lines(int* thread_lines) {
        std::vector<std::string> out;
        auto all = lines();
        *thread_lines = 0;
        for (size_t i = 0; i < all.size(); ++i) {
            if (all[i] == vline("_set_audio_mute", "set audio mute")) {
                (*thread_lines)++;
                if (i + 1 < all.size() && all[i + 1].empty())
                    ++i;  // "\n\n"
                continue;
            }
            out.push_back(all[i]);
        }
        return out;
    }

    // Names of DRM, decoder-node and sound requests (the ones the hand-back makes).
    std::vector<std::string> handback_requests() {
        std::vector<std::string> out;
        for (const auto& e : tv().events()) {
            if (e.device == Device::SoundCtl)
                continue;  // the mute thread's control traffic
            out.push_back(std::string(emutv::device_name(e.device)) + ":" + e.name);
        }
        return out;
    }

    quarvel_video_output_s* output_ = nullptr;
    int threads_before_ = 0;
    v4l2_drm frame_desc_{};
    quarvel_video_output_frame_s frame_{};
};

const char* kDecoderPath = "/dev/video10";

}  // namespace

TEST_F(BroadcastHandback, without_a_pending_switch_only_in_and_not_ta_case_are_logged) {
    quarvel_video_output_notify_ta_switch(output_);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("quarvel_video_output_notify_ta_switch", "in"),
                                        vline("quarvel_video_output_notify_ta_switch", "not TA case")}));
    EXPECT_TRUE(tv().events().empty());
    EXPECT_EQ(ruvo_kit::thread_count(), threads_before_);
}

TEST_F(BroadcastHandback, a_preload_value_other_than_1_is_no_switch) {
    setenv("TA_DTV_PRELOAD", "11", 1);
    quarvel_video_output_notify_ta_switch(output_);
    EXPECT_EQ(lines().back(), vline("quarvel_video_output_notify_ta_switch", "not TA case"));
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(BroadcastHandback, a_null_handle_is_reported_with_upper_case_null) {
    quarvel_video_output_notify_ta_switch(nullptr);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline("quarvel_video_output_notify_ta_switch", "in"),
                                        vline("quarvel_video_output_notify_ta_switch", "output is NULL")}));
    EXPECT_TRUE(tv().events().empty());
}

TEST_F(BroadcastHandback, hidden_plane_mutes_audio_only_and_puts_the_broadcast_frame_back) {
    setenv("TA_DTV_PRELOAD", "1", 1);
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());

    EXPECT_EQ(handback_requests(),
              (std::vector<std::string>{"decoder:open", "decoder:VIDIOC_G_EXT_CTRLS", "decoder:close",
                                        "drm:DRM_IOCTL_SDP_SET_DP_SOURCE", "drm:DRM_IOCTL_MODE_SETPLANE",
                                        "drm:DRM_IOCTL_SDP_SET_ONOFF"}));
    auto onoff = tv().events("DRM_IOCTL_SDP_SET_ONOFF");
    ASSERT_EQ(onoff.size(), 1u);
    EXPECT_EQ(onoff[0].field("onoff_flag"), 0);  // unmute only: the video was never muted
    EXPECT_EQ(onoff[0].field("set_func"), DRM_SDP_FUNC_MUTE_ONOFF);
    EXPECT_EQ(onoff[0].field("plane_id"), 35);

    auto ctrl = tv().events("VIDIOC_G_EXT_CTRLS");
    ASSERT_EQ(ctrl.size(), 1u);
    EXPECT_EQ(ctrl[0].path, kDecoderPath);
    EXPECT_EQ(ctrl[0].field("ctrl_class"), 0x00A20000);
    EXPECT_EQ(ctrl[0].field("count"), 1);
    EXPECT_EQ(ctrl[0].field("id"), 0x00A20014);
    EXPECT_EQ(ctrl[0].field("size"), 576);
    EXPECT_EQ(ctrl[0].request, static_cast<unsigned long>(VIDIOC_G_EXT_CTRLS));
#if defined(__arm__)
    EXPECT_EQ(ctrl[0].request, 0xC0185647ul);  // _IOWR('V', 71, 24) on the television
#endif

    auto source = tv().events("DRM_IOCTL_SDP_SET_DP_SOURCE");
    ASSERT_EQ(source.size(), 1u);
    v4l2_drm expected;
    memcpy(&expected, tv().decoder().display_frame.data(), sizeof(expected));
    expected.plane = 35;
    ASSERT_EQ(source[0].in.size(), sizeof(v4l2_drm));
    EXPECT_EQ(memcmp(source[0].in.data(), &expected, sizeof(expected)), 0);

    auto plane = tv().events("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(plane.size(), 1u);
    EXPECT_EQ(plane[0].field("crtc_w"), 0);
    EXPECT_EQ(plane[0].field("crtc_h"), 0);

    int thread_lines = 0;
    auto printed = main_thread_lines(&thread_lines);
    EXPECT_EQ(thread_lines, 1);
    EXPECT_EQ(
        printed,
        (std::vector<std::string>{
            vline("quarvel_video_output_notify_ta_switch", "in"), vline("GetDTV_DRM_Info", "in"),
            vline("GetDTV_DRM_Info", "core_v4l2_open success"),
            vline("GetDTV_DRM_Info", "V4L2_CID_GET_DISPLAY_FRAME_INFO success"),
            vline("SetDpSource", "Source Changed:pre(14) -> cur(0)"),
            vline("SetPlane", "Set plane done.crtc_x(0),crtc_y(0),crtc_w(0),s.crtc_h(0),src_w(0),src_h(0)"),
            vline("DRMSetUnmute", "unmute(1)")}));
    ASSERT_NE(getenv("TA_DTV_PRELOAD"), nullptr);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "");
    EXPECT_FALSE(output_->m_ta_switch);
    EXPECT_EQ(tv().sound().value("main out mute"), 1);
}

TEST_F(BroadcastHandback, shown_plane_is_muted_before_the_decoder_is_read_and_keeps_its_place) {
    show_video(100, 50, 960, 540);
    setenv("TA_DTV_PRELOAD", "1", 1);
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());

    EXPECT_EQ(
        handback_requests(),
        (std::vector<std::string>{"drm:DRM_IOCTL_SDP_SET_ONOFF", "decoder:open", "decoder:VIDIOC_G_EXT_CTRLS",
                                  "decoder:close", "drm:DRM_IOCTL_SDP_SET_DP_SOURCE",
                                  "drm:DRM_IOCTL_MODE_SETPLANE", "drm:DRM_IOCTL_SDP_SET_ONOFF"}));
    auto onoff = tv().events("DRM_IOCTL_SDP_SET_ONOFF");
    ASSERT_EQ(onoff.size(), 2u);
    EXPECT_EQ(onoff[0].field("onoff_flag"), 1);
    EXPECT_EQ(onoff[1].field("onoff_flag"), 0);

    // The broadcast frame goes where the browser's video was, cropped to the handle's size.
    auto plane = tv().events("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(plane.size(), 1u);
    EXPECT_EQ(plane[0].field("crtc_x"), 100);
    EXPECT_EQ(plane[0].field("crtc_y"), 50);
    EXPECT_EQ(plane[0].field("crtc_w"), 960);
    EXPECT_EQ(plane[0].field("crtc_h"), 540);
    EXPECT_EQ(plane[0].field("src_w"), 1920 << 16);
    EXPECT_EQ(plane[0].field("src_h"), 1080 << 16);

    EXPECT_EQ(output_->m_rect_applied_to_driver.x, 100);
    EXPECT_EQ(output_->m_rect_applied_to_driver.y, 50);
    EXPECT_EQ(output_->m_rect_applied_to_driver.w, 0u);
    EXPECT_EQ(output_->m_rect_applied_to_driver.h, 0u);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "");
    EXPECT_FALSE(output_->m_ta_switch);

    int thread_lines = 0;
    auto printed = main_thread_lines(&thread_lines);
    EXPECT_EQ(thread_lines, 1);
    ASSERT_GE(printed.size(), 3u);
    EXPECT_EQ(printed[0], vline("quarvel_video_output_notify_ta_switch", "in"));
    EXPECT_EQ(printed[1], vline("DRMSetUnmute", "unmute(0)"));
    EXPECT_EQ(printed[2], vline("GetDTV_DRM_Info", "in"));
    EXPECT_EQ(printed.back(), vline("DRMSetUnmute", "unmute(1)"));
}

TEST_F(BroadcastHandback, missing_decoder_node_leaves_the_video_muted_and_the_switch_pending) {
    show_video(0, 0, 1920, 1080);
    tv().set_present(kDecoderPath, false);
    setenv("TA_DTV_PRELOAD", "1", 1);
    output_->m_ta_switch = true;
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());

    int thread_lines = 0;
    auto printed = main_thread_lines(&thread_lines);
    EXPECT_EQ(printed,
              (std::vector<std::string>{
                  vline("quarvel_video_output_notify_ta_switch", "in"), vline("DRMSetUnmute", "unmute(0)"),
                  vline("GetDTV_DRM_Info", "in"), vline("GetDTV_DRM_Info", "core_v4l2_open failed :errno(2)"),
                  vline("quarvel_video_output_notify_ta_switch", "get dtv drm failed")}));
    EXPECT_TRUE(tv().drm().muted[35]);
    EXPECT_TRUE(output_->m_ta_switch);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "1");
    EXPECT_EQ(output_->m_rect_applied_to_driver.w, 1920u);

    // A later notification runs the whole sequence again.
    tv().set_present(kDecoderPath, true);
    tv().clear_events();
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute(2));
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 1u);
    EXPECT_FALSE(output_->m_ta_switch);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "");
}

TEST_F(BroadcastHandback, failed_frame_request_leaves_the_decoder_descriptor_open) {
    setenv("TA_DTV_PRELOAD", "1", 1);
    tv().fail("VIDIOC_G_EXT_CTRLS", EINVAL);
    int fds_before = emutv::process_open_descriptors();
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());
    int thread_lines = 0;
    auto printed = main_thread_lines(&thread_lines);
    EXPECT_EQ(printed.back(), vline("quarvel_video_output_notify_ta_switch", "get dtv drm failed"));
    EXPECT_EQ(printed[printed.size() - 2],
              vline("GetDTV_DRM_Info", "V4L2_CID_GET_DISPLAY_FRAME_INFO failed: errno(22)"));
    EXPECT_EQ(emutv::process_open_descriptors(), fds_before + 1);
    for (const auto& e : tv().events("close"))
        EXPECT_NE(e.device, Device::Decoder);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "1");
}

struct StepFault {
    const char* request;
    const char* message;
};

class BroadcastHandbackStepFails : public BroadcastHandback,
                                   public ::testing::WithParamInterface<StepFault> {};

TEST_P(BroadcastHandbackStepFails, logs_and_keeps_the_switch_pending) {
    const StepFault& f = GetParam();
    show_video(10, 20, 640, 360);
    setenv("TA_DTV_PRELOAD", "1", 1);
    tv().fail(f.request, EIO);
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());
    int thread_lines = 0;
    auto printed = main_thread_lines(&thread_lines);
    EXPECT_EQ(printed.back(), vline("quarvel_video_output_notify_ta_switch", f.message));
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "1");
    EXPECT_EQ(output_->m_rect_applied_to_driver.w, 640u);
    EXPECT_EQ(output_->m_rect_applied_to_driver.h, 360u);
    EXPECT_EQ(output_->m_rect_applied_to_driver.x, 10);

    // A later notification runs the whole sequence again and completes it.
    tv().clear_events();
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute(2));
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 1u);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "");
    EXPECT_EQ(output_->m_rect_applied_to_driver.w, 0u);
}

INSTANTIATE_TEST_SUITE_P(EachRequest, BroadcastHandbackStepFails,
                         ::testing::Values(StepFault{"DRM_IOCTL_SDP_SET_ONOFF", "mute failed"},
                                           StepFault{"DRM_IOCTL_SDP_SET_DP_SOURCE", "SetDpSource dtv failed"},
                                           StepFault{"DRM_IOCTL_MODE_SETPLANE", "SetPlane failed"}));

TEST_F(BroadcastHandback, failed_unmute_is_logged_and_the_switch_stays_pending) {
    show_video(10, 20, 640, 360);
    setenv("TA_DTV_PRELOAD", "1", 1);
    // The first on/off request is the mute, the second the unmute: let the mute through
    // (a zero status changes nothing) and fail the unmute.
    tv().fail_status("DRM_IOCTL_SDP_SET_ONOFF", 0, 1);
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EIO, 1);
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());
    int thread_lines = 0;
    auto printed = main_thread_lines(&thread_lines);
    EXPECT_EQ(printed.back(), vline("quarvel_video_output_notify_ta_switch", "unmute failed"));
    EXPECT_EQ(printed[printed.size() - 2],
              vline("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [Input/output error]"));
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "1");
    EXPECT_EQ(output_->m_rect_applied_to_driver.w, 640u);
}

TEST_F(BroadcastHandback, thread_creation_failure_is_logged_and_the_switch_goes_on) {
    setenv("TA_DTV_PRELOAD", "1", 1);
    tv().fail("pthread_create", EAGAIN);
    quarvel_video_output_notify_ta_switch(output_);
    auto printed = lines();
    ASSERT_GE(printed.size(), 2u);
    EXPECT_EQ(printed[1],
              vline("quarvel_video_output_notify_ta_switch", "audio_mute_thread creation failed!"));
    EXPECT_EQ(printed.back(), vline("DRMSetUnmute", "unmute(1)"));
    EXPECT_EQ(tv().sound().writes.size(), 0u);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "");
}

TEST_F(BroadcastHandback, hiding_during_a_preload_is_skipped_and_a_later_notification_completes) {
    show_video(0, 0, 1280, 720);
    setenv("TA_DTV_PRELOAD", "1", 1);
    quarvel_video_output_rect_s hidden{0, 0, 0, 0, 0, 0};
    EXPECT_EQ(quarvel_video_output_set_rect(output_, &hidden), 0);
    EXPECT_TRUE(output_->m_ta_switch);
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_ONOFF"), 0u);
    EXPECT_EQ(lines().back(), vline("ApplyPositioning", "skip mute for TA switch"));

    // The broadcast component clears the variable; the raised flag still completes it.
    setenv("TA_DTV_PRELOAD", "", 1);
    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(wait_for_audio_mute());
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 1u);
    EXPECT_FALSE(output_->m_ta_switch);
    auto plane = tv().events("DRM_IOCTL_MODE_SETPLANE");
    EXPECT_EQ(plane[0].field("crtc_w"), 1280);
}
