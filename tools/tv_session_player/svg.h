// The session picture: the panel at every moment the video plane changed, the plane and
// source state along the time axis, and the audio delay curve beneath.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace tvsp {

// State of the video plane after one library call that programmed, muted, unmuted or
// re-sourced it. The rectangle is the last one the driver accepted in a SETPLANE request.
struct PlaneSnapshot {
    int64_t t_us = 0;
    std::string call;  // library function that caused it
    bool has_rect = false;
    uint64_t seq = 0;  // record number of that SETPLANE request
    int32_t x = 0, y = 0;
    uint32_t w = 0, h = 0;
    bool muted = true;  // the video stays muted until the first unmute
    int port = -1;      // input port of the last SET_DP_SOURCE, -1 before any
};

struct DelaySample {
    int64_t t_us = 0;
    uint32_t frames_delay = 0;
};

struct SessionPicture {
    std::string title;
    int panel_w = 1920;
    int panel_h = 1080;
    int64_t end_us = 0;
    std::vector<PlaneSnapshot> snapshots;
    std::vector<DelaySample> delays;
};

// Geometry shared by the writer and whoever checks its output.
struct SvgLayout {
    static constexpr double kThumbWidth = 192.0;
    static constexpr int kColumns = 6;
    static constexpr double kMargin = 20.0;
    static constexpr double kGap = 16.0;
    static constexpr double kLabel = 30.0;
};

std::string render_svg(const SessionPicture& pic);

}  // namespace tvsp
