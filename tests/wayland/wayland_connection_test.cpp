// The renderer's connection: globals bound at their versions, the NV12 check through
// modifier events, pings, and the process-ending failures.
#include <stddef.h>

#include "wayland_fixture.h"

namespace ruvo_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

// The records are read by integrators and tests: their fields stay in this order.
static_assert(offsetof(struct display, display) < offsetof(struct display, registry),
              "struct display: display before registry");
static_assert(offsetof(struct display, registry) < offsetof(struct display, compositor),
              "struct display: registry before compositor");
static_assert(offsetof(struct display, compositor) < offsetof(struct display, viewporter),
              "struct display: compositor before viewporter");
static_assert(offsetof(struct display, viewporter) < offsetof(struct display, seat),
              "struct display: viewporter before seat");
static_assert(offsetof(struct display, seat) < offsetof(struct display, keyboard),
              "struct display: seat before keyboard");
static_assert(offsetof(struct display, keyboard) < offsetof(struct display, wm_base),
              "struct display: keyboard before wm_base");
static_assert(offsetof(struct display, wm_base) < offsetof(struct display, fshell),
              "struct display: wm_base before fshell");
static_assert(offsetof(struct display, fshell) < offsetof(struct display, dmabuf),
              "struct display: fshell before dmabuf");
static_assert(offsetof(struct display, dmabuf) < offsetof(struct display, direct_display),
              "struct display: dmabuf before direct_display");
static_assert(offsetof(struct display, direct_display) < offsetof(struct display, requested_format_found),
              "struct display: direct_display before requested_format_found");
static_assert(offsetof(struct display, requested_format_found) < offsetof(struct display, opts),
              "struct display: requested_format_found before opts");
static_assert(offsetof(struct display, opts) < offsetof(struct display, v4l_fd),
              "struct display: opts before v4l_fd");
static_assert(offsetof(struct display, v4l_fd) < offsetof(struct display, format),
              "struct display: v4l_fd before format");
static_assert(offsetof(struct display, format) < offsetof(struct display, drm_format),
              "struct display: format before drm_format");
static_assert(offsetof(buffer_format, width) < offsetof(buffer_format, height),
              "buffer_format: width before height");
static_assert(offsetof(buffer_format, height) < offsetof(buffer_format, type),
              "buffer_format: height before type");
static_assert(offsetof(buffer_format, type) < offsetof(buffer_format, format),
              "buffer_format: type before format");
static_assert(offsetof(buffer_format, format) < offsetof(buffer_format, num_planes),
              "buffer_format: format before num_planes");
static_assert(offsetof(buffer_format, num_planes) < offsetof(buffer_format, strides),
              "buffer_format: num_planes before strides");
static_assert(offsetof(buffer, buffer) < offsetof(buffer, display), "buffer: buffer before display");
static_assert(offsetof(buffer, display) < offsetof(buffer, busy), "buffer: display before busy");
static_assert(offsetof(buffer, busy) < offsetof(buffer, index), "buffer: busy before index");
static_assert(offsetof(buffer, index) < offsetof(buffer, dmabuf_fds), "buffer: index before dmabuf_fds");
static_assert(offsetof(buffer, dmabuf_fds) < offsetof(buffer, data_offsets),
              "buffer: dmabuf_fds before data_offsets");
static_assert(offsetof(window, display) < offsetof(window, surface), "window: display before surface");
static_assert(offsetof(window, surface) < offsetof(window, viewport), "window: surface before viewport");
static_assert(offsetof(window, viewport) < offsetof(window, xdg_surface),
              "window: viewport before xdg_surface");
static_assert(offsetof(window, xdg_surface) < offsetof(window, xdg_toplevel),
              "window: xdg_surface before xdg_toplevel");
static_assert(offsetof(window, xdg_toplevel) < offsetof(window, buffers),
              "window: xdg_toplevel before buffers");
static_assert(offsetof(window, buffers) < offsetof(window, callback), "window: buffers before callback");
static_assert(offsetof(window, callback) < offsetof(window, render_config),
              "window: callback before render_config");
static_assert(offsetof(window, render_config) < offsetof(window, wait_for_configure),
              "window: render_config before wait_for_configure");
static_assert(offsetof(window, wait_for_configure) < offsetof(window, initialized),
              "window: wait_for_configure before initialized");
static_assert(offsetof(window, initialized) < offsetof(window, need_re_create_cnt),
              "window: initialized before need_re_create_cnt");
static_assert(offsetof(st_wayland_render_config, width) < offsetof(st_wayland_render_config, height),
              "st_wayland_render_config: width before height");
static_assert(offsetof(st_wayland_render_config, height) < offsetof(st_wayland_render_config, dma_fd),
              "st_wayland_render_config: height before dma_fd");
static_assert(offsetof(st_wayland_render_config, dma_fd) < offsetof(st_wayland_render_config, strides),
              "st_wayland_render_config: dma_fd before strides");
