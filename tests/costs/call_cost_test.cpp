// What every exported call costs in driver requests and heap allocations (the per-frame
// call, the timing queries and the audio data path are counted in the suites of their own).
// The program replaces the allocator with a counting one. An allocation is the library's
// own when it is made from the program's code (the library is linked in statically);
// others are made by libdrm, alsa-lib or the C library on the library's behalf. What the
// emulated platform allocates for its own bookkeeping is not counted.
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <new>

#include "HMXClientInterface.h"
#include "hmx_standin.h"
#include "ruvo_log.h"
#include "test_support.h"
#include "ruvo_internal_audio.h"
#include "ruvo_kit/alloc_interposer.h"
#include "ruvo_kit/threads.h"

namespace {

using Names = std::vector<std::string>;

struct Cost {
    Names requests;  // driver requests in order ("open:<path>", "close:<path>", ioctl names, "write")
    long allocations = 0;
    long own = 0;
};

std::string key_of(const emutv::Event& e) {
    if (e.kind == emutv::Kind::Open)
        return "open:" + e.path;
    if (e.kind == emutv::Kind::Close)
        return "close:" + e.path;
    return e.name;
}

// The requests of one write of a mixer control through alsa-lib, once its configuration
// is loaded.
Names mixer_write() {
    const std::string card = "/dev/snd/controlC0";
    return {"open:" + card,
            "SNDRV_CTL_IOCTL_CARD_INFO",
            "close:" + card,
            "open:" + card,
            "SNDRV_CTL_IOCTL_CARD_INFO",
            "close:" + card,
            "open:" + card,
            "SNDRV_CTL_IOCTL_PVERSION",
            "SNDRV_CTL_IOCTL_ELEM_LIST",
            "SNDRV_CTL_IOCTL_ELEM_LIST",
            "SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS",
            "SNDRV_CTL_IOCTL_ELEM_WRITE",
            "close:" + card};
}

template <typename... V>
Names cat(Names a, const V&... rest) {
    (a.insert(a.end(), rest.begin(), rest.end()), ...);
    return a;
}

class CallCost : public ruvo_test::PlatformTest {
  protected:
    void SetUp() override {
        PlatformTest::SetUp();
        unsetenv("TA_DTV_PRELOAD");
        g_ruvo_logmask = RUVO_LOG_ERR;
        tv().add_compr_device(kAudioDevice);
        // alsa-lib loads its configuration on the first control write of the process.
        (void)_kcontrol_set("audio dec0 playback rate", 100);
    }
    void TearDown() override {
        if (video_ != nullptr)
            quarvel_video_output_close(video_);
        if (audio_ != nullptr)
            quarvel_audio_output_close(audio_);
        unsetenv("TA_DTV_PRELOAD");
        PlatformTest::TearDown();
    }

    // Requests and allocations of one run of `call`.
    template <typename F>
    Cost measure(F call) {
        tv().clear_events();
        ruvo_kit::start_call_site_count();
        call();
        const ruvo_kit::CallSiteCounts counted = ruvo_kit::stop_call_site_count();
        Cost c;
        c.allocations = counted.total;
        c.own = counted.own;
        for (const auto& e : tv().events())
            if (e.kind != emutv::Kind::Call)
                c.requests.push_back(key_of(e));
        (void)lines();
        return c;
    }

    void open_video() {
        video_ = quarvel_video_output_open(false);
        ASSERT_NE(video_, nullptr);
    }
    void show_video() {
        open_video();
        ASSERT_EQ(quarvel_video_output_set_rect(video_, &full_), 0);
        ASSERT_EQ(quarvel_video_output_init_with_first_frame(video_, &frame_), 0);
        ASSERT_EQ(quarvel_video_output_push_frame_to_display(video_, &frame_), 0);
    }
    void open_audio() {
        audio_ = quarvel_audio_output_open(kAudioDevice);
        ASSERT_NE(audio_, nullptr);
        ASSERT_EQ(quarvel_audio_output_setup(audio_, &params_), 0);
    }

