// Calls from several threads at once, as a browser makes them: one thread per video handle
// (frames, timing, positioning), audio outputs on threads of their own, mixer writes from
// yet another, and the hand-back's detached audio-mute thread beside them. Meant to run
// under ThreadSanitizer too (label 'concurrency').
//
// What the library leaves to its callers stays out: the first first frame of the process
// (it creates the picture-quality client) runs before the threads start, and no thread
// writes the debug mask (no marker file) or asks the board HAL for the first time.
#include <stdlib.h>

#include <atomic>
#include <mutex>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "hmx_standin.h"
#include "ruvo_log.h"
#include "test_support.h"
#include "ruvo_internal_video.h"

namespace {

constexpr int kVideoThreads = 4;
constexpr int kFramesPerThread = 2000;
constexpr int kAudioThreads = 2;
constexpr int kBlocksPerThread = 2000;
constexpr int kMixerWrites = 50;

class Concurrency : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        unsetenv("TA_DTV_PRELOAD");
        tv().set_recording(false);
        g_ruvo_logmask = RUVO_LOG_ERR;
        tv().add_compr_device(kAudioDevice);
        base_descriptors_ = emutv::process_open_descriptors();
        // The picture-quality client and alsa-lib's configuration, made once up front.
        quarvel_video_output_s* h = quarvel_video_output_open(false);
        ASSERT_NE(h, nullptr);
        v4l2_drm d = ruvo_test::make_frame(1920, 1080);
        quarvel_video_output_frame_s f{&d, -1, {0, 0, 0, 0, 0, 0, 0}};
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(h, &f), 0);
        quarvel_video_output_close(h);
        ASSERT_EQ(quarvel_audio_output_speed_control(nullptr, 1.0f), 0);
        hmx_standin_clear();
    }
    void TearDown() override {
        (void)lines();
        unsetenv("TA_DTV_PRELOAD");
        PlatformTest::TearDown();
    }

    // One browser video pipeline: its own handle, frames with a move now and then, the
    // timing queries, a resolution change, close.
    static void video_pipeline(int index, std::atomic<int>* failures) {
        quarvel_video_output_s* out = quarvel_video_output_open(false);
        if (out == nullptr) {
            failures->fetch_add(1);
            return;
        }
        v4l2_drm desc = ruvo_test::make_frame(1920, 1080);
        v4l2_drm next = ruvo_test::make_frame(1280, 720);
        quarvel_video_output_frame_s frame{&desc, -1, {0, 0, 0, 0, 0, 0, 0}};
        quarvel_video_output_frame_s next_frame{&next, -1, {0, 0, 0, 0, 0, 0, 0}};
        const quarvel_video_output_rect_s a{index * 100, 0, 960, 540, 0, 0};
        const quarvel_video_output_rect_s b{0, index * 100, 1920, 1080, 0, 0};
        int bad = 0;
        bad += quarvel_video_output_set_rect(out, &a) != 0;
        bad += quarvel_video_output_init_with_first_frame(out, &frame) != 0;
        quarvel_video_output_vsync_info_s vsync;
        quarvel_video_used_frames_s used;
        for (int i = 0; i < kFramesPerThread; ++i) {
            desc.u.dec_info.pFrame[0].display_index = static_cast<uint32_t>(i);
            bad += quarvel_video_output_push_frame_to_display(out, &frame) != 0;
            bad += quarvel_video_output_set_pts(out, i) != 0;
            if (i % 100 == 0) {
                bad += quarvel_video_output_set_rect(out, (i / 100) % 2 ? &b : &a) != 0;
                bad += quarvel_video_output_get_vsync_info(out, &vsync) != 0;
                bad += quarvel_video_output_get_used_frames(out, &used) != 0;
            }
        }
        bad += quarvel_video_output_set_next_res(out, &next_frame) != 0;
        quarvel_video_output_close(out);
        failures->fetch_add(bad);
    }

    // One audio pipeline: its own output, blocks and position polls.
    static void audio_pipeline(std::atomic<int>* failures) {
        quarvel_audio_output_s* out = quarvel_audio_output_open(kAudioDevice);
        if (out == nullptr) {
            failures->fetch_add(1);
            return;
        }
        static const unsigned char block[1024] = {};
        const quarvel_audio_output_setup_params_s params{2, 48000, {0, 0, 0, 0, 0, 0}};
        int bad = quarvel_audio_output_setup(out, &params) != 0;
        quarvel_audio_output_info_s info;
        for (int i = 0; i < kBlocksPerThread; ++i) {
            bad += quarvel_audio_output_push_data(out, block, sizeof(block), 0) != 0;
            bad += quarvel_audio_output_get_info(out, &info) != 0;
        }
        bad += quarvel_audio_output_stop(out) != 0;
        quarvel_audio_output_close(out);
        failures->fetch_add(bad);
    }

    static constexpr const char* kAudioDevice = "/dev/snd/comprC0D0";
    int base_descriptors_ = 0;
};

