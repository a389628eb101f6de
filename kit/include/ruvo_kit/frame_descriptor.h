// The decoder's descriptor of one frame (v4l2_drm), as tests, benchmarks and the session
// player hand it to the library. Start from a picture size and set what differs:
//
//   v4l2_drm d = ruvo_kit::FrameDescriptor(1920, 1080).aspect(V4L2_ASPECTRATIO_TYPE_300_400);
#pragma once

#include <stdint.h>

#include "ruvo/driver/v4l2_drm.h"

namespace ruvo_kit {

class FrameDescriptor {
  public:
    // Every byte zero but a width x height picture shown whole (effective size the same),
    // 16:9, 50 frames a second (framerate 50000), from the media-player input, display
    // index 1 on the first plane.
    FrameDescriptor(uint32_t width, uint32_t height);

    FrameDescriptor& aspect(uint32_t aspect);        // a v4l2_aspectratio_type
    FrameDescriptor& inputport(uint32_t inputport);  // a v4l2_drm_inputport_type
    FrameDescriptor& framerate(uint32_t framerate);  // frames a second x 1000
    FrameDescriptor& display_index(uint32_t index);
    // The first plane gets the picture's size.
    FrameDescriptor& plane_size();
    // The first plane as the decoder fills it for a finished, shown 8-bit YUV 4:2:0 frame:
    // the picture's size, luma and first chroma rows of the picture's width, the second
    // chroma row length given.
    FrameDescriptor& decoded_yuv420(uint32_t v_linesize);

    const v4l2_drm& get() const { return d_; }
    operator v4l2_drm() const { return d_; }

  private:
    v4l2_drm d_;
};

}  // namespace ruvo_kit
