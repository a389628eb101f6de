// The steady-state cost of the data path: requests per call and heap allocations. This
// program replaces the allocator (malloc family and the global operator new/delete) with
// counting wrappers around the C library's own allocator. Allocations made inside the
// emulated platform (its record) are not the library's and are not counted.
#include <errno.h>
#include <malloc.h>
#include <stdlib.h>

#include <new>

#include "audio_fixture.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);
}

namespace {

thread_local bool t_counting = false;
thread_local size_t t_allocations = 0;

inline void count_allocation() {
    if (t_counting && !emutv::inside_emulator())
        t_allocations++;
}

// Counts the allocations the calling thread makes between start() and stop().
class AllocationCounter {
  public:
    void start() {
        t_allocations = 0;
        t_counting = true;
    }
    size_t stop() {
        t_counting = false;
        return t_allocations;
    }
};

}  // namespace

extern "C" {

void* malloc(size_t size) {
    count_allocation();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    count_allocation();
    return __libc_calloc(count, size);
}

void* realloc(void* ptr, size_t size) {
    count_allocation();
    return __libc_realloc(ptr, size);
}

void* memalign(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) {
    count_allocation();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr)
        return ENOMEM;
    *out = p;
    return 0;
}

void free(void* ptr) {
    __libc_free(ptr);
}

}  // extern "C"

void* operator new(size_t size) {
    count_allocation();
    void* p = __libc_malloc(size ? size : 1);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void* operator new[](size_t size) {
    count_allocation();
    void* p = __libc_malloc(size ? size : 1);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void operator delete(void* ptr) noexcept {
    __libc_free(ptr);
}
void operator delete[](void* ptr) noexcept {
    __libc_free(ptr);
}
void operator delete(void* ptr, size_t) noexcept {
    __libc_free(ptr);
}
void operator delete[](void* ptr, size_t) noexcept {
    __libc_free(ptr);
}

using audio_test::AudioTest;

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
