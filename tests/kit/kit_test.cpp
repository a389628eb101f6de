// The shared kit: what each frame descriptor builder step writes, byte for byte; the thread
// count and the wait for threads to end.
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "ruvo_kit/frame_descriptor.h"
#include "ruvo_kit/threads.h"
#include "test_support.h"

namespace {

v4l2_drm zeroed() {
    v4l2_drm d;
    memset(&d, 0, sizeof(d));
    return d;
}

// The picture every builder starts from, written field by field.
v4l2_drm picture(uint32_t w, uint32_t h) {
    v4l2_drm d = zeroed();
    d.inputport = V4L2_DRM_INPUTPORT_TYPE_MM;
    d.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    d.u.dec_info.hres = w;
    d.u.dec_info.vres = h;
    d.u.dec_info.effective_hres = w;
    d.u.dec_info.effective_vres = h;
    d.u.dec_info.framerate = 50000;
    d.u.dec_info.pFrame[0].display_index = 1;
    return d;
}

bool same_bytes(const v4l2_drm& a, const v4l2_drm& b) {
    return memcmp(&a, &b, sizeof(v4l2_drm)) == 0;
}

TEST(FrameDescriptor, starts_from_a_whole_16_9_picture_at_50_fps_from_the_media_player) {
    const v4l2_drm d = ruvo_kit::FrameDescriptor(1920, 1080);
    EXPECT_TRUE(same_bytes(d, picture(1920, 1080)));
}

TEST(FrameDescriptor, each_setter_writes_its_field_only) {
    v4l2_drm expected = picture(720, 576);
    expected.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_300_400;
    expected.inputport = static_cast<v4l2_drm_inputport_type>(0);
    expected.u.dec_info.framerate = 25000;
    expected.u.dec_info.pFrame[0].display_index = 7;
    const v4l2_drm d = ruvo_kit::FrameDescriptor(720, 576)
                           .aspect(V4L2_ASPECTRATIO_TYPE_300_400)
                           .inputport(0)
                           .framerate(25000)
                           .display_index(7);
    EXPECT_TRUE(same_bytes(d, expected));
}

TEST(FrameDescriptor, the_tests_frame_has_a_first_plane_of_the_picture_size) {
    v4l2_drm expected = picture(1280, 720);
    expected.u.dec_info.pFrame[0].width = 1280;
    expected.u.dec_info.pFrame[0].height = 720;
    EXPECT_TRUE(same_bytes(ruvo_test::make_frame(1280, 720), expected));
}

TEST(FrameDescriptor, a_decoded_yuv420_frame_is_shown_finished_with_its_row_lengths) {
    v4l2_drm expected = picture(1920, 1080);
    v4l2_drm_dec_info& di = expected.u.dec_info;
    di.bpp = 8;
    di.pFrame[0].showframe = 1;
    di.pFrame[0].width = 1920;
    di.pFrame[0].height = 1080;
    di.pFrame[0].y_linesize = 1920;
    di.pFrame[0].u_linesize = 1920;
    di.pFrame[0].v_linesize = 960;
    di.pFrame[0].colorformat = V4L2_DRM_COLORFORMAT_YUV420;
    di.pFrame[0].framedone = 1;
    EXPECT_TRUE(same_bytes(ruvo_kit::FrameDescriptor(1920, 1080).decoded_yuv420(960), expected));
}

// A thread that waits until it is let go.
class ParkedThread {
  public:
    ParkedThread()
        : thread_([this] {
              std::unique_lock<std::mutex> lock(m_);
              cv_.wait(lock, [this] { return released_; });
          }) {}
    ~ParkedThread() { let_go(); }

    // Lets the thread end and joins it.
    void let_go() {
        if (!thread_.joinable())
            return;
        {
            std::lock_guard<std::mutex> lock(m_);
            released_ = true;
        }
        cv_.notify_one();
        thread_.join();
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    bool released_ = false;
    std::thread thread_;
};

TEST(ThreadCount, counts_a_thread_while_it_runs) {
    const int before = ruvo_kit::thread_count();
    ASSERT_GE(before, 1);
    ParkedThread t;
    EXPECT_EQ(ruvo_kit::thread_count(), before + 1);
    t.let_go();
    // The kernel drops the joined thread's entry a moment after the join returns.
    EXPECT_TRUE(ruvo_kit::wait_for_threads_to_end(before, std::chrono::seconds(10)));
    EXPECT_EQ(ruvo_kit::thread_count(), before);
}

// A thread that goes on running is still counted when the wait gives up.
TEST(ThreadCount, wait_gives_up_while_a_thread_runs) {
    const int before = ruvo_kit::thread_count();
    ParkedThread t;
    EXPECT_FALSE(ruvo_kit::wait_for_threads_to_end(before, std::chrono::milliseconds(20)));
    EXPECT_EQ(ruvo_kit::thread_count(), before + 1);
}

// A count that could not be read is no baseline: no wait at all (an hour would time out
// the test).
TEST(ThreadCount, wait_without_a_baseline_returns_at_once) {
    EXPECT_FALSE(ruvo_kit::wait_for_threads_to_end(-1, std::chrono::hours(1)));
}

}  // namespace
