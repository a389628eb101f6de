// Fuzzes rectangles through set_rect, before and after the first frame, interleaved with
// frames of changing aspect. Input: a sequence of 24-byte rectangles.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ruvo_fuzz::quiet_platform();
    quarvel_video_output_s* output = quarvel_video_output_open(false);
    if (output == nullptr)
        return 0;

    v4l2_drm desc;
    memset(&desc, 0, sizeof(desc));
    desc.u.dec_info.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    desc.u.dec_info.hres = 1920;
    desc.u.dec_info.vres = 1080;
    quarvel_video_output_frame_s frame{};
    frame.v4l2_frame = &desc;
    frame.dv_profile = -1;

    const size_t kRect = sizeof(quarvel_video_output_rect_s);
    for (size_t off = 0, n = 0; off + kRect <= size; off += kRect, ++n) {
        quarvel_video_output_rect_s rect;
        memcpy(&rect, data + off, kRect);
        quarvel_video_output_set_rect(output, &rect);
        if (n == 1)
            quarvel_video_output_init_with_first_frame(output, &frame);
        if (n % 3 == 2) {
            // The content changes aspect (and, every fourth time, goes away).
            desc.u.dec_info.aspectratio = static_cast<v4l2_aspectratio_type>(1 + (rect.dar_w & 3));
            quarvel_video_output_push_frame_to_display(output, (rect.dar_h & 3) == 3 ? nullptr : &frame);
        }
    }
    quarvel_video_output_close(output);
    return 0;
}
