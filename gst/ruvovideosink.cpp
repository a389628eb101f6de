// ruvovideosink: shows decoded video on the TV's main video plane through the library's
// video output.
//
// Threads: the streaming thread renders; an application (a browser's compositor thread)
// moves the rectangle, hides the video or hands the screen back to broadcast; anyone reads
// the properties and asks for the position. The library does not synchronise calls on one
// handle, so every library call here runs under `handle_lock`, which is never held across
// a clock wait.
#include "ruvovideosink.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <new>

#include <gst/video/video.h>
#include <gst/video/videooverlay.h>

#include "ruvo/gst/ruvo_frame_meta.h"
#include "ruvo/quarvel_video_output.h"
#include "ruvo_gst_register.h"
#include "ruvovideosink_frames.h"

GST_DEBUG_CATEGORY_STATIC(ruvo_video_sink_debug);
#define GST_CAT_DEFAULT ruvo_video_sink_debug

namespace {

constexpr int kMaxFrameSide = 8192;
constexpr gint64 kDefaultVsyncPeriodUs = 20000;  // 50 Hz, when the driver has no rate yet

// Frame rate and pixel aspect are left out of the template (caps without them are
// accepted); set_caps refuses an absurd value of either.
GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-raw(" RUVO_CAPS_FEATURE_META_FRAME
                    "), format = (string) { NV12, I420, P010_10LE, ENCODED }, width = (int) [ 1, 8192 ], "
                    "height = (int) [ 1, 8192 ]; "
                    "video/x-raw, format = (string) { NV12, I420, P010_10LE }, width = (int) [ 1, 8192 ], "
                    "height = (int) [ 1, 8192 ]"));

constexpr int kMaxAspectTerm = 255;  // pixel aspect between 1/255 and 255/1
constexpr int kMaxFrameRate = 240;

bool plausible(const GstVideoInfo& info) {
    const int w = GST_VIDEO_INFO_WIDTH(&info);
    const int h = GST_VIDEO_INFO_HEIGHT(&info);
    const int par_n = GST_VIDEO_INFO_PAR_N(&info);
    const int par_d = GST_VIDEO_INFO_PAR_D(&info);
    const int fps_n = GST_VIDEO_INFO_FPS_N(&info);
    const int fps_d = GST_VIDEO_INFO_FPS_D(&info);
    return w > 0 && h > 0 && w <= kMaxFrameSide && h <= kMaxFrameSide && par_n > 0 && par_d > 0 &&
           static_cast<gint64>(par_n) <= static_cast<gint64>(kMaxAspectTerm) * par_d &&
           static_cast<gint64>(par_d) <= static_cast<gint64>(kMaxAspectTerm) * par_n && fps_n >= 0 &&
           fps_d > 0 && static_cast<gint64>(fps_n) <= static_cast<gint64>(kMaxFrameRate) * fps_d;
}

enum {
    PROP_0,
    PROP_RECTANGLE,
    PROP_SHOW_VIDEO_WINDOW,
    PROP_VIDEO_WIDTH,
    PROP_VIDEO_HEIGHT,
    PROP_DISPLAY_WIDTH,
    PROP_DISPLAY_HEIGHT,
    PROP_QUEUED_FRAMES,
    PROP_VIDEO_PTS,
    PROP_VSYNC_RATE,
    PROP_STATS,
    PROP_LAST
};

enum { SIGNAL_FIRST_VIDEO_FRAME, SIGNAL_HAND_BACK_TO_BROADCAST, SIGNAL_LAST };
guint sink_signals[SIGNAL_LAST];

// Everything the element keeps; C++ members, constructed in instance_init.
struct SinkState {
    // ---- under handle_lock ----
    std::mutex handle_lock;
    quarvel_video_output_s* output = nullptr;
    int panel_width = 0;
    int panel_height = 0;
    quarvel_video_output_rect_s wanted{};  // the application's rectangle (x, y, w, h)
    bool rect_set = false;                 // false: the whole panel
    bool visible = true;
    ruvo_gst::ContentAspect aspect;  // of the negotiated content
    int video_width = 0;
    int video_height = 0;
    ruvo_gst::PanelHistory history;

    // ---- streaming thread ----
    bool meta_caps = false;
    v4l2_drm desc{};
    quarvel_video_output_frame_s frame{};
    uint32_t next_display_index = 0;
    uint32_t shown_width = 0;  // size and aspect value of the last frame handed over
    uint32_t shown_height = 0;
    uint32_t shown_aspect = 0;
    bool first_latched = false;
    gint64 first_frame_us = 0;
    unsigned failed_in_a_row = 0;
    GstBuffer* last_buffer = nullptr;  // the frame on the plane, kept while it is shown
    GstBuffer* prerolled = nullptr;    // shown in PAUSED, its timestamp still to be set

    // ---- waits at the end of the stream ----
    GMutex wait_mutex;
    GCond wait_cond;
    bool unlocked = false;

