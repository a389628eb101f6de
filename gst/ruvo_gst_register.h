// Element registration, one function per element of the plugin.
#pragma once

#include <gst/gst.h>

gboolean ruvo_video_sink_register(GstPlugin* plugin);
gboolean ruvo_audio_sink_register(GstPlugin* plugin);
