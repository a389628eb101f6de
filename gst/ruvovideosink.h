// ruvovideosink: the TV's main video plane as a GStreamer video sink.
#pragma once

#include <gst/gst.h>
#include <gst/video/gstvideosink.h>

G_BEGIN_DECLS

#define RUVO_TYPE_VIDEO_SINK (ruvo_video_sink_get_type())
G_DECLARE_FINAL_TYPE(RuvoVideoSink, ruvo_video_sink, RUVO, VIDEO_SINK, GstVideoSink)

G_END_DECLS

// Failed pushes in a row that the element reports as warnings before it stops the
// stream with an error.
constexpr unsigned kRuvoVideoSinkMaxFailedPushes = 10;

// Vsync periods the element waits at the end of the stream for the decoder to release
// its last frame before it posts EOS anyway (with a warning).
constexpr unsigned kRuvoVideoSinkMaxLatchWaits = 30;
