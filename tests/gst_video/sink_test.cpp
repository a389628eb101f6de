// ruvovideosink on the emulated TV: lifecycle, preroll, render timing, resolution change,
// flush, end of stream after the latch, position, rectangle, properties, signals, errors.
#include <errno.h>
#include <stdlib.h>

#include <utility>

#include <gst/video/videooverlay.h>

#include "gst_video_fixture.h"

using namespace gst_video;

namespace {

constexpr uint32_t kMainPlane = 35;  // DP_MAIN in the emulated topology

const emutv::Event* first_event(const std::vector<emutv::Event>& events, const std::string& name) {
    for (const auto& e : events) {
        if (e.name == name) {
            return &e;
        }
    }
    return nullptr;
}

std::vector<std::string> names_of(const std::vector<emutv::Event>& events) {
    std::vector<std::string> out;
    for (const auto& e : events) {
        out.push_back(e.name);
    }
    return out;
}

size_t index_of(const std::vector<std::string>& names, const std::string& name) {
    for (size_t i = 0; i < names.size(); ++i) {
        if (names[i] == name) {
            return i;
        }
    }
    return names.size();
}

long long pts_of(const emutv::Event& e) {
    return (e.field("pts_h") << 32) | e.field("pts_l");
}

// ---- Lifecycle -----------------------------------------------------------------------------

TEST_F(SinkTest, ReadyOpensThePlaneAndNullClosesIt) {
    GstElement* sink = gst_element_factory_make("ruvovideosink", nullptr);
    ASSERT_NE(sink, nullptr);
    ASSERT_EQ(tv().count("open"), 0u);
    ASSERT_EQ(gst_element_set_state(sink, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    bool valio_open = false;
    for (const auto& e : tv().events("open")) {
        valio_open = valio_open || e.path == "/dev/qvl/qvkvplt";
    }
    EXPECT_TRUE(valio_open);
    gint w = 0, hgt = 0;
    g_object_get(sink, "display-width", &w, "display-height", &hgt, nullptr);
    EXPECT_EQ(w, 3840);
    EXPECT_EQ(hgt, 2160);
    const int open_while_ready = tv().open_descriptors();
    EXPECT_GT(open_while_ready, 0);
    ASSERT_EQ(gst_element_set_state(sink, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    bool valio_closed = false;
    for (const auto& e : tv().events("close")) {
        valio_closed = valio_closed || e.path == "/dev/qvl/qvkvplt";
    }
    EXPECT_TRUE(valio_closed);
    EXPECT_LT(tv().open_descriptors(), open_while_ready);
    g_object_get(sink, "display-width", &w, nullptr);
    gst_object_unref(sink);
}

TEST_F(SinkTest, ThePrerollFrameIsShownInPausedAndTimedInPlaying) {
    start();
    ASSERT_NE(gst_element_set_state(sink_, GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    GstFlowReturn ret = GST_FLOW_ERROR;
    std::thread pusher([&] { ret = push(0); });
    // The first-frame call ends with the plane programmed (after both source requests): the
    // streaming thread may still be inside it when the second source request is recorded.
    ASSERT_TRUE(eventually(
        [&] { return count("DRM_IOCTL_SDP_SET_DP_SOURCE") == 2 && count("DRM_IOCTL_MODE_SETPLANE") == 1; }));
    // The first-frame call: the format first (no picture), then the frame itself.
    auto sources = requests("DRM_IOCTL_SDP_SET_DP_SOURCE");
    EXPECT_EQ(sources[0].field("display_index"), 0xFFFFFFFFll);
    EXPECT_EQ(sources[1].field("display_index"), 0);
    EXPECT_EQ(sources[1].field("inputport"), V4L2_DRM_INPUTPORT_TYPE_MM);
    EXPECT_EQ(count("FR2IP_SetPTS"), 0u);
    EXPECT_EQ(count("DRM_IOCTL_MODE_SETPLANE"), 1u);  // the whole panel
    ASSERT_EQ(gst_element_set_state(sink_, GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
    pusher.join();
    EXPECT_EQ(ret, GST_FLOW_OK);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 2u);  // not pushed a second time
    ASSERT_EQ(count("FR2IP_SetPTS"), 1u);
    EXPECT_EQ(pts_of(requests("FR2IP_SetPTS")[0]), 0);
}

// A frame handed over at its time would reach the panel at the next vsync, up to a period
// late: each is handed over one vsync period of the panel before its time instead.
TEST_F(SinkTest, FramesArePushedOneVsyncBeforeTheirRenderTimeOnThePipelineClock) {
    start(kCaps1080, true);
    const double panel_hz = tv().vplt().vsync_hz / 1000.0;  // 59.94 Hz
    const GstClockTime lead = static_cast<GstClockTime>(1e6 / panel_hz) * GST_USECOND;
    ASSERT_EQ(lead, 16683 * GST_USECOND);
    GstTestClock* clock = gst_harness_get_testclock(h_);
    std::thread pusher([&] { push_frames(4); });
    for (int k = 0; k < 4; ++k) {
        // Frame k waits for its time; nothing of it is timed on the plane before.
        gst_test_clock_wait_for_next_pending_id(clock, nullptr);
        EXPECT_EQ(count("FR2IP_SetPTS"), static_cast<size_t>(k));
        ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));
        ASSERT_TRUE(eventually([&] { return count("FR2IP_SetPTS") == static_cast<size_t>(k + 1); }));
        EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), static_cast<size_t>(2 + k));
        // The first frame's time is the start of the stream: it cannot go earlier.
        EXPECT_EQ(gst_clock_get_time(GST_CLOCK(clock)), k == 0 ? 0 : k * kFrame - lead);
        EXPECT_EQ(pts_of(requests("FR2IP_SetPTS").back()), k * 3600);  // 90 kHz, its own time
    }
    pusher.join();
    auto pushed = requests("DRM_IOCTL_SDP_SET_DP_SOURCE");
    for (int k = 1; k < 4; ++k) {
        EXPECT_EQ(pushed[1 + k].field("display_index"), k);
    }
    gst_object_unref(clock);
}

TEST_F(SinkTest, StreamTimeGoesToTheDisplayIn90kHzUnits) {
    start();
    GstSegment seg;
    gst_segment_init(&seg, GST_FORMAT_TIME);
    seg.start = 10 * GST_SECOND;
    seg.time = 100 * GST_SECOND;
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&seg)));
    ASSERT_EQ(push(10 * GST_SECOND), GST_FLOW_OK);
    ASSERT_EQ(push(10 * GST_SECOND + kFrame), GST_FLOW_OK);
    auto pts = requests("FR2IP_SetPTS");
    ASSERT_EQ(pts.size(), 2u);
    EXPECT_EQ(pts_of(pts[0]), 100 * 90000ll);
    EXPECT_EQ(pts_of(pts[1]), 100 * 90000ll + 3600);
    gint64 video_pts = 0;
    g_object_get(sink_, "video-pts", &video_pts, nullptr);
    EXPECT_EQ(video_pts, 100 * 90000ll + 3600);
}

// ---- Resolution change ----------------------------------------------------------------------

TEST_F(SinkTest, ANewSizeIsAnnouncedBeforeItsFirstFrameWithoutAMute) {
    start();
    push_frames(3);
    tv().clear_events();
    gst_harness_set_src_caps_str(h_, kCaps720);
    push_frames(2, 3);
    auto events = tv().events();
    auto names = names_of(events);
    const size_t announce = index_of(names, "FR2IP_SetNextResolution");
    const size_t source = index_of(names, "DRM_IOCTL_SDP_SET_DP_SOURCE");
    ASSERT_LT(announce, names.size());
    EXPECT_LT(announce, source);
    const emutv::Event* next = first_event(events, "FR2IP_SetNextResolution");
    EXPECT_EQ(next->field("crop_w"), 1280);
    EXPECT_EQ(next->field("crop_h"), 720);
    EXPECT_EQ(next->field("disp_w"), 3840);
    EXPECT_EQ(next->field("disp_h"), 2160);
    EXPECT_EQ(first_event(events, "DRM_IOCTL_SDP_SET_DP_SOURCE")->field("hres"), 1280);
    EXPECT_EQ(count("FR2IP_SetNextResolution"), 1u);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_ONOFF"), 0u);  // no mute, no black frame
    const emutv::Event* plane = first_event(events, "DRM_IOCTL_MODE_SETPLANE");
    ASSERT_NE(plane, nullptr);
    EXPECT_EQ(plane->field("src_w"), 1280ll << 16);
    EXPECT_EQ(stat("resolution-changes"), 1u);
    gint vw = 0;
    g_object_get(sink_, "video-width", &vw, nullptr);
    EXPECT_EQ(vw, 1280);
}

TEST_F(SinkTest, AnAspectChangeReprogramsThePlaneWithoutAMute) {
    start("video/x-raw,format=I420,width=720,height=576,framerate=25/1,pixel-aspect-ratio=16/15");
    push_frames(2);
    tv().clear_events();
    gst_harness_set_src_caps_str(h_,
                                 "video/x-raw,format=I420,width=720,height=576,framerate=25/1,"
                                 "pixel-aspect-ratio=64/45");
    push_frames(1, 2);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_ONOFF"), 0u);
    EXPECT_EQ(count("DRM_IOCTL_MODE_SETPLANE"), 1u);
    EXPECT_EQ(count("FR2IP_SetNextResolution"), 0u);  // same size: nothing for the decoder
    EXPECT_EQ(first_event(tv().events(), "DRM_IOCTL_SDP_SET_DP_SOURCE")->field("hres"), 720);
}

// ---- Flush ----------------------------------------------------------------------------------

TEST_F(SinkTest, FlushKeepsTheLastFrameOnThePlane) {
    start();
    push_frames(3);
    const auto plane_before = tv().drm().plane_state[kMainPlane];
    tv().clear_events();
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_start()));
    gint64 pos = 0;
    EXPECT_FALSE(gst_element_query_position(sink_, GST_FORMAT_TIME, &pos));  // refused while flushing
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_stop(TRUE)));
    EXPECT_TRUE(tv().events(emutv::Device::Drm).empty());
    EXPECT_FALSE(tv().drm().muted[kMainPlane]);
    EXPECT_EQ(tv().drm().plane_state[kMainPlane].crtc_w, plane_before.crtc_w);
    // Counters start over: nothing pushed since the flush is on the panel yet.
    EXPECT_FALSE(gst_element_query_position(sink_, GST_FORMAT_TIME, &pos));
    GstSegment seg;
    gst_segment_init(&seg, GST_FORMAT_TIME);
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&seg)));
    ASSERT_EQ(push(0), GST_FLOW_OK);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 1u);  // a push, not a new first frame
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_ONOFF"), 0u);
    ASSERT_TRUE(gst_element_query_position(sink_, GST_FORMAT_TIME, &pos));
    EXPECT_EQ(pos, 0);
}

