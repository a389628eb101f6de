// The TV session player: scheduler, library calls, emulated platform, trace, summary.
#include "player.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <vector>

#include "emutv/emutv.h"
#include "emutv/models.h"
#include "emutv/timeline.h"
#include "ruvo/quarvel_audio_output.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo_kit/frame_descriptor.h"
#include "ruvo_kit/threads.h"
#include "svg.h"

namespace tvsp {

namespace {

constexpr uint32_t kMuteFunc = 1;  // DRM_SDP_FUNC_MUTE_ONOFF

// The decoded stream as the scenario describes it; what frame lines leave behind.
struct FrameFormat {
    uint32_t w = 1920;
    uint32_t h = 1080;
    uint32_t aspect = 3;
    uint32_t framerate = 50000;
    uint32_t port = 1;  // V4L2_DRM_INPUTPORT_TYPE_MM
    int32_t dv = -1;
    uint32_t linesize = 0;
};

void apply_format(const Command& c, FrameFormat* f) {
    if (c.has("size")) {
        f->w = static_cast<uint32_t>(c.arg("size").v[0]);
        f->h = static_cast<uint32_t>(c.arg("size").v[1]);
    }
    f->aspect = static_cast<uint32_t>(c.num("aspect", f->aspect));
    f->framerate = static_cast<uint32_t>(c.num("framerate", f->framerate));
    f->port = static_cast<uint32_t>(c.num("port", f->port));
    f->dv = static_cast<int32_t>(c.num("dv", f->dv));
    f->linesize = static_cast<uint32_t>(c.num("linesize", f->linesize));
}

// The decoder's descriptor of one finished frame of the stream.
v4l2_drm frame_descriptor(const FrameFormat& f, uint32_t index) {
    return ruvo_kit::FrameDescriptor(f.w, f.h)
        .inputport(f.port)
        .aspect(f.aspect)
        .framerate(f.framerate)
        .display_index(index)
        .decoded_yuv420(f.linesize);
}

std::string frame_text(const FrameFormat& f, uint32_t index) {
    char buf[160];
    snprintf(buf, sizeof(buf), "frame %ux%u aspect=%u framerate=%u port=%s dv=%d index=%u", f.w, f.h,
             f.aspect, f.framerate, port_name(f.port), f.dv, index);
    return buf;
}

std::string rect_text(const quarvel_video_output_rect_t& r) {
    char buf[128];
    snprintf(buf, sizeof(buf), "x=%d y=%d w=%u h=%u dar=%u:%u", r.x, r.y, r.w, r.h, r.dar_w, r.dar_h);
    return buf;
}

bool same_rect(const quarvel_video_output_rect_t& a, const quarvel_video_output_rect_t& b) {
    return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h && a.dar_w == b.dar_w && a.dar_h == b.dar_h;
}

// What the open call found: the panel, the connector, the CRTC and the video plane.
std::string output_text(const quarvel_video_output_s& v) {
    char buf[160];
    snprintf(buf, sizeof(buf), "panel=%dx%d connector=%u crtc=%u video plane=%d", v.m_panel_width,
             v.m_panel_height, v.m_con_id, v.m_crtc_id,
             v.m_plane_type < 11 ? v.m_plane_obj_id[v.m_plane_type] : -1);
    return buf;
}

// The preloaded broadcast library as the environment names it.
std::string preload_text() {
    const char* env = getenv("TA_DTV_PRELOAD");
    return std::string("TA_DTV_PRELOAD=") + (env ? "\"" + std::string(env) + "\"" : "unset");
}

// The bytes of one audio block: a pattern that changes from one block of a line to the next.
std::vector<unsigned char> audio_block(size_t n, int64_t step) {
    std::vector<unsigned char> data(n);
    for (size_t i = 0; i < n; ++i)
        data[i] = static_cast<unsigned char>(i * 7u + step);
    return data;
}

// What the driver was last told about the main plane.
struct PlaneState {
    int32_t x = 0, y = 0;
    uint32_t w = 0, h = 0;
    bool muted = true;  // the video stays muted until the first unmute
    int port = -1;      // input port of the last SET_DP_SOURCE, -1 before any
};

struct TrackRun {
    std::vector<const Command*> lines;
    size_t pc = 0;
    int64_t due = 0;
    bool in_line = false;
    int64_t start = 0;
    int64_t every = 0;
    int64_t step = 0;
    int64_t retries = 0;
};

struct StepResult {
    bool retry = false;
    int64_t retry_us = 0;
};

// What a library call needs before it is made.
enum class Needs {
    NoVideo,  // no video output open: the call opens one
    Video,    // the open video output (null for a line with handle=null)
    NoAudio,  // no audio output open: the call opens one
    Audio,    // the open audio output (null for a line with handle=null)
};

// One call of a line, with the handle it is made on.
struct Call {
    const char* fn = nullptr;                 // the library function, as printed
    int64_t step = 0;                         // which of the line's calls, from 0
    int64_t retries = 0;                      // how often this call was tried again
    quarvel_video_output_s* video = nullptr;  // Needs::Video
    quarvel_audio_output_s* audio = nullptr;  // Needs::Audio
};

class Session {
  public:
    Session(const Scenario& sc, const PlayerOptions& opt) : sc_(sc), opt_(opt) {}
    int run();
    void release_left_open();

  private:
    // Scheduling
    void run_line_step(TrackRun& t);
    void next_line(TrackRun& t, int64_t due);
    void run_plain_line(const Command& c, TrackRun& t);
    void set_env(const Command& c);
    void unset_env(const Command& c);
    void run_call_step(const Command& c, TrackRun& t);
    int64_t line_every(const Command& c) const;

    // Library calls: one handler a call, found in a table by the line's command.
    using CallHandler = StepResult (Session::*)(const Command& c, const Call& call);
    struct CallDef {
        Cmd cmd;
        const char* fn;
        Needs needs;
        CallHandler run;
    };
    static const CallDef* call_def(Cmd cmd);
    StepResult execute_call(const Command& c, int64_t step, int64_t retries);
    bool take_handle(const Command& c, Needs needs, Call* call);
    void execute_platform(const Command& c);
    void begin_call(const Command& c, const std::string& what);
    void end_call(const Command& c, const char* fn, int64_t result, int64_t expected,
                  const std::string& detail);
    void skipped(const Command& c, const char* fn, const std::string& why);
    template <typename Output>
    bool open_output(const Command& c, const char* fn, Output* open, const char* none, Output** out);

