// The debug mask read from the marker files, what each mask lets through in both message
// styles, the log file on a removable disk or under /tmp, and its timestamped writer.
// Marker files, mount points and the log file live in the emulated platform's sandbox.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "ruvo/ruvo_debug.h"
#include "ruvo_log.h"
#include "test_support.h"
#include "ruvo_internal_debug.h"

using ruvo_test::aline;
using ruvo_test::vline;

namespace {

const char* const kMountPoints[] = {"/media/sda1",  "/media/sda",   "media/sdb", "/mnt/usb/sda1",
                                    "/mnt/usb/sda", "/mnt/usb/sdb", "/tmp"};

// One message of each level, video style; the lines carry this function's name.
void PrintOneOfEachLevel() {
    QVL_ERR("error line %d\n", 1);
    QVL_INFO("info line %s\n", "two");
    QVL_TRACE("trace line %u\n", 3u);
}

void PrintAudioStyle() {
    QVL_ALOG("audio line %d\n", 7);
}

const std::string kErrorLine = vline("PrintOneOfEachLevel", "error line 1");
const std::string kInfoLine = vline("PrintOneOfEachLevel", "info line two");
const std::string kTraceLine = vline("PrintOneOfEachLevel", "trace line 3");

class DebugMask : public ruvo_test::PlatformTest {
  protected:
    void TearDown() override {
        ruvo_dbg_disable();
        PlatformTest::TearDown();
    }
    std::vector<std::string> LinesAtMask(int mask) {
        g_ruvo_logmask = mask;
        lines();
        PrintOneOfEachLevel();
        return lines();
    }
};

TEST_F(DebugMask, no_marker_keeps_the_default_mask) {
    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 0);
    EXPECT_EQ(gLogMsgFile, nullptr);
    EXPECT_TRUE(lines().empty());
    PrintOneOfEachLevel();
    EXPECT_EQ(lines(), (std::vector<std::string>{kErrorLine, kInfoLine}));
}

TEST_F(DebugMask, zero_in_tmp_lets_the_mnt_marker_decide) {
    tv().sandbox_write("/tmp/RUVO", "0");
    tv().sandbox_write("/mnt/RUVO", "8");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 8);
    PrintOneOfEachLevel();
    EXPECT_EQ(lines(), std::vector<std::string>{kTraceLine});
}

TEST_F(DebugMask, tmp_marker_is_read_before_the_mnt_marker) {
    tv().sandbox_write("/tmp/RUVO", "4\n");
    tv().sandbox_write("/mnt/RUVO", "8\n");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 4);
}

TEST_F(DebugMask, mnt_marker_alone_sets_the_mask) {
    tv().sandbox_write("/mnt/RUVO", "13\n");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 13);
}

TEST_F(DebugMask, empty_marker_is_skipped) {
    tv().sandbox_write("/tmp/RUVO", "");
    tv().sandbox_write("/mnt/RUVO", "4");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 4);
}

TEST_F(DebugMask, marker_that_is_no_number_is_ignored) {
    tv().sandbox_write("/tmp/RUVO", "debug");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 0);
}

TEST_F(DebugMask, shorter_second_marker_is_read_over_what_the_first_left) {
    tv().sandbox_write("/tmp/RUVO", "0000");
    tv().sandbox_write("/mnt/RUVO", "8");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 8000);
}

TEST_F(DebugMask, sixteen_byte_marker_without_newline_is_not_read_past) {
    tv().sandbox_write("/tmp/RUVO", "0000000000000013");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 13);
}

TEST_F(DebugMask, only_the_first_sixteen_bytes_of_a_marker_count) {
    tv().sandbox_write("/tmp/RUVO", "00000000000000139");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 13);
}

TEST_F(DebugMask, marker_beyond_the_32_bit_range_saturates) {
    tv().sandbox_write("/tmp/RUVO", "4294967304");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 2147483647);
}

TEST_F(DebugMask, negative_marker_beyond_the_32_bit_range_saturates) {
    tv().sandbox_write("/tmp/RUVO", "-4294967304");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, -2147483647 - 1);
}

TEST_F(DebugMask, mask_keeps_its_former_value_when_no_marker_gives_one) {
    g_ruvo_logmask = 5;

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 5);
}

TEST_F(DebugMask, all_mode_without_any_mount_point_falls_back_to_the_default) {
    tv().sandbox_write("/mnt/RUVO", "-3");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, 0);
    EXPECT_EQ(gLogMsgFile, nullptr);
    EXPECT_TRUE(lines().empty());
    for (const char* mount : kMountPoints)
        EXPECT_FALSE(tv().sandbox_exists(std::string(mount) + "/ruvo-interface.log")) << mount;
}

