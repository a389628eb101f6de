// The renderer's window and its ring of dmabuf buffers: init, redraw, busy frames, lazy
// and immediate re-creation, geometry, teardown.
#include <fcntl.h>

#include "wayland_fixture.h"

namespace ruvo_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

using WindowTest = RendererTest;
using WindowDeathTest = RendererDeathTest;

// The three creations of slots 0, 1 and 2 through params#<first_params> onwards.
std::vector<std::string> create_all_slots(int first_params, int width, int height, unsigned stride0,
                                          unsigned stride1, unsigned flags = 0) {
    return concat({create_requests(first_params, 0, width, height, stride0, stride1, flags),
                   create_requests(first_params + 1, 1, width, height, stride0, stride1, flags),
                   create_requests(first_params + 2, 2, width, height, stride0, stride1, flags)});
}

// What a redraw sends when it renews slot `slot` after a lazy re-creation: the destroy of
// buffer#<old_buffer>, the creation through params#<params> with the configured strides and
// its roundtrip, then the frame drawn on the new buffer#<params>.
std::vector<std::string> renewed_and_drawn(int old_buffer, int params, int slot, int width, int height,
                                           int callback) {
    const std::string n = std::to_string(params);
    return concat({{"buffer#" + std::to_string(old_buffer) + ".destroy()"},
                   create_requests(params, slot, width, height, 1920, 1984),
                   {"display.sync()"},
                   {"params#" + n + ".destroy()"},
                   draw_requests("buffer#" + n, width, height, callback)});
}

// ---------------------------------------------------------------------------------------
// Init
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, InitMakesAToplevelAndAsksForThreeOneByOneBuffers) {
    start();
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    EXPECT_EQ(comp().requests(), concat({kConnectRequests,
                                         {
                                             "compositor#0.create_surface(surface#0)",
                                             "viewporter#0.get_viewport(viewport#0, surface#0)",
                                             "wm_base#0.get_xdg_surface(xdg_surface#0, surface#0)",
                                             "xdg_surface#0.get_toplevel(toplevel#0)",
                                             "toplevel#0.set_title(\"qvl_hbbtv_ta\")",
                                             "surface#0.commit()",
                                             "toplevel#0.set_app_id(\"order_1\")",
                                         },
                                         create_all_slots(0, 1, 1, 64, 64),
                                         {"display.sync()"}}));
    EXPECT_EQ(comp().events(), (std::vector<std::string>{
                                   "seat#0.capabilities(0)",
                                   "dmabuf#0.format(0x3231564e)",
                                   "dmabuf#0.modifier(0x3231564e, 0x00000000, 0x00000000)",
                                   "toplevel#0.configure(0, 0)",
                                   "xdg_surface#0.configure(1)",
                                   "params#0.created(buffer#0)",
                                   "params#1.created(buffer#1)",
                                   "params#2.created(buffer#2)",
                               }));
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_init", "in"), vline("wayland_render_init", "out")));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, InitFillsTheWindowRecord) {
    start();
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    EXPECT_NE(w->display, nullptr);
    EXPECT_NE(w->surface, nullptr);
    EXPECT_NE(w->viewport, nullptr);
    EXPECT_NE(w->xdg_surface, nullptr);
    EXPECT_NE(w->xdg_toplevel, nullptr);
    EXPECT_EQ(w->callback, nullptr);
    EXPECT_EQ(w->render_config.width, 1920);
    EXPECT_EQ(w->render_config.height, 1080);
    EXPECT_EQ(w->render_config.strides[0], 1920u);
    EXPECT_EQ(w->render_config.strides[1], 1984u);
    // The configure of the first commit arrived in init's roundtrip.
    EXPECT_FALSE(w->wait_for_configure);
    EXPECT_TRUE(w->initialized);
    EXPECT_EQ(w->need_re_create_cnt, 0);
    for (int i = 0; i < 3; i++) {
        SCOPED_TRACE(i);
        const buffer& b = w->buffers[i];
        EXPECT_NE(b.buffer, nullptr);
        EXPECT_EQ(b.display, w->display);
        EXPECT_EQ(b.busy, 0);
        EXPECT_EQ(b.index, i);
        EXPECT_EQ(b.dmabuf_fds[0], planes_.fd[i][0]);
        EXPECT_EQ(b.dmabuf_fds[1], planes_.fd[i][1]);
        EXPECT_EQ(b.data_offsets[0], 0);
        EXPECT_EQ(b.data_offsets[1], 0);
        EXPECT_EQ(w->render_config.dma_fd[i][0], planes_.fd[i][0]);
        EXPECT_EQ(w->render_config.dma_fd[i][1], planes_.fd[i][1]);
    }
    wayland_render_deinit(w);
}

