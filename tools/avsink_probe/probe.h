// avsink-probe: a read-only look at what the AV sink library finds on this TV.
#pragma once

#include <string>

namespace avsink_probe {

struct ProbeOptions {
    std::string card = "default";  // ALSA control device whose mixer controls are listed
    bool mixer = true;
};

// Opens a video output, prints what the library found (connector, CRTC, panel size,
// plane ids by type, placeholder framebuffer), the vsync rate and offset, the decoder
// frame usage and the mixer controls, then closes the output. Everything goes to
// standard output, interleaved with the library's own lines. Returns the exit status:
// 0 when the video output opened, 1 when it did not.
int run_probe(const ProbeOptions& options);

const char* probe_usage();

}  // namespace avsink_probe
