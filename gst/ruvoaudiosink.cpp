// ruvoaudiosink: compressed audio to the TV's audio decoder.
//
// Threads: the streaming thread renders and drains; the application sets properties; any
// thread reads the provided clock. Every call on the library's handle, and every piece of
// state they share, is under the one `lock`, never held across a wait (the waits release
// it) nor across a call into the base sink.
#include "ruvoaudiosink.h"

#include <errno.h>
#include <math.h>
#include <string.h>
#include <time.h>

#include <gst/audio/audio.h>
#include <gst/audio/streamvolume.h>
#include <gst/base/gstbasesink.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "ruvo/quarvel_audio_output.h"
#include "ruvo_gst_register.h"
#include "ruvoaudiosink_adts.h"
#include "ruvoaudiosink_timeline.h"

GST_DEBUG_CATEGORY_STATIC(ruvo_audio_sink_debug);
#define GST_CAT_DEFAULT ruvo_audio_sink_debug

namespace {

using ruvo_audio::PlaybackReport;
using ruvo_audio::Timeline;

enum class Codec { None, AacAdts, AacRaw, Ac3, Eac3 };

// What one setup of the output is made from.
struct StreamConfig {
    Codec codec = Codec::None;
    uint32_t channels = 0;
    uint32_t rate = 0;
    ruvo_audio::AdtsConfig adts;
    bool operator==(const StreamConfig& o) const {
        return codec == o.codec && channels == o.channels && rate == o.rate &&
               adts.profile == o.adts.profile && adts.frequency_index == o.adts.frequency_index &&
               adts.channel_config == o.adts.channel_config && adts.mpeg2 == o.adts.mpeg2;
    }
};

struct Stats {
    guint64 bytes = 0;
    guint64 blocks = 0;
    guint64 no_space = 0;
    guint64 underruns = 0;
    guint64 waits = 0;
    guint64 reports = 0;
    guint64 reopens = 0;
    guint64 failures = 0;
    guint64 late = 0;
};

constexpr gint64 kMaxWaitUs = 100000;
constexpr guint64 kDefaultSamplesPerFrame[] = {0, 1024, 1024, 1536, 1536};

int64_t monotonic_raw_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

struct RuvoAudioSinkState {
    std::mutex lock;
    std::condition_variable cond;

    // Properties.
    std::string device = RUVO_AUDIO_SINK_DEFAULT_DEVICE;
    quarvel_audio_output_sync_mode_t sync_mode = quarvel_audio_output_sync_mode__free_run;
    double volume = 1.0;
    bool mute = false;

    // The output and its stream.
    quarvel_audio_output_s* out = nullptr;
    StreamConfig config;   // the setup in force
    StreamConfig pending;  // caps waiting for the stream before them to drain
    bool switch_pending = false;
    bool after_switch = false;     // the stream to come follows a drained one without a flush
    bool stream_started = false;   // blocks written since the last setup or stop
    std::vector<uint8_t> scratch;  // a frame with the ADTS header the element writes

    // Timing.
    Timeline timeline;
    GstClockTime running_origin = 0;  // running time of the stream's first block
    bool have_report = false;
    PlaybackReport report;
    gint64 report_free = 0;   // room the report saw, less what was written since
    gint64 last_poll_us = 0;  // g_get_monotonic_time of the last report
    uint64_t last_heard = 0;  // the latest device time the clock gave
    // After EOS the decoder has played everything: the clock runs on from where it ended,
    // as silence plays, so that a longer video goes on.
    bool drained = false;
    uint64_t idle_from = 0;     // device time when the clock last started running idle
    int64_t idle_since_ns = 0;  // CLOCK_MONOTONIC_RAW then
    bool starved = false;

    // Flow.
    bool paused = true;     // not PLAYING: the decoder holds
    bool unlocked = false;  // flushing or leaving PAUSED: every wait returns at once
    bool flushing = false;
    double rate = 1.0;  // the segment's rate times an instant rate change
    double segment_rate = 1.0;
    double applied_speed = 1.0;  // what the playback-rate control holds
    int errors_in_row = 0;
    Stats stats;

    GstClock* clock = nullptr;
};

struct RuvoAudioSink {
    GstBaseSink parent;
    RuvoAudioSinkState* s;
};

struct RuvoAudioSinkClass {
    GstBaseSinkClass parent_class;
};

#define RUVO_AUDIO_SINK(obj) (reinterpret_cast<RuvoAudioSink*>(obj))

static void ruvo_audio_sink_stream_volume_init(gpointer, gpointer) {}

G_DEFINE_TYPE_WITH_CODE(RuvoAudioSink, ruvo_audio_sink, GST_TYPE_BASE_SINK,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_STREAM_VOLUME, ruvo_audio_sink_stream_volume_init))

enum { PROP_0, PROP_DEVICE, PROP_SYNC_MODE, PROP_VOLUME, PROP_MUTE, PROP_STATS };

#define RUVO_AUDIO_CAPS_RANGE "channels = (int) [ 1, 8 ], rate = (int) [ 8000, 96000 ]"

static GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS(
        "audio/mpeg, mpegversion = (int) { 2, 4 }, stream-format = (string) { adts, raw "
        "}, " RUVO_AUDIO_CAPS_RANGE
        "; audio/x-ac3, framed = (boolean) true, alignment = (string) frame, " RUVO_AUDIO_CAPS_RANGE
        "; audio/x-eac3, framed = (boolean) true, alignment = (string) frame, " RUVO_AUDIO_CAPS_RANGE));