TEST_F(WindowTest, InitWithoutConfigurationIsRefusedBeforeConnecting) {
    start();
    EXPECT_EQ(wayland_render_init(nullptr), nullptr);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_init", "in"),
                                     vline("wayland_render_init", "invalid parameter.")));
    EXPECT_TRUE(comp().log().empty());
    EXPECT_EQ(comp().clients(), 0);
}

TEST_F(WindowTest, FullscreenShellPresentsTheSurfaceWithoutXdgRoles) {
    CompositorConfig cfg;
    cfg.xdg_wm_base = false;
    cfg.fullscreen_shell = true;
    start(cfg);
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    EXPECT_EQ(comp().requests(), concat({{
                                             "display.get_registry()",
                                             "display.sync()",
                                             "registry.bind(\"wl_compositor\", 1)",
                                             "registry.bind(\"wp_viewporter\", 1)",
                                             "registry.bind(\"wl_seat\", 1)",
                                             "registry.bind(\"zwp_fullscreen_shell_v1\", 1)",
                                             "registry.bind(\"zwp_linux_dmabuf_v1\", 3)",
                                             "display.sync()",
                                             "compositor#0.create_surface(surface#0)",
                                             "viewporter#0.get_viewport(viewport#0, surface#0)",
                                             "fshell#0.present_surface(surface#0, 0, null)",
                                         },
                                         create_all_slots(0, 1, 1, 64, 64),
                                         {"display.sync()"}}));
    EXPECT_EQ(w->xdg_surface, nullptr);
    EXPECT_EQ(w->xdg_toplevel, nullptr);
    EXPECT_FALSE(w->wait_for_configure);
    wayland_render_deinit(w);
}

TEST_F(WindowTest, FailedBufferCreationLeavesTheSlotEmptyAndItsRedrawShowsNothing) {
    CompositorConfig cfg;
    cfg.failing_creates = {1};
    start(cfg);
    ::testing::internal::CaptureStderr();
    window* w = wayland_render_init(&config_);
    std::string err = ::testing::internal::GetCapturedStderr();
    ASSERT_NE(w, nullptr);

    EXPECT_EQ(err, "Error: zwp_linux_buffer_params.create failed.\n");
    EXPECT_NE(w->buffers[0].buffer, nullptr);
    EXPECT_EQ(w->buffers[1].buffer, nullptr);
    EXPECT_NE(w->buffers[2].buffer, nullptr);
    EXPECT_EQ(comp().events(), (std::vector<std::string>{
                                   "seat#0.capabilities(0)",
                                   "dmabuf#0.format(0x3231564e)",
                                   "dmabuf#0.modifier(0x3231564e, 0x00000000, 0x00000000)",
                                   "toplevel#0.configure(0, 0)",
                                   "xdg_surface#0.configure(1)",
                                   "params#0.created(buffer#0)",
                                   "params#1.failed()",
                                   "params#2.created(buffer#1)",
                               }));
    size_t before = comp().requests().size();

    wayland_render_redraw(w, 1);

    // What init left queued (the configure answer and the params destroys), then a frame
    // without a buffer.
    EXPECT_EQ(tail(comp().requests(), before),
              concat({{"xdg_surface#0.ack_configure(1)", "params#0.destroy()", "params#1.destroy()",
                       "params#2.destroy()"},
                      draw_requests("null", 1, 1, 0)}));
    EXPECT_EQ(w->buffers[1].busy, 1);
    wayland_render_deinit(w);
}

// ---------------------------------------------------------------------------------------
// Redraw
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, FirstRedrawSendsWhatInitLeftThenAttachDamageFrameCommit) {
    start();
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);
    comp().clear_log();
    lines();

    wayland_render_redraw(w, 0);

    EXPECT_EQ(comp().log(), concat({{"xdg_surface#0.ack_configure(1)", "params#0.destroy()",
                                     "params#1.destroy()", "params#2.destroy()"},
                                    draw_requests("buffer#0", 1, 1, 0),
                                    {"-> callback#0.done()"}}));
    EXPECT_EQ(w->buffers[0].busy, 1);
    EXPECT_NE(w->callback, nullptr);
    EXPECT_TRUE(lines().empty());  // trace lines only
    wayland_render_deinit(w);
}