    // ---- any thread ----
    std::atomic<bool> flushing{false};
    std::atomic<gint64> video_pts{-1};
    std::atomic<guint64> dropped{0};
    std::atomic<guint64> first_frame_latency_ns{0};
    std::atomic<guint64> vsyncs_seen{0};
    std::atomic<guint64> latch_lead_ns{kDefaultVsyncPeriodUs * 1000};  // one vsync of the panel
    std::atomic<guint64> rectangle_updates{0};
    std::atomic<guint64> resolution_changes{0};
    std::atomic<guint64> failed_calls{0};
};

}  // namespace

struct _RuvoVideoSink {
    GstVideoSink parent;
    SinkState* s;
};

static void ruvo_video_sink_overlay_init(GstVideoOverlayInterface* iface);

G_DEFINE_TYPE_WITH_CODE(RuvoVideoSink, ruvo_video_sink, GST_TYPE_VIDEO_SINK,
                        G_IMPLEMENT_INTERFACE(GST_TYPE_VIDEO_OVERLAY, ruvo_video_sink_overlay_init))

namespace {

using Lock = std::lock_guard<std::mutex>;

SinkState& state(gpointer self) {
    return *RUVO_VIDEO_SINK(self)->s;
}

// ---------------------------------------------------------------------------------------
// Geometry

quarvel_video_output_rect_s effective_rect(const SinkState& s) {
    quarvel_video_output_rect_s r{};
    if (s.visible) {
        if (s.rect_set) {
            r = s.wanted;
        } else {
            r.w = static_cast<uint32_t>(s.panel_width);
            r.h = static_cast<uint32_t>(s.panel_height);
        }
    }
    r.dar_w = s.aspect.num;
    r.dar_h = s.aspect.den;
    return r;
}

// Hands the current wish to the library (which only stores it before the first frame).
void apply_rect_locked(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    if (s.output == nullptr) {
        return;
    }
    const quarvel_video_output_rect_s r = effective_rect(s);
    const int rc = quarvel_video_output_set_rect(s.output, &r);
    s.rectangle_updates++;
    if (rc < 0) {
        s.failed_calls++;
        GST_WARNING_OBJECT(self, "set_rect(%d,%d %ux%u) returned %d", r.x, r.y, r.w, r.h, rc);
    }
}

void set_rectangle(RuvoVideoSink* self, gint x, gint y, gint w, gint h) {
    SinkState& s = *self->s;
    if ((w < 0 || h < 0) && !(w == -1 && h == -1)) {
        GST_WARNING_OBJECT(self, "ignoring rectangle %d,%d %dx%d", x, y, w, h);
        return;
    }
    Lock lock(s.handle_lock);
    s.rect_set = !(w == -1 && h == -1);
    s.wanted = {x, y, static_cast<uint32_t>(s.rect_set ? w : 0), static_cast<uint32_t>(s.rect_set ? h : 0),
                0, 0};
    GST_DEBUG_OBJECT(self, "rectangle %d,%d %dx%d", x, y, w, h);
    apply_rect_locked(self);
}

// "x,y,w,h" as browsers' hole-punch integrations write it.
bool parse_rectangle(const gchar* text, gint* x, gint* y, gint* w, gint* h) {
    if (text == nullptr) {
        return false;
    }
    int consumed = 0;
    if (sscanf(text, " %d , %d , %d , %d %n", x, y, w, h, &consumed) != 4 || text[consumed] != '\0') {
        return false;
    }
    return *w >= 0 && *h >= 0;
}

void set_visible(RuvoVideoSink* self, bool visible) {
    SinkState& s = *self->s;
    Lock lock(s.handle_lock);
    if (s.visible == visible) {
        return;
    }
    s.visible = visible;
    apply_rect_locked(self);
}

// ---------------------------------------------------------------------------------------
// Lifecycle

bool open_output(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    Lock lock(s.handle_lock);
    errno = 0;
    s.output = quarvel_video_output_open(false);
    if (s.output == nullptr) {
        const int err = errno;
        GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ_WRITE, ("Could not open the TV's main video plane."),
                          ("quarvel_video_output_open failed: %s (errno %d)",
                           err ? g_strerror(err) : "no reason given", err));
        return false;
    }
    quarvel_video_output_get_panel_size(s.output, &s.panel_width, &s.panel_height);
    GST_INFO_OBJECT(self, "video plane open, panel %dx%d", s.panel_width, s.panel_height);
    apply_rect_locked(self);
    return true;
}

void close_output(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    Lock lock(s.handle_lock);
    if (s.output != nullptr) {
        quarvel_video_output_close(s.output);
        s.output = nullptr;
    }
    s.first_latched = false;
    s.shown_width = s.shown_height = s.shown_aspect = 0;
}

void forget_stream(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    {
        Lock lock(s.handle_lock);
        s.history.reset();
    }
    s.prerolled = nullptr;
    gst_buffer_replace(&s.last_buffer, nullptr);
    s.failed_in_a_row = 0;
    s.flushing = false;
}

// ---------------------------------------------------------------------------------------
// Frames

bool possible_frame_size(const v4l2_drm_dec_info& dec) {
    return dec.hres > 0 && dec.vres > 0 && dec.hres <= kMaxFrameSide && dec.vres <= kMaxFrameSide;
}

