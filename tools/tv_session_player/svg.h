// The session picture, drawn from the emulated TV's timeline log (emutv/timeline.h) and
// the player's own call results, on one time axis:
//   the video plane's x, y, w and h as lines over time (one point per change seen at a
//   vsync), with bands for shown/muted and the input source;
//   the events (mute, source, resolution, volume, speed, failed requests, unexpected
//   results and no-space answers), each labelled, labels never overlapping;
//   frame pacing against vsync: for every frame latched, the vsyncs since the previous
//   one, and the frames dropped;
//   the audio decoder's buffer (bytes queued) with the no-space answers of the pushes,
//   and the audio delay the library reported (PCM frames), never bridging a gap.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "emutv/timeline.h"

namespace tvsp {

struct DelaySample {
    int64_t t_us = 0;
    uint32_t frames_delay = 0;
    int run = 0;  // audio runs (between an open, a stop and a close) are not joined
};

// A mark the player adds from its own calls.
struct CallMark {
    int64_t t_us = 0;
    std::string what;    // "unexpected", "no-space"
    std::string detail;  // the function
};

struct SessionPicture {
    std::string title;
    int panel_w = 1920;
    int panel_h = 1080;
    int64_t end_us = 0;
    std::vector<emutv::TimelineEntry> timeline;
    std::vector<DelaySample> delays;
    std::vector<CallMark> marks;
};

// Geometry shared by the writer and whoever checks its output.
struct SvgLayout {
    static constexpr double kWidth = 1200.0;
    static constexpr double kMargin = 20.0;
    static constexpr double kAxisLeft = 110.0;  // where the time axis begins
    static constexpr double kChart = 150.0;     // height of a chart
    static constexpr double kBand = 16.0;       // height of a state band
    static constexpr double kLabelRow = 14.0;   // height of one row of event labels
    static constexpr double kCharWidth = 6.0;   // width of a label character (10 px font)
};

// What the picture holds, for the player's "picture:" line.
struct PictureCounts {
    size_t vsyncs = 0;
    size_t events = 0;
    size_t delays = 0;
};

std::string render_svg(const SessionPicture& pic, PictureCounts* counts = nullptr);

}  // namespace tvsp
