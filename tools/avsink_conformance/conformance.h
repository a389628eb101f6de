// avsink-conformance: plays generated media through playbin with the TV's sinks on the
// emulated TV, in real time, and measures what a viewer judges: lip sync, where seeks
// land, the first frame, dropped and repeated frames, CPU, memory and descriptors.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace conformance {

// ---- Scenario files -------------------------------------------------------------------------

enum class Op { Preroll, Play, Wait, Pause, Seek, Seeks, Rate, Cycle, RectStorm, Handback, Eos, Goal };

struct Step {
    Op op = Op::Wait;
    int line = 0;
    double value = 0;  // milliseconds, a rate or a count, by op
    int count = 0;
    uint32_t seed = 1;
    double hz = 50;          // rect-storm: moves a second
    double every_ms = 1500;  // seeks: time between seeks
    double hold_ms = 2000;   // rate: time played at the rate
    std::string name;        // goal name
};

struct Scenario {
    std::string path;
    std::string name;   // file name without directory and extension
    std::string media;  // generated clip name or a file path
    std::vector<Step> steps;
    std::map<std::string, double> goals;  // goal name -> limit (overrides the defaults)
    bool compare_fake = false;            // also played with the fake sinks, for the CPU ratio
};

// Parses a scenario file; on error returns false with "FILE:LINE: message" in *error.
bool parse_scenario(const std::string& path, Scenario* out, std::string* error);
bool parse_scenario_text(const std::string& path, const std::string& text, Scenario* out, std::string* error);
const char* scenario_grammar();

// ---- Media made at run time -----------------------------------------------------------------

struct Clip {
    std::string name;
    std::string description;
    std::string pipeline;  // gst-launch description writing to @OUT@
    std::string file;      // file name inside the media directory
    // Or, with no pipeline: the files of these clips, one after the other.
    std::vector<std::string> parts = {};
};
const std::vector<Clip>& clips();
// Makes (once) the clip `name` in `dir`; returns its path, or "" with *error set.
std::string make_clip(const std::string& dir, const std::string& name, std::string* error);

// ---- A run ----------------------------------------------------------------------------------

struct PositionSample {
    int64_t mono_ns = 0;             // CLOCK_MONOTONIC when the answer came
    int64_t position_ns = -1;        // the pipeline's answer (the larger of its sinks')
    int64_t video_position_ns = -1;  // the video sink's own answer
    int64_t audio_position_ns = -1;  // the audio sink's own answer
};

struct SeekSample {
    int64_t mono_ns = 0;  // when the seek returned
    int64_t target_ns = 0;
    double rate = 1.0;
};

struct ResourceSample {
    std::string when;
    long rss_kib = 0;
    int fds = 0;
};

struct RunOptions {
    std::string video_sink = "ruvovideosink";
    std::string audio_sink = "ruvoaudiosink";
    std::string media_dir = "out/media";
    bool quiet = false;
    bool playbin3 = false;  // play through playbin3 instead of playbin
};

struct AudioCandidate {
    int64_t mono_ns = 0;  // CLOCK_MONOTONIC when it reached the sink's pad
    int64_t pts_ns = 0;
    std::string tail;  // emutv::audio_tail_fingerprint of its bytes
};