TEST_F(WindowTest, RedrawPrintsTraceLinesWhenTraceIsOn) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    g_ruvo_logmask = 0x8;

    wayland_render_redraw(w, 2);

    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_redraw", "in"), vline("wayland_render_redraw", "out")));
    EXPECT_EQ(comp().requests(), draw_requests("buffer#2", 1, 1, 0));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, RoundRobinRedrawsCycleTheSlotsAsTheCompositorReleasesThem) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_redraw(w, 0);
    wayland_render_redraw(w, 1);  // replaces buffer#0, which comes back
    EXPECT_EQ(w->buffers[0].busy, 0);
    EXPECT_EQ(w->buffers[1].busy, 1);
    wayland_render_redraw(w, 2);
    wayland_render_redraw(w, 0);

    EXPECT_EQ(comp().log(), concat({draw_requests("buffer#0", 1, 1, 0),
                                    {"-> callback#0.done()"},
                                    draw_requests("buffer#1", 1, 1, 1),
                                    {"-> buffer#0.release()", "-> callback#1.done()"},
                                    draw_requests("buffer#2", 1, 1, 2),
                                    {"-> buffer#1.release()", "-> callback#2.done()"},
                                    draw_requests("buffer#0", 1, 1, 3),
                                    {"-> buffer#2.release()", "-> callback#3.done()"}}));
    EXPECT_TRUE(lines().empty());
    wayland_render_deinit(w);
}

TEST_F(WindowTest, RedrawOfABusySlotDispatchesOnceAndDropsTheFrame) {
    CompositorConfig cfg;
    cfg.release = ReleasePolicy::Never;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wayland_render_redraw(w, 0);
    ASSERT_EQ(w->buffers[0].busy, 1);

    comp().send_ping(9);          // the one event the busy redraw's dispatch will read
    wayland_render_redraw(w, 0);  // busy: nothing attached
    EXPECT_EQ(w->buffers[0].busy, 1);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_redraw", "buffer busy.")));
    wayland_render_set_geometry(w, 0, 0, 0, 0);  // flushes the pong read in that dispatch
    lines();

    EXPECT_EQ(comp().log(), concat({draw_requests("buffer#0", 1, 1, 0),
                                    {"-> callback#0.done()", "-> wm_base#0.ping(9)", "wm_base#0.pong(9)",
                                     "surface#0.attach(null, 0, 0)", "surface#0.commit()"}}));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, ReleaseReadByTheBusyDispatchStillDropsThatFrame) {
    CompositorConfig cfg;
    cfg.release = ReleasePolicy::Never;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wayland_render_redraw(w, 0);

    comp().release_buffer(0);
    wayland_render_redraw(w, 0);  // reads the release, yet drops the frame
    EXPECT_EQ(w->buffers[0].busy, 0);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_redraw", "buffer busy.")));

    wayland_render_redraw(w, 0);  // now drawn
    EXPECT_EQ(comp().log(), concat({draw_requests("buffer#0", 1, 1, 0),
                                    {"-> callback#0.done()", "-> buffer#0.release()"},
                                    draw_requests("buffer#0", 1, 1, 1),
                                    {"-> callback#1.done()"}}));
    EXPECT_TRUE(lines().empty());
    wayland_render_deinit(w);
}

TEST_F(WindowTest, RedrawWithoutWindowIsInvalid) {
    wayland_render_redraw(nullptr, 0);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_redraw", "invalid parameter.")));
    g_ruvo_logmask = 0x8 | 0x1;
    wayland_render_redraw(nullptr, 0);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_redraw", "in"),
                                     vline("wayland_render_redraw", "invalid parameter.")));
}

