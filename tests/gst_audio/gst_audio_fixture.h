// Fixture of the ruvoaudiosink suites: the element registered in-process, under a GstHarness
// on an emulated compressed-offload device, with a bus to read what it posted.
#pragma once

#include <gst/audio/audio.h>
#include <gst/audio/streamvolume.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <sound/compress_offload.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "ruvo_gst_register.h"
#include "ruvoaudiosink.h"
#include "ruvoaudiosink_adts.h"
#include "test_support.h"

namespace gst_audio_test {

constexpr char kDevice[] = "/dev/snd/comprC0D0";
constexpr char kAdtsCaps[] =
    "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts, channels=(int)2, rate=(int)48000";
constexpr GstClockTime kFrame = 21333333;  // 1024 samples at 48 kHz

inline void register_element() {
    static bool done = [] {
        gst_init(nullptr, nullptr);
        return ruvo_audio_sink_register(nullptr) != FALSE;
    }();
    ASSERT_TRUE(done);
}

class GstAudioTest : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        register_element();
        tv().add_compr_device(kDevice);
    }

    void TearDown() override {
        stop_pusher();
        if (h_ != nullptr)
            gst_harness_teardown(h_);
        h_ = nullptr;
        for (GstMessage* m : posted_)
            gst_message_unref(m);
        posted_.clear();
        if (bus_ != nullptr)
            gst_object_unref(bus_);
        bus_ = nullptr;
        tv().set_listener(nullptr);
        PlatformTest::TearDown();
    }

    // The element under a harness (playing), on `device`, its messages on bus_.
    void start(const char* device = kDevice) {
        GstElement* sink = gst_element_factory_make("ruvoaudiosink", nullptr);
        ASSERT_NE(sink, nullptr);
        g_object_set(sink, "device", device, nullptr);
        bus_ = gst_bus_new();
        gst_element_set_bus(sink, bus_);
        h_ = gst_harness_new_with_element(sink, "sink", nullptr);
        gst_object_unref(sink);
    }
    GstElement* sink() const { return h_->element; }

    // Caps, then the record and printed lines cleared.
    void start_with_caps(const char* caps = kAdtsCaps) {
        start();
        gst_harness_set_src_caps_str(h_, caps);
        tv().clear_events();
        tv().sound().writes.clear();
    }

    // A block of `size` bytes (an ADTS header, then a counting pattern), one frame long.
    static GstBuffer* block(size_t size, GstClockTime pts = GST_CLOCK_TIME_NONE,
                            GstClockTime duration = kFrame) {
        GstBuffer* b = gst_buffer_new_allocate(nullptr, size, nullptr);
        GstMapInfo map;
        gst_buffer_map(b, &map, GST_MAP_WRITE);
        for (size_t i = 0; i < size; ++i)
            map.data[i] = static_cast<uint8_t>(i);
        ruvo_audio::AdtsConfig config{1, 3, 2, false};
        if (size > ruvo_audio::kAdtsHeaderBytes)
            ruvo_audio::write_adts_header(config, size - ruvo_audio::kAdtsHeaderBytes, map.data);
        gst_buffer_unmap(b, &map);
        GST_BUFFER_PTS(b) = pts;
        GST_BUFFER_DURATION(b) = duration;
        return b;
    }

    GstFlowReturn push(size_t size, GstClockTime pts = GST_CLOCK_TIME_NONE) {
        return gst_harness_push(h_, block(size, pts));
    }

    // Pushes on a thread of its own (the streaming thread may wait for room).
    void push_in_background(size_t size) {
        stop_pusher();
        pushed_ = false;
        pusher_ = std::thread([this, size] {
            result_ = push(size);
            pushed_ = true;
        });
    }
    void stop_pusher() {
        if (pusher_.joinable())
            pusher_.join();
    }
    // Waits (up to 10 s) for the background push to return.
    bool wait_pushed() {
        for (int i = 0; i < 1000 && !pushed_; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        stop_pusher();
        return pushed_;
    }

    // Changes the device's scripted answers while the element may be calling it.
    template <typename Fn>
    void script(Fn fn) {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        fn(tv().compr());
    }

    size_t count(const std::string& name) {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        return tv().count(name);
    }

    // Messages of a type posted so far (the others stay for a later look).
    std::vector<GstMessage*> take(GstMessageType type) {
        while (GstMessage* m = gst_bus_pop(bus_))
            posted_.push_back(m);
        std::vector<GstMessage*> out, rest;
        for (GstMessage* m : posted_)
            (GST_MESSAGE_TYPE(m) & type ? out : rest).push_back(m);
        posted_ = rest;
        return out;
    }
    size_t count_messages(GstMessageType type) {
        auto msgs = take(type);
        for (auto* m : msgs)
            gst_message_unref(m);
        return msgs.size();
    }

    guint64 stat(const char* field) {
        GstStructure* st = nullptr;
        g_object_get(sink(), "stats", &st, nullptr);
        guint64 v = 0;
        EXPECT_TRUE(gst_structure_get_uint64(st, field, &v)) << field;
        gst_structure_free(st);
        return v;
    }

    std::vector<std::pair<std::string, long>> control_writes() {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        std::vector<std::pair<std::string, long>> out;
        for (const auto& w : tv().sound().writes)
            out.emplace_back(w.name, w.value);
        tv().sound().writes.clear();
        return out;
    }

    std::vector<size_t> write_sizes() {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        return tv().compr().write_sizes;
    }

    std::vector<std::string> compr_requests() {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        return request_names(emutv::Device::Compr);
    }

    GstHarness* h_ = nullptr;
    GstBus* bus_ = nullptr;
    std::vector<GstMessage*> posted_;
    std::thread pusher_;
    std::atomic<bool> pushed_{false};
    std::atomic<GstFlowReturn> result_{GST_FLOW_OK};
};

}  // namespace gst_audio_test
