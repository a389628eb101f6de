// Placement, resolution announcements and the broadcast switch on a TA-mode handle: the
// rectangle goes to the renderer at half size, the resolution call returns early, and
// the switch mutes audio and collapses the window without touching the display.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "osd_fixture.h"

namespace video_osd {
namespace {

using ruvo_test::vline;

using Lines = std::vector<std::string>;

quarvel_video_output_rect_s Rect(int32_t x, int32_t y, uint32_t w, uint32_t h, uint32_t dar_w = 0,
                                 uint32_t dar_h = 0) {
    return quarvel_video_output_rect_s{x, y, w, h, dar_w, dar_h};
}

void ExpectSameRect(const quarvel_video_output_rect_s& a, const quarvel_video_output_rect_s& b) {
    EXPECT_EQ(a.x, b.x);
    EXPECT_EQ(a.y, b.y);
    EXPECT_EQ(a.w, b.w);
    EXPECT_EQ(a.h, b.h);
    EXPECT_EQ(a.dar_w, b.dar_w);
    EXPECT_EQ(a.dar_h, b.dar_h);
}

bool HasGeometryRequest(const Lines& log) {
    return std::any_of(log.begin(), log.end(), [](const std::string& s) {
        return s.find("set_window_geometry") != std::string::npos ||
               s.find("set_destination") != std::string::npos;
    });
}

using OsdGeometry = OsdTest;

// ---- set_rect -------------------------------------------------------------------------

TEST_F(OsdGeometry, a_rectangle_reaches_the_renderer_at_half_size_and_shows_with_the_next_frame) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    const auto r = Rect(-3, 5, 1921, 1081, 16, 9);

    EXPECT_EQ(quarvel_video_output_set_rect(output_, &r), 0);

    ExpectSameRect(output_->m_wanted_rect, r);
    ExpectSameRect(output_->m_rect_applied_to_driver, Rect(0, 0, 0, 0));
    EXPECT_EQ(lines(), (Lines{vline(kSetRect, "x(-3) y(5) w(1921) h(1081) dar_w(16) dar_h(9)"),
                              vline(kGeometry, "in, x(-1) y(2) w(960) h(540)")}));
    EXPECT_TRUE(tv().events().empty());  // no plane, no mute
    EXPECT_TRUE(comp().log().empty());   // nothing is committed by the placement itself

    Frame next(1920, 1080);
    ASSERT_EQ(quarvel_video_output_push_frame_to_display(output_, next.get()), 0);
    EXPECT_EQ(comp().log(), Concat({{"xdg_surface#0.set_window_geometry(-1, 2, 960, 540)",
                                     "viewport#0.set_destination(960, 540)"},
                                    DrawRequests(3, 1920, 1080, 3),
                                    {"-> buffer#2.release()", "-> callback#3.done()"}}));
}

TEST_F(OsdGeometry, without_a_window_only_the_wish_is_stored_and_the_first_frame_does_not_place_it) {
    StartCompositor();
    ASSERT_NE(OpenReady(), nullptr);
    const auto r = Rect(100, 50, 1280, 720);
    quarvel_video_output_s expected;
    memcpy(&expected, output_, sizeof(expected));
    expected.m_wanted_rect = r;

    EXPECT_EQ(quarvel_video_output_set_rect(output_, &r), 0);

    ExpectSameRect(output_->m_wanted_rect, r);
    EXPECT_EQ(memcmp(&expected, output_, sizeof(expected)), 0) << "only the wish changes";
    EXPECT_EQ(lines(), Lines{vline(kSetRect, "x(100) y(50) w(1280) h(720) dar_w(0) dar_h(0)")});
    EXPECT_TRUE(tv().events().empty());
    EXPECT_EQ(comp().clients(), 0);
    EXPECT_TRUE(comp().log().empty());

    Frame first(1920, 1080);
    ASSERT_EQ(quarvel_video_output_init_with_first_frame(output_, first.get()), 0);
    Frame next(1920, 1080);
    ASSERT_EQ(quarvel_video_output_push_frame_to_display(output_, next.get()), 0);
    const Lines log = comp().log();
    EXPECT_FALSE(log.empty());
    EXPECT_FALSE(HasGeometryRequest(log));
}

TEST_F(OsdGeometry, a_rectangle_one_pixel_wide_hides_the_video_at_once) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    const auto r = Rect(0, 0, 1, 1080);

