// Frame size and aspect of a decoded picture, the fraction reduction behind it, and the
// rectangle filter every placement passes through.
#include <setjmp.h>
#include <signal.h>

#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

class FrameSize : public ruvo_test::PlatformTest {};

quarvel_frame_size_s size_of(uint32_t w, uint32_t h, uint32_t aspect, uint32_t v_linesize = 0) {
    v4l2_drm d = ruvo_test::make_frame(w, h, aspect);
    d.u.dec_info.pFrame[0].v_linesize = v_linesize;
    return CalculateFrameSizeFromV4L2(&d);
}

#define EXPECT_SIZE(actual, ...)                                                                           \
    do {                                                                                                   \
        const quarvel_frame_size_s want_ = quarvel_frame_size_s{__VA_ARGS__};                              \
        const quarvel_frame_size_s got_ = (actual);                                                        \
        EXPECT_TRUE(same_size(got_, want_)) << "got " << to_string(got_) << ", want " << to_string(want_); \
    } while (0)

#define EXPECT_RECT(actual, ...)                                                                           \
    do {                                                                                                   \
        const quarvel_video_output_rect_s want_ = quarvel_video_output_rect_s{__VA_ARGS__};                \
        const quarvel_video_output_rect_s got_ = (actual);                                                 \
        EXPECT_TRUE(same_rect(got_, want_)) << "got " << to_string(got_) << ", want " << to_string(want_); \
    } while (0)

// ---- The worked examples, one case each --------------------------------------------------

struct WorkedExample {
    const char* name;
    uint32_t w, h, aspect;
    unsigned long long num_before, denom_before, num_after, denom_after;
    quarvel_frame_size_s result;
};

const WorkedExample kWorkedExamples[] = {
    {"pal_4_3", 720, 576, 2, 2304, 2160, 16, 15, {720, 576, 11520, 8640, 16, 15}},
    {"ntsc_16_9", 720, 480, 3, 7680, 6480, 32, 27, {720, 480, 23040, 12960, 32, 27}},
    {"full_hd_16_9", 1920, 1080, 3, 17280, 17280, 1, 1, {1920, 1080, 1920, 1080, 1, 1}},
    {"anamorphic_hd_16_9", 1440, 1080, 3, 17280, 12960, 4, 3, {1440, 1080, 5760, 3240, 4, 3}},
    {"full_hd_221_100",
     1920,
     1080,
     4,
     238680,
     192000,
     1989,
     1600,
     {1920, 1080, 3818880, 1728000, 1989, 1600}},
    {"pal_square_display", 720, 576, 1, 576, 720, 4, 5, {720, 576, 2880, 2880, 4, 5}},
};

void PrintTo(const WorkedExample& ex, std::ostream* os) {
    *os << ex.name;
}

class WorkedExamples : public ruvo_test::PlatformTest, public ::testing::WithParamInterface<WorkedExample> {};

TEST_P(WorkedExamples, reduce_the_sample_aspect_and_scale_the_display_terms) {
    const WorkedExample& ex = GetParam();
    unsigned long long num = ex.num_before, denom = ex.denom_before;
    ReduceFraction(&num, &denom);
    EXPECT_EQ(num, ex.num_after);
    EXPECT_EQ(denom, ex.denom_after);

    EXPECT_SIZE(size_of(ex.w, ex.h, ex.aspect), ex.result.w, ex.result.h, ex.result.dar_w, ex.result.dar_h,
                ex.result.sar_num, ex.result.sar_denom);
    EXPECT_TRUE(lines().empty());
}

INSTANTIATE_TEST_SUITE_P(FrameSize, WorkedExamples, ::testing::ValuesIn(kWorkedExamples),
                         [](const ::testing::TestParamInfo<WorkedExample>& info) { return info.param.name; });

TEST_F(FrameSize, unknown_aspect_with_no_third_plane_line_size_shows_the_coded_size_with_square_samples) {
    EXPECT_SIZE(size_of(720, 576, 0, 0), 720, 576, 720, 576, 1, 1);
    EXPECT_TRUE(lines().empty());
}

// ---- Edge cases -----------------------------------------------------------------------------

TEST_F(FrameSize, null_descriptor_gives_the_neutral_record_and_says_so) {
    EXPECT_SIZE(CalculateFrameSizeFromV4L2(nullptr), 0, 0, 0, 0, 1, 1);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("CalculateFrameSizeFromV4L2", "frame_info is null")}));
}

TEST_F(FrameSize, null_descriptor_message_is_error_level) {
    g_ruvo_logmask = RUVO_LOG_INFO | RUVO_LOG_TRACE;
    EXPECT_SIZE(CalculateFrameSizeFromV4L2(nullptr), 0, 0, 0, 0, 1, 1);
    EXPECT_TRUE(lines().empty());
}

