// A frame of the TV chip's video decoder inside a GstBuffer: the decoder's frame
// descriptor and the stream's Dolby Vision profile.
//
// The platform's decoder element attaches this meta to every buffer it pushes and
// negotiates caps with the RUVO_CAPS_FEATURE_META_FRAME feature, for example
//   video/x-raw(meta:RuvoFrame), format=NV12, width=1920, height=1080
// ruvovideosink then hands the descriptor to the main video plane as it is; the buffer's
// memory is not read.
//
// The functions below are in the static library libruvo_gst_meta.a (installed beside the
// library, position-independent code), which a decoder plugin links into its module:
//   c++ ... $(pkg-config --cflags --libs gstreamer-1.0) -I$PREFIX/include $PREFIX/LIBDIR/libruvo_gst_meta.a
// The API type and the meta are registered by name ("RuvoFrameMetaAPI", "RuvoFrameMeta"),
// so the decoder plugin's copy and the sink plugin's share them in one process.
#pragma once

#include <gst/gst.h>

#include "ruvo/driver/v4l2_drm.h"

G_BEGIN_DECLS

#define RUVO_CAPS_FEATURE_META_FRAME "meta:RuvoFrame"

typedef struct _RuvoFrameMeta {
    GstMeta meta;
    struct v4l2_drm frame;  // the decoder's descriptor, 576 bytes, copied when attached
    gint32 dv_profile;      // Dolby Vision profile of the stream, negative for none
} RuvoFrameMeta;

GType ruvo_frame_meta_api_get_type(void);
const GstMetaInfo* ruvo_frame_meta_get_info(void);

#define RUVO_FRAME_META_API_TYPE (ruvo_frame_meta_api_get_type())
#define RUVO_FRAME_META_INFO (ruvo_frame_meta_get_info())

// Attaches a copy of `frame` with `dv_profile` to `buffer` (which must be writable).
RuvoFrameMeta* gst_buffer_add_ruvo_frame_meta(GstBuffer* buffer, const struct v4l2_drm* frame,
                                              gint32 dv_profile);

// The frame meta of `buffer`, or NULL.
#define gst_buffer_get_ruvo_frame_meta(b) ((RuvoFrameMeta*)gst_buffer_get_meta((b), RUVO_FRAME_META_API_TYPE))

G_END_DECLS