static GType ruvo_audio_sink_sync_mode_get_type() {
    static GType type = 0;
    static const GEnumValue values[] = {
        {quarvel_audio_output_sync_mode__free_run, "The decoder runs free", "free-run"},
        {quarvel_audio_output_sync_mode__sync_to_video, "The decoder syncs to the TV's video",
         "sync-to-video"},
        {quarvel_audio_output_sync_mode__sync_to_external_video, "The decoder syncs to external video",
         "sync-to-external-video"},
        {0, nullptr, nullptr}};
    if (g_once_init_enter(&type))
        g_once_init_leave(&type, g_enum_register_static("RuvoAudioSinkSyncMode", values));
    return type;
}

// ---- The output: open, setup, gain, speed ------------------------------------------------

static void apply_gain_locked(RuvoAudioSinkState* s) {
    quarvel_audio_output_volume_control(s->out, s->mute ? 0.0f : static_cast<float>(s->volume));
}

// The playback-rate control: the segment's rate while playing, 0 while paused with a stream
// in the decoder (the decoder then holds what it has, and the clock stands).
static void apply_speed_locked(RuvoAudioSinkState* s) {
    const double speed = s->paused && s->stream_started ? 0.0 : s->rate;
    if (speed == s->applied_speed)
        return;
    quarvel_audio_output_speed_control(s->out, static_cast<float>(speed));
    s->applied_speed = speed;
}

// What the library's own close put back to normal (gain and rate 1.0), set again.
static void restore_controls_locked(RuvoAudioSinkState* s) {
    if (s->mute || s->volume != 1.0)
        apply_gain_locked(s);
    s->applied_speed = 1.0;
    apply_speed_locked(s);
}

// No stream plays (none yet, or it played out or was stopped): the clock runs on with the
// monotonic clock as silence plays, and stands while paused. A stream's first block must
// wait for its running time, which a standing clock would never reach.
static void start_idle_clock_locked(RuvoAudioSinkState* s) {
    s->drained = true;
    s->idle_from = s->last_heard;
    s->idle_since_ns = monotonic_raw_ns();
}

static bool open_output_locked(RuvoAudioSink* self) {
    RuvoAudioSinkState* s = self->s;
    errno = 0;
    s->out = quarvel_audio_output_open(s->device.c_str());
    if (s->out == nullptr) {
        const int err = errno != 0 ? errno : ENODEV;
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_WRITE,
                          ("Could not open audio device \"%s\".", s->device.c_str()),
                          ("%s: %s", s->device.c_str(), g_strerror(err)));
        return false;
    }
    restore_controls_locked(s);
    start_idle_clock_locked(s);
    return true;
}

static void close_output_locked(RuvoAudioSinkState* s) {
    if (s->out == nullptr)
        return;
    quarvel_audio_output_close(s->out);
    s->out = nullptr;
    s->stream_started = false;
    s->have_report = false;
    s->applied_speed = 1.0;
}

static bool setup_output_locked(RuvoAudioSink* self, const StreamConfig& config) {
    RuvoAudioSinkState* s = self->s;
    quarvel_audio_output_setup_params_s params{};
    params.channels = config.channels;
    params.sample_rate = config.rate;
    const int r = quarvel_audio_output_setup(s->out, &params);
    if (r != 0) {
        GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("Could not set up the audio decoder."),
                          ("setup of %u channels at %u Hz answered %d", config.channels, config.rate, r));
        return false;
    }
    const int m = quarvel_audio_output_set_sync_mode(s->out, s->sync_mode);
    if (m != 0)
        GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS, ("Could not set the decoder's sync mode."),
                            ("set_sync_mode(%d) answered %d", s->sync_mode, m));
    s->config = config;
    s->have_report = false;
    return true;
}

// The output's descriptor closed and opened again: a failed stream start leaves the
// library's count of written frames above zero, so it would never start the stream again.
static bool reopen_output_locked(RuvoAudioSink* self) {
    RuvoAudioSinkState* s = self->s;
    const StreamConfig config = s->config;
    close_output_locked(s);
    s->stats.reopens++;
    s->timeline.restart(s->last_heard);
    return open_output_locked(self) && setup_output_locked(self, config);
}

// ---- Playback reports and the clock ----------------------------------------------------

static uint64_t frames_to_ns(uint64_t frames, uint32_t rate) {
    return rate == 0 ? 0 : gst_util_uint64_scale(frames, GST_SECOND, rate);
}

// One playback report, read into the decoder's units. False when the library refused.
static bool poll_locked(RuvoAudioSinkState* s) {
    quarvel_audio_output_info_s info{};
    s->last_poll_us = g_get_monotonic_time();
    s->stats.reports++;
    if (quarvel_audio_output_get_info(s->out, &info) != 0)
        return false;
    // The library reports remain + in-transit bytes in frames of 2 bytes per channel;
    // what is decoded and not yet played is the remain part alone.
    const uint64_t frame_bytes = 2ull * s->config.channels;
    const int64_t delay_bytes = static_cast<int64_t>(info.frames_delay) * static_cast<int64_t>(frame_bytes);
    const int64_t remain = std::max<int64_t>(info.remain_size, 0);
    s->report.wallclock_ns = info.wallclock_us * 1000;
    const uint64_t in_transit = static_cast<uint64_t>(std::max<int64_t>(delay_bytes - remain, 0));
    const uint64_t written = s->timeline.bytes_written();
    s->report.taken = written > in_transit ? written - in_transit : 0;
    s->report.remain_ns = frames_to_ns(static_cast<uint64_t>(remain) / frame_bytes, s->config.rate);
    s->report_free = info.bytes_free;
    s->have_report = true;
    const bool empty = info.frames_delay == 0 && s->stream_started;
    if (empty && !s->starved && !s->paused)
        s->stats.underruns++;
    s->starved = empty;
    return true;
}

