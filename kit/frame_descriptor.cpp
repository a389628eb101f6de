#include "ruvo_kit/frame_descriptor.h"

#include <string.h>

namespace ruvo_kit {

FrameDescriptor::FrameDescriptor(uint32_t width, uint32_t height) {
    memset(&d_, 0, sizeof(d_));
    d_.inputport = V4L2_DRM_INPUTPORT_TYPE_MM;
    v4l2_drm_dec_info& di = d_.u.dec_info;
    di.aspectratio = V4L2_ASPECTRATIO_TYPE_900_1600;
    di.hres = width;
    di.vres = height;
    di.effective_hres = width;
    di.effective_vres = height;
    di.framerate = 50000;
    di.pFrame[0].display_index = 1;
}

FrameDescriptor& FrameDescriptor::aspect(uint32_t aspect) {
    d_.u.dec_info.aspectratio = static_cast<v4l2_aspectratio_type>(aspect);
    return *this;
}

FrameDescriptor& FrameDescriptor::inputport(uint32_t inputport) {
    d_.inputport = static_cast<v4l2_drm_inputport_type>(inputport);
    return *this;
}

FrameDescriptor& FrameDescriptor::framerate(uint32_t framerate) {
    d_.u.dec_info.framerate = framerate;
    return *this;
}

FrameDescriptor& FrameDescriptor::display_index(uint32_t index) {
    d_.u.dec_info.pFrame[0].display_index = index;
    return *this;
}

FrameDescriptor& FrameDescriptor::plane_size() {
    d_.u.dec_info.pFrame[0].width = d_.u.dec_info.hres;
    d_.u.dec_info.pFrame[0].height = d_.u.dec_info.vres;
    return *this;
}

FrameDescriptor& FrameDescriptor::decoded_yuv420(uint32_t v_linesize) {
    plane_size();
    v4l2_drm_dec_info& di = d_.u.dec_info;
    di.bpp = 8;
    di.pFrame[0].showframe = 1;
    di.pFrame[0].y_linesize = di.hres;
    di.pFrame[0].u_linesize = di.hres;
    di.pFrame[0].v_linesize = v_linesize;
    di.pFrame[0].colorformat = V4L2_DRM_COLORFORMAT_YUV420;
    di.pFrame[0].framedone = 1;
    return *this;
}

}  // namespace ruvo_kit