// Fills the descriptor handed to the library for `buf`. A buffer that does not carry the
// frame its caps promise (no meta on meta caps, no picture, an impossible size) is a
// negotiation error and never reaches the library.
GstFlowReturn describe_buffer(RuvoVideoSink* self, GstBuffer* buf) {
    SinkState& s = *self->s;
    if (s.meta_caps) {
        const RuvoFrameMeta* meta = gst_buffer_get_ruvo_frame_meta(buf);
        if (meta == nullptr) {
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("A buffer without the decoder frame meta."),
                              ("caps carry the " RUVO_CAPS_FEATURE_META_FRAME
                               " feature but buffer %" GST_PTR_FORMAT " has no RuvoFrameMeta",
                               buf));
            return GST_FLOW_NOT_NEGOTIATED;
        }
        const v4l2_drm_dec_info& dec = meta->frame.u.dec_info;
        if (!possible_frame_size(dec)) {
            GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("A decoder frame of an impossible size."),
                              ("descriptor size %ux%u", dec.hres, dec.vres));
            return GST_FLOW_NOT_NEGOTIATED;
        }
        memcpy(&s.desc, &meta->frame, sizeof s.desc);
        s.frame.dv_profile = meta->dv_profile;
        return GST_FLOW_OK;
    }
    if (gst_buffer_get_size(buf) == 0) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("An empty video frame."),
                          ("buffer %" GST_PTR_FORMAT, buf));
        return GST_FLOW_NOT_NEGOTIATED;
    }
    s.desc.u.dec_info.pFrame[0].display_index = s.next_display_index;
    s.next_display_index = (s.next_display_index + 1) % 0x7fffffffu;
    return GST_FLOW_OK;
}

GstClockTime stream_time_of(GstBaseSink* bsink, GstBuffer* buf) {
    const GstClockTime pts = GST_BUFFER_PTS(buf);
    if (!GST_CLOCK_TIME_IS_VALID(pts)) {
        return GST_CLOCK_TIME_NONE;
    }
    return gst_segment_to_stream_time(&bsink->segment, GST_FORMAT_TIME, pts);
}

void set_display_time_locked(RuvoVideoSink* self, GstClockTime stream_time) {
    SinkState& s = *self->s;
    if (!GST_CLOCK_TIME_IS_VALID(stream_time)) {
        return;
    }
    const long long pts = ruvo_gst::pts_90khz(stream_time);
    if (quarvel_video_output_set_pts(s.output, pts) < 0) {
        s.failed_calls++;
        return;
    }
    s.video_pts = pts;
}

bool new_size_or_aspect(const SinkState& s) {
    const v4l2_drm_dec_info& dec = s.desc.u.dec_info;
    return dec.hres != s.shown_width || dec.vres != s.shown_height || dec.aspectratio != s.shown_aspect;
}

void remember_shown_size(SinkState& s) {
    const v4l2_drm_dec_info& dec = s.desc.u.dec_info;
    s.shown_width = dec.hres;
    s.shown_height = dec.vres;
    s.shown_aspect = dec.aspectratio;
}

// The decoder is told of the new size before the first frame of that size, so that the
// plane switches without a mute or a black frame.
void announce_resolution_locked(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    const int rc = quarvel_video_output_set_next_res(s.output, &s.frame);
    s.resolution_changes++;
    GST_INFO_OBJECT(self, "next resolution %ux%u announced (%d)", s.desc.u.dec_info.hres,
                    s.desc.u.dec_info.vres, rc);
    if (rc < 0) {
        s.failed_calls++;
    }
}

// Whether the first frame is on the panel, from the decoder's usage answer.
bool first_frame_latched_locked(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    quarvel_video_used_frames_s used{};
    if (quarvel_video_output_get_used_frames(s.output, &used) < 0) {
        s.failed_calls++;
        return false;
    }
    return s.history.latched(used.used_by_decoder[0]) != GST_CLOCK_TIME_NONE;
}

void announce_first_frame(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    s.first_latched = true;
    s.first_frame_latency_ns = static_cast<guint64>(g_get_monotonic_time() - s.first_frame_us) * 1000u;
    GST_INFO_OBJECT(self, "first frame on the panel");
    g_signal_emit(self, sink_signals[SIGNAL_FIRST_VIDEO_FRAME], 0);
}

GstFlowReturn frame_refused(RuvoVideoSink* self, const char* call, int rc) {
    SinkState& s = *self->s;
    s.dropped++;
    s.failed_calls++;
    s.failed_in_a_row++;
    if (s.failed_in_a_row >= kRuvoVideoSinkMaxFailedPushes) {
        GST_ELEMENT_ERROR(self, RESOURCE, WRITE,
                          ("The video plane refused %u frames in a row.", s.failed_in_a_row),
                          ("%s returned %d", call, rc));
        return GST_FLOW_ERROR;
    }
    GST_ELEMENT_WARNING(self, RESOURCE, WRITE, ("The video plane refused a frame; it is dropped."),
                        ("%s returned %d (%u in a row)", call, rc, s.failed_in_a_row));
    return GST_FLOW_OK;
}