static uint64_t heard_now_locked(RuvoAudioSinkState* s) {
    if (s->drained) {
        if (!s->paused)
            s->last_heard = std::max(s->last_heard, s->idle_from + (monotonic_raw_ns() - s->idle_since_ns));
        return s->last_heard;
    }
    if (!s->have_report || s->timeline.empty())
        return s->last_heard;
    const bool playing = !s->paused && s->applied_speed > 0.0;
    const uint64_t heard = s->timeline.heard_now(s->report, monotonic_raw_ns(), playing);
    s->last_heard = std::max(s->last_heard, heard);
    return s->last_heard;
}

static bool report_is_stale_locked(const RuvoAudioSinkState* s) {
    return !s->have_report || g_get_monotonic_time() - s->last_poll_us >= RUVO_AUDIO_SINK_POLL_INTERVAL_US;
}

// The provided clock: the device time of the sample leaving the decoder now.
static GstClockTime clock_time(GstClock*, gpointer user_data) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(user_data)->s;
    s->lock.lock();
    if (s->out != nullptr && s->stream_started && !s->drained && report_is_stale_locked(s))
        poll_locked(s);
    const uint64_t t = heard_now_locked(s);
    s->lock.unlock();
    return t;
}

static GstClock* ruvo_audio_sink_provide_clock(GstElement* element) {
    return GST_CLOCK_CAST(gst_object_ref(RUVO_AUDIO_SINK(element)->s->clock));
}

// ---- Waiting --------------------------------------------------------------------------

enum class WaitResult { Again, Paused };

// Waits on the condition with the lock held (and released while waiting) until
// `due_us` of g_get_monotonic_time, the same clock as steady_clock's.
static void wait_until_locked(RuvoAudioSinkState* s, gint64 due_us) {
    std::unique_lock<std::mutex> held(s->lock, std::adopt_lock);
    s->cond.wait_until(held, std::chrono::steady_clock::time_point(std::chrono::microseconds(due_us)));
    held.release();
}

// Sleeps until the decoder may have made room for `need` bytes (or played `need` bytes of
// what it holds): the time the stream's byte rate says, at least until the next report is
// due, at most kMaxWaitUs. A flush, a state change or a pause wakes it at once; the caller
// then waits in the base sink (Paused).
static WaitResult wait_for_decoder_locked(RuvoAudioSinkState* s, uint64_t need) {
    if (s->unlocked || s->paused)
        return WaitResult::Paused;
    gint64 wait_us = RUVO_AUDIO_SINK_POLL_INTERVAL_US;
    const double bytes_per_second =
        static_cast<double>(s->timeline.bytes_per_second()) * std::max(s->rate, 0.01);
    if (bytes_per_second > 0)
        wait_us = std::max<gint64>(wait_us,
                                   static_cast<gint64>(static_cast<double>(need) * 1e6 / bytes_per_second));
    wait_us = std::min(wait_us, kMaxWaitUs);
    const gint64 due = std::max(s->last_poll_us + wait_us, g_get_monotonic_time() + 1000);
    s->stats.waits++;
    while (!s->unlocked && !s->paused && g_get_monotonic_time() < due)
        wait_until_locked(s, due);
    return s->unlocked || s->paused ? WaitResult::Paused : WaitResult::Again;
}

// In PAUSED, or when the base sink unlocks the element (a flush, a state change), the
// streaming thread waits in the base sink: it returns OK on PLAYING, FLUSHING on a flush or
// on the way down to READY.
static GstFlowReturn wait_while_paused(RuvoAudioSink* self) {
    RuvoAudioSinkState* s = self->s;
    s->lock.unlock();
    const GstFlowReturn ret = gst_base_sink_wait_preroll(GST_BASE_SINK(self));
    s->lock.lock();
    return ret;
}

// ---- Writing blocks --------------------------------------------------------------------

// A failed write or start: a warning, an error once RUVO_AUDIO_SINK_ERRORS_IN_A_ROW failed
// in a row.
static GstFlowReturn count_failure_locked(RuvoAudioSink* self, const char* what, int result) {
    RuvoAudioSinkState* s = self->s;
    s->stats.failures++;
    if (++s->errors_in_row >= RUVO_AUDIO_SINK_ERRORS_IN_A_ROW) {
        GST_ELEMENT_ERROR(self, RESOURCE, WRITE,
                          ("The audio decoder refused %d blocks in a row.", s->errors_in_row),
                          ("%s answered %d", what, result));
        return GST_FLOW_ERROR;
    }
    GST_ELEMENT_WARNING(self, RESOURCE, WRITE, ("The audio decoder refused a block."),
                        ("%s answered %d (%d in a row)", what, result, s->errors_in_row));
    return GST_FLOW_OK;
}

// The time on this element's clock at which a block of running time `running` is due.
// False when the pipeline runs on another clock, or the block has no running time.
static bool due_on_own_clock(RuvoAudioSink* self, GstClockTime running, uint64_t* due) {
    GST_OBJECT_LOCK(self);
    const bool on_own_clock = GST_ELEMENT_CLOCK(self) == self->s->clock;
    GST_OBJECT_UNLOCK(self);
    if (!on_own_clock || !GST_CLOCK_TIME_IS_VALID(running))
        return false;
    *due = gst_element_get_base_time(GST_ELEMENT(self)) + running;
    return true;
}

