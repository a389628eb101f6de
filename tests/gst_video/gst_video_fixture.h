// ruvovideosink under GstHarness on the emulated TV: the element registered in-process,
// a bus of the test's own, buffers with timestamps, and the recorded driver requests.
#pragma once

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gst/video/video.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ruvo/gst/ruvo_frame_meta.h"
#include "ruvo_gst_register.h"
#include "ruvovideosink.h"
#include "test_support.h"

namespace gst_video {

constexpr const char* kCaps1080 =
    "video/x-raw,format=NV12,width=1920,height=1080,framerate=25/1,pixel-aspect-ratio=1/1";
constexpr const char* kCaps720 =
    "video/x-raw,format=NV12,width=1280,height=720,framerate=25/1,pixel-aspect-ratio=1/1";
constexpr const char* kMetaCaps1080 =
    "video/x-raw(meta:RuvoFrame),format=NV12,width=1920,height=1080,framerate=25/1,pixel-aspect-ratio=1/1";
constexpr GstClockTime kFrame = 40 * GST_MSECOND;  // 25 fps

class SinkTest : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        gst_init(nullptr, nullptr);
        ASSERT_TRUE(ruvo_video_sink_register(nullptr));
        // The decoder holds nothing unless a test says so.
        set_frames_held(0);
    }

    void TearDown() override {
        if (h_ != nullptr) {
            gst_harness_teardown(h_);
        }
        for (GstMessage* m : posted_) {
            gst_message_unref(m);
        }
        if (bus_ != nullptr) {
            gst_object_unref(bus_);
        }
        PlatformTest::TearDown();
    }

    // The decoder's frame-usage answer (frames pushed and not yet latched).
    void set_frames_held(int32_t n) {
        std::lock_guard<emutv::PlatformMutex> lock(tv().mutex());
        tv().vplt().frames[0] = n;
    }

    // A harness around a new ruvovideosink (opened: the harness brings it to PLAYING).
    void start(const char* caps = kCaps1080, bool sync = false) {
        h_ = gst_harness_new("ruvovideosink");
        sink_ = h_->element;
        bus_ = gst_bus_new();
        gst_element_set_bus(sink_, bus_);
        g_object_set(sink_, "sync", sync, nullptr);
        if (caps != nullptr) {
            gst_harness_set_src_caps_str(h_, caps);
        }
    }

    static GstBuffer* frame(GstClockTime pts, gsize size = 1920 * 1080 * 3 / 2) {
        GstBuffer* b = gst_buffer_new_allocate(nullptr, size, nullptr);
        GST_BUFFER_PTS(b) = pts;
        GST_BUFFER_DURATION(b) = kFrame;
        return b;
    }

    static GstBuffer* meta_frame(GstClockTime pts, uint32_t display_index, int32_t dv_profile = -1,
                                 uint32_t hres = 1920, uint32_t vres = 1080) {
        GstBuffer* b = gst_buffer_new();
        GST_BUFFER_PTS(b) = pts;
        GST_BUFFER_DURATION(b) = kFrame;
        v4l2_drm d = ruvo_test::make_frame(hres, vres);
        d.u.dec_info.pFrame[0].display_index = display_index;
        gst_buffer_add_ruvo_frame_meta(b, &d, dv_profile);
        return b;
    }

    GstFlowReturn push(GstClockTime pts) { return gst_harness_push(h_, frame(pts)); }

    // Pushes frames 0..n-1 at 25 fps.
    void push_frames(int n, int first = 0) {
        for (int i = first; i < first + n; ++i) {
            ASSERT_EQ(push(i * kFrame), GST_FLOW_OK) << "frame " << i;
        }
    }

    std::vector<emutv::Event> requests(const std::string& name) { return tv().events(name); }
    size_t count(const std::string& name) { return tv().events(name).size(); }

    // Messages of `type` posted so far, taken; the others stay for a later look.
    std::vector<GstMessage*> pop_messages(GstMessageType type) {
        while (GstMessage* m = gst_bus_pop(bus_)) {
            posted_.push_back(m);
        }
        std::vector<GstMessage*> out;
        std::vector<GstMessage*> rest;
        for (GstMessage* m : posted_) {
            (GST_MESSAGE_TYPE(m) & type ? out : rest).push_back(m);
        }
        posted_ = rest;
        return out;
    }
    size_t count_messages(GstMessageType type) {
        auto msgs = pop_messages(type);
        for (GstMessage* m : msgs) {
            gst_message_unref(m);
        }
        return msgs.size();
    }

    // Waits (generously) until `cond` holds; for a condition another thread brings about.
    static bool eventually(const std::function<bool()>& cond) {
        for (int i = 0; i < 2000; ++i) {
            if (cond()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return cond();
    }

    GstStructure* stats() {
        GstStructure* s = nullptr;
        g_object_get(sink_, "stats", &s, nullptr);
        return s;
    }
    guint64 stat(const char* field) {
        GstStructure* s = stats();
        guint64 v = G_MAXUINT64;
        gst_structure_get_uint64(s, field, &v);
        gst_structure_free(s);
        return v;
    }

    GstHarness* h_ = nullptr;
    GstElement* sink_ = nullptr;
    GstBus* bus_ = nullptr;
    std::vector<GstMessage*> posted_;
};

}  // namespace gst_video
