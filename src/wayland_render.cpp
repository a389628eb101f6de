// On-screen-display renderer: a Wayland client that shows the converter's NV12 frame
// buffers, wrapped as dmabuf-backed wl_buffers, on one surface of the TV's compositor.

// The assertions below end the process on purpose (no compositor connection, missing
// surface roles, no shell): they must stay active in optimised builds as well.
#undef NDEBUG
#include <assert.h>

#include <drm_fourcc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ruvo_internal_render.h"
#include "ruvo_log.h"

// ---------------------------------------------------------------------------------------
// Connection and globals
// ---------------------------------------------------------------------------------------

static void dmabuf_modifier(void* data, struct zwp_linux_dmabuf_v1* zwp_linux_dmabuf, uint32_t format,
                            uint32_t modifier_hi, uint32_t modifier_lo) {
    (void)zwp_linux_dmabuf;
    (void)modifier_hi;
    (void)modifier_lo;
    struct display* d = static_cast<struct display*>(data);
    // Any modifier will do: the layout of the buffers is implied by the buffers themselves.
    if (format == d->drm_format)
        d->requested_format_found = true;
}

static void dmabuf_format(void* data, struct zwp_linux_dmabuf_v1* zwp_linux_dmabuf, uint32_t format) {
    // Version 3 announces every format again through modifier events, which carry the answer.
    (void)data;
    (void)zwp_linux_dmabuf;
    (void)format;
}

static const struct zwp_linux_dmabuf_v1_listener dmabuf_listener = {
    dmabuf_format,
    dmabuf_modifier,
};

static void xdg_wm_base_ping(void* data, struct xdg_wm_base* shell, uint32_t serial) {
    (void)data;
    xdg_wm_base_pong(shell, serial);
}

static const struct xdg_wm_base_listener wm_base_listener = {
    xdg_wm_base_ping,
};

static void registry_handle_global(void* data, struct wl_registry* registry, uint32_t id,
                                   const char* interface, uint32_t version) {
    (void)version;
    struct display* d = static_cast<struct display*>(data);

    if (strcmp(interface, "wl_compositor") == 0) {
        d->compositor =
            static_cast<struct wl_compositor*>(wl_registry_bind(registry, id, &wl_compositor_interface, 1));
    } else if (strcmp(interface, "wp_viewporter") == 0) {
        d->viewporter =
            static_cast<struct wp_viewporter*>(wl_registry_bind(registry, id, &wp_viewporter_interface, 1));
    } else if (strcmp(interface, "wl_seat") == 0) {
        d->seat = static_cast<struct wl_seat*>(wl_registry_bind(registry, id, &wl_seat_interface, 1));
    } else if (strcmp(interface, "xdg_wm_base") == 0) {
        d->wm_base =
            static_cast<struct xdg_wm_base*>(wl_registry_bind(registry, id, &xdg_wm_base_interface, 1));
        xdg_wm_base_add_listener(d->wm_base, &wm_base_listener, d);
    } else if (strcmp(interface, "zwp_fullscreen_shell_v1") == 0) {
        d->fshell = static_cast<struct zwp_fullscreen_shell_v1*>(
            wl_registry_bind(registry, id, &zwp_fullscreen_shell_v1_interface, 1));
    } else if (strcmp(interface, "zwp_linux_dmabuf_v1") == 0) {
        d->dmabuf = static_cast<struct zwp_linux_dmabuf_v1*>(
            wl_registry_bind(registry, id, &zwp_linux_dmabuf_v1_interface, 3));
        zwp_linux_dmabuf_v1_add_listener(d->dmabuf, &dmabuf_listener, d);
    } else if (strcmp(interface, "weston_direct_display_v1") == 0) {
        d->direct_display = static_cast<struct weston_direct_display_v1*>(
            wl_registry_bind(registry, id, &weston_direct_display_v1_interface, 1));
    }
}

static void registry_handle_global_remove(void* data, struct wl_registry* registry, uint32_t name) {
    (void)data;
    (void)registry;
    (void)name;
}

static const struct wl_registry_listener registry_listener = {
    registry_handle_global,
    registry_handle_global_remove,
};

// Connects to the compositor named by the environment and checks that it takes NV12
// dmabuf buffers. Ends the process when it cannot.
static struct display* create_display() {
    struct display* display = static_cast<struct display*>(calloc(1, sizeof(struct display)));
    if (display == NULL) {
        fprintf(stderr, "out of memory\n");
        exit(1);
    }

    display->display = wl_display_connect(NULL);
    assert(display->display);