// ---------------------------------------------------------------------------------------
// Lazy re-creation
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, LazyRecreateRenewsEachSlotAtItsNextRedrawWithTheConfiguredStrides) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    g_ruvo_logmask = 0x1 | 0x4 | 0x8;

    wayland_render_re_create_dmabuf_buffer(w, 1920, 1080);
    EXPECT_EQ(w->need_re_create_cnt, 3);
    EXPECT_EQ(w->display->format.width, 1920);
    EXPECT_EQ(w->display->format.height, 1080);
    EXPECT_TRUE(comp().log().empty());  // nothing is sent yet
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_re_create_dmabuf_buffer", "in, w(1920) h(1080)")));

    wayland_render_redraw(w, 0);
    EXPECT_EQ(w->need_re_create_cnt, 2);
    wayland_render_redraw(w, 1);
    EXPECT_EQ(w->need_re_create_cnt, 1);
    wayland_render_redraw(w, 2);
    EXPECT_EQ(w->need_re_create_cnt, 0);
    EXPECT_EQ(w->display->format.strides[0], 1920u);
    EXPECT_EQ(w->display->format.strides[1], 1984u);

    EXPECT_EQ(comp().requests(),
              concat({renewed_and_drawn(0, 3, 0, 1920, 1080, 0), renewed_and_drawn(1, 4, 1, 1920, 1080, 1),
                      renewed_and_drawn(2, 5, 2, 1920, 1080, 2)}));
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_redraw", "in"),
                            vline("wayland_render_redraw", "need_re_create_cnt(3) index(0)"),
                            vline("wayland_render_redraw", "out"), vline("wayland_render_redraw", "in"),
                            vline("wayland_render_redraw", "need_re_create_cnt(2) index(1)"),
                            vline("wayland_render_redraw", "out"), vline("wayland_render_redraw", "in"),
                            vline("wayland_render_redraw", "need_re_create_cnt(1) index(2)"),
                            vline("wayland_render_redraw", "out")));
    comp().clear_log();

    // A fourth redraw recreates nothing.
    wayland_render_redraw(w, 0);
    EXPECT_EQ(w->need_re_create_cnt, 0);
    EXPECT_EQ(comp().requests(), draw_requests("buffer#3", 1920, 1080, 3));
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_redraw", "in"), vline("wayland_render_redraw", "out")));
    EXPECT_EQ(comp().live_buffers(), 3);
    wayland_render_deinit(w);
}

TEST_F(WindowTest, LazyRecreateCountsRedrawsWhateverTheirIndex) {
    CompositorConfig cfg;
    cfg.release = ReleasePolicy::OnCommit;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_re_create_dmabuf_buffer(w, 1280, 720);
    wayland_render_redraw(w, 1);
    wayland_render_redraw(w, 1);
    wayland_render_redraw(w, 1);
    EXPECT_EQ(w->need_re_create_cnt, 0);
    wayland_render_redraw(w, 1);

    EXPECT_EQ(comp().requests(),
              concat({renewed_and_drawn(1, 3, 1, 1280, 720, 0), renewed_and_drawn(3, 4, 1, 1280, 720, 1),
                      renewed_and_drawn(4, 5, 1, 1280, 720, 2), draw_requests("buffer#5", 1280, 720, 3)}));
    // Slots 0 and 2 keep their first 1 x 1 buffers.
    comp().clear_log();
    wayland_render_redraw(w, 0);
    EXPECT_EQ(comp().requests(), draw_requests("buffer#0", 1280, 720, 4));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, LazyRecreateOfAnEmptySlotOnlyCreates) {
    CompositorConfig cfg;
    cfg.failing_creates = {1};
    start(cfg);
    ::testing::internal::CaptureStderr();
    window* w = init_quietly();
    ::testing::internal::GetCapturedStderr();
    ASSERT_NE(w, nullptr);
    ASSERT_EQ(w->buffers[1].buffer, nullptr);

    wayland_render_re_create_dmabuf_buffer(w, 720, 576);
    wayland_render_redraw(w, 1);

    EXPECT_EQ(comp().requests(), concat({create_requests(3, 1, 720, 576, 1920, 1984),
                                         {"display.sync()"},
                                         {"params#3.destroy()"},
                                         draw_requests("buffer#2", 720, 576, 0)}));
    EXPECT_NE(w->buffers[1].buffer, nullptr);
    wayland_render_deinit(w);
}