// ---- End of stream ----------------------------------------------------------------------------

TEST_F(SinkTest, EosIsPostedOnlyOnceTheLastFrameIsLatched) {
    start(kCaps1080, true);
    GstTestClock* clock = gst_harness_get_testclock(h_);
    set_frames_held(2);
    std::thread eos([&] {
        EXPECT_EQ(push(0), GST_FLOW_OK);
        gst_harness_push_event(h_, gst_event_new_eos());
    });
    ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));  // the frame
    ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));  // the end of the frame
    ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));  // one vsync: still held
    gst_test_clock_wait_for_next_pending_id(clock, nullptr);
    EXPECT_EQ(count_messages(GST_MESSAGE_EOS), 0u);
    set_frames_held(0);
    ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));  // next vsync: latched
    eos.join();
    EXPECT_EQ(count_messages(GST_MESSAGE_EOS), 1u);
    // Two vsyncs of the 59.94 Hz panel after the end of the frame.
    const GstClockTime vsync = static_cast<GstClockTime>(1e6 / (60000.0 / 1001)) * GST_USECOND;
    EXPECT_EQ(gst_clock_get_time(GST_CLOCK(clock)), kFrame + 2 * vsync);
    EXPECT_EQ(stat("vsyncs-seen"), 2u);
    EXPECT_EQ(count("FR2IP_GetDirectlyFrames"), 3u + 1u);  // + the first-frame check
    gst_object_unref(clock);
}

