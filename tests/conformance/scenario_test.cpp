// The conformance runner's scenario grammar: every step, every bad line.
#include <gtest/gtest.h>

#include "conformance.h"

using namespace conformance;

namespace {

Scenario parse_ok(const std::string& text) {
    Scenario s;
    std::string error;
    EXPECT_TRUE(parse_scenario_text("t.play", text, &s, &error)) << error;
    return s;
}

std::string parse_error(const std::string& text) {
    Scenario s;
    std::string error;
    EXPECT_FALSE(parse_scenario_text("t.play", text, &s, &error));
    return error;
}

}  // namespace

TEST(ConformanceScenario, every_step_with_its_values) {
    Scenario s = parse_ok(
        "media mp4-25  # the clip\npreroll\nplay\nwait 1500\npause 1000\nseek 12000\nseeks 10 seed=7 "
        "every=800\n"
        "rate 2.0 hold=3000\ncycle 200\nrect-storm 5000 hz=60\nhandback\neos\ngoal av-p99-ms 25\n");
    EXPECT_EQ(s.name, "t");
    EXPECT_EQ(s.media, "mp4-25");
    ASSERT_EQ(s.steps.size(), 11u);
    EXPECT_EQ(s.steps[0].op, Op::Preroll);
    EXPECT_EQ(s.steps[2].op, Op::Wait);
    EXPECT_EQ(s.steps[2].value, 1500);
    EXPECT_EQ(s.steps[5].op, Op::Seeks);
    EXPECT_EQ(s.steps[5].count, 10);
    EXPECT_EQ(s.steps[5].seed, 7u);
    EXPECT_EQ(s.steps[5].every_ms, 800);
    EXPECT_EQ(s.steps[6].value, 2.0);
    EXPECT_EQ(s.steps[6].hold_ms, 3000);
    EXPECT_EQ(s.steps[7].count, 200);
    EXPECT_EQ(s.steps[8].hz, 60);
    EXPECT_EQ(s.steps[8].line, 10);
    EXPECT_EQ(s.goals.at("av-p99-ms"), 25);
}

TEST(ConformanceScenario, defaults_of_the_optional_arguments) {
    Scenario s = parse_ok("media x\nseeks 3\nrate 0.5\nrect-storm 100\n");
    EXPECT_EQ(s.steps[0].seed, 1u);
    EXPECT_EQ(s.steps[0].every_ms, 1500);
    EXPECT_EQ(s.steps[1].hold_ms, 2000);
    EXPECT_EQ(s.steps[2].hz, 50);
}

TEST(ConformanceScenario, bad_lines_name_the_file_and_line) {
    EXPECT_EQ(parse_error("media x\nfoo 1\n"), "t.play:2: unknown command 'foo'");
    EXPECT_EQ(parse_error("media x\nwait\n"), "t.play:2: usage: wait MS");
    EXPECT_EQ(parse_error("media x\nwait soon\n"), "t.play:2: expected a number, got 'soon'");
    EXPECT_EQ(parse_error("media x\nwait -5\n"), "t.play:2: milliseconds from 0 to 600000");
    EXPECT_EQ(parse_error("media x\nrate 0\n"), "t.play:2: a rate from -8 to 8, not 0");
    EXPECT_EQ(parse_error("media x\ncycle 1.5\n"), "t.play:2: a count from 1 to 10000");
    EXPECT_EQ(parse_error("media x\nseeks 2 speed=3\n"),
              "t.play:2: unexpected argument 'speed=3' (usage: seeks COUNT [seed=N] [every=MS])");
    EXPECT_EQ(parse_error("media x\ngoal lipsync 3\n"), "t.play:2: unknown goal 'lipsync'");
    EXPECT_EQ(parse_error("media x\ngoal dropped -2\n"),
              "t.play:2: a goal limit is a number >= 0, or -1 (not judged)");
    EXPECT_EQ(parse_error("media x\nmedia y\n"), "t.play:2: a scenario plays one media");
}

TEST(ConformanceScenario, a_file_without_media_or_steps_is_refused) {
    EXPECT_EQ(parse_error("play\n"), "t.play: no 'media' line");
    EXPECT_EQ(parse_error("media x\n# nothing\n"), "t.play: no steps");
    EXPECT_EQ(parse_error(""), "t.play: no 'media' line");
}

TEST(ConformanceScenario, a_directory_is_not_a_scenario) {
    Scenario s;
    std::string error;
    EXPECT_FALSE(parse_scenario("/", &s, &error));
    EXPECT_EQ(error, "/: a directory, not a scenario");
}