TEST_F(FrameSize, zero_width_reduces_to_one_over_zero) {
    unsigned long long num = 2304, denom = 0;
    ReduceFraction(&num, &denom);
    EXPECT_EQ(num, 1u);
    EXPECT_EQ(denom, 0u);
    EXPECT_SIZE(size_of(0, 576, 2), 0, 576, 0, 0, 1, 0);
}

TEST_F(FrameSize, zero_height_reduces_to_zero_over_one) {
    unsigned long long num = 0, denom = 2160;
    ReduceFraction(&num, &denom);
    EXPECT_EQ(num, 0u);
    EXPECT_EQ(denom, 1u);
    EXPECT_SIZE(size_of(720, 0, 2), 720, 0, 0, 0, 0, 1);
}

TEST_F(FrameSize, reduction_works_on_terms_above_32_bits) {
    unsigned long long num = 3ull << 40, denom = 5ull << 38;
    ReduceFraction(&num, &denom);
    EXPECT_EQ(num, 12u);
    EXPECT_EQ(denom, 5u);
    num = 0xFFFFFFFFFFFFFFFFull;
    denom = 0xFFFFFFFFFFFFFFFEull;  // consecutive: coprime
    ReduceFraction(&num, &denom);
    EXPECT_EQ(num, 0xFFFFFFFFFFFFFFFFull);
    EXPECT_EQ(denom, 0xFFFFFFFFFFFFFFFEull);
}

TEST_F(FrameSize, only_the_low_32_bits_of_a_reduced_term_are_kept_and_display_terms_wrap) {
    // 1 x 221 over 0xFFFFFFFF x 100 reduces to 13 / 25264513500, a denominator above
    // 32 bits; 13 x 0xFFFFFFFF wraps.
    EXPECT_SIZE(size_of(0xFFFFFFFFu, 1, 4), 0xFFFFFFFFu, 1, 4294967283u, 3789677020u, 13, 3789677020u);
    // 4000000000 / 10007 is already reduced; both display terms are 4000000000 x 10007
    // modulo 2^32.
    EXPECT_SIZE(size_of(10007, 4000000000u, 1), 10007, 4000000000u, 3199768576u, 3199768576u, 4000000000u,
                10007);
}

TEST_F(FrameSize, aspect_value_5_with_no_third_plane_line_size_behaves_like_value_0) {
    EXPECT_SIZE(size_of(720, 576, 5, 0), 720, 576, 720, 576, 1, 1);
    EXPECT_SIZE(size_of(1280, 720, 0xFFFFFFFFu, 0), 1280, 720, 1280, 720, 1, 1);
}

TEST_F(FrameSize, unknown_aspect_with_a_third_plane_line_size_means_square_display) {
    EXPECT_SIZE(size_of(720, 576, 0, 360), 720, 576, 2880, 2880, 4, 5);
    EXPECT_SIZE(size_of(720, 576, 5, 1), 720, 576, 2880, 2880, 4, 5);
    EXPECT_SIZE(size_of(720, 576, 99, 1), 720, 576, 2880, 2880, 4, 5);
}

TEST_F(FrameSize, the_effective_resolution_is_not_used) {
    v4l2_drm d = ruvo_test::make_frame(1920, 1088, 3);
    d.u.dec_info.effective_hres = 1920;
    d.u.dec_info.effective_vres = 1080;
    EXPECT_SIZE(CalculateFrameSizeFromV4L2(&d), 1920, 1088, 261120, 146880, 136, 135);
}

// A 0 x 0 picture of known aspect divides 0 by 0. Left unguarded: x86-64 traps in
// hardware; on ARM the 64-bit division helper of the compiler runtime
// (__aeabi_uldivmod) calls its division-by-zero hook (__aeabi_ldiv0), which raises
// SIGFPE on Linux. Both end the process with SIGFPE unless it is handled.

sigjmp_buf g_after_sigfpe;
volatile sig_atomic_t g_sigfpe_seen = 0;

void on_sigfpe(int) {
    g_sigfpe_seen = 1;
    siglongjmp(g_after_sigfpe, 1);
}

// Runs `fn` with SIGFPE handled; true when it raised SIGFPE.
bool raises_sigfpe(void (*fn)(uint32_t), uint32_t arg) {
    struct sigaction handler, previous;
    memset(&handler, 0, sizeof(handler));
    handler.sa_handler = on_sigfpe;
    sigemptyset(&handler.sa_mask);
    sigaction(SIGFPE, &handler, &previous);
    g_sigfpe_seen = 0;
    if (sigsetjmp(g_after_sigfpe, 1) == 0)
        fn(arg);
    sigaction(SIGFPE, &previous, nullptr);
    return g_sigfpe_seen != 0;
}

void reduce(uint32_t both) {
    unsigned long long num = both, denom = both;
    ReduceFraction(&num, &denom);
}

void size_of_empty_picture(uint32_t aspect) {
    (void)size_of(0, 0, aspect, aspect == 0 ? 1 : 0);
}

