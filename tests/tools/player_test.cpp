// The session player run in-process on the emulated platform: bad scenarios stop before
// any library call, results are checked against expectations, virtual time and the audio
// decoder behave, and the picture shows the plane where the trace put it.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <algorithm>
#include <cmath>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "player.h"
#include "svg.h"

namespace {

std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        out.push_back(line);
    return out;
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

class PlayerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        emutv::platform().reset();
        dir_ = ::testing::TempDir() + "tvsp-" + std::to_string(getpid()) + "-" +
               ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ::mkdir(dir_.c_str(), 0755);
    }

    std::string scenario(const std::string& text) {
        std::string path = dir_ + "/s.scn";
        std::ofstream(path, std::ios::trunc) << text;
        return path;
    }

    int play(std::vector<std::string> args) {
        std::vector<char*> argv;
        static char name[] = "tv-session-player";
        argv.push_back(name);
        for (auto& a : args)
            argv.push_back(&a[0]);
        fflush(stdout);
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        int rc = tvsp::player_main(static_cast<int>(argv.size()), argv.data());
        fflush(stdout);
        out_ = ::testing::internal::GetCapturedStdout();
        err_ = ::testing::internal::GetCapturedStderr();
        return rc;
    }

    // Lines of the player's output that start with `prefix`.
    std::vector<std::string> lines(const std::string& prefix) const {
        std::vector<std::string> out;
        for (const auto& l : split(out_))
            if (l.compare(0, prefix.size(), prefix) == 0)
                out.push_back(l);
        return out;
    }

    bool has_line(const std::string& line) const {
        for (const auto& l : split(out_))
            if (l == line)
                return true;
        return false;
    }

    void expect_nothing_done(const std::string& svg) {
        auto& tv = emutv::platform();
        EXPECT_EQ(tv.total_requests(), 0u);
        EXPECT_EQ(tv.count("open"), 0u);
        EXPECT_EQ(tv.open_descriptors(), 0);
        EXPECT_EQ(out_, "");
        EXPECT_FALSE(exists(svg));
    }

    std::string dir_;
    std::string out_, err_;
};

// ---- Bad scenarios ------------------------------------------------------------------------

TEST_F(PlayerTest, SyntaxErrorStopsBeforeAnyLibraryCall) {
    std::string path =
        scenario("video open\nvideo rect 0 0 1920 1080\nvideo first-frame\nvideo rect 0 0 =1920 1080\n");
    std::string svg = dir_ + "/out.svg";
    EXPECT_EQ(play({"--svg", svg, path}), tvsp::kExitUsage);
    EXPECT_EQ(err_, path + ":4: video rect: expected key=value or a value, got '=1920'\n");
    expect_nothing_done(svg);
}

TEST_F(PlayerTest, UnknownCommandStopsBeforeAnyLibraryCall) {
    std::string path = scenario("platform panel 1920 1080\nvideo open\n# comment\nvideo play\n");
    std::string svg = dir_ + "/out.svg";
    EXPECT_EQ(play({"--svg", svg, path}), tvsp::kExitUsage);
    EXPECT_EQ(err_,
              path +
                  ":4: unknown command 'video play' (video commands: open, close, panel, rect, hide, show, "
                  "first-frame, frame, frames, next-res, vsync, used, pts, notify-ta)\n");
    expect_nothing_done(svg);
    // The platform line before it was not applied either.
    EXPECT_EQ(emutv::platform().drm().connectors[0].mm_width, 0u);
}

TEST_F(PlayerTest, OutOfRangeValueStopsBeforeAnyLibraryCall) {
    std::string path = scenario(
        "platform compr-device /dev/snd/comprC0D0\naudio open /dev/snd/comprC0D0\n"
        "audio setup 0 48000\n");
    std::string svg = dir_ + "/out.svg";
    EXPECT_EQ(play({"--svg", svg, path}), tvsp::kExitUsage);
    EXPECT_EQ(err_, path + ":3: audio setup: channels=0 is out of range (1..32)\n");
    expect_nothing_done(svg);
    EXPECT_FALSE(emutv::platform().present("/dev/snd/comprC0D0"));
}