    display->drm_format = DRM_FORMAT_NV12;

    display->registry = wl_display_get_registry(display->display);
    wl_registry_add_listener(display->registry, &registry_listener, display);
    wl_display_roundtrip(display->display);
    if (display->dmabuf == NULL) {
        fprintf(stderr, "No zwp_linux_dmabuf global\n");
        exit(1);
    }

    // The format and modifier events of the dmabuf global.
    wl_display_roundtrip(display->display);

    if (!display->requested_format_found) {
        fprintf(stderr, "0x%lx requested DRM format not available\n",
                static_cast<unsigned long>(display->drm_format));
        exit(1);
    }

    // The first buffers are 1 x 1; the re-create calls bring the real size and strides.
    display->format.width = 1;
    display->format.height = 1;
    display->format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    display->format.format = DRM_FORMAT_NV12;
    display->format.num_planes = 2;
    display->format.strides[0] = 64;
    display->format.strides[1] = 64;

    return display;
}

static void destroy_display(struct display* display) {
    if (display->dmabuf) {
        zwp_linux_dmabuf_v1_destroy(display->dmabuf);
    }
    if (display->wm_base) {
        xdg_wm_base_destroy(display->wm_base);
    }
    if (display->fshell) {
        zwp_fullscreen_shell_v1_release(display->fshell);
    }
    if (display->viewporter) {
        wp_viewporter_destroy(display->viewporter);
    }
    if (display->compositor) {
        wl_compositor_destroy(display->compositor);
    }
    // The seat and the direct-display proxies end with the connection.
    wl_registry_destroy(display->registry);
    wl_display_flush(display->display);
    wl_display_disconnect(display->display);
    free(display);
}

// ---------------------------------------------------------------------------------------
// Buffers
// ---------------------------------------------------------------------------------------

static void buffer_release(void* data, struct wl_buffer* wl_buffer) {
    (void)wl_buffer;
    struct buffer* mybuf = static_cast<struct buffer*>(data);
    mybuf->busy = 0;
}

static const struct wl_buffer_listener buffer_listener = {
    buffer_release,
};

static void create_succeeded(void* data, struct zwp_linux_buffer_params_v1* params,
                             struct wl_buffer* new_buffer) {
    struct buffer* buffer = static_cast<struct buffer*>(data);
    buffer->buffer = new_buffer;
    wl_buffer_add_listener(buffer->buffer, &buffer_listener, buffer);
    zwp_linux_buffer_params_v1_destroy(params);
}

static void create_failed(void* data, struct zwp_linux_buffer_params_v1* params) {
    struct buffer* buffer = static_cast<struct buffer*>(data);
    buffer->buffer = NULL;
    zwp_linux_buffer_params_v1_destroy(params);
    fprintf(stderr, "Error: zwp_linux_buffer_params.create failed.\n");
}

static const struct zwp_linux_buffer_params_v1_listener params_listener = {
    create_succeeded,
    create_failed,
};

// Asks the compositor for a wl_buffer over the two planes of `buffer`. The answer arrives
// as an event during a later dispatch or roundtrip.
static void create_dmabuf_buffer(struct display* display, struct buffer* buffer) {
    // DRM_FORMAT_MOD_INVALID: the layout is implied by the buffer.
    static const uint64_t modifier = DRM_FORMAT_MOD_INVALID;

    struct zwp_linux_buffer_params_v1* params = zwp_linux_dmabuf_v1_create_params(display->dmabuf);
    uint32_t flags = 0;
    if (display->opts & OPT_FLAGS_Y_INVERT)
        flags |= ZWP_LINUX_BUFFER_PARAMS_V1_FLAGS_Y_INVERT;

    if ((display->opts & OPT_DIRECT_DISPLAY) && display->direct_display) {
        weston_direct_display_v1_enable(display->direct_display, params);
        // Scan-out cannot flip the buffer.
        if (flags & ZWP_LINUX_BUFFER_PARAMS_V1_FLAGS_Y_INVERT) {
            flags &= ~ZWP_LINUX_BUFFER_PARAMS_V1_FLAGS_Y_INVERT;
            fprintf(stdout, "dmabuf y-inverted attribute flag was removed, as display-direct flag was set\n");
        }
    }

    for (unsigned int i = 0; i < display->format.num_planes; i++) {
        zwp_linux_buffer_params_v1_add(params, buffer->dmabuf_fds[i], i,
                                       static_cast<uint32_t>(buffer->data_offsets[i]),
                                       display->format.strides[i], static_cast<uint32_t>(modifier >> 32),
                                       static_cast<uint32_t>(modifier & 0xffffffff));
    }

    zwp_linux_buffer_params_v1_add_listener(params, &params_listener, buffer);
    zwp_linux_buffer_params_v1_create(params, display->format.width, display->format.height,
                                      display->drm_format, flags);
}

