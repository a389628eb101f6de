// Display source and mute of the main video plane, and the broadcast-switch test.
#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

class SourceAndMute : public VideoHandleTest {};

TEST_F(SourceAndMute, source_request_carries_the_whole_descriptor_with_the_video_plane) {
    TestFrame f(1920, 1080);
    f.desc.plane = 777;
    const v4l2_drm before = f.desc;
    EXPECT_EQ(SetDpSource(out_, &f.desc), 0);

    EXPECT_EQ(f.desc.plane, plane_id());  // the caller's descriptor is changed
    EXPECT_EQ(plane_id(), 35u);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_SDP_SET_DP_SOURCE");
    EXPECT_EQ(ev[0].request, 0xC2406451ul);
    EXPECT_EQ(ev[0].fd, out_->m_drm_fd);
    EXPECT_EQ(ev[0].in, source_record(before));
    EXPECT_EQ(out_->pre_source, V4L2_DRM_INPUTPORT_TYPE_MM);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDpSource", "Source Changed:pre(14) -> cur(1)")}));
}

TEST_F(SourceAndMute, same_input_port_twice_logs_the_change_once_but_sends_both_times) {
    TestFrame f(1920, 1080);
    EXPECT_EQ(SetDpSource(out_, &f.desc), 0);
    EXPECT_EQ(SetDpSource(out_, &f.desc), 0);
    EXPECT_EQ(request_names(),
              (std::vector<std::string>{"DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_SDP_SET_DP_SOURCE"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDpSource", "Source Changed:pre(14) -> cur(1)")}));
}

TEST_F(SourceAndMute, a_new_input_port_is_logged_with_the_old_one) {
    TestFrame mm(1920, 1080);
    TestFrame dtv(1920, 1080, 3, -1, V4L2_DRM_INPUTPORT_TYPE_DTV);
    EXPECT_EQ(SetDpSource(out_, &mm.desc), 0);
    EXPECT_EQ(SetDpSource(out_, &dtv.desc), 0);
    EXPECT_EQ(out_->pre_source, V4L2_DRM_INPUTPORT_TYPE_DTV);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDpSource", "Source Changed:pre(14) -> cur(1)"),
                                                 vline("SetDpSource", "Source Changed:pre(1) -> cur(0)")}));
}

TEST_F(SourceAndMute, failing_source_request_returns_minus_1_and_the_next_one_works) {
    TestFrame f(1920, 1080);
    tv().fail("DRM_IOCTL_SDP_SET_DP_SOURCE", EIO);
    EXPECT_EQ(SetDpSource(out_, &f.desc), -1);
    EXPECT_EQ(out_->pre_source, V4L2_DRM_INPUTPORT_TYPE_MM);  // noted before the request
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("SetDpSource", "Source Changed:pre(14) -> cur(1)"),
                  vline("SetDpSource", "ioctl(DRM_IOCTL_SDP_SET_DP_SOURCE) failed: Input/output error")}));
    EXPECT_EQ(SetDpSource(out_, &f.desc), 0);
    EXPECT_TRUE(lines().empty());
    auto ev = tv().events("DRM_IOCTL_SDP_SET_DP_SOURCE");
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].result, -1);
    EXPECT_EQ(ev[0].err, EIO);
    EXPECT_EQ(ev[1].result, 0);
}

TEST_F(SourceAndMute, null_arguments_of_the_source_request) {
    TestFrame f(1920, 1080);
    EXPECT_EQ(SetDpSource(nullptr, &f.desc), -9);
    EXPECT_EQ(SetDpSource(out_, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(f.desc.plane, 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("SetDpSource", "output is null"),
                                                 vline("SetDpSource", "frame_info is null")}));
}

TEST_F(SourceAndMute, unmute_and_mute_send_the_mute_function_with_the_inverted_flag) {
    EXPECT_TRUE(DRMSetUnmute(out_, true));
    EXPECT_TRUE(DRMSetUnmute(out_, false));
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].name, "DRM_IOCTL_SDP_SET_ONOFF");
    EXPECT_EQ(ev[0].request, 0xC00C6455ul);
    EXPECT_EQ(ev[0].in, bytes_of(mute_record(false)));
    EXPECT_EQ(ev[1].in, bytes_of(mute_record(true)));
    EXPECT_EQ(le32_at(ev[1].in, 0), 35u);
    EXPECT_EQ(le32_at(ev[1].in, 4), 1u);
    EXPECT_EQ(le32_at(ev[1].in, 8), 1u);
    EXPECT_TRUE(tv().drm().muted[35]);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("DRMSetUnmute", "unmute(1)"),
                                                 vline("DRMSetUnmute", "unmute(0)")}));
}

TEST_F(SourceAndMute, failing_mute_request_returns_false_and_the_next_one_works) {
    tv().fail("DRM_IOCTL_SDP_SET_ONOFF", EBUSY);
    EXPECT_FALSE(DRMSetUnmute(out_, false));
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{
            vline("DRMSetUnmute", "unmute(0)"),
            vline("DRMSetUnmute", "ioctl(DRM_IOCTL_SDP_SET_ONOFF) failed: [Device or resource busy]")}));
    EXPECT_TRUE(DRMSetUnmute(out_, false));
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_ONOFF"), 2u);
    EXPECT_TRUE(tv().drm().muted[35]);
}

TEST_F(SourceAndMute, null_handle_in_unmute_is_logged_after_the_entry_line) {
    EXPECT_FALSE(DRMSetUnmute(nullptr, true));
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("DRMSetUnmute", "unmute(1)"),
                                                 vline("DRMSetUnmute", "output is null")}));
}

TEST_F(SourceAndMute, unmute_entry_line_is_info_level) {
    g_ruvo_logmask = RUVO_LOG_ERR;
    EXPECT_TRUE(DRMSetUnmute(out_, true));
    EXPECT_TRUE(lines().empty());
}

class BroadcastSwitchTest : public ruvo_test::PlatformTest {
  protected:
    void TearDown() override {
        unsetenv("TA_DTV_PRELOAD");
        PlatformTest::TearDown();
    }
};

TEST_F(BroadcastSwitchTest, is_under_way_only_while_the_variable_is_exactly_1) {
    unsetenv("TA_DTV_PRELOAD");
    EXPECT_FALSE(is_ta_switch());
    setenv("TA_DTV_PRELOAD", "1", 1);
    EXPECT_TRUE(is_ta_switch());
    for (const char* other : {"11", "10", "", "true", "0", " 1", "1 "}) {
        setenv("TA_DTV_PRELOAD", other, 1);
        EXPECT_FALSE(is_ta_switch()) << '"' << other << '"';
    }
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(tv().events().size(), 0u);
}

}  // namespace