TEST_F(PlayerTest, BadLineAtTheEndOfALongScenarioStillStopsEverything) {
    std::ifstream in(std::string(RUVO_SCENARIO_DIR) + "/default.scn");
    std::stringstream text;
    text << in.rdbuf() << "wait -1\n";
    std::string path = scenario(text.str());
    size_t lines_before = split(text.str()).size();
    std::string svg = dir_ + "/out.svg";
    EXPECT_EQ(play({"--svg", svg, path}), tvsp::kExitUsage);
    EXPECT_EQ(err_,
              path + ":" + std::to_string(lines_before) + ": wait: ms=-1 is out of range (0..86400000) ms\n");
    expect_nothing_done(svg);
}

TEST_F(PlayerTest, MissingScenarioFileIsReported) {
    EXPECT_EQ(play({dir_ + "/none.scn"}), tvsp::kExitUsage);
    EXPECT_EQ(err_, dir_ + "/none.scn: cannot read: No such file or directory\n");
    EXPECT_EQ(emutv::platform().total_requests(), 0u);
}

TEST_F(PlayerTest, CommandLineMistakesAreUsageErrors) {
    EXPECT_EQ(play({}), tvsp::kExitUsage);
    EXPECT_EQ(err_, "tv-session-player: expected a scenario file (see --help)\n");
    EXPECT_EQ(play({"--colour", "x.scn"}), tvsp::kExitUsage);
    EXPECT_EQ(err_, "tv-session-player: unknown option '--colour' (see --help)\n");
    EXPECT_EQ(play({"--svg"}), tvsp::kExitUsage);
    EXPECT_EQ(err_, "tv-session-player: --svg: expected a file name\n");
}

TEST_F(PlayerTest, HelpDescribesTheProgramAndTheGrammar) {
    EXPECT_EQ(play({"--help"}), tvsp::kExitOk);
    EXPECT_NE(out_.find("Usage: tv-session-player"), std::string::npos);
    EXPECT_NE(out_.find("video rect X Y W H [dar=W:H]"), std::string::npos);
    EXPECT_NE(out_.find("platform fail REQUEST ERRNO [TIMES]"), std::string::npos);
    EXPECT_EQ(emutv::platform().total_requests(), 0u);
}

TEST_F(PlayerTest, CheckOnlyParsesAndMakesNoCall) {
    std::string path = scenario("track a\nvideo open\ntrack b\nwait 5\n");
    EXPECT_EQ(play({"--check", path}), tvsp::kExitOk);
    EXPECT_EQ(out_, path + ": 2 commands in 3 tracks\n");
    EXPECT_EQ(emutv::platform().total_requests(), 0u);
    EXPECT_EQ(emutv::platform().count("open"), 0u);
}

// ---- Results and expectations -------------------------------------------------------------

TEST_F(PlayerTest, ExpectedResultsGiveExitStatusZero) {
    std::string path =
        scenario("video open\nvideo pts 1800\nvideo pts 5 handle=null expect=-9\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", path}), tvsp::kExitOk);
    EXPECT_EQ(err_, "");
    EXPECT_TRUE(has_line("result: t=0 quarvel_video_output_set_pts -> 0"));
    EXPECT_TRUE(has_line("result: t=0 quarvel_video_output_set_pts -> -9"));
    EXPECT_TRUE(has_line("summary: OK"));
}

TEST_F(PlayerTest, AnUnexpectedResultGivesExitStatusOneAndNamesTheLine) {
    std::string path = scenario("video open\nplatform fail FR2IP_SetPTS EIO\nvideo pts 1800\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", path}), tvsp::kExitMismatch);
    EXPECT_EQ(err_, path + ":3: quarvel_video_output_set_pts returned -1, expected 0\n");
    EXPECT_TRUE(has_line("result: t=0 quarvel_video_output_set_pts -> -1 (expected 0) UNEXPECTED"));
    EXPECT_TRUE(has_line("summary: FAILED"));
}

TEST_F(PlayerTest, ACallWithoutItsOutputIsSkippedAndCountsAsUnexpected) {
    std::string path = scenario("platform absent /dev/kdolby\nvideo open\nvideo rect 0 0 1 1\n");
    EXPECT_EQ(play({"--no-svg", path}), tvsp::kExitMismatch);
    EXPECT_EQ(err_, path + ":2: quarvel_video_output_open returned -1, expected 0\n" + path +
                        ":3: quarvel_video_output_set_rect not called: no video output is open\n");
}

