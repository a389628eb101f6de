// How ruvovideosink describes ordinary video/x-raw frames to the main video plane: a
// decoder frame descriptor built from the caps, and the panel history that tells which
// pushed frame is on the panel.
#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>
#include <stdint.h>

#include "ruvo/driver/v4l2_drm.h"

namespace ruvo_gst {

// Display aspect of the content, reduced (0:0 when unknown).
struct ContentAspect {
    uint32_t num = 0;
    uint32_t den = 0;
};

ContentAspect content_aspect(const GstVideoInfo& info);

// The descriptor's aspect value for a display aspect: 1:1, 4:3, 16:9 and 2.21:1 have their
// own values, anything else is 0 (the coded size is then the display aspect).
uint32_t aspect_code(ContentAspect dar);

// The descriptor's frame-rate value for a GStreamer frame rate (V4L2_DRM_FRAMERATE_ETC
// for a variable or unlisted rate).
uint32_t framerate_code(int fps_n, int fps_d);

// The descriptor of a software-decoded frame described by `info`, display index 0. The
// pixels stay in the GstBuffer; the descriptor carries no address.
void describe_raw_frame(const GstVideoInfo& info, v4l2_drm* desc);

// Timestamp for display: 90 kHz units (the broadcast convention) of a stream time.
inline long long pts_90khz(GstClockTime t) {
    return static_cast<long long>(gst_util_uint64_scale(t, 90000, GST_SECOND));
}

// Stream times of the last frames handed to the plane, newest last. With the decoder's
// answer of how many pushed frames it still holds (announced, not yet latched), the frame
// on the panel is the newest one not held.
class PanelHistory {
  public:
    void reset() { count_ = 0; }
    void push(GstClockTime stream_time) {
        times_[count_ % kSize] = stream_time;
        ++count_;
    }
    uint64_t pushed() const { return count_; }
    // Stream time of the latched frame when `held` frames are still waiting, or
    // GST_CLOCK_TIME_NONE when none of the frames pushed since the last reset is latched.
    GstClockTime latched(uint32_t held) const {
        if (held >= count_ || held >= kSize) {
            return GST_CLOCK_TIME_NONE;
        }
        return times_[(count_ - 1 - held) % kSize];
    }

  private:
    static constexpr uint64_t kSize = 32;
    GstClockTime times_[kSize] = {};
    uint64_t count_ = 0;
};

}  // namespace ruvo_gst
