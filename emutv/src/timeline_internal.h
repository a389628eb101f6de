// The platform clock, the vsync grid, what the main plane latches and the timeline log.
// Everything here runs under the platform lock.
#pragma once

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/timeline.h"

namespace emutv {
namespace detail {

struct Timeline {
    ClockMode mode = ClockMode::Virtual;
    int64_t virtual_ns = 0;

    // Vsync k is at origin_ns + (k - origin_k) panel periods.
    int32_t hz = 0;  // mHz the grid was laid for
    int64_t origin_ns = 0;
    int64_t origin_k = 0;
    int64_t next_k = 1;
    int64_t last_vsync_ns = 0;  // time of the last vsync produced (the origin before any)
    int64_t synced_ns = 0;      // the clock's time of the last catch-up

    // The main plane, from the requests that reached the drivers.
    bool has_plane = false;
    int32_t x = 0, y = 0;
    uint32_t w = 0, h = 0;
    bool muted = true;
    int source = -1;
    bool has_announced = false;
    int64_t announced = -1;  // display index of the last source request with a picture
    int64_t pending = 0;     // announced since the last vsync, not yet latched
    int64_t latched = -1;
    bool has_pts = false;
    int64_t pts = 0;
    std::vector<int64_t> pts_since;
    uint32_t frame_w = 0, frame_h = 0;  // size of the frames announced

    // Mixer state the audio decoder follows.
    size_t mixer_writes_seen = 0;
    long rate_percent = 100;
    bool audio_muted = false;
    bool audio_stream_fresh = true;  // no data written since the decoder was set up or stopped

    std::function<void(const TimelineEntry&)> listener;
    int log_fd = -1;
    std::string log_path;
};

Timeline& timeline();

// The platform clock now (nanoseconds).
int64_t clock_now_ns();

// Brings vsyncs and decoder periods up to the clock's now. Called on every request
// before the driver acts.
void timeline_sync();

// What a request that reached a driver changed on the plane.
void timeline_observe(const Event& ev);

// Data the modelled audio decoder took (the bytes a write accepted, which the decoder
// parsed): the first of each stream, after the
// decoder's open, setup or stop, is logged as an "audio-stream" event with the fingerprint
// of its tail (emutv/fingerprint.h).
void timeline_audio_data(const void* data, size_t size);

// Back to the power-on state: the virtual clock at zero, the vsync grid starting now
// (clock mode and log file stay).
void timeline_reset();

// Opens the log; `truncate` false appends (a child process writing into the log its
// parent started). Sets *error on failure.
bool open_log(const std::string& path, bool truncate, std::string* error);

// Real-time answers of the video platform.
void vsync_offset_now(int32_t* sec, int32_t* nsec);
int32_t frames_not_latched();

}  // namespace detail
}  // namespace emutv