// One vsync period of the panel, from the frame-rate driver.
gint64 vsync_period_us(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    quarvel_video_output_vsync_info_s info{};
    Lock lock(s.handle_lock);
    if (s.output == nullptr || quarvel_video_output_get_vsync_info(s.output, &info) < 0 || info.fps < 1.0) {
        return kDefaultVsyncPeriodUs;
    }
    return static_cast<gint64>(1e6 / info.fps);
}

// Hands `buf` to the plane: the first frame of the handle goes to the first-frame call,
// later ones are pushed (after a resolution announcement when their size changed).
GstFlowReturn show_buffer(RuvoVideoSink* self, GstBuffer* buf, bool set_display_time) {
    SinkState& s = *self->s;
    GstFlowReturn ret = describe_buffer(self, buf);
    if (ret != GST_FLOW_OK) {
        return ret;
    }
    const GstClockTime stream_time = stream_time_of(GST_BASE_SINK_CAST(self), buf);
    s.frame.v4l2_frame = &s.desc;
    bool latched_now = false;
    bool first_frame = false;
    const char* call = nullptr;
    int rc = 0;
    {
        Lock lock(s.handle_lock);
        if (s.output == nullptr) {
            return GST_FLOW_FLUSHING;
        }
        if (!s.output->m_first_frame_initialized) {
            first_frame = true;
            call = "quarvel_video_output_init_with_first_frame";
            s.first_frame_us = g_get_monotonic_time();
            rc = quarvel_video_output_init_with_first_frame(s.output, &s.frame);
        } else {
            if (new_size_or_aspect(s)) {
                announce_resolution_locked(self);
            }
            call = "quarvel_video_output_push_frame_to_display";
            rc = quarvel_video_output_push_frame_to_display(s.output, &s.frame);
        }
        if (rc >= 0 || s.output->m_first_frame_initialized) {
            remember_shown_size(s);
        }
        if (rc >= 0) {
            s.history.push(stream_time);
            if (set_display_time) {
                set_display_time_locked(self, stream_time);
            }
            latched_now = !s.first_latched && first_frame_latched_locked(self);
        }
    }
    if (rc < 0) {
        return frame_refused(self, call, rc);
    }
    if (first_frame) {
        s.latch_lead_ns = static_cast<guint64>(vsync_period_us(self)) * 1000;
    }
    s.failed_in_a_row = 0;
    gst_buffer_replace(&s.last_buffer, buf);
    if (latched_now) {
        announce_first_frame(self);
    }
    return GST_FLOW_OK;
}

// ---------------------------------------------------------------------------------------
// End of stream: posted once the last frame is latched on the panel.

// Frames the decoder still holds, or 0 when it cannot tell.
uint32_t frames_held(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    quarvel_video_used_frames_s used{};
    Lock lock(s.handle_lock);
    if (s.output == nullptr || s.history.pushed() == 0) {
        return 0;
    }
    if (quarvel_video_output_get_used_frames(s.output, &used) < 0) {
        s.failed_calls++;
        return 0;
    }
    return used.used_by_decoder[0];
}

// Sleeps one vsync period on the pipeline clock (so that a flush or a state change
// unschedules it), or on the monotonic clock when the sink does not synchronise.
GstFlowReturn wait_one_vsync(RuvoVideoSink* self, gint64 period_us) {
    GstBaseSink* bsink = GST_BASE_SINK(self);
    SinkState& s = *self->s;
    GstClockReturn cret = GST_CLOCK_BADTIME;
    GstClock* clock = gst_element_get_clock(GST_ELEMENT(self));
    if (clock != nullptr && gst_base_sink_get_sync(bsink)) {
        const GstClockTime now = gst_clock_get_time(clock) - gst_element_get_base_time(GST_ELEMENT(self));
        cret = gst_base_sink_wait_clock(bsink, now + static_cast<GstClockTime>(period_us) * GST_USECOND,
                                        nullptr);
    }
    if (clock != nullptr) {
        gst_object_unref(clock);
    }
    if (cret == GST_CLOCK_BADTIME) {
        GST_BASE_SINK_PREROLL_UNLOCK(bsink);
        g_mutex_lock(&s.wait_mutex);
        const gint64 deadline = g_get_monotonic_time() + period_us;
        while (!s.unlocked && g_cond_wait_until(&s.wait_cond, &s.wait_mutex, deadline)) {
        }
        g_mutex_unlock(&s.wait_mutex);
        GST_BASE_SINK_PREROLL_LOCK(bsink);
    }
    if (bsink->flushing) {
        return GST_FLOW_FLUSHING;
    }
    if (cret == GST_CLOCK_UNSCHEDULED || bsink->need_preroll) {
        return gst_base_sink_wait_preroll(bsink);
    }
    return GST_FLOW_OK;
}