    static constexpr const char* kAudioDevice = "/dev/snd/comprC0D0";
    const quarvel_video_output_rect_s full_{0, 0, 1920, 1080, 0, 0};
    const quarvel_video_output_rect_s window_{480, 270, 960, 540, 0, 0};
    v4l2_drm desc_ = ruvo_test::make_frame(1920, 1080);
    quarvel_video_output_frame_s frame_{&desc_, -1, {0, 0, 0, 0, 0, 0, 0}};
    const quarvel_audio_output_setup_params_s params_{2, 48000, {0, 0, 0, 0, 0, 0}};
    quarvel_video_output_s* video_ = nullptr;
    quarvel_audio_output_s* audio_ = nullptr;
};

// Opening discovers the display through libdrm: two requests per libdrm query (counts,
// then contents), for the resources, the connector, the planes, each plane and its
// properties.
Names video_open_requests() {
    Names r = {"open:/dev/qvl/qvkvplt",
               "open:/dev/kdolby",
               "open:/dev/dri/card0",
               "DRM_IOCTL_MODE_GETRESOURCES",
               "DRM_IOCTL_MODE_GETRESOURCES",
               "DRM_IOCTL_MODE_GETCONNECTOR",
               "DRM_IOCTL_MODE_GETCONNECTOR",
               "DRM_IOCTL_MODE_GETENCODER",
               "DRM_IOCTL_MODE_CREATE_DUMB",
               "DRM_IOCTL_MODE_ADDFB2",
               "DRM_IOCTL_MODE_GETPLANERESOURCES",
               "DRM_IOCTL_MODE_GETPLANERESOURCES"};
    for (int plane = 0; plane < 4; ++plane) {
        r = cat(r, Names{"DRM_IOCTL_MODE_GETPLANE", "DRM_IOCTL_MODE_GETPLANE",
                         "DRM_IOCTL_MODE_OBJ_GETPROPERTIES", "DRM_IOCTL_MODE_OBJ_GETPROPERTIES",
                         "DRM_IOCTL_MODE_GETPROPERTY", "DRM_IOCTL_MODE_GETPROPERTY",
                         "DRM_IOCTL_MODE_GETPROPERTY", "DRM_IOCTL_MODE_GETPROPERTY"});
    }
    return r;
}

// ---- Video ----------------------------------------------------------------------------------

TEST_F(CallCost, video_open_is_44_requests_and_allocates_the_handle_and_libdrms_records) {
    quarvel_video_output_s* out = nullptr;
    const Cost c = measure([&] { out = quarvel_video_output_open(false); });
    ASSERT_NE(out, nullptr);
    video_ = out;
    EXPECT_EQ(c.requests, video_open_requests());
    // The handle is the library's one allocation. libdrm allocates every record it hands
    // out with its arrays: resources 7, connector 5, encoder 1, plane resources 3, and per
    // plane 3 for the plane, 5 for its property list and 1 per property (2). The C library
    // allocates a stream for each marker file it tries to open (two, none present).
    EXPECT_EQ(c.own, 1);
    EXPECT_EQ(c.allocations, 1 + (7 + 5 + 1 + 3 + 4 * (3 + 5 + 2)) + 2);
}

TEST_F(CallCost, video_close_of_a_playing_handle_is_6_requests_and_allocates_nothing) {
    show_video();
    const Cost c = measure([&] {
        quarvel_video_output_close(video_);
        video_ = nullptr;
    });
    EXPECT_EQ(c.requests,
              (Names{"DRM_IOCTL_MODE_RMFB", "DRM_IOCTL_MODE_DESTROY_DUMB", "FR2IP_SetDispQueueSize",
                     "close:/dev/dri/card0", "close:/dev/kdolby", "close:/dev/qvl/qvkvplt"}));
    EXPECT_EQ(c.allocations, 0);
}

TEST_F(CallCost, panel_size_sends_nothing_and_allocates_nothing) {
    open_video();
    int w = 0, h = 0;
    const Cost c = measure([&] { quarvel_video_output_get_panel_size(video_, &w, &h); });
    EXPECT_EQ(c.requests, Names{});
    EXPECT_EQ(c.allocations, 0);
}

TEST_F(CallCost, moving_the_video_is_one_plane_request_and_no_allocation) {
    show_video();
    const Cost c = measure([&] { EXPECT_EQ(quarvel_video_output_set_rect(video_, &window_), 0); });
    EXPECT_EQ(c.requests, Names{"DRM_IOCTL_MODE_SETPLANE"});
    EXPECT_EQ(c.allocations, 0);
}

TEST_F(CallCost, hiding_is_one_mute_and_showing_again_a_plane_request_and_an_unmute) {
    show_video();
    const quarvel_video_output_rect_s hidden{0, 0, 0, 0, 0, 0};
    const Cost hide = measure([&] { EXPECT_EQ(quarvel_video_output_set_rect(video_, &hidden), 0); });
    EXPECT_EQ(hide.requests, Names{"DRM_IOCTL_SDP_SET_ONOFF"});
    EXPECT_EQ(hide.allocations, 0);
    const Cost show = measure([&] { EXPECT_EQ(quarvel_video_output_set_rect(video_, &window_), 0); });
    EXPECT_EQ(show.requests, (Names{"DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
    EXPECT_EQ(show.allocations, 0);
}

// Allocations of the picture-quality transaction on its own, made the way the library
// makes it (request of three words, empty reply), with a fresh transaction log.
long transaction_allocations() {
    HMXClientInterface client("COM.QVL.HMX.PQMGR", 0);
    auto transact = [&client] {
        HMXParam request;
        request.writeInt32(0x1000000);
        request.writeInt32(EN_HMX_PQMGR_SET_PLAYBACK_FLAG);
        request.writeInt32(1);
        HMXParam reply;
        client.transact(EN_HMX_PQMGR_SET_PLAYBACK_FLAG, request, &reply, 0);
    };
    transact();  // the stand-in's log is made on first use
    hmx_standin_clear();
    ruvo_kit::start_call_site_count();
    transact();
    return ruvo_kit::stop_call_site_count().total;
}

TEST_F(CallCost, first_frame_is_5_requests_and_allocates_only_what_the_picture_quality_client_does) {
    const long transaction = transaction_allocations();
    open_video();
    ASSERT_EQ(quarvel_video_output_set_rect(video_, &full_), 0);
    // The first first frame of the process also creates the picture-quality client.
    {
        quarvel_video_output_s* other = quarvel_video_output_open(false);
        ASSERT_NE(other, nullptr);
        hmx_standin_clear();
        const int clients = hmx_standin_clients_constructed();
        const Cost first =
            measure([&] { EXPECT_EQ(quarvel_video_output_init_with_first_frame(other, &frame_), 0); });
        quarvel_video_output_close(other);
        // 1 in a fresh process (as under CTest), 0 when an earlier test made the client.
        const long created = hmx_standin_clients_constructed() - clients;
        EXPECT_LE(created, 1);
        EXPECT_EQ(first.own, created) << "the client";
        EXPECT_EQ(first.allocations, created + transaction);
    }
    (void)lines();
    hmx_standin_clear();
    const Cost c =
        measure([&] { EXPECT_EQ(quarvel_video_output_init_with_first_frame(video_, &frame_), 0); });
    EXPECT_EQ(c.requests,
              (Names{"DRM_IOCTL_SDP_SET_DP_SOURCE", "FR2IP_SetDispQueueSize", "DRM_IOCTL_SDP_SET_DP_SOURCE",
                     "DRM_IOCTL_MODE_SETPLANE", "DRM_IOCTL_SDP_SET_ONOFF"}));
    EXPECT_EQ(c.own, 0);
    EXPECT_EQ(c.allocations, transaction);
    const Cost again =
        measure([&] { EXPECT_EQ(quarvel_video_output_init_with_first_frame(video_, &frame_), 0); });
    EXPECT_EQ(again.requests, Names{});
    EXPECT_EQ(again.allocations, 0);
}

TEST_F(CallCost, a_resolution_announcement_is_one_request_and_no_allocation) {
    show_video();
    v4l2_drm next = ruvo_test::make_frame(1280, 720);
    const quarvel_video_output_frame_s frame{&next, -1, {0, 0, 0, 0, 0, 0, 0}};
    const Cost c = measure([&] { EXPECT_EQ(quarvel_video_output_set_next_res(video_, &frame), 0); });
    EXPECT_EQ(c.requests, Names{"FR2IP_SetNextResolution"});
    EXPECT_EQ(c.allocations, 0);
    const Cost same = measure([&] { EXPECT_EQ(quarvel_video_output_set_next_res(video_, &frame_), 0); });
    EXPECT_EQ(same.requests, Names{});
}

TEST_F(CallCost, a_hand_back_without_a_pending_switch_sends_nothing) {
    show_video();
    const Cost c = measure([&] { quarvel_video_output_notify_ta_switch(video_); });
    EXPECT_EQ(c.requests, Names{});
    EXPECT_EQ(c.allocations, 0);
}

TEST_F(CallCost, a_hand_back_is_7_requests_and_one_mixer_write_on_its_thread) {
    show_video();
    setenv("TA_DTV_PRELOAD", "1", 1);
    const int threads = ruvo_kit::thread_count();
    const Cost c = measure([&] {
        quarvel_video_output_notify_ta_switch(video_);
        ruvo_kit::wait_for_threads_to_end(threads, std::chrono::seconds(30));
    });
    // The calling thread's requests in order; the mute thread's come in between.
    Names caller, thread;
    for (const auto& r : c.requests)
        (r.find("controlC0") != std::string::npos || r.compare(0, 9, "SNDRV_CTL") == 0 ? thread : caller)
            .push_back(r);
    EXPECT_EQ(caller, (Names{"DRM_IOCTL_SDP_SET_ONOFF", "open:/dev/video10", "VIDIOC_G_EXT_CTRLS",
                             "close:/dev/video10", "DRM_IOCTL_SDP_SET_DP_SOURCE", "DRM_IOCTL_MODE_SETPLANE",
                             "DRM_IOCTL_SDP_SET_ONOFF"}));
    EXPECT_EQ(thread, mixer_write());
    // alsa-lib allocates for the control write on the thread; the C library for the
    // thread's start (its thread-local storage) and for the emptied environment variable.
    // The library itself allocates nothing.
    EXPECT_EQ(c.own, 0);
    const Cost mute = measure([] { EXPECT_EQ(_kcontrol_set("main out mute", 1), 0); });
    EXPECT_EQ(c.allocations, mute.allocations + 3);
    fprintf(stderr, "hand-back allocations: %ld (control write %ld)\n", c.allocations, mute.allocations);
}

// ---- Audio ----------------------------------------------------------------------------------

TEST_F(CallCost, audio_open_is_one_request_and_the_handle) {
    quarvel_audio_output_s* out = nullptr;
    const Cost c = measure([&] { out = quarvel_audio_output_open(kAudioDevice); });
    ASSERT_NE(out, nullptr);
    audio_ = out;
    EXPECT_EQ(c.requests, Names{std::string("open:") + kAudioDevice});
    EXPECT_EQ(c.own, 1);
    EXPECT_EQ(c.allocations, 1);
}

TEST_F(CallCost, audio_setup_is_4_requests_and_no_allocation) {
    audio_ = quarvel_audio_output_open(kAudioDevice);
    ASSERT_NE(audio_, nullptr);
    const Cost c = measure([&] { EXPECT_EQ(quarvel_audio_output_setup(audio_, &params_), 0); });
    EXPECT_EQ(c.requests, (Names{"SNDRV_COMPRESS_GET_CAPS", "SNDRV_COMPRESS_SET_PARAMS",
                                 "SNDRV_COMPRESS_SET_METADATA", "SNDRV_COMPRESS_SET_METADATA"}));
    EXPECT_EQ(c.allocations, 0);
}

TEST_F(CallCost, audio_start_sends_nothing_and_stop_after_a_push_is_one_request) {
    open_audio();
    const Cost start = measure([&] { EXPECT_EQ(quarvel_audio_output_start(audio_), 0); });
    EXPECT_EQ(start.requests, Names{});
    EXPECT_EQ(start.allocations, 0);
    static const unsigned char block[4096] = {};
    ASSERT_EQ(quarvel_audio_output_push_data(audio_, block, sizeof(block), 0), 0);
    const Cost stop = measure([&] { EXPECT_EQ(quarvel_audio_output_stop(audio_), 0); });
    EXPECT_EQ(stop.requests, Names{"SNDRV_COMPRESS_STOP"});
    EXPECT_EQ(stop.allocations, 0);
}

TEST_F(CallCost, sync_mode_is_one_request_and_no_allocation) {
    open_audio();
    const Cost c = measure([&] {
        EXPECT_EQ(quarvel_audio_output_set_sync_mode(audio_, quarvel_audio_output_sync_mode__free_run), 0);
    });
    EXPECT_EQ(c.requests, Names{"SNDRV_COMPRESS_SET_METADATA"});
    EXPECT_EQ(c.allocations, 0);
}

TEST_F(CallCost, each_mixer_control_write_is_13_requests_through_alsa_lib) {
    const Cost volume = measure([&] { EXPECT_EQ(quarvel_audio_output_volume_control(nullptr, 0.5f), 0); });
    EXPECT_EQ(volume.requests, cat(mixer_write(), mixer_write()));
    EXPECT_EQ(volume.own, 0);
    const Cost speed = measure([&] { EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, 1.5f), 0); });
    EXPECT_EQ(speed.requests, mixer_write());
    EXPECT_EQ(speed.own, 0);
    // alsa-lib builds the "default" control from its configuration on every open.
    EXPECT_EQ(volume.allocations, 2 * speed.allocations);
    fprintf(stderr, "allocations per control write: %ld\n", speed.allocations);
}

TEST_F(CallCost, audio_close_is_three_mixer_writes_and_the_close) {
    open_audio();
    const Cost speed = measure([&] { EXPECT_EQ(quarvel_audio_output_speed_control(nullptr, 1.0f), 0); });
    const Cost c = measure([&] {
        quarvel_audio_output_close(audio_);
        audio_ = nullptr;
    });
    EXPECT_EQ(c.requests,
              cat(mixer_write(), mixer_write(), mixer_write(), Names{std::string("close:") + kAudioDevice}));
    EXPECT_EQ(c.own, 0);
    EXPECT_EQ(c.allocations, 3 * speed.allocations);
}

// ---- Diagnostics ----------------------------------------------------------------------------

TEST_F(CallCost, reading_the_debug_mask_without_markers_sends_nothing_and_allocates_only_the_failed_opens) {
    const Cost c = measure([] { ruvo_interface_debug_init(); });
    EXPECT_EQ(c.requests, Names{});
    EXPECT_EQ(c.own, 0);
    const Cost enable = measure([] { ruvo_dbg_enable(); });
    EXPECT_EQ(enable.allocations, 0);
    const Cost disable = measure([] { ruvo_dbg_disable(); });
    EXPECT_EQ(disable.allocations, 0);
}

}  // namespace
