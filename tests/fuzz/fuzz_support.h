// Shared pieces of the fuzz harnesses.
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "emutv/emutv.h"
#include "hmx_standin.h"
#include "ruvo/quarvel_video_output.h"

namespace ruvo_fuzz {

// Keeps the library's lines off the terminal and the emulator's record from growing.
inline void quiet_platform() {
    static bool done = false;
    if (!done) {
        done = true;
        emutv::platform().reset();
        emutv::platform().set_recording(false);
        if (freopen("/dev/null", "w", stdout) == nullptr)
            perror("freopen");
    }
    // The picture-quality stand-in logs every transaction for tests to read.
    hmx_standin_clear();
}

// A descriptor from the fuzzer's bytes (zero-filled when short).
inline v4l2_drm frame_from(const uint8_t* data, size_t size) {
    v4l2_drm d;
    memset(&d, 0, sizeof(d));
    memcpy(&d, data, size < sizeof(d) ? size : sizeof(d));
    return d;
}

// The one input class that ends the process by design: a 0x0 picture whose aspect makes
// the sample-aspect reduction divide zero by zero (a known aspect, or an unknown one with a
// non-zero third-plane line size). Any other descriptor must go through clean.
inline bool divides_by_zero(const v4l2_drm& d) {
    const auto& dec = d.u.dec_info;
    if (dec.hres != 0 || dec.vres != 0)
        return false;
    const uint32_t aspect = static_cast<uint32_t>(dec.aspectratio);
    if (aspect >= 1 && aspect <= 4)
        return true;
    return dec.pFrame[0].v_linesize != 0;
}

}  // namespace ruvo_fuzz