TEST_F(WindowTest, LazyRecreateWithZeroSizeIsRefusedAndKeepsTheCounter) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wayland_render_re_create_dmabuf_buffer(w, 1280, 720);
    wayland_render_redraw(w, 0);
    ASSERT_EQ(w->need_re_create_cnt, 2);
    lines();

    wayland_render_re_create_dmabuf_buffer(w, 1920, 0);
    wayland_render_re_create_dmabuf_buffer(w, 0, 1080);
    wayland_render_re_create_dmabuf_buffer(nullptr, 1920, 1080);

    EXPECT_EQ(w->need_re_create_cnt, 2);
    EXPECT_EQ(w->display->format.width, 1280);
    EXPECT_EQ(w->display->format.height, 720);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_re_create_dmabuf_buffer", "in, w(1920) h(0)"),
                                     vline("wayland_render_re_create_dmabuf_buffer", "invalid parameter."),
                                     vline("wayland_render_re_create_dmabuf_buffer", "in, w(0) h(1080)"),
                                     vline("wayland_render_re_create_dmabuf_buffer", "invalid parameter."),
                                     vline("wayland_render_re_create_dmabuf_buffer", "in, w(1920) h(1080)"),
                                     vline("wayland_render_re_create_dmabuf_buffer", "invalid parameter.")));
    wayland_render_deinit(w);
}

// ---------------------------------------------------------------------------------------
// Immediate re-creation
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, ImmediateRecreateRenewsAllSlotsAtOnceWithoutDestroyingTheOldBuffers) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wayland_render_redraw(w, 0);
    ASSERT_EQ(w->buffers[0].busy, 1);
    comp().clear_log();

    wayland_render_re_create_dmabuf_buffer_directly(w, 1280, 720);

    EXPECT_EQ(comp().log(), concat({create_requests(3, 0, 1280, 720, 1920, 1984),
                                    {"-> params#3.created(buffer#3)"},
                                    create_requests(4, 1, 1280, 720, 1920, 1984),
                                    {"-> params#4.created(buffer#4)"},
                                    create_requests(5, 2, 1280, 720, 1920, 1984),
                                    {"-> params#5.created(buffer#5)"},
                                    {"display.sync()"}}));
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_re_create_dmabuf_buffer_directly", "in, w(1280) h(720)")));
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(w->buffers[i].busy, 0) << i;
    EXPECT_EQ(w->need_re_create_cnt, 0);
    EXPECT_EQ(w->display->format.width, 1280);
    EXPECT_EQ(w->display->format.height, 720);
    EXPECT_EQ(w->display->format.strides[0], 1920u);
    EXPECT_EQ(w->display->format.strides[1], 1984u);
    EXPECT_EQ(comp().live_buffers(), 6);  // the former three stay with the compositor

    wayland_render_redraw(w, 0);
    EXPECT_EQ(tail(comp().requests(), 13),
              concat({{"params#3.destroy()", "params#4.destroy()", "params#5.destroy()"},
                      draw_requests("buffer#3", 1280, 720, 1)}));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, ImmediateRecreateWithZeroSizeIsRefused) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_re_create_dmabuf_buffer_directly(w, 0, 720);
    wayland_render_re_create_dmabuf_buffer_directly(w, 1280, 0);
    wayland_render_re_create_dmabuf_buffer_directly(nullptr, 1280, 720);

    EXPECT_TRUE(comp().log().empty());
    EXPECT_EQ(w->display->format.width, 1);
    EXPECT_EQ(w->display->format.height, 1);
    const std::string f = "wayland_render_re_create_dmabuf_buffer_directly";
    EXPECT_THAT(lines(), ElementsAre(vline(f, "in, w(0) h(720)"), vline(f, "invalid parameter."),
                                     vline(f, "in, w(1280) h(0)"), vline(f, "invalid parameter."),
                                     vline(f, "in, w(1280) h(720)"), vline(f, "invalid parameter.")));
    wayland_render_deinit(w);
}

