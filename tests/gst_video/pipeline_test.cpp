// A real pipeline into the installed form of the plugin (found through GST_PLUGIN_PATH):
// an H.264 clip made here by GStreamer's own encoder and muxer, played through
// filesrc ! qtdemux ! h264parse ! avdec_h264 ! ruvovideosink on the emulated TV, whose
// timeline says what the plane latched at each vsync.
#include <gst/gst.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "emutv/timeline.h"
#include "test_support.h"

namespace {

constexpr int kFrames = 25;
constexpr int32_t kPanelMilliHz = 50000;
constexpr int64_t kVsyncNs = 20000000;  // one period of the 50 Hz panel

class RealPipeline : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        // The plugin as GStreamer loads it, in a registry of this program's own.
        setenv("GST_PLUGIN_PATH", RUVO_GST_PLUGIN_BUILD_DIR, 1);
        setenv("GST_REGISTRY", RUVO_GST_TEST_REGISTRY, 1);
        gst_init(nullptr, nullptr);
        clip_ = tv().sandbox_root() + "/clip.mp4";
        std::lock_guard<emutv::PlatformMutex> lock(tv().mutex());
        tv().vplt().frames[0] = 0;
        tv().vplt().vsync_hz = kPanelMilliHz;
    }

    void TearDown() override {
        tv().set_timeline_listener(nullptr);
        PlatformTest::TearDown();
    }

    // Runs `description` to its end (`prepare`, if given, sees the pipeline before it
    // starts); the error text, or "" after EOS.
    static std::string play(const std::string& description,
                            const std::function<void(GstElement*)>& prepare = nullptr) {
        GError* err = nullptr;
        GstElement* pipeline = gst_parse_launch(description.c_str(), &err);
        if (pipeline == nullptr) {
            std::string text = err != nullptr ? err->message : "parse failed";
            g_clear_error(&err);
            return text;
        }
        g_clear_error(&err);
        if (prepare) {
            prepare(pipeline);
        }
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        GstBus* bus = gst_element_get_bus(pipeline);
        GstMessage* msg = gst_bus_timed_pop_filtered(
            bus, 60 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        std::string result = "timeout";
        if (msg != nullptr && GST_MESSAGE_TYPE(msg) == GST_MESSAGE_EOS) {
            result = "";
        } else if (msg != nullptr) {
            GError* e = nullptr;
            gst_message_parse_error(msg, &e, nullptr);
            result = e->message;
            g_error_free(e);
        }
        if (msg != nullptr) {
            gst_message_unref(msg);
        }
        gst_object_unref(bus);
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
        return result;
    }

    // The vsyncs of the emulator's timeline, from now on.
    void record_vsyncs() {
        tv().set_timeline_listener([this](const emutv::TimelineEntry& e) {
            if (e.type == emutv::TimelineEntry::Type::Vsync) {
                std::lock_guard<std::mutex> lock(vsyncs_lock_);
                vsyncs_.push_back(e);
            }
        });
    }

    std::vector<emutv::TimelineEntry> vsyncs() {
        std::lock_guard<std::mutex> lock(vsyncs_lock_);
        return vsyncs_;
    }

    // The emulator's virtual clock goes one vsync forward each time the sink named "sink" is
    // given a buffer, and at the end of the stream: the frame it showed before is latched at
    // that vsync, in the stream's own order, however late the machine runs the pipeline.
    static void step_one_vsync_per_buffer(GstElement* pipeline) {
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
        ASSERT_NE(sink, nullptr);
        GstPad* pad = gst_element_get_static_pad(sink, "sink");
        gst_pad_add_probe(
            pad,
            static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
            step_one_vsync, nullptr, nullptr);
        gst_object_unref(pad);
        gst_object_unref(sink);
    }

    static GstPadProbeReturn step_one_vsync(GstPad*, GstPadProbeInfo* info, gpointer) {
        const bool end_of_stream = (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) &&
                                   GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS;
        if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER) || end_of_stream) {
            emutv::Platform& tv = emutv::platform();
            const int64_t next_vsync = (tv.now_ns() / kVsyncNs + 1) * kVsyncNs;
            tv.set_virtual_time_ns(next_vsync);
        }
        return GST_PAD_PROBE_OK;
    }

    std::string clip_;
    std::mutex vsyncs_lock_;
    std::vector<emutv::TimelineEntry> vsyncs_;
};

TEST_F(RealPipeline, AnH264ClipFromMp4ReachesThePlaneOneSourceRequestPerFrame) {
    GstElementFactory* factory = gst_element_factory_find("ruvovideosink");
    ASSERT_NE(factory, nullptr) << "plugin not found in " RUVO_GST_PLUGIN_BUILD_DIR;
    gst_object_unref(factory);
    ASSERT_EQ(
        play("videotestsrc num-buffers=" + std::to_string(kFrames) +
             " ! video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! x264enc ! mp4mux ! filesink "
             "location=" +
             clip_),
        "");
    tv().clear_events();
    record_vsyncs();
    // In real time on a shared machine a frame may come late: none is dropped for it here
    // (max-lateness -1), so that every frame reaches the plane.
    ASSERT_EQ(
        play("filesrc location=" + clip_ +
                 " ! qtdemux ! h264parse ! avdec_h264 ! ruvovideosink name=sink max-lateness=-1 qos=false",
             step_one_vsync_per_buffer),
        "");
    // The first-frame call announces the format (display index -1), then one request per frame.
    auto sources = tv().events("DRM_IOCTL_SDP_SET_DP_SOURCE");
    ASSERT_EQ(sources.size(), static_cast<size_t>(kFrames + 1));
    EXPECT_EQ(sources[0].field("display_index"), 0xFFFFFFFFll);
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_EQ(sources[i + 1].field("display_index"), i);
        EXPECT_EQ(sources[i + 1].field("hres"), 320);
        EXPECT_EQ(sources[i + 1].field("vres"), 240);
    }
    auto pts = tv().events("FR2IP_SetPTS");
    ASSERT_EQ(pts.size(), static_cast<size_t>(kFrames));
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_EQ(pts[i].field("pts_l"), i * 3600);
    }
    EXPECT_EQ(tv().count("DRM_IOCTL_MODE_SETPLANE"), 1u);
    // Each frame latched once, in order, one per vsync: no vsync latched two (one of them
    // never on the panel), and each carries the timestamp set for it.
    std::vector<emutv::TimelineEntry> latches;
    for (const auto& v : vsyncs()) {
        EXPECT_EQ(v.dropped, 0) << "vsync " << v.vsync;
        if (v.fresh) {
            latches.push_back(v);
        }
    }
    ASSERT_EQ(latches.size(), static_cast<size_t>(kFrames));
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_EQ(latches[i].frame, i);
        EXPECT_EQ(latches[i].pts, i * 3600);
    }
}

}  // namespace