TEST_F(Concurrency, video_handles_on_four_threads_show_their_frames_side_by_side) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kVideoThreads; ++t)
        threads.emplace_back(video_pipeline, t, &failures);
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(tv().count("DRM_IOCTL_SDP_SET_DP_SOURCE"),
              static_cast<size_t>(2 + kVideoThreads * (2 + kFramesPerThread)));
    EXPECT_EQ(tv().count("FR2IP_SetPTS"), static_cast<size_t>(kVideoThreads * kFramesPerThread));
    // The zero-queue holds of all handles were taken and given back.
    EXPECT_EQ(fr2ip_zero_queue_use_count(), 0);
    EXPECT_EQ(tv().vplt().queue_size, 3);
    EXPECT_EQ(emutv::process_open_descriptors(), base_descriptors_);
    EXPECT_EQ(tv().open_descriptors(), 0);
}

TEST_F(Concurrency, audio_outputs_and_mixer_writes_run_on_threads_of_their_own) {
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kAudioThreads; ++t)
        threads.emplace_back(audio_pipeline, &failures);
    threads.emplace_back([&failures] {
        for (int i = 0; i < kMixerWrites; ++i) {
            failures.fetch_add(quarvel_audio_output_volume_control(nullptr, 0.25f * (i % 4)) != 0);
            failures.fetch_add(quarvel_audio_output_speed_control(nullptr, 1.0f + 0.5f * (i % 2)) != 0);
        }
    });
    for (auto& th : threads)
        th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(tv().count("write"), static_cast<size_t>(kAudioThreads * kBlocksPerThread));
    // Each close writes the two gains and the rate back to 1.0; the writer's own writes.
    EXPECT_EQ(tv().count("SNDRV_CTL_IOCTL_ELEM_WRITE"),
              static_cast<size_t>(1 + 3 * kAudioThreads + 3 * kMixerWrites));
    EXPECT_EQ(emutv::process_open_descriptors(), base_descriptors_);
}

TEST_F(Concurrency, the_hand_back_mute_thread_runs_beside_video_and_mixer_calls) {
    quarvel_video_output_s* out = quarvel_video_output_open(false);
    ASSERT_NE(out, nullptr);
    v4l2_drm desc = ruvo_test::make_frame(1920, 1080);
    quarvel_video_output_frame_s frame{&desc, -1, {0, 0, 0, 0, 0, 0, 0}};
    const quarvel_video_output_rect_s full{0, 0, 1920, 1080, 0, 0};
    ASSERT_EQ(quarvel_video_output_set_rect(out, &full), 0);
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(out, &frame), 0);

    std::atomic<int> failures{0};
    std::atomic<bool> stop{false};
    // Another pipeline writes the mixer while the switches come.
    std::thread mixer([&failures, &stop] {
        while (!stop.load())
            failures.fetch_add(quarvel_audio_output_volume_control(nullptr, 1.0f) != 0);
    });
    constexpr int kSwitches = 20;
    for (int i = 0; i < kSwitches; ++i) {
        failures.fetch_add(quarvel_video_output_set_rect(out, &full) != 0);  // shown again
        setenv("TA_DTV_PRELOAD", "1", 1);
        quarvel_video_output_notify_ta_switch(out);
        failures.fetch_add(out->m_rect_applied_to_driver.w != 0);
    }
    stop.store(true);
    mixer.join();
    // The detached mute threads end by themselves, each after its mixer write.
    auto mutes = [this] {
        std::lock_guard<emutv::PlatformMutex> lock(tv().mutex());
        size_t n = 0;
        for (const auto& w : tv().sound().writes)
            n += w.name == "main out mute" && w.value == 1;
        return n;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (mutes() < static_cast<size_t>(kSwitches) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(mutes(), static_cast<size_t>(kSwitches));
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(tv().count("VIDIOC_G_EXT_CTRLS"), static_cast<size_t>(kSwitches));
    quarvel_video_output_close(out);
    // A mute thread may still be closing the control device after its write was seen.
    const auto settle = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (emutv::process_open_descriptors() != base_descriptors_ &&
           std::chrono::steady_clock::now() < settle)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(emutv::process_open_descriptors(), base_descriptors_);
}

}  // namespace
