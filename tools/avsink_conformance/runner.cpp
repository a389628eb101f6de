// One scenario through playbin, in real time. The runner only drives the pipeline and
// samples what an application sees (POSITION answers, bus messages, its own CPU, memory
// and descriptors); what the panel showed and the loudspeakers played comes from the
// emulated TV's timeline afterwards.
#include <dirent.h>
#include <malloc.h>
#include <gst/gst.h>
#include <gst/video/videooverlay.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>

#include "conformance.h"
#include "emutv/fingerprint.h"

namespace conformance {
namespace {

// How long the pipeline is left to finish what a storm started before its resources are
// sampled.
constexpr double kSettleMs = 500;

// The first NULL <-> PLAYING cycles of a playbin fill caches that stay (GStreamer's, the
// decoders' and the C library's, some megabytes, the same with fakesinks): growth counts
// from the cycle after them.
constexpr int kWarmupCycles = 20;

int64_t mono_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double cpu_seconds() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

ResourceSample resources(const std::string& when) {
    ResourceSample r;
    r.when = when;
    // Freed heap that the C library keeps for reuse is not growth: hand it back first, so
    // that resident memory counts what is still allocated.
    malloc_trim(0);
    if (FILE* f = fopen("/proc/self/statm", "r")) {
        long size = 0, rss = 0;
        if (fscanf(f, "%ld %ld", &size, &rss) == 2)
            r.rss_kib = rss * (sysconf(_SC_PAGESIZE) / 1024);
        fclose(f);
    }
    if (DIR* d = opendir("/proc/self/fd")) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                ++r.fds;
        closedir(d);
        --r.fds;  // the directory's own descriptor
    }
    return r;
}

// What the bus said, gathered by a sync handler (any thread) for the driving thread.
struct BusLog {
    std::mutex mu;
    std::condition_variable cv;
    bool eos = false;
    uint64_t async_done = 0;
    std::vector<std::string> errors, warnings;
};

GstBusSyncReply on_bus(GstBus*, GstMessage* m, gpointer data) {
    auto* log = static_cast<BusLog*>(data);
    std::lock_guard<std::mutex> g(log->mu);
    switch (GST_MESSAGE_TYPE(m)) {
        case GST_MESSAGE_EOS:
            log->eos = true;
            break;
        case GST_MESSAGE_ASYNC_DONE:
            ++log->async_done;
            break;
        case GST_MESSAGE_ERROR:
        case GST_MESSAGE_WARNING: {
            GError* e = nullptr;
            gchar* dbg = nullptr;
            bool error = GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR;
            if (error)
                gst_message_parse_error(m, &e, &dbg);
            else
                gst_message_parse_warning(m, &e, &dbg);
            std::string text =
                std::string(GST_OBJECT_NAME(GST_MESSAGE_SRC(m))) + ": " + (e ? e->message : "?");
            (error ? log->errors : log->warnings).push_back(text);
            g_clear_error(&e);
            g_free(dbg);
            break;
        }
        default:
            break;
    }
    log->cv.notify_all();
    // A sync handler that drops a message owns it: each message holds its source
    // element, so a message left unreffed keeps a whole decoding chain alive.
    gst_message_unref(m);
    return GST_BUS_DROP;
}

// The first audio buffer the sink plays after the start, a flush or a new stream: the
// decoder's media time counts from it. The sink leaves out frames that start before the
// segment (they cannot be cut), so they do not count.
// A codec switch may leave a few late frames out; a stream's first block is among the first
// ones after its start.
constexpr int kCandidatesPerStream = 32;

struct AudioBaseProbe {
    std::atomic<bool> want{true};
    GstClockTime segment_start = 0;              // streaming thread only
    int candidates_left = kCandidatesPerStream;  // streaming thread only
    RunResult* result = nullptr;
};

void add_audio_candidate(AudioBaseProbe* probe, GstBuffer* b) {
    GstMapInfo map;
    if (!gst_buffer_map(b, &map, GST_MAP_READ))
        return;
    probe->result->audio_candidates.push_back({mono_ns(), static_cast<int64_t>(GST_BUFFER_PTS(b)),
                                               emutv::audio_tail_fingerprint(map.data, map.size)});
    gst_buffer_unmap(b, &map);
}

// Every video buffer reaching the sink is counted; the first after each flush is where a
// seek landed.
struct VideoProbe {
    std::atomic<uint64_t> buffers{0};
    std::atomic<bool> after_flush{false};
    RunResult* result = nullptr;
};

class Run {
  public:
    Run(const Scenario& s, const RunOptions& o) : s_(s), o_(o) {}
    ~Run() { teardown(); }