struct RunResult {
    bool ok = true;
    std::vector<std::string> errors;    // bus errors, timeouts
    std::vector<std::string> warnings;  // bus warnings
    std::vector<PositionSample> positions;
    std::vector<SeekSample> seeks;
    std::vector<ResourceSample> resources;
    int64_t play_mono_ns = -1;            // PLAYING asked from prerolled PAUSED
    std::vector<int64_t> resume_mono_ns;  // every return to PLAYING after a pause or seek
    // While a seek or a storm of state changes is under way, [from, to): the panel and
    // POSITION are in between two streams and not judged.
    std::vector<std::pair<int64_t, int64_t>> transitions;
    uint64_t frames_rendered = 0;  // the video sink's own count (base sink stats)
    uint64_t frames_dropped = 0;
    double cpu_seconds = 0;  // process CPU over the run
    double wall_seconds = 0;
    // (CLOCK_MONOTONIC, PTS) of the first audio buffer after the start and after each flush:
    // where the decoder's own media time begins.
    std::vector<std::pair<int64_t, int64_t>> audio_bases;
    // The audio buffers that may start a decoder stream: the first ones at or after the segment
    // start after the start, each flush and each stream start, with the fingerprint of their
    // tail (emutv/fingerprint.h). The emulated decoder names the block that started each of its
    // streams by that fingerprint ("audio-stream"), so the sink's choice of first block (one
    // left out after a codec switch) is seen as it was.
    std::vector<AudioCandidate> audio_candidates;
    // (CLOCK_MONOTONIC, PTS) of the first video buffer after each flush: where a seek landed.
    std::vector<std::pair<int64_t, int64_t>> video_landings;
    bool clock_is_audio_sink = false;  // the pipeline ran on the audio sink's clock
    std::string clock_name;
};

RunResult run_scenario(const Scenario& s, const RunOptions& o);
bool write_samples(const std::string& path, const RunResult& r);
bool read_samples(const std::string& path, RunResult* out);

// ---- The emulated TV's timeline --------------------------------------------------------------

struct VsyncEntry {
    int64_t t_ns = 0;     // CLOCK_MONOTONIC of the vsync
    long index = -1;      // display index of the frame on the main plane
    int64_t pts_ns = -1;  // the timestamp last set for display, as nanoseconds
    bool muted = false;
    bool latched = false;             // a new frame was latched at this vsync
    std::vector<int64_t> pts_set_ns;  // timestamps set for display that land on this vsync
};

struct AudioEntry {
    int64_t t_ns = 0;      // CLOCK_MONOTONIC of the decoder period
    int64_t media_ns = 0;  // media time reached in the parsed stream since the start
    int64_t start_ns = 0;  // CLOCK_MONOTONIC of that start
    int rate_percent = 100;
    bool playing = true;
};

// The first block of a decoder stream, as the emulated decoder logged it.
struct AudioStreamStart {
    int64_t t_ns = 0;  // CLOCK_MONOTONIC of the write
    std::string tail;  // its fingerprint
};

struct Timeline {
    std::vector<VsyncEntry> vsyncs;
    std::vector<AudioEntry> audio;
    std::vector<AudioStreamStart> audio_streams;
    int64_t vsync_period_ns = 20000000;
};

bool read_timeline(const std::string& path, Timeline* out, std::string* error);

// ---- Figures --------------------------------------------------------------------------------

struct Figures {
    std::string scenario;
    size_t vsyncs = 0;
    size_t latches = 0;
    double av_p50_ms = 0, av_p99_ms = 0, av_max_ms = 0;  // |max|
    size_t av_samples = 0;
    double position_ahead_max_ms = 0;  // the largest lead of POSITION over the panel (0: never ahead)
    double position_error_p99_ms = 0;
    double seek_landing_max_ms = 0;  // |first frame after a seek - target|
    size_t seeks_unlanded = 0;       // seeks whose first frame the panel never showed
    double first_frame_vsyncs = -1;  // PLAYING from prerolled PAUSED to the first latch
    uint64_t dropped = 0, repeated = 0;
    double cpu_ratio = 0;  // sinks / fake sinks, CPU per frame
    long rss_growth_kib = 0;
    int fd_growth = 0;
    size_t bus_errors = 0;
    std::vector<std::pair<double, double>> av_series;  // (s, ms)
    std::vector<std::pair<double, double>> pacing;     // (s, frame interval in vsyncs)
    std::vector<std::string> missed;                   // goals missed, one line each
};

Figures compute_figures(const Scenario& s, const RunResult& r, const Timeline& tl, const RunResult* fake);
std::map<std::string, double> default_goals();
void check_goals(const Scenario& s, Figures* f);

// Markdown table and SVG plots under `dir`; returns false when a file cannot be written.
bool write_report(const std::string& dir, const std::vector<Figures>& figures, std::string* error);

}  // namespace conformance
