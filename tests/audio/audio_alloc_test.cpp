// The steady-state cost of the data path: requests per call and heap allocations, counted
// by the replaced allocator of this program (allocations inside the emulated platform, its
// record, are not the library's and are not counted).
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>

#include <new>

#include "alloc_counter.h"
#include "audio_fixture.h"

using audio_test::AudioTest;
using ruvo_test::AllocationCounter;

class AudioCost : public AudioTest {
  protected:
    static constexpr int kCalls = 200;
};

TEST_F(AudioCost, the_counter_sees_the_library_allocate) {
    AllocationCounter counter;
    counter.start();
    quarvel_audio_output_s* out = quarvel_audio_output_open(audio_test::kDevice);
    const size_t allocations = counter.stop();
    ASSERT_NE(out, nullptr);
    output_ = out;
    EXPECT_GE(allocations, 1u);  // the handle
}

TEST_F(AudioCost, the_counter_ignores_the_emulated_platform) {
    open_and_setup(2, 48000);
    const std::string request = "SNDRV_COMPRESS_AVAIL";
    AllocationCounter counter;
    counter.start();
    emutv::platform().fail(request, EIO);  // allocates inside the emulator only
    const size_t allocations = counter.stop();
    EXPECT_EQ(allocations, 0u);
    // Through a volatile pointer, so the compiler cannot drop the pair.
    void* (*volatile allocate)(size_t) = malloc;
    counter.start();
    void* p = allocate(4096);
    const size_t own = counter.stop();
    free(p);
    EXPECT_EQ(own, 1u);
}

TEST_F(AudioCost, steady_state_push_costs_one_avail_and_one_write_and_no_allocation) {
    open_and_setup(2, 48000);
    std::vector<unsigned char> block(4096 + 32);
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);  // starts the stream

    const size_t avail0 = tv().count("SNDRV_COMPRESS_AVAIL");
    const size_t write0 = tv().count("write");
    const size_t total0 = tv().total_requests();
    int failures = 0;
    AllocationCounter counter;
    counter.start();
    for (int i = 0; i < kCalls; ++i)
        if (quarvel_audio_output_push_data(output_, block.data(), 4096, 32) != 0)
            failures++;
    const size_t allocations = counter.stop();

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_AVAIL") - avail0, static_cast<size_t>(kCalls));
    EXPECT_EQ(tv().count("write") - write0, static_cast<size_t>(kCalls));
    EXPECT_EQ(tv().total_requests() - total0, 2u * kCalls);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), 1u);
    EXPECT_EQ(output_->m_pushed_frames, 1024u * (kCalls + 1));
}

TEST_F(AudioCost, get_info_costs_its_three_requests_and_no_allocation) {
    open_and_setup(2, 48000);
    std::vector<unsigned char> block(4096 + 32);
    ASSERT_EQ(quarvel_audio_output_push_data(output_, block.data(), 4096, 32), 0);
    tv().compr().remain = 9600;
    quarvel_audio_output_info_s info{};
    ASSERT_EQ(quarvel_audio_output_get_info(output_, &info), 0);

    const size_t tstamp0 = tv().count("SNDRV_COMPRESS_TSTAMP");
    const size_t meta0 = tv().count("SNDRV_COMPRESS_GET_METADATA");
    const size_t avail0 = tv().count("SNDRV_COMPRESS_AVAIL");
    const size_t total0 = tv().total_requests();
    int failures = 0;
    AllocationCounter counter;
    counter.start();
    for (int i = 0; i < kCalls; ++i)
        if (quarvel_audio_output_get_info(output_, &info) != 0)
            failures++;
    const size_t allocations = counter.stop();

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_TSTAMP") - tstamp0, static_cast<size_t>(kCalls));
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_GET_METADATA") - meta0, static_cast<size_t>(kCalls));
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_AVAIL") - avail0, static_cast<size_t>(kCalls));
    EXPECT_EQ(tv().total_requests() - total0, 3u * kCalls);
    EXPECT_EQ(info.remain_size, 9600);
}