// A new stream's first block: its device time follows on from what was heard, or, when
// the pipeline runs on this element's clock, from the block's own running time.
static void start_timeline_locked(RuvoAudioSink* self, GstClockTime running) {
    RuvoAudioSinkState* s = self->s;
    uint64_t start = s->last_heard;
    uint64_t due = 0;
    if (due_on_own_clock(self, running, &due))
        start = std::max<uint64_t>(start, due);
    s->timeline.restart(start);
    s->drained = false;
    s->running_origin = GST_CLOCK_TIME_IS_VALID(running) ? running : 0;
}

static void account_block_locked(RuvoAudioSinkState* s, size_t bytes, uint64_t device_ns) {
    s->timeline.add_block(bytes, device_ns);
    s->stream_started = true;
    s->report_free -= static_cast<gint64>(bytes);
    s->stats.bytes += bytes;
    s->stats.blocks++;
    s->errors_in_row = 0;
}

// Writes one block once the decoder has room for it. The room is checked from the
// playback report first: the library prints a line for every no-space answer.
static GstFlowReturn write_block_locked(RuvoAudioSink* self, const uint8_t* data, size_t size,
                                        uint64_t device_ns) {
    RuvoAudioSinkState* s = self->s;
    // The library counts 2 bytes per channel per frame and adds the header bytes: passing
    // the block's tail beyond whole frames as header bytes keeps its count of bytes written
    // exact, and with it the delay it reports. No header bytes are written.
    const unsigned tail = static_cast<unsigned>(size % (2u * s->config.channels));
    for (;;) {
        if (s->unlocked || s->paused) {
            const GstFlowReturn ret = wait_while_paused(self);
            if (ret != GST_FLOW_OK)
                return ret;
            continue;
        }
        if (!s->have_report || s->report_free < static_cast<gint64>(size)) {
            if (report_is_stale_locked(s) && !poll_locked(s)) {
                const GstFlowReturn ret = count_failure_locked(self, "get_info", -1);
                if (ret != GST_FLOW_OK)
                    return ret;
            }
            if (s->report_free < static_cast<gint64>(size)) {
                wait_for_decoder_locked(s, static_cast<uint64_t>(size));
                continue;
            }
        }
        const int r = quarvel_audio_output_push_data(s->out, data, static_cast<unsigned>(size) - tail, tail);
        if (r == 0) {
            account_block_locked(s, size, device_ns);
            return GST_FLOW_OK;
        }
        if (r == -2) {  // the driver's room shrank under the report: wait for the next one
            s->stats.no_space++;
            s->report_free = 0;
            continue;
        }
        if (r == -4) {  // the block is written, the stream is not started: start afresh
            GstFlowReturn ret = count_failure_locked(self, "stream start (the device is reopened)", r);
            if (ret == GST_FLOW_OK && !reopen_output_locked(self))
                ret = GST_FLOW_ERROR;
            if (ret != GST_FLOW_OK)
                return ret;
            continue;
        }
        s->have_report = false;
        return count_failure_locked(self, "push_data", r);  // the block is dropped
    }
}

// Drains the stream: returns once the decoder played everything written.
static GstFlowReturn drain_locked(RuvoAudioSink* self) {
    RuvoAudioSinkState* s = self->s;
    while (s->out != nullptr && s->stream_started) {
        if (s->unlocked || s->paused) {
            const GstFlowReturn ret = wait_while_paused(self);
            if (ret != GST_FLOW_OK)
                return ret;
            continue;
        }
        if (report_is_stale_locked(s) && !poll_locked(s)) {
            const GstFlowReturn ret = count_failure_locked(self, "get_info", -1);
            if (ret != GST_FLOW_OK)
                return ret;
        }
        const uint64_t written = s->timeline.bytes_written();
        if (s->have_report && s->report.taken >= written && s->report.remain_ns == 0) {
            s->last_heard = std::max(s->last_heard, s->timeline.end_ns());
            start_idle_clock_locked(s);
            return GST_FLOW_OK;
        }
        const uint64_t left = s->have_report && s->report.taken < written ? written - s->report.taken : 1;
        wait_for_decoder_locked(s, left);
    }
    return GST_FLOW_OK;
}

// Stops the stream (the driver drops what it holds); the next block starts a new one, and
// until then the clock runs idle.
static void stop_stream_locked(RuvoAudioSinkState* s) {
    if (s->out != nullptr && s->stream_started) {
        if (s->have_report || poll_locked(s))
            heard_now_locked(s);
        quarvel_audio_output_stop(s->out);
    }
    s->stream_started = false;
    s->after_switch = false;
    s->have_report = false;
    s->starved = false;
    start_idle_clock_locked(s);
}

// A codec or rate change: the stream before it plays out, then the output is set up anew.
static GstFlowReturn switch_stream_locked(RuvoAudioSink* self) {
    RuvoAudioSinkState* s = self->s;
    const GstFlowReturn ret = drain_locked(self);
    if (ret != GST_FLOW_OK)
        return ret;
    stop_stream_locked(s);
    s->switch_pending = false;
    s->after_switch = true;
    return setup_output_locked(self, s->pending) ? GST_FLOW_OK : GST_FLOW_NOT_NEGOTIATED;
}

// A stream spliced after a drained one (an advertisement after a programme) may begin
// before the one before it ended: its first frames are due at a time the clock has
// already passed. Played, they would put the sound behind the picture by the overlap for
// the whole stream; so a frame that is due more than half its length in the past is left
// out, until one is due.
static bool already_passed_locked(RuvoAudioSink* self, GstClockTime running, uint64_t duration) {
    RuvoAudioSinkState* s = self->s;
    if (!s->after_switch || s->stream_started)
        return false;
    uint64_t due = 0;
    if (!due_on_own_clock(self, running, &due) || due + duration / 2 >= heard_now_locked(s)) {
        s->after_switch = false;
        return false;
    }
    s->stats.late++;
    return true;
}

