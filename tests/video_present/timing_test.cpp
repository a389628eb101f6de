// Vsync timing, decoder frame usage and the presentation timestamp.
#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

const char kVsync[] = "quarvel_video_output_get_vsync_info";
const char kUsed[] = "quarvel_video_output_get_used_frames";
const char kPts[] = "quarvel_video_output_set_pts";

class Timing : public VideoHandleTest {
  protected:
    static constexpr double kUntouched = -123.5;
    static quarvel_video_output_vsync_info_s fresh_info() {
        return quarvel_video_output_vsync_info_s{-7, -8, kUntouched};
    }
};

TEST(VsyncRate, broadcast_rates_map_to_their_exact_values) {
    EXPECT_EQ(HelperConvertVsyncHzToFPS(23970), 24000.0 / 1001.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(23976), 24000.0 / 1001.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(23970), 23.976023976023978);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(25000), 25.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(29970), 30000.0 / 1001.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(29970), 29.97002997002997);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(30000), 30.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(50000), 50.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(59940), 60000.0 / 1001.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(59940), 59.94005994005994);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(60000), 60.0);
}

TEST(VsyncRate, other_rates_are_divided_by_1000) {
    EXPECT_EQ(HelperConvertVsyncHzToFPS(24000), 24.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(29976), 29.976);  // no second value for 29.97
    EXPECT_EQ(HelperConvertVsyncHzToFPS(59950), 59.95);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(120000), 120.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(1), 0.001);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(0), 0.0);
    EXPECT_EQ(HelperConvertVsyncHzToFPS(-50000), -50.0);
}

TEST_F(Timing, vsync_info_asks_for_the_rate_then_the_offset) {
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO | RUVO_LOG_TRACE;
    tv().vplt().offset_sec = 3;
    tv().vplt().offset_nsec = 4567;
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
    EXPECT_EQ(info.fps, 59.94005994005994);
    EXPECT_EQ(info.tv_sec, 3);
    EXPECT_EQ(info.tv_nsec, 4567);

    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].name, "FR2IP_GetVsyncHZ");
    EXPECT_EQ(ev[0].request, 0xC0245604ul);
    EXPECT_EQ(ev[0].fd, out_->m_valio_fd);
    EXPECT_EQ(ev[0].field("cmd"), 1548);
    EXPECT_EQ(ev[0].args[0], u8_cell(0));
    EXPECT_EQ(ev[0].args[1], s32_cell(59940));
    EXPECT_TRUE(ev[0].args[2].empty());
    EXPECT_EQ(ev[0].args[7], s32_cell(0));
    EXPECT_EQ(ev[1].name, "FR2IP_GetOffsetFromVsync");
    EXPECT_EQ(ev[1].field("cmd"), 1543);
    EXPECT_EQ(ev[1].args[0], u8_cell(0));
    EXPECT_EQ(ev[1].args[1], bytes_of(vplt_vsync_offset{3, 4567}));
    EXPECT_EQ(ev[1].args[7], s32_cell(0));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kVsync, "tv_sec(3) tv_nsec(4567) fps(59.940060)")}));
}

TEST_F(Timing, vsync_rates_reported_by_the_driver) {
    const std::pair<int32_t, double> cases[] = {
        {59940, 59.94005994005994}, {24000, 24.0}, {23970, 23.976023976023978}, {50000, 50.0}};
    for (const auto& c : cases) {
        tv().vplt().vsync_hz = c.first;
        auto info = fresh_info();
        EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
        EXPECT_EQ(info.fps, c.second) << c.first;
    }
    EXPECT_TRUE(lines().empty());
}

TEST_F(Timing, a_zero_rate_is_not_available_yet_and_leaves_the_result_untouched) {
    tv().vplt().vsync_hz = 0;
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), -1);
    EXPECT_EQ(info.fps, kUntouched);
    EXPECT_EQ(info.tv_sec, -7);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"FR2IP_GetVsyncHZ"}));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kVsync, "vsyncHz not available yet")}));
}

