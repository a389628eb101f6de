// The process-wide zero-queue count under concurrent handles: many threads open a
// handle, take its queue hold and close it again.
#include <atomic>
#include <mutex>
#include <thread>

#include "video_present_fixture.h"
#include "ruvo_internal_video.h"

using namespace video_present;

namespace {

class ZeroQueueStress : public ruvo_test::PlatformTest {};

TEST_F(ZeroQueueStress, eight_threads_of_a_thousand_handle_cycles_end_with_count_0_and_size_3) {
    if (!host_runs_threads())
        GTEST_SKIP() << "threads crash on this host (emulator with a mismatched C library)";
    constexpr int kThreads = 8;
    constexpr int kCycles = 1000;
    g_ruvo_logmask = RUVO_LOG_ERR;
    hmx_standin_clear();

    // The picture-quality client is created by the first first frame of the process,
    // which must not race with another one.
    {
        quarvel_video_output_s* h = quarvel_video_output_open(false);
        ASSERT_NE(h, nullptr);
        TestFrame f(1920, 1080);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(h, f.get()), 0);
        quarvel_video_output_close(h);
    }
    ASSERT_EQ(fr2ip_zero_queue_use_count(), 0);

    // Every queue-size request in the order the driver saw them (the listener runs under
    // the platform lock).
    std::vector<int32_t> sizes;
    tv().set_recording(false);
    tv().clear_events();
    tv().set_listener([&sizes](const emutv::Event& e) {
        if (e.name == "FR2IP_SetDispQueueSize")
            sizes.push_back(static_cast<int32_t>(e.field("queue_size")));
    });

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures]() {
            TestFrame frame(1280, 720);
            for (int i = 0; i < kCycles; ++i) {
                quarvel_video_output_s* h = quarvel_video_output_open(false);
                if (h == nullptr) {
                    failures.fetch_add(1);
                    continue;
                }
                // Half of the holds through the first frame, half directly.
                const bool ok = ((i + t) % 2 == 0)
                                    ? quarvel_video_output_init_with_first_frame(h, frame.get()) == 0
                                    : InitQueueMode(h);
                if (!ok || !h->m_queue_size_set)
                    failures.fetch_add(1);
                quarvel_video_output_close(h);
            }
        });
    }
    for (auto& th : threads)
        th.join();
    tv().set_listener(nullptr);

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(tv().vplt().queue_size, 3);
    ASSERT_FALSE(sizes.empty());
    EXPECT_EQ(sizes.back(), 3);
    // First holder and last releaser never interleave: 0, 3, 0, 3, ...
    EXPECT_EQ(sizes.size() % 2, 0u);
    for (size_t i = 0; i < sizes.size(); ++i) {
        ASSERT_EQ(sizes[i], i % 2 == 0 ? 0 : 3) << "request " << i;
    }
    EXPECT_EQ(tv().open_descriptors(), 0);
    (void)lines();
}

}  // namespace
