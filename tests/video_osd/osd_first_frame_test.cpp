// The first frame of a TA-mode handle: the renderer's window over the frame-buffer pool,
// each buffer shown once, then the buffers re-created at the frame's size.
#include <stdlib.h>

#include <filesystem>

#include "osd_fixture.h"

namespace video_osd {
namespace {

using ruvo_test::assertion_end_re;
using ruvo_test::escape_re;
using ruvo_test::stdout_into_stderr;
using ruvo_test::vline;
using ruvo_test::vline_re;
using ::testing::ExitedWithCode;

using Lines = std::vector<std::string>;

// Connecting and binding the globals of the default test compositor.
const Lines& kConnect = ruvo_test::kConnectLog;

// The window as an xdg toplevel.
const Lines kWindow = {
    "compositor#0.create_surface(surface#0)",
    "viewporter#0.get_viewport(viewport#0, surface#0)",
    "wm_base#0.get_xdg_surface(xdg_surface#0, surface#0)",
    "xdg_surface#0.get_toplevel(toplevel#0)",
    "toplevel#0.set_title(\"qvl_hbbtv_ta\")",
    "surface#0.commit()",
    "-> toplevel#0.configure(0, 0)",
    "-> xdg_surface#0.configure(1)",
    "toplevel#0.set_app_id(\"order_1\")",
};

using OsdFirstFrame = OsdTest;

TEST_F(OsdFirstFrame, creates_the_window_over_the_pool_shows_each_buffer_then_recreates_them_at_frame_size) {
    StartCompositor();
    ASSERT_NE(OpenReady(), nullptr);
    int gem[6];
    for (int i = 0; i < 6; ++i)
        gem[i] = output_->m_gem_buf[i];
    Frame first(1920, 1080);

    EXPECT_EQ(quarvel_video_output_init_with_first_frame(output_, first.get()), 0);

    EXPECT_TRUE(output_->m_first_frame_initialized);
    ASSERT_NE(output_->m_window, nullptr);
    const quarvel_frame_size_s meta = output_->m_frame_meta;
    EXPECT_EQ(meta.w, 1920u);
    EXPECT_EQ(meta.h, 1080u);
    EXPECT_EQ(meta.dar_w, 1920u);  // 16:9 with square samples, terms left unreduced
    EXPECT_EQ(meta.dar_h, 1080u);
    EXPECT_EQ(meta.sar_num, 1u);
    EXPECT_EQ(meta.sar_denom, 1u);
    EXPECT_EQ(output_->m_gem_buf_idx, 0);

    // The configuration the renderer was given: the frame's size, the pool's pairs in
    // order, strides 1920 and 1920.
    const window* win = static_cast<const window*>(output_->m_window);
    EXPECT_EQ(win->render_config.width, 1920);
    EXPECT_EQ(win->render_config.height, 1080);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(win->render_config.dma_fd[i][0], gem[2 * i]) << i;
        EXPECT_EQ(win->render_config.dma_fd[i][1], gem[2 * i + 1]) << i;
        EXPECT_EQ(win->buffers[i].busy, 0) << i;
    }
    EXPECT_EQ(win->render_config.strides[0], kStride);
    EXPECT_EQ(win->render_config.strides[1], kStride);
    EXPECT_EQ(win->display->format.width, 1920);
    EXPECT_EQ(win->display->format.height, 1080);
    EXPECT_EQ(win->need_re_create_cnt, 0);

    // The compositor: connection, window, three 1 x 1 buffers with strides 64, each
    // shown once in index order, then three buffers at the frame size with the
    // configured strides (the former ones are not destroyed).
    EXPECT_EQ(comp().log(), Concat({kConnect,
                                    kWindow,
                                    Created(0, 0, 1, 1, 64),
                                    Created(1, 1, 1, 1, 64),
                                    Created(2, 2, 1, 1, 64),
                                    {"display.sync()", "xdg_surface#0.ack_configure(1)", "params#0.destroy()",
                                     "params#1.destroy()", "params#2.destroy()"},
                                    DrawRequests(0, 1, 1, 0),
                                    {"-> callback#0.done()"},
                                    DrawRequests(1, 1, 1, 1),
                                    {"-> buffer#0.release()", "-> callback#1.done()"},
                                    DrawRequests(2, 1, 1, 2),
                                    {"-> buffer#1.release()", "-> callback#2.done()"},
                                    Created(3, 0, 1920, 1080, kStride),
                                    Created(4, 1, 1920, 1080, kStride),
                                    Created(5, 2, 1920, 1080, kStride),
                                    {"display.sync()"}}));
    EXPECT_EQ(comp().clients(), 1);