static_assert(sizeof(st_wayland_render_config) == 40, "the configuration is 40 bytes on both ABIs");

using ConnectionTest = RendererTest;
using ConnectionDeathTest = RendererDeathTest;

TEST_F(ConnectionTest, InitBindsEachGlobalAtItsVersionAndRoundtripsTwice) {
    start();
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    auto record = comp().log();
    ASSERT_GE(record.size(), 11u);
    EXPECT_EQ(std::vector<std::string>(record.begin(), record.begin() + 11),
              (std::vector<std::string>{
                  "display.get_registry()",
                  "display.sync()",
                  "registry.bind(\"wl_compositor\", 1)",
                  "registry.bind(\"wp_viewporter\", 1)",
                  "registry.bind(\"wl_seat\", 1)",
                  "-> seat#0.capabilities(0)",
                  "registry.bind(\"xdg_wm_base\", 1)",
                  "registry.bind(\"zwp_linux_dmabuf_v1\", 3)",
                  "-> dmabuf#0.format(0x3231564e)",
                  "-> dmabuf#0.modifier(0x3231564e, 0x00000000, 0x00000000)",
                  "display.sync()",
              }));
    EXPECT_EQ(record[11], "compositor#0.create_surface(surface#0)");
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, DisplayRecordHoldsTheBoundGlobalsAndTheInitialFormat) {
    start();
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);
    struct display* d = w->display;

    EXPECT_NE(d->display, nullptr);
    EXPECT_NE(d->registry, nullptr);
    EXPECT_NE(d->compositor, nullptr);
    EXPECT_NE(d->viewporter, nullptr);
    EXPECT_NE(d->seat, nullptr);
    EXPECT_EQ(d->keyboard, nullptr);
    EXPECT_NE(d->wm_base, nullptr);
    EXPECT_EQ(d->fshell, nullptr);
    EXPECT_NE(d->dmabuf, nullptr);
    EXPECT_EQ(d->direct_display, nullptr);
    EXPECT_TRUE(d->requested_format_found);
    EXPECT_EQ(d->opts, 0u);
    EXPECT_EQ(d->v4l_fd, 0);
    EXPECT_EQ(d->drm_format, kNV12);
    EXPECT_EQ(wl_proxy_get_version(reinterpret_cast<wl_proxy*>(d->dmabuf)), 3u);
    EXPECT_EQ(wl_proxy_get_version(reinterpret_cast<wl_proxy*>(d->wm_base)), 1u);
    EXPECT_EQ(wl_proxy_get_version(reinterpret_cast<wl_proxy*>(d->compositor)), 1u);

    // The first buffers are 1 x 1 with strides of 64; init does not change that.
    EXPECT_EQ(d->format.width, 1);
    EXPECT_EQ(d->format.height, 1);
    EXPECT_EQ(d->format.type, V4L2_BUF_TYPE_VIDEO_CAPTURE);
    EXPECT_EQ(d->format.format, kNV12);
    EXPECT_EQ(d->format.num_planes, 2u);
    EXPECT_EQ(d->format.strides[0], 64u);
    EXPECT_EQ(d->format.strides[1], 64u);
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, EveryOfferedGlobalIsBoundAndXdgShellStillMakesTheWindow) {
    CompositorConfig cfg;
    cfg.fullscreen_shell = true;
    cfg.direct_display = true;
    start(cfg);
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    auto requests = comp().requests();
    EXPECT_EQ(std::vector<std::string>(requests.begin(), requests.begin() + 10),
              (std::vector<std::string>{
                  "display.get_registry()",
                  "display.sync()",
                  "registry.bind(\"wl_compositor\", 1)",
                  "registry.bind(\"wp_viewporter\", 1)",
                  "registry.bind(\"wl_seat\", 1)",
                  "registry.bind(\"xdg_wm_base\", 1)",
                  "registry.bind(\"zwp_fullscreen_shell_v1\", 1)",
                  "registry.bind(\"zwp_linux_dmabuf_v1\", 3)",
                  "registry.bind(\"weston_direct_display_v1\", 1)",
                  "display.sync()",
              }));
    EXPECT_NE(w->display->fshell, nullptr);
    EXPECT_NE(w->display->direct_display, nullptr);
    EXPECT_NE(w->xdg_surface, nullptr);
    EXPECT_EQ(requests[12], "wm_base#0.get_xdg_surface(xdg_surface#0, surface#0)");
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, CompositorWithoutSeatDirectDisplayOrFullscreenShellIsAccepted) {
    CompositorConfig cfg;
    cfg.seat = false;
    cfg.fullscreen_shell = false;
    cfg.direct_display = false;
    start(cfg);
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);
    EXPECT_EQ(w->display->seat, nullptr);
    EXPECT_EQ(w->display->fshell, nullptr);
    EXPECT_EQ(w->display->direct_display, nullptr);
    EXPECT_TRUE(w->initialized);
    EXPECT_THAT(lines(),
                ElementsAre(vline("wayland_render_init", "in"), vline("wayland_render_init", "out")));
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, GlobalsTheRendererHasNoUseForAreNotBound) {
    CompositorConfig cfg;
    cfg.output = true;
    start(cfg);
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    auto requests = comp().requests();
    ASSERT_GE(requests.size(), 8u);
    EXPECT_EQ(std::vector<std::string>(requests.begin(), requests.begin() + 8),
              (std::vector<std::string>{
                  "display.get_registry()",
                  "display.sync()",
                  "registry.bind(\"wl_compositor\", 1)",
                  "registry.bind(\"wp_viewporter\", 1)",
                  "registry.bind(\"wl_seat\", 1)",
                  "registry.bind(\"xdg_wm_base\", 1)",
                  "registry.bind(\"zwp_linux_dmabuf_v1\", 3)",
                  "display.sync()",
              }));
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, Nv12AnnouncedWithAnyModifierIsAccepted) {
    CompositorConfig cfg;
    cfg.format_events = false;
    cfg.formats = {kXRGB8888, kNV12};
    cfg.modifiers = {0x0100000000000001ull};  // a tiled layout
    start(cfg);
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);
    EXPECT_TRUE(w->display->requested_format_found);
    EXPECT_THAT(comp().events(), ::testing::IsSupersetOf({
                                     "dmabuf#0.modifier(0x34325258, 0x01000000, 0x00000001)",
                                     "dmabuf#0.modifier(0x3231564e, 0x01000000, 0x00000001)",
                                 }));
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, PingIsAnsweredWithPongOfTheSameSerial) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);

    comp().send_ping(4711);
    wayland_render_redraw(w, 0);                 // its dispatch reads the ping
    wayland_render_set_geometry(w, 0, 0, 0, 0);  // flushes the answer

    EXPECT_EQ(comp().requests(),
              concat({draw_requests("buffer#0", 1, 1, 0),
                      {"wm_base#0.pong(4711)", "surface#0.attach(null, 0, 0)", "surface#0.commit()"}}));
    wayland_render_deinit(w);
}

