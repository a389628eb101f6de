// The display queue of the video-platform driver: size 0 while any handle shows frames,
// counted across handles, back to the given size when the last holder lets go.
#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using ruvo_test::vline;
using namespace video_present;

namespace {

class QueueMode : public VideoHandleTest {
  protected:
    std::vector<int32_t> sizes_sent() {
        std::vector<int32_t> out;
        for (const auto& e : tv().events("FR2IP_SetDispQueueSize"))
            out.push_back(static_cast<int32_t>(e.field("queue_size")));
        return out;
    }
    static quarvel_video_output_s* open_quietly() {
        quarvel_video_output_s* h = quarvel_video_output_open(false);
        return h;
    }
};

TEST_F(QueueMode, the_hold_sends_size_0_with_plane_0_and_a_zeroed_status_cell) {
    EXPECT_TRUE(InitQueueMode(out_));
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].name, "FR2IP_SetDispQueueSize");
    EXPECT_EQ(ev[0].request, 0xC0245604ul);
    EXPECT_EQ(ev[0].fd, out_->m_valio_fd);
    EXPECT_EQ(ev[0].field("cmd"), 1544);
    ASSERT_EQ(ev[0].args.size(), 8u);
    EXPECT_EQ(ev[0].args[0], u8_cell(0));
    EXPECT_EQ(ev[0].args[1], s32_cell(0));
    for (int i = 2; i < 7; ++i)
        EXPECT_TRUE(ev[0].args[i].empty()) << "arg" << i + 1;
    EXPECT_EQ(ev[0].args[7], s32_cell(0));
    EXPECT_EQ(tv().vplt().queue_size, 0);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_TRUE(lines().empty());
}

TEST_F(QueueMode, the_hold_is_traced_when_the_trace_level_is_on) {
    g_ruvo_logmask = RUVO_LOG_TRACE;
    EXPECT_TRUE(InitQueueMode(out_));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("fr2ip_set_queue_size", "in, size = 0, count = 0"),
                                                 vline("fr2ip_do_set_queue_size", "in, size = 0")}));
}

TEST_F(QueueMode, two_handles_share_the_zero_queue_and_the_last_one_restores_3) {
    quarvel_video_output_s* b = open_quietly();
    ASSERT_NE(b, nullptr);
    tv().clear_events();

    EXPECT_TRUE(InitQueueMode(out_));  // 0 -> 1, size 0 sent
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_TRUE(InitQueueMode(b));  // 1 -> 2, nothing sent
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 2);
    EXPECT_EQ(sizes_sent(), (std::vector<int32_t>{0}));

    quarvel_video_output_close(out_);  // 2 -> 1, nothing sent
    out_ = nullptr;
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
    EXPECT_EQ(sizes_sent(), (std::vector<int32_t>{0}));

    quarvel_video_output_close(b);  // 1 -> 0, size 3 sent
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(sizes_sent(), (std::vector<int32_t>{0, 3}));
    EXPECT_EQ(tv().vplt().queue_size, 3);
}

TEST_F(QueueMode, a_second_hold_of_one_handle_sends_nothing_and_counts_once) {
    EXPECT_TRUE(InitQueueMode(out_));
    EXPECT_TRUE(InitQueueMode(out_));
    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 1u);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 1);
}

TEST_F(QueueMode, a_handle_closed_without_a_hold_sends_nothing) {
    quarvel_video_output_close(out_);
    out_ = nullptr;
    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 0u);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
}

TEST_F(QueueMode, a_refused_first_hold_is_released_below_zero_and_the_next_holder_sends_nothing) {
    tv().fail("FR2IP_SetDispQueueSize", EIO);
    EXPECT_FALSE(InitQueueMode(out_));
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_TRUE(out_->m_queue_size_set);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("fr2ip_do_set_queue_size", "ioctl(SetDispQueueSize) failed: Input/output error")}));

    quarvel_video_output_close(out_);  // release: 0 -> -1, nothing sent
    out_ = nullptr;
    EXPECT_EQ(fr2ip_zero_queue_use_count(), -1);
    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 1u);

    quarvel_video_output_s* next = open_quietly();
    ASSERT_NE(next, nullptr);
    EXPECT_TRUE(InitQueueMode(next));  // -1 -> 0, nothing sent
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 1u);
    quarvel_video_output_close(next);  // 0 -> -1 again
    EXPECT_EQ(fr2ip_zero_queue_use_count(), -1);
    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), 1u);
}

TEST_F(QueueMode, a_driver_status_of_5_fails_the_hold) {
    tv().fail_status("FR2IP_SetDispQueueSize", 5);
    EXPECT_FALSE(InitQueueMode(out_));
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    auto ev = tv().events();
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].result, 0);
    EXPECT_EQ(ev[0].field("status"), 5);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("fr2ip_do_set_queue_size",
                                                       "EN_VPLT_IOC_FR2IP_SetDispQueueSize : ret = 5")}));
}

TEST_F(QueueMode, a_release_to_zero_sends_the_size_it_was_given) {
    EXPECT_TRUE(fr2ip_set_queue_size(out_->m_valio_fd, 0));
    EXPECT_TRUE(fr2ip_set_queue_size(out_->m_valio_fd, 7));
    EXPECT_EQ(sizes_sent(), (std::vector<int32_t>{0, 7}));
    EXPECT_EQ(tv().vplt().queue_size, 7);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
}

TEST_F(QueueMode, a_release_is_counted_even_when_the_driver_refuses_it) {
    EXPECT_TRUE(fr2ip_set_queue_size(out_->m_valio_fd, 0));
    tv().fail("FR2IP_SetDispQueueSize", EIO);
    EXPECT_TRUE(fr2ip_set_queue_size(out_->m_valio_fd, 3));
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  vline("fr2ip_do_set_queue_size", "ioctl(SetDispQueueSize) failed: Input/output error")}));
}

TEST_F(QueueMode, a_release_is_traced_with_the_count) {
    g_ruvo_logmask = RUVO_LOG_TRACE;
    EXPECT_TRUE(fr2ip_set_queue_size(out_->m_valio_fd, 0));
    EXPECT_TRUE(fr2ip_set_queue_size(out_->m_valio_fd, 3));
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("fr2ip_set_queue_size", "in, size = 0, count = 0"),
                                                 vline("fr2ip_do_set_queue_size", "in, size = 0"),
                                                 vline("fr2ip_set_queue_size", "in, size = 3, count = 1"),
                                                 vline("fr2ip_do_set_queue_size", "in, size = 3")}));
}

TEST_F(QueueMode, a_null_handle_is_refused) {
    EXPECT_FALSE(InitQueueMode(nullptr));
    EXPECT_EQ(tv().events().size(), 0u);
    EXPECT_EQ(lines(), (std::vector<std::string>{vline("InitQueueMode", "output is null")}));
}

}  // namespace
