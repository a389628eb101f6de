/**
 * \file ruvo_frame_meta.h
 * \brief A frame of the TV chip's video decoder inside a GstBuffer: the decoder's frame
 * descriptor and the stream's Dolby Vision profile.
 *
 * The platform's decoder element attaches this meta to every buffer it pushes and
 * negotiates caps with the #RUVO_CAPS_FEATURE_META_FRAME feature, for example
 * \code{.unparsed}
 *   video/x-raw(meta:RuvoFrame), format=NV12, width=1920, height=1080
 * \endcode
 * ruvovideosink then hands the descriptor to the main video plane as it is; the buffer's
 * memory is not read.
 *
 * The functions below are in the static library libruvo_gst_meta.a (installed beside the
 * library, position-independent code), which a decoder plugin links into its module:
 * \code{.unparsed}
 *   c++ ... $(pkg-config --cflags --libs gstreamer-1.0) -I$PREFIX/include $PREFIX/LIBDIR/libruvo_gst_meta.a
 * \endcode
 * The API type and the meta are registered by name ("RuvoFrameMetaAPI", "RuvoFrameMeta"),
 * so the decoder plugin's copy and the sink plugin's share them in one process.
 */
#pragma once

#include <gst/gst.h>

#include "ruvo/driver/v4l2_drm.h"

G_BEGIN_DECLS

/// Caps feature of decoder frames that carry a RuvoFrameMeta ("meta:RuvoFrame"). With it
/// in the caps, ruvovideosink takes every frame's descriptor from the meta; a buffer
/// without the meta is a negotiation error.
#define RUVO_CAPS_FEATURE_META_FRAME "meta:RuvoFrame"

/// The decoder frame meta of a buffer (gst_buffer_add_ruvo_frame_meta(),
/// gst_buffer_get_ruvo_frame_meta()). It describes the picture, not the memory: a copy of
/// the buffer, or any transformation of it, carries a copy of the meta.
typedef struct _RuvoFrameMeta {
    GstMeta meta;  ///< the GStreamer meta header
    /// The decoder's descriptor, 576 bytes, copied when attached (all zero in a meta made
    /// without gst_buffer_add_ruvo_frame_meta()). ruvovideosink refuses a frame whose
    /// `u.dec_info.hres` or `vres` is 0 or over 8192 pixels (a negotiation error) and
    /// otherwise hands a copy of the descriptor to the video output with the frame.
    struct v4l2_drm frame;
    /// Dolby Vision profile of the stream, negative for none (-1 in a meta made without
    /// gst_buffer_add_ruvo_frame_meta()). ruvovideosink passes it with the frame
    /// (quarvel_video_output_frame_s::dv_profile); the library sets the profile when it changes.
    gint32 dv_profile;
} RuvoFrameMeta;

/**
 * The API type of the meta, "RuvoFrameMetaAPI" (tagged as video), registered at the first
 * call, or looked up by name when another copy of libruvo_gst_meta.a in the process
 * registered it first. Any thread may call it.
 *
 * \return the API type (#RUVO_FRAME_META_API_TYPE).
 */
GType ruvo_frame_meta_api_get_type(void);
/**
 * The registration of the meta, "RuvoFrameMeta", made at the first call, or looked up by
 * name as ruvo_frame_meta_api_get_type() is. Its init sets an all-zero descriptor and a
 * Dolby Vision profile of -1; its transform attaches a copy of the meta to the destination
 * buffer, whatever the transformation; there is nothing to free. Any thread may call it.
 *
 * \return the meta's registration (#RUVO_FRAME_META_INFO), owned by GStreamer.
 */
const GstMetaInfo* ruvo_frame_meta_get_info(void);

/// The API type of the meta: ruvo_frame_meta_api_get_type().
#define RUVO_FRAME_META_API_TYPE (ruvo_frame_meta_api_get_type())
/// The registration of the meta: ruvo_frame_meta_get_info().
#define RUVO_FRAME_META_INFO (ruvo_frame_meta_get_info())

/**
 * Attaches a copy of the decoder's descriptor and the Dolby Vision profile to a buffer.
 *
 * \param buffer the buffer; must be writable.
 * \param frame the descriptor, copied (576 bytes); read during the call only.
 * \param dv_profile Dolby Vision profile of the stream, negative for none.
 * \return the new meta, owned by the buffer; NULL (with a GLib critical message) when
 *         `buffer` is not a buffer or `frame` is NULL, or when the meta cannot be added.
 */
RuvoFrameMeta* gst_buffer_add_ruvo_frame_meta(GstBuffer* buffer, const struct v4l2_drm* frame,
                                              gint32 dv_profile);

/// The frame meta of a buffer.
/// \param b the buffer (a `GstBuffer*`).
/// \return the meta, owned by the buffer, or NULL when the buffer has none.
#define gst_buffer_get_ruvo_frame_meta(b) ((RuvoFrameMeta*)gst_buffer_get_meta((b), RUVO_FRAME_META_API_TYPE))

G_END_DECLS