// ---------------------------------------------------------------------------------------
// Buffer creation options
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, YInvertOptionSetsTheCreateFlag) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    w->display->opts = OPT_FLAGS_Y_INVERT;

    wayland_render_re_create_dmabuf_buffer_directly(w, 640, 480);

    EXPECT_EQ(comp().requests(), concat({create_all_slots(3, 640, 480, 1920, 1984, 1), {"display.sync()"}}));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, DirectDisplayOptionEnablesScanOutAndDropsYInvertWithAMessage) {
    CompositorConfig cfg;
    cfg.direct_display = true;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    w->display->opts = OPT_FLAGS_Y_INVERT | OPT_DIRECT_DISPLAY;

    wayland_render_re_create_dmabuf_buffer_directly(w, 640, 480);

    std::vector<std::string> expected;
    for (int i = 0; i < 3; i++) {
        auto create = create_requests(3 + i, i, 640, 480, 1920, 1984, 0);
        create.insert(create.begin() + 1, "direct_display#0.enable(params#" + std::to_string(3 + i) + ")");
        expected.insert(expected.end(), create.begin(), create.end());
    }
    expected.push_back("display.sync()");
    EXPECT_EQ(comp().requests(), expected);
    const std::string removed =
        "dmabuf y-inverted attribute flag was removed, as display-direct flag was set";
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_re_create_dmabuf_buffer_directly", "in, w(640) h(480)"),
                            removed, removed, removed));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, DirectDisplayOptionWithoutYInvertPrintsNothing) {
    CompositorConfig cfg;
    cfg.direct_display = true;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    w->display->opts = OPT_DIRECT_DISPLAY;

    wayland_render_re_create_dmabuf_buffer(w, 640, 480);
    wayland_render_redraw(w, 0);

    auto create = create_requests(3, 0, 640, 480, 1920, 1984, 0);
    create.insert(create.begin() + 1, "direct_display#0.enable(params#3)");
    EXPECT_EQ(comp().requests(), concat({{"buffer#0.destroy()"},
                                         create,
                                         {"display.sync()", "params#3.destroy()"},
                                         draw_requests("buffer#3", 640, 480, 0)}));
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_re_create_dmabuf_buffer", "in, w(640) h(480)")));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, DirectDisplayOptionWithoutTheGlobalKeepsYInvert) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    w->display->opts = OPT_FLAGS_Y_INVERT | OPT_DIRECT_DISPLAY;

    wayland_render_re_create_dmabuf_buffer_directly(w, 640, 480);

    EXPECT_EQ(comp().requests(), concat({create_all_slots(3, 640, 480, 1920, 1984, 1), {"display.sync()"}}));
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_re_create_dmabuf_buffer_directly", "in, w(640) h(480)")));
    wayland_render_deinit(w);
}

// ---------------------------------------------------------------------------------------
// Geometry
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, SetGeometryMovesAndScalesWithTheNextRedrawCommit) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_set_geometry(w, 10, 20, 640, 360);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_set_geometry", "in, x(10) y(20) w(640) h(360)")));
    EXPECT_TRUE(comp().log().empty());  // neither committed nor flushed

    wayland_render_redraw(w, 0);
    EXPECT_EQ(comp().requests(), concat({{"xdg_surface#0.set_window_geometry(10, 20, 640, 360)",
                                          "viewport#0.set_destination(640, 360)"},
                                         draw_requests("buffer#0", 1, 1, 0)}));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, SetGeometryWithZeroWidthHidesAndALaterRedrawShowsAgain) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wayland_render_redraw(w, 0);
    comp().clear_log();

    wayland_render_set_geometry(w, 100, 50, 0, 360);

    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_set_geometry", "in, x(100) y(50) w(0) h(360)"),
                                     vline("wayland_render_set_geometry", "disable osd video display")));
    EXPECT_EQ(comp().log(), (std::vector<std::string>{"surface#0.attach(null, 0, 0)", "surface#0.commit()",
                                                      "-> buffer#0.release()"}));
    comp().clear_log();

    wayland_render_redraw(w, 1);
    EXPECT_EQ(comp().requests(), draw_requests("buffer#1", 1, 1, 1));
    EXPECT_EQ(w->buffers[0].busy, 0);
    wayland_render_deinit(w);
}

TEST_F(WindowTest, SetGeometryWithZeroHeightHides) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_set_geometry(w, 0, 0, 1920, 0);

    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_set_geometry", "in, x(0) y(0) w(1920) h(0)"),
                                     vline("wayland_render_set_geometry", "disable osd video display")));
    EXPECT_EQ(comp().requests(),
              (std::vector<std::string>{"surface#0.attach(null, 0, 0)", "surface#0.commit()"}));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, SetGeometryWithTheFullscreenShellIsAlwaysInvalid) {
    CompositorConfig cfg;
    cfg.xdg_wm_base = false;
    cfg.fullscreen_shell = true;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_set_geometry(w, 10, 20, 640, 360);
    wayland_render_set_geometry(w, 0, 0, 0, 0);
    wayland_render_redraw(w, 0);

    const std::string f = "wayland_render_set_geometry";
    EXPECT_THAT(lines(),
                ElementsAre(vline(f, "in, x(10) y(20) w(640) h(360)"), vline(f, "invalid parameter."),
                            vline(f, "in, x(0) y(0) w(0) h(0)"), vline(f, "invalid parameter.")));
    EXPECT_EQ(comp().requests(), draw_requests("buffer#0", 1, 1, 0));
    wayland_render_deinit(w);
}

