// Fault matrix of the hand-back to broadcast video: the calling thread's requests, and the
// mixer requests of the detached audio-mute thread it starts.
#include <chrono>

#include "fault_matrix.h"
#include "mixer_faults.h"
#include "ruvo_kit/threads.h"

using namespace faults;

namespace {

const std::string N = "quarvel_video_output_notify_ta_switch";
const std::vector<std::string> kMuteThreadLines = {v("_set_audio_mute", "set audio mute"), ""};

class HandbackFaults : public FaultMatrix {
  protected:
    void SetUp() override {
        FaultMatrix::SetUp();
        warm_up_mixer();
        (void)lines_now();
    }
    void TearDown() override {
        close_handle();
        FaultMatrix::TearDown();
    }

    void close_handle() {
        if (out_ != nullptr)
            quarvel_video_output_close(out_);
        out_ = nullptr;
    }

    // A handle showing a stream at `rect_` while the broadcast switch is pending.
    void during_a_switch() {
        out_ = quarvel_video_output_open(false);
        ASSERT_NE(out_, nullptr);
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &rect_), 0);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, hd_.get()), 0);
        setenv("TA_DTV_PRELOAD", "1", 1);
        threads_before_ = ruvo_kit::thread_count();
    }

    // The detached thread writes the mixer control and ends; waits for it, within a bound.
    void wait_for_mute_thread() {
        ASSERT_TRUE(ruvo_kit::wait_for_threads_to_end(threads_before_, std::chrono::seconds(30)))
            << "the audio-mute thread did not end";
    }

    std::vector<std::string> caller_lines(const std::vector<std::string>& all) {
        std::vector<std::string> caller;
        thread_lines_.clear();
        split_thread_lines(all, &caller, &thread_lines_);
        return caller;
    }

    // The switch done: broadcast frame placed, video unmuted, variable emptied.
    void expect_switch_done() {
        const char* preload = getenv("TA_DTV_PRELOAD");
        ASSERT_NE(preload, nullptr);
        EXPECT_STREQ(preload, "");
        EXPECT_FALSE(out_->m_ta_switch);
        EXPECT_EQ(out_->m_rect_applied_to_driver.w, 0u);
        EXPECT_EQ(out_->m_rect_applied_to_driver.h, 0u);
        EXPECT_EQ(out_->m_rect_applied_to_driver.x, rect_.x);
    }

    // The switch still pending after a failure: a later notification runs it again.
    void expect_switch_pending() {
        const char* preload = getenv("TA_DTV_PRELOAD");
        ASSERT_NE(preload, nullptr);
        EXPECT_STREQ(preload, "1");
        EXPECT_EQ(out_->m_rect_applied_to_driver.w, rect_.w);
    }

    void notify_again_completes() {
        threads_before_ = ruvo_kit::thread_count();
        quarvel_video_output_notify_ta_switch(out_);
        wait_for_mute_thread();
        expect_switch_done();
        EXPECT_EQ(caller_lines(lines_now()), std::vector<std::string>{}) << "next call";
        EXPECT_EQ(thread_lines_, kMuteThreadLines) << "next call";
    }

    Sequence handback() {
        Sequence s;
        s.name = "hand-back";
        s.setup = [this] { during_a_switch(); };
        s.call = [this] {
            quarvel_video_output_notify_ta_switch(out_);
            return 0;
        };
        s.settle = [this] { wait_for_mute_thread(); };
        s.teardown = [this] {
            close_handle();
            unsetenv("TA_DTV_PRELOAD");
        };
        s.visible = [this](const std::vector<std::string>& all) { return caller_lines(all); };
        s.success.check = [this] {
            expect_switch_done();
            EXPECT_EQ(thread_lines_, kMuteThreadLines);
        };
        return s;
    }

    quarvel_video_output_s* out_ = nullptr;
    int threads_before_ = 0;
    std::vector<std::string> thread_lines_;
    const quarvel_video_output_rect_s rect_{160, 90, 960, 540, 0, 0};
    Frame hd_{1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, -1};
};

