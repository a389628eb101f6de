// The figures, computed from a made-up timeline whose answers are known.
#include <gtest/gtest.h>
#include <stdio.h>

#include <fstream>

#include "conformance.h"

using namespace conformance;

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kVsync = 20 * kMs;  // 50 Hz panel
constexpr int64_t kT0 = 1000 * kMs;

// A 25 fps stream on a 50 Hz panel: frame i is latched at vsync 2i, its timestamp i*40 ms
// (90 kHz units); the audio decoder plays from kT0 on, `audio_lead_ms` ahead of the video.
// With `skip_frame`, the decoder skips one display index there (a frame never latched).
std::string timeline_text(int vsyncs, double audio_lead_ms, int skip_frame = -1) {
    std::string out;
    for (int v = 0; v < vsyncs; ++v) {
        bool fresh = v % 2 == 0;
        long frame = v / 2;
        long index = frame + 1 + (skip_frame >= 0 && frame >= skip_frame ? 1 : 0);
        int64_t t = kT0 + v * kVsync;
        out += "{\"type\":\"vsync\",\"pid\":1,\"t_ns\":" + std::to_string(t) +
               ",\"vsync\":" + std::to_string(v) + ",\"frame\":" + std::to_string(index) +
               ",\"new\":" + (fresh ? "true" : "false") +
               ",\"dropped\":0,\"pts\":" + std::to_string(frame * 3600) + ",\"pts_set\":[" +
               (fresh ? std::to_string(frame * 3600) : std::string()) +
               "],\"plane\":{\"x\":0,\"y\":0,\"w\":1920,\"h\":1080},\"muted\":false,\"source\":"
               "\"mm\"}\n";
        int64_t media_us = static_cast<int64_t>(v * 20000 + audio_lead_ms * 1000);
        out += "{\"type\":\"audio\",\"pid\":1,\"t_ns\":" + std::to_string(t) +
               ",\"frames\":" + std::to_string(v * 960) +
               ",\"played\":960,\"media_us\":" + std::to_string(media_us) +
               ",\"muted\":false,\"rate\":100,\"queued\":0,\"avail\":0,\"undecodable\":0}\n";
    }
    return out;
}

Timeline load(const std::string& text) {
    char path[] = "/tmp/conformance-timeline-XXXXXX";
    int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    FILE* f = fdopen(fd, "w");
    fputs(text.c_str(), f);
    fclose(f);
    Timeline tl;
    std::string error;
    EXPECT_TRUE(read_timeline(path, &tl, &error)) << error;
    remove(path);
    return tl;
}

Scenario scenario() {
    Scenario s;
    s.name = "made-up";
    return s;
}

RunResult run_from_start() {
    RunResult r;
    r.play_mono_ns = kT0 - 5 * kMs;
    r.audio_bases.push_back({kT0 - 50 * kMs, 0});
    return r;
}

}  // namespace

TEST(ConformanceFigures, sound_within_the_frame_on_the_panel_is_in_sync) {
    // Each 40 ms frame stands for [pts, pts + 40 ms): sound 10 ms on is inside it at both
    // vsyncs the frame is on the panel.
    Timeline tl = load(timeline_text(500, 10));
    ASSERT_EQ(tl.vsyncs.size(), 500u);
    EXPECT_EQ(tl.vsync_period_ns, kVsync);
    Figures f = compute_figures(scenario(), run_from_start(), tl, nullptr);
    EXPECT_GT(f.av_samples, 400u);
    EXPECT_DOUBLE_EQ(f.av_max_ms, 0);
}

TEST(ConformanceFigures, sound_past_the_frame_on_the_panel_shows_as_a_negative_offset) {
    // Sound 50 ms on: 10 ms past the frame at its first vsync, 30 ms at its second.
    Figures f = compute_figures(scenario(), run_from_start(), load(timeline_text(500, 50)), nullptr);
    EXPECT_DOUBLE_EQ(f.av_max_ms, 30);
    EXPECT_DOUBLE_EQ(f.av_p99_ms, 30);
    EXPECT_DOUBLE_EQ(f.av_p50_ms, -30);
}

TEST(ConformanceFigures, a_picture_ahead_of_the_sound_shows_as_a_positive_offset) {
    // Sound 10 ms behind the frame's timestamp at its first vsync, inside it at the second.
    Figures f = compute_figures(scenario(), run_from_start(), load(timeline_text(500, -10)), nullptr);
    EXPECT_DOUBLE_EQ(f.av_max_ms, 10);
    EXPECT_DOUBLE_EQ(f.av_p50_ms, 0);
}