TEST_F(DebugMask, all_mode_with_only_tmp_creates_an_empty_log_there) {
    tv().sandbox_write("/tmp/RUVO", "-3");

    ruvo_interface_debug_init();

    EXPECT_EQ(g_ruvo_logmask, -3);
    ASSERT_NE(gLogMsgFile, nullptr);
    EXPECT_EQ(lines(), (std::vector<std::string>{"[qvl_disp] detect mnt is:/tmp",
                                                 "[qvl_disp] OK to open log file: /tmp/ruvo-interface.log"}));
    ASSERT_TRUE(tv().sandbox_exists("/tmp/ruvo-interface.log"));
    EXPECT_EQ(tv().sandbox_read("/tmp/ruvo-interface.log"), "");
}

TEST_F(DebugMask, all_mode_truncates_an_earlier_log) {
    tv().sandbox_write("/tmp/ruvo-interface.log", "from an earlier run\n");
    tv().sandbox_write("/tmp/RUVO", "-3");

    ruvo_interface_debug_init();

    ASSERT_NE(gLogMsgFile, nullptr);
    EXPECT_EQ(tv().sandbox_read("/tmp/ruvo-interface.log"), "");
}

TEST_F(DebugMask, log_file_that_cannot_be_opened_is_reported) {
    tv().sandbox_mkdir("/tmp/ruvo-interface.log");  // a directory of that name
    tv().sandbox_write("/tmp/RUVO", "-3");

    ruvo_interface_debug_init();

    EXPECT_EQ(gLogMsgFile, nullptr);
    EXPECT_EQ(g_ruvo_logmask, -3);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"[qvl_disp] detect mnt is:/tmp",
                                        "[qvl_disp] Fail to open log file: /tmp/ruvo-interface.log"}));
}

class LogMountPoint : public DebugMask, public ::testing::WithParamInterface<int> {};

TEST_P(LogMountPoint, first_existing_mount_point_takes_the_log) {
    // This mount point and every later one exist; the earlier ones do not.
    const int first = GetParam();
    for (int i = first; i < 7; ++i)
        tv().sandbox_mkdir(kMountPoints[i]);
    g_ruvo_logmask = -3;

    ruvo_dbg_enable();

    const std::string mount = kMountPoints[first];
    EXPECT_EQ(lines(),
              (std::vector<std::string>{"[qvl_disp] detect mnt is:" + mount,
                                        "[qvl_disp] OK to open log file: " + mount + "/ruvo-interface.log"}));
    EXPECT_TRUE(tv().sandbox_exists(mount + "/ruvo-interface.log"));
    for (int i = first + 1; i < 7; ++i)
        EXPECT_FALSE(tv().sandbox_exists(std::string(kMountPoints[i]) + "/ruvo-interface.log"))
            << kMountPoints[i];
}

INSTANTIATE_TEST_SUITE_P(ProbeOrder, LogMountPoint, ::testing::Range(0, 7));

TEST_F(DebugMask, relative_mount_point_is_looked_up_without_a_leading_slash) {
    tv().sandbox_mkdir("media/sdb");
    g_ruvo_logmask = -3;

    ruvo_dbg_enable();

    EXPECT_EQ(lines(),
              (std::vector<std::string>{"[qvl_disp] detect mnt is:media/sdb",
                                        "[qvl_disp] OK to open log file: media/sdb/ruvo-interface.log"}));
}

TEST_F(DebugMask, enable_does_nothing_outside_all_mode) {
    tv().sandbox_mkdir("/tmp");
    g_ruvo_logmask = 8;

    ruvo_dbg_enable();

    EXPECT_EQ(gLogMsgFile, nullptr);
    EXPECT_TRUE(lines().empty());
    EXPECT_FALSE(tv().sandbox_exists("/tmp/ruvo-interface.log"));
}

TEST_F(DebugMask, disable_closes_the_log_file) {
    tv().sandbox_mkdir("/tmp");
    g_ruvo_logmask = -3;
    ruvo_dbg_enable();
    ASSERT_NE(gLogMsgFile, nullptr);

    ruvo_dbg_disable();

    EXPECT_EQ(gLogMsgFile, nullptr);
    ruvo_dbg_disable();  // nothing open: nothing to do
    EXPECT_EQ(gLogMsgFile, nullptr);
}

TEST_F(DebugMask, message_without_log_file_is_dropped) {
    char text[] = "dropped";

    messageWrite2File(text, 7);

    EXPECT_EQ(gLogMsgFile, nullptr);
    EXPECT_TRUE(lines().empty());
}

TEST_F(DebugMask, message_goes_to_the_log_file_behind_a_timestamp) {
    tv().sandbox_mkdir("/tmp");
    g_ruvo_logmask = -3;
    ruvo_dbg_enable();
    ASSERT_NE(gLogMsgFile, nullptr);
    char first[] = "first";
    char second[] = "second\n";

    messageWrite2File(first, 0);
    messageWrite2File(second, 0);

    EXPECT_EQ(tv().sandbox_read("/tmp/ruvo-interface.log"), "") << "the writer does not flush";
    fflush(gLogMsgFile);
    const std::string content = tv().sandbox_read("/tmp/ruvo-interface.log");
    EXPECT_TRUE(std::regex_match(content, std::regex(R"(\[\d\d:\d\d:\d\d\.\d\d\d\] first)"
                                                     R"(\[\d\d:\d\d:\d\d\.\d\d\d\] second\n)")))
        << content;
    EXPECT_EQ(lines().size(), 2u);  // only the detect and open lines
}

