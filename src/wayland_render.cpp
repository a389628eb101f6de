// On-screen-display renderer (placeholder until the Wayland client lands).
#include "ruvo_internal.h"
#include "ruvo_log.h"

extern "C" {
window* wayland_render_init(st_wayland_render_config*) { return nullptr; }
void wayland_render_deinit(window*) {}
void wayland_render_redraw(window*, int) {}
void wayland_render_set_geometry(window*, int, int, int, int) {}
void wayland_render_re_create_dmabuf_buffer(window*, int, int) {}
void wayland_render_re_create_dmabuf_buffer_directly(window*, int, int) {}
}