TEST_F(Timing, a_rate_with_a_driver_status_is_not_available_yet) {
    tv().fail_status("FR2IP_GetVsyncHZ", 5);
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), -1);
    EXPECT_EQ(info.fps, kUntouched);
    EXPECT_EQ(tv().events()[0].field("status"), 5);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kVsync, "vsyncHz not available yet")}));
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
    EXPECT_EQ(info.fps, 59.94005994005994);
}

TEST_F(Timing, failing_rate_request_returns_minus_1_and_the_next_one_works) {
    tv().fail("FR2IP_GetVsyncHZ", EIO);
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), -1);
    EXPECT_EQ(info.fps, kUntouched);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"FR2IP_GetVsyncHZ"}));
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline(kVsync, "ioctl(GetVsyncHZ) failed: Input/output error")}));
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
}

TEST_F(Timing, an_offset_with_a_driver_status_is_not_available_yet_but_the_rate_is_kept) {
    tv().vplt().offset_ret = 1;
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), -1);
    EXPECT_EQ(info.fps, 59.94005994005994);
    EXPECT_EQ(info.tv_sec, -7);
    EXPECT_EQ(info.tv_nsec, -8);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[1].args[7], s32_cell(1));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kVsync, "vsync not available yet")}));
}

TEST_F(Timing, an_offset_status_scripted_as_a_fault_is_not_available_yet) {
    tv().fail_status("FR2IP_GetOffsetFromVsync", 1);
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), -1);
    EXPECT_EQ(info.fps, 59.94005994005994);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kVsync, "vsync not available yet")}));
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
    EXPECT_EQ(info.tv_nsec, 1000000);
}

TEST_F(Timing, failing_offset_request_returns_minus_1_with_the_rate_kept_and_the_next_one_works) {
    tv().fail("FR2IP_GetOffsetFromVsync", EIO);
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), -1);
    EXPECT_EQ(info.fps, 59.94005994005994);
    EXPECT_EQ(info.tv_sec, -7);
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{vline(kVsync, "ioctl(GetOffsetFromVsync) failed: Input/output error")}));
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
    EXPECT_EQ(info.tv_sec, 0);
}

TEST_F(Timing, vsync_info_null_arguments) {
    auto info = fresh_info();
    EXPECT_EQ(quarvel_video_output_get_vsync_info(nullptr, &info), -9);
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{vline(kVsync, "output is null"), vline(kVsync, "info_out is null")}));
}

TEST_F(Timing, used_frames_fills_the_first_two_decoders_only) {
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_TRACE;
    tv().vplt().frames[0] = 4;
    tv().vplt().frames[1] = 6;
    quarvel_video_used_frames_s used{{11, 12, 13, 14}};
    EXPECT_EQ(quarvel_video_output_get_used_frames(out_, &used), 0);
    EXPECT_EQ(used.used_by_decoder[0], 4u);
    EXPECT_EQ(used.used_by_decoder[1], 6u);
    EXPECT_EQ(used.used_by_decoder[2], 13u);
    EXPECT_EQ(used.used_by_decoder[3], 14u);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "FR2IP_GetDirectlyFrames");
    EXPECT_EQ(ev[0].field("cmd"), 1549);
    EXPECT_EQ(ev[0].args[0], u8_cell(0));
    const int32_t frames[2] = {4, 6};
    EXPECT_EQ(ev[0].args[1], bytes_of(frames));
    EXPECT_EQ(ev[0].args[7], s32_cell(0));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kUsed, "dec0(4) dec1(6)")}));
}

TEST_F(Timing, used_frames_ignores_the_driver_status) {
    tv().fail_status("FR2IP_GetDirectlyFrames", 5);
    quarvel_video_used_frames_s used{{0, 0, 0, 0}};
    EXPECT_EQ(quarvel_video_output_get_used_frames(out_, &used), 0);
    EXPECT_EQ(used.used_by_decoder[0], 2u);
    EXPECT_EQ(used.used_by_decoder[1], 1u);
    EXPECT_TRUE(lines().empty());
}