static uint64_t block_duration(const RuvoAudioSinkState* s, GstBuffer* buffer) {
    if (GST_BUFFER_DURATION_IS_VALID(buffer))
        return GST_BUFFER_DURATION(buffer);
    return frames_to_ns(kDefaultSamplesPerFrame[static_cast<int>(s->config.codec)], s->config.rate);
}

// The bytes to write for a buffer: the buffer itself, or an ADTS frame built in `scratch`.
static const uint8_t* block_bytes(RuvoAudioSinkState* s, const GstMapInfo& map, size_t* size) {
    if (s->config.codec != Codec::AacRaw) {
        *size = map.size;
        return map.data;
    }
    if (!ruvo_audio::write_adts_header(s->config.adts, map.size, s->scratch.data()))
        return nullptr;
    memcpy(s->scratch.data() + ruvo_audio::kAdtsHeaderBytes, map.data, map.size);
    *size = map.size + ruvo_audio::kAdtsHeaderBytes;
    return s->scratch.data();
}

// A compressed frame cannot be cut: one that starts before the segment (the frame holding
// an accurate seek's target) would play its lead-in as the segment's start, and the clock
// would run ahead of the sound by up to a frame. The sound starts with the first whole frame
// inside the segment instead. (The base class already drops frames wholly outside it.)
static bool starts_before_segment(GstBaseSink* bsink, GstBuffer* buffer) {
    const GstSegment& segment = bsink->segment;
    return segment.format == GST_FORMAT_TIME && segment.rate > 0 && GST_BUFFER_PTS_IS_VALID(buffer) &&
           GST_BUFFER_PTS(buffer) < segment.start;
}

static GstFlowReturn ruvo_audio_sink_render(GstBaseSink* bsink, GstBuffer* buffer) {
    RuvoAudioSink* self = RUVO_AUDIO_SINK(bsink);
    RuvoAudioSinkState* s = self->s;
    if (starts_before_segment(bsink, buffer)) {
        GST_LOG_OBJECT(self, "frame at %" GST_TIME_FORMAT " starts before the segment: left out",
                       GST_TIME_ARGS(GST_BUFFER_PTS(buffer)));
        return GST_FLOW_OK;
    }
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_ERROR;
    GstFlowReturn ret = GST_FLOW_OK;
    s->lock.lock();
    if (s->switch_pending)
        ret = switch_stream_locked(self);
    size_t size = 0;
    const uint8_t* data = ret == GST_FLOW_OK && map.size > 0 ? block_bytes(s, map, &size) : nullptr;
    if (ret == GST_FLOW_OK && data == nullptr && map.size > 0) {
        GST_ELEMENT_WARNING(self, STREAM, FORMAT, ("An AAC frame too large for ADTS was dropped."),
                            ("%" G_GSIZE_FORMAT " bytes", map.size));
    } else if (ret == GST_FLOW_OK && size > 0) {
        // Only a stream's first block needs its running time.
        const GstClockTime running =
            s->stream_started
                ? GST_CLOCK_TIME_NONE
                : gst_segment_to_running_time(&bsink->segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
        if (already_passed_locked(self, running, block_duration(s, buffer))) {
            GST_LOG_OBJECT(self, "frame at %" GST_TIME_FORMAT " is already past after the switch: left out",
                           GST_TIME_ARGS(GST_BUFFER_PTS(buffer)));
        } else {
            if (!s->stream_started)
                start_timeline_locked(self, running);
            const uint64_t device_ns =
                static_cast<uint64_t>(static_cast<double>(block_duration(s, buffer)) / s->rate);
            ret = write_block_locked(self, data, size, device_ns);
        }
    }
    s->lock.unlock();
    gst_buffer_unmap(buffer, &map);
    return ret;
}

// ---- Caps ------------------------------------------------------------------------------

static bool config_from_caps(GstCaps* caps, StreamConfig* config) {
    const GstStructure* st = gst_caps_get_structure(caps, 0);
    gint channels = 0, rate = 0;
    if (!gst_structure_get_int(st, "channels", &channels) || !gst_structure_get_int(st, "rate", &rate))
        return false;
    config->channels = static_cast<uint32_t>(channels);
    config->rate = static_cast<uint32_t>(rate);
    if (gst_structure_has_name(st, "audio/x-ac3")) {
        config->codec = Codec::Ac3;
        return true;
    }
    if (gst_structure_has_name(st, "audio/x-eac3")) {
        config->codec = Codec::Eac3;
        return true;
    }
    const gchar* format = gst_structure_get_string(st, "stream-format");
    if (g_strcmp0(format, "adts") == 0) {
        config->codec = Codec::AacAdts;
        return true;
    }
    // Raw AAC: the ADTS header the decoder needs comes from the codec data.
    const GValue* codec_data = gst_structure_get_value(st, "codec_data");
    if (codec_data == nullptr || !GST_VALUE_HOLDS_BUFFER(codec_data))
        return false;
    GstMapInfo map;
    GstBuffer* buffer = gst_value_get_buffer(codec_data);
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return false;
    const bool ok = ruvo_audio::adts_config_from_codec_data(map.data, map.size, &config->adts);
    gst_buffer_unmap(buffer, &map);
    gint version = 4;
    gst_structure_get_int(st, "mpegversion", &version);
    config->adts.mpeg2 = version == 2;
    config->codec = Codec::AacRaw;
    return ok;
}

static gboolean ruvo_audio_sink_set_caps(GstBaseSink* bsink, GstCaps* caps) {
    RuvoAudioSink* self = RUVO_AUDIO_SINK(bsink);
    RuvoAudioSinkState* s = self->s;
    StreamConfig config;
    if (!config_from_caps(caps, &config)) {
        GST_ELEMENT_ERROR(self, STREAM, FORMAT, ("Unusable audio caps."), ("%" GST_PTR_FORMAT, caps));
        return FALSE;
    }
    s->lock.lock();
    gboolean ok = TRUE;
    if (s->scratch.size() < ruvo_audio::kAdtsMaxFrameBytes)
        s->scratch.resize(ruvo_audio::kAdtsMaxFrameBytes);
    if (s->out == nullptr) {
        ok = FALSE;
    } else if (s->stream_started) {
        // The stream in the decoder plays out first: the switch happens before the next block.
        s->pending = config;
        s->switch_pending = !(config == s->config);
    } else {
        s->switch_pending = false;
        ok = setup_output_locked(self, config);
    }
    s->lock.unlock();
    return ok;
}

// ---- Events, queries, state ------------------------------------------------------------

static void set_rate_locked(RuvoAudioSinkState* s, double rate) {
    // Compressed audio plays forwards only: a reverse segment plays forwards at its speed.
    s->rate = fabs(rate) > 0.0 ? fabs(rate) : 1.0;
    apply_speed_locked(s);
}

static gboolean ruvo_audio_sink_event(GstBaseSink* bsink, GstEvent* event) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(bsink)->s;
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_FLUSH_START:
            s->lock.lock();
            s->flushing = true;
            s->lock.unlock();
            break;
        case GST_EVENT_FLUSH_STOP:
            s->lock.lock();
            stop_stream_locked(s);
            s->flushing = false;
            s->lock.unlock();
            break;
        case GST_EVENT_SEGMENT: {
            const GstSegment* segment = nullptr;
            gst_event_parse_segment(event, &segment);
            s->lock.lock();
            s->segment_rate = segment->rate;
            set_rate_locked(s, segment->rate);
            s->lock.unlock();
            break;
        }
        case GST_EVENT_INSTANT_RATE_CHANGE: {
            gdouble multiplier = 1.0;
            gst_event_parse_instant_rate_change(event, &multiplier, nullptr);
            s->lock.lock();
            set_rate_locked(s, s->segment_rate * multiplier);
            s->lock.unlock();
            break;
        }
        default:
            break;
    }
    return GST_BASE_SINK_CLASS(ruvo_audio_sink_parent_class)->event(bsink, event);
}