// Opening an output that is open, and a call on an output that is not, are skipped: no
// call line and no call counted, a skip line and the line named on stderr.
TEST_F(PlayerTest, OpeningAnOpenOutputAgainOrCallingAClosedOneIsSkipped) {
    std::string path = scenario(
        "platform compr-device /dev/snd/comprC0D0\nvideo open\nvideo open\naudio open /dev/snd/comprC0D0\n"
        "audio open /dev/snd/comprC0D0\naudio close\naudio info\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitMismatch);
    EXPECT_EQ(err_, path + ":3: quarvel_video_output_open not called: a video output is already open\n" +
                        path + ":5: quarvel_audio_output_open not called: an audio output is already open\n" +
                        path + ":7: quarvel_audio_output_get_info not called: no audio output is open\n");
    EXPECT_TRUE(
        has_line("result: t=0 quarvel_video_output_open skipped: a video output is already open UNEXPECTED"));
    EXPECT_TRUE(has_line(
        "result: t=0 quarvel_audio_output_open skipped: an audio output is already open UNEXPECTED"));
    EXPECT_TRUE(
        has_line("result: t=0 quarvel_audio_output_get_info skipped: no audio output is open UNEXPECTED"));
    EXPECT_EQ(lines("call:").size(), 4u);
    EXPECT_NE(out_.find(", 4 library calls, 3 unexpected\n"), std::string::npos) << out_;
}

// Each call line calls its own function of the library, in the order of the lines: its
// call line names the function, and what happens up to its result line is that
// function's own (a line of the library or a driver request no other call makes here).
TEST_F(PlayerTest, EveryCallLineCallsItsOwnFunction) {
    std::string path = scenario(
        "platform compr-device /dev/snd/comprC0D0\n"
        "video open\nvideo panel\nvideo rect 0 0 1920 1080\nvideo hide\nvideo show\nvideo first-frame\n"
        "video frame\nvideo next-res size=1280x720\nvideo vsync\nvideo used\nvideo pts 5\nvideo notify-ta\n"
        "video close\naudio open /dev/snd/comprC0D0\naudio setup 2 48000\naudio sync-mode 0\naudio start\n"
        "audio push 4096\naudio info\naudio volume 0.5\naudio speed 1.5\naudio stop\naudio close\n");
    EXPECT_EQ(play({"--no-svg", path}), tvsp::kExitOk) << err_;
    struct Expected {
        const char* fn;
        const char* own;  // empty: the call makes no driver request
    };
    const std::vector<Expected> expected = {
        {"quarvel_video_output_open", "DRM_IOCTL_MODE_GETRESOURCES"},
        {"quarvel_video_output_get_panel_size", "quarvel_video_output_get_panel_size(208)"},
        {"quarvel_video_output_set_rect", "set_rect(99) x(0) y(0) w(1920) h(1080)"},
        {"quarvel_video_output_set_rect", "set_rect(99) x(0) y(0) w(0) h(1080)"},
        {"quarvel_video_output_set_rect", "set_rect(99) x(0) y(0) w(1920) h(1080)"},
        {"quarvel_video_output_init_with_first_frame", "FR2IP_SetDispQueueSize"},
        {"quarvel_video_output_push_frame_to_display", "display_index=2 hres=1920"},
        {"quarvel_video_output_set_next_res", "FR2IP_SetNextResolution"},
        {"quarvel_video_output_get_vsync_info", "FR2IP_GetVsyncHZ"},
        {"quarvel_video_output_get_used_frames", "FR2IP_GetDirectlyFrames"},
        {"quarvel_video_output_set_pts", "FR2IP_SetPTS"},
        {"quarvel_video_output_notify_ta_switch", "notify_ta_switch(85) not TA case"},
        {"quarvel_video_output_close", "DRM_IOCTL_MODE_RMFB"},
        {"quarvel_audio_output_open", "comprC0D0 open"},
        {"quarvel_audio_output_setup", "SNDRV_COMPRESS_SET_PARAMS"},
        {"quarvel_audio_output_set_sync_mode", "key=20 value=7"},
        {"quarvel_audio_output_start", ""},
        {"quarvel_audio_output_push_data", "SNDRV_COMPRESS_START"},
        {"quarvel_audio_output_get_info", "SNDRV_COMPRESS_TSTAMP"},
        {"quarvel_audio_output_volume_control", "name=\"qvl speaker main gain\""},
        {"quarvel_audio_output_speed_control", "name=\"audio dec0 playback rate\""},
        {"quarvel_audio_output_stop", "SNDRV_COMPRESS_STOP"},
        {"quarvel_audio_output_close", "comprC0D0 close"},
    };
    static const std::regex call_line(R"(^call: t=\S+ \S+:\d+ (\w+)\(.*$)");
    std::vector<std::string> segments;  // each call's lines, up to its result line
    std::vector<std::string> called;
    for (const auto& l : split(out_)) {
        std::smatch m;
        if (std::regex_match(l, m, call_line)) {
            called.push_back(m[1]);
            segments.emplace_back();
        } else if (!segments.empty()) {
            segments.back() += l + "\n";
        }
    }
    ASSERT_EQ(called.size(), expected.size()) << out_;
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(called[i], expected[i].fn) << "call " << i;
        if (*expected[i].own)
            EXPECT_NE(segments[i].find(expected[i].own), std::string::npos) << called[i] << ":\n"
                                                                            << segments[i];
        else
            EXPECT_EQ(segments[i].find("trace:"), std::string::npos) << called[i] << ":\n" << segments[i];
    }
}

