// What the main plane latches at each vsync, in virtual time: the last frame announced,
// the frames superseded before a vsync, the timestamp set and the vsync it lands on, the
// plane's rectangle, mute and source; the log's lines; the scripted answers of the
// virtual clock.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <vector>

#include "emutv/timeline.h"
#include "ruvo/driver/sdp_drm.h"
#include "ruvo/quarvel_video_output.h"
#include "test_support.h"

namespace {

constexpr int64_t kMs = 1000000;

class Latching : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        tv().vplt().vsync_hz = 50000;
        base_ = tv().now_ns();
        tv().set_timeline_listener([this](const emutv::TimelineEntry& e) {
            if (e.type == emutv::TimelineEntry::Type::Vsync)
                vsyncs_.push_back(e);
        });
        out_ = quarvel_video_output_open(false);
        ASSERT_NE(out_, nullptr);
        const quarvel_video_output_rect_s r{100, 50, 960, 540, 0, 0};
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
    }
    void TearDown() override {
        quarvel_video_output_close(out_);
        tv().set_timeline_listener(nullptr);
        PlatformTest::TearDown();
    }
    void at_ms(int64_t ms) { tv().set_virtual_time_ns(base_ + ms * kMs); }
    int push(uint32_t index) {
        frame_.u.dec_info.pFrame[0].display_index = index;
        return quarvel_video_output_push_frame_to_display(out_, &record_);
    }
    int first(uint32_t index) {
        frame_.u.dec_info.pFrame[0].display_index = index;
        return quarvel_video_output_init_with_first_frame(out_, &record_);
    }
    const emutv::TimelineEntry& vsync(int64_t k) {
        for (const auto& e : vsyncs_)
            if (e.vsync == k)
                return e;
        ADD_FAILURE() << "no vsync " << k;
        static emutv::TimelineEntry none;
        return none;
    }

    int64_t base_ = 0;
    v4l2_drm frame_ = ruvo_test::make_frame(1920, 1080);
    quarvel_video_output_frame_s record_{&frame_, -1, {}};
    quarvel_video_output_s* out_ = nullptr;
    std::vector<emutv::TimelineEntry> vsyncs_;
};

TEST_F(Latching, each_vsync_latches_the_last_frame_announced_and_counts_the_superseded) {
    at_ms(5);
    ASSERT_EQ(first(7), 0);
    at_ms(25);
    ASSERT_EQ(push(8), 0);
    at_ms(30);
    ASSERT_EQ(push(9), 0);
    at_ms(35);
    ASSERT_EQ(push(10), 0);
    at_ms(61);
    ASSERT_EQ(vsyncs_.size(), 3u);
    EXPECT_EQ(vsync(1).t_ns, base_ + 20 * kMs);
    EXPECT_EQ(vsync(1).frame, 7);
    EXPECT_TRUE(vsync(1).fresh);
    EXPECT_EQ(vsync(1).dropped, 0);
    EXPECT_EQ(vsync(2).t_ns, base_ + 40 * kMs);
    EXPECT_EQ(vsync(2).frame, 10);
    EXPECT_TRUE(vsync(2).fresh);
    EXPECT_EQ(vsync(2).dropped, 2) << "frames 8 and 9 were never on the panel";
    EXPECT_EQ(vsync(3).frame, 10);
    EXPECT_FALSE(vsync(3).fresh) << "no new frame: the plane repeats";
}