void count_signal(GstElement*, gpointer data) {
    ++*static_cast<int*>(data);
}

TEST_F(SinkTest, EosComesAfterABoundedWaitWhenTheDecoderNeverLetsGo) {
    start();
    int first_frames = 0;
    g_signal_connect(sink_, "first-video-frame", G_CALLBACK(count_signal), &first_frames);
    set_frames_held(2);
    push_frames(1);
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_eos()));
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), 1u);
    EXPECT_EQ(count_messages(GST_MESSAGE_EOS), 1u);
    EXPECT_EQ(stat("vsyncs-seen"), kRuvoVideoSinkMaxLatchWaits);
    EXPECT_EQ(first_frames, 0);  // never seen on the panel
}

TEST_F(SinkTest, AFlushEndsTheWaitForTheLatch) {
    start(kCaps1080, true);
    set_frames_held(2);
    std::thread eos([&] {
        EXPECT_EQ(push(0), GST_FLOW_OK);
        gst_harness_push_event(h_, gst_event_new_eos());
    });
    ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));  // the frame
    ASSERT_TRUE(gst_harness_crank_single_clock_wait(h_));  // the end of the frame
    GstTestClock* clock = gst_harness_get_testclock(h_);
    gst_test_clock_wait_for_next_pending_id(clock, nullptr);  // waiting for a vsync
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_start()));
    eos.join();
    ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_flush_stop(TRUE)));
    EXPECT_EQ(count_messages(GST_MESSAGE_EOS), 0u);
    gst_object_unref(clock);
}