// ---------------------------------------------------------------------------------------
// Window
// ---------------------------------------------------------------------------------------

static void xdg_surface_handle_configure(void* data, struct xdg_surface* surface, uint32_t serial) {
    struct window* window = static_cast<struct window*>(data);
    xdg_surface_ack_configure(surface, serial);
    window->wait_for_configure = false;
}

static const struct xdg_surface_listener xdg_surface_listener = {
    xdg_surface_handle_configure,
};

static void xdg_toplevel_handle_configure(void* data, struct xdg_toplevel* toplevel, int32_t width,
                                          int32_t height, struct wl_array* states) {
    (void)data;
    (void)toplevel;
    (void)width;
    (void)height;
    (void)states;
}

static void xdg_toplevel_handle_close(void* data, struct xdg_toplevel* xdg_toplevel) {
    (void)data;
    (void)xdg_toplevel;
}

// The shell is bound at version 1: the events of later versions never arrive.
static const struct xdg_toplevel_listener xdg_toplevel_listener = {
    xdg_toplevel_handle_configure,
    xdg_toplevel_handle_close,
    NULL,
    NULL,
};

static struct window* create_window(struct display* display) {
    struct window* window = static_cast<struct window*>(calloc(1, sizeof(struct window)));
    if (window == NULL) {
        QVL_ERR("create window failed.\n");
        return NULL;
    }

    window->display = display;
    window->need_re_create_cnt = 0;
    window->callback = NULL;
    window->surface = wl_compositor_create_surface(display->compositor);
    window->viewport = wp_viewporter_get_viewport(display->viewporter, window->surface);

    if (display->wm_base) {
        window->xdg_surface = xdg_wm_base_get_xdg_surface(display->wm_base, window->surface);
        assert(window->xdg_surface);
        xdg_surface_add_listener(window->xdg_surface, &xdg_surface_listener, window);

        window->xdg_toplevel = xdg_surface_get_toplevel(window->xdg_surface);
        assert(window->xdg_toplevel);
        xdg_toplevel_add_listener(window->xdg_toplevel, &xdg_toplevel_listener, window);

        xdg_toplevel_set_title(window->xdg_toplevel, "qvl_hbbtv_ta");

        window->wait_for_configure = true;
        wl_surface_commit(window->surface);
        xdg_toplevel_set_app_id(window->xdg_toplevel, "order_1");
    } else if (display->fshell) {
        zwp_fullscreen_shell_v1_present_surface(display->fshell, window->surface,
                                                ZWP_FULLSCREEN_SHELL_V1_PRESENT_METHOD_DEFAULT, NULL);
    } else {
        assert(0);
    }

    return window;
}

static void destroy_window(struct window* window) {
    if (window->callback)
        wl_callback_destroy(window->callback);
    if (window->xdg_toplevel)
        xdg_toplevel_destroy(window->xdg_toplevel);
    if (window->xdg_surface)
        xdg_surface_destroy(window->xdg_surface);
    if (window->viewport)
        wp_viewport_destroy(window->viewport);
    wl_surface_destroy(window->surface);

    for (int i = 0; i < 3; i++) {
        if (window->buffers[i].buffer)
            wl_buffer_destroy(window->buffers[i].buffer);
    }

    free(window);
}

// Points slot `index` at its frame buffer from the configuration, with the configured
// strides, ready for create_dmabuf_buffer.
static void prepare_slot(struct window* window, int index) {
    struct buffer* buffer = &window->buffers[index];
    buffer->index = index;
    buffer->display = window->display;
    buffer->dmabuf_fds[0] = window->render_config.dma_fd[index][0];
    buffer->dmabuf_fds[1] = window->render_config.dma_fd[index][1];
    buffer->data_offsets[0] = 0;
    buffer->data_offsets[1] = 0;
    window->display->format.strides[0] = window->render_config.strides[0];
    window->display->format.strides[1] = window->render_config.strides[1];
}

// ---------------------------------------------------------------------------------------
// Public functions
// ---------------------------------------------------------------------------------------