GstFlowReturn wait_for_latch(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    const gint64 period_us = vsync_period_us(self);
    for (unsigned waits = 0;; ++waits) {
        const uint32_t held = frames_held(self);
        if (held == 0) {
            break;
        }
        if (waits == kRuvoVideoSinkMaxLatchWaits) {
            GST_ELEMENT_WARNING(self, RESOURCE, READ, ("The decoder did not release its last frames."),
                                ("%u frames still held after %u vsyncs", held, waits));
            return GST_FLOW_OK;
        }
        const GstFlowReturn ret = wait_one_vsync(self, period_us);
        if (ret != GST_FLOW_OK) {
            return ret;
        }
        s.vsyncs_seen++;
    }
    // Everything pushed is latched: the first frame too, if nothing said so yet.
    if (!s.first_latched && s.history.pushed() > 0) {
        announce_first_frame(self);
    }
    return GST_FLOW_OK;
}

// ---------------------------------------------------------------------------------------
// Base sink virtual methods

gboolean sink_set_caps(GstBaseSink* bsink, GstCaps* caps) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(bsink);
    SinkState& s = *self->s;
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps) || !plausible(info)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("Caps the video plane cannot show."),
                          ("caps %" GST_PTR_FORMAT, caps));
        return FALSE;
    }
    GstCapsFeatures* features = gst_caps_get_features(caps, 0);
    s.meta_caps = features != nullptr && gst_caps_features_contains(features, RUVO_CAPS_FEATURE_META_FRAME);
    if (!s.meta_caps) {
        ruvo_gst::describe_raw_frame(info, &s.desc);
    }
    s.frame.dv_profile = -1;
    GST_INFO_OBJECT(self, "caps %" GST_PTR_FORMAT, caps);
    Lock lock(s.handle_lock);
    s.video_width = GST_VIDEO_INFO_WIDTH(&info);
    s.video_height = GST_VIDEO_INFO_HEIGHT(&info);
    const ruvo_gst::ContentAspect aspect = ruvo_gst::content_aspect(info);
    if (aspect.num != s.aspect.num || aspect.den != s.aspect.den) {
        s.aspect = aspect;
        apply_rect_locked(self);
    }
    return TRUE;
}

// A frame handed over at its time is latched at the next vsync, up to one period later, and
// stays until the next latch: the sound would run ahead of the picture by up to a vsync.
// Handed over one vsync early, it is on the panel from at most one period before its time
// and never after it.
void sink_get_times(GstBaseSink* bsink, GstBuffer* buf, GstClockTime* start, GstClockTime* end) {
    *start = GST_BUFFER_PTS_IS_VALID(buf) ? GST_BUFFER_PTS(buf) : GST_BUFFER_DTS(buf);
    *end = GST_CLOCK_TIME_NONE;
    if (!GST_CLOCK_TIME_IS_VALID(*start)) {
        return;
    }
    const GstClockTime lead = reinterpret_cast<RuvoVideoSink*>(bsink)->s->latch_lead_ns.load();
    *start = *start > lead ? *start - lead : 0;
    if (GST_BUFFER_DURATION_IS_VALID(buf)) {
        *end = *start + GST_BUFFER_DURATION(buf);
    }
}

GstFlowReturn sink_preroll(GstBaseSink* bsink, GstBuffer* buf) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(bsink);
    gboolean show_preroll = TRUE;
    g_object_get(self, "show-preroll-frame", &show_preroll, nullptr);
    if (!show_preroll) {
        return GST_FLOW_OK;
    }
    const GstFlowReturn ret = show_buffer(self, buf, false);
    if (ret == GST_FLOW_OK) {
        self->s->prerolled = buf;
    }
    return ret;
}

GstFlowReturn sink_render(GstBaseSink* bsink, GstBuffer* buf) {
    // The base class only renders on its own instance: no type check per frame.
    RuvoVideoSink* self = reinterpret_cast<RuvoVideoSink*>(bsink);
    SinkState& s = *self->s;
    if (buf == s.prerolled) {
        // The preroll frame is already on the plane; now is its time.
        s.prerolled = nullptr;
        Lock lock(s.handle_lock);
        if (s.output != nullptr) {
            set_display_time_locked(self, stream_time_of(bsink, buf));
        }
        return GST_FLOW_OK;
    }
    s.prerolled = nullptr;
    return show_buffer(self, buf, true);
}

GstFlowReturn sink_wait_event(GstBaseSink* bsink, GstEvent* event) {
    const GstFlowReturn ret = GST_BASE_SINK_CLASS(ruvo_video_sink_parent_class)->wait_event(bsink, event);
    if (ret != GST_FLOW_OK || GST_EVENT_TYPE(event) != GST_EVENT_EOS) {
        return ret;
    }
    return wait_for_latch(RUVO_VIDEO_SINK(bsink));
}