// EOS: posted by the base sink once this returns, so only after the decoder played all.
static GstFlowReturn ruvo_audio_sink_wait_event(GstBaseSink* bsink, GstEvent* event) {
    GstFlowReturn ret = GST_BASE_SINK_CLASS(ruvo_audio_sink_parent_class)->wait_event(bsink, event);
    if (ret != GST_FLOW_OK || GST_EVENT_TYPE(event) != GST_EVENT_EOS)
        return ret;
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(bsink)->s;
    s->lock.lock();
    ret = drain_locked(RUVO_AUDIO_SINK(bsink));
    s->lock.unlock();
    return ret;
}

// The stream time of the sample leaving the decoder now.
static bool played_position(RuvoAudioSink* self, GstFormat format, gint64* position) {
    RuvoAudioSinkState* s = self->s;
    if (format != GST_FORMAT_TIME)
        return false;
    s->lock.lock();
    bool have = s->out != nullptr && s->stream_started;
    GstClockTime running = GST_CLOCK_TIME_NONE;
    if (have) {
        if (report_is_stale_locked(s))
            poll_locked(s);
        // Never past the end of what was written (the clock runs on after EOS).
        const uint64_t heard =
            std::min(std::max(heard_now_locked(s), s->timeline.start_ns()), s->timeline.end_ns());
        running = s->running_origin + (heard - s->timeline.start_ns());
    }
    s->lock.unlock();
    if (!have)
        return false;
    GstBaseSink* bsink = GST_BASE_SINK(self);
    GST_OBJECT_LOCK(self);
    const GstClockTime stream_time = gst_segment_to_stream_time(
        &bsink->segment, GST_FORMAT_TIME,
        gst_segment_position_from_running_time(&bsink->segment, GST_FORMAT_TIME, running));
    GST_OBJECT_UNLOCK(self);
    if (!GST_CLOCK_TIME_IS_VALID(stream_time))
        return false;
    *position = static_cast<gint64>(stream_time);
    return true;
}

// POSITION and LATENCY, asked of the element or of its pad. Other queries: *handled false.
static gboolean answer_query(RuvoAudioSink* self, GstQuery* query,
                             gboolean (*parent)(RuvoAudioSink*, GstQuery*), bool* handled) {
    RuvoAudioSinkState* s = self->s;
    *handled = true;
    switch (GST_QUERY_TYPE(query)) {
        case GST_QUERY_POSITION: {
            s->lock.lock();
            const bool flushing = s->flushing;
            s->lock.unlock();
            if (flushing)
                return FALSE;
            GstFormat format;
            gst_query_parse_position(query, &format, nullptr);
            gint64 position = 0;
            if (played_position(self, format, &position)) {
                gst_query_set_position(query, format, position);
                return TRUE;
            }
            *handled = false;
            return FALSE;
        }
        case GST_QUERY_LATENCY: {
            if (!parent(self, query))
                return FALSE;
            gboolean live = FALSE;
            GstClockTime min = 0, max = GST_CLOCK_TIME_NONE;
            gst_query_parse_latency(query, &live, &min, &max);
            s->lock.lock();
            GstClockTime delay = 0;
            if (s->have_report && !s->timeline.empty())
                delay = s->timeline.end_ns() - std::min(s->timeline.end_ns(), heard_now_locked(s));
            s->lock.unlock();
            gst_query_set_latency(query, live, min + delay, GST_CLOCK_TIME_IS_VALID(max) ? max + delay : max);
            return TRUE;
        }
        default:
            break;
    }
    *handled = false;
    return FALSE;
}

