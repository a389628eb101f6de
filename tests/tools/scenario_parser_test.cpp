// The scenario grammar of the session player: what a line means, and the exact message
// for a line that cannot be run.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include "scenario.h"

namespace {

using tvsp::Cmd;
using tvsp::Scenario;

Scenario parse_ok(const std::string& text) {
    Scenario sc;
    std::string error;
    EXPECT_TRUE(tvsp::parse_scenario(text, "s.scn", &sc, &error)) << error;
    return sc;
}

std::string parse_error(const std::string& text) {
    Scenario sc;
    std::string error;
    EXPECT_FALSE(tvsp::parse_scenario(text, "s.scn", &sc, &error));
    return error;
}

TEST(ScenarioParser, CommentsAndBlankLinesAreSkippedAndLinesKeepTheirNumbers) {
    Scenario sc = parse_ok("# a session\n\n   \nvideo open   # the TV\n\tvideo close\n");
    ASSERT_EQ(sc.commands.size(), 2u);
    EXPECT_EQ(sc.commands[0].cmd, Cmd::VideoOpen);
    EXPECT_EQ(sc.commands[0].line, 4);
    EXPECT_EQ(sc.commands[1].cmd, Cmd::VideoClose);
    EXPECT_EQ(sc.commands[1].line, 5);
    EXPECT_EQ(sc.commands[1].where(), "s.scn:5");
}

TEST(ScenarioParser, PositionalValuesAndKeyValuePairsFillTheSameArguments) {
    Scenario sc = parse_ok("video open\nvideo rect 10 -20 w=640 480 dar=16:9\nvideo rect h=1 w=2 y=3 x=4\n");
    const auto& a = sc.commands[1];
    EXPECT_EQ(a.num("x", 0), 10);
    EXPECT_EQ(a.num("y", 0), -20);
    EXPECT_EQ(a.num("w", 0), 640);
    EXPECT_EQ(a.num("h", 0), 480);
    EXPECT_EQ(a.arg("dar").v[0], 16);
    EXPECT_EQ(a.arg("dar").v[1], 9);
    const auto& b = sc.commands[2];
    EXPECT_EQ(b.num("x", 0), 4);
    EXPECT_EQ(b.num("y", 0), 3);
    EXPECT_EQ(b.num("w", 0), 2);
    EXPECT_EQ(b.num("h", 0), 1);
}

TEST(ScenarioParser, CallsDefaultToOneCallExpectingSuccess) {
    Scenario sc = parse_ok("video open\nvideo vsync\n");
    const auto& c = sc.commands[1];
    EXPECT_TRUE(c.is_call());
    EXPECT_EQ(c.count(), 1);
    EXPECT_EQ(c.every_us(), -1);
    EXPECT_EQ(c.expect(), 0);
    EXPECT_FALSE(c.null_handle());
}

TEST(ScenarioParser, RepeatSpacingAndExpectationAreReadOnEveryCall) {
    Scenario sc =
        parse_ok("video open\nvideo used count=19 every=250 expect=-1\nvideo pts 5 handle=null expect=-9\n");
    EXPECT_EQ(sc.commands[1].count(), 19);
    EXPECT_EQ(sc.commands[1].every_us(), 250000);
    EXPECT_EQ(sc.commands[1].expect(), -1);
    EXPECT_TRUE(sc.commands[2].null_handle());
    EXPECT_EQ(sc.commands[2].num("value", 0), 5);
}

TEST(ScenarioParser, MillisecondsTakeUpToThreeDecimals) {
    Scenario sc = parse_ok("wait 21.333\nat 5000\nwait 0.5\n");
    EXPECT_EQ(sc.commands[0].num("ms", 0), 21333);
    EXPECT_EQ(sc.commands[1].num("ms", 0), 5000000);
    EXPECT_EQ(sc.commands[2].num("ms", 0), 500);
    EXPECT_EQ(parse_error("wait 1.2345\n"),
              "s.scn:1: wait: expected milliseconds (e.g. 20 or 21.333) for ms, got '1.2345'");
}

TEST(ScenarioParser, TracksAreNumberedInOrderOfFirstAppearance) {
    Scenario sc = parse_ok(
        "platform panel 1920 1080\ntrack video\nvideo open\ntrack audio\naudio open /dev/x\n"
        "track video\nvideo close\n");
    ASSERT_EQ(sc.tracks, (std::vector<std::string>{"main", "video", "audio"}));
    EXPECT_EQ(sc.commands[0].track, 0);
    EXPECT_EQ(sc.commands[2].track, 1);
    EXPECT_EQ(sc.commands[4].track, 2);
    EXPECT_EQ(sc.commands[6].track, 1);
}

TEST(ScenarioParser, FrameLinesReadSizeAspectRatePortAndProfile) {
    Scenario sc = parse_ok(
        "video open\nvideo frame size=1280x720 aspect=2 framerate=59940 port=hdmi dv=5 "
        "to=1,2,3,4 pts=0x100000002 pts-step=1800 count=3\nvideo frames port=7 count=2\nvideo frame "
        "null=1\n");
    const auto& f = sc.commands[1];
    EXPECT_EQ(f.cmd, Cmd::VideoFrame);
    EXPECT_EQ(f.arg("size").v[0], 1280);
    EXPECT_EQ(f.arg("size").v[1], 720);
    EXPECT_EQ(f.num("aspect", 0), 2);
    EXPECT_EQ(f.num("framerate", 0), 59940);
    EXPECT_EQ(f.num("port", 0), 7);
    EXPECT_EQ(f.num("dv", 0), 5);
    EXPECT_EQ(f.arg("to").v[3], 4);
    EXPECT_EQ(f.num("pts", 0), 0x100000002LL);
    EXPECT_EQ(sc.commands[2].cmd, Cmd::VideoFrame);
    EXPECT_EQ(sc.commands[2].num("port", 0), 7);
    EXPECT_EQ(sc.commands[3].num("null", 0), 1);
    EXPECT_EQ(parse_error("video open\nvideo frame null=1 port=7\n"),
              "s.scn:2: video frame: null=1 pushes no frame; 'port' has no use");
}

TEST(ScenarioParser, PlatformEventsTakeErrnoNamesAndTimes) {
    Scenario sc = parse_ok(
        "platform fail FR2IP_SetPTS errno=EIO times=1\nplatform fail open:/dev/kdolby 16 always\n"
        "platform status FR2IP_SetDispQueueSize 5\nplatform absent /dev/kdolby\n"
        "platform hal get-fails\n");
    EXPECT_EQ(sc.commands[0].word("request", ""), "FR2IP_SetPTS");
    EXPECT_EQ(sc.commands[0].num("errno", 0), 5);
    EXPECT_EQ(sc.commands[0].num("times", 0), 1);
    EXPECT_EQ(sc.commands[1].word("request", ""), "open:/dev/kdolby");
    EXPECT_EQ(sc.commands[1].num("errno", 0), 16);
    EXPECT_EQ(sc.commands[1].num("times", 0), -1);
    EXPECT_EQ(sc.commands[2].num("status", 0), 5);
    EXPECT_FALSE(sc.commands[2].has("times"));
    EXPECT_EQ(sc.commands[3].word("path", ""), "/dev/kdolby");
    EXPECT_EQ(sc.commands[4].num("mode", 0), 5);
}

TEST(ScenarioParser, EnvironmentLinesSetAndUnset) {
    Scenario sc = parse_ok("env TA_DTV_PRELOAD=1\nenv TA_DTV_PRELOAD=\nenv unset TA_DTV_PRELOAD\n");
    EXPECT_EQ(sc.commands[0].cmd, Cmd::EnvSet);
    EXPECT_EQ(sc.commands[0].word("name", ""), "TA_DTV_PRELOAD");
    EXPECT_EQ(sc.commands[0].word("value", "x"), "1");
    EXPECT_EQ(sc.commands[1].word("value", "x"), "");
    EXPECT_EQ(sc.commands[2].cmd, Cmd::EnvUnset);
}

TEST(ScenarioParser, AudioLinesReadTheirValues) {
    Scenario sc = parse_ok(
        "audio open /dev/snd/comprC0D0\naudio setup 2 48000\naudio volume 0.5\n"
        "audio push 4096 extra=32 rate=192000 retry=5 max-retries=7 count=3\n");
    EXPECT_EQ(sc.commands[0].word("path", ""), "/dev/snd/comprC0D0");
    EXPECT_EQ(sc.commands[1].num("channels", 0), 2);
    EXPECT_EQ(sc.commands[1].num("rate", 0), 48000);
    EXPECT_DOUBLE_EQ(sc.commands[2].real("value", 0), 0.5);
    EXPECT_EQ(sc.commands[3].num("size", 0), 4096);
    EXPECT_EQ(sc.commands[3].num("extra", 0), 32);
    EXPECT_EQ(sc.commands[3].num("retry", 0), 5000);
    EXPECT_EQ(sc.commands[3].num("max-retries", 0), 7);
}

// Syntax errors.

TEST(ScenarioParserErrors, AMissingValueNamesTheArgument) {
    EXPECT_EQ(parse_error("video open\nvideo rect 0 0 1920\n"), "s.scn:2: video rect: expected h");
}

TEST(ScenarioParserErrors, AnEqualsSignWithoutKeyIsASyntaxError) {
    EXPECT_EQ(parse_error("video open\nvideo rect 0 0 =1920 1080\n"),
              "s.scn:2: video rect: expected key=value or a value, got '=1920'");
}

TEST(ScenarioParserErrors, AKeyWithoutValueIsASyntaxError) {
    EXPECT_EQ(parse_error("video open\nvideo rect x= 0 1 1\n"), "s.scn:2: video rect: empty value for 'x'");
}

TEST(ScenarioParserErrors, AValueOfTheWrongShapeSaysWhatWasExpected) {
    EXPECT_EQ(parse_error("video open\n\nvideo frame size=1920by1080\n"),
              "s.scn:3: video frame: expected WIDTHxHEIGHT for size, got '1920by1080'");
    EXPECT_EQ(parse_error("video open\nvideo rect 0 0 wide 1\n"),
              "s.scn:2: video rect: expected an integer for w, got 'wide'");
    EXPECT_EQ(
        parse_error("platform fail FR2IP_SetPTS EWHAT\n"),
        "s.scn:1: platform fail: expected an errno name (EIO, EBUSY, ...) or number for errno, got 'EWHAT'");
}

TEST(ScenarioParserErrors, AnArgumentGivenTwiceIsRefused) {
    EXPECT_EQ(parse_error("video open\nvideo rect 0 0 1 1 x=5\n"), "s.scn:2: video rect: 'x' given twice");
}

TEST(ScenarioParserErrors, TooManyValuesAreRefused) {
    EXPECT_EQ(parse_error("video open\nvideo pts 1 2\n"),
              "s.scn:2: video pts: unexpected value '2' (positional values are value)");
}

TEST(ScenarioParserErrors, AnUnknownArgumentListsTheKnownOnes) {
    EXPECT_EQ(
        parse_error("video open\nvideo rect 0 0 1 1 z=3\n"),
        "s.scn:2: video rect: unknown argument 'z' (expected x, y, w, h, dar, count, every, expect, handle)");
}

// Unknown commands.

TEST(ScenarioParserErrors, AnUnknownCommandIsNamed) {
    EXPECT_EQ(parse_error("video open\nplay 5\n"),
              "s.scn:2: unknown command 'play' (expected track, at, wait, env, video ..., audio ... or "
              "platform ...)");
}

TEST(ScenarioParserErrors, AnUnknownSubcommandListsTheFamily) {
    EXPECT_EQ(parse_error("video open\nvideo rectt 0 0 1 1\n"),
              "s.scn:2: unknown command 'video rectt' (video commands: open, close, panel, rect, hide, show, "
              "first-frame, frame, frames, next-res, vsync, used, pts, notify-ta)");
    EXPECT_EQ(
        parse_error("audio\n"),
        "s.scn:1: expected one of these after 'audio': open, setup, start, stop, sync-mode, push, info, "
        "volume, speed, close");
}

// Values out of range.

TEST(ScenarioParserErrors, ValuesOutOfRangeGiveTheRange) {
    EXPECT_EQ(parse_error("audio open /dev/x\naudio setup 0 48000\n"),
              "s.scn:2: audio setup: channels=0 is out of range (1..32)");
    EXPECT_EQ(parse_error("video open\nvideo rect 0 0 -5 10\n"),
              "s.scn:2: video rect: w=-5 is out of range (0..4294967295)");
    EXPECT_EQ(parse_error("video open\nvideo rect 3000000000 0 1 1\n"),
              "s.scn:2: video rect: x=3000000000 is out of range (-2147483648..2147483647)");
    EXPECT_EQ(parse_error("wait -5\n"), "s.scn:1: wait: ms=-5 is out of range (0..86400000) ms");
    EXPECT_EQ(parse_error("video open\nvideo frame count=0\n"),
              "s.scn:2: video frame: count=0 is out of range (1..1000000)");
    EXPECT_EQ(parse_error("video open\nvideo pts 99999999999999999999\n"),
              "s.scn:2: video pts: value=99999999999999999999 is out of range "
              "(-9223372036854775808..9223372036854775807)");
}

TEST(ScenarioParserErrors, AnExpectationOnACallWithoutResultMustBeZero) {
    EXPECT_EQ(parse_error("video open\nvideo close expect=-1\n"),
              "s.scn:2: video close: expect=-1 is out of range (the function returns nothing: only 0)");
    parse_ok("video open\nvideo close expect=0\n");
}

TEST(ScenarioParserErrors, AFrameTheLibraryWouldDivideByZeroForIsRefused) {
    EXPECT_EQ(
        parse_error("video open\nvideo frame size=0x0\n"),
        "s.scn:2: video frame: size=0x0 with aspect=3 is out of range (the library would divide by zero)");
    // With an unknown aspect and no third-plane line size the library divides nothing.
    parse_ok("video open\nvideo frame size=0x0 aspect=0\n");
}

TEST(ScenarioParserErrors, ACallNeedsAnOpenOutputOrANullHandle) {
    EXPECT_EQ(parse_error("video rect 0 0 1 1\n"),
              "s.scn:1: video rect: no 'video open' before this line (or pass handle=null)");
    EXPECT_EQ(parse_error("audio info\n"),
              "s.scn:1: audio info: no 'audio open' before this line (or pass handle=null)");
    parse_ok("video rect 0 0 1 1 handle=null expect=-9\n");
}

TEST(ScenarioParserErrors, ThePanelQueryRefusesANullHandle) {
    EXPECT_EQ(
        parse_error("video open\nvideo panel handle=null\n"),
        "s.scn:2: video panel: handle=null is not accepted (the library reads the handle without a check)");
}

TEST(ScenarioParserErrors, TheFirstBadLineIsReportedEvenAfterGoodOnes) {
    EXPECT_EQ(
        parse_error("video open\nvideo rect 0 0 1 1\nvideo frame count=3\nvideo rect 0 0 1\nvideo nope\n"),
        "s.scn:4: video rect: expected h");
}

TEST(ScenarioParserErrors, AMissingFileIsReported) {
    Scenario sc;
    std::string error;
    EXPECT_FALSE(tvsp::load_scenario("/nonexistent/s.scn", &sc, &error));
    EXPECT_EQ(error, "/nonexistent/s.scn: cannot read: No such file or directory");
}

TEST(ScenarioParserErrors, ADirectoryIsNoScenario) {
    char dir[] = "/tmp/scenario-dir.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    Scenario sc;
    std::string error;
    EXPECT_FALSE(tvsp::load_scenario(dir, &sc, &error));
    EXPECT_EQ(error, std::string(dir) + ": cannot read: Is a directory (expected a scenario file)");
    rmdir(dir);
}

TEST(ScenarioParserErrors, AnEmptyScenarioIsRefused) {
    char path[] = "/tmp/empty-scenario.XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "# nothing but a comment\n\n", 25), 25);
    close(fd);
    Scenario sc;
    std::string error;
    EXPECT_FALSE(tvsp::load_scenario(path, &sc, &error));
    EXPECT_EQ(error, std::string(path) + ": no command in the scenario (an empty scenario plays nothing)");
    unlink(path);
}

// Names of requests and devices the emulator does not know would script a fault that
// never fires.
TEST(ScenarioParserErrors, AFaultOnAnUnknownRequestIsRefused) {
    const std::string expected =
        " (expected a request the emulator records (e.g. DRM_IOCTL_MODE_SETPLANE, FR2IP_SetPTS, "
        "SNDRV_COMPRESS_START, write, pthread_create) or open:PATH / close:PATH of an emulated device node)";
    EXPECT_EQ(parse_error("platform fail DRM_IOCTL_MODE_SETPLAN EBUSY always\n"),
              "s.scn:1: platform fail: unknown request 'DRM_IOCTL_MODE_SETPLAN'" + expected);
    EXPECT_EQ(parse_error("\nplatform fail open:/dev/kdolbyy EIO\n"),
              "s.scn:2: platform fail: unknown request 'open:/dev/kdolbyy'" + expected);
    EXPECT_EQ(parse_error("platform status FR2IP_SetPTZ 5\n"),
              "s.scn:1: platform status: unknown request 'FR2IP_SetPTZ'" + expected);
    // A compressed-offload node is known from its compr-device line on.
    EXPECT_EQ(parse_error("platform fail open:/dev/snd/comprC0D0 EIO\n"),
              "s.scn:1: platform fail: unknown request 'open:/dev/snd/comprC0D0'" + expected);
    parse_ok(
        "platform compr-device /dev/snd/comprC0D0\nplatform fail open:/dev/snd/comprC0D0 EIO\n"
        "platform fail close:/dev/qvkvplt EIO\nplatform fail write EIO\nplatform fail pthread_create "
        "EAGAIN\n");
}

TEST(ScenarioParserErrors, VsyncIsInHzAndMeaninglessRatesAreRefused) {
    Scenario sc = parse_ok("platform vsync 59.94\nplatform vsync 50 -1\nplatform vsync 0\n");
    EXPECT_EQ(sc.commands[0].num("hz", 0), 59940);
    EXPECT_EQ(sc.commands[1].num("hz", 0), 50000);
    EXPECT_EQ(sc.commands[1].num("ret", 0), -1);
    EXPECT_EQ(sc.commands[2].num("hz", 1), 0);
    EXPECT_EQ(parse_error("platform vsync 50000\n"),
              "s.scn:1: platform vsync: hz=50000 Hz is out of range (0..1000 Hz)");
    EXPECT_EQ(parse_error("platform vsync 0.5\n"),
              "s.scn:1: platform vsync: hz=0.5 is no panel refresh (1..1000 Hz, e.g. 50, 59.94, 60; 0 for a "
              "driver that answers 0)");
    EXPECT_EQ(parse_error("platform vsync -60\n"),
              "s.scn:1: platform vsync: expected a rate in Hz (e.g. 50, 59.94 or 60) for hz, got '-60'");
}

TEST(ScenarioParserErrors, APanelSideOfZeroIsRefusedAndNoneMeansNoReportedSize) {
    EXPECT_EQ(
        parse_error("platform panel 0 0\n"),
        "s.scn:1: platform panel: a side of 0 is no panel (W and H are 1..16384; 'platform panel none' for "
        "a connector that reports no size)");
    EXPECT_EQ(parse_error("platform panel 1920 20000\n"),
              "s.scn:1: platform panel: h=20000 is out of range (1..16384)");
    Scenario sc = parse_ok("platform panel none\nplatform panel 1366 768\n");
    EXPECT_EQ(sc.commands[0].cmd, Cmd::PlatformPanel);
    EXPECT_EQ(sc.commands[0].num("w", -1), 0);
    EXPECT_EQ(sc.commands[1].num("w", -1), 1366);
}

TEST(ScenarioParserErrors, TheTotalWorkOfALineIsBounded) {
    EXPECT_EQ(
        parse_error("audio open /dev/x\naudio push 4096 count=1000000 max-retries=1000000 retry=1\n"),
        "s.scn:2: audio push: count=1000000 with max-retries=1000000 may make 1000001000000 library calls; "
        "a line makes at most 10000000 (count x (1 + max-retries))");
    parse_ok("audio open /dev/x\naudio push 4096 count=9990 retry=1\n");  // 9990 x 1001
}

TEST(ScenarioTime, MillisecondsPrintWithoutTrailingZeros) {
    EXPECT_EQ(tvsp::format_ms(0), "0");
    EXPECT_EQ(tvsp::format_ms(20000), "20");
    EXPECT_EQ(tvsp::format_ms(21333), "21.333");
    EXPECT_EQ(tvsp::format_ms(5), "0.005");
}

}  // namespace
