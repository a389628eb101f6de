// ruvovideosink under load: state cycles with descriptors and memory that stay flat, and
// a rectangle storm from a second thread while frames are pushed (also run under
// ThreadSanitizer).
#include <stdio.h>
#include <unistd.h>

#include <atomic>

#include <gst/video/videooverlay.h>

#include "gst_video_fixture.h"

using namespace gst_video;

namespace {

// ThreadSanitizer's own shadow and history memory grows with the work done; resident memory
// says nothing about the element there.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kResidentMemoryMeaningful = false;
#else
constexpr bool kResidentMemoryMeaningful = true;
#endif

long resident_kib() {
    long pages = 0;
    long resident = 0;
    FILE* f = fopen("/proc/self/statm", "r");
    if (f == nullptr) {
        return -1;
    }
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2) {
        resident = -1;
    }
    fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

class SinkStress : public SinkTest {
  protected:
    // After NULL the element's pad forgot the stream: start it again.
    void restart_stream() {
        ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_stream_start("again")));
        GstCaps* caps = gst_caps_from_string(kCaps1080);
        ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_caps(caps)));
        gst_caps_unref(caps);
        GstSegment seg;
        gst_segment_init(&seg, GST_FORMAT_TIME);
        ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&seg)));
    }

    void cycle() {
        ASSERT_EQ(gst_element_set_state(sink_, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
        ASSERT_NE(gst_element_set_state(sink_, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        restart_stream();
        ASSERT_EQ(push(0), GST_FLOW_OK);
        drain_bus();
    }

    // The bus keeps what the element posts until someone reads it: errors are counted,
    // the state changes dropped.
    void drain_bus() {
        errors_ += count_messages(GST_MESSAGE_ERROR);
        for (GstMessage* m : pop_messages(GST_MESSAGE_ANY)) {
            gst_message_unref(m);
        }
    }
    size_t errors_ = 0;
};

TEST_F(SinkStress, NullToPlayingAThousandTimesKeepsDescriptorsAndMemoryFlat) {
    start();
    tv().set_recording(false);  // the emulator's own record would grow
    ASSERT_EQ(push(0), GST_FLOW_OK);
    for (int i = 0; i < 100; ++i) {
        cycle();
    }
    const int descriptors = emutv::process_open_descriptors();
    const long resident = resident_kib();
    const size_t opens = tv().count("open:/dev/qvl/qvkvplt") + tv().count("open");
    for (int i = 100; i < 1000; ++i) {
        cycle();
        if (HasFatalFailure()) {
            return;
        }
    }
    EXPECT_EQ(emutv::process_open_descriptors(), descriptors);
    if (kResidentMemoryMeaningful) {
        EXPECT_LT(resident_kib() - resident, 1024) << "KiB grown over 900 cycles";
    }
    EXPECT_GT(tv().count("open:/dev/qvl/qvkvplt") + tv().count("open"), opens);
    EXPECT_EQ(errors_, 0u);
}

TEST_F(SinkStress, ARectangleStormFromAnotherThreadDuringPlayback) {
    start();
    tv().set_recording(false);
    ASSERT_EQ(push(0), GST_FLOW_OK);
    std::atomic<bool> done{false};
    std::thread compositor([&] {
        for (int i = 0; i < 1000; ++i) {
            gst_video_overlay_set_render_rectangle(GST_VIDEO_OVERLAY(sink_), i % 640, i % 360, 1280, 720);
            if (i % 100 == 0) {
                guint queued = 0;
                g_object_get(sink_, "queued-frames", &queued, nullptr);
            }
        }
        done = true;
    });
    int frames = 1;
    while (!done || frames < 200) {
        ASSERT_EQ(push(frames * kFrame), GST_FLOW_OK);
        ++frames;
    }
    compositor.join();
    ASSERT_EQ(push(frames * kFrame), GST_FLOW_OK);
    const auto& plane = tv().drm().plane_state[35];
    EXPECT_EQ(plane.crtc_x, 999 % 640);
    EXPECT_EQ(plane.crtc_y, 999 % 360);
    EXPECT_EQ(plane.crtc_w, 1280u);
    EXPECT_EQ(stat("rectangle-updates"), 1000u + 2u);  // + at open and for the caps' aspect
    EXPECT_EQ(stat("failed-calls"), 0u);
    EXPECT_EQ(count_messages(static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_WARNING)), 0u);
}

}  // namespace