TEST_F(PlayerTest, OpenExpectedToFailPasses) {
    std::string path = scenario("platform absent /dev/kdolby\nvideo open expect=-1\n");
    EXPECT_EQ(play({"--no-svg", path}), tvsp::kExitOk);
    EXPECT_TRUE(has_line("result: t=0 quarvel_video_output_open -> -1 (null)"));
}

TEST_F(PlayerTest, QuietLeavesOutExpectedCallsButNotTheLibraryOrTheTrace) {
    std::string path = scenario("video open\nvideo pts 7\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--quiet", path}), tvsp::kExitOk);
    EXPECT_TRUE(lines("call:").empty());
    EXPECT_TRUE(lines("result:").empty());
    EXPECT_FALSE(lines("trace:").empty());
    EXPECT_FALSE(lines("[qvl_disp_corvi] quarvel_video_output_open(").empty());
}

// ---- Trace --------------------------------------------------------------------------------

TEST_F(PlayerTest, EveryDriverRequestIsTracedWithTimeAndRecordNumber) {
    std::string path = scenario("video open\nwait 40\nvideo pts 0x100000002\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", path}), tvsp::kExitOk);
    auto trace = lines("trace: ");
    ASSERT_FALSE(trace.empty());
    static const std::regex form(R"(^trace: t=\d+(\.\d{3})? #(\d+) \S+ \S+ \S+.* -> -?\d+( \(.*\))?$)");
    unsigned long expected_seq = 1;
    for (const auto& l : trace) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, form)) << l;
        EXPECT_EQ(std::stoul(m[2]), expected_seq++) << l;
    }
    EXPECT_EQ(trace.size(), emutv::platform().count("open") + emutv::platform().count("close") +
                                emutv::platform().total_requests() + emutv::platform().count("dlopen"));
    std::vector<std::string> at40 = lines("trace: t=40 ");
    ASSERT_FALSE(at40.empty());
    std::string pts = at40[0];  // the timestamp, then the close sequence
    EXPECT_NE(pts.find(" vplt /dev/qvl/qvkvplt FR2IP_SetPTS fd="), std::string::npos) << pts;
    EXPECT_NE(pts.find(" pts_h=1 pts_l=2 "), std::string::npos) << pts;
}