    // Video calls
    StepResult open_video(const Command& c, const Call& call);
    StepResult close_video(const Command& c, const Call& call);
    StepResult report_panel_size(const Command& c, const Call& call);
    StepResult place_video(const Command& c, const Call& call);
    StepResult hide_video(const Command& c, const Call& call);
    StepResult show_video(const Command& c, const Call& call);
    StepResult start_with_first_frame(const Command& c, const Call& call);
    StepResult push_frame(const Command& c, const Call& call);
    StepResult announce_next_resolution(const Command& c, const Call& call);
    StepResult report_vsync(const Command& c, const Call& call);
    StepResult report_used_frames(const Command& c, const Call& call);
    StepResult set_pts(const Command& c, const Call& call);
    StepResult notify_ta_switch(const Command& c, const Call& call);

    // Video call steps
    using FrameCall = int (*)(quarvel_video_output_s* output, quarvel_video_output_frame_s const* frame);
    void call_set_rect(const Command& c, quarvel_video_output_s* h, const quarvel_video_output_rect_t& r,
                       int64_t expected);
    void call_set_pts(const Command& c, quarvel_video_output_s* h, long long pts, int64_t expected);
    uint32_t frame_index(const Command& c, int64_t step);
    int call_with_frame(const Command& c, const Call& call, FrameCall fn, const FrameFormat& f,
                        uint32_t index);
    int push_null_frame(const Command& c, const Call& call);
    int push_decoded_frame(const Command& c, const Call& call);
    void move_window(const Command& c, const Call& call);

    // Audio calls
    StepResult open_audio(const Command& c, const Call& call);
    StepResult set_up_audio(const Command& c, const Call& call);
    StepResult start_audio(const Command& c, const Call& call);
    StepResult stop_audio(const Command& c, const Call& call);
    StepResult set_sync_mode(const Command& c, const Call& call);
    StepResult push_audio(const Command& c, const Call& call);
    StepResult report_audio_info(const Command& c, const Call& call);
    StepResult set_volume(const Command& c, const Call& call);
    StepResult set_speed(const Command& c, const Call& call);
    StepResult close_audio(const Command& c, const Call& call);

    // Audio call steps
    using AudioCall = int (*)(quarvel_audio_output_s* output);
    using AudioLevelCall = int (*)(quarvel_audio_output_s* output, float value);
    void call_audio(const Command& c, const Call& call, AudioCall fn);
    void call_audio_level(const Command& c, const Call& call, AudioLevelCall fn);
    StepResult retry_after_no_space(const Command& c, const Call& call, int res);
    void count_audio_block(uint32_t size, uint32_t extra);

    // Requests
    void on_event(const emutv::Event& e);
    void no_space();
    void summary();
    void timeline_summary();
    bool write_svg();

    const Scenario& sc_;
    const PlayerOptions& opt_;
    std::atomic<int64_t> now_{0};
    std::mutex mu_;

    quarvel_video_output_s* video_ = nullptr;
    quarvel_audio_output_s* audio_ = nullptr;
    FrameFormat fmt_;
    uint32_t next_index_ = 1;
    quarvel_video_output_rect_t last_rect_{};
    quarvel_video_output_rect_t last_shown_{};
    uint32_t channels_ = 0;

    // What the driver was told (from the record).
    std::map<std::string, size_t> requests_;
    size_t total_requests_ = 0;
    PlaneState plane_;
    size_t setplanes_ = 0, mutes_ = 0, unmutes_ = 0;
    std::vector<std::string> source_changes_;
    std::vector<emutv::TimelineEntry> timeline_;  // the emulated TV's log
    std::vector<CallMark> marks_;                 // unexpected results, no-space answers
    int audio_run_ = 0;

