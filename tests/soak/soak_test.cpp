// Long runs: a million frames on the main plane, ten thousand video open/close cycles and
// ten thousand audio open/setup/push/close cycles, with the open descriptors, the resident
// memory and the heap in use sampled along the way. Descriptors must not move at all; memory
// must be flat over the second half of the run, once the first half has warmed the caches
// up (alsa-lib's configuration, the picture-quality client, the allocator's arenas).
//
// RUVO_SOAK_SCALE=N divides every count by N (sanitizer builds and user-mode emulation set
// it; the native build runs the full counts).
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "hmx_standin.h"
#include "ruvo_log.h"
#include "test_support.h"
#include "ruvo_internal_video.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define RUVO_SOAK_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define RUVO_SOAK_SANITIZED 1
#endif
#endif
#ifndef RUVO_SOAK_SANITIZED
#define RUVO_SOAK_SANITIZED 0
#endif

namespace {

constexpr long kFrames = 1000000;
constexpr long kVideoCycles = 10000;
constexpr long kAudioCycles = 10000;
constexpr int kSamples = 20;
// Allowed growth over the second half of a run: a leak of one byte per frame, or of a
// handle per cycle, is far above it.
constexpr long kHeapSlackBytes = 16 * 1024;
constexpr long kRssSlackKib = 512;

long scale() {
    const char* s = getenv("RUVO_SOAK_SCALE");
    const long n = s != nullptr ? atol(s) : 1;
    return n > 0 ? n : 1;
}

long resident_kib() {
    FILE* f = fopen("/proc/self/statm", "r");
    if (f == nullptr)
        return -1;
    long size = 0, resident = 0;
    const int n = fscanf(f, "%ld %ld", &size, &resident);
    fclose(f);
    return n == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

long heap_in_use() {
    const struct mallinfo2 m = mallinfo2();
    return static_cast<long>(m.uordblks + m.hblkhd);
}

struct Sample {
    long done;
    int descriptors;
    int emulated;
    long rss_kib;
    long heap;
};

// Samples the process at evenly spaced points of a run and judges flatness at the end.
class Sampler {
  public:
    Sampler(const char* name, long total)
        : name_(name), total_(total), start_(std::chrono::steady_clock::now()) {
        every_ = total / kSamples > 0 ? total / kSamples : 1;
        samples_.reserve(kSamples + 2);  // the sampler itself must not allocate on the way
        before_ = sample(0);
    }

    // Call after every iteration with the number done.
    void tick(long done) {
        if (done % every_ == 0 || done == total_)
            samples_.push_back(sample(done));
    }

    void judge() {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        fprintf(stderr, "%s: %ld iterations in %.1f s\n", name_, total_, seconds);
        fprintf(stderr, "  %10s %6s %6s %10s %12s\n", "done", "fds", "emu", "rss KiB", "heap bytes");
        for (const Sample& s : samples_)
            fprintf(stderr, "  %10ld %6d %6d %10ld %12ld\n", s.done, s.descriptors, s.emulated, s.rss_kib,
                    s.heap);
        ASSERT_GE(samples_.size(), 3u);

        // Descriptors: exactly those of the start, at every sample.
        for (const Sample& s : samples_) {
            EXPECT_EQ(s.descriptors, before_.descriptors) << "after " << s.done;
            EXPECT_EQ(s.emulated, before_.emulated) << "after " << s.done;
        }

        // Memory: flat over the second half.
        const Sample* warm = nullptr;
        for (const Sample& s : samples_)
            if (warm == nullptr && s.done >= total_ / 2)
                warm = &s;
        const Sample& last = samples_.back();
        fprintf(stderr, "  growth over the second half: rss %+ld KiB, heap %+ld bytes%s\n",
                last.rss_kib - warm->rss_kib, last.heap - warm->heap,
                RUVO_SOAK_SANITIZED ? " (sanitizer allocator: not judged)" : "");
        if (!RUVO_SOAK_SANITIZED) {
            EXPECT_LE(last.heap - warm->heap, kHeapSlackBytes) << "heap in use grows";
            EXPECT_LE(last.rss_kib - warm->rss_kib, kRssSlackKib) << "resident memory grows";
        }
    }

  private:
    Sample sample(long done) const {
        return Sample{done, emutv::process_open_descriptors(), emutv::platform().open_descriptors(),
                      resident_kib(), heap_in_use()};
    }

    const char* name_;
    long total_;
    long every_;
    std::chrono::steady_clock::time_point start_;
    Sample before_;
    std::vector<Sample> samples_;
};

class Soak : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        unsetenv("TA_DTV_PRELOAD");
        tv().set_recording(false);
        // No mask bit that any message uses: only the always-printed lines remain.
        g_ruvo_logmask = 0x2;
    }
    void TearDown() override {
        (void)lines();
        PlatformTest::TearDown();
    }
};

