/**
 * \file wayland_render.h
 * \brief On-screen-display renderer: shows NV12 dmabuf frame buffers on a surface of the
 * TV's Wayland compositor.
 *
 * The video output's on-screen-display path uses these functions; that path is not
 * entered in this design (quarvel_video_output_open() ignores its argument), so a browser
 * has no need to call them. They have C names.
 *
 * \par Threads
 * One window is used from one thread at a time; the functions dispatch the connection's
 * events on the caller's thread.
 *
 * \par Failures that end the process
 * wayland_render_init() ends the process (exit status 1, or a failed assertion) when there
 * is no compositor to connect to, no dmabuf global, no NV12 format or no shell: the on-screen
 * display cannot work on such a system (docs/behaviours.md, R1).
 */
#pragma once

#ifndef RUVO_EXPORT
/// Marks a function of the library's exported interface.
#define RUVO_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/// What the video side gives the renderer: the frame size and three NV12 frame buffers.
typedef struct _wayland_render_config {
    int width;                ///< frame width in pixels
    int height;               ///< frame height in pixels
    int dma_fd[3][2];         ///< per buffer: plane 0 (Y) and plane 1 (UV) dmabuf descriptors, borrowed
    unsigned int strides[2];  ///< bytes per line of plane 0 and plane 1
} st_wayland_render_config;

struct window;

/**
 * Connects to the compositor named by the environment, binds its globals, makes a
 * window (a fullscreen-shell surface, or an xdg toplevel with a viewport) and wraps the
 * three buffers as 1 x 1 dmabuf buffers; the re-create calls bring the real size.
 *
 * \param config the buffers, copied; the descriptors stay the caller's.
 * \return the window, owned by the caller until wayland_render_deinit(); null when config
 *         is null or the window cannot be made. Ends the process when the compositor does
 *         not qualify (see above).
 */
RUVO_EXPORT struct window* wayland_render_init(st_wayland_render_config* config);
/**
 * Destroys the window, its buffers and the connection, in that order.
 *
 * \param window the window, or null (then only the entry line is printed). Not valid
 *        after the call.
 */
RUVO_EXPORT void wayland_render_deinit(struct window* window);
/**
 * Shows buffer \p index: attaches it, damages the surface, asks for a frame callback and
 * commits, then dispatches the compositor's events. A buffer the compositor still holds is
 * not shown (the frame is dropped, "buffer busy." printed). After
 * wayland_render_re_create_dmabuf_buffer() the next three redraws each renew the buffer
 * they show first.
 *
 * \param window the window; null is printed and ignored.
 * \param index 0, 1 or 2 (not checked).
 */
RUVO_EXPORT void wayland_render_redraw(struct window* window, int index);
/**
 * Moves and scales the window (shown with the next redraw), or hides it at once when
 * \p w or \p h is 0. Coordinates are in the compositor's pixels.
 *
 * \param window the window; null, or a window without xdg surface or viewport (the
 *        fullscreen shell), is printed as invalid and ignored.
 * \param x left edge
 * \param y top edge
 * \param w width; 0 hides
 * \param h height; 0 hides
 */
RUVO_EXPORT void wayland_render_set_geometry(struct window* window, int x, int y, int w, int h);
/**
 * Takes a new frame size lazily: each of the next three redraws destroys and re-creates
 * the buffer it shows at this size.
 *
 * \param window the window; null is printed as invalid and ignored.
 * \param width frame width in pixels; 0 is refused.
 * \param height frame height in pixels; 0 is refused.
 */
RUVO_EXPORT void wayland_render_re_create_dmabuf_buffer(struct window* window, int width, int height);
/**
 * Takes a new frame size at once: re-creates all three buffers at this size. The former
 * buffers are not destroyed (docs/behaviours.md, R4).
 *
 * \param window the window; null is printed as invalid and ignored.
 * \param width frame width in pixels; 0 is refused.
 * \param height frame height in pixels; 0 is refused.
 */
RUVO_EXPORT void wayland_render_re_create_dmabuf_buffer_directly(struct window* window, int width,
                                                                 int height);

#ifdef __cplusplus
}
#endif