    // Calls
    size_t calls_ = 0;
    size_t mismatches_ = 0;
    size_t frames_pushed_ = 0, frames_ok_ = 0, frames_shown_ = 0, null_frames_ = 0;
    size_t hide_requests_ = 0;
    size_t audio_blocks_ = 0, audio_bytes_ = 0, backpressure_ = 0;
    uint64_t audio_frames_ = 0;
    std::vector<DelaySample> delays_;
    int panel_w_ = 0, panel_h_ = 0;
    std::map<const Command*, std::array<int64_t, 4>> move_start_;  // where a moving window began
};

int64_t Session::line_every(const Command& c) const {
    if (c.has("every"))
        return c.every_us();
    if (c.cmd == Cmd::VideoFrame) {
        uint32_t fr = static_cast<uint32_t>(c.num("framerate", fmt_.framerate));
        return fr ? static_cast<int64_t>(1000000000ULL / fr) : 0;
    }
    if (c.cmd == Cmd::AudioPush && c.has("rate"))
        return static_cast<int64_t>(static_cast<uint64_t>(c.num("size", 4096)) * 1000000ULL /
                                    static_cast<uint64_t>(c.num("rate", 1)));
    return 0;
}

void Session::run_line_step(TrackRun& t) {
    const Command& c = *t.lines[t.pc];
    if (c.is_call())
        run_call_step(c, t);
    else
        run_plain_line(c, t);
}

// The track goes on to its next line, due at `due` or now, whichever is later.
void Session::next_line(TrackRun& t, int64_t due) {
    t.pc++;
    t.in_line = false;
    t.due = std::max(now_.load(), due);
}

// Lines that make no library call: the track's timing, the environment, the platform.
void Session::run_plain_line(const Command& c, TrackRun& t) {
    const int64_t now = now_.load();
    if (c.cmd == Cmd::At) {
        next_line(t, c.num("ms", 0));
        return;
    }
    if (c.cmd == Cmd::Wait) {
        next_line(t, now + c.num("ms", 0));
        return;
    }
    if (c.cmd == Cmd::EnvSet)
        set_env(c);
    else if (c.cmd == Cmd::EnvUnset)
        unset_env(c);
    else if (c.cmd != Cmd::Track)
        execute_platform(c);
    next_line(t, now);
}

void Session::set_env(const Command& c) {
    if (opt_.calls)
        printf("env: t=%s %s=%s\n", format_ms(now_.load()).c_str(), c.arg("name").text.c_str(),
               c.arg("value").text.c_str());
    setenv(c.arg("name").text.c_str(), c.arg("value").text.c_str(), 1);
}

void Session::unset_env(const Command& c) {
    if (opt_.calls)
        printf("env: t=%s unset %s\n", format_ms(now_.load()).c_str(), c.arg("name").text.c_str());
    unsetenv(c.arg("name").text.c_str());
}

// One call of a line of `count` calls, `every` apart from the line's start (or one after
// the other); a call that asks to be retried is made again later as the same step. After
// the last call the track goes on when the line's time is up.
void Session::run_call_step(const Command& c, TrackRun& t) {
    const int64_t now = now_.load();
    if (!t.in_line) {
        t.in_line = true;
        t.start = now;
        t.every = line_every(c);
        t.step = 0;
        t.retries = 0;
    }
    StepResult r = execute_call(c, t.step, t.retries);
    if (r.retry) {
        t.retries++;
        t.due = now_.load() + r.retry_us;
        return;
    }
    t.retries = 0;
    t.step++;
    if (t.step < c.count()) {
        t.due = std::max(now_.load(), t.start + t.step * t.every);
        return;
    }
    next_line(t, t.every > 0 ? t.start + c.count() * t.every : now_.load());
}

void Session::begin_call(const Command& c, const std::string& what) {
    calls_++;
    if (opt_.calls)
        printf("call: t=%s %s %s%s\n", format_ms(now_.load()).c_str(), c.where().c_str(), what.c_str(),
               c.null_handle() ? " with a null handle" : "");
}

void Session::end_call(const Command& c, const char* fn, int64_t result, int64_t expected,
                       const std::string& detail) {
    bool ok = result == expected;
    if (!ok)
        mismatches_++;
    if (opt_.calls || !ok)
        printf("result: t=%s %s -> %" PRId64 "%s%s%s\n", format_ms(now_.load()).c_str(), fn, result,
               detail.empty() ? "" : " ", detail.c_str(),
               ok ? "" : (" (expected " + std::to_string(expected) + ") UNEXPECTED").c_str());
    if (!ok) {
        fflush(stdout);
        fprintf(stderr, "%s: %s returned %" PRId64 ", expected %" PRId64 "\n", c.where().c_str(), fn, result,
                expected);
    }
    if (!ok) {
        std::lock_guard<std::mutex> g(mu_);
        marks_.push_back(CallMark{now_.load(), "unexpected", fn});
    }
}

void Session::skipped(const Command& c, const char* fn, const std::string& why) {
    mismatches_++;
    printf("result: t=%s %s skipped: %s UNEXPECTED\n", format_ms(now_.load()).c_str(), fn, why.c_str());
    fflush(stdout);
    fprintf(stderr, "%s: %s not called: %s\n", c.where().c_str(), fn, why.c_str());
}

// The output a call is made on: the open one, or null for a line with handle=null. False,
// the call reported as skipped, when none is open.
template <typename Output>
bool Session::open_output(const Command& c, const char* fn, Output* open, const char* none, Output** out) {
    if (c.null_handle()) {
        *out = nullptr;
        return true;
    }
    if (!open) {
        skipped(c, fn, none);
        return false;
    }
    *out = open;
    return true;
}

void Session::call_set_rect(const Command& c, quarvel_video_output_s* h, const quarvel_video_output_rect_t& r,
                            int64_t expected) {
    const char* fn = "quarvel_video_output_set_rect";
    begin_call(c, std::string(fn) + "(" + rect_text(r) + ")");
    int res = quarvel_video_output_set_rect(h, &r);
    last_rect_ = r;
    if (r.w && r.h)
        last_shown_ = r;
    else
        hide_requests_++;
    end_call(c, fn, res, expected, "");
}

// ---- Library calls: one handler a call, looked up by the line's command ----------------------

const Session::CallDef* Session::call_def(Cmd cmd) {
    // In the order of Cmd, from its first call to its last.
    static constexpr CallDef kCalls[] = {
        {Cmd::VideoOpen, "quarvel_video_output_open", Needs::NoVideo, &Session::open_video},
        {Cmd::VideoClose, "quarvel_video_output_close", Needs::Video, &Session::close_video},
        {Cmd::VideoPanel, "quarvel_video_output_get_panel_size", Needs::Video, &Session::report_panel_size},
        {Cmd::VideoRect, "quarvel_video_output_set_rect", Needs::Video, &Session::place_video},
        {Cmd::VideoHide, "quarvel_video_output_set_rect", Needs::Video, &Session::hide_video},
        {Cmd::VideoShow, "quarvel_video_output_set_rect", Needs::Video, &Session::show_video},
        {Cmd::VideoFirstFrame, "quarvel_video_output_init_with_first_frame", Needs::Video,
         &Session::start_with_first_frame},
        {Cmd::VideoFrame, "quarvel_video_output_push_frame_to_display", Needs::Video, &Session::push_frame},
        {Cmd::VideoNextRes, "quarvel_video_output_set_next_res", Needs::Video,
         &Session::announce_next_resolution},
        {Cmd::VideoVsync, "quarvel_video_output_get_vsync_info", Needs::Video, &Session::report_vsync},
        {Cmd::VideoUsed, "quarvel_video_output_get_used_frames", Needs::Video, &Session::report_used_frames},
        {Cmd::VideoPts, "quarvel_video_output_set_pts", Needs::Video, &Session::set_pts},
        {Cmd::VideoNotifyTa, "quarvel_video_output_notify_ta_switch", Needs::Video,
         &Session::notify_ta_switch},
        {Cmd::AudioOpen, "quarvel_audio_output_open", Needs::NoAudio, &Session::open_audio},
        {Cmd::AudioSetup, "quarvel_audio_output_setup", Needs::Audio, &Session::set_up_audio},
        {Cmd::AudioStart, "quarvel_audio_output_start", Needs::Audio, &Session::start_audio},
        {Cmd::AudioStop, "quarvel_audio_output_stop", Needs::Audio, &Session::stop_audio},
        {Cmd::AudioSyncMode, "quarvel_audio_output_set_sync_mode", Needs::Audio, &Session::set_sync_mode},
        {Cmd::AudioPush, "quarvel_audio_output_push_data", Needs::Audio, &Session::push_audio},
        {Cmd::AudioInfo, "quarvel_audio_output_get_info", Needs::Audio, &Session::report_audio_info},
        {Cmd::AudioVolume, "quarvel_audio_output_volume_control", Needs::Audio, &Session::set_volume},
        {Cmd::AudioSpeed, "quarvel_audio_output_speed_control", Needs::Audio, &Session::set_speed},
        {Cmd::AudioClose, "quarvel_audio_output_close", Needs::Audio, &Session::close_audio},
    };
    constexpr size_t kFirst = static_cast<size_t>(Cmd::VideoOpen);
    constexpr size_t kCount = sizeof(kCalls) / sizeof(kCalls[0]);
    static_assert(kFirst + kCount == static_cast<size_t>(Cmd::AudioClose) + 1, "a call without a handler");
    static_assert(
        [] {
            for (size_t i = 0; i < kCount; ++i)
                if (static_cast<size_t>(kCalls[i].cmd) != kFirst + i)
                    return false;
            return true;
        }(),
        "the handlers are out of the order of Cmd");
    const size_t at = static_cast<size_t>(cmd);
    return at >= kFirst && at < kFirst + kCount ? &kCalls[at - kFirst] : nullptr;
}

StepResult Session::execute_call(const Command& c, int64_t step, int64_t retries) {
    const CallDef* def = call_def(c.cmd);
    if (!def)
        return {};
    Call call{def->fn, step, retries, nullptr, nullptr};
    if (!take_handle(c, def->needs, &call))
        return {};
    return (this->*def->run)(c, call);
}

// The handle the call is made on. False, the call reported as skipped, when the output it
// needs is not open, or the one it opens already is.
bool Session::take_handle(const Command& c, Needs needs, Call* call) {
    if (needs == Needs::NoVideo && video_) {
        skipped(c, call->fn, "a video output is already open");
        return false;
    }
    if (needs == Needs::NoAudio && audio_) {
        skipped(c, call->fn, "an audio output is already open");
        return false;
    }
    if (needs == Needs::Video)
        return open_output(c, call->fn, video_, "no video output is open", &call->video);
    if (needs == Needs::Audio)
        return open_output(c, call->fn, audio_, "no audio output is open", &call->audio);
    return true;
}

// ---- Video calls ------------------------------------------------------------------------------

StepResult Session::open_video(const Command& c, const Call& call) {
    const bool ta = c.num("ta", 0) != 0;
    begin_call(c, std::string(call.fn) + (ta ? "(bTaCase=true)" : "(bTaCase=false)"));
    video_ = quarvel_video_output_open(ta);
    if (video_) {
        panel_w_ = video_->m_panel_width;
        panel_h_ = video_->m_panel_height;
    }
    end_call(c, call.fn, video_ ? 0 : -1, c.expect(), video_ ? output_text(*video_) : "(null)");
    return {};
}

StepResult Session::close_video(const Command& c, const Call& call) {
    begin_call(c, std::string(call.fn) + (call.video ? "()" : "(null)"));
    quarvel_video_output_close(call.video);
    if (call.video)
        video_ = nullptr;
    end_call(c, call.fn, 0, c.expect(), "");
    return {};
}

StepResult Session::report_panel_size(const Command& c, const Call& call) {
    begin_call(c, std::string(call.fn) + "()");
    int w = -1, h = -1;
    quarvel_video_output_get_panel_size(call.video, &w, &h);
    end_call(c, call.fn, 0, c.expect(), "w=" + std::to_string(w) + " h=" + std::to_string(h));
    return {};
}

StepResult Session::place_video(const Command& c, const Call& call) {
    quarvel_video_output_rect_t r{};
    r.x = static_cast<int32_t>(c.num("x", 0));
    r.y = static_cast<int32_t>(c.num("y", 0));
    r.w = static_cast<uint32_t>(c.num("w", 0));
    r.h = static_cast<uint32_t>(c.num("h", 0));
    if (c.has("dar")) {
        r.dar_w = static_cast<uint32_t>(c.arg("dar").v[0]);
        r.dar_h = static_cast<uint32_t>(c.arg("dar").v[1]);
    }
    call_set_rect(c, call.video, r, c.expect());
    return {};
}

// Hiding is a rectangle of no width where the video last was.
StepResult Session::hide_video(const Command& c, const Call& call) {
    quarvel_video_output_rect_t r = last_rect_;
    r.w = 0;
    call_set_rect(c, call.video, r, c.expect());
    return {};
}

StepResult Session::show_video(const Command& c, const Call& call) {
    call_set_rect(c, call.video, last_shown_, c.expect());
    return {};
}

StepResult Session::start_with_first_frame(const Command& c, const Call& call) {
    apply_format(c, &fmt_);
    const uint32_t index = frame_index(c, 0);
    const int res = call_with_frame(c, call, quarvel_video_output_init_with_first_frame, fmt_, index);
    end_call(c, call.fn, res, c.expect(), "");
    return {};
}

// One frame of a line, after moving the window one step on if the line moves it; then the
// frame's presentation time if the line gives one.
StepResult Session::push_frame(const Command& c, const Call& call) {
    if (c.has("to"))
        move_window(c, call);
    const int res = c.num("null", 0) == 1 ? push_null_frame(c, call) : push_decoded_frame(c, call);
    end_call(c, call.fn, res, c.expect(), "");
    if (c.has("pts"))
        call_set_pts(c, call.video, c.num("pts", 0) + call.step * c.num("pts-step", 0), 0);
    return {};
}

// The next size is announced with the stream's format as it stands, changed by the line
// but not kept, and the index the next frame will get.
StepResult Session::announce_next_resolution(const Command& c, const Call& call) {
    FrameFormat f = fmt_;
    apply_format(c, &f);
    const uint32_t index = c.has("index") ? static_cast<uint32_t>(c.num("index", 0)) : next_index_;
    const int res = call_with_frame(c, call, quarvel_video_output_set_next_res, f, index);
    end_call(c, call.fn, res, c.expect(), "");
    return {};
}

StepResult Session::report_vsync(const Command& c, const Call& call) {
    quarvel_video_output_vsync_info_s info{};
    begin_call(c, std::string(call.fn) + "()");
    const int res = quarvel_video_output_get_vsync_info(call.video, &info);
    char buf[128];
    snprintf(buf, sizeof(buf), "fps=%.6f tv_sec=%d tv_nsec=%d", info.fps, info.tv_sec, info.tv_nsec);
    end_call(c, call.fn, res, c.expect(), res == 0 ? buf : "");
    return {};
}

StepResult Session::report_used_frames(const Command& c, const Call& call) {
    quarvel_video_used_frames_s used{};
    begin_call(c, std::string(call.fn) + "()");
    const int res = quarvel_video_output_get_used_frames(call.video, &used);
    end_call(c, call.fn, res, c.expect(),
             res == 0 ? "dec0=" + std::to_string(used.used_by_decoder[0]) +
                            " dec1=" + std::to_string(used.used_by_decoder[1])
                      : "");
    return {};
}

StepResult Session::set_pts(const Command& c, const Call& call) {
    call_set_pts(c, call.video, c.num("value", 0), c.expect());
    return {};
}

// The library's broadcast switch mutes audio from a detached thread of its own. Waiting
// for that thread to end keeps the order of the printed lines the same from run to run.
StepResult Session::notify_ta_switch(const Command& c, const Call& call) {
    begin_call(c, std::string(call.fn) + "() " + preload_text());
    const int threads = ruvo_kit::thread_count();
    quarvel_video_output_notify_ta_switch(call.video);
    ruvo_kit::wait_for_threads_to_end(threads, std::chrono::seconds(5));
    end_call(c, call.fn, 0, c.expect(), preload_text());
    return {};
}

// ---- Video call steps ---------------------------------------------------------------------

void Session::call_set_pts(const Command& c, quarvel_video_output_s* h, long long pts, int64_t expected) {
    const char* fn = "quarvel_video_output_set_pts";
    begin_call(c, std::string(fn) + "(" + std::to_string(pts) + ")");
    const int res = quarvel_video_output_set_pts(h, pts);
    end_call(c, fn, res, expected, "");
}

// A line's own index counts on by one a call; without one, the session's next.
uint32_t Session::frame_index(const Command& c, int64_t step) {
    return c.has("index") ? static_cast<uint32_t>(c.num("index", 0) + step) : next_index_++;
}

// The call line for a frame of format `f`, then the call.
int Session::call_with_frame(const Command& c, const Call& call, FrameCall fn, const FrameFormat& f,
                             uint32_t index) {
    v4l2_drm d = frame_descriptor(f, index);
    quarvel_video_output_frame_s frame{};
    frame.v4l2_frame = &d;
    frame.dv_profile = f.dv;
    begin_call(c, std::string(call.fn) + "(" + frame_text(f, index) + ")");
    return fn(call.video, &frame);
}

int Session::push_null_frame(const Command& c, const Call& call) {
    begin_call(c, std::string(call.fn) + "(null frame)");
    const int res = quarvel_video_output_push_frame_to_display(call.video, nullptr);
    null_frames_++;
    return res;
}

// A frame counts as shown when the plane has been placed and the video is not muted.
int Session::push_decoded_frame(const Command& c, const Call& call) {
    apply_format(c, &fmt_);
    const uint32_t index = frame_index(c, call.step);
    const int res = call_with_frame(c, call, quarvel_video_output_push_frame_to_display, fmt_, index);
    frames_pushed_++;
    if (res == 0) {
        frames_ok_++;
        std::lock_guard<std::mutex> g(mu_);
        if (setplanes_ > 0 && !plane_.muted)
            frames_shown_++;
    }
    return res;
}

// The window moves from 'from' (or where it was when the line began) to 'to' in count
// equal steps; the first frame already takes the first step. A step that lands where the
// window is makes no call.
void Session::move_window(const Command& c, const Call& call) {
    std::array<int64_t, 4>& f = move_start_[&c];
    if (call.step == 0) {
        if (c.has("from"))
            for (int i = 0; i < 4; ++i)
                f[static_cast<size_t>(i)] = c.arg("from").v[i];
        else
            f = {last_rect_.x, last_rect_.y, last_rect_.w, last_rect_.h};
    }
    const int64_t n = c.count();
    const Arg& to = c.arg("to");
    int64_t v[4];
    for (size_t i = 0; i < 4; ++i)
        v[i] = f[i] + (to.v[i] - f[i]) * (call.step + 1) / n;
    quarvel_video_output_rect_t r = last_rect_;
    r.x = static_cast<int32_t>(v[0]);
    r.y = static_cast<int32_t>(v[1]);
    r.w = static_cast<uint32_t>(v[2]);
    r.h = static_cast<uint32_t>(v[3]);
    if (!same_rect(r, last_rect_))
        call_set_rect(c, call.video, r, 0);
}

// ---- Audio calls ------------------------------------------------------------------------------

StepResult Session::open_audio(const Command& c, const Call& call) {
    const std::string& path = c.arg("path").text;
    begin_call(c, std::string(call.fn) + "(\"" + path + "\")");
    audio_ = quarvel_audio_output_open(path.c_str());
    audio_run_++;
    // A failed open releases the handle with a line that has no newline of its own.
    if (!audio_)
        printf("\n");
    end_call(c, call.fn, audio_ ? 0 : -1, c.expect(), audio_ ? "" : "(null)");
    return {};
}

StepResult Session::set_up_audio(const Command& c, const Call& call) {
    quarvel_audio_output_setup_params_s p{};
    p.channels = static_cast<uint32_t>(c.num("channels", 2));
    p.sample_rate = static_cast<uint32_t>(c.num("rate", 48000));
    begin_call(c, std::string(call.fn) + "(channels=" + std::to_string(p.channels) +
                      " sample_rate=" + std::to_string(p.sample_rate) + ")");
    const int res = quarvel_audio_output_setup(call.audio, &p);
    if (res == 0 && call.audio)
        channels_ = p.channels;
    end_call(c, call.fn, res, c.expect(), "");
    return {};
}

StepResult Session::start_audio(const Command& c, const Call& call) {
    call_audio(c, call, quarvel_audio_output_start);
    return {};
}

// Stopping drops what the decoder had: the delay samples after it are another run.
StepResult Session::stop_audio(const Command& c, const Call& call) {
    call_audio(c, call, quarvel_audio_output_stop);
    audio_run_++;
    return {};
}

StepResult Session::set_sync_mode(const Command& c, const Call& call) {
    const uint32_t mode = static_cast<uint32_t>(c.num("mode", 0));
    begin_call(c, std::string(call.fn) + "(" + std::to_string(mode) + ")");
    const int res =
        quarvel_audio_output_set_sync_mode(call.audio, static_cast<quarvel_audio_output_sync_mode_t>(mode));
    end_call(c, call.fn, res, c.expect(), "");
    return {};
}

// One block of the line's size and header bytes. With a retry time, a no-space answer is
// tried again later, up to the line's most retries.
StepResult Session::push_audio(const Command& c, const Call& call) {
    const uint32_t size = static_cast<uint32_t>(c.num("size", 4096));
    const uint32_t extra = static_cast<uint32_t>(c.num("extra", 0));
    const std::vector<unsigned char> data = audio_block(static_cast<size_t>(size) + extra, call.step);
    begin_call(
        c, std::string(call.fn) + "(size=" + std::to_string(size) + " extra=" + std::to_string(extra) + ")");
    const int res = quarvel_audio_output_push_data(call.audio, data.data(), size, extra);
    if (res == -2 && c.has("retry") && c.expect() != -2)
        return retry_after_no_space(c, call, res);
    if (res == 0)
        count_audio_block(size, extra);
    else if (res == -2)
        no_space();
    end_call(c, call.fn, res, c.expect(), "");
    return {};
}

// Every answer is a delay sample for the picture, of the current run.
StepResult Session::report_audio_info(const Command& c, const Call& call) {
    begin_call(c, std::string(call.fn) + "()");
    quarvel_audio_output_info_s info{};
    const int res = quarvel_audio_output_get_info(call.audio, &info);
    std::string detail;
    if (res == 0) {
        char buf[160];
        snprintf(buf, sizeof(buf), "frames_delay=%u bytes_free=%u remain_size=%" PRId64, info.frames_delay,
                 info.bytes_free, info.remain_size);
        detail = buf;
        std::lock_guard<std::mutex> g(mu_);
        delays_.push_back(DelaySample{now_.load(), info.frames_delay, audio_run_});
    }
    end_call(c, call.fn, res, c.expect(), detail);
    return {};
}

StepResult Session::set_volume(const Command& c, const Call& call) {
    call_audio_level(c, call, quarvel_audio_output_volume_control);
    return {};
}

StepResult Session::set_speed(const Command& c, const Call& call) {
    call_audio_level(c, call, quarvel_audio_output_speed_control);
    return {};
}

StepResult Session::close_audio(const Command& c, const Call& call) {
    begin_call(c, std::string(call.fn) + (call.audio ? "()" : "(null)"));
    quarvel_audio_output_close(call.audio);
    audio_run_++;
    if (call.audio)
        audio_ = nullptr;
    // The library's release line carries no newline of its own.
    printf("\n");
    end_call(c, call.fn, 0, c.expect(), "");
    return {};
}

// ---- Audio call steps ---------------------------------------------------------------------

// A call with nothing but the handle.
void Session::call_audio(const Command& c, const Call& call, AudioCall fn) {
    begin_call(c, std::string(call.fn) + "()");
    const int res = fn(call.audio);
    end_call(c, call.fn, res, c.expect(), "");
}

void Session::call_audio_level(const Command& c, const Call& call, AudioLevelCall fn) {
    const float v = static_cast<float>(c.real("value", 1.0));
    char buf[64];
    snprintf(buf, sizeof(buf), "(%g)", static_cast<double>(v));
    begin_call(c, std::string(call.fn) + buf);
    const int res = fn(call.audio, v);
    end_call(c, call.fn, res, c.expect(), "");
}

// A no-space answer on a line that retries: again after the retry time, or, past the most
// retries, the answer stands against what the line expects.
StepResult Session::retry_after_no_space(const Command& c, const Call& call, int res) {
    no_space();
    if (call.retries >= c.num("max-retries", 1000)) {
        end_call(c, call.fn, res, c.expect(), "no space after " + std::to_string(call.retries) + " retries");
        return {};
    }
    end_call(c, call.fn, res, res, "no space, retry in " + format_ms(c.num("retry", 0)) + " ms");
    StepResult sr;
    sr.retry = true;
    sr.retry_us = c.num("retry", 0);
    return sr;
}

// Blocks of 16-bit samples: the frames count for the channels of the last setup.
void Session::count_audio_block(uint32_t size, uint32_t extra) {
    audio_blocks_++;
    audio_bytes_ += size + extra;
    if (channels_)
        audio_frames_ += (size / 2) / channels_;
}

void Session::execute_platform(const Command& c) {
    auto& tv = emutv::platform();
    const int64_t now = now_.load();
    std::string text = c.name.substr(9);  // after "platform "
    for (const auto& kv : c.args)
        text += " " + kv.first + "=" + kv.second.text;
    if (opt_.calls)
        printf("platform: t=%s %s %s\n", format_ms(now).c_str(), c.where().c_str(), text.c_str());
    std::lock_guard<emutv::PlatformMutex> g(tv.mutex());
    emutv::lines::apply_platform_line(tv, c.platform_line());
}

void Session::on_event(const emutv::Event& e) {
    const int64_t now = now_.load();
    std::lock_guard<std::mutex> g(mu_);
    requests_[e.name]++;
    total_requests_++;
    if (opt_.trace)
        printf("trace: t=%s #%llu %s\n", format_ms(now).c_str(), static_cast<unsigned long long>(e.seq),
               emutv::describe(e).c_str());
    if (e.device == emutv::Device::Drm && e.kind == emutv::Kind::Ioctl && e.result == 0) {
        if (e.name == "DRM_IOCTL_MODE_SETPLANE") {
            plane_.x = static_cast<int32_t>(e.field("crtc_x"));
            plane_.y = static_cast<int32_t>(e.field("crtc_y"));
            plane_.w = static_cast<uint32_t>(e.field("crtc_w"));
            plane_.h = static_cast<uint32_t>(e.field("crtc_h"));
            setplanes_++;
        } else if (e.name == "DRM_IOCTL_SDP_SET_ONOFF" && e.has("set_func") &&
                   static_cast<uint32_t>(e.field("set_func")) == kMuteFunc) {
            plane_.muted = e.field("onoff_flag") != 0;
            if (plane_.muted)
                mutes_++;
            else
                unmutes_++;
        } else if (e.name == "DRM_IOCTL_SDP_SET_DP_SOURCE") {
            int port = static_cast<int>(e.field("inputport"));
            if (port != plane_.port) {
                source_changes_.push_back(std::string(plane_.port < 0 ? "none" : port_name(plane_.port)) +
                                          "->" + port_name(port) + " at " + format_ms(now) + " ms");
                plane_.port = port;
            }
        }
    }
}

void Session::no_space() {
    backpressure_++;
    std::lock_guard<std::mutex> g(mu_);
    marks_.push_back(CallMark{now_.load(), "no-space", "quarvel_audio_output_push_data"});
}

// What the panel showed and the loudspeakers played, from the emulated TV's log.
void Session::timeline_summary() {
    size_t vsyncs = 0, latched = 0, repeated = 0, shown = 0, periods = 0;
    int64_t dropped = 0, prev_ns = -1, last_ns = -1;
    uint64_t played = 0;
    const emutv::TimelineEntry* last_audio = nullptr;
    for (const auto& e : timeline_) {
        if (e.type == emutv::TimelineEntry::Type::Vsync) {
            vsyncs++;
            prev_ns = last_ns;
            last_ns = e.t_ns;
            if (e.fresh)
                latched++;
            else if (e.frame >= 0)
                repeated++;
            dropped += e.dropped;
            if (e.has_plane && !e.muted && e.w && e.h)
                shown++;
        } else if (e.type == emutv::TimelineEntry::Type::Audio) {
            periods++;
            played += e.played;
            last_audio = &e;
        }
    }
    // The panel rate at the end, from the last two vsyncs.
    char hz[40] = "";
    if (prev_ns >= 0 && last_ns > prev_ns)
        snprintf(hz, sizeof(hz), " at %.2f Hz", 1e9 / static_cast<double>(last_ns - prev_ns));
    printf("summary: panel %zu vsyncs%s, frames latched %zu, repeated %zu, dropped %" PRId64
           ", plane shown at %zu vsyncs\n",
           vsyncs, hz, latched, repeated, dropped, shown);
    if (last_audio)
        printf("summary: audio decoder %zu periods, frames played %" PRIu64
               ", media time at the end %s ms, undecodable %" PRIu64 " bytes\n",
               periods, played, format_ms(last_audio->media_us).c_str(), last_audio->undecodable);
    else
        printf("summary: audio decoder never played\n");
}

void Session::summary() {
    std::lock_guard<std::mutex> g(mu_);
    printf("summary: scenario %s, virtual time %s ms, %zu library calls, %zu unexpected\n", sc_.file.c_str(),
           format_ms(now_.load()).c_str(), calls_, mismatches_);
    printf("summary: driver requests %zu\n", total_requests_);
    for (const auto& kv : requests_)
        printf("summary:   %-34s %zu\n", kv.first.c_str(), kv.second);
    printf("summary: frames pushed %zu, accepted %zu, shown %zu, null frames %zu\n", frames_pushed_,
           frames_ok_, frames_shown_, null_frames_);
    printf(
        "summary: plane programmed %zu times, hides requested %zu, video muted %zu times, unmuted %zu "
        "times\n",
        setplanes_, hide_requests_, mutes_, unmutes_);
    printf("summary: source changes %zu", source_changes_.size());
    for (size_t i = 0; i < source_changes_.size(); ++i)
        printf("%s%s", i ? ", " : ": ", source_changes_[i].c_str());
    printf("\n");
    printf("summary: audio frames pushed %" PRIu64 " (%zu blocks, %zu bytes), back-pressure answers %zu\n",
           audio_frames_, audio_blocks_, audio_bytes_, backpressure_);
    if (delays_.empty()) {
        printf("summary: delays reported 0\n");
    } else {
        uint32_t mn = UINT32_MAX, mx = 0;
        for (const auto& d : delays_) {
            mn = std::min(mn, d.frames_delay);
            mx = std::max(mx, d.frames_delay);
        }
        printf("summary: delays reported %zu, frames_delay min %u max %u last %u\n", delays_.size(), mn, mx,
               delays_.back().frames_delay);
    }
    timeline_summary();
    if (video_)
        printf("summary: the video output is still open at the end\n");
    if (audio_)
        printf("summary: the audio output is still open at the end\n");
}

bool Session::write_svg() {
    std::string path = opt_.svg;
    if (path.empty()) {
        std::string base = sc_.file.substr(
            sc_.file.find_last_of('/') == std::string::npos ? 0 : sc_.file.find_last_of('/') + 1);
        if (base.size() > 4 && base.compare(base.size() - 4, 4, ".scn") == 0)
            base.resize(base.size() - 4);
        path = base + ".svg";
    }
    SessionPicture pic;
    pic.title = sc_.file;
    pic.panel_w = panel_w_ > 0 ? panel_w_ : 1920;
    pic.panel_h = panel_h_ > 0 ? panel_h_ : 1080;
    pic.end_us = now_.load();
    {
        std::lock_guard<std::mutex> g(mu_);
        pic.timeline = timeline_;
        pic.delays = delays_;
        pic.marks = marks_;
    }
    PictureCounts counts;
    const std::string svg = render_svg(pic, &counts);
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << svg;
    f.close();
    if (!f) {
        fprintf(stderr, "%s: cannot write the picture\n", path.c_str());
        return false;
    }
    printf("picture: %s (%zu vsyncs, %zu events, %zu delay samples)\n", path.c_str(), counts.vsyncs,
           counts.events, counts.delays);
    return true;
}

// Outputs that the scenario never closed are released at its end, so that nothing is left
// on the emulated devices.
void Session::release_left_open() {
    if (video_) {
        printf("player: closing the video output the scenario left open\n");
        quarvel_video_output_close(video_);
        video_ = nullptr;
    }
    if (audio_) {
        printf("player: closing the audio output the scenario left open\n");
        quarvel_audio_output_close(audio_);
        printf("\n");  // the release line of the audio output has no newline of its own
        audio_ = nullptr;
    }
}

int Session::run() {
    auto& tv = emutv::platform();
    tv.reset();
    tv.set_recording(false);
    unsetenv("TA_DTV_PRELOAD");
    tv.set_listener([this](const emutv::Event& e) { on_event(e); });
    // The chip's audio decoder plays the generated blocks as 16-bit PCM of the setup's
    // channels and rate, in the player's virtual time.
    tv.set_clock_mode(emutv::ClockMode::Virtual);
    tv.set_timeline_listener([this](const emutv::TimelineEntry& e) {
        std::lock_guard<std::mutex> g(mu_);
        timeline_.push_back(e);
    });
    {
        std::lock_guard<emutv::PlatformMutex> g(tv.mutex());
        tv.compr().answers = emutv::ComprModel::Answers::Modelled;
        tv.compr().pacing = emutv::AudioDecoder::Pacing::Pcm;
    }

    std::vector<TrackRun> tracks(sc_.tracks.size());
    for (const Command& c : sc_.commands)
        if (c.cmd != Cmd::Track)
            tracks[static_cast<size_t>(c.track)].lines.push_back(&c);

    for (;;) {
        TrackRun* next = nullptr;
        for (auto& t : tracks)
            if (t.pc < t.lines.size() && (!next || t.due < next->due))
                next = &t;
        if (!next)
            break;
        now_.store(std::max(now_.load(), next->due));
        tv.set_virtual_time_ns(now_.load() * 1000);
        run_line_step(*next);
    }
    release_left_open();
    fflush(stdout);
    tv.set_listener(nullptr);
    // The panel shows what the session left on it for one more vsync.
    {
        std::lock_guard<emutv::PlatformMutex> g(tv.mutex());
        const int32_t hz = tv.vplt().vsync_hz > 0 ? tv.vplt().vsync_hz : 59940;
        tv.set_virtual_time_ns(now_.load() * 1000 + 1000000000000LL / hz);
        tv.set_timeline_listener(nullptr);
    }
    summary();
    bool pic_ok = !opt_.write_svg || write_svg();
    printf("summary: %s\n", mismatches_ == 0 && pic_ok ? "OK" : "FAILED");
    fflush(stdout);
    return mismatches_ == 0 && pic_ok ? kExitOk : kExitMismatch;
}

}  // namespace

int run_scenario(const Scenario& scenario, const PlayerOptions& options) {
    Session s(scenario, options);
    return s.run();
}

const char* player_usage() {
    return R"(Usage: tv-session-player [OPTIONS] SCENARIO.scn

Plays a TV session described by a scenario file against the AV sink library on the
emulated TV platform, in virtual time. Prints, in order of happening:
  call: t=MS FILE:LINE function(arguments)      a library call about to be made
  ... the library's own lines ...
  trace: t=MS #N <device> <path> <request> <decoded fields> -> <result>
                                                 every driver request, as decoded
  result: t=MS function -> RESULT [values]       what the call returned
  platform: / env:                               platform events and environment
  summary: ...                                   requests per kind, frames shown,
                                                 hides, source changes, audio frames
                                                 pushed, delays reported
and draws the session as an SVG picture from the emulated TV's timeline (vsyncs at
the panel rate in virtual time): the video plane's x, y, w and h over time with its
shown/muted and source bands, the events (mute, source, resolution, volume, speed,
failed requests, unexpected results), frame pacing against vsync, the audio
decoder's buffer with the no-space answers, and the audio delay (frames_delay).
RUVO_EMUTV_LOG=FILE also writes that timeline as JSON lines.

Options:
  --svg FILE     write the picture to FILE (default: SCENARIO's name with .svg,
                 in the current directory)
  --no-svg       write no picture
  --no-trace     leave out the trace: lines
  --quiet        leave out the call:, result:, platform: and env: lines
                 (a call with an unexpected result is still reported)
  --check        check the scenario only; make no library call
  -h, --help     this text and the scenario grammar

Exit status: 0 every call returned its expected result; 1 a call returned
something else, was skipped (no handle open) or the picture could not be
written; 2 bad command line or bad scenario (reported as FILE:LINE: message
before any library call; nothing is written then).

The library's broadcast switch mutes audio on a thread of its own; the player
waits for that thread to end before it goes on, so the output keeps its order.
)";
}