// The decoder names the block its stream started with; the sink had left the first buffer
// out (a late frame after a codec switch), so the stream begins 20 ms later in media time.
TEST(ConformanceFigures, the_stream_starts_with_the_block_the_decoder_named) {
    const std::string started = "{\"type\":\"event\",\"pid\":1,\"t_ns\":" + std::to_string(kT0 - 10 * kMs) +
                                ",\"what\":\"audio-stream\",\"detail\":\"tail=0000beef\"}\n";
    RunResult r = run_from_start();
    r.audio_candidates = {{kT0 - 50 * kMs, -20 * kMs, "0000dead"}, {kT0 - 30 * kMs, 0, "0000beef"}};
    Timeline tl = load(started + timeline_text(500, -20));
    ASSERT_EQ(tl.audio_streams.size(), 1u);
    EXPECT_EQ(tl.audio_streams[0].tail, "0000beef");
    // Sound 20 ms behind, from the named block (PTS 0): in sync.
    Figures f = compute_figures(scenario(), r, tl, nullptr);
    EXPECT_DOUBLE_EQ(f.av_max_ms, 20);
    EXPECT_DOUBLE_EQ(f.av_p50_ms, 0);
    // Were the first buffer taken as the start (PTS -20 ms), the sound would seem 40 ms behind.
    r.audio_candidates[1].tail = "00000000";
    r.audio_bases = {{kT0 - 50 * kMs, -20 * kMs}};
    EXPECT_DOUBLE_EQ(compute_figures(scenario(), r, tl, nullptr).av_max_ms, 40);
}

TEST(ConformanceFigures, a_display_index_never_latched_counts_as_dropped) {
    Figures f = compute_figures(scenario(), run_from_start(), load(timeline_text(100, 0, 20)), nullptr);
    EXPECT_EQ(f.dropped, 1u);
    EXPECT_EQ(f.repeated, 0u);
    Figures clean = compute_figures(scenario(), run_from_start(), load(timeline_text(100, 0)), nullptr);
    EXPECT_EQ(clean.dropped, 0u);
    EXPECT_EQ(clean.latches, 50u);
}