// ---- Position ---------------------------------------------------------------------------------

TEST_F(SinkTest, PositionIsTheFrameOnThePanelNeverOneStillQueued) {
    start();
    push_frames(5);
    gint64 pos = -1;
    set_frames_held(2);
    ASSERT_TRUE(gst_element_query_position(sink_, GST_FORMAT_TIME, &pos));
    EXPECT_EQ(pos, static_cast<gint64>(2 * kFrame));
    set_frames_held(0);
    ASSERT_TRUE(gst_element_query_position(sink_, GST_FORMAT_TIME, &pos));
    EXPECT_EQ(pos, static_cast<gint64>(4 * kFrame));
    set_frames_held(5);
    EXPECT_FALSE(gst_element_query_position(sink_, GST_FORMAT_TIME, &pos));
}

// ---- Rectangle ----------------------------------------------------------------------------------

TEST_F(SinkTest, WithoutARectangleTheVideoFillsThePanel) {
    start();
    push_frames(1);
    const std::vector<emutv::Event> events = tv().events();
    const emutv::Event* plane = first_event(events, "DRM_IOCTL_MODE_SETPLANE");
    ASSERT_NE(plane, nullptr);
    EXPECT_EQ(plane->field("crtc_x"), 0);
    EXPECT_EQ(plane->field("crtc_w"), 3840);
    EXPECT_EQ(plane->field("crtc_h"), 2160);
    EXPECT_EQ(plane->field("src_w"), 1920ll << 16);
    gchar* text = nullptr;
    g_object_get(sink_, "rectangle", &text, nullptr);
    EXPECT_STREQ(text, "0,0,3840,2160");
    g_free(text);
}