    bool build(std::string* error);
    void play_steps();
    RunResult finish();

  private:
    void step(const Step& st);
    bool set_state(GstState state, const char* what);
    bool wait_preroll(uint64_t before, const char* what);
    void seek(int64_t target_ns, double rate);
    void sleep_ms(double ms);
    void rect_storm(double ms, double hz);
    void hand_back();
    void poll_positions();
    void teardown();
    int64_t duration_ns();
    void fail(const std::string& what) {
        r_.ok = false;
        r_.errors.push_back(what);
    }

    const Scenario& s_;
    const RunOptions& o_;
    RunResult r_;
    BusLog bus_;
    GstElement* pipe_ = nullptr;
    GstElement* vsink_ = nullptr;
    GstElement* asink_ = nullptr;
    std::string uri_;
    std::atomic<bool> stop_{false};
    std::thread poller_;
    std::mutex pos_mu_;
    AudioBaseProbe audio_probe_;
    VideoProbe video_probe_;
    double cpu0_ = 0;
    int64_t wall0_ = 0;
};

GstPadProbeReturn on_audio_pad(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* probe = static_cast<AudioBaseProbe*>(data);
    if (GST_PAD_PROBE_INFO_TYPE(info) &
        (GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_EVENT_FLUSH)) {
        GstEvent* e = GST_PAD_PROBE_INFO_EVENT(info);
        if (GST_EVENT_TYPE(e) == GST_EVENT_FLUSH_STOP || GST_EVENT_TYPE(e) == GST_EVENT_STREAM_START) {
            probe->want = true;
            probe->candidates_left = kCandidatesPerStream;
        } else if (GST_EVENT_TYPE(e) == GST_EVENT_SEGMENT) {
            const GstSegment* segment = nullptr;
            gst_event_parse_segment(e, &segment);
            probe->segment_start = segment->format == GST_FORMAT_TIME ? segment->start : 0;
        }
        return GST_PAD_PROBE_OK;
    }
    GstBuffer* b = GST_PAD_PROBE_INFO_BUFFER(info);
    if (b == nullptr || !GST_BUFFER_PTS_IS_VALID(b) || GST_BUFFER_PTS(b) < probe->segment_start)
        return GST_PAD_PROBE_OK;
    if (probe->candidates_left > 0) {
        probe->candidates_left--;
        add_audio_candidate(probe, b);
    }
    if (!probe->want.load())
        return GST_PAD_PROBE_OK;
    probe->want = false;
    probe->result->audio_bases.push_back({mono_ns(), static_cast<int64_t>(GST_BUFFER_PTS(b))});
    return GST_PAD_PROBE_OK;
}

GstPadProbeReturn on_video_pad(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* probe = static_cast<VideoProbe*>(data);
    if (GST_PAD_PROBE_INFO_TYPE(info) &
        (GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM | GST_PAD_PROBE_TYPE_EVENT_FLUSH)) {
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_FLUSH_STOP)
            probe->after_flush = true;
        return GST_PAD_PROBE_OK;
    }
    GstBuffer* b = GST_PAD_PROBE_INFO_BUFFER(info);
    if (b == nullptr)
        return GST_PAD_PROBE_OK;
    probe->buffers.fetch_add(1);
    if (GST_BUFFER_PTS_IS_VALID(b) && probe->after_flush.exchange(false))
        probe->result->video_landings.push_back({mono_ns(), static_cast<int64_t>(GST_BUFFER_PTS(b))});
    return GST_PAD_PROBE_OK;
}

// Buffers and downstream events (flushes too) at a sink's pad, seen by `probe`.
void watch_sink_pad(GstElement* sink, GstPadProbeCallback probe, gpointer data) {
    GstPad* pad = gst_element_get_static_pad(sink, "sink");
    if (pad == nullptr)
        return;
    gst_pad_add_probe(
        pad,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                     GST_PAD_PROBE_TYPE_EVENT_FLUSH),
        probe, data, nullptr);
    gst_object_unref(pad);
}