TEST_F(Soak, a_million_frames_on_the_plane_keep_descriptors_and_memory_flat) {
    const long frames = kFrames / scale();
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    ASSERT_NE(out, nullptr);
    v4l2_drm desc = ruvo_test::make_frame(1920, 1080);
    quarvel_video_output_frame_s frame{};
    frame.v4l2_frame = &desc;
    frame.dv_profile = -1;
    const quarvel_video_output_rect_s full{0, 0, 1920, 1080, 0, 0};
    const quarvel_video_output_rect_s window{480, 270, 960, 540, 0, 0};
    ASSERT_EQ(quarvel_video_output_set_rect(out, &full), 0);
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(out, &frame), 0);

    const size_t requests_before = tv().total_requests();
    long failures = 0;
    long moves = 0;
    quarvel_video_output_vsync_info_s vsync{};
    Sampler sampler("plane frames", frames);
    for (long i = 1; i <= frames; ++i) {
        desc.u.dec_info.pFrame[0].display_index = static_cast<uint32_t>(i);
        failures += quarvel_video_output_push_frame_to_display(out, &frame) != 0;
        // Now and then the window moves and the pipeline reads the vsync timing.
        if (i % 1000 == 0) {
            failures += quarvel_video_output_set_rect(out, (i / 1000) % 2 ? &window : &full) != 0;
            failures += quarvel_video_output_get_vsync_info(out, &vsync) != 0;
            moves++;
        }
        sampler.tick(i);
    }
    EXPECT_EQ(failures, 0);
    // One source request per frame; a plane request per move; two per vsync read.
    EXPECT_EQ(tv().total_requests() - requests_before, static_cast<size_t>(frames + 3 * moves));
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_DP_SOURCE"), static_cast<size_t>(frames + 2));
    sampler.judge();
    quarvel_video_output_close(out);
}

TEST_F(Soak, ten_thousand_video_open_close_cycles_keep_descriptors_and_memory_flat) {
    const long cycles = kVideoCycles / scale();
    v4l2_drm desc = ruvo_test::make_frame(1280, 720);
    quarvel_video_output_frame_s frame{};
    frame.v4l2_frame = &desc;
    frame.dv_profile = 5;
    const quarvel_video_output_rect_s full{0, 0, 1920, 1080, 0, 0};
    long failures = 0;
    Sampler sampler("video open/close cycles", cycles);
    for (long i = 1; i <= cycles; ++i) {
        quarvel_video_output_s* out = quarvel_video_output_open(false);
        if (out == nullptr) {
            failures++;
        } else {
            failures += quarvel_video_output_set_rect(out, &full) != 0;
            failures += quarvel_video_output_init_with_first_frame(out, &frame) != 0;
            failures += quarvel_video_output_push_frame_to_display(out, &frame) != 0;
            quarvel_video_output_close(out);
        }
        // The picture-quality stand-in keeps every transaction for the tests to read: its
        // log, not the library's memory.
        hmx_standin_clear();
        sampler.tick(i);
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(tv().count("open:/dev/dri/card0") + tv().count("open"), static_cast<size_t>(3 * cycles));
    EXPECT_EQ(tv().count("close"), static_cast<size_t>(3 * cycles));
    // Every cycle takes and gives back the zero-queue hold.
    EXPECT_EQ(tv().count("FR2IP_SetDispQueueSize"), static_cast<size_t>(2 * cycles));
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(tv().vplt().queue_size, 3);
    sampler.judge();
}

TEST_F(Soak, ten_thousand_audio_open_setup_push_close_cycles_keep_descriptors_and_memory_flat) {
    const long cycles = kAudioCycles / scale();
    const char kDevice[] = "/dev/snd/comprC0D0";
    tv().add_compr_device(kDevice);
    static unsigned char block[4096 + 32] = {};
    const quarvel_audio_output_setup_params_s params{2, 48000, {0, 0, 0, 0, 0, 0}};
    long failures = 0;
    size_t writes = 0;
    Sampler sampler("audio cycles", cycles);
    for (long i = 1; i <= cycles; ++i) {
        quarvel_audio_output_s* out = quarvel_audio_output_open(kDevice);
        if (out == nullptr) {
            failures++;
        } else {
            failures += quarvel_audio_output_setup(out, &params) != 0;
            failures += quarvel_audio_output_push_data(out, block, 4096, 32) != 0;
            quarvel_audio_output_info_s info;
            failures += quarvel_audio_output_get_info(out, &info) != 0;
            quarvel_audio_output_close(out);
        }
        // The emulated card lists every control write for the tests to read: its log, not the
        // library's memory.
        {
            std::lock_guard<emutv::PlatformMutex> lock(tv().mutex());
            writes += tv().sound().writes.size();
            tv().sound().writes.clear();
        }
        sampler.tick(i);
    }
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(tv().count("SNDRV_COMPRESS_START"), static_cast<size_t>(cycles));
    // Close writes the two gains and the rate back each time.
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"), static_cast<size_t>(3 * cycles));
    EXPECT_EQ(writes, static_cast<size_t>(3 * cycles));
    EXPECT_EQ(tv().sound().value("qvl speaker main gain"), 32768);
    sampler.judge();
}

}  // namespace