TEST_F(HandbackFaults,
       each_failing_request_of_the_switch_ends_it_with_its_message_and_a_later_one_completes) {
    Sequence s = handback();
    s.keep = [](const Event& e) { return is_driver_request(e) && e.device != Device::SoundCtl; };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        Outcome o;
        o.check = [this] {
            expect_switch_pending();
            EXPECT_EQ(thread_lines_, kMuteThreadLines);
        };
        o.next_call = [this] { notify_again_completes(); };
        const bool first_onoff = st.key == "DRM_IOCTL_SDP_SET_ONOFF" && st.occurrence == 1;
        if (first_onoff) {
            o.lines = {v("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [%E]"), v(N, "mute failed")};
        } else if (st.key == "open:/dev/video10") {
            o.lines = {v("GetDTV_DRM_Info", "core_v4l2_open failed :errno(%N)"), v(N, "get dtv drm failed")};
        } else if (st.key == "VIDIOC_G_EXT_CTRLS") {
            // The decoder node stays open on this path.
            o.lines = {v("GetDTV_DRM_Info", "V4L2_CID_GET_DISPLAY_FRAME_INFO failed: errno(%N)"),
                       v(N, "get dtv drm failed")};
            o.descriptors_left_open = 1;
        } else if (st.key == "close:/dev/video10") {
            // The result of the close is not looked at: the switch completes.
            o.check = [this] {
                expect_switch_done();
                EXPECT_EQ(thread_lines_, kMuteThreadLines);
            };
            o.next_call = nullptr;
        } else if (st.key == "DRM_IOCTL_SDP_SET_DP_SOURCE") {
            o.lines = {v("SetDpSource", "ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: %E"),
                       v(N, "SetDpSource dtv failed")};
        } else if (st.key == "DRM_IOCTL_MODE_SETPLANE") {
            o.lines = {v("SetPlane", "ioctl(DRM_IOCTL_MODE_SETPLANE) failed: %E"), v(N, "SetPlane failed")};
        } else if (st.key == "DRM_IOCTL_SDP_SET_ONOFF" && st.occurrence == 2) {
            o.lines = {v("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [%E]"),
                       v(N, "unmute failed")};
        } else {
            return unknown();
        }
        return o;
    };
    run(s);
}

TEST_F(HandbackFaults, a_failing_mixer_request_of_the_audio_mute_thread_is_logged_and_the_switch_completes) {
    Sequence s = handback();
    s.name = "hand-back audio-mute thread";
    s.keep = [](const Event& e) { return is_driver_request(e) && e.device == Device::SoundCtl; };
    s.expect = [&, this](const Step& st, const Injection&) -> Outcome {
        const MixerFailure m = mixer_failure(st);
        if (!m.known)
            return unknown();
        Outcome o;
        const auto expected_thread_lines = cat(m.lines, kMuteThreadLines);
        o.check = [this, m, expected_thread_lines] {
            expect_switch_done();
            EXPECT_EQ(thread_lines_, expected_thread_lines);
            EXPECT_EQ(tv().sound().value("main out mute"), m.written ? 1 : 0);
        };
        return o;
    };
    run(s);
}

TEST_F(HandbackFaults, an_audio_mute_thread_that_cannot_be_started_is_logged_and_the_switch_completes) {
    for (int err : {EAGAIN, EPERM, EINVAL}) {
        SCOPED_TRACE(err);
        fresh_platform();
        const int base = emutv::process_open_descriptors();
        during_a_switch();
        tv().clear_events();
        (void)lines_now();
        tv().fail("pthread_create", err, 1);
        quarvel_video_output_notify_ta_switch(out_);
        EXPECT_EQ(ruvo_kit::thread_count(), threads_before_);
        EXPECT_EQ(lines_now(), std::vector<std::string>{v(N, "audio_mute_thread creation failed!")});
        expect_switch_done();
        EXPECT_EQ(tv().sound().value("main out mute"), 0);
        EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), 0u);
        close_handle();
        unsetenv("TA_DTV_PRELOAD");
        (void)lines_now();
        EXPECT_EQ(emutv::process_open_descriptors(), base);
    }
}

}  // namespace
