// A program of a browser integrator: built against an installed tree only (its public
// headers and its package files), it opens the main video output, reads the panel size,
// places the video window, and closes the output again.
#include <stdio.h>

#include <ruvo/quarvel_audio_output.h>
#include <ruvo/quarvel_video_output.h>
#include <ruvo/ruvo_debug.h>
#include <ruvo/wayland_render.h>

int main() {
    quarvel_video_output_t* video = quarvel_video_output_open(false);
    if (video == nullptr) {
        printf("consumer: no video output\n");
        return 1;
    }
    int width = 0;
    int height = 0;
    quarvel_video_output_get_panel_size(video, &width, &height);
    printf("consumer: panel %dx%d\n", width, height);

    const quarvel_video_output_rect_t window = {
        0, 0, static_cast<uint32_t>(width) / 2, static_cast<uint32_t>(height) / 2, 16, 9};
    printf("consumer: set_rect -> %d\n", quarvel_video_output_set_rect(video, &window));
    quarvel_video_output_close(video);
    printf("consumer: closed\n");
    return 0;
}