    // No Dolby profile, source, queue mode, positioning or picture-quality request.
    EXPECT_TRUE(tv().events().empty());
    EXPECT_EQ(lines(),
              (Lines{vline(kInit, "in"), vline(kInit, "wayland render init"), vline(kRender, "in"),
                     vline(kRender, "out"), vline(kInit, "wayland render init done"), vline(kRedraw, "in"),
                     vline(kRedraw, "out"), vline(kRedraw, "in"), vline(kRedraw, "out"), vline(kRedraw, "in"),
                     vline(kRedraw, "out"), vline(kDirectly, "in, w(1920) h(1080)"), vline(kInit, "out")}));
}

TEST_F(OsdFirstFrame, the_window_takes_the_size_of_the_first_frame) {
    StartCompositor();
    ASSERT_NE(OpenReady(), nullptr);
    Frame first(1280, 720);

    EXPECT_EQ(quarvel_video_output_init_with_first_frame(output_, first.get()), 0);

    const window* win = static_cast<const window*>(output_->m_window);
    ASSERT_NE(win, nullptr);
    EXPECT_EQ(win->render_config.width, 1280);
    EXPECT_EQ(win->render_config.height, 720);
    const Lines log = comp().log();
    ASSERT_GE(log.size(), 16u);
    EXPECT_EQ(ruvo_test::tail(log, log.size() - 16), Concat({Created(3, 0, 1280, 720, kStride),
                                                             Created(4, 1, 1280, 720, kStride),
                                                             Created(5, 2, 1280, 720, kStride),
                                                             {"display.sync()"}}));
    const Lines printed = lines();
    ASSERT_GE(printed.size(), 2u);
    EXPECT_EQ(printed[printed.size() - 2], vline(kDirectly, "in, w(1280) h(720)"));
}

TEST_F(OsdFirstFrame, a_second_first_frame_does_nothing) {
    ASSERT_NE(OpenWithWindow(), nullptr);
    void* const win = output_->m_window;
    Frame again(1280, 720);

    EXPECT_EQ(quarvel_video_output_init_with_first_frame(output_, again.get()), 0);

    EXPECT_EQ(output_->m_window, win);
    EXPECT_EQ(output_->m_frame_meta.w, 1920u);
    EXPECT_EQ(lines(), Lines{vline(kInit, "in")});
    EXPECT_TRUE(tv().events().empty());
    EXPECT_TRUE(comp().log().empty());
    EXPECT_EQ(comp().clients(), 1);
}

// The renderer's connection failures end the process: they cannot give the first frame
// its -1 (see osd_window_alloc_test.cpp for the failure that does). The parent stays
// single-threaded: a compositor, when there is one, runs in the child.
class OsdFirstFrameDeathTest : public OsdTest {
  protected:
    void SetUp() override {
        OsdTest::SetUp();
        std::filesystem::create_directories(RUVO_TEST_COMPOSITOR_RUNTIME_BASE);
        std::string templ = std::string(RUVO_TEST_COMPOSITOR_RUNTIME_BASE) + "/osd-death-XXXXXX";
        std::vector<char> path(templ.begin(), templ.end());
        path.push_back('\0');
        ASSERT_NE(mkdtemp(path.data()), nullptr);
        base_ = path.data();
        ASSERT_NE(OpenReady(), nullptr);
    }
    void TearDown() override {
        OsdTest::TearDown();
        std::error_code ec;
        if (!base_.empty())
            std::filesystem::remove_all(base_, ec);
    }

    // What the first frame prints before the renderer connects.
    static std::string LinesBeforeConnecting() {
        return "^" + vline_re(kInit, "in") + vline_re(kInit, "wayland render init") + vline_re(kRender, "in");
    }

    std::string base_;
};

TEST_F(OsdFirstFrameDeathTest, no_compositor_is_a_fatal_assertion) {
    Frame first(1920, 1080);
    EXPECT_DEATH(
        {
            stdout_into_stderr();
            setenv("XDG_RUNTIME_DIR", base_.c_str(), 1);
            setenv("WAYLAND_DISPLAY", "no-compositor-here", 1);
            unsetenv("WAYLAND_SOCKET");
            quarvel_video_output_init_with_first_frame(output_, first.get());
        },
        LinesBeforeConnecting() + assertion_end_re("display->display"));
    EXPECT_FALSE(output_->m_first_frame_initialized);
    EXPECT_EQ(output_->m_window, nullptr);
}

TEST_F(OsdFirstFrameDeathTest, a_compositor_without_nv12_ends_the_process_with_status_1) {
    Frame first(1920, 1080);
    EXPECT_EXIT(
        {
            stdout_into_stderr();
            CompositorConfig cfg;
            cfg.runtime_base = base_;
            cfg.formats = {ruvo_test::kXRGB8888};
            TestCompositor comp(cfg);
            comp.start();
            quarvel_video_output_init_with_first_frame(output_, first.get());
        },
        ExitedWithCode(1),
        LinesBeforeConnecting() + escape_re("0x3231564e requested DRM format not available\n") + "$");
}

}  // namespace
}  // namespace video_osd
