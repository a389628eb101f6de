// The "ruvo" GStreamer plugin: the TV's main video plane and compressed-audio decoder as
// sink elements.
#include <gst/gst.h>

#include "ruvo_gst_register.h"

static gboolean plugin_init(GstPlugin* plugin) {
    return ruvo_video_sink_register(plugin) && ruvo_audio_sink_register(plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, ruvo,
                  "TV main video plane and compressed-audio decoder sinks", plugin_init, VERSION, "LGPL",
                  "ruvo_avsink_interface", "https://example.invalid/ruvo")