    EXPECT_EQ(quarvel_video_output_set_rect(output_, &r), 0);

    EXPECT_EQ(lines(), (Lines{vline(kSetRect, "x(0) y(0) w(1) h(1080) dar_w(0) dar_h(0)"),
                              vline(kGeometry, "in, x(0) y(0) w(0) h(540)"),
                              vline(kGeometry, "disable osd video display")}));
    EXPECT_EQ(comp().log(),
              (Lines{"surface#0.attach(null, 0, 0)", "surface#0.commit()", "-> buffer#2.release()"}));
    EXPECT_TRUE(tv().events().empty());
}

class OsdGeometryFullscreen : public OsdTest {
  protected:
    void SetUp() override {
        OsdTest::SetUp();
        CompositorConfig cfg;
        cfg.xdg_wm_base = false;
        cfg.fullscreen_shell = true;
        StartCompositor(cfg);
        ASSERT_NE(OpenWithWindow(), nullptr);
    }
};

TEST_F(OsdGeometryFullscreen, the_renderer_reports_every_rectangle_as_invalid) {
    const auto r = Rect(-3, 5, 1921, 1081);

    EXPECT_EQ(quarvel_video_output_set_rect(output_, &r), 0);

    ExpectSameRect(output_->m_wanted_rect, r);
    EXPECT_EQ(lines(), (Lines{vline(kSetRect, "x(-3) y(5) w(1921) h(1081) dar_w(0) dar_h(0)"),
                              vline(kGeometry, "in, x(-1) y(2) w(960) h(540)"),
                              vline(kGeometry, "invalid parameter.")}));
    Frame next(1920, 1080);
    ASSERT_EQ(quarvel_video_output_push_frame_to_display(output_, next.get()), 0);
    EXPECT_EQ(comp().log(),
              Concat({DrawRequests(3, 1920, 1080, 3), {"-> buffer#2.release()", "-> callback#3.done()"}}));
    EXPECT_TRUE(tv().events("DRM_IOCTL_MODE_SETPLANE").empty());
}

// ---- set_next_res ---------------------------------------------------------------------

TEST_F(OsdGeometry, a_resolution_announcement_returns_early_and_sends_nothing) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    const quarvel_frame_size_s before = output_->m_frame_meta;
    Frame coming(1280, 720);

    EXPECT_EQ(quarvel_video_output_set_next_res(output_, coming.get()), 0);

    EXPECT_EQ(lines(),
              (Lines{vline(kNextRes, "in"), vline(kNextRes, "New Reslution:width = 1280, height = 720"),
                     vline(kNextRes, "TA early return")}));
    EXPECT_TRUE(tv().events().empty());
    EXPECT_TRUE(comp().log().empty());
    EXPECT_EQ(output_->m_frame_meta.w, before.w);
    EXPECT_EQ(output_->m_frame_meta.h, before.h);
    EXPECT_EQ(static_cast<window*>(output_->m_window)->need_re_create_cnt, 0);
}

// ---- notify_ta_switch -----------------------------------------------------------------

class OsdSwitch : public OsdTest {
  protected:
    // Printed lines without the audio-mute thread's, which may land anywhere between
    // the caller's; `thread_lines` counts the thread's message (it ends in "\n\n").
    std::vector<std::string> CallerLines(int* thread_lines) {
        std::vector<std::string> out;
        const auto all = lines();
        *thread_lines = 0;
        for (size_t i = 0; i < all.size(); ++i) {
            if (all[i] == vline("_set_audio_mute", "set audio mute") && i + 1 < all.size() &&
                all[i + 1].empty()) {
                ++*thread_lines;
                ++i;
                continue;
            }
            out.push_back(all[i]);
        }
        return out;
    }

    // Requests of any device but the sound card's control device (the thread's).
    static Lines NonSoundRequests() {
        Lines out;
        for (const auto& e : emutv::platform().events())
            if (e.device != emutv::Device::SoundCtl)
                out.push_back(std::string(emutv::device_name(e.device)) + ":" + e.name);
        return out;
    }
};