TEST(ConformanceFigures, first_frame_latency_in_vsyncs_from_playing) {
    RunResult r = run_from_start();
    r.play_mono_ns = kT0 + 15 * kMs;  // frame 1 shown; frame 2 latched at kT0 + 40 ms
    Figures f = compute_figures(scenario(), r, load(timeline_text(50, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.first_frame_vsyncs, 25.0 / 20.0);
}

TEST(ConformanceFigures, a_position_ahead_of_the_panel_is_measured) {
    RunResult r = run_from_start();
    // 1 s after the start the panel shows the frame of [1000, 1040) ms; POSITION says 1070 ms.
    r.positions.push_back({kT0 + 1000 * kMs + kMs, 1070 * kMs});
    r.positions.push_back({kT0 + 2000 * kMs + kMs, 1990 * kMs});
    Figures f = compute_figures(scenario(), r, load(timeline_text(200, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.position_ahead_max_ms, 30);
    check_goals(scenario(), &f);
    ASSERT_FALSE(f.missed.empty());
    EXPECT_EQ(f.missed[0].rfind("position-ahead-ms 30", 0), 0u) << f.missed[0];
}

TEST(ConformanceFigures, position_and_av_are_not_judged_while_a_seek_or_a_storm_is_under_way) {
    RunResult r = run_from_start();
    // During the seek POSITION already answers its target; the decoder still plays the old
    // stream while the panel shows the new one (audio 500 ms ahead from 1 s on).
    r.positions.push_back({kT0 + 1000 * kMs + kMs, 5000 * kMs});
    r.transitions.push_back({kT0 + 990 * kMs, kT0 + 1010 * kMs});
    Figures f = compute_figures(scenario(), r, load(timeline_text(200, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.position_ahead_max_ms, 0);
    r.transitions.clear();
    f = compute_figures(scenario(), r, load(timeline_text(200, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.position_ahead_max_ms, 3960);
}

// A seek lands on the first frame that reaches the video sink after its flush, once the
// panel shows it; what played before the seek does not count.
TEST(ConformanceFigures, a_seek_lands_on_the_first_frame_after_its_flush_that_the_panel_showed) {
    RunResult r = run_from_start();
    // Asked at 1 s for 2030 ms, done 10 ms later; the first frame after the flush is 2040 ms
    // (latched at kT0 + 2040 ms in the made-up timeline, where frame i is i*40 ms).
    r.seeks.push_back({kT0 + 1010 * kMs, 2030 * kMs, 1.0});
    r.transitions.push_back({kT0 + 1000 * kMs, kT0 + 1010 * kMs});
    r.video_landings.push_back({kT0 + 500 * kMs, 520 * kMs});  // an earlier flush
    r.video_landings.push_back({kT0 + 1005 * kMs, 2040 * kMs});
    Figures f = compute_figures(scenario(), r, load(timeline_text(200, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.seek_landing_max_ms, 10);
    EXPECT_EQ(f.seeks_unlanded, 0u);
    // A frame the panel never showed is no landing: the seek counts as one that never landed.
    r.video_landings.back().second = 2041 * kMs;
    f = compute_figures(scenario(), r, load(timeline_text(200, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.seek_landing_max_ms, 0);
    EXPECT_EQ(f.seeks_unlanded, 1u);
    check_goals(scenario(), &f);
    ASSERT_EQ(f.missed.size(), 1u);
    EXPECT_EQ(f.missed[0].rfind("seeks-unlanded 1", 0), 0u) << f.missed[0];
}

// The first frame after a flush may be followed by the next one before the vsync it was set
// for: the panel shows that next one, and that is where the seek landed.
TEST(ConformanceFigures, a_first_frame_superseded_within_its_vsync_lands_where_the_panel_shows_the_next) {
    RunResult r = run_from_start();
    r.seeks.push_back({kT0 + 1010 * kMs, 2030 * kMs, 1.0});
    r.transitions.push_back({kT0 + 1000 * kMs, kT0 + 1010 * kMs});
    r.video_landings.push_back({kT0 + 1005 * kMs, 2030 * kMs});  // clipped to the target
    std::string text = timeline_text(200, 0);
    // Set for the vsync that shows frame 51 (2040 ms), before that frame.
    const std::string set_alone = "\"pts_set\":[183600]";
    const size_t at = text.find(set_alone);
    ASSERT_NE(at, std::string::npos);
    text.replace(at, set_alone.size(), "\"pts_set\":[182700,183600]");
    Figures f = compute_figures(scenario(), r, load(text), nullptr);
    EXPECT_EQ(f.seeks_unlanded, 0u);
    EXPECT_DOUBLE_EQ(f.seek_landing_max_ms, 10);  // 2040 ms shown for 2030 ms
}

TEST(ConformanceFigures, position_after_the_last_frame_follows_the_sound_alone) {
    RunResult r = run_from_start();
    // The last frame [3960, 4000) ms stays on the panel; the sound goes on to 4037 ms.
    r.positions.push_back({kT0 + 3990 * kMs, 4037 * kMs});
    Figures f = compute_figures(scenario(), r, load(timeline_text(200, 0)), nullptr);
    EXPECT_DOUBLE_EQ(f.position_ahead_max_ms, 0);
}

TEST(ConformanceFigures, storms_that_grow_descriptors_or_memory_miss_their_goals) {
    RunResult r = run_from_start();
    r.resources = {{"cycle-start", 10000, 12}, {"cycle-end", 12000, 13}};
    Figures f = compute_figures(scenario(), r, load(timeline_text(10, 0)), nullptr);
    EXPECT_EQ(f.rss_growth_kib, 2000);
    EXPECT_EQ(f.fd_growth, 1);
    check_goals(scenario(), &f);
    EXPECT_EQ(f.missed.size(), 2u);
}

TEST(ConformanceFigures, cpu_per_frame_against_the_fake_sinks) {
    RunResult r = run_from_start(), fake;
    r.cpu_seconds = 3.0;
    r.frames_rendered = 750;
    fake.cpu_seconds = 2.0;
    fake.frames_rendered = 750;
    Figures f = compute_figures(scenario(), r, load(timeline_text(10, 0)), &fake);
    EXPECT_DOUBLE_EQ(f.cpu_ratio, 1.5);
}

TEST(ConformanceFigures, a_scenario_can_leave_a_figure_unjudged) {
    Scenario s = scenario();
    s.goals["dropped"] = -1;
    Figures f = compute_figures(s, run_from_start(), load(timeline_text(100, 0, 20)), nullptr);
    check_goals(s, &f);
    EXPECT_TRUE(f.missed.empty());
}
