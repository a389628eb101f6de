// A decoder element's side of the frame meta, built against the installed header and
// static library: attach the decoder's descriptor to a buffer, read it back.
#include <stdio.h>
#include <string.h>

#include <gst/gst.h>

#include "ruvo/gst/ruvo_frame_meta.h"

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    struct v4l2_drm frame;
    memset(&frame, 0, sizeof frame);
    frame.u.dec_info.hres = 1920;
    frame.u.dec_info.vres = 1080;
    GstBuffer* buffer = gst_buffer_new();
    if (gst_buffer_add_ruvo_frame_meta(buffer, &frame, 5) == nullptr) {
        fprintf(stderr, "frame meta: not attached\n");
        return 1;
    }
    const RuvoFrameMeta* meta = gst_buffer_get_ruvo_frame_meta(buffer);
    if (meta == nullptr) {
        fprintf(stderr, "frame meta: not found\n");
        return 1;
    }
    printf("frame meta: %s %ux%u profile %d\n", g_type_name(RUVO_FRAME_META_API_TYPE),
           meta->frame.u.dec_info.hres, meta->frame.u.dec_info.vres, meta->dv_profile);
    gst_buffer_unref(buffer);
    return 0;
}