TEST_F(WindowTest, SetGeometryWithoutWindowIsInvalid) {
    wayland_render_set_geometry(nullptr, 1, 2, 3, 4);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_set_geometry", "in, x(1) y(2) w(3) h(4)"),
                                     vline("wayland_render_set_geometry", "invalid parameter.")));
}

// ---------------------------------------------------------------------------------------
// Deinit
// ---------------------------------------------------------------------------------------

TEST_F(WindowTest, DeinitTearsTheWindowThenTheConnectionDownInOrder) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wayland_render_redraw(w, 0);
    comp().clear_log();

    wayland_render_deinit(w);

    ASSERT_TRUE(comp().wait_disconnected());
    EXPECT_EQ(comp().log(), (std::vector<std::string>{
                                "toplevel#0.destroy()",
                                "xdg_surface#0.destroy()",
                                "viewport#0.destroy()",
                                "surface#0.destroy()",
                                "buffer#0.destroy()",
                                "buffer#1.destroy()",
                                "buffer#2.destroy()",
                                "dmabuf#0.destroy()",
                                "wm_base#0.destroy()",
                                "viewporter#0.destroy()",
                                "disconnect",
                            }));
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_deinit", "in")));
    // The frame buffers belong to the video side.
    for (auto& buffer : planes_.fd)
        for (int fd : buffer)
            EXPECT_NE(fcntl(fd, F_GETFD), -1);
}

TEST_F(WindowTest, DeinitReleasesBothShellsWhenBothWereBound) {
    CompositorConfig cfg;
    cfg.fullscreen_shell = true;
    cfg.direct_display = true;
    start(cfg);
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    wayland_render_deinit(w);

    ASSERT_TRUE(comp().wait_disconnected());
    EXPECT_EQ(comp().log(), (std::vector<std::string>{
                                "toplevel#0.destroy()",
                                "xdg_surface#0.destroy()",
                                "viewport#0.destroy()",
                                "surface#0.destroy()",
                                "buffer#0.destroy()",
                                "buffer#1.destroy()",
                                "buffer#2.destroy()",
                                "dmabuf#0.destroy()",
                                "wm_base#0.destroy()",
                                "fshell#0.release()",
                                "viewporter#0.destroy()",
                                "disconnect",
                            }));
}

TEST_F(WindowTest, DeinitWithTheFullscreenShellSkipsTheXdgRolesAndEmptySlots) {
    CompositorConfig cfg;
    cfg.xdg_wm_base = false;
    cfg.fullscreen_shell = true;
    cfg.failing_creates = {0};
    start(cfg);
    ::testing::internal::CaptureStderr();
    window* w = init_quietly();
    ::testing::internal::GetCapturedStderr();
    ASSERT_NE(w, nullptr);

    wayland_render_deinit(w);

    ASSERT_TRUE(comp().wait_disconnected());
    EXPECT_EQ(comp().log(), (std::vector<std::string>{
                                "viewport#0.destroy()",
                                "surface#0.destroy()",
                                "buffer#0.destroy()",
                                "buffer#1.destroy()",
                                "dmabuf#0.destroy()",
                                "fshell#0.release()",
                                "viewporter#0.destroy()",
                                "disconnect",
                            }));
}

TEST_F(WindowTest, DeinitWithoutWindowOnlySaysIn) {
    wayland_render_deinit(nullptr);
    EXPECT_THAT(lines(), ElementsAre(vline("wayland_render_deinit", "in")));
}

// ---------------------------------------------------------------------------------------
// Assertions
// ---------------------------------------------------------------------------------------

TEST_F(WindowDeathTest, NoShellAtAllIsAFatalAssertion) {
    CompositorConfig cfg = config_in_base();
    cfg.xdg_wm_base = false;
    cfg.fullscreen_shell = false;
    EXPECT_DEATH(init_with_compositor(cfg),
                 "^" + vline_re("wayland_render_init", "in") + assertion_end_re("0"));
}

}  // namespace
}  // namespace ruvo_test