TEST_F(ConnectionTest, RemovedGlobalIsIgnored) {
    start();
    window* w = init_quietly();
    ASSERT_NE(w, nullptr);
    wl_seat* seat = w->display->seat;

    comp().remove_global("wl_seat");
    wayland_render_redraw(w, 0);  // reads the removal

    EXPECT_EQ(w->display->seat, seat);
    EXPECT_EQ(comp().log(), concat({{"-> registry.global_remove(\"wl_seat\")"},
                                    draw_requests("buffer#0", 1, 1, 0),
                                    {"-> callback#0.done()"}}));
    wayland_render_deinit(w);
}

TEST_F(ConnectionDeathTest, NoDmabufGlobalEndsTheProcess) {
    CompositorConfig cfg = config_in_base();
    cfg.dmabuf = false;
    EXPECT_EXIT(
        {
            stdout_into_stderr();
            TestCompositor comp(cfg);
            comp.start();
            wayland_render_init(&config_);
        },
        ExitedWithCode(1),
        "^" + vline_re("wayland_render_init", "in") + escape_re("No zwp_linux_dmabuf global\n") + "$");
}

TEST_F(ConnectionDeathTest, Nv12OnlyInFormatEventsEndsTheProcess) {
    CompositorConfig cfg = config_in_base();
    cfg.format_events = true;
    cfg.modifier_events = false;
    EXPECT_EXIT(
        {
            stdout_into_stderr();
            TestCompositor comp(cfg);
            comp.start();
            wayland_render_init(&config_);
        },
        ExitedWithCode(1),
        "^" + vline_re("wayland_render_init", "in") +
            escape_re("0x3231564e requested DRM format not available\n") + "$");
}

TEST_F(ConnectionDeathTest, CompositorWithoutNv12EndsTheProcess) {
    CompositorConfig cfg = config_in_base();
    cfg.formats = {kXRGB8888};
    EXPECT_EXIT(
        {
            stdout_into_stderr();
            TestCompositor comp(cfg);
            comp.start();
            wayland_render_init(&config_);
        },
        ExitedWithCode(1),
        "^" + vline_re("wayland_render_init", "in") +
            escape_re("0x3231564e requested DRM format not available\n") + "$");
}

TEST_F(ConnectionDeathTest, NoCompositorToConnectToIsAFatalAssertion) {
    std::string dir = base_;
    EXPECT_DEATH(
        {
            stdout_into_stderr();
            setenv("XDG_RUNTIME_DIR", dir.c_str(), 1);
            setenv("WAYLAND_DISPLAY", "no-such-compositor", 1);
            unsetenv("WAYLAND_SOCKET");
            wayland_render_init(&config_);
        },
        "^" + vline_re("wayland_render_init", "in") + assertion_end_re("display->display"));
}

}  // namespace
}  // namespace ruvo_test