TEST_F(OsdSwitch, mutes_audio_and_collapses_the_window_without_any_display_request) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    void* const win = output_->m_window;
    setenv("TA_DTV_PRELOAD", "1", 1);
    const int threads = ruvo_kit::thread_count();

    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(WaitForAudioMute(threads));

    int thread_lines = 0;
    EXPECT_EQ(CallerLines(&thread_lines),
              (Lines{vline(kNotify, "in"), vline(kGeometry, "in, x(0) y(0) w(0) h(0)"),
                     vline(kGeometry, "disable osd video display")}));
    EXPECT_EQ(thread_lines, 1);
    {
        std::lock_guard<emutv::PlatformMutex> g(tv().mutex());
        ASSERT_EQ(tv().sound().writes.size(), 1u);
        EXPECT_EQ(tv().sound().writes[0].name, "main out mute");
        EXPECT_EQ(tv().sound().writes[0].value, 1);
    }
    EXPECT_EQ(tv().sound().value("main out mute"), 1);
    // No DRM request at all, no decoder node, no converter.
    EXPECT_EQ(NonSoundRequests(), Lines{});
    EXPECT_FALSE(tv().events().empty());
    for (const auto& plane : tv().drm().plane_state)
        EXPECT_FALSE(plane.second.set) << plane.first;
    EXPECT_TRUE(tv().drm().muted.empty());
    // The window is emptied and the commit flushed at once.
    EXPECT_EQ(comp().log(),
              (Lines{"surface#0.attach(null, 0, 0)", "surface#0.commit()", "-> buffer#2.release()"}));
    // The switch flags are left alone.
    ASSERT_NE(getenv("TA_DTV_PRELOAD"), nullptr);
    EXPECT_STREQ(getenv("TA_DTV_PRELOAD"), "1");
    EXPECT_FALSE(output_->m_ta_switch);
    ExpectSameRect(output_->m_rect_applied_to_driver, Rect(0, 0, 0, 0));
    EXPECT_EQ(output_->m_window, win);

    // The next frame shows the video again.
    tv().clear_events();
    Frame next(1920, 1080);
    ASSERT_EQ(quarvel_video_output_push_frame_to_display(output_, next.get()), 0);
    EXPECT_EQ(comp().log(),
              Concat({{"surface#0.attach(null, 0, 0)", "surface#0.commit()", "-> buffer#2.release()"},
                      DrawRequests(3, 1920, 1080, 3),
                      {"-> callback#3.done()"}}));
}

TEST_F(OsdSwitch, before_the_first_frame_the_renderer_reports_the_missing_window) {
    StartCompositor();
    ASSERT_NE(OpenReady(), nullptr);
    const int threads = ruvo_kit::thread_count();

    quarvel_video_output_notify_ta_switch(output_);
    ASSERT_TRUE(WaitForAudioMute(threads));

    int thread_lines = 0;
    EXPECT_EQ(CallerLines(&thread_lines),
              (Lines{vline(kNotify, "in"), vline(kGeometry, "in, x(0) y(0) w(0) h(0)"),
                     vline(kGeometry, "invalid parameter.")}));
    EXPECT_EQ(thread_lines, 1);
    EXPECT_EQ(NonSoundRequests(), Lines{});
    EXPECT_EQ(getenv("TA_DTV_PRELOAD"), nullptr);
    EXPECT_EQ(comp().clients(), 0);
}

TEST_F(OsdSwitch, a_thread_that_cannot_start_is_reported_and_the_window_still_collapses) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    tv().fail("pthread_create", EAGAIN);
    const int threads = ruvo_kit::thread_count();

    quarvel_video_output_notify_ta_switch(output_);

    EXPECT_EQ(lines(), (Lines{vline(kNotify, "in"), vline(kNotify, "audio_mute_thread creation failed!"),
                              vline(kGeometry, "in, x(0) y(0) w(0) h(0)"),
                              vline(kGeometry, "disable osd video display")}));
    EXPECT_EQ(ruvo_kit::thread_count(), threads);
    EXPECT_TRUE(tv().events().empty());
    EXPECT_TRUE(tv().sound().writes.empty());
    EXPECT_EQ(comp().log(),
              (Lines{"surface#0.attach(null, 0, 0)", "surface#0.commit()", "-> buffer#2.release()"}));
}

}  // namespace
}  // namespace video_osd
