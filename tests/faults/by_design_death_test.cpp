// The two inputs that end the process by design, as death tests that hold in every build,
// so that no build has to switch a check off:
//  - a 0 x 0 picture of known aspect makes the sample-aspect reduction divide zero by zero,
//    and nothing guards it;
//  - with the info level on, set_rect prints the rectangle before it checks it for null.
// In a plain build the process ends with SIGFPE or SIGSEGV; with the undefined-behaviour
// sanitizer on, the sanitizer reports the division or the null access and ends the process
// first.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ruvo_log.h"
#include "test_support.h"
#include "ruvo_internal_video.h"

namespace {

// Whether a forked child of this process runs and ends normally. A user-mode emulator
// that pairs the target's loader with a C library of another build crashes it; death
// tests cannot run there.
bool forked_children_run() {
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    if (pid < 0)
        return false;
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void show_empty_picture(uint32_t aspect) {
    v4l2_drm d = ruvo_test::make_frame(0, 0, aspect);
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    quarvel_video_output_frame_s frame{&d, -1, {0, 0, 0, 0, 0, 0, 0}};
    (void)quarvel_video_output_init_with_first_frame(out, &frame);
}

void set_null_rect_with_info_on() {
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO;
    (void)quarvel_video_output_set_rect(out, nullptr);
}

#if RUVO_UNDEFINED_SANITIZER
// The sanitizer's report, then its exit status.
#define EXPECT_ENDS_ON_THE_DIVISION(statement) \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(1), "runtime error: division by zero")
#define EXPECT_ENDS_ON_THE_NULL_READ(statement) \
    EXPECT_EXIT(statement, ::testing::ExitedWithCode(1), "runtime error: member access within null pointer")
#else
#define EXPECT_ENDS_ON_THE_DIVISION(statement) EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGFPE), "")
#define EXPECT_ENDS_ON_THE_NULL_READ(statement) EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGSEGV), "")
#endif

class EmptyPictureDeathTest : public ruvo_test::PlatformTest {};
class NullRectangleDeathTest : public ruvo_test::PlatformTest {};

TEST_F(EmptyPictureDeathTest, a_0x0_first_frame_of_known_aspect_ends_the_process_on_the_division) {
    if (!forked_children_run())
        GTEST_SKIP() << "forked children crash on this host; the death test cannot run";
    for (uint32_t aspect = V4L2_ASPECTRATIO_TYPE_100_100; aspect <= V4L2_ASPECTRATIO_TYPE_100_221; ++aspect) {
        SCOPED_TRACE(aspect);
        EXPECT_ENDS_ON_THE_DIVISION(show_empty_picture(aspect));
    }
}

TEST_F(EmptyPictureDeathTest, the_reduction_of_0_over_0_ends_the_process) {
    if (!forked_children_run())
        GTEST_SKIP() << "forked children crash on this host; the death test cannot run";
    auto reduce = [] {
        unsigned long long num = 0, denom = 0;
        ReduceFraction(&num, &denom);
    };
    EXPECT_ENDS_ON_THE_DIVISION(reduce());
}

TEST_F(NullRectangleDeathTest, a_null_rectangle_with_the_info_level_on_ends_the_process_on_the_read) {
    if (!forked_children_run())
        GTEST_SKIP() << "forked children crash on this host; the death test cannot run";
    EXPECT_ENDS_ON_THE_NULL_READ(set_null_rect_with_info_on());
}

}  // namespace
