// What the per-frame and timing calls cost in steady state: driver requests and heap
// allocations. The program replaces the global allocator with a counting one; what the
// emulated platform allocates for its own bookkeeping is not counted.
#include <errno.h>
#include <stdlib.h>
#include <sys/ioctl.h>

#include <atomic>
#include <new>

#include "alloc_counter.h"
#include "video_present_fixture.h"

using namespace video_present;

namespace {

// Counts what the calling thread allocates outside the emulator while alive.
class AllocationCount {
  public:
    AllocationCount() { counter_.start(); }
    ~AllocationCount() { counter_.stop(); }
    long stop() { return static_cast<long>(counter_.stop()); }

  private:
    ruvo_test::AllocationCounter counter_;
};

class SteadyState : public VideoHandleTest {
  protected:
    // A stream on the plane, shown, with one frame already through.
    void start() {
        const auto r = rect(0, 0, 1920, 1080);
        ASSERT_EQ(quarvel_video_output_set_rect(out_, &r), 0);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(out_, frame_.get()), 0);
        ASSERT_EQ(quarvel_video_output_push_frame_to_display(out_, frame_.get()), 0);
        tv().set_recording(false);
        tv().clear_events();
        (void)lines();
    }
    TestFrame frame_{1920, 1080, V4L2_ASPECTRATIO_TYPE_900_1600, 5};
};

TEST_F(SteadyState, the_counter_sees_allocations_outside_the_emulator_only) {
    long seen;
    {
        AllocationCount count;
        // Kept through volatile, or the compiler may drop the pairs as dead.
        void* volatile p = malloc(16);
        int* volatile q = new int(3);
        delete q;
        free(p);
        seen = count.stop();
    }
    EXPECT_EQ(seen, 2);
    {
        AllocationCount count;
        quarvel_video_output_s* other = quarvel_video_output_open(false);
        seen = count.stop();
        quarvel_video_output_close(other);
    }
    EXPECT_GE(seen, 1);  // the handle itself
    start();
    {
        AllocationCount count;
        // The emulator allocates for its record; the bare request has no allocation of
        // its own.
        v4l2_drm d = frame_.desc;
        ASSERT_EQ(ioctl(out_->m_drm_fd, DRM_IOCTL_SDP_SET_DP_SOURCE, &d), 0);
        seen = count.stop();
    }
    EXPECT_EQ(seen, 0);
}

TEST_F(SteadyState, a_frame_on_the_plane_is_one_source_request_and_no_allocation) {
    start();
    constexpr int kFrames = 200;
    long allocations;
    {
        AllocationCount count;
        for (int i = 0; i < kFrames; ++i) {
            frame_.desc.u.dec_info.pFrame[0].display_index = static_cast<uint32_t>(i);
            if (quarvel_video_output_push_frame_to_display(out_, frame_.get()) != 0)
                break;
        }
        allocations = count.stop();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(tv().total_requests(), static_cast<size_t>(kFrames));
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_DP_SOURCE"), static_cast<size_t>(kFrames));
    EXPECT_TRUE(lines().empty());
}

TEST_F(SteadyState, a_frame_with_trace_off_formats_nothing_even_with_a_new_frame_id) {
    start();
    g_ruvo_logmask = RUVO_LOG_ERR | RUVO_LOG_INFO;
    long allocations;
    {
        AllocationCount count;
        for (int i = 0; i < 50; ++i)
            (void)quarvel_video_output_push_frame_to_display(out_, frame_.get());
        allocations = count.stop();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_TRUE(lines().empty());
}

TEST_F(SteadyState, timing_calls_are_their_requests_only_and_allocate_nothing) {
    start();
    quarvel_video_output_vsync_info_s info{};
    quarvel_video_used_frames_s used{};
    long allocations;
    {
        AllocationCount count;
        for (int i = 0; i < 50; ++i) {
            (void)quarvel_video_output_get_vsync_info(out_, &info);
            (void)quarvel_video_output_get_used_frames(out_, &used);
            (void)quarvel_video_output_set_pts(out_, 1000 + i);
        }
        allocations = count.stop();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(tv().count("FR2IP_GetVsyncHZ"), 50u);
    EXPECT_EQ(tv().count("FR2IP_GetOffsetFromVsync"), 50u);
    EXPECT_EQ(tv().count("FR2IP_GetDirectlyFrames"), 50u);
    EXPECT_EQ(tv().count("FR2IP_SetPTS"), 50u);
    EXPECT_EQ(tv().total_requests(), 200u);
}

TEST_F(SteadyState, an_unchanged_placement_costs_nothing) {
    start();
    const auto r = rect(0, 0, 1920, 1080);
    long allocations;
    {
        AllocationCount count;
        g_ruvo_logmask = RUVO_LOG_ERR;  // the entry line of set_rect is info level
        for (int i = 0; i < 50; ++i)
            (void)quarvel_video_output_set_rect(out_, &r);
        allocations = count.stop();
    }
    EXPECT_EQ(allocations, 0);
    EXPECT_EQ(tv().total_requests(), 0u);
}

}  // namespace
