// A real pipeline into the installed form of the plugin (found through GST_PLUGIN_PATH):
// an H.264 clip made here by GStreamer's own encoder and muxer, played through
// filesrc ! qtdemux ! h264parse ! avdec_h264 ! ruvovideosink on the emulated TV.
#include <gst/gst.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "test_support.h"

namespace {

constexpr int kFrames = 25;

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
    }

    // Runs `description` to its end; the error text, or "" after EOS.
    static std::string play(const std::string& description) {
        GError* err = nullptr;
        GstElement* pipeline = gst_parse_launch(description.c_str(), &err);
        if (pipeline == nullptr) {
            std::string text = err != nullptr ? err->message : "parse failed";
            g_clear_error(&err);
            return text;
        }
        g_clear_error(&err);
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

    std::string clip_;
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
    // In real time on a shared machine a frame may come late: none is dropped for it here
    // (max-lateness -1), so that every frame reaches the plane.
    ASSERT_EQ(play("filesrc location=" + clip_ +
                   " ! qtdemux ! h264parse ! avdec_h264 ! ruvovideosink max-lateness=-1 qos=false"),
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
}

}  // namespace