TEST_F(SinkTest, TheRectangleStringPlacesThePlane) {
    start();
    g_object_set(sink_, "rectangle", "100,50,640,360", nullptr);
    EXPECT_EQ(count("DRM_IOCTL_MODE_SETPLANE"), 0u);  // stored until the first frame
    push_frames(1);
    auto planes = requests("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(planes.size(), 1u);
    EXPECT_EQ(planes[0].field("crtc_x"), 100);
    EXPECT_EQ(planes[0].field("crtc_y"), 50);
    EXPECT_EQ(planes[0].field("crtc_w"), 640);
    EXPECT_EQ(planes[0].field("crtc_h"), 360);
    g_object_set(sink_, "rectangle", " 8 , 9 , 320 , 180 ", nullptr);
    planes = requests("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(planes.size(), 2u);
    EXPECT_EQ(planes[1].field("crtc_x"), 8);
    EXPECT_EQ(planes[1].field("crtc_w"), 320);
    for (const char* bad : {"foo", "1,2,3", "1,2,3,4,5", "1,2,-3,4", ""}) {
        g_object_set(sink_, "rectangle", bad, nullptr);
    }
    EXPECT_EQ(count("DRM_IOCTL_MODE_SETPLANE"), 2u);
    gchar* text = nullptr;
    g_object_get(sink_, "rectangle", &text, nullptr);
    EXPECT_STREQ(text, "8,9,320,180");
    g_free(text);
    EXPECT_EQ(stat("rectangle-updates"), 4u);  // at open, the two strings and the caps' aspect
}

TEST_F(SinkTest, TheOverlayRenderRectanglePlacesThePlane) {
    start();
    push_frames(1);
    tv().clear_events();
    gst_video_overlay_set_render_rectangle(GST_VIDEO_OVERLAY(sink_), 10, 20, 1280, 720);
    auto planes = requests("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(planes.size(), 1u);
    EXPECT_EQ(planes[0].field("crtc_x"), 10);
    EXPECT_EQ(planes[0].field("crtc_y"), 20);
    EXPECT_EQ(planes[0].field("crtc_w"), 1280);
    // -1 x -1: back to the whole panel.
    gst_video_overlay_set_render_rectangle(GST_VIDEO_OVERLAY(sink_), -1, -1, -1, -1);
    planes = requests("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(planes.size(), 2u);
    EXPECT_EQ(planes[1].field("crtc_w"), 3840);
}

TEST_F(SinkTest, ARectangleSetWhileClosedIsAppliedAfterOpen) {
    GstElement* sink = gst_element_factory_make("ruvovideosink", nullptr);
    g_object_set(sink, "rectangle", "1,2,300,200", "sync", FALSE, nullptr);
    h_ = gst_harness_new_with_element(sink, "sink", nullptr);
    sink_ = sink;
    gst_object_unref(sink);
    gst_harness_set_src_caps_str(h_, kCaps1080);
    push_frames(1);
    auto planes = requests("DRM_IOCTL_MODE_SETPLANE");
    ASSERT_EQ(planes.size(), 1u);
    EXPECT_EQ(planes[0].field("crtc_x"), 1);
    EXPECT_EQ(planes[0].field("crtc_w"), 300);
}

TEST_F(SinkTest, ShowVideoWindowHidesAndShows) {
    start();
    push_frames(1);
    tv().clear_events();
    g_object_set(sink_, "show-video-window", FALSE, nullptr);
    auto onoff = requests("DRM_IOCTL_SDP_SET_ONOFF");
    ASSERT_EQ(onoff.size(), 1u);
    EXPECT_EQ(onoff[0].field("onoff_flag"), 1);  // muted
    EXPECT_TRUE(tv().drm().muted[kMainPlane]);
    g_object_set(sink_, "show-video-window", FALSE, nullptr);  // already hidden
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_ONOFF"), 1u);
    g_object_set(sink_, "show-video-window", TRUE, nullptr);
    auto names = names_of(tv().events());
    EXPECT_LT(index_of(names, "DRM_IOCTL_MODE_SETPLANE"), names.size());
    onoff = requests("DRM_IOCTL_SDP_SET_ONOFF");
    ASSERT_EQ(onoff.size(), 2u);
    EXPECT_EQ(onoff[1].field("onoff_flag"), 0);
    EXPECT_FALSE(tv().drm().muted[kMainPlane]);
}

// ---- Read-only properties and statistics -----------------------------------------------------

TEST_F(SinkTest, ReadOnlyPropertiesComeFromTheCapsAndTheDriver) {
    for (const char* name : {"video-width", "video-height", "display-width", "display-height",
                             "queued-frames", "video-pts", "vsync-rate", "stats"}) {
        GParamSpec* p =
            g_object_class_find_property(G_OBJECT_CLASS(g_type_class_peek(RUVO_TYPE_VIDEO_SINK)), name);
        ASSERT_NE(p, nullptr) << name;
        EXPECT_TRUE(p->flags & G_PARAM_READABLE) << name;
        EXPECT_FALSE(p->flags & G_PARAM_WRITABLE) << name;
    }
    start();
    push_frames(3);
    gint vw = 0, vh = 0, dw = 0, dh = 0;
    guint queued = 99;
    gint64 pts = 0;
    gdouble rate = 0;
    set_frames_held(3);
    g_object_get(sink_, "video-width", &vw, "video-height", &vh, "display-width", &dw, "display-height", &dh,
                 "queued-frames", &queued, "video-pts", &pts, "vsync-rate", &rate, nullptr);
    EXPECT_EQ(vw, 1920);
    EXPECT_EQ(vh, 1080);
    EXPECT_EQ(dw, 3840);
    EXPECT_EQ(dh, 2160);
    EXPECT_EQ(queued, 3u);
    EXPECT_EQ(pts, 2 * 3600);
    EXPECT_DOUBLE_EQ(rate, 60000.0 / 1001);
    GstStructure* s = stats();
    guint64 v = 99;
    ASSERT_TRUE(gst_structure_get_uint64(s, "rendered", &v));
    EXPECT_EQ(v, 3u);
    ASSERT_TRUE(gst_structure_get_uint64(s, "dropped", &v));
    EXPECT_EQ(v, 0u);
    ASSERT_TRUE(gst_structure_get_uint64(s, "failed-calls", &v));
    EXPECT_EQ(v, 0u);
    ASSERT_TRUE(gst_structure_get_uint64(s, "first-frame-latency", &v));
    ASSERT_TRUE(gst_structure_has_field(s, "average-rate"));
    ASSERT_TRUE(gst_structure_has_field(s, "vsyncs-seen"));
    ASSERT_TRUE(gst_structure_has_field(s, "rectangle-updates"));
    ASSERT_TRUE(gst_structure_has_field(s, "resolution-changes"));
    gst_structure_free(s);
}

// ---- Signals ------------------------------------------------------------------------------------

TEST_F(SinkTest, FirstVideoFrameIsSignalledOnceItIsLatched) {
    start();
    int signalled = 0;
    g_signal_connect(sink_, "first-video-frame", G_CALLBACK(count_signal), &signalled);
    set_frames_held(2);
    push_frames(2);
    EXPECT_EQ(signalled, 0);  // both frames still held by the decoder
    push_frames(1, 2);
    EXPECT_EQ(signalled, 1);
    push_frames(3, 3);
    EXPECT_EQ(signalled, 1);
    EXPECT_GT(stat("first-frame-latency"), 0u);
}

TEST_F(SinkTest, HandBackToBroadcastRunsTheSwitchWhenThePlatformAskedForIt) {
    start();
    push_frames(1);
    tv().clear_events();
    unsetenv("TA_DTV_PRELOAD");
    g_signal_emit_by_name(sink_, "hand-back-to-broadcast");
    EXPECT_TRUE(tv().events(emutv::Device::Decoder).empty());  // not an advertising break
    setenv("TA_DTV_PRELOAD", "1", 1);
    g_signal_emit_by_name(sink_, "hand-back-to-broadcast");
    EXPECT_EQ(tv().events(emutv::Device::Decoder).size(), 3u);  // open, the frame query, close
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "");
    EXPECT_TRUE(eventually([&] { return tv().sound().value("main out mute") == 1; }));
}

// ---- Errors -------------------------------------------------------------------------------------

TEST_F(SinkTest, AMissingDeviceFailsTheStateChangeWithTheReason) {
    tv().set_present("/dev/qvl/qvkvplt", false);
    GstElement* sink = gst_element_factory_make("ruvovideosink", nullptr);
    bus_ = gst_bus_new();
    gst_element_set_bus(sink, bus_);
    EXPECT_EQ(gst_element_set_state(sink, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    auto errors = pop_messages(GST_MESSAGE_ERROR);
    ASSERT_EQ(errors.size(), 1u);
    GstMessage* msg = errors[0];
    GError* err = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(msg, &err, &debug);
    EXPECT_TRUE(g_error_matches(err, GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_READ_WRITE));
    EXPECT_NE(std::string(debug).find("No such file or directory (errno 2)"), std::string::npos) << debug;
    g_error_free(err);
    g_free(debug);
    gst_message_unref(msg);
    EXPECT_EQ(tv().open_descriptors(), 0);
    gst_element_set_state(sink, GST_STATE_NULL);
    gst_object_unref(sink);
}

TEST_F(SinkTest, ARefusedFrameIsDroppedWithAWarning) {
    start();
    push_frames(2);
    tv().fail("DRM_IOCTL_SDP_SET_DP_SOURCE", EIO, 1);
    EXPECT_EQ(push(2 * kFrame), GST_FLOW_OK);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), 1u);
    EXPECT_EQ(push(3 * kFrame), GST_FLOW_OK);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), 0u);
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 0u);
    EXPECT_EQ(stat("dropped"), 1u);
    EXPECT_EQ(stat("failed-calls"), 1u);
}