TEST_F(PlayerTest, NoTraceLeavesTheTraceOut) {
    std::string path = scenario("video open\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    EXPECT_TRUE(lines("trace:").empty());
    EXPECT_FALSE(lines("call:").empty());
}

// ---- Virtual time -------------------------------------------------------------------------

TEST_F(PlayerTest, FrameLinesTakeOneFramePeriodEachAndTheNextLineFollows) {
    std::string path = scenario(
        "video open\nvideo rect 0 0 1920 1080\nvideo first-frame\nvideo frame count=3\n"
        "video frame framerate=25000\nvideo pts 1\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    auto calls = lines("call: ");
    std::vector<std::string> frame_times;
    for (const auto& c : calls)
        if (c.find("push_frame_to_display") != std::string::npos)
            frame_times.push_back(c.substr(0, c.find(' ', 6)));
    EXPECT_EQ(frame_times, (std::vector<std::string>{"call: t=0", "call: t=20", "call: t=40", "call: t=60"}));
    EXPECT_EQ(lines("call: t=100 ").size(), 2u);  // set_pts and close after one 25 Hz period
}

TEST_F(PlayerTest, TracksRunSideBySideInVirtualTime) {
    std::string path = scenario(
        "track a\nvideo open\nwait 10\nvideo pts 1\nwait 20\nvideo pts 3\nvideo close\n"
        "track b\nat 15\nvideo pts 2 handle=null expect=-9\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    std::vector<std::string> order;
    for (const auto& c : lines("call: "))
        order.push_back(c.substr(0, c.find(" quarvel")));
    EXPECT_EQ(order, (std::vector<std::string>{"call: t=0 " + path + ":2", "call: t=10 " + path + ":4",
                                               "call: t=15 " + path + ":10", "call: t=30 " + path + ":6",
                                               "call: t=30 " + path + ":7"}));
}

TEST_F(PlayerTest, MovingWindowIsSetInEqualStepsBeforeEachFrame) {
    std::string path = scenario(
        "video open\nvideo rect 0 0 1920 1080\nvideo first-frame\n"
        "video frame count=4 to=960,540,960,540\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    std::vector<std::string> rects;
    for (const auto& c : lines("call: "))
        if (c.find("set_rect(") != std::string::npos)
            rects.push_back(c.substr(c.find("set_rect(")));
    EXPECT_EQ(rects,
              (std::vector<std::string>{
                  "set_rect(x=0 y=0 w=1920 h=1080 dar=0:0)", "set_rect(x=240 y=135 w=1680 h=945 dar=0:0)",
                  "set_rect(x=480 y=270 w=1440 h=810 dar=0:0)", "set_rect(x=720 y=405 w=1200 h=675 dar=0:0)",
                  "set_rect(x=960 y=540 w=960 h=540 dar=0:0)"}));
}

TEST_F(PlayerTest, HideAndShowUseTheLastRectangle) {
    std::string path =
        scenario("video open\nvideo rect 10 20 640 360 dar=16:9\nvideo hide\nvideo show\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    std::vector<std::string> rects;
    for (const auto& c : lines("call: "))
        if (c.find("set_rect(") != std::string::npos)
            rects.push_back(c.substr(c.find("set_rect(")));
    EXPECT_EQ(rects, (std::vector<std::string>{"set_rect(x=10 y=20 w=640 h=360 dar=16:9)",
                                               "set_rect(x=10 y=20 w=0 h=360 dar=16:9)",
                                               "set_rect(x=10 y=20 w=640 h=360 dar=16:9)"}));
}

// ---- The emulated audio decoder -----------------------------------------------------------

TEST_F(PlayerTest, AudioDecoderPlaysAtTheSampleRateOnceStarted) {
    // Ring buffer 8 x 4096, decoder buffer 8192; 48 kHz stereo plays 192 bytes a millisecond.
    std::string path = scenario(
        "platform compr-device /dev/snd/comprC0D0\naudio open /dev/snd/comprC0D0\n"
        "audio setup 2 48000\naudio info\naudio push 4096 count=4\nwait 10\naudio info\n"
        "audio close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    // Before the first push: nothing queued, the whole ring free but the reserve.
    EXPECT_TRUE(has_line(
        "result: t=0 quarvel_audio_output_get_info -> 0 frames_delay=0 bytes_free=32628 remain_size=0"));
    // 16384 bytes written, 1920 played: 14464 bytes = 3616 frames behind; the decoder holds
    // 8192 not yet played, the ring 16384 - 10112.
    EXPECT_TRUE(
        has_line("result: t=10 quarvel_audio_output_get_info -> 0 frames_delay=3616 bytes_free=26356 "
                 "remain_size=8192"));
}

TEST_F(PlayerTest, BackPressureIsRetriedAfterVirtualTimeAdvances) {
    std::string path = scenario(
        "platform compr-device /dev/snd/comprC0D0\nplatform compr buffer=8192 dsp=0\n"
        "audio open /dev/snd/comprC0D0\naudio setup 2 48000\naudio push 4096 count=3 retry=5\n"
        "audio close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    std::vector<std::string> results;
    for (const auto& l : lines("result: "))
        if (l.find("push_data") != std::string::npos)
            results.push_back(l);
    EXPECT_EQ(results, (std::vector<std::string>{
                           "result: t=0 quarvel_audio_output_push_data -> 0",
                           "result: t=0 quarvel_audio_output_push_data -> 0",
                           "result: t=0 quarvel_audio_output_push_data -> -2 no space, retry in 5 ms",
                           "result: t=5 quarvel_audio_output_push_data -> -2 no space, retry in 5 ms",
                           "result: t=10 quarvel_audio_output_push_data -> -2 no space, retry in 5 ms",
                           "result: t=15 quarvel_audio_output_push_data -> -2 no space, retry in 5 ms",
                           "result: t=20 quarvel_audio_output_push_data -> -2 no space, retry in 5 ms",
                           "result: t=25 quarvel_audio_output_push_data -> 0",
                       }));
    EXPECT_NE(
        out_.find("summary: audio frames pushed 3072 (3 blocks, 12288 bytes), back-pressure answers 5\n"),
        std::string::npos);
}

TEST_F(PlayerTest, ABlockThatNeverFindsRoomGivesUp) {
    // The stream never starts (nothing plays), so the third block never fits.
    std::string path = scenario(
        "platform compr-device /dev/snd/comprC0D0\nplatform compr buffer=8192\n"
        "platform fail SNDRV_COMPRESS_START EIO always\n"
        "audio open /dev/snd/comprC0D0\naudio setup 2 48000\n"
        "audio push 4096 expect=-4\naudio push 4096\n"
        "audio push 4096 retry=5 max-retries=3\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitMismatch);
    EXPECT_EQ(err_, path + ":8: quarvel_audio_output_push_data returned -2, expected 0\n");
    EXPECT_TRUE(
        has_line("result: t=15 quarvel_audio_output_push_data -> -2 no space after 3 retries (expected 0) "
                 "UNEXPECTED"));
}

// ---- Summary ------------------------------------------------------------------------------

TEST_F(PlayerTest, SummaryCountsFramesHidesSourcesAndRequests) {
    std::string path = scenario(
        "video open\nvideo rect 0 0 1920 1080\nvideo first-frame port=hdmi\n"
        "video frame count=3\nvideo hide\nvideo frame count=2\nvideo show\n"
        "video frame port=mm\nvideo close\n");
    EXPECT_EQ(play({"--no-svg", "--no-trace", path}), tvsp::kExitOk);
    EXPECT_NE(out_.find("summary: frames pushed 6, accepted 6, shown 4, null frames 0\n"), std::string::npos);
    EXPECT_NE(
        out_.find(
            "summary: plane programmed 2 times, hides requested 1, video muted 1 times, unmuted 2 times\n"),
        std::string::npos);
    EXPECT_NE(out_.find("summary: source changes 2: none->hdmi at 0 ms, hdmi->mm at 100 ms\n"),
              std::string::npos);
    EXPECT_NE(out_.find("summary:   DRM_IOCTL_MODE_SETPLANE            2\n"), std::string::npos);
    EXPECT_NE(out_.find("summary:   DRM_IOCTL_SDP_SET_ONOFF            3\n"), std::string::npos);
}

// ---- The picture --------------------------------------------------------------------------

std::map<std::string, std::string> attributes(const std::string& element) {
    std::map<std::string, std::string> out;
    static const std::regex attr(R"re(([a-z-]+)="([^"]*)")re");
    for (std::sregex_iterator it(element.begin(), element.end(), attr), end; it != end; ++it)
        out[(*it)[1]] = (*it)[2];
    return out;
}

std::vector<std::map<std::string, std::string>> elements(const std::string& svg, const std::string& tag,
                                                         const std::string& cls) {
    std::vector<std::map<std::string, std::string>> out;
    std::regex el("<" + tag + " class=\"" + cls + "\"[^>]*/>");
    for (std::sregex_iterator it(svg.begin(), svg.end(), el), end; it != end; ++it)
        out.push_back(attributes(it->str()));
    return out;
}

long long field(const std::string& line, const std::string& key) {
    std::smatch m;
    std::regex re(" " + key + "=(-?\\d+)");
    if (!std::regex_search(line, m, re))
        ADD_FAILURE() << key << " not in " << line;
    return std::stoll(m[1]);
}

TEST_F(PlayerTest, PictureOfTheDefaultScenarioShowsThePlaneWhereTheTracePutIt) {
    std::string svg_path = dir_ + "/session.svg";
    ASSERT_EQ(play({"--svg", svg_path, std::string(RUVO_SCENARIO_DIR) + "/default.scn"}), tvsp::kExitOk)
        << err_;
    std::ifstream in(svg_path);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string svg = ss.str();
    ASSERT_FALSE(svg.empty());

    const auto root =
        attributes(svg.substr(svg.find("<svg "), svg.find('>', svg.find("<svg ")) - svg.find("<svg ")));
    ASSERT_EQ(root.at("data-panel-w"), "1920");
    ASSERT_EQ(root.at("data-panel-h"), "1080");

    // Successful SETPLANE requests of the trace: time (us) and rectangle, in order.
    struct Placement {
        int64_t t_us;
        std::string rect;
    };
    std::vector<Placement> setplane;
    static const std::regex trace_line(R"(^trace: t=(\S+) #(\d+) drm \S+ DRM_IOCTL_MODE_SETPLANE .* -> 0$)");
    for (const auto& l : lines("trace: ")) {
        std::smatch m;
        if (std::regex_match(l, m, trace_line))
            setplane.push_back(Placement{
                static_cast<int64_t>(std::llround(std::stod(m[1]) * 1000)),
                std::to_string(field(l, "crtc_x")) + "," + std::to_string(field(l, "crtc_y")) + "," +
                    std::to_string(field(l, "crtc_w")) + "," + std::to_string(field(l, "crtc_h"))});
    }
    ASSERT_GT(setplane.size(), 50u);  // the first placement, fifty moves, the new size, the hand-back

    // Each run of the plane between changes shows the rectangle of the last SETPLANE
    // before the vsync that began it.
    const auto runs = elements(svg, "rect", "plane-run");
    ASSERT_FALSE(runs.empty());
    std::set<std::string> drawn_rects;
    for (const auto& r : runs) {
        SCOPED_TRACE(r.at("data-from"));
        const int64_t from = static_cast<int64_t>(std::llround(std::stod(r.at("data-from")) * 1000));
        const std::string rect =
            r.at("data-x") + "," + r.at("data-y") + "," + r.at("data-w") + "," + r.at("data-h");
        const Placement* last = nullptr;
        for (const auto& p : setplane)
            if (p.t_us <= from)
                last = &p;
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(rect, last->rect);
        drawn_rects.insert(rect);
    }
    // Every placement of the trace was on the panel for at least one vsync.
    for (const auto& p : setplane)
        EXPECT_TRUE(drawn_rects.count(p.rect)) << "SETPLANE at " << p.t_us << " us not drawn: " << p.rect;
    EXPECT_EQ(elements(svg, "polyline", "plane-line").size(), 4u) << "x, y, w and h, each one line";

    // First: full screen, shown, from the browser's stream; last: the broadcast frame back
    // in the corner the window had shrunk to, until the end of the picture.
    const auto& first = runs.front();
    EXPECT_EQ(first.at("data-from"), "16.683");  // the first vsync at 59.94 Hz
    EXPECT_EQ(first.at("data-w"), "1920");
    EXPECT_EQ(first.at("data-h"), "1080");
    EXPECT_EQ(first.at("data-muted"), "0");
    EXPECT_EQ(first.at("data-source"), "1");
    const auto& last = runs.back();
    EXPECT_EQ(last.at("data-x"), "1344");
    EXPECT_EQ(last.at("data-y"), "756");
    EXPECT_EQ(last.at("data-w"), "576");
    EXPECT_EQ(last.at("data-h"), "324");
    EXPECT_EQ(last.at("data-muted"), "0");
    EXPECT_EQ(last.at("data-source"), "0");
    EXPECT_EQ(last.at("data-to"), root.at("data-end"));

    // The delay curve carries every position the player read, in order.
    std::vector<std::pair<std::string, std::string>> reported;
    static const std::regex info(
        R"(^result: t=(\S+) quarvel_audio_output_get_info -> 0 frames_delay=(\d+) .*)");
    for (const auto& l : lines("result: ")) {
        std::smatch m;
        if (std::regex_match(l, m, info))
            reported.emplace_back(m[1], m[2]);
    }
    std::vector<std::pair<std::string, std::string>> drawn;
    for (const auto& c : elements(svg, "circle", "delay-point"))
        drawn.emplace_back(c.at("data-t"), c.at("data-frames-delay"));
    EXPECT_EQ(drawn.size(), 49u);
    EXPECT_EQ(drawn, reported);

    // The time axis shows the stream's source and then, from the vsync after the
    // hand-back at 5000 ms, the broadcast source.
    const auto sources = elements(svg, "rect", "source");
    ASSERT_EQ(sources.size(), 2u);
    EXPECT_EQ(sources[0].at("data-port"), "1");
    EXPECT_EQ(sources[0].at("data-from"), "16.683");
    EXPECT_EQ(sources[0].at("data-to"), "5005.005");
    EXPECT_EQ(sources[1].at("data-port"), "0");
    EXPECT_EQ(sources[1].at("data-from"), "5005.005");

    // The events of one instant are each labelled; no two labels of a row overlap.
    std::multiset<std::string> at_5000;
    std::map<std::string, std::vector<std::pair<double, double>>> rows;
    static const std::regex label(
        R"re(<text class="event-label" data-t="([^"]*)" data-what="([^"]*)" data-row="(\d+)" data-count="\d+" data-width="([^"]*)" x="([^"]*)")re");
    for (std::sregex_iterator it(svg.begin(), svg.end(), label), end; it != end; ++it) {
        if ((*it)[1] == "5000")
            at_5000.insert((*it)[2]);
        rows[(*it)[3]].emplace_back(std::stod((*it)[5]), std::stod((*it)[5]) + std::stod((*it)[4]));
    }
    EXPECT_EQ(at_5000, (std::multiset<std::string>{"audio-mute", "mute", "mute", "resolution", "source",
                                                   "speed", "volume", "volume"}));
    ASSERT_FALSE(rows.empty());
    for (auto& kv : rows) {
        std::sort(kv.second.begin(), kv.second.end());
        for (size_t i = 1; i < kv.second.size(); ++i)
            EXPECT_LE(kv.second[i - 1].second, kv.second[i].first) << "labels overlap in row " << kv.first;
    }

    // Frame pacing: 50 frames a second on a 59.94 Hz panel, one or two vsyncs per frame.
    const auto pacing = elements(svg, "circle", "pacing");
    ASSERT_GT(pacing.size(), 200u);
    std::map<std::string, size_t> intervals;
    for (const auto& p : pacing)
        intervals[p.at("data-interval")]++;
    EXPECT_EQ(intervals.size(), 2u);
    EXPECT_GT(intervals["1"], intervals["2"]);
    // The decoder's buffer and the no-space answers of the pushes.
    EXPECT_FALSE(elements(svg, "polyline", "audio-fill").empty());
    size_t no_space = 0;
    for (const auto& l : lines("result: "))
        no_space += l.find("quarvel_audio_output_push_data -> -2") != std::string::npos;
    EXPECT_EQ(elements(svg, "line", "no-space").size(), no_space);
}

TEST_F(PlayerTest, PictureOfAnAudioOnlySessionDrawsNoPlane) {
    std::string svg_path = dir_ + "/audio.svg";
    ASSERT_EQ(play({"--svg", svg_path, std::string(RUVO_SCENARIO_DIR) + "/audio.scn"}), tvsp::kExitOk)
        << err_;
    std::ifstream in(svg_path);
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string svg = ss.str();
    EXPECT_TRUE(elements(svg, "rect", "plane-run").empty());
    EXPECT_TRUE(elements(svg, "polyline", "plane-line").empty());
    EXPECT_NE(svg.find(">the video plane was never programmed</text>"), std::string::npos);
    // Two audio runs (before and after the stop): the delay curve is not joined across them,
    // nor across the time nobody asked.
    const auto curves = elements(svg, "polyline", "delay");
    EXPECT_EQ(curves.size(), 3u);
}

TEST_F(PlayerTest, PictureGoesToTheScenarioNameInTheCurrentDirectoryByDefault) {
    std::string path = scenario("video open\nvideo close\n");
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    int rc = play({path});
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(rc, tvsp::kExitOk);
    EXPECT_TRUE(exists(dir_ + "/s.svg"));
    EXPECT_TRUE(has_line("picture: s.svg (1 vsyncs, 0 events, 0 delay samples)"));
}

}  // namespace
