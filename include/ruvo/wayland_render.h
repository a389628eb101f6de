// On-screen-display renderer: shows NV12 dmabuf frame buffers on a Wayland surface.
#pragma once

#ifndef RUVO_EXPORT
#define RUVO_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _wayland_render_config {
    int width;
    int height;
    int dma_fd[3][2];  // per buffer: plane 0 (Y) and plane 1 (UV) dmabuf descriptors
    unsigned int strides[2];
} st_wayland_render_config;

struct window;

RUVO_EXPORT struct window* wayland_render_init(st_wayland_render_config* config);
RUVO_EXPORT void wayland_render_deinit(struct window* window);
RUVO_EXPORT void wayland_render_redraw(struct window* window, int index);
RUVO_EXPORT void wayland_render_set_geometry(struct window* window, int x, int y, int w, int h);
RUVO_EXPORT void wayland_render_re_create_dmabuf_buffer(struct window* window, int width, int height);
RUVO_EXPORT void wayland_render_re_create_dmabuf_buffer_directly(struct window* window, int width,
                                                                 int height);

#ifdef __cplusplus
}
#endif