gboolean sink_event(GstBaseSink* bsink, GstEvent* event) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(bsink);
    SinkState& s = *self->s;
    switch (GST_EVENT_TYPE(event)) {
        case GST_EVENT_FLUSH_START:
            s.flushing = true;
            break;
        case GST_EVENT_FLUSH_STOP: {
            // The last frame stays on the plane; only what the element counts starts over.
            Lock lock(s.handle_lock);
            s.history.reset();
            s.flushing = false;
            break;
        }
        default:
            break;
    }
    if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) {
        s.prerolled = nullptr;
        s.failed_in_a_row = 0;
    }
    return GST_BASE_SINK_CLASS(ruvo_video_sink_parent_class)->event(bsink, event);
}

gboolean sink_unlock(GstBaseSink* bsink) {
    SinkState& s = state(bsink);
    g_mutex_lock(&s.wait_mutex);
    s.unlocked = true;
    g_cond_broadcast(&s.wait_cond);
    g_mutex_unlock(&s.wait_mutex);
    return TRUE;
}

gboolean sink_unlock_stop(GstBaseSink* bsink) {
    SinkState& s = state(bsink);
    g_mutex_lock(&s.wait_mutex);
    s.unlocked = false;
    g_mutex_unlock(&s.wait_mutex);
    return TRUE;
}

// POSITION: the stream time of the frame on the panel, never of one still queued.
gboolean answer_position(RuvoVideoSink* self, GstQuery* query) {
    SinkState& s = *self->s;
    if (s.flushing) {
        return FALSE;
    }
    GstClockTime latched = GST_CLOCK_TIME_NONE;
    {
        Lock lock(s.handle_lock);
        quarvel_video_used_frames_s used{};
        if (s.output == nullptr || quarvel_video_output_get_used_frames(s.output, &used) < 0) {
            return FALSE;
        }
        latched = s.history.latched(used.used_by_decoder[0]);
    }
    if (!GST_CLOCK_TIME_IS_VALID(latched)) {
        return FALSE;
    }
    gst_query_set_position(query, GST_FORMAT_TIME, static_cast<gint64>(latched));
    return TRUE;
}

gboolean element_query(GstElement* element, GstQuery* query) {
    if (GST_QUERY_TYPE(query) == GST_QUERY_POSITION) {
        GstFormat format = GST_FORMAT_UNDEFINED;
        gst_query_parse_position(query, &format, nullptr);
        if (format == GST_FORMAT_TIME) {
            return answer_position(RUVO_VIDEO_SINK(element), query);
        }
    }
    return GST_ELEMENT_CLASS(ruvo_video_sink_parent_class)->query(element, query);
}

GstStateChangeReturn change_state(GstElement* element, GstStateChange transition) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(element);
    if (transition == GST_STATE_CHANGE_NULL_TO_READY && !open_output(self)) {
        return GST_STATE_CHANGE_FAILURE;
    }
    const GstStateChangeReturn ret =
        GST_ELEMENT_CLASS(ruvo_video_sink_parent_class)->change_state(element, transition);
    if (ret == GST_STATE_CHANGE_FAILURE) {
        if (transition == GST_STATE_CHANGE_NULL_TO_READY) {
            close_output(self);
        }
        return ret;
    }
    switch (transition) {
        case GST_STATE_CHANGE_PAUSED_TO_READY:
            forget_stream(self);
            break;
        case GST_STATE_CHANGE_READY_TO_NULL:
            close_output(self);
            break;
        default:
            break;
    }
    return ret;
}

// ---------------------------------------------------------------------------------------
// Properties and signals

GstStructure* make_stats(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    guint64 rendered = 0;
    guint64 base_dropped = 0;
    gdouble average_rate = 0.0;
    GstStructure* base = gst_base_sink_get_stats(GST_BASE_SINK(self));
    gst_structure_get_uint64(base, "rendered", &rendered);
    gst_structure_get_uint64(base, "dropped", &base_dropped);
    gst_structure_get_double(base, "average-rate", &average_rate);
    gst_structure_free(base);
    return gst_structure_new(
        "ruvovideosink-stats", "rendered", G_TYPE_UINT64, rendered, "dropped", G_TYPE_UINT64,
        base_dropped + s.dropped.load(), "average-rate", G_TYPE_DOUBLE, average_rate, "first-frame-latency",
        G_TYPE_UINT64, s.first_frame_latency_ns.load(), "vsyncs-seen", G_TYPE_UINT64, s.vsyncs_seen.load(),
        "rectangle-updates", G_TYPE_UINT64, s.rectangle_updates.load(), "resolution-changes", G_TYPE_UINT64,
        s.resolution_changes.load(), "failed-calls", G_TYPE_UINT64, s.failed_calls.load(), nullptr);
}

guint queued_frames(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    quarvel_video_used_frames_s used{};
    Lock lock(s.handle_lock);
    if (s.output == nullptr || quarvel_video_output_get_used_frames(s.output, &used) < 0) {
        return 0;
    }
    return used.used_by_decoder[0];
}

gdouble vsync_rate(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    quarvel_video_output_vsync_info_s info{};
    Lock lock(s.handle_lock);
    if (s.output == nullptr || quarvel_video_output_get_vsync_info(s.output, &info) < 0) {
        return 0.0;
    }
    return info.fps;
}