// playbin3's decodebin decodes to raw whatever its sinks take: it does not ask them, as
// playbin does. Told to stop at the raw caps and at what the audio sink takes (unless that
// is anything, a fake sink), it hands ruvoaudiosink the parsed compressed audio.
void stop_decoding_at_audio_sink_caps(GstElement* playbin3, GstElement* audio_sink) {
    GstElement* decodebin = gst_bin_get_by_name(GST_BIN(playbin3), "uridecodebin3");
    GstPad* pad = gst_element_get_static_pad(audio_sink, "sink");
    GstCaps* taken = pad != nullptr ? gst_pad_get_pad_template_caps(pad) : nullptr;
    if (decodebin != nullptr && taken != nullptr && !gst_caps_is_any(taken)) {
        GstCaps* caps = nullptr;
        g_object_get(decodebin, "caps", &caps, nullptr);
        caps = caps != nullptr ? gst_caps_merge(caps, gst_caps_ref(taken)) : gst_caps_ref(taken);
        g_object_set(decodebin, "caps", caps, nullptr);
        gst_caps_unref(caps);
    }
    if (taken != nullptr)
        gst_caps_unref(taken);
    if (pad != nullptr)
        gst_object_unref(pad);
    if (decodebin != nullptr)
        gst_object_unref(decodebin);
}

// A scenario that hands the screen back plays an advertising break: the platform's broadcast
// middleware marks it in the browser's environment before the break's media starts.
bool plays_an_advertising_break(const Scenario& s) {
    return std::any_of(s.steps.begin(), s.steps.end(), [](const Step& st) { return st.op == Op::Handback; });
}

bool Run::build(std::string* error) {
    if (plays_an_advertising_break(s_))
        setenv("TA_DTV_PRELOAD", "1", 1);  // before the pipeline starts any thread
    const std::string path = make_clip(o_.media_dir, s_.media, error);
    if (path.empty())
        return false;
    gchar* uri = gst_filename_to_uri(path.c_str(), nullptr);
    uri_ = uri;
    g_free(uri);
    pipe_ = gst_element_factory_make(o_.playbin3 ? "playbin3" : "playbin", "player");
    vsink_ = gst_element_factory_make(o_.video_sink.c_str(), "vsink");
    asink_ = gst_element_factory_make(o_.audio_sink.c_str(), "asink");
    if (!pipe_ || !vsink_ || !asink_) {
        *error = "cannot make playbin, " + o_.video_sink + " or " + o_.audio_sink + " (GST_PLUGIN_PATH?)";
        return false;
    }
    for (GstElement* sink : {vsink_, asink_})
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(sink), "sync"))
            g_object_set(sink, "sync", TRUE, nullptr);
    g_object_set(pipe_, "uri", uri_.c_str(), "video-sink", vsink_, "audio-sink", asink_, nullptr);
    if (o_.playbin3)
        stop_decoding_at_audio_sink_caps(pipe_, asink_);
    audio_probe_.result = &r_;
    video_probe_.result = &r_;
    watch_sink_pad(asink_, on_audio_pad, &audio_probe_);
    watch_sink_pad(vsink_, on_video_pad, &video_probe_);
    GstBus* bus = gst_element_get_bus(pipe_);
    gst_bus_set_sync_handler(bus, on_bus, &bus_, nullptr);
    gst_object_unref(bus);
    cpu0_ = cpu_seconds();
    wall0_ = mono_ns();
    r_.resources.push_back(resources("start"));
    poller_ = std::thread([this] { poll_positions(); });
    return true;
}