static gboolean parent_sink_query(RuvoAudioSink* self, GstQuery* query) {
    return GST_BASE_SINK_CLASS(ruvo_audio_sink_parent_class)->query(GST_BASE_SINK(self), query);
}

static gboolean parent_element_query(RuvoAudioSink* self, GstQuery* query) {
    return GST_ELEMENT_CLASS(ruvo_audio_sink_parent_class)->query(GST_ELEMENT(self), query);
}

static gboolean ruvo_audio_sink_query(GstBaseSink* bsink, GstQuery* query) {
    bool handled = false;
    const gboolean answer = answer_query(RUVO_AUDIO_SINK(bsink), query, parent_sink_query, &handled);
    return handled ? answer : parent_sink_query(RUVO_AUDIO_SINK(bsink), query);
}

static gboolean ruvo_audio_sink_element_query(GstElement* element, GstQuery* query) {
    bool handled = false;
    const gboolean answer = answer_query(RUVO_AUDIO_SINK(element), query, parent_element_query, &handled);
    return handled ? answer : parent_element_query(RUVO_AUDIO_SINK(element), query);
}

static gboolean ruvo_audio_sink_unlock(GstBaseSink* bsink) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(bsink)->s;
    s->lock.lock();
    s->unlocked = true;
    s->cond.notify_all();
    s->lock.unlock();
    return TRUE;
}

static gboolean ruvo_audio_sink_unlock_stop(GstBaseSink* bsink) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(bsink)->s;
    s->lock.lock();
    s->unlocked = false;
    s->lock.unlock();
    return TRUE;
}

static void set_paused(RuvoAudioSinkState* s, bool paused) {
    s->lock.lock();
    s->paused = paused;
    if (!paused && s->drained)
        start_idle_clock_locked(s);
    if (s->out != nullptr)
        apply_speed_locked(s);
    // The clock stands where the decoder holds: read once it holds.
    if (paused && s->out != nullptr && s->stream_started && !s->drained && poll_locked(s))
        heard_now_locked(s);
    if (!paused && s->have_report)
        s->report.wallclock_ns = monotonic_raw_ns();  // nothing played while paused
    s->cond.notify_all();
    s->lock.unlock();
}

static GstStateChangeReturn ruvo_audio_sink_change_state(GstElement* element, GstStateChange transition) {
    RuvoAudioSink* self = RUVO_AUDIO_SINK(element);
    RuvoAudioSinkState* s = self->s;
    switch (transition) {
        case GST_STATE_CHANGE_NULL_TO_READY: {
            s->lock.lock();
            const bool opened = open_output_locked(self);
            s->lock.unlock();
            if (!opened)
                return GST_STATE_CHANGE_FAILURE;
            break;
        }
        case GST_STATE_CHANGE_PAUSED_TO_PLAYING:
            set_paused(s, false);
            break;
        case GST_STATE_CHANGE_PLAYING_TO_PAUSED:
            set_paused(s, true);
            break;
        default:
            break;
    }
    const GstStateChangeReturn ret =
        GST_ELEMENT_CLASS(ruvo_audio_sink_parent_class)->change_state(element, transition);
    switch (transition) {
        case GST_STATE_CHANGE_PAUSED_TO_READY:
            s->lock.lock();
            stop_stream_locked(s);
            s->switch_pending = false;
            s->config = StreamConfig();
            s->rate = s->segment_rate = 1.0;
            s->errors_in_row = 0;
            s->lock.unlock();
            break;
        case GST_STATE_CHANGE_READY_TO_NULL:
            s->lock.lock();
            close_output_locked(s);
            s->lock.unlock();
            break;
        default:
            break;
    }
    return ret;
}

// ---- Properties ------------------------------------------------------------------------

static GstStructure* stats_structure(RuvoAudioSinkState* s) {
    s->lock.lock();
    if (s->out != nullptr && s->stream_started && report_is_stale_locked(s))
        poll_locked(s);
    const Stats st = s->stats;
    GstClockTime delay = 0;
    if (s->have_report && !s->timeline.empty())
        delay = s->timeline.end_ns() - std::min(s->timeline.end_ns(), heard_now_locked(s));
    s->lock.unlock();
    return gst_structure_new("application/x-ruvoaudiosink-stats", "bytes-pushed", G_TYPE_UINT64, st.bytes,
                             "blocks-pushed", G_TYPE_UINT64, st.blocks, "no-space", G_TYPE_UINT64,
                             st.no_space, "underruns", G_TYPE_UINT64, st.underruns, "delay", G_TYPE_UINT64,
                             delay, "waits", G_TYPE_UINT64, st.waits, "reports", G_TYPE_UINT64, st.reports,
                             "reopens", G_TYPE_UINT64, st.reopens, "failures", G_TYPE_UINT64, st.failures,
                             "late", G_TYPE_UINT64, st.late, nullptr);
}