gchar* rectangle_text(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    Lock lock(s.handle_lock);
    if (s.rect_set) {
        return g_strdup_printf("%d,%d,%u,%u", s.wanted.x, s.wanted.y, s.wanted.w, s.wanted.h);
    }
    return g_strdup_printf("0,0,%d,%d", s.panel_width, s.panel_height);
}

int locked_int(RuvoVideoSink* self, const int SinkState::*member) {
    SinkState& s = *self->s;
    Lock lock(s.handle_lock);
    return s.*member;
}

void set_property(GObject* object, guint prop_id, const GValue* value, GParamSpec* pspec) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(object);
    if (gst_video_overlay_set_property(object, PROP_LAST, prop_id, value)) {
        return;
    }
    switch (prop_id) {
        case PROP_RECTANGLE: {
            gint x = 0, y = 0, w = 0, h = 0;
            if (!parse_rectangle(g_value_get_string(value), &x, &y, &w, &h)) {
                GST_WARNING_OBJECT(self, "rectangle \"%s\" is not \"x,y,w,h\"", g_value_get_string(value));
                return;
            }
            set_rectangle(self, x, y, w, h);
            break;
        }
        case PROP_SHOW_VIDEO_WINDOW:
            set_visible(self, g_value_get_boolean(value));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
            break;
    }
}

void get_property(GObject* object, guint prop_id, GValue* value, GParamSpec* pspec) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(object);
    SinkState& s = *self->s;
    switch (prop_id) {
        case PROP_RECTANGLE:
            g_value_take_string(value, rectangle_text(self));
            break;
        case PROP_SHOW_VIDEO_WINDOW: {
            Lock lock(s.handle_lock);
            g_value_set_boolean(value, s.visible);
            break;
        }
        case PROP_VIDEO_WIDTH:
            g_value_set_int(value, locked_int(self, &SinkState::video_width));
            break;
        case PROP_VIDEO_HEIGHT:
            g_value_set_int(value, locked_int(self, &SinkState::video_height));
            break;
        case PROP_DISPLAY_WIDTH:
            g_value_set_int(value, locked_int(self, &SinkState::panel_width));
            break;
        case PROP_DISPLAY_HEIGHT:
            g_value_set_int(value, locked_int(self, &SinkState::panel_height));
            break;
        case PROP_QUEUED_FRAMES:
            g_value_set_uint(value, queued_frames(self));
            break;
        case PROP_VIDEO_PTS:
            g_value_set_int64(value, s.video_pts.load());
            break;
        case PROP_VSYNC_RATE:
            g_value_set_double(value, vsync_rate(self));
            break;
        case PROP_STATS:
            g_value_take_boxed(value, make_stats(self));
            break;
        default:
            G_OBJECT_WARN_INVALID_PROPERTY_ID(object, prop_id, pspec);
            break;
    }
}

void hand_back_to_broadcast(RuvoVideoSink* self) {
    SinkState& s = *self->s;
    Lock lock(s.handle_lock);
    if (s.output == nullptr) {
        GST_WARNING_OBJECT(self, "hand-back without an open video plane");
        return;
    }
    GST_INFO_OBJECT(self, "handing the screen back to broadcast");
    quarvel_video_output_notify_ta_switch(s.output);
}

void finalize(GObject* object) {
    RuvoVideoSink* self = RUVO_VIDEO_SINK(object);
    close_output(self);
    gst_buffer_replace(&self->s->last_buffer, nullptr);
    g_mutex_clear(&self->s->wait_mutex);
    g_cond_clear(&self->s->wait_cond);
    delete self->s;
    self->s = nullptr;
    G_OBJECT_CLASS(ruvo_video_sink_parent_class)->finalize(object);
}

