// Records of the on-screen-display renderer: the compositor connection (`display`), the
// window handed to the caller and its ring of three dmabuf-backed buffers. Plain structs
// with their fields in a fixed order; integrators and tests read them.
#pragma once

#include <linux/videodev2.h>
#include <stdint.h>

#include <wayland-client.h>

#include "fullscreen-shell-unstable-v1-client-protocol.h"
#include "linux-dmabuf-unstable-v1-client-protocol.h"
#include "viewporter-client-protocol.h"
#include "weston-direct-display-client-protocol.h"
#include "xdg-shell-client-protocol.h"

#include "ruvo/wayland_render.h"

// Option bits of display::opts for buffer creation.
#define OPT_FLAGS_Y_INVERT 0x1  // ask the compositor to flip the buffer vertically
#define OPT_DIRECT_DISPLAY 0x2  // ask the compositor to scan the buffer out directly

// Geometry and memory layout shared by every dmabuf buffer of the renderer.
struct buffer_format {
    int width;
    int height;
    enum v4l2_buf_type type;
    uint32_t format;  // fourcc
    unsigned int num_planes;
    unsigned int strides[2];  // bytes per row, per plane
};

// The connection to the compositor and the globals bound on it.
struct display {
    struct wl_display* display;
    struct wl_registry* registry;
    struct wl_compositor* compositor;
    struct wp_viewporter* viewporter;
    struct wl_seat* seat;
    struct wl_keyboard* keyboard;
    struct xdg_wm_base* wm_base;
    struct zwp_fullscreen_shell_v1* fshell;
    struct zwp_linux_dmabuf_v1* dmabuf;
    struct weston_direct_display_v1* direct_display;
    bool requested_format_found;
    uint32_t opts;
    int v4l_fd;
    struct buffer_format format;
    uint32_t drm_format;
};

// One compositor buffer wrapping the two planes of one frame buffer.
struct buffer {
    struct wl_buffer* buffer;
    struct display* display;
    int busy;  // 1 from commit until the compositor releases it
    int index;
    int dmabuf_fds[2];
    int data_offsets[2];
};

// The renderer handle.
struct window {
    struct display* display;
    struct wl_surface* surface;
    struct wp_viewport* viewport;
    struct xdg_surface* xdg_surface;
    struct xdg_toplevel* xdg_toplevel;
    struct buffer buffers[3];
    struct wl_callback* callback;
    st_wayland_render_config render_config;
    bool wait_for_configure;
    bool initialized;
    int need_re_create_cnt;
};
