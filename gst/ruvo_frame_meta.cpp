// The decoder frame meta: registration by name, attach, copy on buffer copy.
#include "ruvo/gst/ruvo_frame_meta.h"

#include <string.h>

#include <gst/video/video.h>

namespace {

const char kApiName[] = "RuvoFrameMetaAPI";
const char kMetaName[] = "RuvoFrameMeta";

gboolean frame_meta_init(GstMeta* meta, gpointer, GstBuffer*) {
    auto* m = reinterpret_cast<RuvoFrameMeta*>(meta);
    memset(&m->frame, 0, sizeof m->frame);
    m->dv_profile = -1;
    return TRUE;
}

// The descriptor describes the picture, not the memory: it goes with every copy of the
// buffer and survives any transformation that keeps the picture.
gboolean frame_meta_transform(GstBuffer* dest, GstMeta* meta, GstBuffer*, GQuark, gpointer) {
    const auto* src = reinterpret_cast<const RuvoFrameMeta*>(meta);
    return gst_buffer_add_ruvo_frame_meta(dest, &src->frame, src->dv_profile) != nullptr;
}

}  // namespace

GType ruvo_frame_meta_api_get_type(void) {
    static GType type = 0;
    if (g_once_init_enter(&type)) {
        static const gchar* tags[] = {GST_META_TAG_VIDEO_STR, nullptr};
        GType t = g_type_from_name(kApiName);
        if (t == 0) {
            t = gst_meta_api_type_register(kApiName, tags);
        }
        g_once_init_leave(&type, t);
    }
    return type;
}

const GstMetaInfo* ruvo_frame_meta_get_info(void) {
    static const GstMetaInfo* info = nullptr;
    if (g_once_init_enter(&info)) {
        const GstMetaInfo* i = gst_meta_get_info(kMetaName);
        if (i == nullptr) {
            i = gst_meta_register(RUVO_FRAME_META_API_TYPE, kMetaName, sizeof(RuvoFrameMeta), frame_meta_init,
                                  nullptr, frame_meta_transform);
        }
        g_once_init_leave(&info, i);
    }
    return info;
}

RuvoFrameMeta* gst_buffer_add_ruvo_frame_meta(GstBuffer* buffer, const struct v4l2_drm* frame,
                                              gint32 dv_profile) {
    g_return_val_if_fail(GST_IS_BUFFER(buffer), nullptr);
    g_return_val_if_fail(frame != nullptr, nullptr);
    auto* m = reinterpret_cast<RuvoFrameMeta*>(gst_buffer_add_meta(buffer, RUVO_FRAME_META_INFO, nullptr));
    if (m != nullptr) {
        memcpy(&m->frame, frame, sizeof m->frame);
        m->dv_profile = dv_profile;
    }
    return m;
}
