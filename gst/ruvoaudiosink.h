// ruvoaudiosink: parsed AAC, AC-3 and E-AC-3 to the TV's audio decoder through the
// compressed-offload output of ruvo_avsink_interface; the element provides the pipeline
// clock from the decoder's playback reports.
#pragma once

#include <gst/gst.h>

G_BEGIN_DECLS

#define RUVO_TYPE_AUDIO_SINK (ruvo_audio_sink_get_type())
GType ruvo_audio_sink_get_type(void);

// The device opened when the "device" property is not set.
#define RUVO_AUDIO_SINK_DEFAULT_DEVICE "/dev/snd/comprC0D0"
// Failed writes or stream starts in a row that end the stream with an error (each one
// before that is a warning on the bus).
#define RUVO_AUDIO_SINK_ERRORS_IN_A_ROW 5
// The shortest time between two playback reports the element asks for: at most 50 a
// second, however full the decoder's buffer is.
#define RUVO_AUDIO_SINK_POLL_INTERVAL_US 20000

G_END_DECLS