TEST_F(FrameSize, zero_over_zero_raises_sigfpe) {
    EXPECT_TRUE(raises_sigfpe(reduce, 0));
    EXPECT_FALSE(raises_sigfpe(reduce, 7));
}

TEST_F(FrameSize, zero_by_zero_picture_of_known_aspect_raises_sigfpe) {
    for (uint32_t aspect = 0; aspect <= 4; ++aspect) {
        EXPECT_TRUE(raises_sigfpe(size_of_empty_picture, aspect)) << "aspect " << aspect;
    }
}

using FrameSizeDeathTest = FrameSize;

void reduce_zero_over_zero() {
    reduce(0);
}

TEST_F(FrameSizeDeathTest, zero_over_zero_ends_the_process_with_sigfpe) {
    RUVO_SKIP_UNLESS_FORK_WORKS();
    EXPECT_EXIT(reduce_zero_over_zero(), ::testing::KilledBySignal(SIGFPE), "");
}

TEST_F(FrameSizeDeathTest, zero_by_zero_picture_of_known_aspect_ends_the_process_with_sigfpe) {
    RUVO_SKIP_UNLESS_FORK_WORKS();
    for (uint32_t aspect = 1; aspect <= 4; ++aspect) {
        EXPECT_EXIT((void)size_of(0, 0, aspect), ::testing::KilledBySignal(SIGFPE), "")
            << "aspect " << aspect;
    }
    // Unknown aspect with a third-plane line size: square samples, the same division.
    EXPECT_EXIT((void)size_of(0, 0, 0, 1), ::testing::KilledBySignal(SIGFPE), "");
}

TEST_F(FrameSize, zero_by_zero_picture_of_unknown_aspect_without_line_size_does_not_divide) {
    EXPECT_SIZE(size_of(0, 0, 0, 0), 0, 0, 0, 0, 1, 1);
}

// ---- ApplyBoxContentMode --------------------------------------------------------------------

TEST_F(FrameSize, box_mode_returns_the_rectangle_itself_for_valid_content) {
    const quarvel_frame_size_s content{1920, 1080, 1920, 1080, 1, 1};
    const quarvel_video_output_rect_s r = rect(100, 50, 1280, 720, 7, 3);
    EXPECT_RECT(ApplyBoxContentMode(&r, &content), 100, 50, 1280, 720, 7, 3);
}

TEST_F(FrameSize, box_mode_with_a_zero_width_rectangle_returns_zeros_for_valid_content) {
    const quarvel_frame_size_s content{1920, 1080, 1920, 1080, 1, 1};
    const quarvel_video_output_rect_s r = rect(100, 50, 0, 720, 16, 9);
    EXPECT_RECT(ApplyBoxContentMode(&r, &content), 0, 0, 0, 0, 0, 0);
}

TEST_F(FrameSize, box_mode_returns_zeros_when_any_tested_dimension_is_zero) {
    const quarvel_frame_size_s valid{1920, 1080, 1920, 1080, 1, 1};
    const quarvel_video_output_rect_s r = rect(-10, -20, 1280, 720, 16, 9);
    for (int field = 0; field < 6; ++field) {
        quarvel_frame_size_s content = valid;
        quarvel_video_output_rect_s box = r;
        switch (field) {
            case 0:
                content.w = 0;
                break;
            case 1:
                content.h = 0;
                break;
            case 2:
                content.dar_w = 0;
                break;
            case 3:
                content.dar_h = 0;
                break;
            case 4:
                box.w = 0;
                break;
            case 5:
                box.h = 0;
                break;
        }
        EXPECT_RECT(ApplyBoxContentMode(&box, &content), 0, 0, 0, 0, 0, 0);
    }
}

TEST_F(FrameSize, box_mode_passes_negative_origins_through) {
    const quarvel_frame_size_s content{720, 576, 11520, 8640, 16, 15};
    const quarvel_video_output_rect_s r = rect(-3, -7, 640, 480, 4, 3);
    EXPECT_RECT(ApplyBoxContentMode(&r, &content), -3, -7, 640, 480, 4, 3);
}

TEST_F(FrameSize, box_mode_passes_a_rectangle_without_its_own_aspect_through) {
    const quarvel_frame_size_s content{720, 576, 11520, 8640, 16, 15};
    const quarvel_video_output_rect_s r = rect(10, 20, 640, 480, 0, 0);
    EXPECT_RECT(ApplyBoxContentMode(&r, &content), 10, 20, 640, 480, 0, 0);
}

TEST_F(FrameSize, box_mode_ignores_the_sample_aspect_of_the_content) {
    const quarvel_frame_size_s content{720, 576, 11520, 8640, 0, 0};
    const quarvel_video_output_rect_s r = rect(1, 2, 3, 4, 5, 6);
    EXPECT_RECT(ApplyBoxContentMode(&r, &content), 1, 2, 3, 4, 5, 6);
    EXPECT_TRUE(lines().empty());
}

}  // namespace