TEST_F(SinkTest, RefusedFramesInARowBecomeAnError) {
    start();
    push_frames(1);
    tv().fail("DRM_IOCTL_SDP_SET_DP_SOURCE", EIO, -1);
    for (unsigned i = 1; i < kRuvoVideoSinkMaxFailedPushes; ++i) {
        EXPECT_EQ(push(i * kFrame), GST_FLOW_OK) << i;
    }
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 0u);
    EXPECT_EQ(push(kRuvoVideoSinkMaxFailedPushes * kFrame), GST_FLOW_ERROR);
    EXPECT_EQ(count_messages(GST_MESSAGE_WARNING), kRuvoVideoSinkMaxFailedPushes - 1);
    EXPECT_EQ(count_messages(GST_MESSAGE_ERROR), 1u);
}

void expect_error(GstBus* bus, GQuark domain, gint code) {
    GstMessage* msg = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    ASSERT_NE(msg, nullptr);
    GError* err = nullptr;
    gst_message_parse_error(msg, &err, nullptr);
    EXPECT_TRUE(g_error_matches(err, domain, code)) << err->message;
    g_error_free(err);
    gst_message_unref(msg);
}

TEST_F(SinkTest, ABufferWithoutMetaOnMetaCapsIsANegotiationError) {
    start(kMetaCaps1080);
    EXPECT_EQ(push(0), GST_FLOW_NOT_NEGOTIATED);
    expect_error(bus_, GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 0u);
}

