// The renderer's connection: globals bound at their versions, the NV12 check through
// modifier events, pings, and the process-ending failures.
#include <stddef.h>

#include "wayland_fixture.h"

namespace ruvo_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

// The records are read by integrators and tests: their fields stay in this order.
#define FIELD_BEFORE(type, first, second) \
    static_assert(offsetof(type, first) < offsetof(type, second), #type ": " #first " before " #second)

FIELD_BEFORE(struct display, display, registry);
FIELD_BEFORE(struct display, registry, compositor);
FIELD_BEFORE(struct display, compositor, viewporter);
FIELD_BEFORE(struct display, viewporter, seat);
FIELD_BEFORE(struct display, seat, keyboard);
FIELD_BEFORE(struct display, keyboard, wm_base);
FIELD_BEFORE(struct display, wm_base, fshell);
FIELD_BEFORE(struct display, fshell, dmabuf);
FIELD_BEFORE(struct display, dmabuf, direct_display);
FIELD_BEFORE(struct display, direct_display, requested_format_found);
FIELD_BEFORE(struct display, requested_format_found, opts);
FIELD_BEFORE(struct display, opts, v4l_fd);
FIELD_BEFORE(struct display, v4l_fd, format);
FIELD_BEFORE(struct display, format, drm_format);
FIELD_BEFORE(buffer_format, width, height);
FIELD_BEFORE(buffer_format, height, type);
FIELD_BEFORE(buffer_format, type, format);
FIELD_BEFORE(buffer_format, format, num_planes);
FIELD_BEFORE(buffer_format, num_planes, strides);
FIELD_BEFORE(buffer, buffer, display);
FIELD_BEFORE(buffer, display, busy);
FIELD_BEFORE(buffer, busy, index);
FIELD_BEFORE(buffer, index, dmabuf_fds);
FIELD_BEFORE(buffer, dmabuf_fds, data_offsets);
FIELD_BEFORE(window, display, surface);
FIELD_BEFORE(window, surface, viewport);
FIELD_BEFORE(window, viewport, xdg_surface);
FIELD_BEFORE(window, xdg_surface, xdg_toplevel);
FIELD_BEFORE(window, xdg_toplevel, buffers);
FIELD_BEFORE(window, buffers, callback);
FIELD_BEFORE(window, callback, render_config);
FIELD_BEFORE(window, render_config, wait_for_configure);
FIELD_BEFORE(window, wait_for_configure, initialized);
FIELD_BEFORE(window, initialized, need_re_create_cnt);
FIELD_BEFORE(st_wayland_render_config, width, height);
FIELD_BEFORE(st_wayland_render_config, height, dma_fd);
FIELD_BEFORE(st_wayland_render_config, dma_fd, strides);
static_assert(sizeof(st_wayland_render_config) == 40, "the configuration is 40 bytes on both ABIs");

using ConnectionTest = RendererTest;
using ConnectionDeathTest = RendererDeathTest;

TEST_F(ConnectionTest, InitBindsEachGlobalAtItsVersionAndRoundtripsTwice) {
    start();
    window* w = wayland_render_init(&config_);
    ASSERT_NE(w, nullptr);

    auto record = comp().log();
    ASSERT_GE(record.size(), 11u);
    EXPECT_EQ(std::vector<std::string>(record.begin(), record.begin() + 11), kConnectLog);
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
    EXPECT_EQ(std::vector<std::string>(requests.begin(), requests.begin() + 8), kConnectRequests);
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
        init_with_compositor(cfg), ExitedWithCode(1),
        "^" + vline_re("wayland_render_init", "in") + escape_re("No zwp_linux_dmabuf global\n") + "$");
}

TEST_F(ConnectionDeathTest, Nv12OnlyInFormatEventsEndsTheProcess) {
    CompositorConfig cfg = config_in_base();
    cfg.format_events = true;
    cfg.modifier_events = false;
    EXPECT_EXIT(init_with_compositor(cfg), ExitedWithCode(1),
                "^" + vline_re("wayland_render_init", "in") +
                    escape_re("0x3231564e requested DRM format not available\n") + "$");
}

TEST_F(ConnectionDeathTest, CompositorWithoutNv12EndsTheProcess) {
    CompositorConfig cfg = config_in_base();
    cfg.formats = {kXRGB8888};
    EXPECT_EXIT(init_with_compositor(cfg), ExitedWithCode(1),
                "^" + vline_re("wayland_render_init", "in") +
                    escape_re("0x3231564e requested DRM format not available\n") + "$");
}

TEST_F(ConnectionDeathTest, NoCompositorToConnectToIsAFatalAssertion) {
    EXPECT_DEATH(init_without_compositor("no-such-compositor"),
                 "^" + vline_re("wayland_render_init", "in") + assertion_end_re("display->display"));
}

}  // namespace
}  // namespace ruvo_test