TEST_F(Latching, the_plane_rectangle_mute_and_source_are_those_the_drivers_were_given) {
    at_ms(5);
    ASSERT_EQ(first(1), 0);
    at_ms(21);
    ASSERT_FALSE(vsyncs_.empty());
    const auto& e = vsyncs_.back();
    const auto setplanes = tv().events("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_FALSE(setplanes.empty());
    ASSERT_TRUE(e.has_plane);
    EXPECT_EQ(e.x, setplanes.back().field("crtc_x"));
    EXPECT_EQ(e.y, setplanes.back().field("crtc_y"));
    EXPECT_EQ(static_cast<long long>(e.w), setplanes.back().field("crtc_w"));
    EXPECT_EQ(static_cast<long long>(e.h), setplanes.back().field("crtc_h"));
    EXPECT_EQ(e.source, V4L2_DRM_INPUTPORT_TYPE_MM);
    bool muted = true;
    for (const auto& ev : tv().events("DRM_IOCTL_SDP_SET_ONOFF"))
        if (ev.field("set_func") == DRM_SDP_FUNC_MUTE_ONOFF)
            muted = ev.field("onoff_flag") != 0;
    EXPECT_EQ(e.muted, muted);
}

TEST_F(Latching, a_timestamp_is_recorded_with_the_vsync_it_lands_on) {
    at_ms(5);
    ASSERT_EQ(first(1), 0);
    at_ms(22);
    ASSERT_EQ(quarvel_video_output_set_pts(out_, 90000), 0);
    at_ms(30);
    ASSERT_EQ(quarvel_video_output_set_pts(out_, -5), 0);
    at_ms(45);
    ASSERT_EQ(vsyncs_.size(), 2u);
    EXPECT_FALSE(vsync(1).has_pts);
    EXPECT_TRUE(vsync(1).pts_set.empty());
    EXPECT_EQ(vsync(2).pts_set, (std::vector<int64_t>{90000, -5}));
    EXPECT_TRUE(vsync(2).has_pts);
    EXPECT_EQ(vsync(2).pts, -5);
}

TEST_F(Latching, the_panel_rate_can_change_and_the_grid_goes_on_from_the_last_vsync) {
    at_ms(41);
    tv().vplt().vsync_hz = 60000;
    at_ms(75);
    ASSERT_EQ(vsyncs_.size(), 4u);
    EXPECT_EQ(vsync(2).t_ns, base_ + 40 * kMs);
    EXPECT_EQ(vsync(3).t_ns, base_ + 40 * kMs + 16666666);
    EXPECT_EQ(vsync(4).t_ns, base_ + 40 * kMs + 33333333);
}

TEST_F(Latching, the_virtual_clock_keeps_the_scripted_answers) {
    at_ms(5);
    ASSERT_EQ(first(1), 0);
    at_ms(100);
    quarvel_video_used_frames_s used{};
    ASSERT_EQ(quarvel_video_output_get_used_frames(out_, &used), 0);
    EXPECT_EQ(used.used_by_decoder[0], 2u);
    EXPECT_EQ(used.used_by_decoder[1], 1u);
    quarvel_video_output_vsync_info_s info{};
    ASSERT_EQ(quarvel_video_output_get_vsync_info(out_, &info), 0);
    EXPECT_EQ(info.tv_sec, 0);
    EXPECT_EQ(info.tv_nsec, 1000000);
    EXPECT_DOUBLE_EQ(info.fps, 50.0);
}

TEST_F(Latching, the_log_file_holds_one_json_line_per_entry_that_reads_back_the_same) {
    char path[] = "/tmp/emutv-timeline-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string error;
    ASSERT_TRUE(tv().open_timeline_log(path, &error)) << error;
    at_ms(5);
    ASSERT_EQ(first(3), 0);
    ASSERT_EQ(quarvel_video_output_set_pts(out_, 1234), 0);
    at_ms(41);
    tv().close_timeline_log();
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);)
        lines.push_back(l);
    unlink(path);
    std::vector<std::string> vsync_lines, event_lines;
    for (const auto& l : lines)
        (l.find("{\"type\":\"vsync\"") == 0 ? vsync_lines : event_lines).push_back(l);
    ASSERT_EQ(vsync_lines.size(), 2u);
    const std::string pid = std::to_string(getpid());
    const std::string at = ",\"t_ns\":" + std::to_string(base_ + 5 * kMs) + ",";
    // What the first frame changed, at the time of its requests.
    EXPECT_NE(std::find(event_lines.begin(), event_lines.end(),
                        "{\"type\":\"event\",\"pid\":" + pid + at + "\"what\":\"source\",\"detail\":\"mm\"}"),
              event_lines.end());
    EXPECT_NE(std::find(event_lines.begin(), event_lines.end(),
                        "{\"type\":\"event\",\"pid\":" + pid + at +
                            "\"what\":\"resolution\",\"detail\":\"1920x1080\"}"),
              event_lines.end());
    EXPECT_EQ(vsync_lines[0],
              "{\"type\":\"vsync\",\"pid\":" + pid + ",\"t_ns\":" + std::to_string(base_ + 20 * kMs) +
                  ",\"vsync\":1,\"frame\":3,\"new\":true,\"dropped\":0,\"pts\":1234,\"pts_set\":[1234]," +
                  "\"plane\":{\"x\":" + std::to_string(vsyncs_[0].x) +
                  ",\"y\":" + std::to_string(vsyncs_[0].y) + ",\"w\":" + std::to_string(vsyncs_[0].w) +
                  ",\"h\":" + std::to_string(vsyncs_[0].h) +
                  "},\"muted\":" + (vsyncs_[0].muted ? "true" : "false") + ",\"source\":\"mm\"}");
    for (size_t i = 0; i < lines.size(); ++i) {
        emutv::TimelineEntry e;
        ASSERT_TRUE(emutv::parse_timeline_line(lines[i], &e)) << lines[i];
        EXPECT_EQ(e.json(getpid()), lines[i]);
    }
    EXPECT_FALSE(tv().open_timeline_log("/nonexistent-dir/log", &error));
    EXPECT_EQ(error, "No such file or directory");
}

}  // namespace
