// The timeline of the emulated TV: what the main video plane showed at every vsync and
// what the audio decoder played in every decoder period, in the platform's clock.
//
// Each entry is one JSON object on a line of its own (the file named by RUVO_EMUTV_LOG,
// or Platform::open_timeline_log). Fields of a vsync entry:
//   {"type":"vsync","pid":P,"t_ns":T,"vsync":K,"frame":F,"new":B,"dropped":D,
//    "pts":S,"pts_set":[..],"plane":{"x":X,"y":Y,"w":W,"h":H},"muted":M,"source":"mm"}
//   t_ns     the vsync's time on the platform clock (CLOCK_MONOTONIC in real time,
//            the program's virtual time otherwise), exact multiples of the panel period
//            from the clock's origin
//   vsync    the vsync's number from the origin (1 is the first)
//   frame    display index of the frame on the plane (the last source request's frame
//            latched at or before this vsync); -1 before any
//   new      true when this vsync latched a frame announced since the previous one
//   dropped  frames announced since the previous vsync and never shown (superseded)
//   pts      the last timestamp set for display (SetPTS), null before any
//   pts_set  timestamps set since the previous vsync: they land on this one
//   plane    the main plane's rectangle from the last SETPLANE, null before any
//   muted    the main plane's mute (SET_ONOFF mute function); true until unmuted
//   source   input port of the last source request ("mm", "dtv", ...), null before any
// Fields of an audio entry (one per decoder period while the decoder is started):
//   {"type":"audio","pid":P,"t_ns":T,"frames":N,"played":n,"media_us":U,"muted":M,
//    "rate":R,"queued":Q,"avail":A,"undecodable":X}
//   t_ns        end of the period
//   frames      PCM frames played since START (TSTAMP pcm_io_frames)
//   played      PCM frames played in this period
//   media_us    media time of the parsed stream reached (microseconds since START)
//   muted       "main out mute" was set (the decoder played silence, its clock went on)
//   rate        the "audio dec0 playback rate" in percent
//   queued      bytes written and not yet taken by the decoder
//   avail       the AVAIL answer at the end of the period
//   undecodable bytes found undecodable since START
// Fields of an event entry (written when a request changes what is seen or heard, or fails):
//   {"type":"event","pid":P,"t_ns":T,"what":W,"detail":D}
//   what    "mute" (the main plane; detail "on"/"off"), "source" (detail the new input
//           port), "resolution" (detail "WxH" of the frames announced), "volume" (a gain
//           control; detail "<control>=<value>"), "speed" (the playback rate control;
//           detail the percent), "audio-mute" ("main out mute"; "on"/"off"),
//           "failed" (detail "<request> <errno text>"; an open of an absent node is a
//           probe, not a failure)
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace emutv {

struct TimelineEntry {
    enum class Type { Vsync, Audio, Event };
    Type type = Type::Vsync;
    int64_t t_ns = 0;
    // Vsync
    int64_t vsync = 0;
    int64_t frame = -1;
    bool fresh = false;  // "new"
    int64_t dropped = 0;
    bool has_pts = false;
    int64_t pts = 0;
    std::vector<int64_t> pts_set;
    bool has_plane = false;
    int32_t x = 0, y = 0;
    uint32_t w = 0, h = 0;
    bool muted = true;
    int source = -1;  // input port, -1 before any
    // Audio
    uint64_t frames = 0;
    uint64_t played = 0;
    int64_t media_us = 0;
    bool audio_muted = false;
    long rate = 100;
    uint64_t queued = 0;
    uint64_t avail = 0;
    uint64_t undecodable = 0;
    // Event
    std::string what;
    std::string detail;

    // The entry's JSON line (no newline); `pid` is the process id written into it.
    std::string json(int pid) const;
};

// Reads one JSON line written by TimelineEntry::json; false when it is not one.
bool parse_timeline_line(const std::string& line, TimelineEntry* out);

// Name of an input port as the log writes it ("mm", "dtv", ...).
const char* input_port_name(int port);

}  // namespace emutv