void install_properties(GObjectClass* gobject_class) {
    const auto ro = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    const auto rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        gobject_class, PROP_RECTANGLE,
        g_param_spec_string(
            "rectangle", "Rectangle",
            "Where the video is shown on the panel, \"x,y,w,h\" in panel pixels (a width or height "
            "of 0 hides the video); the whole panel until set",
            nullptr, rw));
    g_object_class_install_property(
        gobject_class, PROP_SHOW_VIDEO_WINDOW,
        g_param_spec_boolean(
            "show-video-window", "Show video window",
            "FALSE hides the video (the plane is muted), TRUE shows it again in its rectangle", TRUE, rw));
    g_object_class_install_property(
        gobject_class, PROP_VIDEO_WIDTH,
        g_param_spec_int("video-width", "Video width",
                         "Width of the negotiated video in pixels (0 before caps)", 0, G_MAXINT, 0, ro));
    g_object_class_install_property(
        gobject_class, PROP_VIDEO_HEIGHT,
        g_param_spec_int("video-height", "Video height",
                         "Height of the negotiated video in lines (0 before caps)", 0, G_MAXINT, 0, ro));
    g_object_class_install_property(
        gobject_class, PROP_DISPLAY_WIDTH,
        g_param_spec_int("display-width", "Display width", "Width of the panel in pixels (0 while closed)", 0,
                         G_MAXINT, 0, ro));
    g_object_class_install_property(
        gobject_class, PROP_DISPLAY_HEIGHT,
        g_param_spec_int("display-height", "Display height", "Height of the panel in pixels (0 while closed)",
                         0, G_MAXINT, 0, ro));
    g_object_class_install_property(
        gobject_class, PROP_QUEUED_FRAMES,
        g_param_spec_uint("queued-frames", "Queued frames",
                          "Frames the decoder still holds for display (asked from the driver on each read)",
                          0, G_MAXUINT, 0, ro));
    g_object_class_install_property(
        gobject_class, PROP_VIDEO_PTS,
        g_param_spec_int64(
            "video-pts", "Video PTS",
            "Timestamp last set for display, in 90 kHz units of stream time (-1 before the first)", -1,
            G_MAXINT64, -1, ro));
    g_object_class_install_property(
        gobject_class, PROP_VSYNC_RATE,
        g_param_spec_double("vsync-rate", "Vsync rate",
                            "Refresh rate of the panel in Hz as the driver reports it "
                            "(0 while unknown)",
                            0.0, G_MAXDOUBLE, 0.0, ro));
    g_object_class_install_property(
        gobject_class, PROP_STATS,
        g_param_spec_boxed(
            "stats", "Statistics",
            "rendered, dropped (the base sink's and refused frames), average-rate, "
            "first-frame-latency (ns from the first frame handed over to its latch being seen), "
            "vsyncs-seen (vsyncs waited through for a latch), rectangle-updates, "
            "resolution-changes, failed-calls",
            GST_TYPE_STRUCTURE, ro));
    gst_video_overlay_install_properties(gobject_class, PROP_LAST);
}

void install_signals(GObjectClass* gobject_class) {
    // first-video-frame: the first frame of the stream is on the panel (learned from the
    // decoder's usage answer). Emitted from the streaming thread.
    sink_signals[SIGNAL_FIRST_VIDEO_FRAME] =
        g_signal_new("first-video-frame", G_TYPE_FROM_CLASS(gobject_class), G_SIGNAL_RUN_LAST, 0, nullptr,
                     nullptr, nullptr, G_TYPE_NONE, 0);
    // hand-back-to-broadcast: action signal; at the end of an advertising break, puts the
    // broadcast decoder's picture back on the plane (only while the platform has set
    // TA_DTV_PRELOAD=1, see the README).
    sink_signals[SIGNAL_HAND_BACK_TO_BROADCAST] = g_signal_new_class_handler(
        "hand-back-to-broadcast", G_TYPE_FROM_CLASS(gobject_class),
        static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION), G_CALLBACK(hand_back_to_broadcast),
        nullptr, nullptr, nullptr, G_TYPE_NONE, 0);
}

}  // namespace

static void ruvo_video_sink_class_init(RuvoVideoSinkClass* klass) {
    GObjectClass* gobject_class = G_OBJECT_CLASS(klass);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    GstBaseSinkClass* base_class = GST_BASE_SINK_CLASS(klass);
    GST_DEBUG_CATEGORY_INIT(ruvo_video_sink_debug, "ruvovideosink", 0, "TV main video plane sink");

    gobject_class->set_property = set_property;
    gobject_class->get_property = get_property;
    gobject_class->finalize = finalize;
    install_properties(gobject_class);
    install_signals(gobject_class);

    gst_element_class_set_static_metadata(
        element_class, "TV main video plane sink", "Sink/Video",
        "Shows decoded video on the TV's main video plane: decoder frames carrying RuvoFrameMeta, or "
        "software-decoded NV12/I420/P010 frames described to the plane without copying pixels",
        "ruvo_avsink_interface");
    gst_element_class_add_static_pad_template(element_class, &sink_template);
    element_class->change_state = change_state;
    element_class->query = element_query;

    base_class->set_caps = sink_set_caps;
    base_class->get_times = sink_get_times;
    base_class->preroll = sink_preroll;
    base_class->render = sink_render;
    base_class->wait_event = sink_wait_event;
    base_class->event = sink_event;
    base_class->unlock = sink_unlock;
    base_class->unlock_stop = sink_unlock_stop;
}

static void ruvo_video_sink_init(RuvoVideoSink* self) {
    self->s = new SinkState();
    g_mutex_init(&self->s->wait_mutex);
    g_cond_init(&self->s->wait_cond);
}

static void overlay_set_render_rectangle(GstVideoOverlay* overlay, gint x, gint y, gint width, gint height) {
    set_rectangle(RUVO_VIDEO_SINK(overlay), x, y, width, height);
}

// The plane has no window: a window handle changes nothing.
static void overlay_set_window_handle(GstVideoOverlay*, guintptr) {}

static void ruvo_video_sink_overlay_init(GstVideoOverlayInterface* iface) {
    iface->set_render_rectangle = overlay_set_render_rectangle;
    iface->set_window_handle = overlay_set_window_handle;
}

gboolean ruvo_video_sink_register(GstPlugin* plugin) {
    return gst_element_register(plugin, "ruvovideosink", GST_RANK_PRIMARY, RUVO_TYPE_VIDEO_SINK);
}