int player_main(int argc, char** argv) {
    if (!getenv("EMUTV_SANDBOX_DIR")) {
        const char* tmp = getenv("TMPDIR");
        setenv("EMUTV_SANDBOX_DIR", tmp && *tmp ? tmp : "/tmp", 1);
    }
    PlayerOptions opt;
    bool check_only = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            printf("%s\n%s", player_usage(), scenario_help());
            return kExitOk;
        } else if (a == "--svg") {
            if (i + 1 >= argc) {
                fprintf(stderr, "tv-session-player: --svg: expected a file name\n");
                return kExitUsage;
            }
            opt.svg = argv[++i];
        } else if (a.compare(0, 6, "--svg=") == 0) {
            opt.svg = a.substr(6);
            if (opt.svg.empty()) {
                fprintf(stderr, "tv-session-player: --svg: expected a file name\n");
                return kExitUsage;
            }
        } else if (a == "--no-svg") {
            opt.write_svg = false;
        } else if (a == "--no-trace") {
            opt.trace = false;
        } else if (a == "--quiet") {
            opt.calls = false;
        } else if (a == "--check") {
            check_only = true;
        } else if (!a.empty() && a[0] == '-') {
            fprintf(stderr, "tv-session-player: unknown option '%s' (see --help)\n", a.c_str());
            return kExitUsage;
        } else if (opt.scenario.empty()) {
            opt.scenario = a;
        } else {
            fprintf(stderr, "tv-session-player: expected one scenario file, got '%s' too\n", a.c_str());
            return kExitUsage;
        }
    }
    if (opt.scenario.empty()) {
        fprintf(stderr, "tv-session-player: expected a scenario file (see --help)\n");
        return kExitUsage;
    }
    Scenario sc;
    std::string error;
    if (!load_scenario(opt.scenario, &sc, &error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return kExitUsage;
    }
    if (check_only) {
        size_t n = 0;
        for (const Command& c : sc.commands)
            n += c.cmd != Cmd::Track;
        printf("%s: %zu commands in %zu tracks\n", opt.scenario.c_str(), n, sc.tracks.size());
        return kExitOk;
    }
    return run_scenario(sc, opt);
}

}  // namespace tvsp