extern "C" {

struct window* wayland_render_init(st_wayland_render_config* config) {
    QVL_INFO("in\n");
    if (config == NULL) {
        QVL_ERR("invalid parameter.\n");
        return NULL;
    }

    struct display* display = create_display();
    struct window* window = create_window(display);
    if (window == NULL)
        return NULL;

    window->render_config.width = config->width;
    window->render_config.height = config->height;
    window->render_config.strides[0] = config->strides[0];
    window->render_config.strides[1] = config->strides[1];

    for (int i = 0; i < 3; i++) {
        struct buffer* buffer = &window->buffers[i];
        buffer->display = display;
        buffer->index = i;
        assert(!buffer->buffer);
        buffer->dmabuf_fds[0] = config->dma_fd[i][0];
        buffer->dmabuf_fds[1] = config->dma_fd[i][1];
        window->render_config.dma_fd[i][0] = config->dma_fd[i][0];
        window->render_config.dma_fd[i][1] = config->dma_fd[i][1];
        buffer->data_offsets[0] = 0;
        buffer->data_offsets[1] = 0;
        create_dmabuf_buffer(display, buffer);
    }

    wl_display_roundtrip(display->display);
    window->initialized = true;
    QVL_INFO("out\n");
    return window;
}

void wayland_render_deinit(struct window* window) {
    QVL_INFO("in\n");
    if (window == NULL)
        return;

    struct display* display = window->display;
    destroy_window(window);
    destroy_display(display);
}

void wayland_render_redraw(struct window* window, int index) {
    QVL_TRACE("in\n");
    if (window == NULL) {
        QVL_ERR("invalid parameter.\n");
        return;
    }

    struct display* display = window->display;
    struct buffer* buffer = &window->buffers[index];

    if (buffer->busy) {
        // The compositor still reads this frame buffer: drop the frame.
        wl_display_dispatch(display->display);
        QVL_ERR("buffer busy.\n");
        return;
    }

    if (window->need_re_create_cnt > 0) {
        QVL_TRACE("need_re_create_cnt(%d) index(%d)\n", window->need_re_create_cnt, index);
        // A slot whose last creation failed holds no wl_buffer.
        if (buffer->buffer) {
            wl_buffer_destroy(buffer->buffer);
            buffer->buffer = NULL;
        }
        prepare_slot(window, index);
        create_dmabuf_buffer(display, buffer);
        buffer->busy = 0;
        wl_display_roundtrip(display->display);
        window->need_re_create_cnt--;
    }

    wl_surface_attach(window->surface, buffer->buffer, 0, 0);
    wl_surface_damage(window->surface, 0, 0, display->format.width, display->format.height);
    window->callback = wl_surface_frame(window->surface);
    wl_surface_commit(window->surface);
    buffer->busy = 1;

    wl_display_dispatch(display->display);
    QVL_TRACE("out\n");
}

void wayland_render_set_geometry(struct window* window, int x, int y, int w, int h) {
    QVL_INFO("in, x(%d) y(%d) w(%d) h(%d)\n", x, y, w, h);
    if (window == NULL || window->xdg_surface == NULL || window->viewport == NULL) {
        QVL_ERR("invalid parameter.\n");
        return;
    }

    if (w == 0 || h == 0) {
        QVL_INFO("disable osd video display\n");
        wl_surface_attach(window->surface, NULL, 0, 0);
        wl_surface_commit(window->surface);
        wl_display_flush(window->display->display);
        return;
    }

    // Shown with the next redraw's commit.
    xdg_surface_set_window_geometry(window->xdg_surface, x, y, w, h);
    wp_viewport_set_destination(window->viewport, w, h);
}

void wayland_render_re_create_dmabuf_buffer(struct window* window, int width, int height) {
    QVL_INFO("in, w(%d) h(%d)\n", width, height);
    if (window == NULL || width == 0 || height == 0) {
        QVL_ERR("invalid parameter.\n");
        return;
    }

    // The next three redraws renew one slot each.
    window->need_re_create_cnt = 3;
    window->display->format.width = width;
    window->display->format.height = height;
}

void wayland_render_re_create_dmabuf_buffer_directly(struct window* window, int width, int height) {
    QVL_INFO("in, w(%d) h(%d)\n", width, height);
    if (window == NULL || width == 0 || height == 0) {
        QVL_ERR("invalid parameter.\n");
        return;
    }

    struct display* display = window->display;
    display->format.width = width;
    display->format.height = height;

    // The former wl_buffers are not destroyed here; each slot simply takes the new one.
    for (int i = 0; i < 3; i++) {
        struct buffer* buffer = &window->buffers[i];
        prepare_slot(window, i);
        create_dmabuf_buffer(display, buffer);
        buffer->busy = 0;
    }

    wl_display_roundtrip(display->display);
}

}  // extern "C"