TEST_F(DebugMask, print_level_check_always_allows_audio_messages) {
    for (int mask : {0, 1, 2, 8, -3}) {
        g_ruvo_logmask = mask;
        EXPECT_EQ(DBG_ChkPrtLevel(), 1) << mask;
    }
}

TEST_F(DebugMask, audio_style_prints_whatever_the_mask) {
    for (int mask : {0, 2, 8, -3}) {
        g_ruvo_logmask = mask;
        PrintAudioStyle();
        EXPECT_EQ(lines(), std::vector<std::string>{aline("PrintAudioStyle", "audio line 7")}) << mask;
    }
}

TEST_F(DebugMask, default_mask_prints_errors_and_info) {
    EXPECT_EQ(LinesAtMask(0), (std::vector<std::string>{kErrorLine, kInfoLine}));
}

TEST_F(DebugMask, all_mode_prints_every_level) {
    EXPECT_EQ(LinesAtMask(-3), (std::vector<std::string>{kErrorLine, kInfoLine, kTraceLine}));
}

TEST_F(DebugMask, mask_bits_select_the_levels) {
    EXPECT_EQ(LinesAtMask(1), std::vector<std::string>{kErrorLine});
    EXPECT_EQ(LinesAtMask(4), std::vector<std::string>{kInfoLine});
    EXPECT_EQ(LinesAtMask(8), std::vector<std::string>{kTraceLine});
    EXPECT_EQ(LinesAtMask(5), (std::vector<std::string>{kErrorLine, kInfoLine}));
    EXPECT_EQ(LinesAtMask(13), (std::vector<std::string>{kErrorLine, kInfoLine, kTraceLine}));
    EXPECT_EQ(LinesAtMask(2), std::vector<std::string>{});
    EXPECT_EQ(LinesAtMask(0x10), std::vector<std::string>{});
    EXPECT_EQ(LinesAtMask(-1), (std::vector<std::string>{kErrorLine, kInfoLine, kTraceLine}));
}

TEST_F(DebugMask, line_carries_tag_function_and_call_site) {
    lines();
    const int video_line = __LINE__ + 1;
    QVL_ERR("value %d\n", 42);
    const int audio_line = __LINE__ + 1;
    QVL_ALOG("value %d\n", 43);

    const std::string raw = capture_.stop_raw();
    capture_.start();
    EXPECT_EQ(raw, "[qvl_disp_corvi] TestBody(" + std::to_string(video_line) + ") value 42\n" +
                       "[TestBody(): " + std::to_string(audio_line) + "]value 43\n");
}

TEST_F(DebugMask, long_message_in_all_mode_is_printed_whole) {
    g_ruvo_logmask = -3;
    lines();
    const std::string text(400, 'x');

    QVL_ERR("%s\n", text.c_str());

    EXPECT_EQ(lines(), std::vector<std::string>{vline("TestBody", text)});
}

TEST_F(DebugMask, video_open_reads_the_marker) {
    tv().sandbox_write("/mnt/RUVO", "8");

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    EXPECT_EQ(g_ruvo_logmask, 8);
    auto printed = lines();
    ASSERT_FALSE(printed.empty());
    EXPECT_EQ(printed[0], vline("get_drm_fd_from_korb", "get cardID:0, drm_fd:0, ret:-1"));
    for (const auto& line : printed) {
        EXPECT_NE(line, vline("quarvel_video_output_open", "in")) << "info is off at mask 8";
        EXPECT_NE(line, vline("get_drm_fd_from_korb", "handle is NULL")) << "errors are off at mask 8";
    }
    quarvel_video_output_close(output);
}

TEST_F(DebugMask, video_open_in_all_mode_opens_an_empty_log_that_stays_empty) {
    tv().sandbox_write("/tmp/RUVO", "-3");

    quarvel_video_output_s* output = quarvel_video_output_open(false);

    ASSERT_NE(output, nullptr);
    auto printed = lines();
    ASSERT_GE(printed.size(), 3u);
    EXPECT_EQ(printed[0], "[qvl_disp] detect mnt is:/tmp");
    EXPECT_EQ(printed[1], "[qvl_disp] OK to open log file: /tmp/ruvo-interface.log");
    EXPECT_EQ(printed[2], vline("quarvel_video_output_open", "in"));
    EXPECT_NE(std::find(printed.begin(), printed.end(), vline("DRMKMSInit", "in")), printed.end())
        << "trace lines print in all mode";
    quarvel_video_output_close(output);
    fflush(gLogMsgFile);
    EXPECT_EQ(tv().sandbox_read("/tmp/ruvo-interface.log"), "");
}

}  // namespace
