// Descriptor building for software-decoded frames.
#include "ruvovideosink_frames.h"

#include <string.h>

namespace ruvo_gst {

ContentAspect content_aspect(const GstVideoInfo& info) {
    guint num = 0;
    guint den = 0;
    if (!gst_video_calculate_display_ratio(&num, &den, GST_VIDEO_INFO_WIDTH(&info),
                                           GST_VIDEO_INFO_HEIGHT(&info), GST_VIDEO_INFO_PAR_N(&info),
                                           GST_VIDEO_INFO_PAR_D(&info), 1, 1)) {
        return {};
    }
    return {num, den};
}

uint32_t aspect_code(ContentAspect dar) {
    struct Entry {
        uint32_t num, den, code;
    };
    static const Entry kTable[] = {{1, 1, V4L2_ASPECTRATIO_TYPE_100_100},
                                   {4, 3, V4L2_ASPECTRATIO_TYPE_300_400},
                                   {16, 9, V4L2_ASPECTRATIO_TYPE_900_1600},
                                   {221, 100, V4L2_ASPECTRATIO_TYPE_100_221}};
    for (const Entry& e : kTable) {
        if (dar.num == e.num && dar.den == e.den) {
            return e.code;
        }
    }
    return 0;
}

uint32_t framerate_code(int fps_n, int fps_d) {
    struct Entry {
        int millihertz;
        uint32_t code;
    };
    static const Entry kTable[] = {
        {23976, V4L2_DRM_FRAMERATE_23_97HZ}, {24000, V4L2_DRM_FRAMERATE_24HZ},
        {25000, V4L2_DRM_FRAMERATE_25HZ},    {29970, V4L2_DRM_FRAMERATE_29_97HZ},
        {30000, V4L2_DRM_FRAMERATE_30HZ},    {47952, V4L2_DRM_FRAMERATE__47_94HZ},
        {48000, V4L2_DRM_FRAMERATE_48HZ},    {50000, V4L2_DRM_FRAMERATE_50HZ},
        {59940, V4L2_DRM_FRAMERATE_59_94HZ}, {60000, V4L2_DRM_FRAMERATE_60HZ},
        {75000, V4L2_DRM_FRAMERATE_75HZ},    {100000, V4L2_DRM_FRAMERATE_100HZ},
        {120000, V4L2_DRM_FRAMERATE_120HZ},
    };
    if (fps_n <= 0 || fps_d <= 0) {
        return V4L2_DRM_FRAMERATE_ETC;
    }
    const int millihertz =
        static_cast<int>(gst_util_uint64_scale_int(static_cast<guint64>(fps_n), 1000, fps_d));
    for (const Entry& e : kTable) {
        if (millihertz == e.millihertz) {
            return e.code;
        }
    }
    return V4L2_DRM_FRAMERATE_ETC;
}

void describe_raw_frame(const GstVideoInfo& info, v4l2_drm* desc) {
    memset(desc, 0, sizeof *desc);
    const uint32_t width = GST_VIDEO_INFO_WIDTH(&info);
    const uint32_t height = GST_VIDEO_INFO_HEIGHT(&info);
    desc->inputport = V4L2_DRM_INPUTPORT_TYPE_MM;
    v4l2_drm_dec_info& dec = desc->u.dec_info;
    dec.aspectratio = static_cast<v4l2_aspectratio_type>(aspect_code(content_aspect(info)));
    dec.hres = width;
    dec.vres = height;
    dec.effective_hres = width;
    dec.effective_vres = height;
    dec.framerate = framerate_code(GST_VIDEO_INFO_FPS_N(&info), GST_VIDEO_INFO_FPS_D(&info));
    dec.scantype = GST_VIDEO_INFO_IS_INTERLACED(&info) ? 1 : 0;
    dec.bpp = GST_VIDEO_FORMAT_INFO_DEPTH(info.finfo, 0);
    v4l2_private_frame_info& f = dec.pFrame[0];
    f.width = width;
    f.height = height;
    f.y_linesize = GST_VIDEO_INFO_PLANE_STRIDE(&info, 0);
    f.u_linesize = GST_VIDEO_INFO_PLANE_STRIDE(&info, 1);
    // The third plane's line size stays 0: with an unlisted aspect the decoder's
    // convention is then square display of the coded size.
    f.v_linesize = 0;
    f.colorformat = V4L2_DRM_COLORFORMAT_YUV420;
    f.showframe = 1;
    f.framedone = 1;
    f.endline = height;
}

}  // namespace ruvo_gst
