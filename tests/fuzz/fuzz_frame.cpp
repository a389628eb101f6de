// Fuzzes the 576-byte frame descriptor through init_with_first_frame, push_frame_to_display
// and set_next_res on a freshly opened main-plane handle.
//
// Input: the first frame's descriptor (576 bytes), optionally the next one's (576 bytes,
// else the first again), optionally the rectangle the video is shown in (24 bytes, else
// full screen). The Dolby Vision profile comes from the first descriptor's last word.
#include "fuzz_support.h"

namespace {

constexpr size_t kDescriptor = sizeof(v4l2_drm);
constexpr size_t kRect = sizeof(quarvel_video_output_rect_s);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ruvo_fuzz::quiet_platform();
    v4l2_drm first = ruvo_fuzz::frame_from(data, size);
    v4l2_drm next =
        size > kDescriptor ? ruvo_fuzz::frame_from(data + kDescriptor, size - kDescriptor) : first;
    quarvel_video_output_rect_s rect{0, 0, 1920, 1080, 0, 0};
    if (size >= 2 * kDescriptor + kRect)
        memcpy(&rect, data + 2 * kDescriptor, kRect);
    if (ruvo_fuzz::divides_by_zero(first) || ruvo_fuzz::divides_by_zero(next))
        return -1;  // not kept in the corpus

    quarvel_video_output_s* output = quarvel_video_output_open(false);
    if (output == nullptr)
        return 0;
    quarvel_video_output_set_rect(output, &rect);

    quarvel_video_output_frame_s frame{};
    frame.v4l2_frame = &first;
    frame.dv_profile = static_cast<int32_t>(first.reserved & 0xF) - 1;
    quarvel_video_output_init_with_first_frame(output, &frame);
    quarvel_video_output_push_frame_to_display(output, &frame);
    frame.v4l2_frame = &next;
    quarvel_video_output_set_next_res(output, &frame);
    quarvel_video_output_push_frame_to_display(output, &frame);
    quarvel_video_output_push_frame_to_display(output, nullptr);
    quarvel_video_output_close(output);
    return 0;
}