// The library's 0x0 case (docs/behaviours.md, V1) is never reached through the element.
TEST_F(SinkTest, AZeroSizedDecoderFrameIsANegotiationErrorAndNeverReachesThePlane) {
    start(kMetaCaps1080);
    EXPECT_EQ(gst_harness_push(h_, meta_frame(0, 1, -1, 0, 0)), GST_FLOW_NOT_NEGOTIATED);
    expect_error(bus_, GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 0u);
}

TEST_F(SinkTest, ADecoderFrameOfAnImpossibleSizeIsANegotiationError) {
    const std::pair<uint32_t, uint32_t> sizes[] = {{0, 1080}, {1920, 0}, {8193, 1080}, {1920, 8193}};
    for (const auto& [hres, vres] : sizes) {
        start(kMetaCaps1080);
        EXPECT_EQ(gst_harness_push(h_, meta_frame(0, 1, -1, hres, vres)), GST_FLOW_NOT_NEGOTIATED)
            << hres << "x" << vres;
        expect_error(bus_, GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION);
        EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 0u) << hres << "x" << vres;
        gst_harness_teardown(h_);
        h_ = nullptr;
        gst_object_unref(bus_);
        bus_ = nullptr;
    }
}

TEST_F(SinkTest, AnEmptyRawBufferIsANegotiationError) {
    start();
    EXPECT_EQ(gst_harness_push(h_, frame(0, 0)), GST_FLOW_NOT_NEGOTIATED);
    expect_error(bus_, GST_CORE_ERROR, GST_CORE_ERROR_NEGOTIATION);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 0u);
}