static void ruvo_audio_sink_set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(object)->s;
    s->lock.lock();
    switch (id) {
        case PROP_DEVICE:
            s->device = g_value_get_string(value) != nullptr ? g_value_get_string(value)
                                                             : RUVO_AUDIO_SINK_DEFAULT_DEVICE;
            break;
        case PROP_SYNC_MODE:
            s->sync_mode = static_cast<quarvel_audio_output_sync_mode_t>(g_value_get_enum(value));
            if (s->out != nullptr && s->config.codec != Codec::None)
                quarvel_audio_output_set_sync_mode(s->out, s->sync_mode);
            break;
        case PROP_VOLUME:
            s->volume = g_value_get_double(value);
            if (s->out != nullptr && !s->mute)
                apply_gain_locked(s);
            break;
        case PROP_MUTE: {
            const bool mute = g_value_get_boolean(value);
            const bool changed = mute != s->mute;
            s->mute = mute;
            if (s->out != nullptr && changed)
                apply_gain_locked(s);
            break;
        }
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    s->lock.unlock();
}

static void ruvo_audio_sink_get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(object)->s;
    if (id == PROP_STATS) {
        g_value_take_boxed(value, stats_structure(s));
        return;
    }
    s->lock.lock();
    switch (id) {
        case PROP_DEVICE:
            g_value_set_string(value, s->device.c_str());
            break;
        case PROP_SYNC_MODE:
            g_value_set_enum(value, s->sync_mode);
            break;
        case PROP_VOLUME:
            g_value_set_double(value, s->volume);
            break;
        case PROP_MUTE:
            g_value_set_boolean(value, s->mute);
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
            break;
    }
    s->lock.unlock();
}

// ---- Type ------------------------------------------------------------------------------

static void ruvo_audio_sink_init(RuvoAudioSink* self) {
    self->s = new RuvoAudioSinkState();
    self->s->clock = gst_audio_clock_new("ruvoaudiosinkclock", clock_time, self, nullptr);
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_PROVIDE_CLOCK);
    // The decoder paces the stream: blocks go to it as soon as it has room, not at their
    // time on the clock.
    gst_base_sink_set_sync(GST_BASE_SINK(self), FALSE);
}

static void ruvo_audio_sink_finalize(GObject* object) {
    RuvoAudioSinkState* s = RUVO_AUDIO_SINK(object)->s;
    gst_audio_clock_invalidate(GST_AUDIO_CLOCK(s->clock));
    gst_object_unref(s->clock);
    close_output_locked(s);
    delete s;
    G_OBJECT_CLASS(ruvo_audio_sink_parent_class)->finalize(object);
}

static void ruvo_audio_sink_class_init(RuvoAudioSinkClass* klass) {
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseSinkClass* sink_class = GST_BASE_SINK_CLASS(klass);
    gobject_class->set_property = ruvo_audio_sink_set_property;
    gobject_class->get_property = ruvo_audio_sink_get_property;
    gobject_class->finalize = ruvo_audio_sink_finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const auto playing_flags = static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_PLAYING);
    g_object_class_install_property(
        gobject_class, PROP_DEVICE,
        g_param_spec_string("device", "Device", "Compressed-offload device node of the audio decoder",
                            RUVO_AUDIO_SINK_DEFAULT_DEVICE,
                            static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_READY)));
    g_object_class_install_property(
        gobject_class, PROP_SYNC_MODE,
        g_param_spec_enum("sync-mode", "Sync mode", "How the decoder keeps time against the video",
                          ruvo_audio_sink_sync_mode_get_type(), quarvel_audio_output_sync_mode__free_run,
                          playing_flags));
    g_object_class_install_property(
        gobject_class, PROP_VOLUME,
        g_param_spec_double("volume", "Volume",
                            "Linear volume of the speaker and headphone gain controls (1.0 = unity gain)",
                            0.0, 10.0, 1.0, playing_flags));
    g_object_class_install_property(
        gobject_class, PROP_MUTE,
        g_param_spec_boolean("mute", "Mute", "Gain 0 while set; the volume comes back when cleared", FALSE,
                             playing_flags));
    g_object_class_install_property(
        gobject_class, PROP_STATS,
        g_param_spec_boxed(
            "stats", "Statistics",
            "bytes-pushed, blocks-pushed, no-space (answers met), underruns, delay (ns queued in "
            "the decoder), waits, reports (playback reports read), reopens, failures, late (frames "
            "left out after a codec switch because the clock had passed them)",
            GST_TYPE_STRUCTURE, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));

    gst_element_class_set_static_metadata(
        element_class, "TV compressed-audio sink", "Sink/Audio",
        "Plays AAC, AC-3 and E-AC-3 on the TV's audio decoder and provides the "
        "pipeline clock from its playback position",
        "ruvo_avsink_interface");
    gst_element_class_add_static_pad_template(element_class, &sink_template);
    element_class->change_state = ruvo_audio_sink_change_state;
    element_class->provide_clock = ruvo_audio_sink_provide_clock;
    element_class->query = ruvo_audio_sink_element_query;
    sink_class->set_caps = ruvo_audio_sink_set_caps;
    sink_class->render = ruvo_audio_sink_render;
    sink_class->event = ruvo_audio_sink_event;
    sink_class->wait_event = ruvo_audio_sink_wait_event;
    sink_class->query = ruvo_audio_sink_query;
    sink_class->unlock = ruvo_audio_sink_unlock;
    sink_class->unlock_stop = ruvo_audio_sink_unlock_stop;
    gst_type_mark_as_plugin_api(ruvo_audio_sink_sync_mode_get_type(), static_cast<GstPluginAPIFlags>(0));
}

gboolean ruvo_audio_sink_register(GstPlugin* plugin) {
    GST_DEBUG_CATEGORY_INIT(ruvo_audio_sink_debug, "ruvoaudiosink", 0, "TV compressed-audio sink");
    return gst_element_register(plugin, "ruvoaudiosink", GST_RANK_PRIMARY, RUVO_TYPE_AUDIO_SINK);
}