TEST_F(Timing, failing_used_frames_request_returns_minus_1_and_the_next_one_works) {
    tv().fail("FR2IP_GetDirectlyFrames", EIO);
    quarvel_video_used_frames_s used{{9, 9, 9, 9}};
    EXPECT_EQ(quarvel_video_output_get_used_frames(out_, &used), -1);
    EXPECT_EQ(used.used_by_decoder[0], 9u);
    EXPECT_EQ(used.used_by_decoder[1], 9u);
    EXPECT_EQ(
        lines(),
        (std::vector<std::string>{vline(kUsed, "ioctl(GetDirectlyFrames) failed: Input/output error")}));
    EXPECT_EQ(quarvel_video_output_get_used_frames(out_, &used), 0);
    EXPECT_EQ(used.used_by_decoder[0], 2u);
}

TEST_F(Timing, used_frames_null_arguments) {
    quarvel_video_used_frames_s used{};
    EXPECT_EQ(quarvel_video_output_get_used_frames(nullptr, &used), -9);
    EXPECT_EQ(quarvel_video_output_get_used_frames(out_, nullptr), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kUsed, "output is null"),
                                                 vline(kUsed, "used_frames is null")}));
}

TEST_F(Timing, pts_minus_1_is_sent_as_two_all_ones_halves) {
    EXPECT_EQ(quarvel_video_output_set_pts(out_, -1), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "FR2IP_SetPTS");
    EXPECT_EQ(ev[0].request, 0xC0245604ul);
    EXPECT_EQ(ev[0].field("cmd"), 1545);
    EXPECT_EQ(ev[0].args[0], u8_cell(0));
    EXPECT_EQ(ev[0].args[1], (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(ev[0].args[2], (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(ev[0].args[7], s32_cell(0));
    EXPECT_EQ(tv().vplt().last_pts, -1);
    EXPECT_TRUE(lines().empty());
}

TEST_F(Timing, pts_0x100000002_is_sent_as_1_and_2) {
    EXPECT_EQ(quarvel_video_output_set_pts(out_, 0x100000002ll), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].args[1], s32_cell(1));
    EXPECT_EQ(ev[0].args[2], s32_cell(2));
    EXPECT_EQ(ev[0].field("pts_h"), 1);
    EXPECT_EQ(ev[0].field("pts_l"), 2);
}

TEST_F(Timing, pts_is_traced_when_the_trace_level_is_on) {
    g_ruvo_logmask = RUVO_LOG_TRACE;
    EXPECT_EQ(quarvel_video_output_set_pts(out_, -90000), 0);
    EXPECT_EQ(tv().vplt().last_pts, -90000);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kPts, "pts(-90000)")}));
}

TEST_F(Timing, pts_ignores_the_driver_status) {
    tv().fail_status("FR2IP_SetPTS", 5);
    EXPECT_EQ(quarvel_video_output_set_pts(out_, 1234), 0);
    EXPECT_EQ(tv().events()[0].field("status"), 5);
    EXPECT_TRUE(lines().empty());
}

TEST_F(Timing, failing_pts_request_returns_minus_1_and_the_next_one_works) {
    tv().fail("FR2IP_SetPTS", EIO);
    EXPECT_EQ(quarvel_video_output_set_pts(out_, 1234), -1);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kPts, "ioctl(SetPTS) failed: Input/output error")}));
    EXPECT_EQ(quarvel_video_output_set_pts(out_, 1234), 0);
    EXPECT_EQ(tv().vplt().last_pts, 1234);
}

TEST_F(Timing, a_null_handle_in_set_pts_still_traces_the_timestamp_first) {
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_TRACE;
    EXPECT_EQ(quarvel_video_output_set_pts(nullptr, 42), -9);
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline(kPts, "pts(42)"), vline(kPts, "output is null")}));
}

TEST_F(Timing, timing_calls_need_no_started_stream) {
    auto info = fresh_info();
    quarvel_video_used_frames_s used{};
    EXPECT_FALSE(out_->m_first_frame_initialized);
    EXPECT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
    EXPECT_EQ(quarvel_video_output_get_used_frames(out_, &used), 0);
    EXPECT_EQ(quarvel_video_output_set_pts(out_, 1), 0);
    EXPECT_EQ(request_names(), (std::vector<std::string>{"FR2IP_GetVsyncHZ", "FR2IP_GetOffsetFromVsync",
                                                         "FR2IP_GetDirectlyFrames", "FR2IP_SetPTS"}));
}

}  // namespace