TEST_F(SinkTest, CapsWithoutFrameRateOrAspectAreAccepted) {
    start("video/x-raw,format=NV12,width=1920,height=1080");
    EXPECT_EQ(push(0), GST_FLOW_OK);
    EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 2u);
}

TEST_F(SinkTest, AbsurdCapsAreRefused) {
    for (const char* caps :
         {"video/x-raw,format=NV12,width=0,height=1080,framerate=25/1",
          "video/x-raw,format=NV12,width=100000,height=1080,framerate=25/1",
          "video/x-raw,format=RGB,width=1920,height=1080,framerate=25/1",
          "video/x-raw,format=NV12,width=1920,height=1080,framerate=25/1,pixel-aspect-ratio=0/1",
          "video/x-raw,format=NV12,width=1920,height=1080,framerate=25/1,pixel-aspect-ratio=1000/1",
          "video/x-raw,format=NV12,width=1920,height=1080,framerate=100000/1"}) {
        start(nullptr);
        gst_harness_set_src_caps_str(h_, caps);
        EXPECT_EQ(push(0), GST_FLOW_NOT_NEGOTIATED) << caps;
        EXPECT_EQ(count("DRM_IOCTL_SDP_SET_DP_SOURCE"), 0u) << caps;
        gst_harness_teardown(h_);
        h_ = nullptr;
        gst_object_unref(bus_);
        bus_ = nullptr;
    }
}

// ---- Decoder frames with the meta -----------------------------------------------------------------

TEST_F(SinkTest, DecoderFramesGoToThePlaneAsTheDecoderDescribedThem) {
    start(kMetaCaps1080);
    ASSERT_EQ(gst_harness_push(h_, meta_frame(0, 7, 5)), GST_FLOW_OK);
    ASSERT_EQ(gst_harness_push(h_, meta_frame(kFrame, 8, 5)), GST_FLOW_OK);
    auto sources = requests("DRM_IOCTL_SDP_SET_DP_SOURCE");
    ASSERT_EQ(sources.size(), 3u);
    EXPECT_EQ(sources[1].field("display_index"), 7);
    EXPECT_EQ(sources[2].field("display_index"), 8);
    EXPECT_EQ(tv().dolby().profile, 5);
}

TEST_F(SinkTest, TheMetaTravelsWithACopyOfTheBuffer) {
    GstBuffer* b = meta_frame(0, 42, 3);
    GstBuffer* copy = gst_buffer_copy(b);
    const RuvoFrameMeta* m = gst_buffer_get_ruvo_frame_meta(copy);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->frame.u.dec_info.pFrame[0].display_index, 42u);
    EXPECT_EQ(m->dv_profile, 3);
    EXPECT_EQ(RUVO_FRAME_META_API_TYPE, g_type_from_name("RuvoFrameMetaAPI"));
    gst_buffer_unref(copy);
    gst_buffer_unref(b);
}

}  // namespace