// POSITION as an application asks it, every 20 ms.
void Run::poll_positions() {
    auto position = [](GstElement* e) {
        gint64 pos = -1;
        return gst_element_query_position(e, GST_FORMAT_TIME, &pos) ? pos : -1;
    };
    // Each sink's own answer only every tenth time: on the TV each answer costs driver
    // requests, which would weigh on the CPU figure as no application's polling does.
    for (unsigned n = 0; !stop_.load(); ++n) {
        PositionSample p;
        p.position_ns = position(pipe_);
        p.mono_ns = mono_ns();
        if (n % 10 == 0) {
            p.video_position_ns = position(vsink_);
            p.audio_position_ns = position(asink_);
        }
        {
            std::lock_guard<std::mutex> g(pos_mu_);
            r_.positions.push_back(p);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

bool Run::set_state(GstState state, const char* what) {
    GstStateChangeReturn ret = gst_element_set_state(pipe_, state);
    if (ret == GST_STATE_CHANGE_FAILURE) {
        fail(std::string(what) + ": state change failed");
        return false;
    }
    if (ret == GST_STATE_CHANGE_ASYNC)
        ret = gst_element_get_state(pipe_, nullptr, nullptr, 10 * GST_SECOND);
    if (ret != GST_STATE_CHANGE_SUCCESS && ret != GST_STATE_CHANGE_NO_PREROLL) {
        fail(std::string(what) + ": state change did not complete in 10 s");
        return false;
    }
    return true;
}

bool Run::wait_preroll(uint64_t before, const char* what) {
    std::unique_lock<std::mutex> g(bus_.mu);
    bool ok = bus_.cv.wait_for(g, std::chrono::seconds(10),
                               [&] { return bus_.async_done > before || !bus_.errors.empty(); });
    if (!ok) {
        g.unlock();
        fail(std::string(what) + ": no ASYNC_DONE in 10 s");
    }
    return ok;
}

void Run::sleep_ms(double ms) {
    std::unique_lock<std::mutex> g(bus_.mu);
    bus_.cv.wait_for(g, std::chrono::microseconds(static_cast<int64_t>(ms * 1000)),
                     [&] { return !bus_.errors.empty(); });
}

int64_t Run::duration_ns() {
    gint64 d = -1;
    if (!gst_element_query_duration(pipe_, GST_FORMAT_TIME, &d))
        return -1;
    return d;
}

void Run::seek(int64_t target_ns, double rate) {
    const int64_t requested = mono_ns();
    uint64_t before;
    {
        std::lock_guard<std::mutex> g(bus_.mu);
        before = bus_.async_done;
    }
    auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_ACCURATE);
    bool ok = rate > 0 ? gst_element_seek(pipe_, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, target_ns,
                                          GST_SEEK_TYPE_NONE, -1)
                       : gst_element_seek(pipe_, rate, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, 0,
                                          GST_SEEK_TYPE_SET, target_ns);
    if (!ok) {
        fail("seek to " + std::to_string(target_ns / 1000000) + " ms refused");
        return;
    }
    if (wait_preroll(before, "seek")) {
        // One instant for both: the figures find a seek's span by its end.
        const int64_t done = mono_ns();
        r_.seeks.push_back({done, target_ns, rate});
        r_.transitions.push_back({requested, done});
        r_.resume_mono_ns.push_back(mono_ns());
    }
}

// A picture-in-picture window moving on a circle, from a thread of its own, as a browser's
// compositor moves it while the streaming thread pushes frames.
void Run::rect_storm(double ms, double hz) {
    if (!GST_IS_VIDEO_OVERLAY(vsink_)) {
        sleep_ms(ms);
        return;
    }
    r_.resources.push_back(resources("storm-start"));
    std::atomic<bool> done{false};
    std::thread mover([&] {
        auto period = std::chrono::microseconds(static_cast<int64_t>(1e6 / hz));
        auto next = std::chrono::steady_clock::now();
        for (int i = 0; !done.load(); ++i) {
            int x = 960 + static_cast<int>(600 * cos(i * 0.05));
            int y = 540 + static_cast<int>(300 * sin(i * 0.05));
            gst_video_overlay_set_render_rectangle(GST_VIDEO_OVERLAY(vsink_), x - 320, y - 180, 640, 360);
            next += period;
            std::this_thread::sleep_until(next);
        }
        gst_video_overlay_set_render_rectangle(GST_VIDEO_OVERLAY(vsink_), 0, 0, -1, -1);
    });
    sleep_ms(ms);
    done = true;
    mover.join();
    sleep_ms(kSettleMs);
    r_.resources.push_back(resources("storm-end"));
}

void Run::step(const Step& st) {
    switch (st.op) {
        case Op::Preroll: {
            uint64_t before = bus_.async_done;
            if (set_state(GST_STATE_PAUSED, "preroll"))
                wait_preroll(before, "preroll");
            break;
        }
        case Op::Play:
            r_.play_mono_ns = mono_ns();
            set_state(GST_STATE_PLAYING, "play");
            break;
        case Op::Wait:
            sleep_ms(st.value);
            break;
        case Op::Pause:
            if (!set_state(GST_STATE_PAUSED, "pause"))
                break;
            sleep_ms(st.value);
            r_.resume_mono_ns.push_back(mono_ns());
            set_state(GST_STATE_PLAYING, "resume");
            break;
        case Op::Seek:
            seek(static_cast<int64_t>(st.value * 1e6), 1.0);
            break;
        case Op::Seeks: {
            std::mt19937 rng(st.seed);
            int64_t d = duration_ns();
            int64_t span = d > 4 * GST_SECOND ? d - 4 * GST_SECOND : GST_SECOND;
            for (int i = 0; i < st.count && r_.ok; ++i) {
                int64_t target =
                    static_cast<int64_t>(rng() % static_cast<uint64_t>(span / GST_MSECOND)) * GST_MSECOND;
                seek(target, 1.0);
                sleep_ms(st.every_ms);
            }
            break;
        }
        case Op::Rate: {
            gint64 pos = 0;
            gst_element_query_position(pipe_, GST_FORMAT_TIME, &pos);
            seek(pos, st.value);
            sleep_ms(st.hold_ms);
            break;
        }
        case Op::Cycle: {
            // Resident memory and descriptors are sampled in NULL, where no buffer is in flight
            // (what a playing pipeline holds in its queues varies by megabytes from one instant
            // to the next): at the first cycle, after the warm-up cycles, and at the last.
            // The storm itself is a transition; the last return to PLAYING a resume.
            const int64_t storm_start = mono_ns();
            for (int i = 0; i < st.count && r_.ok; ++i) {
                set_state(GST_STATE_NULL, "cycle to NULL");
                if (i == 0)
                    r_.resources.push_back(resources("cycle-first"));
                if (i == std::min(kWarmupCycles, st.count - 1))
                    r_.resources.push_back(resources("cycle-start"));
                if (i == st.count - 1)
                    r_.resources.push_back(resources("cycle-end"));
                set_state(GST_STATE_PLAYING, "cycle to PLAYING");
            }
            r_.transitions.push_back({storm_start, mono_ns()});
            r_.resume_mono_ns.push_back(mono_ns());
            break;
        }
        case Op::RectStorm:
            rect_storm(st.value, st.hz);
            break;
        case Op::Handback:
            hand_back();
            break;
        case Op::Eos: {
            std::unique_lock<std::mutex> g(bus_.mu);
            if (!bus_.cv.wait_for(g, std::chrono::seconds(120),
                                  [&] { return bus_.eos || !bus_.errors.empty(); })) {
                g.unlock();
                fail("no EOS in 120 s");
            }
            break;
        }
        case Op::Goal:
            break;
    }
}

// The video sink's hand-back: once the broadcast picture is back on the plane, the library
// clears the break's mark. (A sink without the action, a fake one, has nothing to hand back.)
void Run::hand_back() {
    if (g_signal_lookup("hand-back-to-broadcast", G_OBJECT_TYPE(vsink_)) == 0)
        return;
    g_signal_emit_by_name(vsink_, "hand-back-to-broadcast");
    const char* mark = getenv("TA_DTV_PRELOAD");
    if (mark == nullptr || strcmp(mark, "") != 0)
        fail("hand-back: the broadcast picture did not come back (TA_DTV_PRELOAD still set)");
}

void Run::play_steps() {
    for (const Step& st : s_.steps) {
        if (!o_.quiet)
            fprintf(stderr, "conformance: %.3f s %s:%d\n", (mono_ns() - wall0_) / 1e9, s_.path.c_str(),
                    st.line);
        step(st);
        std::lock_guard<std::mutex> g(bus_.mu);
        if (!bus_.errors.empty() || !r_.ok)
            break;
    }
}

void Run::teardown() {
    stop_ = true;
    if (poller_.joinable())
        poller_.join();
    if (pipe_) {
        gst_element_set_state(pipe_, GST_STATE_NULL);
        gst_object_unref(pipe_);
        pipe_ = nullptr;
    }
}

RunResult Run::finish() {
    stop_ = true;
    if (poller_.joinable())
        poller_.join();
    if (GstClock* clock = gst_element_get_clock(pipe_)) {
        r_.clock_name = GST_OBJECT_NAME(clock);
        GstClock* provided = gst_element_provide_clock(asink_);
        r_.clock_is_audio_sink = provided == clock;
        if (provided)
            gst_object_unref(provided);
        gst_object_unref(clock);
    }
    GstStructure* stats = nullptr;
    g_object_get(vsink_, "stats", &stats, nullptr);
    if (stats) {
        guint64 v = 0;
        if (gst_structure_get_uint64(stats, "dropped", &v))
            r_.frames_dropped = v;
        gst_structure_free(stats);
    }
    // The base sink's statistics start again at every state change: the frames are counted
    // at the sink's pad over the whole run instead.
    r_.frames_rendered = video_probe_.buffers.load();
    r_.cpu_seconds = cpu_seconds() - cpu0_;
    r_.wall_seconds = (mono_ns() - wall0_) / 1e9;
    teardown();
    r_.resources.push_back(resources("end"));
    std::lock_guard<std::mutex> g(bus_.mu);
    for (auto& e : bus_.errors)
        r_.errors.push_back(e);
    r_.warnings = bus_.warnings;
    if (!bus_.errors.empty())
        r_.ok = false;
    return r_;
}

}  // namespace

RunResult run_scenario(const Scenario& s, const RunOptions& o) {
    Run run(s, o);
    std::string error;
    if (!run.build(&error)) {
        RunResult r;
        r.ok = false;
        r.errors.push_back(error);
        return r;
    }
    run.play_steps();
    return run.finish();
}

}  // namespace conformance
